/// A schema against a literal table: each message number, field, type, label, default and value of an
/// enumeration, and nothing besides.
#pragma once

#include <string>
#include <vector>

namespace google::protobuf {
class EnumDescriptor;
class FileDescriptor;
} // namespace google::protobuf

namespace support {

/// The number of a message that travels inside of others only.
constexpr int inside = 0;

struct SchemaRow {
    const char* message; ///< nested ones behind their outer one's name and '.'
    int number;
    /// Fields in order of their numbers, as "1 name [repeated ]type[ = default]", then enumerations by name,
    /// as describeEnum() gives them.
    std::vector<std::string> content;
};

/// "NAME: 0 FIRST 1 SECOND".
[[nodiscard]] std::string describeEnum(const google::protobuf::EnumDescriptor& enumeration);

/// Fails the test for each difference of the messages in `file`, and for a syntax other than proto2,
/// extensions and services.
void expectSchema(const google::protobuf::FileDescriptor& file, const std::string& package,
                  const std::vector<SchemaRow>& rows);

} // namespace support
