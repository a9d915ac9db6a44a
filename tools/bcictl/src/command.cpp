#include "command.h"

#include "groups.h"

#include <array>

namespace merlow::bcictl {

namespace {

constexpr std::array commands{
    CommandRow{"audit", "Read the session's operational state", makeAudit},
    CommandRow{"enable", "Move the session to OPERATIONAL", makeEnable},
    CommandRow{"disable", "Move the session to DISABLED; only a new session leaves it", makeDisable},
    CommandRow{"utc", "Hand the board a UTC time", makeUtc},
    CommandRow{"mmi", "Select the MMI mode; 1 is the one that exists", makeMmi},
    CommandRow{"raw", "Send any signal and show the answer", makeRaw},
};

} // namespace

std::span<const CommandRow> commandTable()
{
    return commands;
}

void CommandChoice::addTo(CLI::App& app)
{
    for (const CommandRow& row : commandTable()) {
        CLI::App* const sub = app.add_subcommand(row.name, row.help);
        const std::shared_ptr<Command> command = row.make();
        command->addOptions(*sub);
        sub->callback([this, &row, command] {
            m_row = &row;
            m_command = command;
        });
    }
    app.require_subcommand(0, 1);
}

} // namespace merlow::bcictl
