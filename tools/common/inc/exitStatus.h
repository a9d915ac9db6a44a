/// What the command-line tools tell the shell.
#pragma once

namespace merlow::tools {

enum class ExitStatus : int {
    done = 0,
    rejected = 1, ///< the unit answered with a reject
    usage = 2,    ///< the command line is wrong; nothing was sent
    noAnswer = 3, ///< the unit is there, its answer did not come in time or makes no sense
    noUnit = 4,   ///< no unit in the run-time folder, or it went away in the middle
};

} // namespace merlow::tools
