#pragma once

#include "boardPeers.h"
#include "client.h"
#include "ledger.h"
#include "otherPeers.h"
#include "peer.h"
#include "random.h"
#include "unit.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

/// The unit and all around it, from the first start to the last end; all that happens follows from the seed.
class World {
public:
    /// `isTraced`: each step, and what the server traced in it, goes to the standard output.
    World(std::uint64_t seed, bool isTraced);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    /// Throws a Violation when a rule is broken.
    void run();
    [[nodiscard]] unsigned int steps() const { return m_steps; }

private:
    void step();
    void serverStep();
    void neighbourStep();
    void clientStep();
    void somebodyDiesOrReturns();
    void startServer();
    void endServer();
    void startAllButClients();
    /// Everybody is back and answers: the unit must be published, and all must come to rest.
    void settle();
    [[nodiscard]] bool serverHasWork() const;
    void runUntilIdle();
    void checkShownFaults() const;
    void trace(const std::string& text);
    void traceServer(const Event& event, const Outcome& outcome);

    Random m_random;
    Weather m_weather;
    bool m_isTraced;
    bool m_isAuboot;
    unsigned int m_steps = 0;
    Unit m_unit;
    std::optional<Ledger> m_ledger; ///< of the server's present life
    BriPeer m_bri;
    BmmiPeer m_bmmi;
    SwmPeer m_swm;
    LegacyPeer m_legacy;
    CcfiPeer m_ccfi;
    std::vector<Client> m_clients;
};

} // namespace sim
