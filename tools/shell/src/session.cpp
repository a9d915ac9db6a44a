#include "session.h"

#include "words.h"

#include <iomanip>
#include <sstream>
#include <unistd.h>

namespace merlow::tools {

SessionLoop::SessionLoop(UnitClient& client, Output& output, std::vector<NamedCommand> commands)
    : m_client(client), m_output(output), m_commands(std::move(commands))
{
}

ExitStatus SessionLoop::run(LineSource& source)
{
    while (serve()) {
        const auto line = source.next();
        if (!line || !runLine(*line)) {
            break;
        }
    }
    return m_client.isLost() ? ExitStatus::noUnit : ExitStatus::done;
}

bool SessionLoop::serve()
{
    m_client.drain();
    if (m_client.isLost() && !m_isLossTold) {
        m_isLossTold = true;
        m_output.setCommand("session");
        m_output.failed(0, {ExitStatus::noUnit, "the unit went away", {}});
    }
    return !m_client.isLost();
}

std::unique_ptr<LineSource> SessionLoop::standardInput(const char* program, const char* prompt)
{
    const Watch watch{m_client.fd(), [this] {
                          return serve();
                      }};
    std::unique_ptr<LineSource> source;
    if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
        std::vector<std::string> names;
        for (const auto& command : m_commands) {
            names.emplace_back(command.name);
        }
        source = makeTerminalSource({program, prompt, std::move(names)}, watch);
    }
    return source ? std::move(source) : makePipeSource(STDIN_FILENO, watch);
}

bool SessionLoop::runLine(const std::string& line)
{
    const auto words = splitWords(line);
    if (!words) {
        m_output.misused("a quote is not closed: " + line);
        return true;
    }
    if (words->empty()) {
        return true;
    }
    if (words->front() == "quit" || words->front() == "exit") {
        return false;
    }
    if (words->front() == "help") {
        tellHelp();
        return true;
    }
    runCommand(*words);
    return true;
}

void SessionLoop::tellHelp()
{
    std::ostringstream text;
    text << std::left;
    for (const auto& command : m_commands) {
        text << "  " << std::setw(10) << command.name << command.help << "\n";
    }
    text << "  " << std::setw(10) << "help"
         << "This list; COMMAND --help tells more\n"
         << "  " << std::setw(10) << "quit"
         << "End the session\n";
    m_output.help(text.str());
}

} // namespace merlow::tools
