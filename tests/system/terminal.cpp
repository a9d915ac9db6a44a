#include "terminal.h"

#include <fcntl.h>
#include <pty.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace merlow::test {

bool Terminal::areToBeHad()
{
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
        return false;
    }
    close(slave);
    close(master);
    return true;
}

Terminal::Terminal(unsigned short columns, unsigned short rows)
{
    const winsize size{rows, columns, 0, 0};
    if (openpty(&m_master, &m_slave, nullptr, nullptr, &size) != 0 ||
        fcntl(m_master, F_SETFL, O_NONBLOCK) != 0) {
        throw std::runtime_error("no terminal");
    }
}

Terminal::~Terminal()
{
    close(m_slave);
    close(m_master);
}

Outcome Terminal::run(const std::string& program, const std::vector<std::string>& arguments,
                      Process::Environment environment)
{
    environment["TERMINAL"] = ttyname(m_slave);
    std::vector<std::string> words{"-c", R"(exec "$0" "$@" >"$TERMINAL")", programPath(program)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    Process process("/bin/sh", words, environment);
    Outcome outcome;
    if (waitUntil([this, &process] {
            readWhatHasCome(); // or the program waits for room
            return !process.running();
        })) {
        outcome.status = process.wait();
    }
    readWhatHasCome();
    outcome.out = std::exchange(m_text, {});
    outcome.err = process.err();
    return outcome;
}

void Terminal::readWhatHasCome()
{
    char bytes[4096];
    for (ssize_t length = read(m_master, bytes, sizeof(bytes)); length > 0;
         length = read(m_master, bytes, sizeof(bytes))) {
        m_text.append(bytes, static_cast<std::size_t>(length));
    }
}

} // namespace merlow::test
