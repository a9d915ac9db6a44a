/// Each allocation of the server fails once: it goes on, nothing leaks, and the next client is served.
#include "boardPeers.h"
#include "client.h"
#include "fakeBrh.h"
#include "fakeLoop.h"
#include "fakeSway.h"
#include "fakeTrace.h"
#include "ledger.h"
#include "merlowCommonData.h"
#include "merlowImpl.h"
#include "mnetMessageSubscriptionCustom.h"
#include "otherPeers.h"
#include "rowTest.h"
#include "shortage.h"
#include "unit.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using sim::Weather;
using support::FakeMnet;
namespace shortage = support::shortage;

/// Far above what a unit at rest has left to do.
constexpr int idleLimit = 20000;

/// The server and all around it. What the server does counts; its neighbours have memory.
class ShortUnit {
public:
    ShortUnit()
    {
        MnetMessageSubscriptionCustom::reset();
        FakeMnet::instance().reset();
        support::FakeLoop::instance().reset();
        support::FakeSway::instance().reset();
        support::FakeBrh::instance().reset();
        support::Traces::instance().reset();
        swm.start();
    }
    ~ShortUnit()
    {
        end();
        FakeMnet::instance().reset();
        support::Traces::instance().reset();
    }
    ShortUnit(const ShortUnit&) = delete;
    ShortUnit& operator=(const ShortUnit&) = delete;

    bool start()
    {
        sim::Outcome outcome;
        return unit.start(outcome) == MerlowImpl::SUCCESS && outcome.exception.empty();
    }
    void end()
    {
        unit.end();
        support::FakeLoop::instance().reset();
    }
    void startNeighbours()
    {
        for (sim::BoardPeer* peer :
             {static_cast<sim::BoardPeer*>(&bri), static_cast<sim::BoardPeer*>(&bmmi)}) {
            if (!peer->isUp()) {
                peer->start();
            }
        }
        if (!legacy.isUp()) {
            legacy.start();
        }
        if (!ccfi.isUp()) {
            ccfi.start();
        }
    }
    void loseNeighbours()
    {
        bri.die();
        bmmi.die();
        legacy.die();
        ccfi.die();
    }
    /// Until nobody has anything to do.
    void rest()
    {
        for (int i = 0; i < idleLimit; ++i) {
            if (unit.hasStopped()) {
                end();
            }
            if (unit.hasMessage() || unit.hasSwmiFrame()) {
                const auto outcome = unit.handle(unit.hasSwmiFrame());
                exceptions += outcome.exception.empty() ? 0 : 1;
                // Nothing but confirms that wait for the registrations.
                ASSERT_LE(FakeMnet::instance().heldMessages(), unit.data().getNumClientSessions());
            } else if (bri.hasWork()) {
                bri.act(random, weather);
            } else if (bmmi.hasWork()) {
                bmmi.act(random, weather);
            } else if (swm.hasWork()) {
                swm.act(random, weather);
            } else if (legacy.hasWork()) {
                legacy.act(random, weather);
            } else {
                return;
            }
        }
        ADD_FAILURE() << "The unit does not come to rest";
    }
    void comeUp()
    {
        ASSERT_TRUE(start());
        startNeighbours();
        rest();
    }
    void connect(sim::Client& visitor)
    {
        visitor.connect(random);
        rest();
        visitor.takeAll();
    }
    /// A client's whole visit.
    bool serves()
    {
        sim::Client visitor;
        connect(visitor);
        visitor.ask(subscribeFaults, random);
        rest();
        visitor.takeAll();
        const bool served = visitor.isConnected() && visitor.followsFaults();
        visitor.die();
        rest();
        return served;
    }

    sim::Unit unit;
    sim::BriPeer bri;
    sim::BmmiPeer bmmi;
    sim::SwmPeer swm;
    sim::LegacyPeer legacy;
    sim::CcfiPeer ccfi;
    sim::Client client;
    sim::Random random{7};
    Weather weather = Weather::calm();
    int exceptions = 0;

private:
    static constexpr unsigned int subscribeFaults = 14; ///< of the kinds of requests
};

/// `prepare` has all the memory it wants.
struct ShortageRow {
    const char* name;
    void (*prepare)(ShortUnit&);
    void (*run)(ShortUnit&);
};

void nothing(ShortUnit& /*unused*/) {}

void comeUp(ShortUnit& all)
{
    all.comeUp();
}

void comeUpWithClient(ShortUnit& all)
{
    all.comeUp();
    all.connect(all.client);
}

template <unsigned int mood, unsigned int first = 0, unsigned int count = 100> void ask(ShortUnit& all)
{
    const auto kinds = sim::Client::kindsOf(mood);
    for (unsigned int i = first; i < first + count && i < kinds.size(); ++i) {
        all.client.ask(kinds[i], all.random);
        all.rest();
        all.client.takeAll();
    }
}

constexpr ShortageRow rows[] = {
    {"start", nothing,
     [](ShortUnit& all) {
         all.start();
         all.startNeighbours();
         all.rest();
     }},
    {"connect", comeUp,
     [](ShortUnit& all) {
         all.connect(all.client);
     }},
    {"plainRequestsA", comeUpWithClient, ask<0, 0, 10>},
    {"plainRequestsB", comeUpWithClient, ask<0, 10, 10>},
    {"otherRequestsA", comeUpWithClient, ask<0, 20, 9>},
    {"otherRequestsB", comeUpWithClient, ask<0, 29, 9>},
    {"load", comeUpWithClient, ask<1>},
    {"select", comeUpWithClient, ask<2>},
    {"show", comeUpWithClient, ask<3>},
    {"measure", comeUpWithClient, ask<4>},
    {"faults",
     [](ShortUnit& all) {
         comeUpWithClient(all);
         ask<0, 14, 3>(all);
     },
     [](ShortUnit& all) {
         for (int i = 0; i < 12; ++i) {
             all.bri.act(all.random, all.weather); // with nothing to answer it raises or ceases one
             all.bmmi.act(all.random, all.weather);
             all.ccfi.act(all.random, all.weather);
             all.rest();
         }
     }},
    {"losses",
     [](ShortUnit& all) {
         comeUpWithClient(all);
         ask<3>(all);
         ask<4>(all);
     },
     [](ShortUnit& all) {
         all.client.die();
         all.rest();
         all.connect(all.client);
         all.loseNeighbours();
         all.rest();
         all.startNeighbours();
         all.rest();
         all.swm.die();
         all.rest();
     }},
    {"end", comeUpWithClient,
     [](ShortUnit& all) {
         all.unit.requestStop();
         all.rest();
         all.end();
     }},
};

class MemoryShortageTest : public ::testing::Test, public WithRow<ShortageRow> {
protected:
    /// The row's scenario, with this allocation failing. False when there is none of that number.
    static bool runOnce(std::size_t failing)
    {
        ShortUnit all;
        row().prepare(all);
        shortage::begin(failing);
        row().run(all);
        const bool failed = shortage::hasFailed();
        s_wasForeign = shortage::wasForeign();
        shortage::begin(0);
        if (failing == 0) {
            EXPECT_EQ(all.exceptions, 0);
        }
        bool served = all.unit.isUp() && all.serves();
        if (!served) { // a step of a neighbour's coming up is taken again when it comes up again
            all.loseNeighbours();
            all.rest();
            if (!all.unit.isUp() || !all.swm.isUp()) {
                all.end();
                all.swm.start();
                EXPECT_TRUE(all.start());
            }
            all.startNeighbours();
            all.rest();
            served = all.serves();
        }
        EXPECT_TRUE(served) << "No client is served";
        all.end();
        EXPECT_EQ(FakeMnet::instance().mailboxCount(FakeMnet::server), 0U);
        EXPECT_EQ(FakeMnet::instance().heldMessages(), 0U);
        return failed;
    }
    static bool s_wasForeign;
};
bool MemoryShortageTest::s_wasForeign = false;

ROW_TEST(MemoryShortageTest, eachAllocationFailsOnce)
{
    runOnce(0); // what is made once for the process is there now
    std::size_t failures = 0;
    long before = shortage::liveBlocks();
    for (std::size_t failing = 1; runOnce(failing); failing += shortage::stride) {
        ++failures;
        if (const long left = shortage::liveBlocks(); left != before && !s_wasForeign) {
            before = left; // made once for the process, or lost each time
            runOnce(failing);
            ASSERT_LE(shortage::liveBlocks(), before) << "Allocation " << failing << " leaks";
        }
        before = shortage::liveBlocks();
        ASSERT_FALSE(HasFailure()) << "Allocation " << failing;
    }
    EXPECT_GT(failures, 0U);
}

TEST_ROWS(Server, MemoryShortageTest, rows);

} // namespace
