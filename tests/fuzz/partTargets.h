/// What runs on the real platform, and the neighbours and tools.
#pragma once

#include "fuzzTarget.h"

namespace fuzz {

// platformTargets.cpp
void runMailbox(Input& input);
void runMessageSocket(Input& input);
void runTraceRecords(Input& input);

// boardTargets.cpp
void runBoardDescription(Input& input);
void runBrhd(Input& input);
void runLegacyd(Input& input);
void runSwmd(Input& input);
void runLoadModule(Input& input);

// storeTargets.cpp
void runSoftwareStore(Input& input);
void runHardwareLogStore(Input& input);

// toolTargets.cpp
void runClientSignals(Input& input);
void runStatus(Input& input);
void runWords(Input& input);

} // namespace fuzz
