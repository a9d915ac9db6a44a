// bcictl's temperatures against a unit with fixed answers: signals as bytes, what is told as text.

#include "bcictlFixture.h"

#include "temperatures.h"

namespace merlow::bcictl {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/// Readings for the references 1 and 301, each four digits.
FakeUnit::Reply measured(const std::string& count, const std::string& readings)
{
    return {0x1659103, padded(references + count + "eeee" + readings, 32)};
}

const FakeUnit::Reply measureCfm{0x1659101, references};
const FakeUnit::Reply measureRej{0x1659102, padded(references + "0001 0000 4e6f", 124)}; // errorCode 1, "No"
const FakeUnit::Reply twoSensors = measured("0002", "00d7 ffce");
const FakeUnit::Reply oneSensor = measured("0001", "00d8");
const FakeUnit::Reply nextTime{FakeUnit::nextTime, ""};
const FakeUnit::Reply interrupt{FakeUnit::interrupt, ""};

constexpr std::uint32_t measureReq = 0x1659100;

class TemperatureCommandTest : public BcictlTest {};

TEST_F(TemperatureCommandTest, printsEachReadingAndStopsAfterSoMany)
{
    startUnit(
        {{measureReq, {measureCfm, twoSensors, oneSensor, oneSensor, nextTime, oneSensor, measureCfm}}});
    EXPECT_EQ(run({"temp", "--period", "2", "--count", "2"}), 0) << m_err.str();
    const std::string time = "20[0-9-]+T[0-9:.]+Z ";
    EXPECT_THAT(m_out.str(),
                MatchesRegex(time + "sensor 0 21\\.5, sensor 1 -5\\.0, clientRef 1, serverRef 301\n" + time +
                             "sensor 0 21\\.6, clientRef 1, serverRef 301\n2 readings\n"));
    EXPECT_EQ(m_unit->received(measureReq), "000000010000012d00") << "the stop";
}

TEST_F(TemperatureCommandTest, stopsOnCtrlC)
{
    startUnit({{measureReq, {measureCfm, oneSensor, interrupt, nextTime, measureCfm}}});
    EXPECT_EQ(run({"temp", "--period", "30"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), EndsWith("serverRef 301\n1 reading\n"));
    EXPECT_EQ(m_unit->received(measureReq), "000000010000012d00");
}

TEST_F(TemperatureCommandTest, sendsThePeriodAsItIs)
{
    startUnit({{measureReq, {measureRej}}});
    for (const auto& [period, byte] : {std::pair{"0", "00"}, {"1", "01"}, {"31", "1f"}, {"255", "ff"}}) {
        EXPECT_EQ(run({"temp", "--period", period}), 1);
        EXPECT_EQ(m_unit->received(measureReq), std::string("000000010000012d") + byte);
        EXPECT_THAT(m_err.str(), HasSubstr("errorCode 1: No"));
    }
}

TEST_F(TemperatureCommandTest, jsonIsAnObjectForEachReadingAndOneForTheEnd)
{
    startUnit({{measureReq, {measureCfm, twoSensors, nextTime, measureCfm}}});
    EXPECT_EQ(run({"--json", "temp", "--period", "1", "--count", "1", "--plot"}), 0) << m_err.str();
    std::istringstream lines(m_out.str());
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    const auto reading = nlohmann::json::parse(line);
    EXPECT_EQ(reading["event"], "temperatures");
    EXPECT_EQ(reading["sensors"],
              nlohmann::json::parse(R"([{"sensor": 0, "celsius": 21.5}, {"sensor": 1, "celsius": -5.0}])"));
    EXPECT_EQ(reading["serverRef"], 301);
    ASSERT_TRUE(std::getline(lines, line));
    const auto end = nlohmann::json::parse(line);
    EXPECT_EQ(end["command"], "temp");
    EXPECT_EQ(end["status"], "done");
    EXPECT_EQ(end["readings"], 1);
    EXPECT_EQ(end["period"], 1);
    EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(TemperatureCommandTest, aPlotThatIsForNoTerminalIsRows)
{
    startUnit({{measureReq, {measureCfm, oneSensor, nextTime, measureCfm}}});
    EXPECT_EQ(run({"temp", "--period", "1", "--count", "1", "--plot"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr("Z sensor 0 21.6, clientRef 1"));
    EXPECT_THAT(m_out.str(), Not(HasSubstr("\x1b")));
}

TEST_F(TemperatureCommandTest, otherIndicationsAreToldBesides)
{
    startUnit({{measureReq, {measureCfm, {0x1658FFE, references}, oneSensor, nextTime, measureCfm}}});
    EXPECT_EQ(run({"temp", "--period", "1", "--count", "1"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), testing::StartsWith("indication 0x1658ffe, 12 bytes"));
}

TEST_F(TemperatureCommandTest, aStopThatIsRefusedIsTold)
{
    startUnit({{measureReq, {measureCfm, oneSensor, nextTime, measureRej}}});
    EXPECT_EQ(run({"temp", "--period", "1", "--count", "1"}), 1);
    EXPECT_THAT(m_err.str(), HasSubstr("bcictl: temp: "));
    EXPECT_THAT(m_err.str(), HasSubstr("errorCode 1: No"));
}

TEST_F(TemperatureCommandTest, readingsThatDoNotComeAreNoAnswer)
{
    startUnit({{measureReq, {measureCfm}}});
    EXPECT_EQ(run({"temp", "--period", "0", "--timeout", "0.05"}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("no reading came in time"));
}

TEST_F(TemperatureCommandTest, aUnitThatGoesIsTold)
{
    startUnit({{measureReq, {measureCfm, oneSensor, {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"temp", "--period", "30"}), 4);
    EXPECT_THAT(m_err.str(), HasSubstr("the unit went away"));
}

TEST_F(TemperatureCommandTest, wrongWordsAreToldWithoutAUnit)
{
    for (const auto& words :
         std::vector<std::vector<const char*>>{{"temp"},
                                               {"temp", "--period", "256"},
                                               {"temp", "--period", "-1"},
                                               {"temp", "--period", "x"},
                                               {"temp", "--period", "1", "--count", "0"}}) {
        EXPECT_EQ(run(words), 2);
        EXPECT_THAT(m_err.str(), HasSubstr("bcictl"));
    }
}

class TemperatureSessionTest : public SessionTest {};

TEST_F(TemperatureSessionTest, goesOnWhileReadingsCome)
{
    startUnit({{measureReq, {measureCfm, oneSensor, nextTime, measureCfm}},
               {0x1658400, {{0x1658401, references + "0000 0000"}}}});
    EXPECT_EQ(session("temp --period 3\naudit\ntemp --period 0\ntemp --period 1 --count 2\nquit\n"),
              tools::ExitStatus::done);
    EXPECT_THAT(m_out.str(), HasSubstr("measuring every 3 s\n"));
    EXPECT_THAT(m_out.str(), HasSubstr("Z sensor 0 21.6, clientRef 1, serverRef 301\n"));
    EXPECT_THAT(m_out.str(), EndsWith("stopped measuring\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("--count and --plot are not for a session"));
    EXPECT_EQ(m_unit->received(measureReq), "000000010000012d00");
}

// What is drawn

Temperatures reading(std::initializer_list<int> tenths)
{
    Temperatures temperatures{{1, 301}, {}};
    for (const int value : tenths) {
        temperatures.tenths.push_back(static_cast<std::int16_t>(value));
    }
    return temperatures;
}

TEST(TemperaturePlotTest, drawsALineForEachSensor)
{
    TemperaturePlot plot(15, 7);
    EXPECT_EQ(plot.text(), "    1.0 |\n"
                           "        |\n"
                           "        |\n"
                           "        |\n"
                           "    0.0 |\n"
                           "        +------\n");
    for (const int tenths : {100, 110, 120, 140, 100}) {
        plot.add(reading({tenths, 100}));
    }
    EXPECT_EQ(plot.text(), "   14.0 |   0\n"
                           "        |   00\n"
                           "        |  0 0\n"
                           "        | 0  0\n"
                           "   10.0 |11111\n"
                           "        +------\n"
                           "sensor 0 10.0, ")
        << "no wider than the rest";
}

TEST(TemperaturePlotTest, showsTheYoungestAndAtLeastADegree)
{
    TemperaturePlot plot(12, 5);
    for (const int tenths : {-32768, 32767, -5, -5, -4}) {
        plot.add(reading({tenths}));
    }
    EXPECT_EQ(plot.text(), "    0.5 |\n"
                           "        |\n"
                           "   -0.5 |000\n"
                           "        +---\n"
                           "sensor 0 -0.");
    plot.add(reading({}));
    plot.add(reading({-32768, 32767}));
    EXPECT_EQ(plot.text(), " 3276.7 |  1\n"
                           "        |0\n"
                           "-3276.8 |  0\n"
                           "        +---\n"
                           "sensor 0 -32");
}

TEST(TemperaturePlotTest, anyTerminalIsLargeEnough)
{
    TemperaturePlot plot(0, 0);
    plot.add(reading({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_THAT(plot.text(), HasSubstr("        +--\n"));
}

TEST(TemperaturePlotTest, tellsTheLastReadingsWholeWhereThereIsRoom)
{
    TemperaturePlot plot(28, 5);
    plot.add(reading({100, 100}));
    EXPECT_THAT(plot.text(), EndsWith("-\nsensor 0 10.0, sensor 1 10.0"));
}

TEST(TransientTest, severalLinesAreDrawnInPlace)
{
    std::ostringstream out;
    std::ostringstream err;
    Output terminal(out, err, {.program = "p", .terminal = true});
    terminal.transient("a\nb\nc");
    EXPECT_EQ(out.str(), "\ra\x1b[K\nb\x1b[K\nc\x1b[K");
    out.str("");
    terminal.transient("d\ne");
    EXPECT_EQ(out.str(), "\r\x1b[2Ad\x1b[K\ne\x1b[J");
    out.str("");
    terminal.event("x", "y", {});
    EXPECT_EQ(out.str(), "\r\x1b[1A\x1b[Jy\n");
    out.str("");
    terminal.transient("f");
    EXPECT_EQ(out.str(), "\rf\x1b[K");
}

} // namespace
} // namespace merlow::bcictl
