/// The makers of all commands, one source file for each group.
#pragma once

#include "bciCommand.h"

#include <memory>

namespace merlow::bcictl {

// stateCommands.cpp
std::unique_ptr<Command> makeAudit();
std::unique_ptr<Command> makeEnable();
std::unique_ptr<Command> makeDisable();

// capabilityCommands.cpp
std::unique_ptr<Command> makeCapabilities();

// faultCommands.cpp
std::unique_ptr<Command> makeFaults();

// pidCommands.cpp
std::unique_ptr<Command> makePid();

// softwareCommands.cpp
std::unique_ptr<Command> makeRunning();
std::unique_ptr<Command> makeSelect();
std::unique_ptr<Command> makeComponents();
std::unique_ptr<Command> makeAcquire();
std::unique_ptr<Command> makeRelease();

// loadCommand.cpp
std::unique_ptr<Command> makeLoad();

// temperatureCommand.cpp
std::unique_ptr<Command> makeTemp();

// timeCommands.cpp
std::unique_ptr<Command> makeUtc();

// mmiCommands.cpp
std::unique_ptr<Command> makeMmi();
std::unique_ptr<Command> makeMaint();
std::unique_ptr<Command> makeLed();
std::unique_ptr<Command> makeIndicators();
std::unique_ptr<Command> makeHereIAm();

// hwLogCommands.cpp
std::unique_ptr<Command> makeHwLog();

// restartCommands.cpp
std::unique_ptr<Command> makeRestart();
std::unique_ptr<Command> makeNotifyRestart();
std::unique_ptr<Command> makeLinkSupervision();

// rawCommand.cpp
std::unique_ptr<Command> makeRaw();

} // namespace merlow::bcictl
