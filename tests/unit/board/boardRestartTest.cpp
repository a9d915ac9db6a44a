#include "brhdTest.h"
#include "rowTest.h"

namespace merlow::board::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

Brhd::Config boardWith(std::vector<std::uint32_t> capabilities, std::vector<std::uint32_t> ranks,
                       std::uint32_t noticeMs)
{
    Brhd::Config config;
    config.board.description.bri.capabilities = std::move(capabilities);
    config.board.description.restart = {std::move(ranks), noticeMs};
    return config;
}

class BoardRestartTest : public BrhdTest {
protected:
    BoardRestartTest() : BoardRestartTest(Brhd::Config{}) {}

    explicit BoardRestartTest(Brhd::Config config) : BrhdTest(std::move(config))
    {
        receive(briMailbox, client, "0170772d 00000064 00000064 0801");
        m_outbox.takeSent();
    }

    void order(const std::string& body) { receive(briMailbox, client, "01707749 00000005 00000001" + body); }

    /// What legacyd says when it has told its clients.
    void clientsAreTold() { m_brhd.answered({}); }

    /// With a legacyd that answers at once.
    void expectRestartAfter(std::chrono::milliseconds notice)
    {
        clientsAreTold();
        m_outbox.advance(notice - std::chrono::milliseconds(1));
        EXPECT_THAT(m_outbox.ends, IsEmpty());
        m_outbox.advance(std::chrono::milliseconds(1));
        EXPECT_THAT(m_outbox.ends, ElementsAre(86));
    }

    void expectNoRestart(const std::string& logged)
    {
        expectSilence(logged);
        m_outbox.advance(std::chrono::hours(1));
        EXPECT_EQ(m_restartStore.saves, 0);
        EXPECT_THAT(m_outbox.asked, IsEmpty());
        EXPECT_THAT(m_outbox.ends, IsEmpty());
        EXPECT_EQ(statusAt("/bri/restartOrder"), nullptr);
    }
};

const std::string plainOrder = "0a034d5f31"   // load module "M_1"
                               "1203776879"   // trace information "why"
                               "189103 2802"; // code 401, rank 2
const std::string rankedOrder = "0a00 1203776879"
                                "18f0ffffffffffffffff01" // code -16
                                "22036c6162 2804";       // label "lab", rank 4

TEST_F(BoardRestartTest, aPlainOrderIsRecordedToldAndCarriedOut)
{
    order(plainOrder);
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty()) << "an order has no answer";
    EXPECT_EQ(m_restartStore.text, R"({"code":401,"initiator":"why","label":"","loadModule":"M_1","rank":2,)"
                                   R"("time":1000000789})"
                                   "\n");
    EXPECT_THAT(m_outbox.asked,
                ElementsAre(Pair("LegacydControl", // number, reference, {"code":401,"command":"restart"}
                                 textOf(messageFrom("42440001 00000001 7b22636f6465223a3430312c22636f6d6d616e"
                                                    "64223a2272657374617274227d")))));
    expectRestartAfter(std::chrono::milliseconds(1000));
    EXPECT_EQ(statusAt("/bri/restartOrder"),
              (nlohmann::json{{"code", 401}, {"rank", 2}, {"loadModule", "M_1"}}));
    EXPECT_EQ(statusAt("/bri/received/bri::RestartBoardFwd"), 1);
}

TEST_F(BoardRestartTest, anOrderWithRankAndLabelIsRecordedWithBoth)
{
    order(rankedOrder);
    EXPECT_EQ(m_restartStore.text, R"({"code":-16,"initiator":"why","label":"lab","loadModule":"","rank":4,)"
                                   R"("time":1000000789})"
                                   "\n");
    EXPECT_THAT(m_outbox.asked,
                ElementsAre(Pair("LegacydControl", // {"code":65520,"command":"restart"}
                                 textOf(messageFrom("42440001 00000001 7b22636f6465223a36353532302c22636f6d6d"
                                                    "616e64223a2272657374617274227d")))));
    expectRestartAfter(std::chrono::milliseconds(1000));
}

TEST_F(BoardRestartTest, anOrderThatTellsNothingOfItsInitiatorHasItsMailbox)
{
    order("189103 2802");
    EXPECT_THAT(m_restartStore.text, HasSubstr(R"("initiator":"the client at 0x20")"));
}

TEST_F(BoardRestartTest, ofSeveralOrdersTheFirstStands)
{
    order(plainOrder);
    order(rankedOrder);
    EXPECT_EQ(m_restartStore.saves, 1);
    EXPECT_EQ(m_outbox.asked.size(), 1u);
    EXPECT_THAT(m_outbox.takeAbnormal(), ElementsAre("ABN: dropped the restart order from 0x20: the board "
                                                     "restarts already"));
}

TEST_F(BoardRestartTest, anOrderThatCannotBeKeptIsNotCarriedOut)
{
    m_restartStore.saveError = "No space left on device";
    order(plainOrder);
    EXPECT_THAT(m_outbox.logged, testing::Contains(Pair(
                                     LogLevel::error, "the board does not restart: the order cannot be kept "
                                                      "in the store: No space left on device")));
    EXPECT_THAT(m_outbox.asked, IsEmpty());
    m_outbox.advance(std::chrono::hours(1));
    EXPECT_THAT(m_outbox.ends, IsEmpty());
    m_restartStore.saveError.clear();
    order(plainOrder);
    expectRestartAfter(std::chrono::milliseconds(1000));
}

TEST_F(BoardRestartTest, itWaitsUntilTheClientsAreTold)
{
    order(plainOrder);
    m_outbox.advance(std::chrono::milliseconds(1500));
    EXPECT_THAT(m_outbox.ends, IsEmpty());
    order(rankedOrder);
    EXPECT_THAT(m_outbox.takeAbnormal(), ElementsAre(HasSubstr("the board restarts already")));
    clientsAreTold();
    EXPECT_THAT(m_outbox.ends, ElementsAre(86));
    clientsAreTold();
    m_outbox.advance(std::chrono::hours(1));
    EXPECT_THAT(m_outbox.ends, ElementsAre(86));
}

TEST_F(BoardRestartTest, aLegacyServerThatDoesNotAnswerHoldsItUpForAWhile)
{
    clientsAreTold(); // of no restart
    order(plainOrder);
    m_outbox.advance(std::chrono::milliseconds(2999));
    EXPECT_THAT(m_outbox.ends, IsEmpty());
    m_outbox.advance(std::chrono::milliseconds(1));
    EXPECT_THAT(m_outbox.ends, ElementsAre(86));
}

/// brhd again, on what the one before it left.
class LeftOverRestartTest : public BoardRestartTest {
protected:
    void startAgain()
    {
        m_successor.reset();
        m_next = {};
        m_successor.emplace(
            Brhd::Config{}, [] { return 0; },
            BoardStores{m_store, m_restartStore, m_carriedOutStore, SqliteDatabase::inMemory}, m_next);
        m_successor->begin();
    }

    FakeOutbox m_next;
    std::optional<Brhd> m_successor;
};

TEST_F(LeftOverRestartTest, anOrderThatWasNotCarriedOutIsCarriedOutOnce)
{
    order(plainOrder);
    const std::string given = m_restartStore.text;
    startAgain();
    EXPECT_THAT(m_next.asked, ElementsAre(Pair("LegacydControl", HasSubstr("42440001 00000001"))));
    EXPECT_EQ(m_successor->status()["bri"]["restartOrder"]["loadModule"], "M_1");
    m_successor->answered({});
    m_next.advance(std::chrono::milliseconds(1000));
    EXPECT_THAT(m_next.ends, ElementsAre(86));
    EXPECT_EQ(m_restartStore.text, given);
    EXPECT_EQ(m_carriedOutStore.text, given);

    startAgain();
    m_next.advance(std::chrono::hours(1));
    EXPECT_THAT(m_next.asked, IsEmpty());
    EXPECT_THAT(m_next.ends, IsEmpty());
    EXPECT_EQ(m_successor->status()["bri"]["restartOrder"], nullptr);
}

TEST_F(LeftOverRestartTest, anOrderThatWasCarriedOutStaysAtThat)
{
    order(plainOrder);
    expectRestartAfter(std::chrono::milliseconds(1000));
    startAgain();
    EXPECT_THAT(m_next.asked, IsEmpty());
}

TEST_F(LeftOverRestartTest, withoutARecordOfItTheBoardDoesNotRestartAgainAndAgain)
{
    m_carriedOutStore.saveError = "No space left on device";
    order(plainOrder);
    expectRestartAfter(std::chrono::milliseconds(1000)); // it is the first time
    startAgain();
    m_successor->answered({});
    m_next.advance(std::chrono::hours(1));
    EXPECT_THAT(m_next.ends, IsEmpty());
    EXPECT_EQ(m_successor->status()["bri"]["restartOrder"], nullptr) << "the next order counts";
    EXPECT_THAT(m_next.logged,
                testing::Contains(Pair(LogLevel::error, "that the board restarts cannot be kept in the "
                                                        "store: No space left on device")));
}

TEST_F(LeftOverRestartTest, aRecordThatCannotBeReadRestartsNothing)
{
    m_restartStore.text = "{";
    startAgain();
    m_next.advance(std::chrono::hours(1));
    EXPECT_THAT(m_next.ends, IsEmpty());
    EXPECT_THAT(m_next.logged,
                testing::Contains(Pair(LogLevel::error, HasSubstr("the store cannot be read: "))));
}

TEST_F(BoardRestartTest, withoutATimerItEndsAtOnce)
{
    m_outbox.canDelay = false;
    order(plainOrder);
    EXPECT_THAT(m_outbox.ends, ElementsAre(86));
}

struct BadOrderRow {
    const char* body;
    const char* objection;
};

void PrintTo(const BadOrderRow& row, std::ostream* out)
{
    *out << row.body << ": " << row.objection;
}

class BadRestartOrderTest : public BoardRestartTest, public WithRow<BadOrderRow> {};

ROW_TEST(BadRestartOrderTest, isDropped)
{
    order(row().body);
    expectNoRestart(row().objection);
}

const BadOrderRow badOrderRows[] = {{"", "it has no code of 16 bits"},
                                    {"18808002 2802", "it has no code of 16 bits"},
                                    {"18fffffdffffffffffff01 2802", "it has no code of 16 bits"},
                                    {"189103 2200", "the board does not have its rank"},
                                    {"189103 2200 2806", "the board does not have its rank"},
                                    {"0a05", "does not parse"}};
TEST_ROWS(Orders, BadRestartOrderTest, badOrderRows);

TEST_F(BoardRestartTest, textsWithoutEndAreCutAndNamesOfModulesRefused)
{
    std::string tooLong = " 8120";
    for (int i = 0; i < 4097; ++i) {
        tooLong += "61";
    }
    order("189103 2802 0a" + tooLong);
    expectNoRestart("a load module's name of 4097 bytes");
    order("189103 2802 12" + tooLong);
    EXPECT_EQ(statusAt("/bri/restartOrder/code"), 401);
}

TEST_F(BoardRestartTest, codesOfAllSixteenBitsAreTaken)
{
    order("18ffff01 2802");
    EXPECT_EQ(statusAt("/bri/restartOrder/code"), 32767);
}

TEST_F(BoardRestartTest, aStrangersOrderIsDropped)
{
    receive(briMailbox, stranger, "01707749 00000005 00000001" + plainOrder);
    expectNoRestart("it has no connection with the reference 1");
}

TEST_F(BoardRestartTest, noPlanActsOnAnOrder)
{
    EXPECT_NE(plan("drop", "bri::RestartBoardFwd").result, ControlAnswer::Result::done);
    for (const AnswerKind& kind : m_brhd.kinds()) {
        EXPECT_NE(kind.name, "bri::RestartBoardFwd");
    }
}

class FewRanksTest : public BoardRestartTest {
protected:
    FewRanksTest() : BoardRestartTest(boardWith({11}, {3, 1}, 500)) {}
};

TEST_F(FewRanksTest, theBoardHasTheRanksOfItsDescription)
{
    order("189103 2200 2802");
    expectNoRestart("the board does not have its rank");
    order("189103 2200 2801");
    expectRestartAfter(std::chrono::milliseconds(500));
}

TEST_F(FewRanksTest, aPlainOrderNeedsNone)
{
    order("189103 2802");
    expectRestartAfter(std::chrono::milliseconds(500));
}

class NoRanksTest : public BoardRestartTest {
protected:
    NoRanksTest() : BoardRestartTest(boardWith({0}, {1, 2, 3, 4, 5}, 7)) {}
};

TEST_F(NoRanksTest, whatIsNotAnnouncedIsNotThere)
{
    order("189103 2200 2801");
    expectNoRestart("no restarts with rank and label");
    order(plainOrder);
    expectRestartAfter(std::chrono::milliseconds(7));
}

} // namespace
} // namespace merlow::board::test
