/// ccfictl as a whole: a command line in, an exit status out.
#pragma once

#include <ostream>

namespace merlow::ccfictl {

/// Results go to `out`, failures to `err`; a session reads standard input. The exit status is one of
/// `tools::ExitStatus`.
int runProgram(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace merlow::ccfictl
