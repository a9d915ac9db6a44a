/// Readings of the unit's temperatures, as rows and as a plot.
#pragma once

#include "bciClient.h"
#include "output.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace merlow::bcictl {

/// All sensors at one time.
struct Temperatures {
    TarnNodeCommonAddressInfoS references;
    std::vector<std::int16_t> tenths; ///< of a degree Celsius, that of sensor 0 first
};

/// Nothing for any other signal.
std::optional<Temperatures> decodeTemperatures(const tools::Signal& signal);

/// "sensor 0 21.5, sensor 1 45.0".
std::string textOf(const Temperatures& temperatures);

void tellTemperatures(tools::Output& output, const Temperatures& temperatures);

/// The last readings as lines of characters, each sensor's of its number.
class TemperaturePlot {
public:
    /// Characters and lines that it may take.
    TemperaturePlot(std::size_t width, std::size_t height);

    void add(Temperatures temperatures);

    /// Lines without a newline at the end, none wider than there is room; the last one tells the last
    /// readings.
    [[nodiscard]] std::string text() const;

private:
    using Lines = std::vector<std::string>;
    struct Scale {
        int lowest;
        int highest;
    };

    [[nodiscard]] Scale scale() const;
    void draw(Lines& lines, std::size_t sensor, const Scale& scale) const;

    std::size_t m_columns; ///< readings
    std::size_t m_rows;
    std::deque<Temperatures> m_readings;
};

} // namespace merlow::bcictl
