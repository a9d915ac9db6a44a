/// What one command of a client program is, the table of all of them, and the choice of one.
#pragma once

#include "exitStatus.h"
#include "output.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <span>

namespace merlow::tools {

/// One command, made anew for each command line: its members are where the options go. `Client` is what the
/// program's commands act through.
template <class Client> class Command {
public:
    virtual ~Command() = default;

    /// Adds the command's own options and arguments to its part of the command line.
    virtual void addOptions(CLI::App& /*app*/) {}

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

    /// Adds every command of the table to `app`, of which at most one is taken. A word that is none is left
    /// over, so that the parser names it.
    void addTo(CLI::App& app)
    {
        for (const auto& row : m_table) {
            CLI::App* const sub = app.add_subcommand(row.name, row.help);
            const std::shared_ptr<Command<Client>> command = row.make();
            command->addOptions(*sub);
            sub->callback([this, &row, command] {
                m_row = &row;
                m_command = command;
            });
        }
        app.require_subcommand(0, 1);
    }

    /// Null when none was chosen.
    [[nodiscard]] const CommandRow<Client>* row() const { return m_row; }
    [[nodiscard]] Command<Client>& command() const { return *m_command; }

private:
    CommandTable<Client> m_table;
    const CommandRow<Client>* m_row = nullptr;
    std::shared_ptr<Command<Client>> m_command;
};

} // namespace merlow::tools
