// What MMI users do: the maintenance state, the lamps, Here I Am.

#include "brhdTest.h"
#include "rowTest.h"
#include "statusText.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace merlow::board::test {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Two connections, of which each has one user: client 0x65 user 1, client 0x66 user 2.
class MmiTest : public BrhdTest {
protected:
    static constexpr MailboxId other = 0x21;

    explicit MmiTest(Brhd::Config config = {}) : BrhdTest(std::move(config))
    {
        receive(bmmiMailbox, client, "01707570 00000065 00000065 0801");
        receive(bmmiMailbox, other, "01707570 00000066 00000066 0801");
        receive(bmmiMailbox, client, "01707580 00000001 00000001 0801");
        receive(bmmiMailbox, other, "01707580 00000001 00000002 0801");
        m_outbox.takeSent();
    }

    std::string ask(const std::string& text) { return BrhdTest::ask(bmmiMailbox, text); }

    /// What is sent when `text` comes from `sender`.
    std::vector<Sent> sentFor(MailboxId sender, const std::string& text)
    {
        receive(bmmiMailbox, sender, text);
        return m_outbox.takeSent();
    }

    static Sent toClient(const std::string& text) { return {bmmiMailbox, client, text}; }
    static Sent toOther(const std::string& text) { return {bmmiMailbox, other, text}; }

    ControlAnswer serviceMan(bool isPresent)
    {
        return serveControl(m_brhd, {{"command", "serviceman"}, {"present", isPresent}});
    }

    void subscribeBoth(const std::string& number)
    {
        receive(bmmiMailbox, client, number + " 00000007 00000001 0801");
        receive(bmmiMailbox, other, number + " 00000008 00000002 0802");
        m_outbox.takeSent();
    }
};

TEST(MaintStateTest, goesItsWay)
{
    using Outcome = MaintState::Outcome;
    const MaintState::State states[] = {MaintState::normal, MaintState::requested, MaintState::ongoing,
                                        MaintState::workDone};
    const bool allowed[4][4] = {{true, true, false, false},
                                {true, true, true, false},
                                {false, false, true, true},
                                {true, true, false, true}};
    for (int from = 0; from < 4; ++from) {
        for (int to = 0; to < 4; ++to) {
            MaintState state;
            for (int step = 1; step <= from; ++step) {
                ASSERT_EQ(state.order(states[step]), Outcome::done);
            }
            const bool isAllowed = allowed[from][to];
            EXPECT_EQ(state.order(states[to]), isAllowed ? Outcome::done : Outcome::illegalTransition);
            EXPECT_EQ(state.state(), states[isAllowed ? to : from]) << from << " to " << to;
        }
    }
}

TEST_F(MmiTest, maintenanceOrdersAreConfirmedOrIllegal)
{
    EXPECT_EQ(ask("01707573 00000002 00000001 08011001"), "01707574 00000002 00000065");
    EXPECT_EQ(ask("01707573 00000003 00000001 08011003"), "01707575 00000003 00000065 0802");
    EXPECT_EQ(statusAt("/bmmi/maintenance/name"), "requested");
}

TEST_F(MmiTest, nobodyOrdersTheStateOfAServiceMan)
{
    EXPECT_EQ(ask("01707573 00000002 00000001 08011004"), "01707575 00000002 00000065 0802");
}

TEST_F(MmiTest, aMaintenanceOrderNeedsAUserOfItsConnectionAndAState)
{
    for (const char* body : {"08021001", "08001001", "1001", "0801", "08011005", ""}) {
        EXPECT_EQ(ask(std::string("01707573 00000002 00000001") + body), "01707575 00000002 00000065 0800")
            << body;
    }
    EXPECT_EQ(statusAt("/bmmi/maintenance/state"), 0);
}

TEST_F(MmiTest, aServiceManIsAStateOfItsOwnAndTakesNoOrders)
{
    ask("01707573 00000002 00000001 08011001");
    EXPECT_EQ(serviceMan(true).text, "a service man is at the unit, maintenance state serviceman");
    EXPECT_EQ(statusAt("/bmmi/maintenance/state"), 4);
    for (const char* state : {"00", "01", "02", "04"}) {
        EXPECT_EQ(ask(std::string("01707573 00000002 00000001 080110") + state),
                  "01707575 00000002 00000065 0803");
    }
    EXPECT_EQ(serviceMan(false).text, "no service man is at the unit, maintenance state requested");
    EXPECT_EQ(ask("01707573 00000002 00000001 08011002"), "01707574 00000002 00000065");
    for (const nlohmann::json& request : {nlohmann::json({{"command", "serviceman"}}),
                                          nlohmann::json({{"command", "serviceman"}, {"present", "on"}})}) {
        EXPECT_EQ(serveControl(m_brhd, request).result, ControlAnswer::Result::usage);
    }
}

TEST_F(MmiTest, subscribersAreToldTheMaintenanceStateAndEachChange)
{
    EXPECT_THAT(
        sentFor(client, "01707577 00000007 00000001 0801"),
        ElementsAre(toClient("01707578 00000007 00000065"), toClient("01707576 00000007 00000065 0800")));
    EXPECT_THAT(
        sentFor(other, "01707573 00000002 00000002 08021001"),
        ElementsAre(toOther("01707574 00000002 00000066"), toClient("01707576 00000007 00000065 0801")));
    EXPECT_THAT(
        sentFor(other, "01707577 00000008 00000002 0802"),
        ElementsAre(toOther("01707578 00000008 00000066"), toOther("01707576 00000008 00000066 0801")));
    EXPECT_THAT(sentFor(client, "01707573 00000003 00000001 08011001"),
                ElementsAre(toClient("01707574 00000003 00000065")))
        << "no change";
    serviceMan(true);
    EXPECT_THAT(m_outbox.takeSent(), ElementsAre(toClient("01707576 00000007 00000065 0804"),
                                                 toOther("01707576 00000008 00000066 0804")));
    serviceMan(true);
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
    serviceMan(false);
    EXPECT_THAT(m_outbox.takeSent(), ElementsAre(toClient("01707576 00000007 00000065 0801"),
                                                 toOther("01707576 00000008 00000066 0801")));
}

TEST_F(MmiTest, aUserMaySubscribeTwice)
{
    subscribeBoth("01707577");
    receive(bmmiMailbox, client, "01707577 00000009 00000001 0801");
    m_outbox.takeSent();
    EXPECT_EQ(statusAt("/bmmi/maintenance/subscribers"), 3);
    serviceMan(true);
    EXPECT_THAT(m_outbox.takeSent(), ElementsAre(toClient("01707576 00000007 00000065 0804"),
                                                 toClient("01707576 00000009 00000065 0804"),
                                                 toOther("01707576 00000008 00000066 0804")));
}

/// Requests that subscribe, by their number, the reject's and where the count stands.
struct SubscriptionRow {
    const char* name;
    const char* request;
    const char* reject;
    const char* count;
};

class MmiSubscriptionTest : public MmiTest, public WithRow<SubscriptionRow> {};

ROW_TEST(MmiSubscriptionTest, needsAUserOfItsConnection)
{
    for (const char* body : {"0802", "0800", ""}) {
        EXPECT_EQ(ask(std::string(row().request) + " 00000007 00000001" + body),
                  std::string(row().reject) + " 00000007 00000065");
    }
    EXPECT_EQ(statusAt(row().count), 0);
}

ROW_TEST(MmiSubscriptionTest, endsWithItsUser)
{
    subscribeBoth(row().request);
    EXPECT_EQ(statusAt(row().count), 2);
    ask("01707583 00000009 00000001 0801");
    EXPECT_EQ(statusAt(row().count), 1);
    ask("01707583 00000009 00000001 0802"); // of the other connection
    EXPECT_EQ(statusAt(row().count), 1);
}

ROW_TEST(MmiSubscriptionTest, endsWithItsConnection)
{
    subscribeBoth(row().request);
    m_brhd.mailboxGone(client);
    EXPECT_EQ(statusAt(row().count), 1);
    receive(bmmiMailbox, other, "01707570 00000066 00000066 0801"); // it establishes anew
    EXPECT_EQ(statusAt(row().count), 0);
}

ROW_TEST(MmiSubscriptionTest, hasItsLimitOnEachConnection)
{
    const std::string request = row().request;
    for (unsigned ref = 0; ref < 4096; ++ref) {
        const std::string digits = std::to_string(10'000 + ref); // as good as any reference
        receive(bmmiMailbox, client, request + " 000" + digits + " 00000001 0801");
    }
    m_outbox.takeSent();
    EXPECT_EQ(statusAt(row().count), 4096);
    EXPECT_EQ(ask(request + " 00000001 00000001 0801"), std::string(row().reject) + " 00000001 00000065");
    EXPECT_EQ(sentFor(other, request + " 00000007 00000002 0802").size(), 2u);
}

const SubscriptionRow subscriptionRows[] = {
    {"maintenanceState", "01707577", "01707579", "/bmmi/maintenance/subscribers"},
    {"hereIAm", "0170758f", "01707591", "/bmmi/hereIAm/subscribers"}};
TEST_ROWS(all, MmiSubscriptionTest, subscriptionRows);

/// A visual state, what is read once it is set, and its lamp in the row.
struct VisualRow {
    unsigned state;
    const char* read;
    const char* lamp;
};

void PrintTo(const VisualRow& row, std::ostream* out)
{
    *out << row.state;
}

class MmiLampTest : public MmiTest, public WithRow<VisualRow> {};

ROW_TEST(MmiLampTest, isSetAndReadBack)
{
    std::string set = "01707586 00000002 00000001 08011000";
    const std::string digits = "0123456789abcdef";
    set[set.size() - 2] = digits.at(row().state >> 4U);
    set[set.size() - 1] = digits.at(row().state & 0xFU);
    EXPECT_EQ(ask(set), "01707587 00000002 00000065");
    EXPECT_EQ(ask("01707589 00000003 00000001 0801"),
              std::string("0170758a 00000003 00000065 ") + row().read);
    const auto lamps = serveControl(m_brhd, {{"command", "leds"}}).data;
    EXPECT_THAT(ledsText(lamps, false), HasSubstr(row().lamp));
}

const VisualRow visualRows[] = {{1, "08021005 18022001", "group1 (*) green   "},
                                {2, "08021006 18022001", "group1 (*) green flashing"},
                                {3, "08021001 18022001", "group1 (*) yellow   "},
                                {4, "08021002 18022001", "group1 (*) yellow flashing"},
                                {5, "08021003 18022001", "group1 (*) red   "},
                                {6, "08021003 18022001", "group1 (*) red flashing"},
                                {7, "08021004 18022001", "group1 (*) blue   "},
                                {8, "08021004 18022001", "group1 (*) blue flashing"},
                                {9, "08021005 18022001", "group4 ( ) off"},
                                {10, "08011005 18022001", "group4 (*) green   "},
                                {11, "08021005 18022001", "group3 ( ) off"},
                                {12, "08021005 18012001", "group3 (*) green   "},
                                {13, "08021005 18042001", "group3 (*) yellow   "},
                                {14, "08021005 18042001", "group3 (*) yellow flashing"},
                                {15, "08021005 18032001", "group3 (*) red   "},
                                {16, "08021005 18032001", "group3 (*) red flashing"},
                                {17, "08021005 18022001", "supportUnit ( ) off\n"},
                                {18, "08021005 18022002", "supportUnit (*) red\n"},
                                {19, "08021005 18022001", "group0 ( ) off"},
                                {20, "08021005 18022001", "group0 (*) white   "}};
TEST_ROWS(all, MmiLampTest, visualRows);

TEST_F(MmiTest, lampsAreForUsersAndKeepTheirStates)
{
    for (const char* body : {"08021001", "1001", "0801", "08011015", "08011000"}) {
        EXPECT_EQ(ask(std::string("01707586 00000002 00000001") + body), "01707588 00000002 00000065")
            << body;
    }
    EXPECT_EQ(ask("01707589 00000003 00000001 0802"), "0170758b 00000003 00000065");
    ask("01707586 00000002 00000001 08011005");
    ask("01707586 00000002 00000001 08011012");
    EXPECT_THAT(sentFor(other, "01707589 00000003 00000002 0802"),
                ElementsAre(toOther("0170758a 00000003 00000066 08021003 18022002")))
        << "one state for all users";
    EXPECT_EQ(ledsText(serveControl(m_brhd, {{"command", "leds"}}).data, false),
              "group0 ( ) off   group1 (*) red   group3 ( ) off   group4 ( ) off   supportUnit (*) red\n");
}

TEST_F(MmiTest, hereIAmIsSwitchedAndToldToAll)
{
    EXPECT_THAT(
        sentFor(client, "0170758f 00000007 00000001 0801"),
        ElementsAre(toClient("01707590 00000007 00000065"), toClient("01707595 00000007 00000065 0802")));
    subscribeBoth("0170758f");
    EXPECT_THAT(sentFor(client, "0170758c 00000007 00000001 08011001"),
                ElementsAre(toClient("0170758d 00000007 00000065 0a0f6f6e 20666f72 20363030 3030206d 731001"),
                            toClient("01707595 00000007 00000065 0801"),
                            toOther("01707595 00000008 00000066 0801")));
    EXPECT_THAT(sentFor(client, "0170758c 00000007 00000001 08011001").size(), 1u) << "it is on already";
    EXPECT_THAT(sentFor(other, "0170758c 00000008 00000002 08021002"),
                ElementsAre(toOther("0170758d 00000008 00000066 0a036f66 661002"),
                            toClient("01707595 00000007 00000065 0802"),
                            toOther("01707595 00000008 00000066 0802")));
    EXPECT_THAT(sentFor(other, "0170758c 00000008 00000002 08021002").size(), 1u) << "it is off already";
}

TEST_F(MmiTest, anOrderOfHereIAmNeedsAUserOfItsConnectionAndAnOrder)
{
    for (const char* body : {"08021001", "1001", "0801", "08011000", "08011003", ""}) {
        EXPECT_EQ(ask(std::string("0170758c 00000007 00000001") + body), "0170758e 00000007 00000065")
            << body;
    }
    EXPECT_EQ(statusAt("/bmmi/hereIAm/on"), false);
}

TEST_F(MmiTest, hereIAmEndsByItself)
{
    using std::chrono::milliseconds;
    subscribeBoth("0170758f");
    ask("0170758c 00000007 00000001 08011001");
    m_outbox.takeSent();
    m_outbox.advance(milliseconds(59'999));
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
    EXPECT_EQ(statusAt("/bmmi/hereIAm/leftMs"), 1);
    m_outbox.advance(milliseconds(1));
    EXPECT_THAT(m_outbox.takeSent(), ElementsAre(toClient("01707595 00000007 00000065 0802"),
                                                 toOther("01707595 00000008 00000066 0802")));
    EXPECT_EQ(statusAt("/bmmi/hereIAm/on"), false);
    EXPECT_EQ(statusAt("/bmmi/hereIAm/leftMs"), 0);
}

TEST_F(MmiTest, hereIAmHasItsWholeTimeWhenItIsStartedAgain)
{
    using std::chrono::milliseconds;
    const auto order = [this](const char* value) {
        ask(std::string("0170758c 00000007 00000001 080110") + value);
    };
    order("01");
    m_outbox.advance(milliseconds(40'000));
    order("01");
    m_outbox.advance(milliseconds(59'999));
    EXPECT_EQ(statusAt("/bmmi/hereIAm/on"), true);
    m_outbox.advance(milliseconds(1));
    EXPECT_EQ(statusAt("/bmmi/hereIAm/on"), false);

    order("01");
    order("02");
    m_outbox.advance(milliseconds(30'000));
    order("01");
    m_outbox.advance(milliseconds(59'999));
    EXPECT_EQ(statusAt("/bmmi/hereIAm/on"), true) << "what was stopped ends nothing";
    m_outbox.advance(milliseconds(1));
    EXPECT_EQ(statusAt("/bmmi/hereIAm/on"), false);
}

TEST_F(MmiTest, hereIAmIsNotStartedWhenNothingWouldEndIt)
{
    m_outbox.canDelay = false;
    EXPECT_EQ(ask("0170758c 00000007 00000001 08011001"), "0170758e 00000007 00000065");
    EXPECT_EQ(statusAt("/bmmi/hereIAm/on"), false);
    m_outbox.canDelay = true;
    ask("0170758c 00000007 00000001 08011001");
    m_outbox.advance(std::chrono::milliseconds(1000));
    ask("0170758c 00000007 00000001 08011001");
    m_outbox.canDelay = false;
    m_outbox.advance(std::chrono::milliseconds(59'000));
    EXPECT_EQ(statusAt("/bmmi/hereIAm/on"), false) << "rather too early than never";
}

TEST_F(MmiTest, manyOrdersWaitForOneEnd)
{
    for (int round = 0; round < 1000; ++round) {
        ask("0170758c 00000007 00000001 08011001");
        ask("0170758c 00000007 00000001 08011002");
    }
    EXPECT_EQ(m_outbox.dueActions(), 1u);
}

TEST_F(MmiTest, statusShowsItAll)
{
    subscribeBoth("01707577");
    ask("0170758c 00000007 00000001 08011001");
    serviceMan(true);
    EXPECT_THAT(brhdStatusText(m_brhd.status()),
                HasSubstr("    lamps: group0 ( ) off   group1 (*) green   group3 ( ) off   group4 ( ) off   "
                          "supportUnit ( ) off\n"
                          "    maintenance state serviceman, a service man is at the unit, 2 subscribed\n"
                          "    Here I Am on for 60000 ms, 0 subscribed\n"));
}

TEST(LedsTextTest, lampsHaveTheirColoursOnATerminal)
{
    const nlohmann::json lamps{{{"lamp", "a"}, {"colour", "red"}, {"flashes", false}},
                               {{"lamp", "b"}, {"colour", "green"}, {"flashes", true}},
                               {{"lamp", "c"}, {"colour", "off"}, {"flashes", false}},
                               {{"lamp", "d"}, {"colour", "pink"}}};
    EXPECT_EQ(ledsText(lamps, true), "a \033[1;31m(*)\033[0m red   b \033[1;5;32m(*)\033[0m green flashing   "
                                     "c ( ) off   d (*) pink\n");
    EXPECT_EQ(ledsText(nlohmann::json::array({5, nullptr}), true), "- ( ) -   - ( ) -\n");
}

/// A machine's LEDs: a folder for each, with what the kernel has in it.
class LedFolder {
public:
    LedFolder()
    {
        std::string path = fs::temp_directory_path() / "merlow-leds.XXXXXX";
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_path = path;
        for (const char* led : {"green", "red", "fault"}) {
            fs::create_directory(m_path / led);
            write(std::string(led) + "/brightness", "9");
        }
        write("green/trigger", "mmc0");
        write("green/max_brightness", "255\n");
        write("red/trigger", "mmc0");
        write("red/max_brightness", "bright\n");
    }
    ~LedFolder() { fs::remove_all(m_path); }
    LedFolder(const LedFolder&) = delete;
    LedFolder& operator=(const LedFolder&) = delete;

    const fs::path& path() const { return m_path; }

    void write(const std::string& attribute, const std::string& text) const
    {
        std::ofstream(m_path / attribute) << text;
    }

    std::string read(const std::string& attribute) const
    {
        std::string text;
        std::ifstream file(m_path / attribute);
        std::getline(file, text);
        return text;
    }

private:
    fs::path m_path;
};

TEST(LedClassTest, switchesBrightnessAndTrigger)
{
    const LedFolder folder;
    const LedClass leds(folder.path());
    EXPECT_EQ(leds.show("green", Light::lit), "");
    EXPECT_EQ(folder.read("green/brightness"), "255");
    EXPECT_EQ(folder.read("green/trigger"), "none");
    EXPECT_EQ(leds.show("green", Light::flashing), "");
    EXPECT_EQ(folder.read("green/brightness"), "255");
    EXPECT_EQ(folder.read("green/trigger"), "timer");
    EXPECT_EQ(leds.show("green", Light::dark), "");
    EXPECT_EQ(folder.read("green/brightness"), "0");
    EXPECT_EQ(folder.read("green/trigger"), "none");
    EXPECT_EQ(leds.show("red", Light::lit), "");
    EXPECT_EQ(folder.read("red/brightness"), "1") << "how bright it can be makes no sense";
}

TEST(LedClassTest, tellsWhatCannotBeSwitched)
{
    const LedFolder folder;
    const LedClass leds(folder.path());
    EXPECT_EQ(leds.show("fault", Light::lit), "");
    EXPECT_EQ(folder.read("fault/brightness"), "1");
    EXPECT_EQ(leds.show("fault", Light::flashing), "trigger: No such file or directory");
    EXPECT_EQ(folder.read("fault/brightness"), "1") << "lit at least";
    EXPECT_FALSE(fs::exists(folder.path() / "fault/trigger")) << "nothing is made";
    EXPECT_EQ(leds.show("gone", Light::dark), "brightness: No such file or directory");
    fs::remove(folder.path() / "fault/brightness");
    ASSERT_EQ(mkfifo((folder.path() / "fault/brightness").c_str(), 0600), 0);
    EXPECT_EQ(leds.show("fault", Light::lit), "brightness: No such device or address");
}

class MmiLedTest : protected LedFolder, public MmiTest {
protected:
    MmiLedTest() : MmiTest(withLeds(path())) {}

    static Brhd::Config withLeds(const fs::path& folder)
    {
        Brhd::Config config;
        config.ledFolder = folder;
        config.board.description.bmmi.leds = {
            {1, "green", "green"}, {1, "red", "red"}, {4, std::nullopt, "fault"}, {0, "white", "gone"}};
        return config;
    }

    std::string leds() const
    {
        return read("green/brightness") + read("red/brightness") + read("fault/brightness");
    }

    void show(const char* state) { ask(std::string("01707586 00000002 00000001 080110") + state); }
};

TEST_F(MmiLedTest, lampsSwitchTheirLeds)
{
    EXPECT_EQ(leds(), "999");
    m_brhd.begin();
    EXPECT_EQ(leds(), "25500");
    show("05");
    EXPECT_EQ(leds(), "010");
    show("02");
    EXPECT_EQ(leds(), "25500");
    EXPECT_EQ(read("green/trigger"), "timer");
    EXPECT_EQ(read("red/trigger"), "none");
    show("07");
    EXPECT_EQ(leds(), "000") << "none is blue";
    show("12");
    EXPECT_EQ(leds(), "001") << "any colour";
    EXPECT_THAT(
        ledsText(serveControl(m_brhd, {{"command", "leds"}}).data, false),
        testing::EndsWith("\ngroup0 cannot switch the LED gone: brightness: No such file or directory\n"));
}

TEST_F(MmiLedTest, anLedThatIsGoneChangesNothingElse)
{
    m_outbox.takeAbnormal();
    EXPECT_EQ(ask("01707586 00000002 00000001 08011014"), "01707587 00000002 00000065");
    EXPECT_THAT(m_outbox.takeAbnormal(),
                ElementsAre("ABN: cannot switch the LED gone: brightness: No such file or directory"));
    fs::create_directory(path() / "gone");
    write("gone/brightness", "0");
    show("14");
    EXPECT_EQ(read("gone/brightness"), "1");
    EXPECT_EQ(ledsText(serveControl(m_brhd, {{"command", "leds"}}).data, false),
              "group0 (*) white   group1 (*) green   group3 ( ) off   group4 ( ) off   supportUnit ( ) off\n")
        << "what is mended is forgotten";
}

} // namespace
} // namespace merlow::board::test
