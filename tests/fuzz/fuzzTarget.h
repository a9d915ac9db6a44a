/// What a program of fuzz targets is made of. Built with the fuzzer it searches; built without, it replays.
#pragma once

#include "schemas.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>
#include <string>
#include <vector>

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

/// Of an input that is played step by step; what is behind them is left.
inline constexpr unsigned int maxSteps = 64;

/// Where an input holds a message of an interface.
struct Place {
    static constexpr std::size_t unknown = SIZE_MAX;

    const Schema* schema = nullptr;
    std::size_t howAt = unknown; ///< where it begins
    std::size_t choiceAt = 0;    ///< the byte that chooses the message
    std::size_t lengthAt = 0;    ///< of the body; where the body begins when it goes on to the end
    std::size_t bodyAt = 0;
    std::size_t bodySize = 0;
    std::size_t headSize = 0; ///< of a signal, what stands before the body
    bool isBlock = false;     ///< the body's length stands before it
    bool isShort = false;     ///< a signal whose head can be left to its target, see `Input::shortHead`
};

/// What a target found in an input while it ran; offsets into it.
struct Form {
    std::vector<std::size_t> steps; ///< where each begins
    std::vector<Place> places;
    std::size_t end = 0; ///< what is behind was not read
};

/// Bytes that steer a target. What is behind the end reads as zero.
class Input {
public:
    /// A length that stands for two more bytes with the length.
    static constexpr std::uint8_t longBlock = 0xFF;
    /// In the first byte of a signal with a short head: usual references, and as long as its body makes it;
    /// with 1, as long as the table says.
    static constexpr std::uint8_t shortHead = 0x18;

    explicit Input(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}

    [[nodiscard]] bool empty() const { return m_at == m_bytes.size(); }
    std::uint8_t u8() { return empty() ? std::uint8_t{0} : m_bytes[m_at++]; }
    std::uint32_t u32()
    {
        std::uint32_t value = 0;
        for (unsigned int shift = 0; shift < 32; shift += 8) {
            value |= std::uint32_t{u8()} << shift;
        }
        return value;
    }
    /// At most this many.
    Bytes take(std::size_t size)
    {
        const std::size_t left = m_bytes.size() - m_at;
        const auto front = m_bytes.subspan(m_at, size < left ? size : left);
        m_at += front.size();
        return {front.begin(), front.end()};
    }
    /// As many as the next byte says, or the two behind it.
    Bytes block()
    {
        const std::uint8_t size = u8();
        if (size != longBlock) {
            return take(size);
        }
        const std::size_t low = u8();
        return take(low + u8() * 256U);
    }
    Bytes rest() { return take(m_bytes.size()); }
    std::string restAsText()
    {
        const Bytes bytes = rest();
        return {bytes.begin(), bytes.end()};
    }
    /// One of a list.
    template <class List> const auto& of(const List& list) { return list[u8() % std::size(list)]; }

    // What follows reads as the above, and has the mutator know what was read.

    /// Here a step begins.
    void markStep() { m_form.steps.push_back(m_at); }
    /// The first byte of a step.
    std::uint8_t step()
    {
        markStep();
        return u8();
    }
    /// The first byte of a message. With `isShort`, one whose target knows `shortHead`.
    std::uint8_t how(bool isShort = false)
    {
        m_place = {.howAt = m_at, .isShort = isShort};
        return u8();
    }
    const SchemaMessage& message(const Schema& schema)
    {
        m_place.schema = &schema;
        m_place.choiceAt = m_at;
        m_place.howAt = std::min(m_place.howAt, m_at);
        return of(schema);
    }
    /// The body of the last message, a block. `headSize` bytes of a signal stand before it.
    Bytes body(std::size_t headSize = 0)
    {
        m_place.lengthAt = m_at;
        m_place.isBlock = true;
        return remember(block(), headSize);
    }
    /// The same, to the end.
    Bytes bodyToEnd(std::size_t headSize = 0)
    {
        m_place.lengthAt = m_at;
        m_place.isBlock = false;
        return remember(rest(), headSize);
    }
    /// Once the target has run.
    [[nodiscard]] Form takeForm()
    {
        m_form.end = m_at;
        return std::move(m_form);
    }

private:
    Bytes remember(Bytes bytes, std::size_t headSize)
    {
        m_place.bodyAt = m_at - bytes.size();
        m_place.bodySize = bytes.size();
        m_place.headSize = headSize;
        if (m_place.choiceAt < m_bytes.size()) {
            m_form.places.push_back(m_place);
        }
        m_place = Place{};
        return bytes;
    }

    std::span<const std::uint8_t> m_bytes;
    std::size_t m_at = 0;
    Place m_place;
    Form m_form;
};

struct Target {
    const char* name;
    void (*run)(Input& input);
};

/// Those of this program.
extern const std::vector<Target> targets;

/// Ends the process, with a line, unless `holds`.
void require(bool holds, const char* rule);

/// What the chosen target found in these bytes, having run on them.
Form runOn(std::span<const std::uint8_t> bytes);

} // namespace fuzz
