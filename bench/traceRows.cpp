#include "rows.h"

namespace merlow::bench {

std::vector<Row> traceRows(const Setting& setting)
{
    Process process(Start{.arguments = {"trace-site"}});
    process.untilReady();
    std::vector<double> empty;
    std::vector<double> sites;
    for (std::size_t round = 0; round < setting.effort.rounds; ++round) {
        empty.push_back(std::stod(process.ask("empty")));
        sites.push_back(std::stod(process.ask("site")));
    }
    std::vector<double> differences;
    for (std::size_t i = 0; i < sites.size(); ++i) {
        differences.push_back(sites[i] - empty[i]);
    }
    const Spread spread = spreadOf(differences);
    return {{.id = "trace-site-off",
             .what = "a disabled trace site",
             .unit = "ns",
             .value = std::max(spread.median, 0.0),
             .worst = spread.worst,
             .target = Target{1.0, true}}};
}

} // namespace merlow::bench
