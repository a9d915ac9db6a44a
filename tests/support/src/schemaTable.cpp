#include "schemaTable.h"

#include <algorithm>
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <utility>

namespace support {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

std::string describeEnum(const EnumDescriptor& enumeration)
{
    std::ostringstream text;
    text << enumeration.name() << ':';
    for (int i = 0; i < enumeration.value_count(); ++i) {
        text << ' ' << enumeration.value(i)->number() << ' ' << enumeration.value(i)->name();
    }
    return text.str();
}

namespace {

using Content = std::pair<int, std::vector<std::string>>;

std::string describe(const FieldDescriptor& field)
{
    std::ostringstream text;
    text << field.number() << ' ' << field.name() << ' ';
    if (field.is_repeated()) {
        text << "repeated ";
    }
    if (field.type() == FieldDescriptor::TYPE_ENUM) {
        text << field.enum_type()->full_name();
    } else if (field.type() == FieldDescriptor::TYPE_MESSAGE) {
        text << field.message_type()->full_name();
    } else {
        text << field.type_name();
    }
    if (field.is_required()) {
        text << " required";
    }
    if (field.is_packed()) {
        text << " packed";
    }
    if (field.has_default_value()) {
        text << " = " << field.default_value_string();
    }
    return text.str();
}

void describe(const Descriptor& message, const std::string& prefix, std::map<std::string, Content>& out)
{
    auto& [number, content] = out[prefix + message.name()];
    number = inside;
    std::vector<const FieldDescriptor*> fields;
    for (int i = 0; i < message.field_count(); ++i) {
        fields.push_back(message.field(i));
    }
    std::sort(fields.begin(), fields.end(),
              [](const auto* a, const auto* b) { return a->number() < b->number(); });
    for (const auto* field : fields) {
        content.push_back(describe(*field));
    }
    std::vector<std::string> enumerations;
    for (int i = 0; i < message.enum_type_count(); ++i) {
        const auto& enumeration = *message.enum_type(i);
        if (enumeration.name() == "MetaInfo") {
            ASSERT_EQ(enumeration.value_count(), 1) << message.full_name();
            ASSERT_EQ(enumeration.value(0)->name(), "MESSAGE_NUMBER") << message.full_name();
            number = enumeration.value(0)->number();
        } else {
            enumerations.push_back(describeEnum(enumeration));
        }
    }
    std::sort(enumerations.begin(), enumerations.end());
    content.insert(content.end(), enumerations.begin(), enumerations.end());
    for (int i = 0; i < message.nested_type_count(); ++i) {
        describe(*message.nested_type(i), prefix + message.name() + ".", out);
    }
}

} // namespace

void expectSchema(const FileDescriptor& file, const std::string& package, const std::vector<SchemaRow>& rows)
{
    EXPECT_EQ(file.package(), package);
    EXPECT_EQ(file.syntax(), FileDescriptor::SYNTAX_PROTO2);
    EXPECT_EQ(file.extension_count(), 0);
    EXPECT_EQ(file.service_count(), 0);
    std::map<std::string, Content> found;
    for (int i = 0; i < file.message_type_count(); ++i) {
        describe(*file.message_type(i), "", found);
    }
    for (const auto& row : rows) {
        const auto message = found.find(row.message);
        ASSERT_NE(message, found.end()) << row.message;
        EXPECT_EQ(message->second.first, row.number) << row.message;
        EXPECT_EQ(message->second.second, row.content) << row.message;
        found.erase(message);
    }
    for (const auto& [name, content] : found) {
        ADD_FAILURE() << name << " is in the schema and not in the table";
    }
}

} // namespace support
