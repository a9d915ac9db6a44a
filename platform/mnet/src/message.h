/// A message in memory: one heap block, a header for the library and behind it what the user sees.
#pragma once

#include "mnet.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace mnet {

inline constexpr std::size_t maxMessageSize = std::size_t{16} * 1024 * 1024;
inline constexpr std::size_t minMessageSize = sizeof(mnet_msg);

/// What a packet is for, and what a block that is kept for sending becomes. On the wire, see wire.h.
enum class Kind : std::uint16_t {
    hello = 1,
    welcome = 2,
    data = 3,
    dataFirst = 4,
    dataMore = 5,
    monitor = 6,
    unmonitor = 7,
    notice = 8
};

/// The header of a packet, see wire.h.
struct PacketHeader {
    std::uint32_t kind = 0;
    std::uint32_t sender = 0;
    std::uint32_t receiver = 0;
    std::uint32_t value = 0;
};
static_assert(sizeof(PacketHeader) == 16);

/// The library's part of a message. Its size keeps the user's part aligned for any type. It ends with what
/// stands in front of the message on the wire, so that both leave and arrive in one piece.
struct alignas(std::max_align_t) Block {
    Block* next = nullptr;
    Block* prev = nullptr;
    std::size_t size = 0;
    mnet_monitor_id_t monitor = 0; ///< the monitor that this notice (or request to a peer) belongs to
    Kind kind = Kind::data;
    bool isNotice = false;

    std::uint32_t packetKind = 0; ///< as the next three: a `PacketHeader` in place
    mnet_mbox_id_t sender = MNET_MBOX_NONE;
    mnet_mbox_id_t receiver = MNET_MBOX_NONE;
    std::uint32_t packetValue = 0;

    std::byte* packet() { return body() - sizeof(PacketHeader); }
    PacketHeader header() const
    {
        return {.kind = packetKind, .sender = sender, .receiver = receiver, .value = packetValue};
    }
    std::byte* body() { return reinterpret_cast<std::byte*>(this + 1); }
    mnet_msg* msg() { return reinterpret_cast<mnet_msg*>(this + 1); }
    static Block* of(mnet_msg* msg) { return reinterpret_cast<Block*>(msg) - 1; }
    static const Block* of(const mnet_msg* msg) { return reinterpret_cast<const Block*>(msg) - 1; }

    /// What the block costs, the library's part included: what the limits count.
    std::size_t cost() const { return sizeof(Block) + size; }
};

struct BlockDeleter {
    void operator()(Block* block) const { std::free(block); }
};
using BlockPtr = std::unique_ptr<Block, BlockDeleter>;

enum class Fill { none, zero };

/// A block with `size` bytes for the user, nothing when there is no memory.
BlockPtr makeBlock(std::size_t size, Fill fill);

/// A block for `msgNo` alone: the default message of a locate or a monitor.
BlockPtr makeDefaultMessage(std::uint32_t msgNo);

/// Takes the message out of the caller's hands: `*msg` is null afterwards.
BlockPtr takeMessage(mnet_msg** msg);

/// Messages in order. A list whose links lie in the blocks, so that putting one in can't fail and taking one
/// out of the middle costs nothing.
class MessageQueue {
public:
    MessageQueue() = default;
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;
    ~MessageQueue() { clear(); }

    bool empty() const { return m_first == nullptr; }
    Block* first() const { return m_first; }
    std::size_t bytes() const { return m_bytes; }
    /// How many blocks are notices of a death.
    std::size_t notices() const { return m_notices; }

    void push(BlockPtr block);
    BlockPtr remove(Block* block);
    /// The analyzer misses that `remove` takes the block out of the list before its owner can free it.
    BlockPtr pop() { return remove(m_first); } // NOLINT(clang-analyzer-unix.Malloc)
    void prependAll(MessageQueue& other);
    void clear();

    /// Removes every block that `match` names and gives it to `sink`.
    template <class Match, class Sink> void removeIf(Match match, Sink sink)
    {
        for (Block* block = m_first; block != nullptr;) {
            Block* next = block->next;
            if (match(*block)) {
                sink(remove(block));
            }
            block = next;
        }
    }

private:
    Block* m_first = nullptr;
    Block* m_last = nullptr;
    std::size_t m_bytes = 0;
    std::size_t m_notices = 0;
};

} // namespace mnet
