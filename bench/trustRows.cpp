#include "rows.h"

#include "role.h"
#include "unit.h"

#include <algorithm>
#include <csignal>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace merlow::bench {

namespace {

constexpr double settling = 20e6; ///< nanoseconds from the start of the bad peers to the first round trip

/// Median and 99th percentile of the round trips of one turn, in nanoseconds.
struct Trips {
    std::vector<double> medians;
    std::vector<double> tails;
};

struct Company {
    const char* id;
    const char* what;
    std::vector<std::string> peers; ///< their kinds, one process each
    double limit;                   ///< 0: none
    bool otherUser;
};

/// Not on the unit's CPU, if there is another.
Process startBeside(const std::vector<std::string>& role, const std::string& runDir)
{
    Process process(Start{.arguments = role, .runDir = runDir, .otherCpus = true});
    process.untilReady();
    return process;
}

void settle()
{
    std::this_thread::sleep_for(std::chrono::duration<double, std::nano>(settling));
}

void sample(const Process& client, const Setting& setting, Trips& trips)
{
    const std::string answer = client.ask("sample " + std::to_string(setting.effort.roundNanoseconds));
    std::istringstream words(answer);
    double median = 0;
    double tail = 0;
    words >> median >> tail;
    trips.medians.push_back(median);
    trips.tails.push_back(tail);
}

/// What the peers asked for besides.
struct Flooded {
    double answers = 0;
    double missing = 0;
    double nanoseconds = 0;
};

/// The client's round trips while the peers act. `shares`: what part of a CPU each of them took.
void besidePeers(const Process& client, const std::vector<Process>& peers, const Setting& setting,
                 Trips& trips, std::vector<double>& shares, Flooded& flooded)
{
    const double start = nowNanoseconds();
    for (const Process& peer : peers) {
        peer.tell("go");
    }
    settle();
    std::vector<double> before;
    before.reserve(peers.size());
    for (const Process& peer : peers) {
        before.push_back(peer.cpuNanoseconds());
    }
    const double measured = nowNanoseconds();
    sample(client, setting, trips);
    const double elapsed = nowNanoseconds() - measured;
    for (std::size_t i = 0; i < peers.size(); ++i) {
        shares.at(i) = (peers[i].cpuNanoseconds() - before[i]) / elapsed;
    }
    for (const Process& peer : peers) {
        const std::string told = peer.ask("halt");
        std::istringstream words(told);
        double answers = 0;
        double missing = 0;
        words >> answers >> missing;
        flooded.answers += answers;
        flooded.missing = std::max(flooded.missing, missing);
    }
    flooded.nanoseconds += nowNanoseconds() - start;
}

void besideBurners(const Process& client, const std::vector<Process>& burners, const Setting& setting,
                   Trips& trips, const std::vector<double>& shares)
{
    for (std::size_t i = 0; i < burners.size(); ++i) {
        burners[i].tell("burn " + std::to_string(shares.at(i)));
    }
    settle();
    sample(client, setting, trips);
    for (const Process& burner : burners) {
        burner.ask("halt");
    }
}

std::vector<Row> rowsBeside(const Company& company, const Setting& setting)
{
    const std::string id = std::string("trust-") + company.id;
    const std::string what = std::string("audit beside ") + company.what;
    if (company.otherUser && geteuid() != 0) {
        return {{.id = id, .what = what, .skipped = "needs the right to become another user"}};
    }
    const std::string productDir = setting.runFolder + "/" + id;
    Unit product(productDir);
    const Unit floorUnit(productDir + "-floor");
    const Process client = product.start("trust-client", "");
    const Process floorClient = floorUnit.start("trust-client", "");
    std::vector<Process> peers;
    std::vector<Process> burners;
    for (const std::string& kind : company.peers) {
        peers.push_back(startBeside({"trust-peer", kind}, productDir));
        burners.push_back(startBeside({"trust-burner"}, productDir));
    }
    std::vector<double> shares(peers.size());
    Flooded flooded;
    const auto productTurn = [&](Trips& to) {
        besidePeers(client, peers, setting, to, shares, flooded);
    };
    const auto floorTurn = [&](Trips& to) {
        // What the peers have left waiting is the other turn's.
        kill(product.host().pid(), SIGSTOP);
        besideBurners(floorClient, burners, setting, to, shares);
        kill(product.host().pid(), SIGCONT);
    };
    Trips warmUp;
    productTurn(warmUp);
    floorTurn(warmUp);
    Trips trips;
    Trips floor;
    for (std::size_t round = 0; round < setting.effort.deaths; ++round) {
        if (round % 2 == 0) {
            productTurn(trips);
            floorTurn(floor);
        } else {
            floorTurn(floor);
            productTurn(trips);
        }
    }
    Row median = comparedRow(id + "-median", what + ", median", {floor.medians, floor.medians},
                             {trips.medians, trips.medians});
    Row tail =
        comparedRow(id, what + ", 99th percentile", {floor.tails, floor.tails}, {trips.tails, trips.tails});
    if (company.limit > 0) {
        tail.target = {company.limit, true};
    }
    std::vector<Row> rows{median, tail};
    if (flooded.answers > 0) {
        rows.push_back({.id = id + "-answers",
                        .what = std::string("answers to ") + company.what,
                        .unit = "1/s",
                        .value = flooded.answers / flooded.nanoseconds * 1e9});
        rows.push_back({.id = id + "-missing",
                        .what = std::string("answers to ") + company.what + ", missing",
                        .value = flooded.missing,
                        .target = Target{0, true}});
    }
    return rows;
}

} // namespace

std::vector<Row> trustRows(const Setting& setting)
{
    constexpr double small = 1.10;
    constexpr double twice = 2.0;
    const Company companies[] = {
        {"nobody", "nobody", {}, 0, false},
        {"silent", "silent peers", {"mute", "mute", "deaf"}, small, false},
        {"malformed", "a peer that breaks the rules", {"malformed"}, small, false},
        {"foreign", "another user's process", {"foreign"}, small, true},
        {"inside", "one to which all folders are open", {"foreign-inside"}, small, true},
        {"flood", "a client that floods", {"flood"}, twice, false},
        {"resting", "one that sleeps when it can", {"flood-resting"}, twice, false}};
    std::vector<Row> rows;
    for (const Company& company : companies) {
        for (Row& row : rowsBeside(company, setting)) {
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

} // namespace merlow::bench
