/// A terminal that a program of the project writes to.
#pragma once

#include "process.h"

#include <string>
#include <vector>

namespace merlow::test {

class Terminal {
public:
    /// Whether this machine has any: a bare container may not.
    [[nodiscard]] static bool areToBeHad();

    explicit Terminal(unsigned short columns = 80, unsigned short rows = 24);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Runs a program to its end; `out` is what the terminal got, lines ended by "\r\n".
    Outcome run(const std::string& program, const std::vector<std::string>& arguments,
                Process::Environment environment);

private:
    void readWhatHasCome();

    int m_master = -1;
    int m_slave = -1; // stays open, or what nobody has read goes with the program
    std::string m_text;
};

} // namespace merlow::test
