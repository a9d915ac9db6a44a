// Selection, the running module, and the list of software components.

#include "rowTest.h"
#include "swCompList.h"
#include "swmiFixture.h"

#include <stdexcept>

namespace swmi {

constexpr const char* NOT_ACQUIRED = "ABN: Resource not acquired";

// Selection

class SwmiSelectTest : public SwmiTest {
protected:
    /// By procedure 2.
    void askFor(const std::string& software)
    {
        acquire();
        m_client.sendToServer(signalWithText("0165880b 00000007 0000012c", software));
        EXPECT_THAT(sent(), ElementsAre("00000020 00000002 0809"));
    }
    [[nodiscard]] std::string selected() { return m_board.commonData().getSelectLoadModule(); }
    static std::string rejected() { return "0165880d 00000007 0000012c " + rejectTail(NOT_ACQUIRED); }
};

TEST_F(SwmiSelectTest, needsAnAcquisition)
{
    m_client.sendToServer(signalWithText("0165880b 00000007 0000012c", "AB_R1A"));
    EXPECT_EQ(m_client.receivedHex(), rejected());
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiSelectTest, whatTheInventoryHoldsIsSelected)
{
    askFor("AB_R1A");
    fromServer("00000021 00000002 0809 12090a024142"
               "1203523142" // AB_R1B
               "12090a024142"
               "1203523141"); // AB_R1A
    EXPECT_EQ(m_client.receivedHex(), "0165880c 00000007 0000012c");
    EXPECT_EQ(selected(), "AB_R1A");
    const std::string start = "MerlowSwmi::handleGetSwProductInvCfm() TARN_BC_SELECT_LMC_REQ ";
    EXPECT_THAT(
        m_log.texts(Event::Trace7),
        ::testing::IsSupersetOf({start + "try match='AB_R1A'", start + "product_number='AB', revision='R1B'",
                                 start + "product_number='AB', revision='R1A'"}));
    fromServer("00000021 00000002 0809"); // once more
    EXPECT_TRUE(nothingSent());
}

struct SelectRow {
    const char* name;
    const char* software;
    const char* inventory;
    bool isFound;
};

class SwmiSelectMatchTest : public SwmiSelectTest, public WithRow<SelectRow> {};

ROW_TEST(SwmiSelectMatchTest, comparesTheWholeName)
{
    askFor(row().software);
    fromServer("00000021 00000002 0809" + std::string(row().inventory));
    EXPECT_EQ(m_client.receivedHex(), row().isFound ? "0165880c 00000007 0000012c" : rejected());
    EXPECT_EQ(selected(), row().isFound ? row().software : "");
    EXPECT_TRUE(nothingSent());
}

const SelectRow selectRows[] = {{"emptyInventory", "A_R1", "", false},
                                {"running", "A_R1", "12090a014112025231 1801", true},
                                {"erasing", "A_R1", "12090a014112025231 3002", true},
                                {"empty", "A_R1", "12090a014112025231 3001", true},
                                {"longer", "A_R1A", "12070a014112025231", false},
                                {"shorter", "A_R", "12070a014112025231", false},
                                {"otherCase", "a_R1", "12070a014112025231", false},
                                {"withoutRevision", "A", "12030a0141", true},
                                {"withoutRevisionButWithLine", "A_", "12030a0141", false},
                                {"emptyRevision", "A", "12050a01411200", true},
                                {"withoutNumber", "R1", "120412025231", true},
                                {"nothingAtAll", "", "1200", true}};
TEST_ROWS(all, SwmiSelectMatchTest, selectRows);

TEST_F(SwmiSelectTest, aNameThatIsNotThereLeavesTheSelection)
{
    acquire();
    m_board.commonData().setSelectLoadModule("old");
    m_client.sendToServer(signalWithText("0165880b 00000007 0000012c", "A"));
    fromServer("00000021 00000002 0809");
    EXPECT_EQ(selected(), "old");
}

TEST_F(SwmiSelectTest, anInventoryThatCannotBeReadEmptiesTheSelection)
{
    askFor("AB_R1A");
    m_board.commonData().setSelectLoadModule("old");
    fromServer("00000022 00000002 080a 1002"); // another ticket
    EXPECT_EQ(selected(), "old");
    fromServer("00000022 00000002 0809 1002");
    EXPECT_EQ(m_client.receivedHex(), rejected());
    EXPECT_EQ(selected(), "");
    fromServer("00000022 00000002 0809 1002");
    EXPECT_TRUE(nothingSent());
}

// The running module

class SwmiRunningTest : public SwmiTest {
protected:
    void ask()
    {
        m_client.sendHex("01658813 00000007 0000012c");
        EXPECT_THAT(sent(), ElementsAre("00000028 00000001"));
    }
};

TEST_F(SwmiRunningTest, isToldAsItCameWithoutAnAcquisition)
{
    ask();
    fromServer(withText("00000029 00000001", 1, "QXR1%2_R1A"));
    EXPECT_EQ(m_client.receivedHex(), "01658814 00000007 0000012c 51585231 25325f52 31410000 00000000 "
                                      "00000000 00000000 00000000 00000000 00000000");
    fromServer(withText("00000029 00000001", 1, "QXR1%2_R1A"));
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiRunningTest, aTextThatIsTooLongIsCutWithATrace)
{
    ask();
    fromServer(withText("00000029 00000001", 1, std::string(36, 'A')));
    const std::string hex = m_client.receivedHex();
    EXPECT_EQ(hex.substr(hex.size() - 17), "41414141 41414100");
    EXPECT_TRUE(m_board.traced(4, "ABN: copyErrorDescription: data lost. source: \"" + std::string(36, 'A') +
                                      "\" (strlen: 37), destination: \"" + std::string(35, 'A') +
                                      "\" (strlen: 36)"));
}

TEST_F(SwmiRunningTest, aRejectIsToldByItsReason)
{
    ask();
    fromServer("0000002a 00000001 0800");
    EXPECT_EQ(m_client.receivedHex(),
              "01658815 00000007 0000012c " +
                  rejectTail("HW interaction failure in reading environment variable"));
    m_client.sendHex("01658813 00000007 0000012c");
    (void)sent();
    fromServer("0000002a 00000002 0801");
    EXPECT_EQ(m_client.receivedHex(), "01658815 00000007 0000012c " + rejectTail("Not found"));
    fromServer("0000002a 00000002 0801");
    EXPECT_TRUE(nothingSent());
}

// The list, passed through

class SwmiListTest : public SwmiTest {
protected:
    /// By procedure 2.
    void startList()
    {
        acquire();
        m_client.sendHex("0165880e 00000007 0000012c");
        EXPECT_THAT(sent(), ElementsAre("00000023 00000002 0809"));
        fromServer("00000024 00000002 0809");
        EXPECT_EQ(m_client.receivedHex(), "0165880f 00000007 0000012c");
    }
};

TEST_F(SwmiListTest, needsAnAcquisition)
{
    m_client.sendHex("0165880e 00000007 0000012c");
    EXPECT_EQ(m_client.receivedHex(), "01658810 00000007 0000012c " + rejectTail(NOT_ACQUIRED));
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiListTest, aRejectIsToldByItsReason)
{
    acquire();
    const char* texts[] = {NOT_ACQUIRED, NOT_ACQUIRED, "ABN: Read error"};
    for (unsigned int reason = 0; reason < 3; ++reason) {
        m_client.sendHex("0165880e 00000007 0000012c");
        (void)sent();
        const std::string rej =
            "00000025 0000000" + std::to_string(reason + 2) + " 0809 100" + std::to_string(reason);
        fromServer(rej);
        EXPECT_EQ(m_client.receivedHex(), "01658810 00000007 0000012c " + rejectTail(texts[reason]));
        fromServer(rej);
        EXPECT_TRUE(nothingSent());
    }
}

TEST_F(SwmiListTest, theClientsAcknowledgementsPaceIt)
{
    startList();
    fromServer("00000026 00000002 0809 1a0141");
    EXPECT_EQ(m_client.receivedHex(), "01658811 00000007 0000012c 00000000 00000001 41000000");
    EXPECT_TRUE(nothingSent());
    m_client.sendHex("01658812 00000007 0000012c 00000000");
    EXPECT_THAT(sent(), ElementsAre("00000027 00000002 08091000"));
    fromServer("00000026 00000002 0809 1001 1a0442434445");
    EXPECT_EQ(m_client.receivedHex(), "01658811 00000007 0000012c 00000001 00000004 42434445 000000");
    m_client.sendHex("01658812 00000008 0000012c 00000000"); // another's
    EXPECT_TRUE(nothingSent());
    m_client.sendHex("01658812 00000007 0000012c 00000000");
    EXPECT_THAT(sent(), ElementsAre("00000027 00000002 08091000"));
    m_client.sendHex("01658812 00000007 0000012c 00000000");
    fromServer("00000026 00000002 0809 1a0141");
    EXPECT_TRUE(nothingSent()) << "it is over";
}

TEST_F(SwmiListTest, isGivenUpByTheClient)
{
    startList();
    fromServer("00000026 00000002 0809 1a0141");
    (void)m_client.receivedHex();
    m_client.sendHex("01658812 00000007 0000012c 00000100");
    EXPECT_THAT(sent(), ElementsAre("00000027 00000002 08091001"));
    fromServer("00000026 00000002 0809 1a0141");
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiListTest, anEmptyPieceIsAPiece)
{
    startList();
    fromServer("00000026 00000002 0809 1001");
    EXPECT_EQ(m_client.receivedHex(), "01658811 00000007 0000012c 00000001 00000000 000000");
}

TEST_F(SwmiListTest, aPieceIsAsLongAsTheServerMadeIt)
{
    startList();
    auto frame = support::frameFromHex("00000026 00000002 0809 1aa08d06"); // 100,000 bytes
    frame.resize(frame.size() + 100000, 'x');
    support::VirtualSwmServer::send(frame);
    const auto hex = m_client.receivedHex();
    EXPECT_EQ(hex.substr(0, 53), "01658811 00000007 0000012c 00000000 000186a0 78787878");
}

// The list of a KPX unit for a GSM client

class SwmiKpxListTest : public SwmiTest {
protected:
    SwmiKpxListTest()
    {
        ProductInfo info;
        info.productName = "KPX 12";
        info.isComplete = true;
        m_board.commonData().setProductInfoCache(info);
    }
    /// The GSM client 7, 150 has ticket 9 and its list is under way by procedure 2.
    void startList(std::int32_t serverRef = 150)
    {
        m_client.session()->serverRef = serverRef;
        m_client.sendHex("01659800 00000007 00000096 0005 0000");
        fromServer("00000008 00000001 0896011009");
        fromServer("0000000a 00000001 0809");
        EXPECT_EQ(m_client.receivedHex(), "01659801 00000007 00000096 00050000");
        m_client.sendHex("0165880e 00000007 00000096");
        fromServer("00000024 00000002 0809");
        EXPECT_EQ(m_client.receivedHex(), "0165880f 00000007 00000096");
        (void)sent();
    }
    void fromServerInPieces(const std::string& list)
    {
        for (std::size_t at = 0; at < list.size(); at += 100) {
            const bool isEnd = at + 100 >= list.size();
            fromServer(withText(std::string("00000026 00000002 0809 100") + (isEnd ? "1" : "0"), 3,
                                list.substr(at, 100)));
        }
    }
    /// The next piece that the client gets, as "end:text"; "" for none.
    std::string piece()
    {
        const auto received = m_client.receive();
        if (!received) {
            return "";
        }
        EXPECT_EQ(received->msgNo, 0x1658811U);
        EXPECT_EQ(support::wordAt(received->bytes, 4), 7U);
        EXPECT_EQ(support::wordAt(received->bytes, 8), 150U);
        const std::size_t length = support::wordAt(received->bytes, 16);
        EXPECT_EQ(received->bytes.size(), length + 23);
        return std::to_string(support::wordAt(received->bytes, 12)) + ":" +
               std::string(received->bytes.begin() + 20,
                           received->bytes.begin() + 20 + static_cast<std::ptrdiff_t>(length));
    }
    void acknowledge(bool abort = false)
    {
        m_client.sendHex(std::string("01658812 00000007 00000096 0000000") + (abort ? "1" : "0"));
    }
    /// Of `size` characters, needing neither the built-in list nor a rewriting.
    static std::string plainList(std::size_t size)
    {
        std::string list = "<Preinstalled/>";
        while (list.size() < size) {
            list += static_cast<char>('a' + list.size() % 26);
        }
        return list;
    }
};

TEST_F(SwmiKpxListTest, isCollectedAcknowledgedAtOnceAndRewritten)
{
    startList();
    fromServer(withText("00000026 00000002 0809 1000", 3, "<Preinstalled/><ProdNbr>old</Prod"));
    EXPECT_THAT(sent(), ElementsAre("00000027 00000002 08091000"));
    fromServer(withText("00000026 00000002 0809 1001", 3, "Nbr><Rev>R1</Rev><ProdNbr></ProdNbr>"));
    EXPECT_THAT(sent(), ElementsAre("00000027 00000002 08091001", "00000028 00000002"));
    EXPECT_TRUE(m_client.nothingReceived());
    fromServer(withText("00000029 00000002", 1, "QXR1%2%3_R2B_x"));
    EXPECT_EQ(piece(), "1:<Preinstalled/><ProdNbr>QXR1/2%3</ProdNbr><Rev>R2B_x</Rev><ProdNbr>QXR1/2%3</"
                       "ProdNbr>");
    EXPECT_TRUE(nothingSent());
    acknowledge();
    acknowledge();
    fromServer("00000029 00000002 0a0141");
    EXPECT_TRUE(nothingSent()) << "it is over";
}

TEST_F(SwmiKpxListTest, withoutPreinstalledModuleTheBuiltInOneComesFirst)
{
    startList();
    fromServerInPieces("<?xml?>\n<LmcList>\n<Rev>R1</Rev></LmcList>\n");
    fromServer(withText("00000029 00000002", 1, "QXR%1_R2B"));
    const std::string whole =
        "<?xml?>\n<LmcList>\n<!-- QDA5560310/15 R91KT -->\n<ProdNbr>QXR/1</ProdNbr>\n"
        "<Rev>R2B</Rev>\n<Preinstalled/>\n<SwList>\n<ListItem>\n<ProdNbr>QXR/1</ProdNbr>\n"
        "<StartRev>R88TF</StartRev>\n<StopRev>R91KT</StopRev>\n</ListItem>\n</SwList>\n"
        "</LmcList>\n<LmcList>\n<Rev>R1</Rev></LmcList>\n";
    EXPECT_EQ(piece(), "0:" + whole.substr(0, 255));
    acknowledge();
    EXPECT_EQ(piece(), "1:" + whole.substr(255));
    acknowledge();
    EXPECT_EQ(piece(), "");
}

TEST_F(SwmiKpxListTest, withoutRunningSoftwareTheNumbersAreBlank)
{
    startList();
    fromServerInPieces("<Preinstalled/><ProdNbr>a</ProdNbr><Rev>b</Rev>");
    fromServer("0000002a 00000002 0801");
    EXPECT_EQ(piece(), "1:<Preinstalled/><ProdNbr></ProdNbr><Rev></Rev>");
}

TEST_F(SwmiKpxListTest, of255BytesIsOnePieceAndTheAcknowledgementClosesIt)
{
    startList();
    fromServerInPieces(plainList(255));
    fromServer("00000029 00000002");
    EXPECT_EQ(piece(), "1:" + plainList(255));
    (void)sent();
    acknowledge();
    EXPECT_TRUE(nothingSent());
    fromServer("00000029 00000002");
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiKpxListTest, of600BytesReachesTheClientAsTwoPieces)
{
    startList();
    fromServerInPieces(plainList(600));
    fromServer("00000029 00000002");
    EXPECT_EQ(piece(), "0:" + plainList(600).substr(0, 255));
    (void)sent();
    acknowledge();
    EXPECT_EQ(piece(), "0:" + plainList(600).substr(255, 255));
    acknowledge();
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiKpxListTest, of510BytesIsWhole)
{
    startList();
    fromServerInPieces(plainList(510));
    fromServer("00000029 00000002");
    EXPECT_EQ(piece(), "0:" + plainList(510).substr(0, 255));
    acknowledge();
    EXPECT_EQ(piece(), "1:" + plainList(510).substr(255));
}

TEST_F(SwmiKpxListTest, isGivenUpByTheClientWithoutAWordToTheServer)
{
    startList();
    fromServerInPieces(plainList(300));
    fromServer("00000029 00000002");
    (void)piece();
    (void)sent();
    acknowledge(true);
    acknowledge();
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiKpxListTest, anAcknowledgementBeforeItIsWholeGetsWhatThereIs)
{
    startList();
    acknowledge();
    EXPECT_TRUE(nothingSent());
    fromServer(withText("00000026 00000002 0809 1000", 3, "early"));
    (void)sent();
    acknowledge();
    EXPECT_EQ(piece(), "1:early");
    EXPECT_TRUE(nothingSent());
    fromServer(withText("00000026 00000002 0809 1001", 3, "<Preinstalled/>"));
    fromServer("00000029 00000002");
    EXPECT_EQ(piece(), "1:<Preinstalled/>");
}

TEST_F(SwmiKpxListTest, withoutItsTagItThrowsAndTheServerGoesOn)
{
    startList();
    fromServerInPieces("no list at all");
    const auto answer = [] {
        fromServer(withText("00000029 00000002", 1, "QXR_R2B"));
    };
    try {
        answer();
        ADD_FAILURE() << "Nothing was thrown";
    } catch (const std::out_of_range& error) {
        EXPECT_EQ(std::string(error.what()).substr(0, 21), "basic_string::replace");
    }
    (void)sent();
    EXPECT_TRUE(nothingSent());
    // The list as it came is still there for the client's next acknowledgement.
    acknowledge();
    EXPECT_EQ(piece(), "1:no list at all");
    acknowledge();
    EXPECT_TRUE(nothingSent());
    m_client.sendHex("01658813 00000007 00000096");
    EXPECT_THAT(sent(), ElementsAre("00000028 00000003"));
}

TEST_F(SwmiKpxListTest, aListWithoutEndIsNotKeptForEver)
{
    startList();
    auto frame = support::frameFromHex("00000026 00000002 0809 1aa08d06"); // 100,000 bytes
    frame.resize(frame.size() + 100000, 'x');
    for (int i = 0; i < 15; ++i) {
        support::VirtualSwmServer::send(frame);
    }
    EXPECT_EQ(sent().size(), 15U) << "acknowledgements";
    EXPECT_THAT(m_log.texts(Event::Error), ElementsAre("ABN: A list of software components of more than "
                                                       "1048576 bytes: what is behind is lost"));
}

TEST_F(SwmiKpxListTest, isForGsmClientsOfCompleteKpxUnitsOnly)
{
    struct {
        const char* productName;
        bool isComplete;
    } const rows[] = {{"KPY", true}, {"KP", true}, {"xKPX", true}, {"KPX 12", false}};
    startList();
    for (const auto& row : rows) {
        ProductInfo info;
        info.productName = row.productName;
        info.isComplete = row.isComplete;
        m_board.commonData().setProductInfoCache(info);
        fromServer("00000026 00000002 0809 1a0141");
        EXPECT_EQ(piece(), "0:A") << row.productName;
        EXPECT_TRUE(nothingSent());
    }
}

TEST_F(SwmiListTest, ofAKpxUnitIsPassedToOtherClients)
{
    ProductInfo info;
    info.productName = "KPX 12";
    info.isComplete = true;
    m_board.commonData().setProductInfoCache(info);
    startList();
    fromServer("00000026 00000002 0809 1a0141");
    EXPECT_EQ(m_client.receivedHex(), "01658811 00000007 0000012c 00000000 00000001 41000000");
}

} // namespace swmi
