// Chaos: clients work against a unit under its supervisor while its parts are killed, stopped and continued
// at random. In the end the unit must be up and right, with nothing left over.

#include "busyClients.h"
#include "programOptions.h"
#include "supervisedUnit.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>

namespace merlow::test {
namespace {

// A sanitizer keeps freed memory for a while.
#ifdef MERLOW_SANITIZED
constexpr bool isMemoryTelling = false;
#else
constexpr bool isMemoryTelling = true;
#endif

constexpr std::size_t memoryAllowance = std::size_t{1} << 20U;
/// What the server keeps of each connection of brhd: the records of its capabilities.
constexpr std::size_t keptOfAConnection = 8192;
/// What it keeps of a request that nobody answered.
constexpr std::size_t keptOfARequest = 512;

using Parts = std::vector<std::string>;

class Chaos {
public:
    Chaos(unsigned seconds, std::uint64_t seed) : m_seconds(seconds), m_random(seed)
    {
        std::ofstream(m_unit.path("module")) << std::string(200000, 'm');
    }

    /// What is wrong, for people; empty for nothing.
    std::string run()
    {
        if (!m_unit.waitUntilUp() || !warmUp()) {
            return "the unit does not come up";
        }
        const Holdings before = m_unit.holdings();
        const auto half = std::chrono::milliseconds(m_seconds * 1000U / 2U);
        stir(half, {"legacyd", "brhd", "swmd", "merlowd"}, true);
        if (settle()) {
            surviveBesideTheDying(half);
        }
        checkService();
        checkState();
        if (!waitUntil([&] { return growth(before, m_unit.holdings()).empty(); })) {
            complain(growth(before, m_unit.holdings()));
        }
        complain(m_unit.unexpectedWords());
        complain(m_clients.complaints());
        if (const int status = m_unit.end(); status != 0) {
            complain("the supervisor ended with " + std::to_string(status));
        }
        complain(m_unit.leftOvers());
        return m_complaints;
    }

    [[nodiscard]] std::string summary() const
    {
        return std::to_string(m_kills) + " kills, " + std::to_string(m_stops) + " stops, " +
               std::to_string(m_clients.started()) + " clients, " + std::to_string(m_clients.unanswered()) +
               " of their requests unanswered, " + std::to_string(m_clients.leftEarly()) + " left early" +
               (m_grown ? ", the server's memory grew by " + std::to_string(*m_grown / 1024) + " KiB" : "");
    }

    [[nodiscard]] std::string words() const { return m_unit.words(); }

private:
    struct Stopped {
        pid_t process;
        Clock::time_point until;
    };

    void complain(const std::string& what)
    {
        if (!what.empty()) {
            m_complaints += what + "\n";
        }
    }

    std::size_t between(std::size_t least, std::size_t most)
    {
        return least + static_cast<std::size_t>(m_random() % (most - least + 1));
    }

    /// Once through all that is opened on first use.
    bool warmUp()
    {
        return succeeds({"bcictl", "audit"}) && succeeds({"bcictl", "running"}) &&
               succeeds({"bcictl", "load", m_unit.path("module"), "--software", "QXR7041162/7_R1A01"}) &&
               succeeds({"bcictl", "hwlog", "set", "7", "--label", "c", "words"}) &&
               succeeds({"boardctl", "status"});
    }

    /// In the end, with what it prints containing `text`.
    bool succeeds(std::vector<std::string> words, const std::string& text = {})
    {
        std::string command;
        for (const std::string& word : words) {
            command += word + " ";
        }
        const std::string program = words.front();
        words.erase(words.begin());
        Outcome outcome;
        const bool isDone = waitUntil([&] {
            outcome = m_unit.call(program, words);
            return outcome.status == 0 && outcome.out.find(text) != std::string::npos;
        });
        if (!isDone) {
            complain(command + "does not succeed: " + std::to_string(outcome.status) + " " + outcome.out +
                     outcome.err);
        }
        return isDone;
    }

    /// Lets the clients work for `time` while one of `mortal` is killed now and then, and any part stopped
    /// for a while.
    void stir(milliseconds time, const Parts& mortal, bool restartsBoard)
    {
        const auto end = Clock::now() + time;
        auto next = Clock::now();
        while (Clock::now() < end && m_unit.isRunning()) {
            m_clients.work();
            resume(false);
            if (Clock::now() >= next) {
                act(mortal, restartsBoard);
                next = Clock::now() + milliseconds(between(20, 500));
            }
            (void)waitUntil([&] { return Clock::now() >= next || isResumeDue(); }, milliseconds(20));
        }
        resume(true);
    }

    void act(const Parts& mortal, bool restartsBoard)
    {
        const auto parts = m_unit.parts();
        const std::size_t choice = between(0, 19);
        if (choice == 0 && restartsBoard) {
            (void)m_unit.call("bcictl", {"restart", "--timeout", "0.2"});
        } else if (choice < 3) {
            m_clients.killOne();
        } else if (choice < 7) {
            if (const auto part = parts.find(mortal[between(0, mortal.size() - 1)]); part != parts.end()) {
                ++m_kills;
                ::kill(part->second, SIGKILL);
            }
        } else if (!parts.empty()) {
            const auto part =
                std::next(parts.begin(), static_cast<std::ptrdiff_t>(between(0, parts.size() - 1)));
            ++m_stops;
            ::kill(part->second, SIGSTOP);
            m_stopped.push_back({part->second, Clock::now() + milliseconds(between(5, 400))});
        }
    }

    [[nodiscard]] bool isResumeDue() const
    {
        return std::any_of(m_stopped.begin(), m_stopped.end(),
                           [](const Stopped& stopped) { return Clock::now() >= stopped.until; });
    }

    void resume(bool all)
    {
        std::erase_if(m_stopped, [all](const Stopped& stopped) {
            const bool isDue = all || Clock::now() >= stopped.until;
            if (isDue) {
                ::kill(stopped.process, SIGCONT);
            }
            return isDue;
        });
    }

    /// Until the unit stands whole and lets clients in.
    bool settle()
    {
        m_clients.finish();
        if (!waitUntil([this] { return m_unit.parts().size() == 4; })) {
            complain("not all parts came back");
            return false;
        }
        return succeeds({"bcictl", "audit"});
    }

    /// The server, which is not killed now, keeps only what it has to of those that are.
    void surviveBesideTheDying(milliseconds time)
    {
        const pid_t server = m_unit.parts()["merlowd"];
        const std::size_t memory = SupervisedUnit::memoryOf(server);
        const std::size_t killsBefore = m_kills;
        const std::size_t unansweredBefore = m_clients.unanswered();
        stir(time, {"legacyd", "brhd"}, false);
        if (!settle()) {
            return;
        }
        if (m_unit.parts()["merlowd"] != server) {
            complain("the server died, and nobody killed it");
            return;
        }
        const std::size_t grown = std::max(SupervisedUnit::memoryOf(server), memory) - memory;
        m_grown = grown;
        const std::size_t allowed = memoryAllowance + (m_kills - killsBefore) * keptOfAConnection +
                                    (m_clients.unanswered() - unansweredBefore) * keptOfARequest;
        if (isMemoryTelling && grown > allowed) {
            complain("the server's memory grew by " + std::to_string(grown) + " bytes, allowed are " +
                     std::to_string(allowed));
        }
    }

    void checkService()
    {
        succeeds({"bcictl", "utc", "now"}, "time set to");
        succeeds({"bcictl", "hwlog", "set", "8", "--label", "c", "last words"}, "1 entry written to log 8");
        succeeds({"bcictl", "hwlog", "get", "8"}, "  last words\n");
        succeeds({"bcictl", "led", "set", "group1-yellow"}, "group1-yellow");
        succeeds({"bcictl", "led", "get"}, "group1-yellow");
        succeeds({"bcictl", "temp", "--period", "1", "--count", "1"}, "sensor 0 ");
        succeeds({"bcictl", "pid", "hw"}, "product MLU 3020");
        succeeds({"bcictl", "capabilities"}, " capabilities");
        succeeds({"bcictl", "running"}, "running QXR7041162%15_R91KT");
        succeeds({"bcictl", "load", m_unit.path("module"), "--software", "QXR7041162/7_R1B01"}, "");
        checkFaults();
    }

    /// What the board has and what clients see must be the same again.
    void checkFaults()
    {
        succeeds({"boardctl", "clear"});
        succeeds({"ccfictl", "cease", "0x502"});
        for (const char* const fault : {"HW_FAULT", "EXTERNAL_FAN_DISCONNECTED"}) {
            while (m_unit.call("boardctl", {"fault", "cease", fault}).status == 0) {
            }
        }
        succeeds({"bcictl", "faults"}, "no active faults");
        succeeds({"boardctl", "fault", "raise", "HW_FAULT"});
        succeeds({"bcictl", "faults"}, "0x0101 HW_FAULT");
        succeeds({"boardctl", "fault", "cease", "HW_FAULT"});
        succeeds({"bcictl", "faults"}, "no active faults");
    }

    /// The neighbours hold nothing but the server's own connections, and what nobody could give back: who
    /// leaves before the board has said under which numbers it knows him is known to it until the server
    /// comes anew.
    void checkState()
    {
        const std::size_t leftEarly = m_clients.leftEarly();
        nlohmann::json status;
        const auto isClean = [&] {
            const auto outcome = m_unit.call("boardctl", {"status", "--json"});
            status = nlohmann::json::parse(outcome.out, nullptr, false);
            const auto size = [&](const char* pointer) {
                return status.value(nlohmann::json::json_pointer(pointer), nlohmann::json("none")).size();
            };
            return status.is_object() && size("/brhd/bri/connections") == 1 &&
                   size("/brhd/bmmi/connections") == 1 && size("/brhd/bri/timeSources") <= leftEarly &&
                   size("/brhd/bri/measurements") == 0 && size("/brhd/bmmi/users") <= leftEarly &&
                   size("/legacyd/connections") == 0 && size("/swmd/connections") == 1 &&
                   size("/swmd/tickets") == 0;
        };
        if (!waitUntil(isClean)) {
            complain("the neighbours hold more than the server's connections: " + status.dump());
        }
    }

    unsigned m_seconds;
    std::mt19937_64 m_random;
    SupervisedUnit m_unit;
    BusyClients m_clients{m_unit.environment(), m_random, m_unit.path("module")};
    std::vector<Stopped> m_stopped;
    std::size_t m_kills = 0;
    std::size_t m_stops = 0;
    std::optional<std::size_t> m_grown;
    std::string m_complaints;
};

} // namespace
} // namespace merlow::test

int main(int argc, char** argv)
{
    merlow::base::Syntax app(
        "chaos", "Kills, stops and continues the parts of a unit at random while clients work with it.");
    unsigned seconds = 10;
    std::uint64_t seed = std::random_device()();
    app.addOption("--seconds", seconds, "How long").range(1U, 86400U).showDefault();
    app.addOption("--seed", seed, "Decides what happens when; a new one each time if not given");
    if (const auto status = app.parse(argc, argv)) {
        return *status;
    }

    const std::string command =
        "chaos --seconds " + std::to_string(seconds) + " --seed " + std::to_string(seed);
    std::cout << command << std::endl;
    merlow::test::Chaos chaos(seconds, seed);
    const std::string complaints = chaos.run();
    std::cout << chaos.summary() << std::endl;
    if (!complaints.empty()) {
        std::cerr << complaints << "the unit said:\n" << chaos.words() << "again: " << command << std::endl;
        return 1;
    }
    return 0;
}
