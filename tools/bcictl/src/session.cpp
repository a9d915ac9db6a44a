#include "session.h"

#include "command.h"
#include "words.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace merlow::bcictl {

namespace {

using tools::ExitStatus;

std::string helpText()
{
    std::ostringstream text;
    text << std::left;
    for (const CommandRow& row : commandTable()) {
        text << "  " << std::setw(10) << row.name << row.help << "\n";
    }
    text << "  " << std::setw(10) << "help"
         << "This list; COMMAND --help tells more\n"
         << "  " << std::setw(10) << "quit"
         << "End the session\n";
    return text.str();
}

} // namespace

Session::Session(tools::BciClient& client, Output& output) : m_client(client), m_output(output)
{
    m_client.onIndication([this](const tools::Signal& signal) { m_output.indication(signal); });
}

ExitStatus Session::run(LineSource& source)
{
    while (serve()) {
        const auto line = source.next();
        if (!line || !runLine(*line)) {
            break;
        }
    }
    return m_client.isLost() ? ExitStatus::noUnit : ExitStatus::done;
}

bool Session::serve()
{
    m_client.drain();
    if (m_client.isLost() && !m_isLossTold) {
        m_isLossTold = true;
        m_output.setCommand("session");
        m_output.failed(0, {ExitStatus::noUnit, "the unit went away", {}});
    }
    return !m_client.isLost();
}

bool Session::runLine(const std::string& line)
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
        m_output.help(helpText());
        return true;
    }
    runCommand(*words);
    return true;
}

void Session::runCommand(std::vector<std::string> words)
{
    CLI::App app("", "");
    CommandChoice choice;
    choice.addTo(app);
    try {
        std::reverse(words.begin(), words.end()); // as the parser takes them
        app.parse(words);
    } catch (const CLI::CallForHelp&) {
        m_output.help(app.help());
        return;
    } catch (const CLI::ParseError& error) {
        m_output.misused(error.what());
        return;
    }
    if (choice.row() == nullptr) {
        m_output.misused("a command is missing; \"help\" lists them");
        return;
    }
    m_output.setCommand(choice.row()->name);
    (void)choice.command().run(m_client, m_output);
}

} // namespace merlow::bcictl
