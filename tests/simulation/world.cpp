#include "world.h"

#include "fakeBrh.h"
#include "fakeLoop.h"
#include "fakeMnet.h"
#include "fakeSway.h"
#include "fakeTrace.h"
#include "mnetMessageSubscriptionCustom.h"
#include "virtualSwmServer.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <utility>

namespace sim {

using support::FakeMnet;
using support::Traces;

namespace {

constexpr unsigned int minSteps = 300;
constexpr unsigned int maxSteps = 2500;
constexpr unsigned int maxClients = 5;
/// Far above what a unit at rest has left to do.
constexpr unsigned int idleLimit = 20000;

/// What the in-memory platform holds against its user, such as a message that was freed twice.
int platformFailures()
{
    return ::testing::UnitTest::GetInstance()->ad_hoc_test_result().total_part_count();
}

} // namespace

World::World(std::uint64_t seed, bool isTraced) : m_random(seed), m_isTraced(isTraced)
{
    MnetMessageSubscriptionCustom::reset();
    FakeMnet::instance().reset();
    support::FakeLoop::instance().reset();
    support::FakeSway::instance().reset();
    support::FakeBrh::instance().reset();
    Traces::instance().reset();
    if (!isTraced) {
        Traces::instance().setProcMask(0);
        Traces::instance().setObjMask(0);
    }
    m_weather = Weather::drawn(m_random);
    m_isAuboot = m_random.chance(20);
    setenv("SYS_MODE", m_isAuboot ? "AUBOOT" : "", 1);
    m_clients = std::vector<Client>(1 + m_random.below(maxClients));
}

World::~World()
{
    m_unit.end();
    FakeMnet::instance().reset();
}

void World::run()
{
    const int failuresBefore = platformFailures();
    m_swm.start();
    startServer();
    if (m_random.chance(70)) { // else the unit comes up as the weather lets it
        const Weather drawn = std::exchange(m_weather, Weather::calm());
        startAllButClients();
        runUntilIdle();
        m_weather = drawn;
    }
    for (unsigned int end = minSteps + m_random.below(maxSteps - minSteps); m_steps < end; ++m_steps) {
        step();
        if (platformFailures() != failuresBefore) {
            throw Violation("The platform was used wrongly");
        }
    }
    settle();
    endServer();
}

void World::step()
{
    if (m_random.chance(m_weather.deaths) || !m_unit.isUp()) {
        somebodyDiesOrReturns();
    } else if (m_random.chance(m_weather.serverShare)) {
        serverStep();
    } else if (m_random.chance(50)) {
        neighbourStep();
    } else {
        clientStep();
    }
}

bool World::serverHasWork() const
{
    return m_unit.hasMessage() || m_unit.hasSwmiFrame();
}

void World::serverStep()
{
    if (!serverHasWork()) {
        return;
    }
    const bool swmi = m_unit.hasSwmiFrame() && (!m_unit.hasMessage() || m_random.chance(50));
    const bool wasPublished = m_ledger->isPublished();
    const Event event = swmi ? m_unit.nextSwmiFrame() : m_unit.nextMessage();
    const Outcome outcome = m_unit.handle(swmi);
    traceServer(event, outcome);
    m_ledger->handled(m_unit, event, outcome);
    if (m_unit.hasStopped()) {
        endServer();
    }
    if (wasPublished && (!m_ledger || !m_ledger->isPublished())) {
        for (Client& client : m_clients) {
            client.onWithdrawn();
        }
    }
    checkShownFaults();
}

/// Once a client has read all that was sent to it, it shows what it should.
void World::checkShownFaults() const
{
    for (const Client& client : m_clients) {
        if (m_ledger && client.isUp() && client.followsFaults() && !client.hasMessage() &&
            m_ledger->isDefaultSubscriber(client.mbox()) && client.shownFaults() != m_ledger->shownFaults()) {
            throw Violation("A subscriber shows other faults than there are");
        }
    }
}

void World::neighbourStep()
{
    switch (m_random.below(4)) {
    case 0:
        if (m_bri.isUp()) {
            trace(m_bri.act(m_random, m_weather));
        }
        break;
    case 1:
        if (m_bmmi.isUp()) {
            trace(m_bmmi.act(m_random, m_weather));
        }
        break;
    case 2:
        if (m_swm.isUp()) {
            trace(m_swm.act(m_random, m_weather));
        }
        break;
    default:
        if (m_legacy.isUp()) {
            trace(m_legacy.act(m_random, m_weather));
        }
        break;
    }
    // Whoever has not come up yet does so at some time.
    if (m_random.chance(10)) {
        startAllButClients();
    }
}

void World::clientStep()
{
    if (m_ccfi.isUp() && m_random.chance(20)) {
        trace(m_ccfi.act(m_random, m_weather));
        return;
    }
    Client& client = m_random.of(m_clients);
    if (client.isUp()) {
        trace(client.act(m_random, m_weather));
    } else {
        client.start();
    }
}

void World::startAllButClients()
{
    for (BoardPeer* peer : {static_cast<BoardPeer*>(&m_bri), static_cast<BoardPeer*>(&m_bmmi)}) {
        if (!peer->isUp()) {
            peer->start();
            trace("A board server comes up");
        }
    }
    if (!m_legacy.isUp()) {
        m_legacy.start();
        trace("The legacy server comes up");
    }
    if (!m_ccfi.isUp()) {
        m_ccfi.start();
    }
}

void World::somebodyDiesOrReturns()
{
    if (!m_unit.isUp()) {
        if (!m_swm.isUp()) {
            m_swm.start();
        }
        startServer();
        return;
    }
    switch (m_random.below(12)) {
    case 0:
    case 1:
        if (m_bri.isUp()) {
            trace("BriServer dies");
            m_bri.die();
        }
        break;
    case 2:
    case 3:
        if (m_bmmi.isUp()) {
            trace("BmmiServer dies");
            m_bmmi.die();
        }
        break;
    case 4:
    case 5:
        if (m_legacy.isUp()) {
            trace("The legacy server dies");
            m_legacy.die();
        }
        break;
    case 6:
        if (m_ccfi.isUp()) {
            trace("The fault forwarder dies");
            m_ccfi.die();
        }
        break;
    case 7:
        if (m_random.chance(15) && m_swm.isUp()) {
            trace("The SWM server dies");
            m_swm.die();
        } else if (m_random.chance(15)) {
            trace("The server is asked to end");
            m_unit.requestStop();
        } else if (m_random.chance(10)) {
            endServer();
        }
        break;
    default: {
        Client& client = m_random.of(m_clients);
        if (client.isUp()) {
            trace("A client dies");
            client.die();
        }
        break;
    }
    }
    if (m_random.chance(30)) {
        startAllButClients(); // at once: before anybody has noticed
    }
}

void World::startServer()
{
    Outcome outcome;
    const int result = m_unit.start(outcome);
    trace("The server starts: " + std::to_string(result));
    if (result != 0) {
        throw Violation("The server did not start: " + std::to_string(result));
    }
    m_ledger.emplace(m_isAuboot);
    m_ledger->started(m_unit, outcome);
}

void World::endServer()
{
    trace("The server ends");
    m_unit.end();
    support::FakeLoop::instance().reset();
    if (m_ledger) {
        m_ledger->ended();
    }
    m_ledger.reset();
    for (Client& client : m_clients) {
        client.onWithdrawn();
    }
}

void World::settle()
{
    trace("All come to rest");
    m_weather = Weather::calm();
    if (!m_unit.isUp() || !m_swm.isUp()) {
        m_swm.start();
        endServer();
        startServer();
    }
    // Who has refused the server's connection does so no more.
    m_bri.die();
    m_bmmi.die();
    startAllButClients();
    runUntilIdle();
    if (!m_unit.isUp()) {
        startServer();
        runUntilIdle();
    }
    if (!m_ledger->isPublished()) {
        endServer(); // a refused connection to the SWM server is not asked for again
        startServer();
        runUntilIdle();
    }
    if (!m_ledger->isPublished()) {
        throw Violation("All are up and answer, and the server is not published");
    }
    for (Client& client : m_clients) {
        trace(client.connect(m_random));
        runUntilIdle();
        client.takeAll();
        if (!client.isConnected()) {
            throw Violation("All are up and answer, and a client is not connected");
        }
    }
}

void World::runUntilIdle()
{
    for (unsigned int i = 0; i < idleLimit; ++i) {
        if (m_unit.isUp() && serverHasWork()) {
            serverStep();
        } else if (m_bri.hasWork()) {
            trace(m_bri.act(m_random, m_weather));
        } else if (m_bmmi.hasWork()) {
            trace(m_bmmi.act(m_random, m_weather));
        } else if (m_swm.hasWork()) {
            trace(m_swm.act(m_random, m_weather));
        } else if (m_legacy.hasWork()) {
            trace(m_legacy.act(m_random, m_weather));
        } else {
            return;
        }
    }
    throw Violation("The unit does not come to rest");
}

void World::trace(const std::string& text)
{
    if (m_isTraced) {
        std::printf("%5u %s\n", m_steps, text.c_str());
    }
}

void World::traceServer(const Event& event, const Outcome& outcome)
{
    if (!m_isTraced) {
        return;
    }
    trace("The server handles " +
          (event.isSwmi ? support::frameToHex(event.bytes) : support::messageToHex(event.bytes)) +
          (event.isNotice ? " (notice)" : ""));
    for (const auto& line : Traces::instance().lines()) {
        std::printf("        %u: %s\n", line.level, line.text.c_str());
    }
    Traces::instance().clear();
    for (const Output& output : outcome.messages) {
        std::printf("        sends %s from %x to %x%s\n", support::messageToHex(output.bytes).c_str(),
                    output.from, output.to, output.arrives ? "" : ", who is gone");
    }
    for (const auto& frame : outcome.swmiFrames) {
        std::printf("        sends %s to the SWM server\n", support::frameToHex(frame).c_str());
    }
    if (!outcome.exception.empty()) {
        std::printf("        throws %s\n", outcome.exception.c_str());
    }
}

} // namespace sim
