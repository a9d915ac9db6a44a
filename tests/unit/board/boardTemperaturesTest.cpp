// The board's temperatures: where they come from, what their limits do, and measurements byte for byte.

#include "brhdTest.h"
#include "hwmon.h"
#include "rowTest.h"

#include <filesystem>
#include <fstream>

namespace merlow::board::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Result = ControlAnswer::Result;

/// The kernel's hwmon class as a folder of the test's own.
class HwmonFolder {
public:
    HwmonFolder()
    {
        std::string path = fs::temp_directory_path() / "merlow-hwmon.XXXXXX";
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_path = path;
    }
    ~HwmonFolder() { fs::remove_all(m_path); }
    HwmonFolder(const HwmonFolder&) = delete;
    HwmonFolder& operator=(const HwmonFolder&) = delete;

    [[nodiscard]] std::string path() const { return m_path.string(); }
    void write(const std::string& file, const std::string& text) const
    {
        fs::create_directories((m_path / file).parent_path());
        std::ofstream(m_path / file) << text << "\n";
    }
    void remove(const std::string& folder) const { fs::remove_all(m_path / folder); }
    void addChip(const std::string& folder, const std::string& name) const { write(folder + "/name", name); }
    void addSensor(const std::string& folder, int number, const std::string& label,
                   const std::string& reading) const
    {
        const std::string sensor = folder + "/temp" + std::to_string(number);
        write(sensor + "_label", label);
        write(sensor + "_input", reading);
    }

private:
    fs::path m_path;
};

TEST(HwmonTest, findsASensorByChipAndLabel)
{
    const HwmonFolder machine;
    machine.addChip("hwmon10", "coretemp");
    machine.addSensor("hwmon10", 1, "Core 0", "1000");
    machine.addChip("hwmon2", "coretemp");
    machine.addSensor("hwmon2", 10, "Core 9", "2000");
    machine.addSensor("hwmon2", 2, "Core 0", "3000");
    machine.write("hwmon2/temp1_max", "4000");
    machine.addChip("hwmon1", "fan");
    machine.write("hwmon1/fan1_input", "1200");
    machine.write("other/name", "coretemp");
    const std::string path = machine.path();
    EXPECT_EQ(findHwmonInput(path, "coretemp", "Core 0"), path + "/hwmon2/temp2_input");
    EXPECT_EQ(findHwmonInput(path, "coretemp", "Core 9"), path + "/hwmon2/temp10_input");
    EXPECT_EQ(findHwmonInput(path, "coretemp", std::nullopt), path + "/hwmon2/temp2_input");
    for (const auto& [chip, label] : {std::pair{"coretemp", "Core"}, {"core", "Core 0"}, {"fan", ""}}) {
        EXPECT_EQ(findHwmonInput(path, chip, label), "");
    }
    EXPECT_EQ(findHwmonInput(path, "fan", std::nullopt), "");
    EXPECT_EQ(findHwmonInput(path + "/none", "coretemp", std::nullopt), "");
}

TEST(HwmonTest, readsTenthsOfADegree)
{
    const HwmonFolder machine;
    const std::pair<const char*, std::optional<std::int32_t>> rows[] = {
        {"45000", 450},      {"45049", 450}, {"45050", 451},
        {"-5060", -51},      {"0", 0},       {"3276700", 32767},
        {"3276701", {}},     {"", {}},       {"x", {}},
        {"45000 C", {}},     {"4.5", {}},    {"-2147483648", {}},
        {"99999999999", {}},
    };
    for (const auto& [text, tenths] : rows) {
        machine.write("temp", text);
        EXPECT_EQ(readHwmonInput(machine.path() + "/temp"), tenths) << text;
    }
    EXPECT_EQ(readHwmonInput(machine.path() + "/none"), std::nullopt);
    EXPECT_EQ(readHwmonInput(machine.path()), std::nullopt) << "a folder";
}

/// Two places, the second one of a chip of the machine; limits -10 to 40 and 0 to 90 degrees, 2 and 5 back.
LoadedBoard twoPlaces()
{
    LoadedBoard board;
    board.description.bri.temperatureRanges = {{-100, 400, 20}, {0, 900, 50}};
    board.description.temperature.places = {{"board", {}, {}}, {"processor", "coretemp", "Package"}};
    return board;
}

class BoardSensorsTest : public testing::Test {
protected:
    BoardSensorsTest()
    {
        m_machine.addChip("hwmon0", "coretemp");
        m_machine.addSensor("hwmon0", 1, "Package", "61500");
    }

    [[nodiscard]] BoardSensors make() const { return {m_board, m_machine.path(), 1}; }
    static std::int32_t readingOf(const BoardSensors& sensors, std::size_t number)
    {
        return sensors.sensors().at(number).reading();
    }

    const HwmonFolder m_machine;
    BoardDescription m_board = twoPlaces().description;
};

TEST_F(BoardSensorsTest, theMachineMeasuresWhereItCan)
{
    auto sensors = make();
    EXPECT_EQ(readingOf(sensors, 0), 200) << "within its limits";
    EXPECT_EQ(readingOf(sensors, 1), 615);
    m_machine.write("hwmon0/temp1_input", "62000");
    sensors.sample();
    EXPECT_EQ(readingOf(sensors, 1), 620);
    EXPECT_EQ(sensors.toJson()[0]["source"], "simulated");
    EXPECT_EQ(sensors.toJson()[1]["source"], m_machine.path() + "/hwmon0/temp1_input");
}

TEST_F(BoardSensorsTest, whatCannotBeReadAnyMoreStaysUntilItsChipIsBack)
{
    auto sensors = make();
    m_machine.remove("hwmon0");
    sensors.sample();
    EXPECT_EQ(readingOf(sensors, 1), 615);
    m_machine.addChip("hwmon3", "coretemp");
    m_machine.addSensor("hwmon3", 1, "Package", "30000");
    sensors.sample();
    EXPECT_EQ(readingOf(sensors, 1), 300);
}

TEST_F(BoardSensorsTest, withoutTheMachineAllIsSimulated)
{
    m_board.temperature.simulated = true;
    EXPECT_EQ(make().toJson()[1]["source"], "simulated");
    m_board.temperature.simulated = false;
    EXPECT_EQ(BoardSensors(m_board, "", 1).toJson()[1]["source"], "simulated");
    m_machine.write("hwmon0/temp1_input", "broken");
    EXPECT_EQ(make().toJson()[1]["source"], "simulated");
}

TEST_F(BoardSensorsTest, simulatedTemperaturesWalkSlowlyWithinTheirLimits)
{
    m_board.temperature.simulated = true;
    m_board.bri.temperatureRanges.pop_back();
    auto sensors = make();
    EXPECT_EQ(readingOf(sensors, 1), 300) << "without limits";
    std::set<std::int32_t> seen;
    for (int second = 0; second < 200'000; ++second) {
        const std::int32_t before = readingOf(sensors, 0);
        sensors.sample();
        seen.insert(readingOf(sensors, 0));
        ASSERT_LE(std::abs(readingOf(sensors, 0) - before), 1);
    }
    EXPECT_GE(*seen.begin(), 50) << "30 % of the way from -100 to 400";
    EXPECT_LE(*seen.rbegin(), 300) << "80 %";
    EXPECT_GT(seen.size(), 100u) << "it does walk";
}

TEST_F(BoardSensorsTest, anOverrideStandsUntilItIsTakenBack)
{
    auto sensors = make();
    const auto ask = [&sensors](json request) {
        const auto answer = sensors.control(request);
        return std::pair{answer.result, answer.text};
    };
    const auto set = [&ask](const json& sensor, const json& tenths) {
        return ask({{"action", "set"}, {"sensor", sensor}, {"tenths", tenths}});
    };
    EXPECT_EQ(set("processor", -5), std::pair(Result::done, std::string("processor is at -0.5")));
    EXPECT_EQ(set("0", 32767), std::pair(Result::done, std::string("board is at 3276.7")));
    sensors.sample();
    EXPECT_EQ(readingOf(sensors, 0), 32767);
    EXPECT_EQ(readingOf(sensors, 1), -5);
    EXPECT_EQ(sensors.toJson()[1], (json{{"sensor", 1},
                                         {"name", "processor"},
                                         {"tenths", -5},
                                         {"source", "set"},
                                         {"lower", 0},
                                         {"upper", 900},
                                         {"hysteresis", 50}}));
    EXPECT_EQ(ask({{"action", "unset"}, {"sensor", "1"}}),
              std::pair(Result::done, std::string("processor measures again, 61.5")));
    EXPECT_EQ(readingOf(sensors, 1), 615);
    EXPECT_EQ(sensors.clearOverrides(), 1u);
    EXPECT_EQ(sensors.clearOverrides(), 0u);

    for (const auto& tenths : {json(32768), json(-32769), json("5"), json(1.5), json()}) {
        EXPECT_EQ(
            set("0", tenths),
            std::pair(Result::usage, std::string("the temperature must be from -3276.8 to 3276.7 degrees")));
    }
    for (const char* sensor : {"2", "", "Board", "-1"}) {
        EXPECT_EQ(set(sensor, 1).first, Result::notFound);
    }
    EXPECT_EQ(set("x", 1).second, "\"x\" is no sensor; there are board, processor");
    EXPECT_EQ(set(7, 1).first, Result::notFound) << "it is a text";
    EXPECT_EQ(ask({{"action", "warm"}}),
              std::pair(Result::usage, std::string("the action is none of set, unset, list")));
}

class BoardTemperaturesTest : public BrhdTest {
protected:
    BoardTemperaturesTest() : BrhdTest(simulated())
    {
        m_brhd.begin();
        receive(briMailbox, client, "0170772d 00000064 00000064 0801");
        m_outbox.takeSent();
    }

    static Brhd::Config simulated()
    {
        Brhd::Config config;
        config.board = twoPlaces();
        config.board.description.temperature.simulated = true;
        return config;
    }

    std::string ask(const std::string& text) { return BrhdTest::ask(briMailbox, text); }

    ControlAnswer set(const char* sensor, int tenths)
    {
        return serveControl(m_brhd,
                            {{"command", "temp"}, {"action", "set"}, {"sensor", sensor}, {"tenths", tenths}});
    }

    /// What the board's clock brings about in this time.
    std::vector<std::string> after(std::chrono::milliseconds time)
    {
        m_outbox.advance(time);
        std::vector<std::string> texts;
        for (const Sent& sent : m_outbox.takeSent()) {
            EXPECT_EQ(sent.from, briMailbox);
            texts.push_back((sent.to == client ? "" : hex(sent.to) + " ") + sent.text);
        }
        return texts;
    }

    json faults() const { return statusAt("/bri/faults"); }
};

// Limits

TEST_F(BoardTemperaturesTest, aTemperatureBeyondItsLimitIsAFaultUntilItIsBackByTheHysteresis)
{
    ask("01707753 00000009 00000001");
    set("board", 400);
    EXPECT_THAT(after(seconds(2)), IsEmpty()) << "at the limit";
    set("board", 401);
    EXPECT_EQ(m_outbox.takeOne(), "01707759 00000009 00000064 08051000") << "at once";
    EXPECT_EQ(faults(), json::parse(R"([{"id": 5, "name": "EXCEPTIONAL_TEMPERATURE_TOO_HIGH", "case": 0,
                                         "measured": true}])"));
    set("board", 1000);
    set("board", 381);
    EXPECT_THAT(after(seconds(2)), IsEmpty());
    set("board", 380);
    EXPECT_EQ(m_outbox.takeOne(), "0170775a 00000009 00000064 0805");
    EXPECT_THAT(faults(), IsEmpty());

    set("processor", -1);
    EXPECT_EQ(m_outbox.takeOne(), "01707759 00000009 00000064 08041001") << "too low, sensor 1";
    set("processor", 49);
    EXPECT_THAT(after(seconds(2)), IsEmpty());
    set("processor", 50);
    EXPECT_EQ(m_outbox.takeOne(), "0170775a 00000009 00000064 0804");
}

TEST_F(BoardTemperaturesTest, theFaultLastsAsLongAsAnySensorIsBeyond)
{
    ask("01707753 00000009 00000001");
    set("processor", 901);
    EXPECT_EQ(m_outbox.takeOne(), "01707759 00000009 00000064 08051001") << "too high, sensor 1";
    set("board", 500);
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
    EXPECT_EQ(faults().size(), 1u);
    EXPECT_EQ(faults()[0]["case"], 1) << "who was first";
    set("processor", 100);
    EXPECT_THAT(after(seconds(1)), testing::ElementsAre("01707759 00000009 00000064 08051000",
                                                        "0170775a 00000009 00000064 0805"))
        << "sensor 0 still is; the first of two ceases";
    EXPECT_EQ(faults().size(), 1u);
    EXPECT_EQ(faults()[0]["case"], 0);
    set("board", 100);
    EXPECT_EQ(m_outbox.takeOne(), "0170775a 00000009 00000064 0805");
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(BoardTemperaturesTest, aSensorThatNeverWentBeyondHoldsNoFault)
{
    set("processor", 890); // below its limit by less than its hysteresis
    set("board", 500);
    ASSERT_EQ(faults().size(), 1u);
    set("board", 100);
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(BoardTemperaturesTest, whatATestEngineerRaisedIsHisToCease)
{
    const auto fault = [this](const char* action) {
        return serveControl(m_brhd, {{"command", "fault"}, {"action", action}, {"id", "5"}, {"case", 7}})
            .result;
    };
    EXPECT_EQ(fault("raise"), Result::done);
    after(seconds(2));
    EXPECT_EQ(faults().size(), 1u) << "it is not hot, and the fault stays";
    set("board", 500);
    EXPECT_EQ(faults().size(), 2u);
    set("board", 100);
    ASSERT_EQ(faults().size(), 1u);
    EXPECT_EQ(faults()[0]["case"], 7);
    EXPECT_EQ(fault("cease"), Result::done);

    set("board", 500);
    EXPECT_EQ(fault("cease"), Result::done);
    EXPECT_THAT(faults(), IsEmpty());
    after(seconds(1));
    EXPECT_EQ(faults().size(), 1u) << "it is still hot";
}

TEST_F(BoardTemperaturesTest, aMeasuredFaultOutlivesBrhdAndCeasesWhenItIsOver)
{
    ask("01707753 00000009 00000001");
    set("board", 500);
    m_outbox.takeSent();
    Brhd next(
        simulated(), [] { return 0; }, {m_store, m_restartStore, m_carriedOutStore, SqliteDatabase::inMemory},
        m_outbox);
    next.attach("BriServer", briMailbox);
    next.begin();
    EXPECT_THAT(next.status()["bri"]["faults"], IsEmpty()) << "the override went with the process";
    const HeapMessage connect(messageFrom("0170772d 00000064 00000064 0801"));
    const HeapMessage subscribe(messageFrom("01707753 0000000a 00000001"));
    next.receive({client, briMailbox, connect.bytes()});
    m_outbox.takeSent();
    next.receive({client, briMailbox, subscribe.bytes()});
    const auto sent = m_outbox.takeSent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].text, "0170775a 0000000a 00000064 0805");
}

TEST_F(BoardTemperaturesTest, tooManyFaultsPutItOff)
{
    for (std::size_t count = 0; count < BoardFaults::maxActive; ++count) {
        serveControl(m_brhd, {{"command", "fault"}, {"action", "raise"}, {"id", "0"}});
    }
    set("board", 500);
    EXPECT_EQ(faults().size(), BoardFaults::maxActive);
    serveControl(m_brhd, {{"command", "fault"}, {"action", "cease"}, {"id", "0"}});
    after(seconds(1));
    EXPECT_EQ(faults().back()["id"], 5);
}

// Control

TEST_F(BoardTemperaturesTest, clearingTakesOverridesBack)
{
    set("board", 500);
    EXPECT_EQ(serveControl(m_brhd, {{"command", "clear"}}).text,
              "brhd cleared 0 plans and 1 set temperature");
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_EQ(serveControl(m_brhd, {{"command", "clear"}}).text, "brhd cleared 0 plans");
    EXPECT_EQ(serveControl(m_brhd, {{"command", "temp"}, {"action", "list"}}).data,
              statusAt("/bri/temperatures"));
}

// Measurements

TEST_F(BoardTemperaturesTest, aMeasurementTellsAllSensorsOnceInItsPeriod)
{
    set("board", -10);
    set("processor", 200);
    EXPECT_EQ(ask("01707742 00000007 00000001 0802"), "01707743 00000007 00000064 0801");
    const std::string ind = "01707748 00000007 00000064 08f6ffffffffffffffff0108c801";
    EXPECT_THAT(after(seconds(1)), IsEmpty());
    EXPECT_THAT(after(seconds(1)), ElementsAre(textOf(messageFrom(ind))));
    EXPECT_THAT(after(seconds(4)), testing::SizeIs(2));
    EXPECT_EQ(statusAt("/bri/measurements"),
              json::parse(R"([{"ref": 1, "connectionRef": 1, "procedureRef": 7, "period": 2}])"));

    EXPECT_EQ(ask("0170776a 00000008 00000001 08011001"), "0170776b 00000008 00000064");
    EXPECT_THAT(after(seconds(1)), ElementsAre(textOf(messageFrom(ind)))) << "the start's reference stays";

    EXPECT_EQ(ask("01707745 00000009 00000001 0801"), "01707746 00000009 00000064");
    EXPECT_THAT(after(seconds(60)), IsEmpty());
    EXPECT_THAT(statusAt("/bri/measurements"), IsEmpty());
}

TEST_F(BoardTemperaturesTest, eachMeasurementHasItsOwnPeriodAndReference)
{
    receive(briMailbox, stranger, "0170772d 00000065 00000065 0801");
    m_outbox.takeSent();
    set("board", 200);
    set("processor", 540);
    EXPECT_EQ(ask("01707742 00000007 00000001 0801"), "01707743 00000007 00000064 0801");
    EXPECT_EQ(ask("01707742 00000008 00000001 081e"), "01707743 00000008 00000064 0802");
    receive(briMailbox, stranger, "01707742 00000007 00000002 080a");
    EXPECT_EQ(m_outbox.takeOne(), "01707743 00000007 00000065 0803");
    std::map<std::string, int> counts; // by what comes before the readings
    for (const std::string& text : after(seconds(60))) {
        ++counts[text.substr(0, text.size() - std::string(" 08c80108 9c04").size())];
    }
    EXPECT_THAT(counts, ElementsAre(std::pair("01707748 00000007 00000064", 60),
                                    std::pair("01707748 00000008 00000064", 2),
                                    std::pair("0x30 01707748 00000007 00000065", 6)));
}

struct MeasurementRejectRow {
    const char* name;
    const char* request;
    const char* answer;
};

class MeasurementRejectTest : public BoardTemperaturesTest, public WithRow<MeasurementRejectRow> {};

ROW_TEST(MeasurementRejectTest, namesItsCauseAndChangesNothing)
{
    receive(briMailbox, stranger, "0170772d 00000065 00000065 0801");
    receive(briMailbox, stranger, "01707742 00000007 00000002 080a"); // reference 1, not the client's
    m_outbox.takeSent();
    EXPECT_EQ(ask("01707742 00000007 00000001 0802"), "01707743 00000007 00000064 0802");
    const json before = statusAt("/bri/measurements");
    EXPECT_EQ(ask(row().request), row().answer);
    EXPECT_EQ(statusAt("/bri/measurements"), before);
}

const MeasurementRejectRow measurementRejectRows[] = {
    {"startWithPeriod0", "01707742 00000007 00000001 0800", "01707744 00000007 00000064 0800"},
    {"startWithPeriod31", "01707742 00000007 00000001 081f", "01707744 00000007 00000064 0800"},
    {"startWithoutPeriod", "01707742 00000007 00000001", "01707744 00000007 00000064 0800"},
    {"restartWithPeriod0", "0170776a 00000007 00000001 08021000", "0170776c 00000007 00000064 0800"},
    {"restartWithPeriod255", "0170776a 00000007 00000001 080210ff01", "0170776c 00000007 00000064 0800"},
    {"restartOfNothing", "0170776a 00000007 00000001 08031005", "0170776c 00000007 00000064 0802"},
    {"restartOfAStrangers", "0170776a 00000007 00000001 08011005", "0170776c 00000007 00000064 0802"},
    {"restartWithoutReference", "0170776a 00000007 00000001 1005", "0170776c 00000007 00000064 0802"},
    {"stopOfNothing", "01707745 00000007 00000001 0803", "01707747 00000007 00000064 0800"},
    {"stopOfAStrangers", "01707745 00000007 00000001 0801", "01707747 00000007 00000064 0800"},
    {"stopWithoutReference", "01707745 00000007 00000001", "01707747 00000007 00000064 0800"}};
TEST_ROWS(Causes, MeasurementRejectTest, measurementRejectRows);

TEST_F(BoardTemperaturesTest, oneConnectionHasOnlySoManyMeasurements)
{
    for (std::size_t count = 0; count < RefTable<int>::maxPerConnection; ++count) {
        ask("01707742 00000007 00000001 081e");
    }
    EXPECT_EQ(ask("01707742 00000007 00000001 081e"), "01707744 00000007 00000064 0801");
}

TEST_F(BoardTemperaturesTest, measurementsEndWithTheirConnection)
{
    ask("01707742 00000007 00000001 0801");
    m_brhd.mailboxGone(client);
    EXPECT_THAT(after(seconds(2)), IsEmpty());
    EXPECT_THAT(statusAt("/bri/measurements"), IsEmpty());
}

TEST_F(BoardTemperaturesTest, aClockThatStopsIsTold)
{
    m_outbox.canDelay = false;
    m_outbox.advance(seconds(1));
    ASSERT_FALSE(m_outbox.logged.empty());
    EXPECT_THAT(m_outbox.logged.back().second, HasSubstr("the board's clock has stopped"));
}

} // namespace
} // namespace merlow::board::test
