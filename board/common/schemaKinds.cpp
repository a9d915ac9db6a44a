#include "schemaKinds.h"

#include <google/protobuf/descriptor.h>
#include <utility>

namespace merlow::board {

namespace {

/// The one enumeration of a reject that is its own, which says why; null when it has none.
const google::protobuf::FieldDescriptor* causeField(const google::protobuf::Message& reject)
{
    const auto* descriptor = reject.GetDescriptor();
    for (int index = 0; index < descriptor->field_count(); ++index) {
        const auto* field = descriptor->field(index);
        if (field->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_ENUM &&
            field->enum_type()->containing_type() == descriptor) {
            return field;
        }
    }
    return nullptr;
}

} // namespace

AnswerKind answerKindOf(std::string name, const google::protobuf::Message* reject)
{
    AnswerKind kind;
    kind.name = std::move(name);
    kind.canRefuse = reject != nullptr;
    if (const auto* field = kind.canRefuse ? causeField(*reject) : nullptr) {
        for (int index = 0; index < field->enum_type()->value_count(); ++index) {
            kind.causes.push_back(field->enum_type()->value(index)->name());
        }
    }
    return kind;
}

std::unique_ptr<google::protobuf::Message> refusalOf(const google::protobuf::Message& reject,
                                                     const std::string& cause)
{
    std::unique_ptr<google::protobuf::Message> refusal(reject.New());
    if (const auto* field = causeField(*refusal)) {
        const auto* values = field->enum_type();
        const auto* value = cause.empty() ? values->value(0) : values->FindValueByName(cause);
        refusal->GetReflection()->SetEnum(refusal.get(), field, value);
    }
    return refusal;
}

} // namespace merlow::board
