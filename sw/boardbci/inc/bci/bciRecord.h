/// How records of BCI and CCFI become messages and messages become records.
///
/// A record is a plain struct whose members follow the wire in natural alignment. Its `BciRecord` says what
/// the compiler cannot know: its number, where the last field ends, and which members are wider than a byte.
/// The message number stays in host order, all else is in network order on the wire; handlers only ever see
/// host order. Character arrays are never swapped.
#pragma once

#include "bci/bciSignals.h"
#include "mnet.h"
#include "mnetMsgPtr.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>

/// The references behind the number of every signal, offsets 4 and 8.
struct TarnNodeCommonAddressInfoS {
    std::int32_t clientRef; ///< chosen by the client, echoed in every answer
    std::int32_t serverRef; ///< chosen by the server side when the connection is established

    bool operator==(const TarnNodeCommonAddressInfoS&) const = default;
};

/// Specialised for each record with
///   static constexpr std::uint32_t number;
///   static constexpr std::size_t size; // bytes on the wire, as a rule those of the table
///   static constexpr auto fields;      // std::tuple of pointers to the members that are swapped
template <class R> struct BciRecord;

namespace Bci {

/// Between network and host order, in place; arrays and structs of references element by element.
template <class T> void swapOrder(T& field)
{
    if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1) {
        return;
    } else if constexpr (std::is_array_v<T>) {
        for (auto& element : field) {
            swapOrder(element);
        }
    } else if constexpr (std::is_same_v<T, TarnNodeCommonAddressInfoS>) {
        swapOrder(field.clientRef);
        swapOrder(field.serverRef);
    } else if constexpr (sizeof(T) == 2) {
        field = static_cast<T>(__builtin_bswap16(static_cast<std::uint16_t>(field)));
    } else if constexpr (sizeof(T) == 4) {
        field = static_cast<T>(__builtin_bswap32(static_cast<std::uint32_t>(field)));
    } else {
        static_assert(sizeof(T) == 8,
                      "a field of a record is an integer, an enumeration or an array of them");
        field = static_cast<T>(__builtin_bswap64(static_cast<std::uint64_t>(field)));
    }
}

template <class R> void swapRecord(R& record)
{
    if constexpr (requires { record.addressInfo; }) {
        swapOrder(record.addressInfo);
    }
    std::apply([&record](auto... field) { (swapOrder(record.*field), ...); }, BciRecord<R>::fields);
}

/// "ABN: NAME (0xNUMBER) from mbox: 0xSENDER is too short: 8 of 12 bytes. Ignoring it." at level 4. `size` is
/// what the signal should have; what it announces itself may be more than any message can have.
__attribute__((visibility("default"))) void traceShortSignal(const mnet_msg& msg, std::uint32_t number,
                                                             std::uint64_t size);

/// The field of type T at `offset`, in host order; 0 when the message ends before the field does.
template <class T> [[nodiscard]] T fieldOrZero(const mnet_msg& msg, std::size_t offset)
{
    T value{};
    const std::size_t size = mnet_size(&msg);
    if (size >= sizeof(T) && offset <= size - sizeof(T)) {
        std::memcpy(&value, reinterpret_cast<const unsigned char*>(&msg) + offset, sizeof(T));
        swapOrder(value);
    }
    return value;
}

/// The references of any signal, whatever its number and length: one that is missing or cut is 0.
[[nodiscard]] inline TarnNodeCommonAddressInfoS referencesOf(const mnet_msg& msg)
{
    return {.clientRef = fieldOrZero<std::int32_t>(msg, 4), .serverRef = fieldOrZero<std::int32_t>(msg, 8)};
}

/// The text in an array of a record: up to its NUL, or all of the array.
template <class C, std::size_t N> [[nodiscard]] std::string textOf(const C (&array)[N])
{
    static_assert(sizeof(C) == 1);
    const auto* text = reinterpret_cast<const char*>(array);
    return {text, strnlen(text, N)};
}

} // namespace Bci

template <class R> void ntoh(R& record)
{
    Bci::swapRecord(record);
}

template <class R> void hton(R& record)
{
    static_assert(
        std::has_unique_object_representations_v<R> || requires { requires BciRecord<R>::size < sizeof(R); },
        "bytes that no field sets would go out as they are found");
    Bci::swapRecord(record);
}

/// The record at the start of `msg` in host order; nothing, and an "ABN:" trace that names signal, sender and
/// both sizes, when the message is shorter than the record.
template <class R> [[nodiscard]] std::optional<R> readSignal(const mnet_msg& msg)
{
    static_assert(std::is_trivially_copyable_v<R> && BciRecord<R>::size <= sizeof(R));
    if (mnet_size(&msg) < BciRecord<R>::size) {
        Bci::traceShortSignal(msg, BciRecord<R>::number, BciRecord<R>::size);
        return std::nullopt;
    }
    R record{};
    std::memcpy(&record, &msg, BciRecord<R>::size);
    ntoh(record);
    return record;
}

/// The text of free length behind a record that was read: up to its NUL, or to the signal's end.
template <class R> [[nodiscard]] std::string textBehind(const mnet_msg& msg)
{
    const auto* text = reinterpret_cast<const char*>(&msg) + BciRecord<R>::size;
    return {text, strnlen(text, mnet_size(&msg) - BciRecord<R>::size)};
}

/// A zeroed record with its number and the given references set, in host order; converted when it is sent.
template <class R> [[nodiscard]] R answerTo(const TarnNodeCommonAddressInfoS& addressInfo)
{
    R record{};
    record.msgNo = BciRecord<R>::number;
    record.addressInfo = addressInfo;
    return record;
}

/// A record in host order as the message that carries it; empty when there is no memory for one.
template <class R> [[nodiscard]] MnetMsgPtr toMessage(R record)
{
    static_assert(std::is_trivially_copyable_v<R> && BciRecord<R>::size <= sizeof(R));
    hton(record);
    MnetMsgPtr msg = allocMsg(BciRecord<R>::size, BciRecord<R>::number);
    if (msg) {
        std::memcpy(msg.get(), &record, BciRecord<R>::size);
        msg->msgNo = BciRecord<R>::number;
    }
    return msg;
}
