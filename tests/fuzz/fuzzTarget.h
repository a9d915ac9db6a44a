/// What a program of fuzz targets is made of. Built with the fuzzer it searches; built without, it replays.
#pragma once

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

/// Bytes that steer a target. What is behind the end reads as zero.
class Input {
public:
    explicit Input(std::span<const std::uint8_t> bytes) : m_rest(bytes) {}

    [[nodiscard]] bool empty() const { return m_rest.empty(); }
    std::uint8_t u8()
    {
        const std::uint8_t value = m_rest.empty() ? std::uint8_t{0} : m_rest.front();
        m_rest = m_rest.subspan(m_rest.empty() ? 0 : 1);
        return value;
    }
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
        const auto front = m_rest.first(size < m_rest.size() ? size : m_rest.size());
        m_rest = m_rest.subspan(front.size());
        return {front.begin(), front.end()};
    }
    /// As many as the next byte says.
    Bytes block() { return take(u8()); }
    Bytes rest() { return take(m_rest.size()); }
    std::string restAsText()
    {
        const Bytes bytes = rest();
        return {bytes.begin(), bytes.end()};
    }
    /// One of a list.
    template <class List> const auto& of(const List& list) { return list[u8() % std::size(list)]; }

private:
    std::span<const std::uint8_t> m_rest;
};

struct Target {
    const char* name;
    void (*run)(Input& input);
};

/// Those of this program.
extern const std::vector<Target> targets;

/// Ends the process, with a line, unless `holds`.
void require(bool holds, const char* rule);

} // namespace fuzz
