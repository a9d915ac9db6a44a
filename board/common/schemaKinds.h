/// Kinds of answers and their refusals, as the schemas tell them.
#pragma once

#include "service.h"

#include <google/protobuf/message.h>
#include <memory>
#include <string>

namespace merlow::board {

/// The kind of an answer whose reject has this prototype; null when there is none.
AnswerKind answerKindOf(std::string name, const google::protobuf::Message* reject);

/// A reject of this prototype with a cause by name; empty for the usual one.
std::unique_ptr<google::protobuf::Message> refusalOf(const google::protobuf::Message& reject,
                                                     const std::string& cause);

} // namespace merlow::board
