/// What one command of a client program is, the table of all of them, and the choice of one.
#pragma once

#include "exitStatus.h"
#include "output.h"
#include "programOptions.h"

#include <algorithm>
#include <memory>
#include <span>
#include <vector>

namespace merlow::tools {

/// One command, made anew for each command line: its members are where the options go. `Client` is what the
/// program's commands act through.
template <class Client> class Command {
public:
    virtual ~Command() = default;

    /// Adds the command's own options and arguments to its part of the command line.
    virtual void addOptions(base::Syntax& /*app*/) {}

    /// Acts through a client that has found the unit and tells how it went.
    [[nodiscard]] virtual ExitStatus run(Client& client, Output& output) = 0;
};

template <class Client> struct CommandRow {
    const char* name;
    const char* help;
    std::unique_ptr<Command<Client>> (*make)();
};

/// All commands of a program, in the order in which help lists them.
template <class Client> using CommandTable = std::span<const CommandRow<Client>>;

/// The one command that a command line chose.
template <class Client> class CommandChoice {
public:
    explicit CommandChoice(CommandTable<Client> table) : m_table(table) {}

    /// Adds every command of the table to `app`, which must outlive this.
    void addTo(base::Syntax& app)
    {
        for (const auto& row : m_table) {
            base::Syntax& syntax = app.addCommand(row.name, row.help);
            m_commands.push_back({syntax, row, row.make()});
            m_commands.back().command->addOptions(syntax);
        }
    }

    /// Null when none was chosen.
    [[nodiscard]] const CommandRow<Client>* row() const
    {
        const auto chosen = find();
        return chosen != m_commands.end() ? &chosen->row : nullptr;
    }

    /// Only when one was chosen.
    [[nodiscard]] Command<Client>& command() const { return *find()->command; }

private:
    struct Entry {
        const base::Syntax& syntax;
        const CommandRow<Client>& row;
        std::unique_ptr<Command<Client>> command;
    };

    [[nodiscard]] auto find() const
    {
        return std::ranges::find_if(m_commands, [](const Entry& entry) { return entry.syntax.isGiven(); });
    }

    CommandTable<Client> m_table;
    std::vector<Entry> m_commands;
};

} // namespace merlow::tools
