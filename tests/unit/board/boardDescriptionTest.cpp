#include "boardDescription.h"
#include "rowTest.h"

#include "loadModule.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/stat.h>

namespace merlow::board::test {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const std::string& file)
{
    std::ostringstream content;
    content << std::ifstream(file).rdbuf();
    return content.str();
}

/// A file that has what every file must, and this.
LoadedBoard withKeys(const std::string& keys)
{
    return parseBoardDescription("{\"capabilities\": [3]," + keys + "}", "b.json");
}

/// A preinstalled module whose number and revision have so many characters.
std::string withModule(std::size_t number, std::size_t revision)
{
    return "\"store\": {\"preinstalled\": {\"number\": \"" + std::string(number, '1') +
           "\", \"revision\": \"" + std::string(revision, 'R') + "\"}}";
}

TEST(BoardDescriptionTest, theExampleIsTheBuiltInBoard)
{
    const auto example = parseBoardDescription(contentOf(MERLOW_BOARD_EXAMPLE), "the example");
    EXPECT_EQ(example.error, "");
    EXPECT_EQ(example.description, BoardDescription());
    EXPECT_EQ(nlohmann::json::parse(contentOf(MERLOW_BOARD_EXAMPLE)), toJson(BoardDescription()))
        << "the example has every key";
}

TEST(BoardDescriptionTest, whatIsLeftOutIsBuiltIn)
{
    const auto board = parseBoardDescription(R"({"capabilities": [3, 24, 26, 28, 35, 36]})", "b.json");
    EXPECT_EQ(board.error, "");
    EXPECT_EQ(board.description, BoardDescription());
    const auto partly = withKeys(R"("product": {"name": "KPX 1"}, "restart": {"noticeMs": 0})").description;
    EXPECT_EQ(partly.product.name, "KPX 1");
    EXPECT_EQ(partly.product.number, ProductData().number);
    EXPECT_EQ(partly.restart.noticeMs, 0u);
    EXPECT_EQ(partly.restart.ranks, RestartDescription().ranks);
}

TEST(BoardDescriptionTest, everyKeyCounts)
{
    const std::string text = R"({
        "product": {"productionDate": "d", "name": "n", "number": "p", "revision": "r", "manufacturer": "m",
                    "serialNumber": "s", "extendedMarketName": null},
        "container": {"productionDate": "D", "name": "N", "number": "P", "revision": "R",
                      "manufacturer": "M", "serialNumber": ""},
        "capabilities": [65535, 0], "capabilityText": "",
        "bri": {"capabilities": ["EVENT_HISTORY", "UTC_TIME"],
                "temperatureRanges": [{"lower": -32768, "upper": 32767, "hysteresis": 1},
                                      {"lower": 2, "upper": 7, "hysteresis": 5},
                                      {"lower": 2, "upper": 2, "hysteresis": 0}],
                "hotspots": [{"sensor": 1, "threshold": 2, "hysteresis": 3}]},
        "bmmi": {"capabilities": ["HERE_I_AM"], "hereIAmMs": 86400000,
                 "leds": [{"lamp": "supportUnit", "colour": "red", "led": "fault:red"},
                          {"lamp": "group0", "led": "a b"}]},
        "restart": {"ranks": [5, 1], "noticeMs": 600000},
        "temperature": {"sensors": "simulated",
                        "places": [{"name": "n", "chip": "c", "label": null},
                                   {"name": "N", "chip": "C", "label": "L"}]},
        "hardwareLog": {"budgetBytes": 65536, "budgetBytesOf": {"2": 1, "999": 9, "0": 8}},
        "store": {"slots": 64, "blockBytes": 262000, "moduleBytes": 4294967295, "preinstalled": null}})";
    BoardDescription expected;
    expected.product = {"d", "n", "p", "r", "m", "s", std::nullopt};
    expected.container = {"D", "N", "P", "R", "M", ""};
    expected.capabilities = {65535, 0};
    expected.capabilityText = "";
    expected.bri = {{12, 0}, {{-32768, 32767, 1}, {2, 7, 5}, {2, 2, 0}}, {{1, 2, 3}}};
    expected.bmmi = {false, true, false, 86400000, {{4, "red", "fault:red"}, {0, std::nullopt, "a b"}}};
    expected.restart = {{5, 1}, 600000};
    expected.temperature = {true, {{"n", "c", std::nullopt}, {"N", "C", "L"}}};
    expected.hardwareLog = {65536, {{0, 8}, {2, 1}, {999, 9}}};
    expected.store = {64, 262000, 4294967295U, std::nullopt};
    const auto board = parseBoardDescription(text, "b.json");
    EXPECT_EQ(board.error, "");
    EXPECT_EQ(board.description, expected) << toJson(board.description).dump(2);
    EXPECT_EQ(toJson(board.description), nlohmann::json::parse(text));
    EXPECT_EQ(board.description.hardwareLog.budgetOf(2), 1u);
    EXPECT_EQ(board.description.hardwareLog.budgetOf(3), 65536u);
}

struct BoardMistakeRow {
    std::string text;
    std::string error;
};

std::ostream& operator<<(std::ostream& out, const BoardMistakeRow& row)
{
    return out << row.text;
}

class BoardMistakeTest : public testing::Test, public WithRow<BoardMistakeRow> {};

ROW_TEST(BoardMistakeTest, isToldWithLineKeyAndReason)
{
    const auto board = parseBoardDescription(row().text, "b.json");
    EXPECT_EQ(board.error, "b.json:" + row().error);
    EXPECT_EQ(board.description, BoardDescription());
}

const std::string someCapabilities = "\"capabilities\": [3]";

/// The row of a mistake in the third line of a file.
BoardMistakeRow inLine3(const std::string& keys, const std::string& error)
{
    return {"{\n" + someCapabilities + ",\n" + keys + "\n}", "3: " + error};
}

const BoardMistakeRow syntaxBoardMistakeRows[] = {
    {"", "1: syntax error while parsing value - unexpected end of input; expected '[', "
         "'{', or a literal"},
    {"{\n" + someCapabilities + "\n",
     "2: capabilities: syntax error while parsing object - unexpected end of input; "
     "expected '}'"},
    {"{\n\"restart\": {\n\"ranks\": [1,\n2 3]}}",
     "4: restart.ranks[2]: syntax error while parsing array - unexpected number literal; "
     "expected ']'"},
    {"{\n" + someCapabilities + ",\n}",
     "3: capabilities: syntax error while parsing object key - unexpected '}'; expected "
     "string literal"},
    {"{} x", "1: syntax error while parsing value - invalid literal; last read: '{} x'; "
             "expected end of input"},
    {"{\n\"capabilityText\": \"\xff\"}",
     "2: capabilityText: syntax error while parsing value - invalid string: ill-formed "
     "UTF-8 byte; last read: '\"\xff'"},
    {"[\n[[[[[[[[]]]]]]]]]", "2: [0][0][0][0][0][0][0][0]: is nested too deep"},
    {"[]", "1: must be an object, not a list"},
    {"7\n", "1: must be an object, not 7"}};
TEST_ROWS(Syntax, BoardMistakeTest, syntaxBoardMistakeRows);

const BoardMistakeRow keysBoardMistakeRows[] = {
    {"\n{}", "2: capabilities: is missing"},
    inLine3(R"("colour": "red")",
            "colour: is no known key; there are product, container, capabilities, capabilityText, bri, "
            "bmmi, restart, temperature, hardwareLog, store"),
    inLine3(R"("restart": {"rank": [1]})", "restart.rank: is no known key; there are ranks, noticeMs"),
    inLine3(R"("bmmi": {}, "product": {"Name": "x"})",
            "product.Name: is no known key; there are productionDate, name, number, revision, "
            "manufacturer, serialNumber, extendedMarketName"),
    inLine3(R"("container": {"extendedMarketName": "x"})",
            "container.extendedMarketName: is no known key; there are productionDate, name, number, "
            "revision, manufacturer, serialNumber"),
    inLine3(R"("capabilities": [4])", "capabilities: is there twice, first in line 2"),
    inLine3(R"("bri": {"hotspots": [{"sensor": 1, "threshold": 2}]})",
            "bri.hotspots[0].hysteresis: is missing"),
    inLine3(R"("bri": {"hotspots": [{"sensor": 1, "threshold": 2, "hysteresis": 3, "x": 4}]})",
            "bri.hotspots[0].x: is no known key; there are sensor, threshold, hysteresis"),
    inLine3(R"("bmmi": {"leds": [{"lamp": "group1"}]})", "bmmi.leds[0].led: is missing"),
    inLine3(R"("bmmi": {"leds": [{"led": "a"}]})", "bmmi.leds[0].lamp: is missing"),
    inLine3(R"("bmmi": {"leds": [{"lamp": "group1", "led": "a", "x": 1}]})",
            "bmmi.leds[0].x: is no known key; there are lamp, colour, led"),
    inLine3(R"("store": {"preinstalled": {"number": "A"}})", "store.preinstalled.revision: is missing"),
    inLine3(R"("hardwareLog": {"budgetBytesOf": {"1000": 5}})",
            "hardwareLog.budgetBytesOf.1000: is no number of a log, \"0\" to \"999\""),
    inLine3(R"("hardwareLog": {"budgetBytesOf": {"0x2": 5}})",
            "hardwareLog.budgetBytesOf.0x2: is no number of a log, \"0\" to \"999\""),
    inLine3(R"("hardwareLog": {"budgetBytesOf": {"": 5}})",
            "hardwareLog.budgetBytesOf.: is no number of a log, \"0\" to \"999\"")};
TEST_ROWS(Keys, BoardMistakeTest, keysBoardMistakeRows);

const BoardMistakeRow typesBoardMistakeRows[] = {
    inLine3(R"("product": [])", "product: must be an object, not a list"),
    inLine3(R"("product": {"name": 5})", "product.name: must be a text, not 5"),
    inLine3(R"("capabilityText": null)", "capabilityText: must be a text, not null"),
    inLine3(R"("bri": {"capabilities": {}})", "bri.capabilities: must be a list, not an object"),
    inLine3(R"("bri": {"hotspots": [5]})", "bri.hotspots[0]: must be an object, not 5"),
    inLine3(R"("bmmi": {"capabilities": [true]})", "bmmi.capabilities[0]: must be a text, not true"),
    inLine3(R"("restart": {"noticeMs": "1000"})",
            "restart.noticeMs: must be a whole number from 0 to 600000, not \"1000\""),
    inLine3(R"("store": {"slots": 4.5})", "store.slots: must be a whole number from 1 to 64, not 4.5"),
    inLine3(R"("store": {"preinstalled": "A_R1"})", "store.preinstalled: must be an object, not \"A_R1\""),
    inLine3(R"("hardwareLog": {"budgetBytesOf": [1]})",
            "hardwareLog.budgetBytesOf: must be an object, not a list"),
    {"{\"capabilities\": [\n3,\n\"a\\n" + std::string(60, 'b') + "\"]}",
     "3: capabilities[1]: must be a whole number from 0 to 65535, not \"a\\n" + std::string(36, 'b') +
         "..."}};
TEST_ROWS(Types, BoardMistakeTest, typesBoardMistakeRows);

const BoardMistakeRow rangesBoardMistakeRows[] = {
    {"{\"capabilities\": [3,\n-1\n]}", "2: capabilities[1]: must be a whole number from 0 to 65535, not -1"},
    {"{\"capabilities\": [65536]}", "1: capabilities[0]: must be a whole number from 0 to 65535, not 65536"},
    inLine3(R"("restart": {"noticeMs": 600001})",
            "restart.noticeMs: must be a whole number from 0 to 600000, not 600001"),
    inLine3(R"("restart": {"noticeMs": 18446744073709551615})",
            "restart.noticeMs: must be a whole number from 0 to 600000, not 18446744073709551615"),
    inLine3(R"("restart": {"ranks": [0]})", "restart.ranks[0]: must be a whole number from 1 to 5, not 0"),
    inLine3(R"("restart": {"ranks": [1, 6]})", "restart.ranks[1]: must be a whole number from 1 to 5, not 6"),
    inLine3(R"("restart": {"ranks": [1, 2, 1]})", "restart.ranks[2]: 1 is there twice"),
    inLine3(R"("restart": {"ranks": [1, 2, 3, 4, 5, 1]})",
            "restart.ranks: has 6 entries, at most 5 are possible"),
    inLine3(R"("bri": {"hotspots": [{"sensor": 32768, "threshold": 2, "hysteresis": 3}]})",
            "bri.hotspots[0].sensor: must be a whole number from -32768 to 32767, not 32768"),
    inLine3(R"("bri": {"temperatureRanges": [{"lower": -32769, "upper": 2, "hysteresis": 3}]})",
            "bri.temperatureRanges[0].lower: must be a whole number from -32768 to 32767, not -32769"),
    inLine3(R"("bri": {"temperatureRanges": [{"lower": 1, "upper": 2, "hysteresis": -1}]})",
            "bri.temperatureRanges[0].hysteresis: must be a whole number from 0 to 32767, not -1"),
    inLine3(R"("bri": {"hotspots": [{"sensor": 1, "threshold": 2, "hysteresis": -1}]})",
            "bri.hotspots[0].hysteresis: must be a whole number from 0 to 32767, not -1"),
    inLine3(R"("bri": {"temperatureRanges": [{"lower": -5, "upper": 10, "hysteresis": 16}]})",
            "bri.temperatureRanges[0].hysteresis: 16 is wider than from the lower limit to the upper, 15"),
    inLine3(R"("bri": {"temperatureRanges": [{"lower": 3, "upper": 2, "hysteresis": 0}]})",
            "bri.temperatureRanges[0].upper: is below the lower limit"),
    inLine3(R"("bri": {"capabilities": ["UTC_TIME", "HWLOG"]})",
            "bri.capabilities[1]: \"HWLOG\" is no capability; there are UTC_TIME, HW_LOG, "
            "PRODUCT_INVENTORY, CONTAINER_PID, INTEGRATED_HW_CATEGORY_1, MARKET_PID, "
            "EXTENDED_MARKET_PID, NOTIFY_RESTART, TEMPERATURE_LEVEL_MEASUREMENT, CLIMATE_CONTROL, "
            "RESTART_NOTIFICATION, RESTART_RANK_LABEL, EVENT_HISTORY"),
    inLine3(R"("bri": {"capabilities": ["HW_LOG", "HW_LOG"]})",
            "bri.capabilities[1]: \"HW_LOG\" is there twice"),
    inLine3(R"("bmmi": {"capabilities": ["HereIAm"]})",
            "bmmi.capabilities[0]: \"HereIAm\" is no capability; there are "
            "SUPPORT_UNIT_FAULT_INDICATOR, HERE_I_AM, COMMON_MMI"),
    inLine3(R"("bmmi": {"capabilities": ["HERE_I_AM", "HERE_I_AM"]})",
            "bmmi.capabilities[1]: \"HERE_I_AM\" is there twice"),
    inLine3(R"("temperature": {"sensors": "real"})",
            "temperature.sensors: must be \"machine\" or \"simulated\", not \"real\""),
    inLine3(R"("temperature": {"places": [{"chip": "c"}]})", "temperature.places[0].name: is missing"),
    inLine3(R"("temperature": {"places": [{"name": ""}]})",
            "temperature.places[0].name: must be a text that is no number"),
    inLine3(R"("temperature": {"places": [{"name": "7"}]})",
            "temperature.places[0].name: must be a text that is no number"),
    inLine3(R"("temperature": {"places": [{"name": "a", "label": "l"}]})",
            "temperature.places[0]: has a label and no chip that it is of"),
    inLine3(R"("temperature": {"places": [{"name": "a"}, {"name": "a", "chip": "c"}]})",
            "temperature.places[1]: \"a\" is there twice"),
    inLine3(R"("temperature": {"places": [{"name": "a", "place": "b"}]})",
            "temperature.places[0].place: is no known key; there are name, chip, label"),
    inLine3(R"("temperature": {"places": [{"name": "a", "chip": 7}]})",
            "temperature.places[0].chip: must be a text, not 7"),
    inLine3(R"("bmmi": {"hereIAmMs": 0})",
            "bmmi.hereIAmMs: must be a whole number from 1 to 86400000, not 0"),
    inLine3(R"("bmmi": {"hereIAmMs": 86400001})",
            "bmmi.hereIAmMs: must be a whole number from 1 to 86400000, not 86400001"),
    inLine3(R"("bmmi": {"leds": [{"lamp": "group2", "led": "a"}]})",
            "bmmi.leds[0].lamp: \"group2\" is no lamp; there are group0, group1, group3, group4, "
            "supportUnit"),
    inLine3(R"("bmmi": {"leds": [{"lamp": "group1", "colour": "off", "led": "a"}]})",
            "bmmi.leds[0].colour: \"off\" is no colour of a lamp; there are green, yellow, red, blue, "
            "white"),
    inLine3(R"("bmmi": {"leds": [{"lamp": "group1", "led": ""}]})", "bmmi.leds[0].led: is no name of an LED"),
    inLine3(R"("bmmi": {"leds": [{"lamp": "group1", "led": "../x"}]})",
            "bmmi.leds[0].led: is no name of an LED"),
    inLine3(R"("bmmi": {"leds": [{"lamp": "group1", "led": "a/b"}]})",
            "bmmi.leds[0].led: is no name of an LED"),
    inLine3(R"("bmmi": {"leds": [{"lamp": "group1", "led": "a"}, {"lamp": "group3", "led": "a"}]})",
            "bmmi.leds[1].led: \"a\" is there twice"),
    inLine3(R"("hardwareLog": {"budgetBytes": 0})",
            "hardwareLog.budgetBytes: must be a whole number from 1 to 65536, not 0"),
    inLine3(R"("hardwareLog": {"budgetBytesOf": {"2": 65537}})",
            "hardwareLog.budgetBytesOf.2: must be a whole number from 1 to 65536, not 65537"),
    inLine3(R"("store": {"slots": 0})", "store.slots: must be a whole number from 1 to 64, not 0"),
    inLine3(R"("store": {"blockBytes": 262001})",
            "store.blockBytes: must be a whole number from 1 to 262000, not 262001"),
    inLine3(R"("store": {"moduleBytes": 4294967296})",
            "store.moduleBytes: must be a whole number from 1 to 4294967295, not 4294967296"),
    inLine3(R"("store": {"preinstalled": {"number": "A_B", "revision": "R1"}})",
            "store.preinstalled.number: must be made of letters, digits and \"-./\""),
    inLine3(R"("store": {"preinstalled": {"number": "A", "revision": ""}})",
            "store.preinstalled.revision: must be made of letters, digits and \"-.\"")};
TEST_ROWS(Ranges, BoardMistakeTest, rangesBoardMistakeRows);

const BoardMistakeRow textsBoardMistakeRows[] = {
    inLine3("\"product\": {\"name\": \"" + std::string(256, 'x') + "\"}",
            "product.name: is a text of 256 bytes, at most 255 are possible"),
    inLine3("\"capabilityText\": \"" + std::string(256, 'x') + "\"",
            "capabilityText: is a text of 256 bytes, at most 255 are possible"),
    inLine3(R"("product": {"name": "a\u0000b"})", "product.name: holds a control character"),
    inLine3(R"("product": {"name": "a\u007f"})", "product.name: holds a control character"),
    inLine3("\"temperature\": {\"places\": [{\"name\": \"" + std::string(32, 'x') + "\"}]}",
            "temperature.places[0].name: is a text of 32 bytes, at most 31 are possible"),
    inLine3(withModule(28, 1), "store.preinstalled.number: is a text of 28 bytes, at most 27 are possible"),
    inLine3(withModule(1, 16), "store.preinstalled.revision: is a text of 16 bytes, at most 15 are possible"),
    inLine3(withModule(27, 8), "store.preinstalled: number and revision have more than 34 bytes together")};
TEST_ROWS(Texts, BoardMistakeTest, textsBoardMistakeRows);

TEST(BoardDescriptionTest, aPreinstalledModuleIsNamedLikeAnyOther)
{
    const std::pair<std::size_t, std::size_t> sizes[] = {{27, 7}, {19, 15}, {1, 1}};
    for (const auto& [number, revision] : sizes) {
        const auto board = withKeys(withModule(number, revision));
        ASSERT_EQ(board.error, "");
        const SoftwareIdentity module = board.description.store.preinstalled.value();
        EXPECT_TRUE(loadmodule::softwareIdFrom(module.number + "_" + module.revision));
    }
    const SoftwareIdentity builtIn = StoreDescription().preinstalled.value();
    EXPECT_TRUE(loadmodule::softwareIdFrom(builtIn.number + "_" + builtIn.revision));
}

TEST(BoardDescriptionTest, listsHaveAnEnd)
{
    const std::string hotspot = R"({"sensor": 1, "threshold": 2, "hysteresis": 3})";
    std::string hotspots = hotspot;
    for (int more = 1; more < 32; ++more) {
        hotspots += ", " + hotspot;
    }
    EXPECT_EQ(withKeys("\"bri\": {\"hotspots\": [" + hotspots + "]}").error, "");
    EXPECT_EQ(withKeys("\"bri\": {\"hotspots\": [" + hotspots + "," + hotspot + "]}").error,
              "b.json:1: bri.hotspots: has 33 entries, at most 32 are possible");
}

TEST(BoardDescriptionTest, longTextsAreWhole)
{
    const std::string longest(255, 'x');
    EXPECT_EQ(withKeys("\"product\": {\"name\": \"" + longest + "\"}").description.product.name, longest);
    EXPECT_EQ(withKeys("\"product\": {\"name\": \"\xc3\xa4\"}").description.product.name, "\xc3\xa4");
}

class BoardFileTest : public testing::Test {
protected:
    BoardFileTest()
    {
        std::string path = fs::temp_directory_path() / "merlow-board.XXXXXX";
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_folder = path;
        m_file = m_folder / "board.json";
        setenv("MERLOW_BOARD_FILE", m_file.c_str(), 1);
    }

    ~BoardFileTest() override
    {
        unsetenv("MERLOW_BOARD_FILE");
        fs::remove_all(m_folder);
    }

    fs::path m_folder;
    std::string m_file;
};

TEST_F(BoardFileTest, isTheOneThatTheEnvironmentNames)
{
    std::ofstream(m_file) << R"({"capabilities": [7]})";
    const auto board = loadBoardDescription();
    EXPECT_EQ(board.error, "");
    EXPECT_EQ(board.file, m_file);
    EXPECT_EQ(board.origin(), "the board description in " + m_file);
    EXPECT_EQ(board.description.capabilities, std::vector<std::uint16_t>{7});
    std::ofstream(m_file) << "{\n\n5";
    EXPECT_EQ(loadBoardDescription().error.find(m_file + ":3: syntax error"), 0u)
        << loadBoardDescription().error;
}

TEST_F(BoardFileTest, noneIsTheBuiltInBoard)
{
    for (const bool set : {true, false}) {
        set ? setenv("MERLOW_BOARD_FILE", "", 1) : unsetenv("MERLOW_BOARD_FILE");
        const auto board = loadBoardDescription();
        EXPECT_EQ(board.error, "");
        EXPECT_EQ(board.origin(), "the built-in board description");
        EXPECT_EQ(board.description, BoardDescription());
    }
}

TEST_F(BoardFileTest, oneThatCannotBeReadIsTold)
{
    EXPECT_EQ(loadBoardDescription().error, m_file + ": No such file or directory");
    fs::create_directory(m_file);
    EXPECT_EQ(loadBoardDescription().error, m_file + ": not a regular file");
    fs::remove(m_file);
    ASSERT_EQ(mkfifo(m_file.c_str(), 0600), 0);
    EXPECT_EQ(loadBoardDescription().error, m_file + ": not a regular file");
    fs::remove(m_file);
    std::ofstream(m_file) << R"({"capabilities": [7]})" << std::string((1U << 20U) - 21, ' ');
    EXPECT_EQ(loadBoardDescription().error, "");
    std::ofstream(m_file, std::ios::app) << ' ';
    EXPECT_EQ(loadBoardDescription().error, m_file + ": larger than 1048576 bytes");
}

} // namespace
} // namespace merlow::board::test
