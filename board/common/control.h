/// The control protocol between boardctl and the neighbours: one JSON object each way in a mailbox message. A
/// neighbour asks another in the same way.
///
/// | Offset | Size | Field | Order |
/// | 0 | 4 | number: `controlRequest` or `controlAnswer` | host |
/// | 4 | 4 | reference, chosen by the asker and echoed | network |
/// | 8 | n | a JSON object in UTF-8 | |
///
/// Requests: {"command": "status" | "kinds" | "clear"};
/// {"command": "plan", "action": "refuse" | "delay" | "drop" | "abort", "kind": K, "count": N, "ms": N,
/// "cause": C};
/// {"command": "lose", "server": S, "ref": N}; and what a neighbour has of its own.
/// Of brhd to legacyd: {"command": "restart", "code": C}, the code's 16 bits as a number without
/// sign. Answers: {"result": "done" | "refused" | "usage" | "notFound", "text": T, "data": D}.
#pragma once

#include "message.h"
#include "service.h"

#include <nlohmann/json.hpp>
#include <optional>

namespace merlow::board {

/// Far from the numbers of every interface of the unit.
constexpr std::uint32_t controlRequest = 0x42440001;
constexpr std::uint32_t controlAnswer = 0x42440002;

/// Longest control message that is looked at.
constexpr std::size_t maxControlSize = 1U << 20U;

struct ControlMessage {
    std::uint32_t ref;
    nlohmann::json body; ///< an object
};

Bytes encodeControl(std::uint32_t number, std::uint32_t ref, const nlohmann::json& body);

/// Nothing when the message has another number, is too short or too long, or holds no JSON object.
std::optional<ControlMessage> decodeControl(BytesView bytes, std::uint32_t number);

nlohmann::json toJson(const ControlAnswer& answer);
std::optional<ControlAnswer> answerFromJson(const nlohmann::json& body);

/// Serves one control request, whatever it holds.
ControlAnswer serveControl(Service& service, const nlohmann::json& request);

/// The member `name` of the object `request` if it is a string, or a whole number from 0 to 2^32 - 1.
std::optional<std::string> textMember(const nlohmann::json& request, const char* name);
std::optional<std::uint32_t> numberMember(const nlohmann::json& request, const char* name);

} // namespace merlow::board
