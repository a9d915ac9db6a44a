#include "program.h"

#include "command.h"
#include "session.h"

#include <cmath>
#include <cstdlib>
#include <unistd.h>

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;

constexpr char footer[] = "Each call is a client of its own: it connects, acts and goes; a session stays.\n"
                          "Exit status: 0 done, 1 rejected by the unit, 2 wrong usage, 3 no answer in time, "
                          "4 no unit found, or it went away.\n";

struct Options {
    BciClient::Settings client;
    double timeoutSeconds = 3;
    std::string runDir;
    Output::Style style;
};

void addOptions(CLI::App& app, Options& options)
{
    app.add_option("--client-ref", options.client.clientRef, "The client's reference")->capture_default_str();
    app.add_option("--server-ref", options.client.serverRef,
                   "The reference to ask for: 100-199, 300-399 or 400-499")
        ->capture_default_str();
    app.add_option("--rev", options.client.protocolRev, "The protocol revision")->capture_default_str();
    app.add_option("--timeout", options.timeoutSeconds, "Seconds to wait for the unit, and for each answer")
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();
    app.add_option("--run-dir", options.runDir,
                   "The unit's run-time folder (default: as MERLOW_RUN_DIR says)");
    app.add_flag("--json", options.style.json, "One JSON object a line");
    app.add_flag("-v,--verbose", options.style.verbose, "Signal names in front of each line");
}

ExitStatus runSession(BciClient& client, Output& output)
{
    Session session(client, output);
    const Watch watch{client.fd(), [&session] {
                          return session.serve();
                      }};
    std::unique_ptr<LineSource> source;
    if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
        source = makeTerminalSource(watch);
    }
    if (!source) {
        source = makePipeSource(STDIN_FILENO, watch);
    }
    output.connected(client.references());
    return session.run(*source);
}

ExitStatus act(const BciClient::Settings& settings, const CommandChoice& choice, Output& output)
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
    CLI::App app("A client of the unit's board control interface.", "bcictl");
    Options options;
    CommandChoice choice;
    app.set_version_flag("--version", "bcictl " MERLOW_VERSION);
    app.footer(footer);
    app.fallthrough();
    addOptions(app, options);
    choice.addTo(app);
    const CLI::App* const session = app.add_subcommand(
        "session", "Stay connected; take commands from standard input, \"help\" lists them");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? 0 : static_cast<int>(ExitStatus::usage);
    }
    if (choice.row() == nullptr && !session->parsed()) {
        err << "bcictl: a command is missing; --help lists them" << std::endl;
        return static_cast<int>(ExitStatus::usage);
    }
    if (!options.runDir.empty()) {
        setenv("MERLOW_RUN_DIR", options.runDir.c_str(), 1);
    }
    options.client.timeout = std::chrono::milliseconds(std::lround(options.timeoutSeconds * 1000));
    Output output(out, err, options.style);
    return static_cast<int>(act(options.client, choice, output));
}

} // namespace merlow::bcictl
