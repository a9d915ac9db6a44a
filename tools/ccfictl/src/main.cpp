// ccfictl: forwards faults to the unit, for people and scripts.

#include "ccfictl.h"
#include "programOptions.h"

#include <clocale>
#include <csignal>
#include <iostream>

int main(int argc, char** argv)
{
    (void)std::setlocale(LC_CTYPE, "");
    (void)std::signal(SIGPIPE, SIG_IGN);
    const int status = merlow::ccfictl::runProgram(argc, argv, std::cout, std::cerr);
    return merlow::base::finishOutput("ccfictl", status);
}
