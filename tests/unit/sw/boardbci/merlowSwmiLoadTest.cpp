// Loading a module, and the deletion of an old one that makes room for it.

#include "rowTest.h"
#include "swmiFixture.h"

#include <algorithm>
#include <numeric>

namespace swmi {

class SwmiLoadTest : public SwmiTest {
protected:
    void askForLoad()
    {
        acquire();
        m_client.sendToServer(signalWithText("01658803 00000007 0000012c", "AB_R1A"));
        (void)sent();
    }
    static std::string rejected(const char* text) { return "01658805 00000007 0000012c " + rejectTail(text); }
};

TEST_F(SwmiLoadTest, needsAnAcquisition)
{
    m_client.sendToServer(signalWithText("01658803 00000007 0000012c", "AB_R1A"));
    EXPECT_EQ(m_client.receivedHex(), rejected("ABN: Resource not acquired"));
    EXPECT_TRUE(nothingSent());
    acquire();
    m_client.sendToServer(signalWithText("01658803 00000008 0000012c", "AB_R1A"));
    EXPECT_EQ(m_client.receivedHex().substr(0, 17), "01658805 00000008");
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiLoadTest, goesFromStartToEnd)
{
    startLoad();
    m_client.sendHex("01658806 00000007 0000012c abcd0000 00000003 010203");
    EXPECT_THAT(sent(), ElementsAre("00000011 00000003 0809120301020318cdd702"));
    fromServer("00000012 00000003 0809 18cdd702");
    EXPECT_EQ(m_client.receivedHex(), "01658807 00000007 0000012c abcd0000");
    m_client.sendHex("01658808 00000007 0000012c");
    EXPECT_THAT(sent(), ElementsAre("00000013 00000002 0809"));
    m_client.sendHex("01658808 00000007 0000012c"); // under way
    m_client.sendHex("01658806 00000007 0000012c 00010000 00000000");
    EXPECT_TRUE(nothingSent());
    fromServer("00000014 00000002 0809 1000");
    EXPECT_EQ(m_client.receivedHex(), "01658809 00000007 0000012c 00000000");
    m_client.sendHex("01658808 00000007 0000012c");
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiLoadTest, beforeTheTicketItHasNone)
{
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    m_client.sendToServer(signalWithText("01658803 00000007 0000012c", "A"));
    EXPECT_THAT(sent(), ElementsAre("00000007 00000001 08ac021000", "0000000e 00000002 0800120141"));
}

TEST_F(SwmiLoadTest, theNameEndsWithItsTerminatorOrWithTheSignal)
{
    acquire();
    m_client.sendHex("01658803 00000007 0000012c 41425f52 31004344");
    m_client.sendHex("01658803 00000007 0000012c 4142");
    m_client.sendHex("01658803 00000007 0000012c");
    m_client.sendHex("01658803 00000007 0000012c 00");
    EXPECT_THAT(sent(), ElementsAre("0000000e 00000002 0809120541425f5231", "0000000e 00000003 080912024142",
                                    "0000000e 00000004 08091200", "0000000e 00000005 08091200"));
}

struct LoadInitRejRow {
    const char* name;
    const char* reason;
    const char* loadStatus; ///< null: a reject
    const char* text;
};

class SwmiLoadInitRejTest : public SwmiLoadTest, public WithRow<LoadInitRejRow> {};

ROW_TEST(SwmiLoadInitRejTest, isToldByItsReasonAndEndsTheLoad)
{
    askForLoad();
    fromServer("00000010 00000002 0809 10" + std::string(row().reason));
    EXPECT_EQ(m_client.receivedHex(), row().loadStatus != nullptr ? "01658804 00000007 0000012c " +
                                                                        std::string(row().loadStatus) + "0000"
                                                                  : rejected(row().text));
    m_client.sendHex("01658806 00000007 0000012c 00010000 00000000");
    m_client.sendHex("01658808 00000007 0000012c");
    EXPECT_TRUE(nothingSent());
}

const LoadInitRejRow loadInitRejRows[] = {
    {"invalidTicket", "01", nullptr, "Invalid ticket number"},
    {"alreadyLoaded", "02", "0001", nullptr},
    {"busy", "03", nullptr, "Busy"},
    {"running", "04", "0002", nullptr},
    {"inQueue", "05", nullptr, "ABN: Resource not acquired"},
    {"internalError", "06", nullptr, "LMC encountered unknown failure"}};
TEST_ROWS(all, SwmiLoadInitRejTest, loadInitRejRows);

TEST_F(SwmiLoadTest, answersOfAnotherTicketOrProcedureAreDropped)
{
    askForLoad();
    for (const char* answer :
         {"0000000f 00000002 080a", "0000000f 00000003 0809", "00000010 00000002 080a1001",
          "00000010 00000003 08091001", "00000014 00000002 080a", "00000015 00000002 080a",
          "00000012 00000003 0809"}) {
        fromServer(answer);
    }
    EXPECT_TRUE(nothingSent());
    fromServer("0000000f 00000002 0809");
    EXPECT_EQ(m_client.receivedHex(), "01658804 00000007 0000012c 00000000");
}

// Blocks

TEST_F(SwmiLoadTest, blocksAreAcknowledgedInTheServersOrderWithItsNumbers)
{
    startLoad();
    for (const char* number : {"fffe", "ffff", "0000", "0000"}) {
        m_client.sendHex("01658806 00000007 0000012c " + std::string(number) + "0000 00000001 ee");
    }
    EXPECT_THAT(sent(),
                ElementsAre("00000011 00000003 08091201ee18feff03", "00000011 00000004 08091201ee18ffff03",
                            "00000011 00000005 08091201ee1800", "00000011 00000006 08091201ee1800"));
    fromServer("00000012 00000005 0809 1800");
    fromServer("00000012 00000003 0809 18feff03");
    fromServer("00000012 00000004 0809 18ffffff7f"); // beyond 16 bits
    EXPECT_EQ(m_client.receivedHex(), "01658807 00000007 0000012c 00000000");
    EXPECT_EQ(m_client.receivedHex(), "01658807 00000007 0000012c fffe0000");
    EXPECT_EQ(m_client.receivedHex(), "01658807 00000007 0000012c ffff0000");
    fromServer("00000012 00000003 0809 18feff03"); // once more
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiLoadTest, anAbortedBlockIsNotAcknowledged)
{
    startLoad();
    m_client.sendHex("01658806 00000007 0000012c 00010000 00000001 ee");
    (void)sent();
    fromServer("00000012 00000003 0809 10011801");
    fromServer("00000012 00000003 0809 1801");
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiLoadTest, onlyTheBlocksOwnBytesGoOn)
{
    startLoad();
    m_client.sendHex("01658806 00000007 0000012c 00010000 00000000");
    m_client.sendHex("01658806 00000007 0000012c 00010000 00000002 aabbccdd");
    EXPECT_THAT(sent(), ElementsAre("00000011 00000003 080912001801", "00000011 00000004 08091202aabb1801"));
}

TEST_F(SwmiLoadTest, aBlockThatClaimsMoreThanItsSignalHoldsIsDropped)
{
    startLoad();
    for (const char* size : {"00000002", "7fffffff", "ffffffff", "ffffffec"}) {
        m_client.sendHex("01658806 00000007 0000012c 00010000 " + std::string(size) + " aa");
    }
    EXPECT_TRUE(nothingSent());
    EXPECT_NE(m_board.traces().dump().find("is too short: 21 of 4294967315 bytes. Ignoring it."),
              std::string::npos);
    m_client.sendHex("01658806 00000007 0000012c 00010000 00000001 aa");
    EXPECT_THAT(sent(), ElementsAre("00000011 00000003 08091201aa1801")) << "and left no record";
}

TEST_F(SwmiLoadTest, aBlockOf64KiBGoesOnWhole)
{
    startLoad();
    support::Bytes block = support::messageFromHex("01658806 00000007 0000012c 00010000 00010000");
    const std::size_t head = block.size();
    block.resize(head + 65536);
    std::iota(block.begin() + static_cast<std::ptrdiff_t>(head), block.end(), std::uint8_t{1});
    m_client.sendToServer(block);
    const auto& frames = support::VirtualSwmServer::connection()->toPeer;
    ASSERT_EQ(frames.size(), 1U);
    ASSERT_EQ(frames[0].size(), 8 + 2 + 4 + 65536 + 2U);
    EXPECT_EQ(support::frameToHex({frames[0].begin(), frames[0].begin() + 14}),
              "00000011 00000003 080912808004");
    EXPECT_TRUE(std::equal(frames[0].begin() + 14, frames[0].end() - 2,
                           block.begin() + static_cast<std::ptrdiff_t>(head)));
}

TEST_F(SwmiLoadTest, aBlockThatTheConnectionRefusesIsTracedAndAwaited)
{
    startLoad();
    support::FakeSway::instance().fail(support::FakeSway::Call::send, EAGAIN);
    m_client.sendHex("01658806 00000007 0000012c abcd0000 00000001 ee");
    EXPECT_EQ(m_log.count(Event::Error, "MerlowSwmi::handleLmcData failCode(2), lmSeqNr(43981)"), 1U);
    EXPECT_TRUE(nothingSent());
    fromServer("00000012 00000003 0809 18cdd702");
    EXPECT_EQ(m_client.receivedHex(), "01658807 00000007 0000012c abcd0000");
}

TEST_F(SwmiLoadTest, aBlockBeforeTheLoadsConfirmGoesOn)
{
    askForLoad();
    m_client.sendHex("01658806 00000007 0000012c 00010000 00000000");
    m_client.sendHex("01658808 00000007 0000012c");
    EXPECT_THAT(sent(), ElementsAre("00000011 00000003 080912001801", "00000013 00000002 0809"));
}

// The end

TEST_F(SwmiLoadTest, aLoadThatFailedIsToldSo)
{
    startLoad();
    m_client.sendHex("01658808 00000007 0000012c");
    (void)sent();
    fromServer("00000014 00000002 0809 1001");
    EXPECT_EQ(m_client.receivedHex(), "01658809 00000007 0000012c 00010000");
}

struct LoadEndRejRow {
    const char* name;
    const char* reason;
    const char* text;
};

class SwmiLoadEndRejTest : public SwmiLoadTest, public WithRow<LoadEndRejRow> {};

ROW_TEST(SwmiLoadEndRejTest, leavesTheLoadOpen)
{
    startLoad();
    m_client.sendHex("01658808 00000007 0000012c");
    (void)sent();
    fromServer("00000015 00000002 0809 10" + std::string(row().reason));
    EXPECT_EQ(m_client.receivedHex(), "0165880a 00000007 0000012c " + rejectTail(row().text));
    m_client.sendHex("01658806 00000007 0000012c 00010000 00000000");
    m_client.sendHex("01658808 00000007 0000012c");
    EXPECT_THAT(sent(), ElementsAre("00000011 00000003 080912001801", "00000013 00000002 0809"));
}

const LoadEndRejRow loadEndRejRows[] = {{"invalidTicket", "00", "Invalid ticket number"},
                                        {"inQueue", "01", "ticket in queue"},
                                        {"internalError", "02", "ticket in queue"},
                                        {"unknownResponse", "03", "ticket in queue"},
                                        {"invalidState", "04", "ticket in queue"}};
TEST_ROWS(all, SwmiLoadEndRejTest, loadEndRejRows);

// Room for a load

/// An entry of the inventory: number and revision as texts, the rest as the message's fields.
std::string module(const std::string& number, const std::string& revision,
                   const std::string& rest = "30003801")
{
    std::string entry;
    const auto addText = [&entry](const char* tag, const std::string& text) {
        const char size = static_cast<char>(text.size());
        entry += tag + support::frameToHex({static_cast<std::uint8_t>(size)}) +
                 support::frameToHex({text.begin(), text.end()});
    };
    addText("0a", number);
    addText("12", revision);
    std::erase(entry, ' ');
    entry += rest;
    return "12" + support::frameToHex({static_cast<std::uint8_t>(entry.size() / 2)}) + entry;
}

struct EvictionRow {
    const char* name;
    std::vector<std::string> modules;
    std::string deleted;
};

class SwmiEvictionTest : public SwmiLoadTest, public WithRow<EvictionRow> {};

ROW_TEST(SwmiEvictionTest, theLowestRevisionThatMayGoIsDeleted)
{
    askForLoad();
    fromServer("00000010 00000002 0809 1000");
    EXPECT_THAT(sent(), ElementsAre("00000020 00000002 0809"));
    std::string inventory = "00000021 00000002 0809";
    for (const auto& entry : row().modules) {
        inventory += entry;
    }
    fromServer(inventory);
    EXPECT_THAT(sent(), ElementsAre(withText("0000001d 00000002 0809", 2, row().deleted)));
    EXPECT_TRUE(nothingSent());
}

constexpr const char* RUNNING = "180130003801";
constexpr const char* ERASING = "30023801";

const EvictionRow evictionRows[] = {
    {"lowest", {module("A", "R2A"), module("B", "R1A"), module("C", "R3A")}, "B_R1A"},
    {"runningIsPassedOver", {module("A", "R2A"), module("B", "R1A", RUNNING)}, "A_R2A"},
    {"firstOfEquals", {module("A", "R1A"), module("B", "R1A")}, "A_R1A"},
    {"preliminaryBeforeReleased", {module("A", "R1A"), module("B", "P9Z")}, "B_P9Z"},
    {"unreadableBeforeAll", {module("A", "P1A"), module("B", "R11"), module("C", "?")}, "B_R11"},
    {"noneThere", {}, ""},
    {"erasingFirst", {module("A", "R1A", ERASING), module("B", "R1A")}, ""},
    {"erasingLast", {module("A", "R11"), module("B", "R1A", ERASING)}, ""},
    {"onlyValid", {module("A", "R1A", "30013801"), module("B", "R1A", "30033801")}, ""},
    {"onlyWritable", {module("A", "R1A", "30003800"), module("B", "R2A")}, "B_R2A"},
    {"onlyApplications",
     {module("A", "R1A", "200130003801"), module("B", "R1B", "200230003801"),
      module("C", "R2A", "200030003801")},
     "C_R2A"},
    {"accessUnsetIsReadOnly", {module("A", "R1A", "")}, ""},
    {"withoutRevision", {module("A", "")}, "A"},
    {"withoutNumber", {module("", "R1A")}, "R1A"},
    {"aboveEveryRevision", {module("A", "R9999ZZZZ9999")}, ""}};
TEST_ROWS(all, SwmiEvictionTest, evictionRows);

TEST_F(SwmiLoadTest, isTriedAgainAsOftenAsItTakes)
{
    askForLoad();
    for (int round = 0; round < 3; ++round) {
        fromServer("00000010 00000002 0809 1000");
        EXPECT_THAT(sent(), ElementsAre("00000020 00000002 0809"));
        fromServer("00000021 00000002 0809" + module("A", "R1A"));
        EXPECT_THAT(sent(), ElementsAre("0000001d 00000002 08091205415f523141"));
        fromServer("0000001e 00000002 0809");
        EXPECT_THAT(sent(), ElementsAre("0000000e 00000002 0809120641425f523141"));
        EXPECT_TRUE(m_client.nothingReceived());
    }
    fromServer("0000000f 00000002 0809");
    EXPECT_EQ(m_client.receivedHex(), "01658804 00000007 0000012c 00000000");
}

TEST_F(SwmiLoadTest, aRefusedDeletionEndsIt)
{
    for (unsigned int reason = 0; reason <= 6; ++reason) {
        const std::string ref = " 0000000" + std::to_string(reason + 2);
        if (reason == 0) {
            askForLoad();
        } else {
            m_client.sendToServer(signalWithText("01658803 00000007 0000012c", "AB_R1A"));
        }
        fromServer("00000010" + ref + " 0809 1000");
        fromServer("0000001f" + ref + " 0809 100" + std::to_string(reason));
        EXPECT_EQ(m_client.receivedHex(), rejected("No LMC slots available")) << reason;
    }
    (void)sent();
    m_client.sendHex("01658808 00000007 0000012c");
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiLoadTest, anInventoryThatCannotBeReadEndsIt)
{
    askForLoad();
    m_board.commonData().setSelectLoadModule("kept");
    fromServer("00000010 00000002 0809 1000");
    (void)sent();
    fromServer("00000022 00000002 0809 1002");
    EXPECT_EQ(m_client.receivedHex(), rejected("No LMC slots available"));
    EXPECT_EQ(m_board.commonData().getSelectLoadModule(), "kept");
    m_client.sendHex("01658808 00000007 0000012c");
    EXPECT_TRUE(nothingSent());
}

} // namespace swmi
