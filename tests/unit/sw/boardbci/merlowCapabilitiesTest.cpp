#include "merlowCapabilities.h"
#include "rowTest.h"

#include "board.h"
#include "brhCapabilities.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <map>

namespace {

using support::Board;
using support::FakeBrh;
using support::FakeSway;
using testing::ElementsAre;

using Texts = std::vector<std::string>;

/// A confirm in pieces. A record is text without the zeros at its end: "0007 00dc".
struct CapabilitiesConfirm {
    std::string header;
    Texts records;
    std::size_t size = 0; ///< of the whole message
};

std::string hexWithoutZerosAtTheEnd(support::Bytes bytes)
{
    while (!bytes.empty() && bytes.back() == 0) {
        bytes.pop_back();
    }
    if (bytes.size() % 2 != 0) {
        bytes.push_back(0);
    }
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        constexpr const char* digits = "0123456789abcdef";
        text += i % 2 == 0 && i != 0 ? " " : "";
        text += digits[bytes[i] >> 4U];
        text += digits[bytes[i] & 15U];
    }
    return text;
}

class MerlowCapabilitiesTest : public testing::Test {
protected:
    MerlowCapabilitiesTest()
    {
        FakeBrh::instance().capabilities.clear();
        m_board.add<MerlowCapabilities>();
    }
    ~MerlowCapabilitiesTest() override { m_board.commonData().getSwmiClient().destroy(); }

    [[nodiscard]] CapabilitiesConfirm ask(const support::VirtualClient& client,
                                          const std::string& references = "00000007 0000012c")
    {
        client.sendHex("01658007 " + references);
        const auto received = client.receive();
        if (!received) {
            ADD_FAILURE() << "No answer";
            return {};
        }
        EXPECT_EQ(received->sender, m_board.commonData().getPublicMbox());
        EXPECT_TRUE(client.nothingReceived());
        return pieces(received->bytes);
    }
    [[nodiscard]] CapabilitiesConfirm ask() { return ask(m_board.connectClient()); }
    /// The last record's text, "" for none.
    [[nodiscard]] std::string askForOne()
    {
        const auto confirm = ask();
        EXPECT_LE(confirm.records.size(), 1U);
        return confirm.records.empty() ? "" : confirm.records.front();
    }

    void announce(std::shared_ptr<Capability> capability)
    {
        m_board.commonData().getBriClient().addCapability(std::move(capability));
    }
    /// A connection to the SWM server, which announces what the body of its confirm says.
    void announceSway(const support::Bytes& body)
    {
        auto& sway = FakeSway::instance();
        constexpr const char* address = "ux:SWMServer";
        if (sway.connection(address) == nullptr) {
            sway.listen(address);
            m_board.commonData().getSwmiClient().connEstablishReq({}, 7, address, {1});
            sway.connection(address)->fromPeer.push_back({0, 0, 0, 2, 0, 0, 0, 7, 0x08, 0x01});
            m_board.pump();
        }
        support::Bytes frame{0, 0, 0, 5, 0, 0, 0, 7};
        frame.insert(frame.end(), body.begin(), body.end());
        sway.connection(address)->fromPeer.push_back(frame);
        m_board.pump();
    }

    Board m_board;

private:
    static CapabilitiesConfirm pieces(const support::Bytes& bytes)
    {
        CapabilitiesConfirm confirm{.size = bytes.size()};
        EXPECT_GE(bytes.size(), 16U);
        confirm.header = support::messageToHex({bytes.begin(), bytes.begin() + 16});
        const std::size_t count = bytes.at(12) * 256U + bytes.at(13);
        EXPECT_LE(16 + 220 * count, bytes.size());
        for (std::size_t i = 0; i < count && 16 + 220 * (i + 1) <= bytes.size(); ++i) {
            const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(16 + 220 * i);
            confirm.records.push_back(hexWithoutZerosAtTheEnd({start, start + 220}));
        }
        EXPECT_TRUE(std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(16 + 220 * count), bytes.end(),
                                [](std::uint8_t byte) { return byte == 0; }))
            << "What no record fills is not zero";
        return confirm;
    }
};

// The envelope

TEST_F(MerlowCapabilitiesTest, unitThatCanDoNothingAnswersWithoutRecords)
{
    const auto confirm = ask();
    EXPECT_EQ(confirm.header, "01658008 00000007 0000012c 00000000");
    EXPECT_EQ(confirm.size, 16U);
    EXPECT_TRUE(
        m_board.traced(4, "MerlowCapabilities:handleGetCapabilitiesReq() collected 0 out of 0 capabilities"));
}

TEST_F(MerlowCapabilitiesTest, answerCarriesTheReferencesOfTheRequest)
{
    announce(std::make_shared<ContainerPid>());
    EXPECT_EQ(ask(m_board.connectClient(), "fffffffe 80000001").header,
              "01658008 fffffffe 80000001 00010000");
    EXPECT_THAT(FakeBrh::instance().capabilityCalls, ElementsAre(static_cast<int>(0x80000001)));
}

TEST_F(MerlowCapabilitiesTest, requestIsReadAtEveryLength)
{
    const auto client = m_board.connectClient();
    const auto whole = support::messageFromHex("01658007 00000007 0000012c deadbeef");
    for (std::size_t size = 4; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        if (size < 12) {
            EXPECT_TRUE(client.nothingReceived());
            EXPECT_TRUE(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 12 bytes"));
        } else {
            EXPECT_EQ(client.receivedHex(), "01658008 00000007 0000012c 00000000");
        }
    }
}

TEST_F(MerlowCapabilitiesTest, strangerIsAnsweredToo)
{
    announce(std::make_shared<ContainerPid>());
    EXPECT_THAT(ask(m_board.newClient()).records, ElementsAre("000d 00dc"));
}

// Which record of the platform, BRI and BMMI becomes which number

const std::map<unsigned int, std::string> reportedIds = {
    {3, "0003 00dc"},  {7, "0007 00dc"},  {23, "0017 00dc"}, {24, "0018 00dc"}, {26, "001d 00dc"},
    {28, "0020 00dc"}, {34, "0026 00dc"}, {35, "0029 00dc"}, {36, "002a 00dc"}, {40, "000d 00dc"},
    {41, "0013 00dc"}, {42, "0019 00dc"}, {44, "0022 00dc"}, {46, "001e 00dc"}, {47, "0006 00dc"},
    {48, "002b 00dc"}, {49, "002d 00dc"}, {50, "002c 00dc"},
};

class MerlowCapabilitiesIdTest : public MerlowCapabilitiesTest, public WithRow<unsigned int> {};

ROW_TEST(MerlowCapabilitiesIdTest, isTranslatedOrLeftOut)
{
    announce(std::make_shared<Capability>(static_cast<CapSupport_en>(row())));
    const auto confirm = ask();
    const auto reported = reportedIds.find(row());
    EXPECT_EQ(confirm.size, 236U) << "There is room for what was gathered, whether it is reported or not";
    if (reported == reportedIds.end()) {
        EXPECT_EQ(confirm.header, "01658008 00000007 0000012c 00000000");
        EXPECT_TRUE(m_board.traced(
            4, "MerlowCapabilities:handleGetCapabilitiesReq() collected 0 out of 1 capabilities"));
    } else {
        EXPECT_THAT(confirm.records, ElementsAre(reported->second));
        EXPECT_TRUE(m_board.traced(
            4, "MerlowCapabilities:handleGetCapabilitiesReq() collected 1 out of 1 capabilities"));
    }
}

const auto idsAndBeyond = [] {
    std::array<unsigned int, 64> ids{};
    std::iota(ids.begin(), ids.end(), 0U);
    return ids;
}();
TEST_ROWS(all, MerlowCapabilitiesIdTest, idsAndBeyond);

// The sources

TEST_F(MerlowCapabilitiesTest, platformIsAskedForItsIdsInOrder)
{
    FakeBrh::instance().capabilities = {36, 35, 33, 32, 28, 26, 24, 22, 3, 2, 7, 46};
    const auto confirm = ask();
    EXPECT_THAT(FakeBrh::instance().wantedCapabilities, ElementsAre(2, 3, 22, 24, 26, 28, 32, 33, 35, 36));
    EXPECT_THAT(FakeBrh::instance().capabilityCalls, ElementsAre(300));
    EXPECT_THAT(confirm.records, ElementsAre("0003 00dc", "0018 00dc", "001d 00dc", "0020 00dc",
                                             "0029 00dc 4d45 524c 4f57", "002a 00dc"));
    EXPECT_EQ(confirm.size, 16U + 220 * 10);
}

TEST_F(MerlowCapabilitiesTest, sourcesComeOneBehindTheOther)
{
    FakeBrh::instance().capabilities = {36, 3};
    announceSway({0x3a, 0x00, 0x32, 0x03, 0x08, 0x80, 0x08, 0x22, 0x00, 0x1a, 0x00, 0x12, 0x00, 0x0a, 0x00});
    m_board.commonData().getBmmiClient().addCapability(std::make_shared<HereIAm>());
    m_board.commonData().getBmmiClient().addCapability(std::make_shared<CommonMmi>());
    announce(std::make_shared<EventHistorySupport>());
    announce(std::make_shared<UtcTime>());
    announce(std::make_shared<NotifyRestart>());
    const auto confirm = ask();
    EXPECT_THAT(confirm.records, ElementsAre("0008 00dc", "0009 00dc", "000b 00dc", "000c 00dc",
                                             "0001 00dc 0001 0001 0000 0000 0000 0400", // the SWM server's
                                             "0003 00dc", "002a 00dc",                  // the platform's
                                             "002c 00dc", "0022 00dc",                  // BRI's
                                             "0026 00dc", "0007 00dc"));                // BMMI's
    EXPECT_EQ(confirm.size, 16U + 220 * 13);
    EXPECT_TRUE(m_board.traced(
        4, "MerlowCapabilities:handleGetCapabilitiesReq() collected 11 out of 13 capabilities"));
}

// What the SWM server announces

struct SwayCapabilityRow {
    const char* name;
    support::Bytes body;
    Texts records;
    std::size_t size;
};

class MerlowCapabilitiesSwayTest : public MerlowCapabilitiesTest, public WithRow<SwayCapabilityRow> {};

ROW_TEST(MerlowCapabilitiesSwayTest, becomesItsRecords)
{
    announceSway(row().body);
    const auto confirm = ask();
    EXPECT_EQ(confirm.records, row().records);
    EXPECT_EQ(confirm.size, row().size);
}

const SwayCapabilityRow swayRows[] = {
    {"preinstalled", {0x0a, 0x00}, {"0008 00dc"}, 236},
    {"componentList", {0x12, 0x00}, {"0009 00dc"}, 236},
    {"lockableStore", {0x1a, 0x00}, {"000b 00dc", "000c 00dc"}, 456}, // one item, and room for two records
    {"bootInventory", {0x22, 0x00}, {}, 236},
    {"pullLoad", {0x2a, 0x00}, {}, 16},
    {"blockSize", {0x32, 0x04, 0x08, 0x80, 0x80, 0x04}, {"0001 00dc 0001 0001 0000 0000 0001"}, 236},
    {"blockSizeOfNothing", {0x32, 0x00}, {"0001 00dc 0001 0001"}, 236},
    {"blockSizeBelowZero",
     {0x32, 0x0b, 0x08, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01},
     {"0001 00dc 0001 0001 0000 0000 ffff ffff"},
     236},
    {"slotWorking", {0x3a, 0x00}, {}, 236},
    {"lockableStoreAndOneLess", {0x1a, 0x00, 0x3a, 0x00}, {"000b 00dc", "000c 00dc"}, 456},
    {"lockableStoreAmongOthers",
     {0x0a, 0x00, 0x12, 0x00, 0x1a, 0x00},
     {"0008 00dc", "0009 00dc", "000b 00dc", "000c 00dc"},
     896},
};

TEST_ROWS(all, MerlowCapabilitiesSwayTest, swayRows);

struct LockableStoreRow {
    std::uint16_t revision; ///< 0: no session
    bool isReported;
};

class MerlowCapabilitiesLockableTest : public MerlowCapabilitiesTest, public WithRow<LockableStoreRow> {};

ROW_TEST(MerlowCapabilitiesLockableTest, goesByTheSessionsRevision)
{
    announceSway({0x1a, 0x00});
    const auto client =
        row().revision == 0 ? m_board.newClient() : m_board.connectClient({.protocolRev = row().revision});
    const auto confirm = ask(client);
    EXPECT_EQ(confirm.records, row().isReported ? Texts({"000b 00dc", "000c 00dc"}) : Texts());
    EXPECT_EQ(confirm.size, row().isReported ? 456U : 236U);
}

const LockableStoreRow lockableStoreRows[] = {{0, true}, {1, false}, {2, true}, {3, true}};
TEST_ROWS(all, MerlowCapabilitiesLockableTest, lockableStoreRows,
          [](const auto& row) { return "revision" + std::to_string(row.revision); });

// The market name, which clients of one kind are not to ask one kind of unit for

struct MarketPidRow {
    const char* name;
    bool isComplete;
    const char* productName;
    const char* serverRef;
    bool isReported;
};

class MerlowCapabilitiesMarketPidTest : public MerlowCapabilitiesTest, public WithRow<MarketPidRow> {};

ROW_TEST(MerlowCapabilitiesMarketPidTest, goesByProductAndReference)
{
    announce(std::make_shared<MarketPid>());
    announce(std::make_shared<ContainerPid>());
    m_board.commonData().setProductInfoCache(
        {.productName = row().productName, .isComplete = row().isComplete});
    const auto confirm = ask(m_board.connectClient(), std::string("00000007 ") + row().serverRef);
    EXPECT_EQ(confirm.records, row().isReported ? Texts({"0019 00dc", "000d 00dc"}) : Texts({"000d 00dc"}));
    EXPECT_EQ(confirm.size, 456U);
}

const MarketPidRow marketPidRows[] = {{"gsm", true, "KPX 40", "00000096", false},
                                      {"nameAlone", true, "KPX", "00000096", false},
                                      {"firstReference", true, "KPX 40", "00000064", false},
                                      {"lastReference", true, "KPX 40", "000000c7", false},
                                      {"below", true, "KPX 40", "00000063", true},
                                      {"above", true, "KPX 40", "000000c8", true},
                                      {"negative", true, "KPX 40", "ffffff96", true},
                                      {"otherUnit", true, "MLU KPX", "00000096", true},
                                      {"shortName", true, "KP", "00000096", true},
                                      {"incomplete", false, "KPX 40", "00000096", true},
                                      {"nothingKnown", false, "", "00000096", true}};
TEST_ROWS(all, MerlowCapabilitiesMarketPidTest, marketPidRows);

// What records say

TEST_F(MerlowCapabilitiesTest, textHasRoomForSixteenBytes)
{
    const std::map<std::string, std::string> texts = {
        {"", "0029 00dc"},
        {"A", "0029 00dc 4100"},
        {"ABCDEFGHIJKLMNO", "0029 00dc 4142 4344 4546 4748 494a 4b4c 4d4e 4f00"},
        {"ABCDEFGHIJKLMNOP", "0029 00dc 4142 4344 4546 4748 494a 4b4c 4d4e 4f50"},
        {"ABCDEFGHIJKLMNOPQ", "0029 00dc 4142 4344 4546 4748 494a 4b4c 4d4e 4f50"},
    };
    FakeBrh::instance().capabilities = {35};
    for (const auto& [text, record] : texts) {
        FakeBrh::instance().capabilityText = text;
        EXPECT_EQ(askForOne(), record);
    }
}

TEST_F(MerlowCapabilitiesTest, restartRanksAreABitMask)
{
    announce(std::make_shared<RestartRankLabelSupport>(0x8000001FU));
    EXPECT_EQ(askForOne(), "002d 00dc 8000 001f");
}

/// Sets 0, 1, 2 and so on with the values 0x100 * set + 1, 2 and 3, the third one negative.
template <class C, class Param> std::shared_ptr<Capability> withSets(int count)
{
    typename C::Params params;
    for (int i = 0; i < count; ++i) {
        params.push_back(std::make_shared<Param>(Param{static_cast<std::int16_t>(0x100 * i + 1),
                                                       static_cast<std::int16_t>(0x100 * i + 2),
                                                       static_cast<std::int16_t>(-0x100 * i - 3)}));
    }
    return std::make_shared<C>(params);
}

std::string setsText(int count)
{
    constexpr const char* sets[] = {" 0001 0002 fffd 0000", " 0101 0102 fefd 0000", " 0201 0202 fdfd 0000",
                                    " 0301 0302 fcfd 0000", " 0401 0402 fbfd 0000", " 0501 0502 fafd 0000",
                                    " 0601 0602 f9fd 0000", " 0701 0702 f8fd 0000", " 0801 0802 f7fd 0000",
                                    " 0901 0902 f6fd 0000"};
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += sets[i];
    }
    return text.substr(0, text.size() - std::min<std::size_t>(text.size(), 5)); // the last unset value
}

TEST_F(MerlowCapabilitiesTest, parameterSetsAreCutToTen)
{
    announce(withSets<TemperatureLevelMeasurement, temperatureLevelMeasurementParam_st>(0));
    announce(withSets<TemperatureLevelMeasurement, temperatureLevelMeasurementParam_st>(1));
    announce(withSets<TemperatureLevelMeasurement, temperatureLevelMeasurementParam_st>(10));
    announce(withSets<TemperatureLevelMeasurement, temperatureLevelMeasurementParam_st>(12));
    announce(withSets<ClimateControl, hotspotParam_st>(0));
    announce(withSets<ClimateControl, hotspotParam_st>(2));
    announce(withSets<ClimateControl, hotspotParam_st>(11));
    EXPECT_THAT(ask().records,
                ElementsAre("001e 00dc", "001e 00dc 0001 0000" + setsText(1),
                            "001e 00dc 000a 0000" + setsText(10), "001e 00dc 000a 0000" + setsText(10),
                            "0006 00dc", "0006 00dc 0002 0000" + setsText(2),
                            "0006 00dc 000a 0000" + setsText(10)));
}

// Backends that come back

TEST_F(MerlowCapabilitiesTest, backendsThatReconnectForEverDoubleTheirRecordsUpToTheirCaps)
{
    announce(std::make_shared<ContainerPid>());
    announce(std::make_shared<ContainerPid>());
    EXPECT_THAT(ask().records, ElementsAre("000d 00dc", "000d 00dc"));

    FakeBrh::instance().capabilities = {3, 24};
    for (std::size_t i = 0; i < BrhClient::maxCapabilities; ++i) {
        announce(std::make_shared<ContainerPid>());
        m_board.commonData().getBmmiClient().addCapability(std::make_shared<HereIAm>());
        announceSway({0x1a, 0x00});
        m_board.traces().clear();
    }
    const auto confirm = ask();
    EXPECT_EQ(confirm.header, "01658008 00000007 0000012c 40020000"); // 4 * 4096 + 2
    EXPECT_EQ(confirm.size, 16U + 220 * 0x4002);
    EXPECT_EQ(confirm.records.front(), "000b 00dc");
    EXPECT_EQ(confirm.records.back(), "0026 00dc");
    EXPECT_TRUE(m_board.traced(
        4, "MerlowCapabilities:handleGetCapabilitiesReq() collected 16386 out of 12290 capabilities"));
}

} // namespace
