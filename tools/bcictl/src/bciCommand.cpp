#include "bciCommand.h"

#include "groups.h"

#include <array>

namespace merlow::bcictl {

namespace {

constexpr std::array commands{
    CommandRow{"audit", "Read the session's operational state", makeAudit},
    CommandRow{"enable", "Move the session to OPERATIONAL", makeEnable},
    CommandRow{"disable", "Move the session to DISABLED; only a new session leaves it", makeDisable},
    CommandRow{"pid", "Read what the unit and its container are", makePid},
    CommandRow{"faults", "List the unit's active faults, or follow them", makeFaults},
    CommandRow{"utc", "Hand the board a UTC time", makeUtc},
    CommandRow{"mmi", "Select the MMI mode; 1 is the one that exists", makeMmi},
    CommandRow{"raw", "Send any signal and show the answer", makeRaw},
};

} // namespace

tools::CommandTable<tools::BciClient> commandTable()
{
    return commands;
}

} // namespace merlow::bcictl
