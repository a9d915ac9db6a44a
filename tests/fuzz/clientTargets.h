/// The client side of the library, and the program that uses it.
#pragma once

#include "fuzzTarget.h"

namespace fuzz {

void runClientDrivers(Input& input);
void runAgent(Input& input);

/// What the in-memory platform holds against its user, such as a message that was freed twice.
int platformFailures();

} // namespace fuzz
