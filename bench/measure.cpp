#include "measure.h"

#include <algorithm>
#include <stdexcept>

namespace merlow::bench {

namespace {

/// A multiple of every batch of a one-way stream.
constexpr std::size_t countStep = 128;

double cpuOf(const Way& way)
{
    double sum = 0;
    for (const Process& process : way.processes) {
        sum += process.cpuNanoseconds();
    }
    for (const Process* process : way.sharedProcesses) {
        sum += process->cpuNanoseconds();
    }
    return sum;
}

double run(const Way& way, std::size_t count)
{
    const Process& client = way.processes.back();
    return std::stod(client.ask(way.verb + " " + std::to_string(count) + " " + std::to_string(way.size)));
}

/// How many operations fill a round, after one to warm up.
std::size_t countFor(const Way& way, double roundNanoseconds)
{
    run(way, countStep);
    const double each = run(way, countStep) / static_cast<double>(countStep);
    const double steps = roundNanoseconds / each / static_cast<double>(countStep);
    return static_cast<std::size_t>(std::clamp(steps, 1.0, 10000.0)) * countStep;
}

} // namespace

std::vector<Series> measure(const std::vector<const Way*>& ways, const Effort& effort)
{
    std::vector<std::size_t> counts;
    counts.reserve(ways.size());
    for (const Way* way : ways) {
        counts.push_back(countFor(*way, effort.roundNanoseconds));
    }
    std::vector<Series> result(ways.size());
    for (std::size_t round = 0; round < effort.rounds; ++round) {
        for (std::size_t turn = 0; turn < ways.size(); ++turn) {
            const std::size_t i = (round + turn) % ways.size(); // nobody always follows the same other
            const double count = static_cast<double>(counts[i]);
            const double cpuBefore = cpuOf(*ways[i]);
            const double wall = run(*ways[i], counts[i]);
            result[i].cpu.push_back((cpuOf(*ways[i]) - cpuBefore) / count);
            result[i].wall.push_back(wall / count);
        }
    }
    return result;
}

Spread spreadOf(std::vector<double> values)
{
    if (values.empty()) {
        throw std::logic_error("no values were measured");
    }
    std::sort(values.begin(), values.end());
    const auto at = [&](double part) {
        const double place = part * static_cast<double>(values.size() - 1);
        const auto below = static_cast<std::size_t>(place);
        const std::size_t above = std::min(below + 1, values.size() - 1);
        return values[below] + (values[above] - values[below]) * (place - static_cast<double>(below));
    };
    return {at(0.25), at(0.5), at(0.75), values.back()};
}

Spread ratioOf(const std::vector<double>& numerator, const std::vector<double>& denominator)
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < numerator.size(); ++i) {
        ratios.push_back(numerator[i] / denominator.at(i));
    }
    return spreadOf(std::move(ratios));
}

} // namespace merlow::bench
