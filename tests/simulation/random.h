#pragma once

#include <cstdint>
#include <iterator>

namespace sim {

/// The one source of chance: the same seed gives the same numbers on every machine.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed * 0x9E3779B97F4A7C15U + 0x632BE59BD9B4E019U) {}

    std::uint64_t next()
    {
        m_state += 0x9E3779B97F4A7C15U;
        std::uint64_t z = m_state;
        z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31U);
    }
    /// 0 to `end` - 1; 0 for 0.
    unsigned int below(std::size_t end) { return end == 0 ? 0 : static_cast<unsigned int>(next() % end); }
    bool chance(unsigned int percent) { return below(100) < percent; }
    template <class List> auto& of(List& list)
    {
        return *std::next(std::begin(list), static_cast<std::ptrdiff_t>(below(std::size(list))));
    }

private:
    std::uint64_t m_state;
};

} // namespace sim
