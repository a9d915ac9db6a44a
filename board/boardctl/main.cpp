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

base::Syntax& addPlan(base::Syntax& app, Options& options, const std::string& name, const std::string& what)
{
    base::Syntax& plan = app.addCommand(name, what);
    plan.addOption("KIND", options.kind, "The request whose next answer is meant").required();
    plan.addOption("--count", options.count, "How many answers")
        .range(std::uint32_t{1}, std::numeric_limits<std::uint32_t>::max(), "COUNT");
    return plan;
}

void addTarget(base::Syntax& command, Options& options)
{
    command.addOption("PROGRAM", options.target, "brhd, legacyd or swmd; all when left out")
        .oneOf({"brhd", "legacyd", "swmd"});
}

void addFault(base::Syntax& app, Options& options)
{
    base::Syntax& fault = app.addCommand("fault", "Raise, cease and list the board's faults");
    fault.allowOptionsBehindCommands();
    fault.requireCommand();
    base::Syntax& raise = fault.addCommand("raise", "Raise a fault; again makes it another one");
    base::Syntax& cease = fault.addCommand("cease", "Cease the first one raised of a fault");
    for (base::Syntax* command : {&raise, &cease}) {
        command->addOption("FAULT", options.fault, "Its number or its name, as HW_FAULT").required();
    }
    raise.addOption("--case", options.faultCase, "The fault's case").showDefault();
    raise.addOption("--fan", options.fan, "The fan's product number");
    raise.addOption("--parent", options.parent, "The product number of the unit that hosts the fan");
    raise.addOption("--slot", options.slot, "The fan's position")
        .range(std::uint32_t{0}, std::uint32_t{std::numeric_limits<std::int32_t>::max()}, "SLOT");
    base::Syntax& list = fault.addCommand("list", "List the active faults, the first one raised first");
    list.addFlag("--json", options.json, "As one JSON list");
}

void addTemperature(base::Syntax& app, Options& options)
{
    constexpr double coldest = -3276.8;
    constexpr double hottest = 3276.7;
    base::Syntax& temp = app.addCommand("temp", "Set and list the board's temperatures");
    temp.allowOptionsBehindCommands();
    temp.requireCommand();
    base::Syntax& set = temp.addCommand("set", "Have a sensor tell a temperature until it is unset");
    base::Syntax& unset = temp.addCommand("unset", "Have a sensor measure again");
    for (base::Syntax* command : {&set, &unset}) {
        command->addOption("SENSOR", options.sensor, "Its name or its number").required();
    }
    set.addOption("DEGREES", options.degrees, "Degrees Celsius; counted in tenths")
        .required()
        .range(coldest, hottest);
    base::Syntax& list = temp.addCommand("list", "List the sensors and what they tell");
    list.addFlag("--json", options.json, "As one JSON list");
}

void addCommands(base::Syntax& app, Options& options)
{
    app.addOption("--timeout", options.timeout, "Seconds to wait for an answer")
        .range(0.001, 86400.0)
        .showDefault();

    base::Syntax& status = app.addCommand("status", "Print what the neighbours hold and have counted");
    addTarget(status, options);
    status.addFlag("--json", options.json, "As one JSON object");
    base::Syntax& kinds = app.addCommand("kinds", "List the kinds of answers that can be planned");
    addTarget(kinds, options);
    kinds.addFlag("--json", options.json, "As one JSON object");

    base::Syntax& refuse = addPlan(app, options, "refuse", "Reject the next request of a kind");
    refuse.addOption("--cause", options.cause, "The reason in the reject, by name");
    base::Syntax& delay = addPlan(app, options, "delay", "Serve the next request of a kind, answer it later");
    delay.addOption("--ms", options.ms, "Milliseconds").required();
    addPlan(app, options, "drop", "Serve the next request of a kind, lose its answer");
    addPlan(app, options, "abort", "Give up the transfer that the next request of a kind belongs to");

    base::Syntax& lose = app.addCommand(
        "lose", "Lose a server's connections: its mailbox goes and comes back, or one is forgotten silently; "
                "those of swm are closed");
    lose.addOption("SERVER", options.server, "bri, bmmi, legacy or swm")
        .required()
        .oneOf({"bri", "bmmi", "legacy", "swm"});
    lose.addOption("--ref", options.ref, "The server's reference of the one connection to lose");

    base::Syntax& answer = app.addCommand("answer", "Answer a signal that legacyd would echo");
    answer.addOption("SIGNAL", options.signal, "The signal's number").required();
    answer.addOption("NUMBER", options.number, "The answer's number").required();
    answer.addOption("FIELDS", options.fields, "What follows the references in the answer, in hexadecimal");

    addFault(app, options);
    addTemperature(app, options);

    base::Syntax& leds = app.addCommand("leds", "Show the board's lamps in a row");
    leds.addFlag("--json", options.json, "As one JSON list");
    base::Syntax& serviceMan = app.addCommand("serviceman", "A service man comes to the board, or leaves it");
    serviceMan.addOption("PRESENCE", options.presence, "on or off").required().oneOf({"on", "off"});

    base::Syntax& describe = app.addCommand("describe", "Print the board description that is in force");
    describe.addFlag("--json", options.json, "As one JSON object, in the form of the file");

    base::Syntax& clear = app.addCommand("clear", "Undo all plans and answers");
    addTarget(clear, options);
}

Order planOf(const base::Syntax& command, const Options& options)
{
    nlohmann::json request{
        {"command", "plan"}, {"action", command.name()}, {"kind", options.kind}, {"count", options.count}};
    if (command.name() == "delay") {
        request["ms"] = options.ms;
    }
    if (!options.cause.empty()) {
        request["cause"] = options.cause;
    }
    const auto target = targetNamed(options.kind.substr(0, options.kind.find("::")));
    return {target ? std::vector<Target>{*target} : std::vector<Target>{}, std::move(request)};
}

Order loseOf(const base::Syntax& command, const Options& options)
{
    nlohmann::json request{{"command", "lose"}, {"server", options.server}};
    if (command.isGiven("--ref")) {
        request["ref"] = options.ref;
    }
    return {{*targetNamed(options.server)}, std::move(request)};
}

Order faultOf(const base::Syntax& command, const Options& options)
{
    const base::Syntax& action = *command.givenCommand();
    nlohmann::json request{{"command", "fault"}, {"action", action.name()}};
    if (action.name() != "list") {
        request["id"] = options.fault;
    }
    if (action.name() == "raise") {
        request["case"] = options.faultCase;
        if (action.isGiven("--fan")) {
            request["fan"] = options.fan;
        }
        if (action.isGiven("--parent")) {
            request["parent"] = options.parent;
        }
        if (action.isGiven("--slot")) {
            request["slot"] = options.slot;
        }
    }
    return {{brhd}, std::move(request)};
}

Order temperatureOf(const base::Syntax& command, const Options& options)
{
    constexpr double tenthsInDegree = 10;
    const std::string& action = command.givenCommand()->name();
    nlohmann::json request{{"command", "temp"}, {"action", action}};
    if (action != "list") {
        request["sensor"] = options.sensor;
    }
    if (action == "set") {
        request["tenths"] = std::lround(options.degrees * tenthsInDegree);
    }
    return {{brhd}, std::move(request)};
}

Order orderOf(const base::Syntax& command, const Options& options)
{
    const std::string& name = command.name();
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

int carryOut(const base::Syntax& command, const Options& options)
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
        best = std::min(best, report(order.targets[index], replies[index], command.name()));
    }
    return best;
}

} // namespace
} // namespace merlow::board

int main(int argc, char** argv)
{
    merlow::base::Syntax app("boardctl",
                             "Acts on the reference board's neighbours as a test engineer would.");
    app.allowOptionsBehindCommands(); // for the commands to come: options for all stand in front of a command
                                      // or behind it
    merlow::board::Options options;
    app.addCommonOptions(options.runDir);
    merlow::board::addCommands(app, options);
    app.footer(merlow::board::footer);
    if (const auto status = app.parse(argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(options.runDir);
    const int status = merlow::board::carryOut(*app.givenCommand(), options);
    return merlow::base::finishOutput("boardctl", status);
}
