#include "ccfictl.h"

#include "commandLine.h"
#include "commands.h"
#include "session.h"

namespace merlow::ccfictl {

namespace {

using tools::ExitStatus;
using tools::Output;

constexpr char footer[] =
    "Each call is a client of its own: \"raise\" and \"cease\" connect first when no connection is named,\n"
    "and at the end of a call or session its connections are closed. Faults stay until they are ceased,\n"
    "by whatever client. The unit answers neither of the two, also when it takes no such fault.\n"
    "Exit status: 0 done, 1 rejected by the unit, 2 wrong usage, 3 no answer in time, "
    "4 no unit found, or it went away, 5 done, but standard output cannot be written.\n";

ExitStatus act(std::chrono::milliseconds timeout, const tools::CommandChoice<Forwarder>& choice,
               Output& output)
{
    output.setCommand(choice.row() != nullptr ? choice.row()->name : "session");
    Forwarder client(timeout);
    if (const auto failure = client.open()) {
        output.failed(0, *failure);
        return failure->status;
    }
    ExitStatus status;
    if (choice.row() != nullptr) {
        status = choice.command().run(client, output);
    } else {
        tools::Session session(client, output, commandTable());
        status = session.run(*session.standardInput("ccfictl", "ccfi> "));
    }
    if (const auto failure = client.closeAll()) {
        output.failed(CCFI_BC_CONN_CLOSE_REQ, *failure);
        return status == ExitStatus::done ? failure->status : status;
    }
    return status;
}

} // namespace

int runProgram(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    tools::CommandLine commandLine("ccfictl",
                                   "A process of the unit that forwards its faults to the board controller.");
    tools::CommandChoice choice(commandTable());
    commandLine.app().footer(footer);
    choice.addTo(commandLine.app());
    commandLine.app().addCommand("session", "Take commands from standard input, \"help\" lists them");
    if (const auto status = commandLine.parse(argc, argv, out, err)) {
        return *status;
    }
    Output output(out, err, commandLine.style());
    return static_cast<int>(act(commandLine.timeout(), choice, output));
}

} // namespace merlow::ccfictl
