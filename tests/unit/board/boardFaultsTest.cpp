// Faults of the board as clients of the BRI server get them, byte for byte, and what of them outlives brhd.

#include "brhdTest.h"

namespace merlow::board::test {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Result = ControlAnswer::Result;

class BoardFaultsTest : public testing::Test {
protected:
    BoardFaultsTest() { start(); }

    /// brhd, or the one after it, with what the one before left in the store and nothing else.
    void start()
    {
        m_brhd = std::make_unique<Brhd>(
            Brhd::Config{}, [] { return 0; },
            BoardStores{m_store, m_restartStore, m_carriedOutStore, SqliteDatabase::inMemory}, m_outbox);
        m_brhd->attach("BriServer", briMailbox);
        m_brhd->attach("BmmiServer", bmmiMailbox);
        m_brhd->begin();
    }

    void receive(MailboxId sender, const std::string& text)
    {
        const HeapMessage message(messageFrom(text));
        m_brhd->receive({sender, briMailbox, message.bytes()});
    }

    /// All that goes out is for the clients of these calls, so the receiver stands in front of it.
    std::vector<std::string> taken()
    {
        std::vector<std::string> texts;
        for (const Sent& sent : m_outbox.takeSent()) {
            texts.push_back(hex(sent.to) + " " + sent.text);
            EXPECT_EQ(sent.from, briMailbox);
        }
        return texts;
    }

    void connect(MailboxId from, const std::string& clientRef = "00000064")
    {
        receive(from, "0170772d" + clientRef + clientRef + "0801");
        m_outbox.takeSent();
    }

    void subscribe(MailboxId from, const std::string& connectionRef, const std::string& procedureRef)
    {
        receive(from, "01707753" + procedureRef + connectionRef);
    }

    ControlAnswer fault(const char* action, json more = json::object())
    {
        more.update({{"command", "fault"}, {"action", action}});
        return serveControl(*m_brhd, more);
    }
    ControlAnswer raise(const std::string& id, json more = json::object())
    {
        more["id"] = id;
        return fault("raise", more);
    }
    ControlAnswer cease(const std::string& id) { return fault("cease", {{"id", id}}); }

    json bri() const { return m_brhd->status().at("bri"); }

    FakeStateStore m_store;
    FakeStateStore m_restartStore;
    FakeStateStore m_carriedOutStore;
    FakeOutbox m_outbox;
    std::unique_ptr<Brhd> m_brhd;
};

TEST_F(BoardFaultsTest, aSubscriptionIsConfirmedAndThenToldWhatIsActive)
{
    connect(client);
    raise("HW_FAULT", {{"case", 317}});
    raise("5");
    EXPECT_THAT(taken(), IsEmpty()) << "nobody has subscribed";
    subscribe(client, "00000001", "00000007");
    EXPECT_THAT(taken(),
                ElementsAre("0x20 01707754 00000007 00000064", "0x20 01707759 00000007 00000064 080010bd 02",
                            "0x20 01707759 00000007 00000064 08051000"));
    EXPECT_EQ(bri()["faultSubscribers"], json::parse(R"([{"connectionRef":1,"procedureRef":7}])"));
}

TEST_F(BoardFaultsTest, eachFaultIsIndicatedWithWhatItHas)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    taken();
    const struct {
        const char* id;
        json more;
        const char* body;
    } rows[] = {
        {"HW_FAULT", json::object(), "08001000"},
        {"HW_FAULT_FOR_EVALUATION_LTU_FAULT", json::object(), "08011000"},
        {"HW_FAULT_FOR_EVALUATION_INIT_FAULT", json::object(), "08021000"},
        {"HW_FAULT_FOR_EVALUATION", json::object(), "08031000"},
        {"EXCEPTIONAL_TEMPERATURE_TOO_LOW", json::object(), "08041000"},
        {"EXCEPTIONAL_TEMPERATURE_TOO_HIGH", {{"case", 4294967295U}}, "080510ff ffffff0f"},
        {"EXTERNAL_FAN_DEGRADED", json::object(), "08061000"},
        {"EXTERNAL_FAN_FAILED", {{"fan", "K"}, {"slot", 3}}, "08071000 1a050a01 4b1803"},
        {"EXTERNAL_FAN_DISCONNECTED", {{"fan", "K"}}, "08081000 1a030a01 4b"},
        {"POE_DEVICE_0_TEMP_EXC_HIGH", json::object(), "08091000"},
        {"0xa", json::object(), "080a1000"},
        {"EXTERNAL_POWER_SUPPLY_FAULT", json::object(), "080b1000"},
        {"EXTERNAL_FAN_HOST_DISCONNECTED", {{"fan", "K"}, {"parent", "P"}}, "080c1000 1a060a01 4b120150"},
        {"13", {{"fan", ""}, {"slot", 0}}, "080d1000 1a040a00 1800"},
    };
    for (const auto& [id, more, body] : rows) {
        EXPECT_EQ(raise(id, more).result, Result::done) << id;
        EXPECT_THAT(taken(), ElementsAre(std::string("0x20 01707759 00000007 00000064 ") + body)) << id;
    }
}

TEST_F(BoardFaultsTest, allSubscribersGetRaisesAndCeases)
{
    connect(client);
    connect(stranger, "00000065");
    subscribe(client, "00000001", "00000007");
    subscribe(stranger, "00000002", "00000009");
    taken();
    EXPECT_EQ(raise("EXTERNAL_FAN_DEGRADED", {{"case", 3}}).text, "EXTERNAL_FAN_DEGRADED (6) raised, case 3");
    EXPECT_THAT(taken(), ElementsAre("0x20 01707759 00000007 00000064 08061003",
                                     "0x30 01707759 00000009 00000065 08061003"));
    EXPECT_EQ(cease("6").text, "EXTERNAL_FAN_DEGRADED (6) ceased, case 3");
    EXPECT_THAT(taken(),
                ElementsAre("0x20 0170775a 00000007 00000064 0806", "0x30 0170775a 00000009 00000065 0806"));
    EXPECT_EQ(bri()["faults"], json::array());
}

TEST_F(BoardFaultsTest, aFaultRaisedTwiceIsTwoAndTheFirstGoesFirst)
{
    raise("HW_FAULT", {{"case", 1}});
    raise("HW_FAULT", {{"case", 2}});
    EXPECT_EQ(cease("HW_FAULT").text, "HW_FAULT (0) ceased, case 1");
    EXPECT_EQ(fault("list").data, json::parse(R"([{"id":0,"name":"HW_FAULT","case":2}])"));
    EXPECT_EQ(cease("0").text, "HW_FAULT (0) ceased, case 2");
    const auto none = cease("0");
    EXPECT_EQ(none.result, Result::notFound);
    EXPECT_EQ(none.text, "HW_FAULT (0) is not active");
}

TEST_F(BoardFaultsTest, theListHasAllThatAFaultHas)
{
    raise("EXTERNAL_FAN_FAILED", {{"case", 4}, {"fan", "F"}, {"parent", "P"}, {"slot", 2147483647}});
    EXPECT_EQ(fault("list").data,
              json::parse(R"([{"id":7,"name":"EXTERNAL_FAN_FAILED","case":4,"fan":"F","parent":"P",)"
                          R"("slot":2147483647}])"));
}

TEST_F(BoardFaultsTest, wrongRequestsChangeNothing)
{
    const std::pair<json, const char*> rows[] = {
        {{{"action", "raise"}}, "\"\" is no fault; there are HW_FAULT, HW_FAULT_FOR_EVALUATION_LTU_FAULT"},
        {{{"action", "raise"}, {"id", "hw_fault"}}, "\"hw_fault\" is no fault"},
        {{{"action", "raise"}, {"id", "14"}}, "\"14\" is no fault"},
        {{{"action", "raise"}, {"id", "-1"}}, "\"-1\" is no fault"},
        {{{"action", "raise"}, {"id", "4294967296"}}, "is no fault"},
        {{{"action", "raise"}, {"id", 5}}, "is no fault"},
        {{{"action", "cease"}, {"id", "x"}}, "\"x\" is no fault"},
        {{{"action", "raise"}, {"id", "0"}, {"case", -1}}, "the case must be a number"},
        {{{"action", "raise"}, {"id", "0"}, {"case", "1"}}, "the case must be a number"},
        {{{"action", "raise"}, {"id", "0"}, {"slot", 2147483648U}}, "the slot must be a number"},
        {{{"action", "raise"}, {"id", "0"}, {"fan", 1}}, "the fan's product number must be a text"},
        {{{"action", "raise"}, {"id", "0"}, {"parent", std::string(257, 'x')}},
         "the parent's product number"},
        {{{"action", "dance"}}, "the action is none of raise, cease, list"},
        {json::object(), "the action is none of raise, cease, list"},
    };
    for (const auto& [request, text] : rows) {
        json whole = request;
        whole["command"] = "fault";
        const auto answer = serveControl(*m_brhd, whole);
        EXPECT_EQ(answer.result, Result::usage) << request;
        EXPECT_THAT(answer.text, HasSubstr(text));
    }
    EXPECT_EQ(bri()["faults"], json::array());
    EXPECT_EQ(m_store.saves, 0);
}

TEST_F(BoardFaultsTest, theBoardHasNotFaultsWithoutEnd)
{
    for (std::size_t i = 0; i < BoardFaults::maxActive; ++i) {
        ASSERT_EQ(raise("HW_FAULT").result, Result::done);
    }
    EXPECT_EQ(raise("HW_FAULT").result, Result::refused);
    EXPECT_EQ(bri()["faults"].size(), BoardFaults::maxActive);
}

TEST_F(BoardFaultsTest, aLostFanHostCeasesAsTheFanThatItsIndicationDescribes)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    raise("12", {{"fan", "K"}});
    taken();
    EXPECT_EQ(cease("EXTERNAL_FAN_HOST_DISCONNECTED").result, Result::done);
    EXPECT_THAT(taken(), ElementsAre("0x20 0170775a 00000007 00000064 0808"));

    raise("12"); // nothing of the fan: no client takes it for one
    taken();
    EXPECT_EQ(cease("12").result, Result::done);
    EXPECT_THAT(taken(), ElementsAre("0x20 0170775a 00000007 00000064 080c"));
}

TEST_F(BoardFaultsTest, ofTwoThatClientsTakeForOneTheRightOneCeases)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    raise("8", {{"case", 1}});
    raise("12", {{"case", 2}, {"slot", 9}});
    raise("0");
    taken();
    EXPECT_EQ(cease("12").result, Result::done);
    EXPECT_THAT(taken(),
                ElementsAre("0x20 0170775a 00000007 00000064 0808", "0x20 0170775a 00000007 00000064 0808",
                            "0x20 01707759 00000007 00000064 08081001"))
        << "a single cease would have taken the first one";
    raise("12", {{"slot", 9}});
    taken();
    EXPECT_EQ(cease("8").result, Result::done);
    EXPECT_THAT(taken(), ElementsAre("0x20 0170775a 00000007 00000064 0808"));
}

TEST_F(BoardFaultsTest, aRepeatedSubscriptionIsToldAnewWithoutTellingTwice)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    raise("HW_FAULT");
    taken();
    subscribe(client, "00000001", "00000008");
    EXPECT_THAT(taken(),
                ElementsAre("0x20 01707754 00000008 00000064", "0x20 0170775a 00000008 00000064 0800",
                            "0x20 01707759 00000008 00000064 08001000"));
    raise("5");
    EXPECT_THAT(taken(), ElementsAre("0x20 01707759 00000008 00000064 08051000")) << "one subscription";
}

TEST_F(BoardFaultsTest, aDelayedOrLostConfirmDoesNotHoldTheFaults)
{
    connect(client);
    raise("HW_FAULT");
    serveControl(*m_brhd, {{"command", "plan"}, {"action", "drop"}, {"kind", "bri::SubscribeFaultsReq"}});
    subscribe(client, "00000001", "00000007");
    EXPECT_THAT(taken(), ElementsAre("0x20 01707759 00000007 00000064 08001000"));
    const auto refused = serveControl(
        *m_brhd, {{"command", "plan"}, {"action", "refuse"}, {"kind", "bri::SubscribeFaultsReq"}});
    EXPECT_EQ(refused.result, Result::refused);
    EXPECT_EQ(refused.text, "bri::SubscribeFaultsReq has no reject");
}

TEST_F(BoardFaultsTest, aSubscriptionThatDoesNotParseOrHasNoConnectionIsNone)
{
    connect(client);
    receive(client, "01707753 00000007 00000001 08");
    receive(client, "01707753 00000007 00000002");
    receive(stranger, "01707753 00000007 00000001");
    EXPECT_THAT(taken(), IsEmpty());
    EXPECT_EQ(bri()["faultSubscribers"], json::array());
}

TEST_F(BoardFaultsTest, aSubscriptionEndsWithItsConnectionAndTheMemoryDoesNot)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    raise("HW_FAULT");
    taken();
    EXPECT_EQ(m_brhd->lose("bri", 1).result, Result::done);
    cease("HW_FAULT");
    raise("EXTERNAL_FAN_DEGRADED");
    EXPECT_THAT(taken(), IsEmpty());
    connect(client);
    subscribe(client, "00000002", "00000009");
    EXPECT_THAT(taken(),
                ElementsAre("0x20 01707754 00000009 00000064", "0x20 0170775a 00000009 00000064 0800",
                            "0x20 01707759 00000009 00000064 08061000"));
}

TEST_F(BoardFaultsTest, anotherClientOfTheSameMailboxWasToldNothing)
{
    connect(client, "00000064");
    subscribe(client, "00000001", "00000007");
    raise("HW_FAULT");
    connect(client, "00000065");
    taken();
    subscribe(client, "00000002", "00000007");
    EXPECT_THAT(taken(),
                ElementsAre("0x20 01707754 00000007 00000065", "0x20 01707759 00000007 00000065 08001000"));
}

TEST_F(BoardFaultsTest, theNextProcessKnowsWhatIsActiveAndWhatClientsWereTold)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    raise("HW_FAULT", {{"case", 1}});
    raise("HW_FAULT", {{"case", 2}});
    raise("12", {{"case", 3}, {"fan", "F"}, {"parent", "P"}, {"slot", 4}});
    const json before = fault("list").data;
    taken();
    m_outbox.watched.clear();
    start();
    EXPECT_EQ(m_outbox.watched, std::set<MailboxId>{client});
    EXPECT_EQ(fault("list").data, before);
    EXPECT_EQ(bri()["faultSubscribers"], json::array());

    connect(client);
    subscribe(client, "00000001", "00000009");
    EXPECT_THAT(taken(),
                ElementsAre("0x20 01707754 00000009 00000064", "0x20 0170775a 00000009 00000064 0800",
                            "0x20 0170775a 00000009 00000064 0800", "0x20 0170775a 00000009 00000064 0808",
                            "0x20 01707759 00000009 00000064 08001001",
                            "0x20 01707759 00000009 00000064 08001002",
                            "0x20 01707759 00000009 00000064 080c1003 1a080a01 46120150 1804"));
}

TEST_F(BoardFaultsTest, aCeaseWhileNobodyListensReachesTheClientThatComesBack)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    raise("HW_FAULT");
    taken();
    start();
    cease("HW_FAULT");
    connect(client);
    subscribe(client, "00000001", "00000009");
    EXPECT_THAT(taken(),
                ElementsAre("0x20 01707754 00000009 00000064", "0x20 0170775a 00000009 00000064 0800"));
    start();
    connect(client);
    subscribe(client, "00000001", "0000000a");
    EXPECT_THAT(taken(), ElementsAre("0x20 01707754 0000000a 00000064")) << "once is enough";
}

/// Dies in the middle of what is sent: whatever had gone out by then, the memory covers it.
class DyingOutbox : public FakeOutbox {
public:
    void send(MailboxId from, MailboxId to, BytesView message) override
    {
        FakeOutbox::send(from, to, message);
        stored.push_back(store->text);
    }

    FakeStateStore* store = nullptr;
    std::vector<std::string> stored; ///< what a successor would find, for each message sent
};

TEST(BoardFaultsDeathTest, aFaultIsRememberedBeforeItIsToldAndForgottenAfterItsCease)
{
    FakeStateStore store;
    FakeStateStore restartStore;
    DyingOutbox outbox;
    outbox.store = &store;
    Brhd brhd(
        Brhd::Config{}, [] { return 0; }, {store, restartStore, restartStore, SqliteDatabase::inMemory},
        outbox);
    brhd.attach("BriServer", briMailbox);
    const auto receive = [&brhd](const char* text) {
        const HeapMessage message(messageFrom(text));
        brhd.receive({client, briMailbox, message.bytes()});
    };
    const auto told = [&outbox](std::size_t index) {
        const auto state = json::parse(outbox.stored.at(index), nullptr, false);
        return state.value("told", json::array()).empty() ? json::array() : state["told"][0]["ids"];
    };
    receive("0170772d 00000064 00000064 0801");
    receive("01707753 00000007 00000001");
    outbox.stored.clear();
    serveControl(brhd, {{"command", "fault"}, {"action", "raise"}, {"id", "5"}});
    serveControl(brhd, {{"command", "fault"}, {"action", "cease"}, {"id", "5"}});
    ASSERT_EQ(outbox.stored.size(), 2u);
    EXPECT_EQ(told(0), json::array({5})) << "before the indication goes out";
    EXPECT_EQ(told(1), json::array({5})) << "still when the cease goes out";
    EXPECT_EQ(json::parse(store.text)["told"], json::array());

    serveControl(brhd, {{"command", "fault"}, {"action", "raise"}, {"id", "5"}});
    serveControl(brhd, {{"command", "lose"}, {"server", "bri"}, {"ref", 1}});
    serveControl(brhd, {{"command", "fault"}, {"action", "cease"}, {"id", "5"}});
    serveControl(brhd, {{"command", "fault"}, {"action", "raise"}, {"id", "6"}});
    receive("0170772d 00000064 00000064 0801");
    outbox.stored.clear();
    receive("01707753 00000007 00000002");
    ASSERT_EQ(outbox.stored.size(), 3u);
    EXPECT_EQ(told(1), json::array({5})) << "while what was told is ceased";
    EXPECT_EQ(told(2), json::array({6})) << "before what stands is indicated";
}

TEST_F(BoardFaultsTest, aClientsDeathEndsTheMemoryOfIt)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    raise("HW_FAULT");
    EXPECT_EQ(bri()["faultMemory"]["clients"], 1);
    m_brhd->mailboxGone(client);
    EXPECT_EQ(bri()["faultMemory"]["clients"], 0);
    EXPECT_EQ(bri()["faultSubscribers"], json::array());
    taken();
    raise("5");
    EXPECT_THAT(taken(), IsEmpty());
    start();
    connect(client);
    subscribe(client, "00000001", "00000007");
    EXPECT_THAT(taken(),
                ElementsAre("0x20 01707754 00000007 00000064", "0x20 01707759 00000007 00000064 08001000",
                            "0x20 01707759 00000007 00000064 08051000"));
}

TEST_F(BoardFaultsTest, whoCannotBeWatchedIsNotRemembered)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    raise("HW_FAULT");
    m_outbox.canWatch = false;
    start();
    EXPECT_EQ(bri()["faultMemory"]["clients"], 0);
    EXPECT_EQ(bri()["faults"].size(), 1u);
}

TEST_F(BoardFaultsTest, theMemoryDoesNotGrowWithoutEnd)
{
    raise("HW_FAULT");
    for (std::uint32_t ref = 1; ref <= BoardFaults::maxRemembered + 2; ++ref) {
        Bytes connecting;
        putHost32(connecting, 0x170772D);
        putNetwork32(connecting, ref);
        putNetwork32(connecting, ref);
        putNetwork16(connecting, 0x0801);
        m_brhd->receive({client, briMailbox, connecting});
        Bytes subscribing;
        putHost32(subscribing, 0x1707753);
        putNetwork32(subscribing, 1);
        putNetwork32(subscribing, ref);
        m_brhd->receive({client, briMailbox, subscribing});
        ASSERT_EQ(m_brhd->lose("bri", ref).result, Result::done);
        m_outbox.takeSent();
    }
    EXPECT_EQ(bri()["faultMemory"]["clients"], BoardFaults::maxRemembered);
    EXPECT_THAT(m_outbox.takeAbnormal(), testing::SizeIs(2));
}

TEST_F(BoardFaultsTest, whatCannotBeSavedIsToldAndTheFaultStands)
{
    connect(client);
    subscribe(client, "00000001", "00000007");
    taken();
    m_store.saveError = "No space left on device";
    EXPECT_EQ(raise("HW_FAULT").result, Result::done);
    EXPECT_THAT(taken(), ElementsAre("0x20 01707759 00000007 00000064 08001000"));
    EXPECT_EQ(bri()["faultMemory"]["error"], "cannot be written: No space left on device");
    EXPECT_THAT(m_outbox.logged.back().second, "the store cannot be written: No space left on device");
    m_store.saveError.clear();
    cease("HW_FAULT");
    EXPECT_EQ(bri()["faultMemory"]["error"], "");
}

TEST_F(BoardFaultsTest, aStoreThatHoldsNoFaultsIsPassedOver)
{
    const char* const texts[] = {
        "{",
        "[]",
        "{}",
        R"({"active":[],"told":5})",
        R"({"active":5,"told":[]})",
        R"({"active":[5],"told":[]})",
        R"({"active":[{"id":14}],"told":[]})",
        R"({"active":[{"id":-1}],"told":[]})",
        R"({"active":[{"case":1}],"told":[]})",
        R"({"active":[{"id":1,"case":"x"}],"told":[]})",
        R"({"active":[],"told":[5]})",
        R"({"active":[],"told":[{"mailbox":1}]})",
        R"({"active":[],"told":[{"mailbox":1,"clientRef":1}]})",
        R"({"active":[],"told":[{"mailbox":1,"clientRef":1,"ids":[14]}]})",
        R"({"active":[],"told":[{"mailbox":1,"clientRef":1,"ids":["x"]}]})",
        R"({"active":[{"id":1,"case":1}],"told":[{"mailbox":-1,"clientRef":1,"ids":[1]}]})",
    };
    for (const char* text : texts) {
        m_store.text = text;
        start();
        EXPECT_EQ(bri()["faults"], json::array()) << text;
        EXPECT_EQ(bri()["faultMemory"]["clients"], 0) << text;
        EXPECT_EQ(bri()["faultMemory"]["error"], "holds no faults that can be read") << text;
    }
    m_store.loadError = "Permission denied";
    start();
    EXPECT_EQ(bri()["faultMemory"]["error"], "cannot be read: Permission denied");
}

} // namespace
} // namespace merlow::board::test
