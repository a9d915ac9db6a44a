#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace google::protobuf {
class Descriptor;
}

namespace fuzz {

struct SchemaMessage {
    std::uint32_t number;
    const google::protobuf::Descriptor* type; ///< of its body; none for a signal
    std::size_t size;                         ///< of a signal, as the table has it
};

/// The messages of an interface, in the schema's order.
using Schema = std::vector<SchemaMessage>;

const Schema& briSchema();
const Schema& bmmiSchema();
const Schema& swmiSchema();
/// The rows of the table of signals.
const Schema& bciSchema();

/// A line for each number of each interface, as it stands on the wire.
std::vector<std::string> dictionary();

} // namespace fuzz
