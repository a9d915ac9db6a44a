// bcictl: a client of the unit for people and scripts.

#include "program.h"

#include <clocale>
#include <csignal>
#include <iostream>

int main(int argc, char** argv)
{
    (void)std::setlocale(LC_CTYPE, "");
    (void)std::signal(SIGPIPE, SIG_IGN);
    return merlow::bcictl::runProgram(argc, argv, std::cout, std::cerr);
}
