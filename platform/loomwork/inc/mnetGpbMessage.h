/// The received form of a protobuf frame: number, two references, and the parsed message.
///
///   offset 0   number         32 bits, host order
///   offset 4   procedureRef   32 bits, network order
///   offset 8   connectionRef  32 bits, network order
///   offset 12  the serialised message; nothing when it is empty
#pragma once

#include "mnet.h"
#include "scryTrace.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <string>

namespace Loomwork::Util {

/// Holds a copy of everything: the frame may go as soon as the object is built. Not for sharing between
/// threads without care.
template <class T> class MnetGpbMessage {
public:
    static constexpr std::size_t headerSize = 12;

    /// Parses `msg`, which stays the caller's; not a byte behind `mnet_size(msg)` is read. A frame that does
    /// not parse is traced at level 1, one that does at the received-signal level of `traceObj` (may be
    /// null: no such trace).
    MnetGpbMessage(const mnet_msg* msg, const scry_record* traceObj)
    {
        const std::size_t size = mnet_size(msg);
        m_msgNo = word(msg, 0, size);
        m_procedureRef = ntohl(word(msg, 4, size));
        m_connectionRef = ntohl(word(msg, 8, size));
        m_valid = parse(msg, size);
        if (!m_valid) {
            m_message.Clear(); // what the parser had read before it gave up
            traceFailure(size);
            return;
        }
        traceSuccess(msg, traceObj);
    }

    /// Whether the frame was long enough and its message parsed. If not, get() is an empty message.
    [[nodiscard]] bool valid() const { return m_valid; }

    /// The header's words in host order; 0 for those that the frame is too short for.
    [[nodiscard]] std::uint32_t msgNo() const { return m_msgNo; }
    [[nodiscard]] std::uint32_t procedureRef() const { return m_procedureRef; }
    [[nodiscard]] std::uint32_t connectionRef() const { return m_connectionRef; }

    [[nodiscard]] const T& get() const { return m_message; }

private:
    static std::uint32_t word(const mnet_msg* msg, std::size_t offset, std::size_t size)
    {
        std::uint32_t value = 0;
        if (offset + sizeof(value) <= size) {
            std::memcpy(&value, reinterpret_cast<const char*>(msg) + offset, sizeof(value));
        }
        return value;
    }

    bool parse(const mnet_msg* msg, std::size_t size)
    {
        if (size < headerSize) {
            return false;
        }
        const std::size_t length = size - headerSize;
        if (length == 0) {
            return true;
        }
        return length <= static_cast<std::size_t>(std::numeric_limits<int>::max()) &&
               m_message.ParseFromArray(reinterpret_cast<const char*>(msg) + headerSize,
                                        static_cast<int>(length));
    }

    /// Without memory a trace is lost, and not the message that it tells of.
    void traceFailure(std::size_t size) const
    try {
        if ((procInfo->mask & (1u << 1)) != 0) {
            const std::string text = "Unable to parse GPB message " + m_message.GetTypeName() + " of size " +
                                     std::to_string(size) + " bytes";
            lttngScryTrace(1, short_fname(__FILE__), __LINE__, text.c_str(), procInfo);
        }
    } catch (const std::bad_alloc&) {
        traceNothing();
    }

    void traceSuccess(const mnet_msg* msg, const scry_record* traceObj) const
    try {
        if ((procInfo->mask & (1u << SCRY_OBJ_BIT)) != 0 && traceObj != nullptr &&
            (traceObj->mask & (1u << SCRY_LEVEL_RECEIVED)) != 0) {
            const std::string text = "msgNo:" + std::to_string(m_msgNo) +
                                     " procedureRef:" + std::to_string(m_procedureRef) +
                                     " connectionRef:" + std::to_string(m_connectionRef) + " " +
                                     m_message.GetTypeName() + ":{" + m_message.ShortDebugString() + "}";
            lttngScryIfObjRecSigTrace(short_fname(__FILE__), __LINE__, msg, text.c_str(), procInfo, traceObj);
        }
    } catch (const std::bad_alloc&) {
        traceNothing();
    }

    static void traceNothing()
    {
        lttngScryTrace(1, short_fname(__FILE__), __LINE__, "ABN: No memory for a trace", procInfo);
    }

    std::uint32_t m_msgNo = 0;
    std::uint32_t m_procedureRef = 0;
    std::uint32_t m_connectionRef = 0;
    bool m_valid = false;
    T m_message;
};

} // namespace Loomwork::Util
