// Temperatures of a whole unit of real processes, whose board's clock runs fast.

#include "runningUnit.h"
#include "terminal.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <deque>
#include <gtest/gtest.h>

namespace merlow::test {
namespace {

constexpr std::uint32_t startReq = 0x1659100;
constexpr std::uint32_t startCfm = 0x1659101;
constexpr std::uint32_t tempInd = 0x1659103;

std::string hex32(std::uint32_t number)
{
    char text[9];
    (void)std::snprintf(text, sizeof text, "%08x", number);
    return text;
}

class TemperatureTest : public RunningUnitTest {
protected:
    void startUnit() override
    {
        m_unit.startLegacyd();
        m_unit.startBrhd({"--clock-speed", "20"});
        m_unit.startSwmd();
        m_unit.startMerlowd();
        ASSERT_TRUE(m_unit.waitUntilItLetsClientsIn()) << m_unit.merlowd().err() << m_unit.brhd().err();
    }

    [[nodiscard]] std::size_t measurements() const
    {
        return m_unit.status("brhd").value("/bri/measurements"_json_pointer, nlohmann::json(7)).size();
    }
};

/// A client that measures every second, and what it was told.
class Measurer {
public:
    Measurer(mnet_mbox_id_t server, std::int32_t clientRef)
        : m_server(server), m_client(mnet_create_mailbox(("du" + std::to_string(clientRef)).c_str(), 0))
    {
        const auto serverRef = m_client.connect(server, clientRef, 300);
        EXPECT_TRUE(serverRef);
        m_references = hex32(static_cast<std::uint32_t>(clientRef)) +
                       hex32(static_cast<std::uint32_t>(serverRef.value_or(0)));
    }

    void start() { request("01"); }
    void stop()
    {
        request("00");
        while (const auto ind = m_client.receive(tempInd, milliseconds(0))) {
            take(*ind); // what came before the confirm
        }
    }
    void measure(std::size_t count)
    {
        while (m_readings.size() < count) {
            const auto ind = m_client.receive(tempInd);
            ASSERT_TRUE(ind) << m_readings.size() << " readings came";
            take(*ind);
        }
    }
    [[nodiscard]] bool isQuiet() { return !m_client.receive(tempInd, milliseconds(0)); }
    [[nodiscard]] const std::vector<std::string>& readings() const { return m_readings; }

private:
    void request(const std::string& period)
    {
        ASSERT_EQ(m_client.send(m_server, startReq, m_references + period), 0);
        EXPECT_EQ(m_client.receive(startCfm), m_references);
    }
    void take(const std::string& ind)
    {
        EXPECT_EQ(ind.size(), 2 * 32u);
        EXPECT_EQ(ind.substr(0, 20), m_references + "0002") << "its own, of two sensors";
        EXPECT_EQ(ind.substr(32), std::string(32, '0')) << "the other eight";
        m_readings.push_back(ind.substr(24, 8));
    }

    mnet_mbox_id_t m_server;
    Client m_client;
    std::string m_references;
    std::vector<std::string> m_readings;
};

TEST_F(TemperatureTest, fortyClientsMeasureAtOnceAndEachGetsAllOfItsReadings)
{
#if defined(MERLOW_ADDRESS_SANITIZER) || defined(MERLOW_THREAD_SANITIZER)
    constexpr std::size_t clientCount = 10; // more than these tell in a second a slow unit does not hand out
#else
    constexpr std::size_t clientCount = 40;
#endif
    constexpr std::size_t readingCount = 60;
    std::deque<Measurer> clients;
    for (std::size_t index = 0; index < clientCount; ++index) {
        clients.emplace_back(m_server, static_cast<std::int32_t>(index + 1)).start();
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_EQ(measurements(), clientCount);
    for (Measurer& client : clients) {
        client.measure(readingCount);
        ASSERT_FALSE(HasFailure());
    }
    // The first to start is the last to stop: it has seen all that the others have.
    for (auto client = clients.rbegin(); client != clients.rend(); ++client) {
        client->stop();
    }
    const auto& all = clients.front().readings();
    for (const Measurer& client : clients) {
        const auto& own = client.readings();
        EXPECT_GE(own.size(), readingCount);
        EXPECT_NE(std::search(all.begin(), all.end(), own.begin(), own.end()), all.end())
            << "one is missing, or is another's";
    }
    EXPECT_EQ(measurements(), 0u);
    EXPECT_TRUE(
        std::all_of(clients.begin(), clients.end(), [](Measurer& client) { return client.isQuiet(); }));
}

TEST_F(TemperatureTest, aClientThatGoesTakesItsMeasurementAlong)
{
    Measurer stays(m_server, 1);
    stays.start();
    {
        Measurer goes(m_server, 2);
        goes.start();
        goes.measure(1);
        EXPECT_EQ(measurements(), 2u);
    }
    EXPECT_TRUE(waitUntil([this] { return measurements() == 1; }));
    const auto soFar = stays.readings().size();
    stays.measure(soFar + 3);
}

TEST_F(TemperatureTest, theCommandPrintsReadingsUntilItIsInterrupted)
{
    ASSERT_EQ(m_unit.boardctl({"temp", "set", "board", "-12.5"}).status, 0);
    const auto counted = m_unit.bcictl({"temp", "--period", "1", "--count", "3"});
    EXPECT_EQ(counted.status, 0) << counted.err;
    EXPECT_NE(counted.out.find("Z sensor 0 -12.5, sensor 1 "), std::string::npos) << counted.out;
    EXPECT_NE(counted.out.find("\n3 readings\n"), std::string::npos) << counted.out;

    Process measuring("bcictl", {"temp", "--period", "2"}, m_unit.environment());
    EXPECT_TRUE(waitUntil([&] { return measuring.out().find("sensor 0") != std::string::npos; }));
    EXPECT_EQ(measurements(), 1u);
    measuring.signal(SIGINT);
    EXPECT_EQ(measuring.wait(), 0) << measuring.err();
    EXPECT_NE(measuring.out().find(" reading"), std::string::npos);
    EXPECT_EQ(measurements(), 0u);
    const auto refused = m_unit.bcictl({"temp", "--period", "31"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("Invalid hotSpotMeasurementPeriod: exp: 1 - 30"), std::string::npos);
}

TEST_F(TemperatureTest, onATerminalThePlotIsDrawnInPlaceAndNoWiderThanThat)
{
    if (!Terminal::areToBeHad()) {
        GTEST_SKIP() << "there are no terminals here";
    }
    ASSERT_EQ(m_unit.boardctl({"temp", "set", "board", "-12.5"}).status, 0);
    const auto plot = Terminal(20, 8).run("bcictl", {"temp", "--period", "1", "--count", "3", "--plot"},
                                          m_unit.environment());
    EXPECT_EQ(plot.status, 0) << plot.out << plot.err;
    EXPECT_NE(plot.out.find("\r\n        +----------\x1b[K\r\nsensor 0 -12.5, sen\x1b["), std::string::npos)
        << plot.out;
    EXPECT_NE(plot.out.find("\r\x1b[6A"), std::string::npos) << "seven lines, each plot over the one before";
    EXPECT_NE(plot.out.find("\r\nsensor 0 -12.5, sen\r\n3 readings\r\n"), std::string::npos) << plot.out;
    EXPECT_EQ(plot.out.find("sensor 1"), std::string::npos);
}

TEST_F(TemperatureTest, heatIsAFaultUntilItIsOver)
{
    const auto comes = [this](const char* text) {
        return waitUntil([&] { return m_unit.bcictl({"faults"}).out.find(text) != std::string::npos; });
    };
    ASSERT_EQ(m_unit.boardctl({"temp", "set", "processor", "90"}).status, 0);
    EXPECT_TRUE(comes("0x0103 EXCEPTIONAL_TEMPERATURE_TOO_HIGH, case 1"));
    ASSERT_EQ(m_unit.boardctl({"temp", "set", "processor", "83"}).status, 0);
    EXPECT_TRUE(comes("0x0103")) << "not yet back by the hysteresis";
    ASSERT_EQ(m_unit.boardctl({"temp", "unset", "processor"}).status, 0);
    EXPECT_TRUE(comes("no active faults"));
    ASSERT_EQ(m_unit.boardctl({"temp", "set", "board", "-33.1"}).status, 0);
    EXPECT_TRUE(comes("0x0104 EXCEPTIONAL_TEMPERATURE_TOO_LOW, case 0"));
}

} // namespace
} // namespace merlow::test
