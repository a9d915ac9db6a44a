/// Clients that keep a unit busy, each a process of its own.
#pragma once

#include "process.h"

#include <cstddef>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace merlow::test {

/// Keeps a number of programs at work, picked at random. What the unit answers them is not looked at, since
/// its parts may be gone: they have to end in one of the ways that are documented.
class BusyClients {
public:
    /// `environment` and `random` live longer; `moduleFile` is what they load.
    BusyClients(const Process::Environment& environment, std::mt19937_64& random, std::string moduleFile);

    /// Takes those that are done away, kills those that take too long, and starts others in their place.
    void work();
    /// Kills one of them.
    void killOne();
    /// Waits for all of them.
    void finish();

    [[nodiscard]] std::size_t started() const { return m_started; }
    [[nodiscard]] std::size_t unanswered() const { return m_unanswered; }
    /// Programs that were killed, had no answer, or lost their unit.
    [[nodiscard]] std::size_t leftEarly() const { return m_leftEarly; }
    /// Programs that crashed, or ended in no documented way. For people.
    [[nodiscard]] const std::string& complaints() const { return m_complaints; }

private:
    struct Client {
        std::unique_ptr<Process> process;
        std::string command;
        Clock::time_point deadline;
        bool isKilled = false;
    };

    void start();
    void startSession();
    void takeDone();
    void judge(Client& client);
    [[nodiscard]] std::size_t below(std::size_t limit);

    const Process::Environment& m_environment;
    std::mt19937_64& m_random;
    std::string m_moduleFile;
    std::list<Client> m_clients;
    std::size_t m_started = 0;
    std::size_t m_unanswered = 0;
    std::size_t m_leftEarly = 0;
    std::string m_complaints;
};

} // namespace merlow::test
