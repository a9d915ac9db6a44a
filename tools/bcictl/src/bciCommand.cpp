#include "bciCommand.h"

#include "groups.h"
#include "lineSource.h"

#include <array>

namespace merlow::bcictl {

namespace {

constexpr std::array commands{
    CommandRow{"audit", "Read the session's operational state", makeAudit},
    CommandRow{"enable", "Move the session to OPERATIONAL", makeEnable},
    CommandRow{"disable", "Move the session to DISABLED; only a new session leaves it", makeDisable},
    CommandRow{"capabilities", "List what the unit can do", makeCapabilities},
    CommandRow{"pid", "Read what the unit and its container are", makePid},
    CommandRow{"running", "Read the load module that the unit runs", makeRunning},
    CommandRow{"load", "Load a software file onto the unit", makeLoad},
    CommandRow{"select", "Select the load module for the next restart", makeSelect},
    CommandRow{"components", "Read the list of software components", makeComponents},
    CommandRow{"acquire", "Hold the software store; a session goes on with it", makeAcquire},
    CommandRow{"release", "Give the software store back, in a session", makeRelease},
    CommandRow{"faults", "List the unit's active faults, or follow them", makeFaults},
    CommandRow{"temp", "Have the unit's temperatures measured, and print or plot them", makeTemp},
    CommandRow{"utc", "Hand the board a UTC time", makeUtc},
    CommandRow{"mmi", "Select the MMI mode; 1 is the one that exists", makeMmi},
    CommandRow{"maint", "Set the maintenance state, or follow it", makeMaint},
    CommandRow{"led", "Set a lamp, or read the lamps back", makeLed},
    CommandRow{"indicators", "Read the special indicators", makeIndicators},
    CommandRow{"hereiam", "Have the unit show itself, or follow whether it does", makeHereIAm},
    CommandRow{"hwlog", "Read or write the board's hardware log", makeHwLog},
    CommandRow{"restart", "Restart the board", makeRestart},
    CommandRow{"notify-restart", "Announce a restart to the board", makeNotifyRestart},
    CommandRow{"link-supervision", "Ask for link supervision, which the unit does not offer",
               makeLinkSupervision},
    CommandRow{"raw", "Send any signal and show the answer", makeRaw},
};

} // namespace

tools::ExitStatus stayConnected(tools::BciClient& client, Output& output)
{
    if (client.hasIndicationHandler()) {
        return tools::ExitStatus::done;
    }
    client.onIndication([&output](const tools::Signal& signal) { tellIndication(output, signal); });
    const auto serve = [&client, &output] {
        client.drain();
        return !client.isLost() && output.isWritable();
    };
    bool isReadable = false;
    while (serve() && tools::waitServing(-1, {client.fd(), serve}, isReadable)) {
    }
    if (!output.isWritable()) {
        return tools::ExitStatus::done; // nobody can be told
    }
    output.failed(0, {tools::ExitStatus::noUnit, "the unit went away", {}});
    return tools::ExitStatus::noUnit;
}

tools::CommandTable<tools::BciClient> commandTable()
{
    return commands;
}

} // namespace merlow::bcictl
