/// The folder for what outlives a neighbour's process and a loss of power: `MERLOW_STATE_DIR`, else the
/// folder "state" of the run-time folder.
#pragma once

#include <string>

namespace merlow::board {

/// Reads the variable anew at each call; an empty one counts as unset.
std::string stateDirPath();

/// Opens the folder `path` below it, "" for the folder itself, made with its parents as far as missing. Gives
/// a descriptor for reading, close-on-exec, that the caller closes; -1 with `errno` on failure.
int openStateDir(const std::string& path);

} // namespace merlow::board
