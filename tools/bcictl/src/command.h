/// What one command of bcictl is, and the table of all of them.
#pragma once

#include "bciClient.h"
#include "output.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <span>

namespace merlow::bcictl {

/// One command, made anew for each command line: its members are where the options go.
class Command {
public:
    virtual ~Command() = default;

    /// Adds the command's own options and arguments to its part of the command line.
    virtual void addOptions(CLI::App& /*app*/) {}

    /// Acts through a connected client and tells how it went.
    [[nodiscard]] virtual tools::ExitStatus run(tools::BciClient& client, Output& output) = 0;
};

struct CommandRow {
    const char* name;
    const char* help;
    std::unique_ptr<Command> (*make)();
};

/// All commands, in the order in which help lists them.
std::span<const CommandRow> commandTable();

/// The one command that a command line chose.
class CommandChoice {
public:
    /// Adds every command of the table to `app`, of which at most one is taken. A word that is none is left
    /// over, so that the parser names it.
    void addTo(CLI::App& app);

    /// Null when none was chosen.
    [[nodiscard]] const CommandRow* row() const { return m_row; }
    [[nodiscard]] Command& command() const { return *m_command; }

private:
    const CommandRow* m_row = nullptr;
    std::shared_ptr<Command> m_command;
};

/// What a confirm means.
struct Told {
    std::string text; ///< for people
    Fields fields;    ///< the same for programs
};

/// Sends `req`, awaits `Cfm` or one of `Rej`, and tells how it went: the failure, or what `tell` makes of the
/// confirm.
template <class Req, class Cfm, class... Rej>
[[nodiscard]] tools::ExitStatus exchange(tools::BciClient& client, Output& output, const Req& req,
                                         const std::function<Told(const Cfm&)>& tell)
{
    const auto answer = client.request(toMessage(req), {BciRecord<Cfm>::number, BciRecord<Rej>::number...});
    if (const auto* const failure = std::get_if<tools::Failure>(&answer)) {
        output.failed(BciRecord<Req>::number, *failure);
        return failure->status;
    }
    const auto& signal = std::get<tools::Signal>(answer);
    const auto cfm = tools::decode<Cfm>(signal);
    if (!cfm) { // the client lets no short confirm through
        return tools::ExitStatus::noAnswer;
    }
    const Told told = tell(*cfm);
    output.done(BciRecord<Req>::number, signal, told.text, told.fields);
    return tools::ExitStatus::done;
}

} // namespace merlow::bcictl
