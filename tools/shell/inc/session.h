/// Commands one after another through one client.
#pragma once

#include "command.h"
#include "lineSource.h"
#include "output.h"
#include "unitClient.h"

#include <string>
#include <utility>
#include <vector>

namespace merlow::tools {

/// What a session does with the lines that it is given, whatever the commands are.
class SessionLoop {
public:
    struct NamedCommand {
        const char* name;
        const char* help;
    };

    /// `client` has found the unit. `commands` are what "help" lists.
    SessionLoop(UnitClient& client, Output& output, std::vector<NamedCommand> commands);
    virtual ~SessionLoop() = default;
    SessionLoop(const SessionLoop&) = delete;
    SessionLoop& operator=(const SessionLoop&) = delete;

    /// Serves the lines of `source` until "quit", the end of the input, or the loss of the unit.
    [[nodiscard]] ExitStatus run(LineSource& source);

    /// Hands out what came from the unit; false, and a word on it, when the unit is lost.
    bool serve();

    /// A terminal with line editing when there is one, else standard input as it is; serves this session
    /// while nobody types.
    [[nodiscard]] std::unique_ptr<LineSource> standardInput(const char* program, const char* prompt);

protected:
    virtual void runCommand(std::vector<std::string> words) = 0;
    void tellHelp();

private:
    /// False after "quit".
    bool runLine(const std::string& line);

    UnitClient& m_client;
    Output& m_output;
    std::vector<NamedCommand> m_commands;
    bool m_isLossTold = false;
};

template <class Client> class Session : public SessionLoop {
public:
    Session(Client& client, Output& output, CommandTable<Client> table)
        : SessionLoop(client, output, namesOf(table)), m_client(client), m_output(output), m_table(table)
    {
    }

private:
    static std::vector<NamedCommand> namesOf(CommandTable<Client> table)
    {
        std::vector<NamedCommand> names;
        for (const auto& row : table) {
            names.push_back({row.name, row.help});
        }
        return names;
    }

    void runCommand(std::vector<std::string> words) override
    {
        base::Syntax app("", "");
        CommandChoice<Client> choice(m_table);
        choice.addTo(app);
        const auto outcome = app.parseWords(std::move(words));
        if (outcome.kind == base::Syntax::Outcome::Kind::help) {
            if (outcome.text.empty()) {
                tellHelp();
            } else {
                m_output.help(outcome.text);
            }
            return;
        }
        if (outcome.kind == base::Syntax::Outcome::Kind::mistake) {
            m_output.misused(outcome.text + "; \"help\" lists the commands");
            return;
        }
        if (choice.row() == nullptr) {
            m_output.misused("a command is missing; \"help\" lists them");
            return;
        }
        m_output.setCommand(choice.row()->name);
        (void)choice.command().run(m_client, m_output);
    }

    Client& m_client;
    Output& m_output;
    CommandTable<Client> m_table;
};

} // namespace merlow::tools
