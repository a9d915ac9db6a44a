// bbagent: watches another unit as its client.

#include "agent.h"
#include "programOptions.h"

#include <iostream>

int main(int argc, char** argv)
{
    merlow::base::Syntax app("bbagent",
                             "Watches a unit as another board controller does: connects, subscribes to its "
                             "faults and shows what a fault manager of its own makes of them.");
    std::string runDir;
    bool json = false;
    app.addCommonOptions(runDir);
    app.addFlag("--json", json, "One JSON object a line");
    app.footer("Ends on SIGINT and SIGTERM. When the unit goes away, it is looked for again.\n"
               "Exit status: 0 ended as asked, 1 refused by the unit, 2 wrong usage, 4 the run-time folder "
               "can't be used, 5 all well, but standard output\n"
               "cannot be written.");
    if (const auto status = app.parse(argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(runDir);
    merlow::bbagent::Report report(std::cout, json);
    return merlow::base::finishOutput("bbagent", static_cast<int>(merlow::bbagent::Agent(report).run()));
}
