#include "control.h"

#include <algorithm>
#include <array>
#include <limits>
#include <unistd.h>
#include <utility>

namespace merlow::board {

namespace {

using Result = ControlAnswer::Result;

constexpr std::size_t headerSize = 8;

constexpr std::array<std::pair<Result, const char*>, 4> resultNames{{
    {Result::done, "done"},
    {Result::refused, "refused"},
    {Result::usage, "usage"},
    {Result::notFound, "notFound"},
}};

/// What is wrong with a plan for `kind`, or nothing.
std::optional<ControlAnswer> objectionTo(const AnswerPlan& plan, const AnswerKind& kind)
{
    if (plan.count == 0) {
        return ControlAnswer{Result::usage, "the count must be at least 1", {}};
    }
    if (plan.action == AnswerPlan::Action::abort && !kind.canAbort) {
        return ControlAnswer{Result::refused, kind.name + " cannot be aborted", {}};
    }
    if (plan.action != AnswerPlan::Action::refuse) {
        return std::nullopt;
    }
    if (!kind.canRefuse) {
        return ControlAnswer{Result::refused, kind.name + " has no reject", {}};
    }
    if (plan.cause.empty() || kind.freeCause ||
        std::find(kind.causes.begin(), kind.causes.end(), plan.cause) != kind.causes.end()) {
        return std::nullopt;
    }
    if (kind.causes.empty()) {
        return ControlAnswer{Result::usage, "a reject of " + kind.name + " carries no cause", {}};
    }
    return ControlAnswer{Result::usage,
                         "\"" + plan.cause + "\" is no cause of " + kind.name + "; it has " +
                             commaList(kind.causes),
                         {}};
}

ControlAnswer makePlan(Service& service, const nlohmann::json& request)
{
    const auto action = actionFromText(textMember(request, "action").value_or(""));
    if (!action) {
        return {Result::usage, "the action is none of refuse, delay, drop, abort", {}};
    }
    const std::string wanted = textMember(request, "kind").value_or("");
    const auto kind = service.findKind(wanted);
    if (!kind) {
        return {Result::usage, "\"" + wanted + "\" is no kind that " + service.name() + " answers", {}};
    }
    AnswerPlan plan;
    plan.action = *action;
    plan.kind = kind->name;
    plan.count = request.contains("count") ? numberMember(request, "count").value_or(0) : 1;
    plan.delay = std::chrono::milliseconds(numberMember(request, "ms").value_or(0));
    plan.cause = textMember(request, "cause").value_or("");
    if (auto objection = objectionTo(plan, *kind)) {
        return *objection;
    }
    const std::string done = std::string(toText(plan.action)) + " planned for the next " +
                             (plan.count == 1 ? "answer" : std::to_string(plan.count) + " answers") + " to " +
                             plan.kind;
    if (!service.plans().add(std::move(plan))) {
        return {Result::refused, "there are too many plans; clear them first", {}};
    }
    return {Result::done, done, {}};
}

ControlAnswer lose(Service& service, const nlohmann::json& request)
{
    const auto server = textMember(request, "server");
    const auto ref = numberMember(request, "ref");
    if (!server || (request.contains("ref") && !ref)) {
        return {Result::usage, "lose needs a server's name, and a reference must be a number", {}};
    }
    return service.lose(*server, ref);
}

nlohmann::json kindsToJson(const std::vector<AnswerKind>& kinds)
{
    nlohmann::json list = nlohmann::json::array();
    for (const AnswerKind& kind : kinds) {
        list.push_back({{"kind", kind.name},
                        {"canRefuse", kind.canRefuse},
                        {"causes", kind.causes},
                        {"freeCause", kind.freeCause},
                        {"canAbort", kind.canAbort}});
    }
    return list;
}

} // namespace

Bytes encodeControl(std::uint32_t number, std::uint32_t ref, const nlohmann::json& body)
{
    // A text that a peer chose may be no UTF-8; the answer still has to go out.
    const std::string text = body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    Bytes bytes;
    bytes.reserve(headerSize + text.size());
    putHost32(bytes, number);
    putNetwork32(bytes, ref);
    putBytes(bytes, std::as_bytes(std::span(text)));
    return bytes;
}

std::optional<ControlMessage> decodeControl(BytesView bytes, std::uint32_t number)
{
    if (host32At(bytes, 0) != number || bytes.size() > maxControlSize) {
        return std::nullopt;
    }
    const auto ref = network32At(bytes, 4);
    if (!ref) {
        return std::nullopt;
    }
    const auto text = bytes.subspan(headerSize);
    const auto* begin = reinterpret_cast<const char*>(text.data());
    auto body = nlohmann::json::parse(begin, begin + text.size(), nullptr, false);
    if (!body.is_object()) {
        return std::nullopt;
    }
    return ControlMessage{*ref, std::move(body)};
}

nlohmann::json toJson(const ControlAnswer& answer)
{
    nlohmann::json body{{"text", answer.text}, {"data", answer.data}};
    for (const auto& [result, name] : resultNames) {
        if (result == answer.result) {
            body["result"] = name;
        }
    }
    return body;
}

std::optional<ControlAnswer> answerFromJson(const nlohmann::json& body)
{
    const auto wanted = textMember(body, "result");
    for (const auto& [result, name] : resultNames) {
        if (wanted == name) {
            return ControlAnswer{result, textMember(body, "text").value_or(""),
                                 body.value("data", nlohmann::json{})};
        }
    }
    return std::nullopt;
}

ControlAnswer serveControl(Service& service, const nlohmann::json& request)
{
    const std::string command = textMember(request, "command").value_or("");
    if (command == "status") {
        nlohmann::json status = service.status();
        status["program"] = service.name();
        status["pid"] = getpid();
        status["version"] = MERLOW_VERSION;
        return {Result::done, "", std::move(status)};
    }
    if (command == "kinds") {
        return {Result::done, "", kindsToJson(service.kinds())};
    }
    if (command == "plan") {
        return makePlan(service, request);
    }
    if (command == "lose") {
        return lose(service, request);
    }
    if (command == "clear") {
        return service.clear();
    }
    return service.control(command, request);
}

std::optional<std::string> textMember(const nlohmann::json& request, const char* name)
{
    const auto member = request.find(name);
    if (member == request.end() || !member->is_string()) {
        return std::nullopt;
    }
    return member->get<std::string>();
}

std::optional<std::uint32_t> numberMember(const nlohmann::json& request, const char* name)
{
    const auto member = request.find(name);
    if (member == request.end() || !member->is_number_integer()) {
        return std::nullopt;
    }
    // A number below 0 is signed and becomes one far beyond the limit.
    const auto value = member->get<std::uint64_t>();
    return value <= std::numeric_limits<std::uint32_t>::max()
               ? std::optional(static_cast<std::uint32_t>(value))
               : std::nullopt;
}

} // namespace merlow::board
