#include "busyClients.h"

#include <algorithm>
#include <array>
#include <csignal>

namespace merlow::test {

namespace {

constexpr std::size_t clientCount = 4;
constexpr std::size_t commandsOfASession = 30;
constexpr milliseconds longestWork{4000};

/// What a session does. Those that change nothing come more than once.
constexpr std::array<const char*, 26> sessionCommands{"audit",
                                                      "audit",
                                                      "enable",
                                                      "utc now",
                                                      "mmi 1",
                                                      "mmi 2",
                                                      "raw 0x1658fff c0ffee01",
                                                      "pid hw",
                                                      "pid extended",
                                                      "pid container",
                                                      "capabilities",
                                                      "hwlog get 5",
                                                      "hwlog set 5 --label chaos words",
                                                      "hwlog set 2 --label node here",
                                                      "link-supervision",
                                                      "faults",
                                                      "temp --period 1",
                                                      "temp --period 0",
                                                      "led get",
                                                      "led set group1-yellow",
                                                      "indicators",
                                                      "maint follow",
                                                      "maint set requested",
                                                      "hereiam on",
                                                      "hereiam off",
                                                      "running"};

using Command = std::vector<std::string>;

const Command& commandOf(std::size_t index)
{
    static const std::vector<Command> commands{
        {"bcictl", "temp", "--period", "1", "--count", "2"},
        {"bcictl", "faults"},
        {"bcictl", "components"},
        {"bcictl", "select", "QXR7041162/15_R91KT"},
        {"bcictl", "load", "", "--software", "QXR7041162/7_R1A01"},
        {"bcictl", "load", "", "--software", "QXR7041162/7_R1A02"},
        {"bcictl", "hwlog", "set", "7", "--label", "chaos", "an entry"},
        {"bcictl", "audit", "--server-ref", "450"},
        {"ccfictl", "raise", "0x502", "--description", "chaos"},
        {"ccfictl", "cease", "0x502"},
        {"boardctl", "fault", "raise", "HW_FAULT"},
        {"boardctl", "fault", "cease", "HW_FAULT"},
        {"boardctl", "fault", "raise", "EXTERNAL_FAN_DISCONNECTED"},
        {"boardctl", "fault", "cease", "EXTERNAL_FAN_DISCONNECTED"},
        {"boardctl", "temp", "set", "board", "60"},
        {"boardctl", "temp", "unset", "board"},
        {"boardctl", "serviceman", "on"},
        {"boardctl", "serviceman", "off"},
        {"boardctl", "status", "--json"},
    };
    return commands[index % commands.size()];
}

std::size_t countOf(const std::string& text, const std::string& what)
{
    std::size_t count = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

} // namespace

BusyClients::BusyClients(const Process::Environment& environment, std::mt19937_64& random,
                         std::string moduleFile)
    : m_environment(environment), m_random(random), m_moduleFile(std::move(moduleFile))
{
}

std::size_t BusyClients::below(std::size_t limit)
{
    return static_cast<std::size_t>(m_random() % limit);
}

void BusyClients::work()
{
    takeDone();
    while (m_clients.size() < clientCount) {
        start();
    }
}

void BusyClients::start()
{
    ++m_started;
    if (below(2) == 0) {
        startSession();
        return;
    }
    Command words = commandOf(below(1000));
    std::replace(words.begin(), words.end(), std::string(), m_moduleFile);
    std::string command;
    for (const std::string& word : words) {
        command += word + " ";
    }
    const std::string program = words.front();
    words.erase(words.begin());
    words.insert(words.end(), {"--timeout", "1"});
    m_clients.push_back(
        {std::make_unique<Process>(program, words, m_environment), command, Clock::now() + longestWork});
}

void BusyClients::startSession()
{
    std::string commands;
    for (std::size_t i = 0; i < commandsOfASession; ++i) {
        commands += std::string(sessionCommands[below(sessionCommands.size())]) + "\n";
    }
    auto session = std::make_unique<Process>("bcictl", Command{"session", "--timeout", "1"}, m_environment);
    session->write(commands);
    session->closeInput();
    m_clients.push_back({std::move(session), "bcictl session", Clock::now() + longestWork});
}

void BusyClients::killOne()
{
    if (!m_clients.empty()) {
        auto client = std::next(m_clients.begin(), static_cast<std::ptrdiff_t>(below(m_clients.size())));
        client->isKilled = true;
        client->process->signal(SIGKILL);
    }
}

void BusyClients::finish()
{
    (void)waitUntil([this] {
        takeDone();
        return m_clients.empty();
    });
}

void BusyClients::takeDone()
{
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        if (Clock::now() >= client->deadline && !client->isKilled) {
            client->isKilled = true;
            client->process->signal(SIGKILL);
        }
        if (client->process->running()) {
            ++client;
        } else {
            judge(*client);
            client = m_clients.erase(client);
        }
    }
}

void BusyClients::judge(Client& client)
{
    const std::string said = client.process->err();
    m_unanswered += countOf(said, "no answer") + countOf(said, "no confirm");
    const int status = client.process->wait();
    m_leftEarly += client.isKilled || status == 3 || status == 4 ? 1 : 0;
    const bool isDocumented = status == 0 || status == 1 || status == 3 || status == 4;
    if (!isDocumented && !(client.isKilled && status == 128 + SIGKILL)) {
        m_complaints += client.command + " ended with " + std::to_string(status) + ": " + said + "\n";
    }
}

} // namespace merlow::test
