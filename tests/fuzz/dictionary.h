#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

/// The numbers of an interface's messages, in the schema's order.
std::vector<std::uint32_t> briNumbers();
std::vector<std::uint32_t> bmmiNumbers();
std::vector<std::uint32_t> swmiNumbers();

/// A line for each number of each interface, as it stands on the wire.
std::vector<std::string> dictionary();

} // namespace fuzz
