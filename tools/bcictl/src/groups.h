/// The makers of all commands, one source file for each group, and what some of them make of answers.
#pragma once

#include "bciCommand.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

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
/// What the unit or its container is; nothing for another signal than the confirms of that, or one that is
/// shorter than its layout.
std::optional<Told> decodeIdentity(const tools::Signal& signal);

// softwareCommands.cpp
std::unique_ptr<Command> makeRunning();
std::unique_ptr<Command> makeSelect();
std::unique_ptr<Command> makeComponents();
std::unique_ptr<Command> makeAcquire();
std::unique_ptr<Command> makeRelease();
/// Text of the list of components, without what could steer a terminal.
std::string listText(std::span<const std::uint8_t> bytes);

// loadCommand.cpp
std::unique_ptr<Command> makeLoad();
/// The size of blocks that the unit asks for; nothing when it names none that can be used.
std::optional<std::uint32_t> blockSizeIn(const tools::Signal& capabilities);

// temperatureCommand.cpp
std::unique_ptr<Command> makeTemp();

// timeCommands.cpp
std::unique_ptr<Command> makeUtc();

// mmiCommands.cpp
std::unique_ptr<Command> makeMmi();
std::unique_ptr<Command> makeMaint();
std::unique_ptr<Command> makeLed();
std::unique_ptr<Command> makeIndicators();
/// Each indicator with its state; nothing for a signal that does not hold the records that it announces.
std::optional<Told> decodeIndicators(const tools::Signal& signal);
std::unique_ptr<Command> makeHereIAm();

// hwLogCommands.cpp
std::unique_ptr<Command> makeHwLog();
/// The entries of a confirm; nothing when its bytes hold fewer than it says.
std::optional<std::vector<std::string>> hwLogEntriesIn(const tools::Signal& signal);

// restartCommands.cpp
std::unique_ptr<Command> makeRestart();
std::unique_ptr<Command> makeNotifyRestart();
std::unique_ptr<Command> makeLinkSupervision();

// rawCommand.cpp
std::unique_ptr<Command> makeRaw();

} // namespace merlow::bcictl
