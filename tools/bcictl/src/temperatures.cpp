#include "temperatures.h"

#include "bciOutput.h"

#include "bci/bciTemperature.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace merlow::bcictl {

namespace {

using tools::Fields;

constexpr std::size_t labelWidth = 9; ///< "-3276.8 |"
constexpr std::size_t linesBelow = 2; ///< the axis and the last readings
constexpr std::size_t smallest = 2;   ///< rows and columns that show anything at all
constexpr int tenthsInDegree = 10;

std::string degreesText(int tenths)
{
    char text[16];
    (void)std::snprintf(text, sizeof(text), "%.1f", static_cast<double>(tenths) / tenthsInDegree);
    return text;
}

/// The row of a value between `lowest` and `highest`, from the top.
std::size_t rowOf(int value, int lowest, int highest, std::size_t rows)
{
    const auto range = static_cast<std::size_t>(highest - lowest);
    const auto below = static_cast<std::size_t>(highest - value);
    return (below * (rows - 1) + range / 2) / range;
}

} // namespace

std::optional<Temperatures> decodeTemperatures(const tools::Signal& signal)
{
    if (signal.number() != TARN_BC_TEMP_MEAS_IND) {
        return std::nullopt;
    }
    const auto ind = tools::decode<TarnBcTempMeasIndS>(signal);
    if (!ind) {
        return std::nullopt;
    }
    Temperatures temperatures{ind->addressInfo, {}};
    const auto count = std::min<std::size_t>(ind->numberOfReadings, TarnBcTempMeasIndS::maxReadings);
    for (std::size_t sensor = 0; sensor < count; ++sensor) {
        temperatures.tenths.push_back(static_cast<std::int16_t>(ind->readings[sensor]));
    }
    return temperatures;
}

std::string textOf(const Temperatures& temperatures)
{
    std::string text;
    for (std::size_t sensor = 0; sensor < temperatures.tenths.size(); ++sensor) {
        text += (text.empty() ? "sensor " : ", sensor ") + std::to_string(sensor) + " " +
                degreesText(temperatures.tenths[sensor]);
    }
    return text.empty() ? "no sensors" : text;
}

void tellTemperatures(tools::Output& output, const Temperatures& temperatures)
{
    const std::string time = timeText();
    Fields fields{{"time", time}, {"sensors", Fields::array()}};
    for (std::size_t sensor = 0; sensor < temperatures.tenths.size(); ++sensor) {
        fields["sensors"].push_back(
            {{"sensor", sensor},
             {"celsius", static_cast<double>(temperatures.tenths[sensor]) / tenthsInDegree}});
    }
    fields.update(withReferences(temperatures.references, Fields::object()));
    output.event("temperatures",
                 output.names(TARN_BC_TEMP_MEAS_IND) + time + " " + textOf(temperatures) + ", " +
                     referencesText(temperatures.references),
                 fields);
}

TemperaturePlot::TemperaturePlot(std::size_t width, std::size_t height)
    : m_columns(std::max(width, labelWidth + smallest) - labelWidth),
      m_rows(std::max(height, linesBelow + smallest) - linesBelow)
{
}

void TemperaturePlot::add(Temperatures temperatures)
{
    m_readings.push_back(std::move(temperatures));
    if (m_readings.size() > m_columns) {
        m_readings.pop_front();
    }
}

/// All that is shown, and at least a degree.
TemperaturePlot::Scale TemperaturePlot::scale() const
{
    std::optional<Scale> scale;
    for (const Temperatures& reading : m_readings) {
        for (const int value : reading.tenths) {
            scale = scale ? Scale{std::min(scale->lowest, value), std::max(scale->highest, value)}
                          : Scale{value, value};
        }
    }
    const Scale shown = scale.value_or(Scale{0, 0});
    return {shown.lowest, std::max(shown.highest, shown.lowest + tenthsInDegree)};
}

/// A line from each reading to the one before it.
void TemperaturePlot::draw(Lines& lines, std::size_t sensor, const Scale& scale) const
{
    auto before = m_rows; // none
    for (std::size_t column = 0; column < m_readings.size(); ++column) {
        const auto& tenths = m_readings[column].tenths;
        if (sensor >= tenths.size()) {
            before = m_rows;
            continue;
        }
        const auto row = rowOf(tenths[sensor], scale.lowest, scale.highest, m_rows);
        auto first = row;
        auto last = row;
        if (before != m_rows && before + 1 < row) {
            first = before + 1;
        } else if (before != m_rows && row + 1 < before) {
            last = before - 1;
        }
        for (auto drawn = first; drawn <= last; ++drawn) {
            lines[drawn][labelWidth + column] = static_cast<char>('0' + sensor);
        }
        before = row;
    }
}

std::string TemperaturePlot::text() const
{
    const Scale scale = this->scale();
    Lines lines(m_rows, std::string(labelWidth - 1, ' ') + "|" + std::string(m_columns, ' '));
    const auto label = [&lines](std::size_t row, int tenths) {
        const std::string text = degreesText(tenths);
        lines[row].replace(labelWidth - 2 - text.size(), text.size(), text);
    };
    label(0, scale.highest);
    label(m_rows - 1, scale.lowest);
    for (std::size_t sensor = 0; sensor < TarnBcTempMeasIndS::maxReadings; ++sensor) {
        draw(lines, sensor, scale);
    }
    std::string text;
    for (std::string& line : lines) {
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    text += std::string(labelWidth - 1, ' ') + "+" + std::string(m_columns, '-') + "\n";
    // Wider than the terminal it would take a second line, and the next plot be drawn below this one.
    return text + (m_readings.empty() ? "" : textOf(m_readings.back()).substr(0, labelWidth + m_columns));
}

} // namespace merlow::bcictl
