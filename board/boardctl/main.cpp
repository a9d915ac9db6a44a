#include "controlClient.h"
#include "programOptions.h"
#include "statusText.h"

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <runDir.h>
#include <string_view>
#include <unistd.h>

namespace merlow::board {
namespace {

/// Exit statuses.
enum Status : int { done = 0, refused = 1, usage = 2, noAnswer = 3, notFound = 4 };

const Target brhd{"brhd", "BrhdControl"};
const Target legacyd{"legacyd", "LegacydControl"};
const Target swmd{"swmd", "SwmdControl"};

struct Options {
    std::string runDir;
    double timeout = 2;
    bool json = false;
    std::string target;
    std::string kind;
    std::string server;
    std::string cause;
    std::string fields;
    std::string fault;
    std::string presence;
    std::string fan;
    std::string parent;
    std::string sensor;
    double degrees = 0;
    std::uint32_t slot = 0;
    std::uint32_t faultCase = 0;
    std::uint32_t count = 1;
    std::uint32_t ms = 0;
    std::uint32_t ref = 0;
    std::uint32_t signal = 0;
    std::uint32_t number = 0;
};

/// What the command line came to: whom to ask, and what.
struct Order {
    std::vector<Target> targets;
    nlohmann::json request;
};

constexpr const char* footer = R"(Kinds are requests by name, as bri::SetUtcTimeReq, bmmi::RegisterMmiUserReq,
swm::PushLoadInitReq, legacy::Connect, or legacy::NUMBER for any other signal; 'boardctl kinds' lists them.

Exit status: 0 done, 1 refused, 2 usage, 3 no answer in time, 4 not found,
5 done, but standard output cannot be written.

  boardctl status
  boardctl refuse bri::ConnEstablishReq --cause MAX_NUMBER_OF_CONNECTIONS_EXCEEDED
  boardctl delay bmmi::RegisterMmiUserReq --ms 500
  boardctl lose bri
  boardctl fault raise EXTERNAL_FAN_FAILED --case 3 --fan "KFA 111 22/1" --slot 2)";

std::optional<Target> targetNamed(const std::string& name)
{
    if (name == "brhd" || name == "bri" || name == "bmmi") {
        return brhd;
    }
    if (name == "swmd" || name == "swm") {
        return swmd;
    }
    return name == "legacyd" || name == "legacy" ? std::optional(legacyd) : std::nullopt;
}

std::vector<Target> targetsOf(const Options& options)
{
    if (options.target.empty()) {
        return {brhd, legacyd, swmd};
    }
    return {*targetNamed(options.target)};
}

CLI::App* addPlan(CLI::App& app, Options& options, const std::string& name, const std::string& what)
{
    CLI::App* plan = app.add_subcommand(name, what);
    plan->add_option("KIND", options.kind, "The request whose next answer is meant")->required();
    plan->add_option("--count", options.count, "How many answers")
        ->check(CLI::Range(std::uint32_t{1}, std::numeric_limits<std::uint32_t>::max(), "COUNT"));
    return plan;
}

void addTarget(CLI::App& command, Options& options)
{
    command.add_option("PROGRAM", options.target, "brhd, legacyd or swmd; all when left out")
        ->check(CLI::IsMember({"brhd", "legacyd", "swmd"}));
}

void addFault(CLI::App& app, Options& options)
{
    CLI::App* fault = app.add_subcommand("fault", "Raise, cease and list the board's faults");
    fault->fallthrough();
    fault->require_subcommand(1);
    CLI::App* raise = fault->add_subcommand("raise", "Raise a fault; again makes it another one");
    CLI::App* cease = fault->add_subcommand("cease", "Cease the first one raised of a fault");
    for (CLI::App* command : {raise, cease}) {
        command->add_option("FAULT", options.fault, "Its number or its name, as HW_FAULT")->required();
    }
    raise->add_option("--case", options.faultCase, "The fault's case")->capture_default_str();
    raise->add_option("--fan", options.fan, "The fan's product number");
    raise->add_option("--parent", options.parent, "The product number of the unit that hosts the fan");
    raise->add_option("--slot", options.slot, "The fan's position")
        ->check(
            CLI::Range(std::uint32_t{0}, std::uint32_t{std::numeric_limits<std::int32_t>::max()}, "SLOT"));
    CLI::App* list = fault->add_subcommand("list", "List the active faults, the first one raised first");
    list->add_flag("--json", options.json, "As one JSON list");
}

void addTemperature(CLI::App& app, Options& options)
{
    constexpr double coldest = -3276.8;
    constexpr double hottest = 3276.7;
    CLI::App* temp = app.add_subcommand("temp", "Set and list the board's temperatures");
    temp->fallthrough();
    temp->require_subcommand(1);
    CLI::App* set = temp->add_subcommand("set", "Have a sensor tell a temperature until it is unset");
    CLI::App* unset = temp->add_subcommand("unset", "Have a sensor measure again");
    for (CLI::App* command : {set, unset}) {
        command->add_option("SENSOR", options.sensor, "Its name or its number")->required();
    }
    set->add_option("DEGREES", options.degrees, "Degrees Celsius; counted in tenths")
        ->required()
        ->check(CLI::Range(coldest, hottest));
    CLI::App* list = temp->add_subcommand("list", "List the sensors and what they tell");
    list->add_flag("--json", options.json, "As one JSON list");
}

void addCommands(CLI::App& app, Options& options)
{
    app.add_option("--timeout", options.timeout, "Seconds to wait for an answer")
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();

    CLI::App* status = app.add_subcommand("status", "Print what the neighbours hold and have counted");
    addTarget(*status, options);
    status->add_flag("--json", options.json, "As one JSON object");
    CLI::App* kinds = app.add_subcommand("kinds", "List the kinds of answers that can be planned");
    addTarget(*kinds, options);
    kinds->add_flag("--json", options.json, "As one JSON object");

    CLI::App* refuse = addPlan(app, options, "refuse", "Reject the next request of a kind");
    refuse->add_option("--cause", options.cause, "The reason in the reject, by name");
    CLI::App* delay = addPlan(app, options, "delay", "Serve the next request of a kind, answer it later");
    delay->add_option("--ms", options.ms, "Milliseconds")->required();
    addPlan(app, options, "drop", "Serve the next request of a kind, lose its answer");
    addPlan(app, options, "abort", "Give up the transfer that the next request of a kind belongs to");

    CLI::App* lose = app.add_subcommand(
        "lose", "Lose a server's connections: its mailbox goes and comes back, or one is forgotten silently; "
                "those of swm are closed");
    lose->add_option("SERVER", options.server, "bri, bmmi, legacy or swm")
        ->required()
        ->check(CLI::IsMember({"bri", "bmmi", "legacy", "swm"}));
    lose->add_option("--ref", options.ref, "The server's reference of the one connection to lose");

    CLI::App* answer = app.add_subcommand("answer", "Answer a signal that legacyd would echo");
    answer->add_option("SIGNAL", options.signal, "The signal's number")->required();
    answer->add_option("NUMBER", options.number, "The answer's number")->required();
    answer->add_option("FIELDS", options.fields, "What follows the references in the answer, in hexadecimal");

    addFault(app, options);
    addTemperature(app, options);

    CLI::App* leds = app.add_subcommand("leds", "Show the board's lamps in a row");
    leds->add_flag("--json", options.json, "As one JSON list");
    CLI::App* serviceMan = app.add_subcommand("serviceman", "A service man comes to the board, or leaves it");
    serviceMan->add_option("PRESENCE", options.presence, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));

    CLI::App* describe = app.add_subcommand("describe", "Print the board description that is in force");
    describe->add_flag("--json", options.json, "As one JSON object, in the form of the file");

    CLI::App* clear = app.add_subcommand("clear", "Undo all plans and answers");
    addTarget(*clear, options);
}

Order planOf(const CLI::App& command, const Options& options)
{
    nlohmann::json request{{"command", "plan"},
                           {"action", command.get_name()},
                           {"kind", options.kind},
                           {"count", options.count}};
    if (command.get_name() == "delay") {
        request["ms"] = options.ms;
    }
    if (!options.cause.empty()) {
        request["cause"] = options.cause;
    }
    const auto target = targetNamed(options.kind.substr(0, options.kind.find("::")));
    return {target ? std::vector<Target>{*target} : std::vector<Target>{}, std::move(request)};
}

Order loseOf(const CLI::App& command, const Options& options)
{
    nlohmann::json request{{"command", "lose"}, {"server", options.server}};
    if (command.count("--ref") != 0) {
        request["ref"] = options.ref;
    }
    return {{*targetNamed(options.server)}, std::move(request)};
}

Order faultOf(const CLI::App& command, const Options& options)
{
    const CLI::App& action = *command.get_subcommands().front();
    nlohmann::json request{{"command", "fault"}, {"action", action.get_name()}};
    if (action.get_name() != "list") {
        request["id"] = options.fault;
    }
    if (action.get_name() == "raise") {
        request["case"] = options.faultCase;
        if (action.count("--fan") != 0) {
            request["fan"] = options.fan;
        }
        if (action.count("--parent") != 0) {
            request["parent"] = options.parent;
        }
        if (action.count("--slot") != 0) {
            request["slot"] = options.slot;
        }
    }
    return {{brhd}, std::move(request)};
}

Order temperatureOf(const CLI::App& command, const Options& options)
{
    constexpr double tenthsInDegree = 10;
    const std::string& action = command.get_subcommands().front()->get_name();
    nlohmann::json request{{"command", "temp"}, {"action", action}};
    if (action != "list") {
        request["sensor"] = options.sensor;
    }
    if (action == "set") {
        request["tenths"] = std::lround(options.degrees * tenthsInDegree);
    }
    return {{brhd}, std::move(request)};
}

Order orderOf(const CLI::App& command, const Options& options)
{
    const std::string& name = command.get_name();
    if (name == "lose") {
        return loseOf(command, options);
    }
    if (name == "fault") {
        return faultOf(command, options);
    }
    if (name == "temp") {
        return temperatureOf(command, options);
    }
    if (name == "answer") {
        return {{legacyd},
                {{"command", "answer"},
                 {"signal", options.signal},
                 {"number", options.number},
                 {"fields", options.fields}}};
    }
    if (name == "leds") {
        return {{brhd}, {{"command", "leds"}}};
    }
    if (name == "serviceman") {
        return {{brhd}, {{"command", "serviceman"}, {"present", options.presence == "on"}}};
    }
    if (name == "describe") {
        return {{brhd}, {{"command", "describe"}}};
    }
    if (name == "refuse" || name == "delay" || name == "drop" || name == "abort") {
        return planOf(command, options);
    }
    return {targetsOf(options), {{"command", name}}};
}

/// Standard output is a terminal that has them.
bool hasColours()
{
    const char* const terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && terminal != nullptr && std::string_view(terminal) != "dumb";
}

/// A neighbour's answer for people: on stdout when it was done, else on stderr.
int report(const Target& target, const Reply& reply, const std::string& command)
{
    switch (reply.state) {
    case Reply::State::notFound:
        std::cerr << "boardctl: no " << target.program << " found in " << base::runDirPath() << "\n";
        return notFound;
    case Reply::State::noAnswer:
        std::cerr << "boardctl: no answer from " << target.program << "\n";
        return noAnswer;
    case Reply::State::answered:
        break;
    }
    const ControlAnswer& answer = reply.answer;
    if (answer.result != ControlAnswer::Result::done) {
        std::cerr << "boardctl: " << answer.text << "\n";
    } else if (command == "status") {
        std::cout << (target.program == brhd.program   ? brhdStatusText(answer.data)
                      : target.program == swmd.program ? swmdStatusText(answer.data)
                                                       : legacydStatusText(answer.data));
    } else if (command == "kinds") {
        std::cout << kindsText(answer.data);
    } else if (command == "describe") {
        std::cout << descriptionText(answer.text, answer.data);
    } else if (command == "leds") {
        std::cout << ledsText(answer.data, hasColours());
    } else if (command == "fault" && answer.data.is_array()) {
        std::cout << faultsText(answer.data);
    } else if (command == "temp" && answer.data.is_array()) {
        std::cout << temperaturesText(answer.data);
    } else {
        std::cout << answer.text << "\n";
    }
    switch (answer.result) {
    case ControlAnswer::Result::done:
        return done;
    case ControlAnswer::Result::refused:
        return refused;
    case ControlAnswer::Result::notFound:
        return notFound;
    case ControlAnswer::Result::usage:
        break;
    }
    return usage;
}

/// The data of what was asked: that of the one program, or an object with a member for each; null for one
/// that gave no answer.
int reportJson(const std::vector<Target>& targets, const std::vector<Reply>& replies)
{
    nlohmann::json all;
    int status = notFound;
    for (std::size_t index = 0; index < targets.size(); ++index) {
        const Reply& reply = replies[index];
        const bool answered = reply.state == Reply::State::answered;
        all[targets[index].program] = answered ? reply.answer.data : nlohmann::json();
        if (answered) {
            status = done;
        } else if (reply.state == Reply::State::noAnswer && status != done) {
            status = noAnswer;
        }
    }
    std::cout << (targets.size() == 1 ? all[targets.front().program] : all)
                     .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
              << "\n";
    return status;
}

int carryOut(const CLI::App& command, const Options& options)
{
    const Order order = orderOf(command, options);
    if (order.targets.empty()) {
        std::cerr << "boardctl: \"" << options.kind
                  << "\" is no kind of answer; kinds begin with bri::, bmmi::, swm:: or legacy::\n";
        return usage;
    }
    ControlClient client;
    if (const std::string objection = client.open(); !objection.empty()) {
        std::cerr << "boardctl: " << objection << "\n";
        return notFound;
    }
    const auto timeout = std::chrono::milliseconds(std::lround(std::ceil(options.timeout * 1000)));
    const auto replies = client.ask(order.targets, order.request, timeout);
    if (options.json) {
        return reportJson(order.targets, replies);
    }
    // Asked for all, one that does not run is worth a line, not a failure.
    int best = notFound;
    for (std::size_t index = 0; index < replies.size(); ++index) {
        best = std::min(best, report(order.targets[index], replies[index], command.get_name()));
    }
    return best;
}

} // namespace
} // namespace merlow::board

int main(int argc, char** argv)
{
    CLI::App app("Acts on the reference board's neighbours as a test engineer would.", "boardctl");
    app.fallthrough(); // for the commands to come: options for all stand in front of a command or behind it
    merlow::board::Options options;
    merlow::base::addCommonOptions(app, options.runDir);
    merlow::board::addCommands(app, options);
    app.footer(merlow::board::footer);
    if (const auto status = merlow::base::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(options.runDir);
    const int status = merlow::board::carryOut(*app.get_subcommands().front(), options);
    return merlow::base::finishOutput("boardctl", status);
}
