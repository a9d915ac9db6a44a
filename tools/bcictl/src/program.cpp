#include "program.h"

#include "bciCommand.h"
#include "commandLine.h"
#include "session.h"

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;

constexpr char footer[] =
    "Each call is a client of its own: it connects, acts and goes; a session stays.\n"
    "Exit status: 0 done, 1 rejected by the unit, 2 wrong usage, 3 no answer in time, "
    "4 no unit found, or it went away,\n5 done, but standard output cannot be written.\n";

void addOptions(base::Syntax& app, BciClient::Settings& settings)
{
    app.addOption("--client-ref", settings.clientRef, "The client's reference").showDefault();
    app.addOption("--server-ref", settings.serverRef, "The reference to ask for: 100-199, 300-399 or 400-499")
        .showDefault();
    app.addOption("--rev", settings.protocolRev, "The protocol revision").showDefault();
}

ExitStatus runSession(BciClient& client, Output& output)
{
    tools::Session session(client, output, commandTable());
    client.onIndication([&output](const tools::Signal& signal) { tellIndication(output, signal); });
    const auto source = session.standardInput("bcictl", "bci> ");
    tellConnected(output, client.references());
    return session.run(*source);
}

ExitStatus act(const BciClient::Settings& settings, const tools::CommandChoice<BciClient>& choice,
               Output& output)
{
    output.setCommand(choice.row() != nullptr ? choice.row()->name : "session");
    BciClient client(settings);
    if (const auto failure = client.connect()) {
        const bool wasFound = failure->status != ExitStatus::noUnit;
        output.failed(wasFound ? std::uint32_t{TARN_BC_CONN_ESTABLISH_REQ} : 0, *failure);
        return failure->status;
    }
    return choice.row() != nullptr ? choice.command().run(client, output) : runSession(client, output);
}

} // namespace

int runProgram(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    tools::CommandLine commandLine("bcictl", "A client of the unit's board control interface.");
    BciClient::Settings settings;
    tools::CommandChoice choice(commandTable());
    commandLine.app().footer(footer);
    addOptions(commandLine.app(), settings);
    choice.addTo(commandLine.app());
    commandLine.app().addCommand("session",
                                 "Stay connected; take commands from standard input, \"help\" lists them");
    if (const auto status = commandLine.parse(argc, argv, out, err)) {
        return *status;
    }
    settings.timeout = commandLine.timeout();
    Output output(out, err, commandLine.style());
    return static_cast<int>(act(settings, choice, output));
}

} // namespace merlow::bcictl
