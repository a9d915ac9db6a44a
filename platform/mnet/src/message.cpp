#include "message.h"

#include <cstring>
#include <new>
#include <utility>

namespace mnet {

namespace {

constexpr std::size_t largeBlock = 1024;

} // namespace

static_assert(sizeof(Block) % alignof(std::max_align_t) == 0);
static_assert(offsetof(Block, packetKind) == sizeof(Block) - sizeof(PacketHeader));
static_assert(offsetof(Block, packetValue) == sizeof(Block) - sizeof(std::uint32_t));

BlockPtr makeBlock(std::size_t size, Fill fill)
{
    const std::size_t total = sizeof(Block) + size;
    // For small blocks, calloc passes by the allocator's per-thread cache; for large ones, it knows of memory
    // that is zero already.
    const bool fresh = fill == Fill::zero && total > largeBlock;
    void* memory = fresh ? std::calloc(1, total) : std::malloc(total);
    if (memory == nullptr) {
        return nullptr;
    }
    BlockPtr block(new (memory) Block);
    block->size = size;
    if (fill == Fill::zero && !fresh) {
        std::memset(block->body(), 0, size);
    }
    return block;
}

BlockPtr makeDefaultMessage(std::uint32_t msgNo)
{
    BlockPtr block = makeBlock(minMessageSize, Fill::zero);
    if (block) {
        block->msg()->msgNo = msgNo;
    }
    return block;
}

BlockPtr takeMessage(mnet_msg** msg)
{
    if (msg == nullptr || *msg == nullptr) {
        return nullptr;
    }
    return BlockPtr(Block::of(std::exchange(*msg, nullptr)));
}

void MessageQueue::push(BlockPtr block)
{
    Block* added = block.release();
    added->next = nullptr;
    added->prev = m_last;
    (m_last != nullptr ? m_last->next : m_first) = added;
    m_last = added;
    m_bytes += added->cost();
    m_notices += added->kind == Kind::notice ? 1 : 0;
}

BlockPtr MessageQueue::remove(Block* block)
{
    (block->prev != nullptr ? block->prev->next : m_first) = block->next;
    (block->next != nullptr ? block->next->prev : m_last) = block->prev;
    block->next = nullptr;
    block->prev = nullptr;
    m_bytes -= block->cost();
    m_notices -= block->kind == Kind::notice ? 1 : 0;
    return BlockPtr(block);
}

void MessageQueue::prependAll(MessageQueue& other)
{
    if (other.empty()) {
        return;
    }
    other.m_last->next = m_first;
    (m_first != nullptr ? m_first->prev : m_last) = other.m_last;
    m_first = std::exchange(other.m_first, nullptr);
    other.m_last = nullptr;
    m_bytes += std::exchange(other.m_bytes, 0);
    m_notices += std::exchange(other.m_notices, 0);
}

void MessageQueue::clear()
{
    while (!empty()) {
        pop();
    }
}

} // namespace mnet
