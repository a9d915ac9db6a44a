#include "merlowPid.h"
#include "rowTest.h"

#include "board.h"
#include "bri.pb.h"

#include <functional>
#include <sstream>

namespace {

namespace bri = boardresourcehandler::bri;
using support::Board;
using support::rejectTail;

const std::string pidReferences = " 00000007 0000012c";

/// One request: what goes out to BRI for it, and what comes back.
struct PidService {
    const char* name;
    const char* request;
    std::uint32_t number;
    const char* briRequest;
    std::uint32_t briConfirm;
    std::uint32_t briReject;
    const char* briName; ///< of the answers, without Cfm or Rej
    const char* confirm; ///< of the whole unit below
    const char* reject;
    const char* strangerTrace; ///< with its mailbox in between
    const char* strangerTraceEnd;
};

const PidService pidServices[] = {
    {"hwPid", "01658200", 0x1658200, "0170773c", 0x170773D, 0x170773E, "GetProductInfo",
     "01658201 00000007 0000012c"
     " 32303234 30313331 00000000"                                     // 12: "20240131"
     " 4b515520 37000000 00000000 00000000"                            // 24: "KQU 7"
     " 51444120 31313820 3030312f 32000000 00000000 00000000 00000000" // 40: "QDA 118 001/2"
     " 52324200 00000000"                                              // 68: "R2B"
     " 534e3030 30343200 00000000 00000000",                           // 76: "SN00042"
     "01658202", "ABN: No BC session found for mailbox ID: 0x", ". Ignoring TARN_BC_GET_HW_PID_REQ."},
    {"marketName", "01658206", 0x1658206, "0170773c", 0x170773D, 0x170773E, "GetProductInfo",
     "01658207 00000007 0000012c"
     " 32303234 30313331 00000000"
     " 4b515520 37000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000" // 24: "KQU 7"
     " 4b515520 37204f75 74646f6f 72000000 00000000 00000000 00000000 00000000 00000000" // 60: "KQU 7
                                                                                         // Outdoor"
     " 51444120 31313820 3030312f 32000000 00000000 00000000 00000000"                   // 96
     " 52324200 00000000"                                                                // 124
     " 534e3030 30343200 00000000 00000000",                                             // 132
     "01658208", "ABN: Merlow has no session for mailbox 0x", ". Ignoring TARN_BC_GET_MARKET_NAME_PID_REQ."},
    {"extendedMarketName", "01658209", 0x1658209, "0170773c", 0x170773D, 0x170773E, "GetProductInfo",
     "0165820a 00000007 0000012c"
     " 4b515520 37204f75 74646f6f 72000000 00000000 00000000 00000000 00000000 00000000"
     " 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000",
     "0165820b", "ABN: Merlow has no session for mailbox 0x",
     ". Ignoring TARN_BC_GET_EXTENDED_MARKET_NAME_REQ."},
    {"containerPid", "01658203", 0x1658203, "0170773f", 0x1707740, 0x1707741, "GetContainerPid",
     "01658204 00000007 0000012c"
     " 32303234 30313331 00000000"
     " 43414220 33000000 00000000 00000000 00000000 00000000"          // 24: "CAB 3"
     " 51444120 31313820 3030312f 32000000 00000000 00000000 00000000" // 48
     " 52324200 00000000"                                              // 76
     " 534e3030 30343200 00000000 00000000",                           // 84
     "01658205", "ABN: Merlow has no session for mailbox 0x", ". Ignoring TARN_BC_GET_CONTAINER_PID_REQ."},
};

bri::GetProductInfoCfm wholeProduct()
{
    bri::GetProductInfoCfm cfm;
    cfm.set_production_date("20240131");
    cfm.set_product_name("KQU 7");
    cfm.set_product_number("QDA 118 001/2");
    cfm.set_product_revision("R2B");
    cfm.set_manufacturer("nobody is told");
    cfm.set_serial_number("SN00042");
    cfm.set_extended_market_name("KQU 7 Outdoor");
    return cfm;
}

bri::GetContainerPidCfm wholeContainer()
{
    bri::GetContainerPidCfm cfm;
    cfm.set_production_date("20240131");
    cfm.set_container_name("CAB 3");
    cfm.set_product_number("QDA 118 001/2");
    cfm.set_product_revision("R2B");
    cfm.set_manufacturer("nobody is told");
    cfm.set_serial_number("SN00042");
    return cfm;
}

/// Both caches as the whole answers leave them.
const ProductInfo wholeProductInfo{"20240131", "KQU 7", "QDA 118 001/2", "R2B", "SN00042", "KQU 7 Outdoor",
                                   true,       true};
const ContainerInfo wholeContainerInfo{"20240131", "CAB 3", "QDA 118 001/2", "R2B", "SN00042", true};

std::string hexMailbox(mnet_mbox_id_t mailbox)
{
    std::ostringstream text;
    text << std::hex << mailbox;
    return text.str();
}

class MerlowPidTest : public testing::Test {
protected:
    MerlowPidTest() { m_board.add<MerlowPid>(); }

    [[nodiscard]] std::size_t openTransactions()
    {
        return m_board.commonData().getBriClient().getNumTransactions();
    }
    [[nodiscard]] const ProductInfo& product() { return m_board.commonData().getProductInfoCache(); }
    [[nodiscard]] const ContainerInfo& container() { return m_board.commonData().getContainerInfoCache(); }
    /// As the answer to what the server asks on its own.
    void tell(const bri::GetProductInfoCfm& cfm) { m_board.bri().send(cfm, 0x4711); }
    void tell(const bri::GetContainerPidCfm& cfm) { m_board.bri().send(cfm, 0x4711); }
    /// What the client gets for `request`, "" for nothing.
    static std::string ask(const support::VirtualClient& client, const std::string& request)
    {
        client.sendHex(request + pidReferences);
        return client.receivedHex();
    }

    Board m_board;
};

// All four alike

class MerlowPidServiceTest : public MerlowPidTest, public WithRow<PidService> {
protected:
    [[nodiscard]] std::string request() const { return row().request + pidReferences; }
    [[nodiscard]] std::string briRequest(unsigned int ref) const
    {
        return std::string(row().briRequest) + " 0000000" + std::to_string(ref) + " 00c0ffee";
    }
    [[nodiscard]] std::string reject() const
    {
        return row().reject + pidReferences + " " + rejectTail("Failed to retrieve all PID data");
    }
    [[nodiscard]] bool isOfContainer() const { return row().number == 0x1658203; }
    void confirm(std::uint32_t procedureRef)
    {
        m_board.bri().sendBody(row().briConfirm, procedureRef,
                               isOfContainer() ? wholeContainer().SerializeAsString()
                                               : wholeProduct().SerializeAsString());
    }
    void refuse(std::uint32_t procedureRef) { m_board.bri().sendBody(row().briReject, procedureRef, ""); }
};

ROW_TEST(MerlowPidServiceTest, theFirstRequestAsksBriAndTheNextIsServedAtOnce)
{
    const auto client = m_board.connectClient();
    client.sendHex(request());
    EXPECT_EQ(m_board.bri().receivedHex(), briRequest(1));
    EXPECT_TRUE(client.nothingReceived());
    const auto* transaction = m_board.commonData().getBriClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = 300,
                                                             .clientRef = 7,
                                                             .data = row().number}));
    confirm(1);
    EXPECT_EQ(client.receivedHex(), row().confirm);
    EXPECT_EQ(openTransactions(), 0U);

    m_board.bri().stop();
    client.sendHex(request());
    EXPECT_EQ(client.receivedHex(), row().confirm) << "from the cache, which outlives the connection";
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowPidServiceTest, anAnswerToNobodyFillsTheCacheAllTheSame)
{
    confirm(9);
    EXPECT_TRUE(m_board.traced(
        4, "No BRI transaction was found for procedureRef: 9 but the cache has been updated."));
    EXPECT_EQ(product(), isOfContainer() ? ProductInfo() : wholeProductInfo);
    EXPECT_EQ(container(), isOfContainer() ? wholeContainerInfo : ContainerInfo());
    const auto client = m_board.connectClient();
    client.sendHex(request());
    EXPECT_EQ(client.receivedHex(), row().confirm);
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

ROW_TEST(MerlowPidServiceTest, aRejectIsTheFixedTextAndLeavesTheCacheAlone)
{
    const auto client = m_board.connectClient();
    client.sendHex(request());
    refuse(1);
    EXPECT_EQ(client.receivedHex(), reject());
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_EQ(product(), ProductInfo());
    EXPECT_EQ(container(), ContainerInfo());

    refuse(1); // late
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traced(4, "No BRI transaction was found for procedureRef: 1"));

    EXPECT_EQ(m_board.bri().receivedHex(), briRequest(1));
    client.sendHex(request());
    EXPECT_EQ(m_board.bri().receivedHex(), briRequest(2)) << "and the next request asks again";
}

ROW_TEST(MerlowPidServiceTest, anAnswerWithNothingInItIsARejectForTheClient)
{
    const auto client = m_board.connectClient();
    client.sendHex(request());
    m_board.bri().sendBody(row().briConfirm, 1, "");
    EXPECT_EQ(client.receivedHex(), reject());
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowPidServiceTest, requestsBeforeTheFirstAnswerEachHaveTheirOwn)
{
    const auto first = m_board.connectClient();
    const auto second = m_board.connectClient({.clientRef = 8});
    first.sendHex(request());
    second.sendHex(std::string(row().request) + " 00000008 0000012c");
    EXPECT_EQ(m_board.bri().receivedHex(), briRequest(1));
    EXPECT_EQ(m_board.bri().receivedHex(), briRequest(2));
    confirm(2);
    EXPECT_TRUE(first.nothingReceived());
    std::string expected = row().confirm;
    expected[16] = '8';
    EXPECT_EQ(second.receivedHex(), expected);
    refuse(1);
    EXPECT_EQ(first.receivedHex(), reject()) << "though the cache could serve it by now";
    EXPECT_TRUE(second.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowPidServiceTest, aStrangerGetsNoAnswer)
{
    confirm(9);
    const auto stranger = m_board.newClient();
    stranger.sendHex(request());
    EXPECT_TRUE(
        m_board.traced(4, row().strangerTrace + hexMailbox(stranger.mbox()) + row().strangerTraceEnd));
    EXPECT_TRUE(m_board.bri().nothingReceived());
    EXPECT_TRUE(stranger.nothingReceived());
}

ROW_TEST(MerlowPidServiceTest, withoutBriAndCacheThereIsNoAnswer)
{
    const auto client = m_board.connectClient();
    m_board.bri().stop();
    client.sendHex(request());
    EXPECT_TRUE(m_board.traced(4, "ABN: Failed to send message -- not connected to BRH server"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowPidServiceTest, answersAfterTheSessionFindNobody)
{
    for (const bool isConfirmed : {false, true}) {
        SCOPED_TRACE(isConfirmed);
        const auto client = m_board.connectClient();
        client.sendHex(request());
        m_board.endSession(client);
        EXPECT_EQ(openTransactions(), 1U);
        m_board.traces().clear();
        if (isConfirmed) {
            confirm(2);
        } else {
            refuse(1);
        }
        EXPECT_TRUE(m_board.traced(4, "ABN: No BC session found for mailbox ID: 0x" +
                                          hexMailbox(client.mbox()) + ". Ignoring " + row().briName +
                                          (isConfirmed ? "Cfm." : "Rej.")));
        EXPECT_TRUE(client.nothingReceived());
        EXPECT_EQ(openTransactions(), 0U);
    }
    EXPECT_EQ(isOfContainer() ? container().isComplete : product().isComplete, true)
        << "the cache is filled for others";
}

ROW_TEST(MerlowPidServiceTest, theRequestIsReadAtEveryLength)
{
    const auto client = m_board.connectClient();
    const auto whole = support::messageFromHex(request() + " deadbeef");
    for (std::size_t size = 4; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        EXPECT_EQ(m_board.bri().nothingReceived(), size < 12);
        EXPECT_EQ(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 12 bytes"),
                  size < 12);
        while (m_board.bri().receive()) {
        }
    }
}

ROW_TEST(MerlowPidServiceTest, framesAreReadAtEveryLengthAndBadBodiesLeaveTheTransaction)
{
    const auto client = m_board.connectClient();
    client.sendHex(request());
    for (const auto& [number, suffix] : {std::pair{row().briConfirm, "Cfm"}, {row().briReject, "Rej"}}) {
        m_board.traces().clear();
        m_board.bri().sendBody(number, 1, "\x0a");
        EXPECT_TRUE(m_board.traced(1, std::string("Unable to parse GPB message boardresourcehandler.bri.") +
                                          row().briName + suffix + " of size 13 bytes"));
        const auto frame = support::makeFrame(number, 1, 100, "");
        for (std::size_t size = 4; size < 12; ++size) {
            m_board.bri().sendBytes({frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size)});
        }
    }
    EXPECT_EQ(openTransactions(), 1U);
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(product(), ProductInfo());
    EXPECT_EQ(container(), ContainerInfo());
    confirm(1);
    EXPECT_EQ(client.receivedHex(), row().confirm);
}

ROW_TEST(MerlowPidServiceTest, aFrameForAnotherConnectionIsNone)
{
    m_board.bri().sendBytes(support::makeFrame(row().briConfirm, 1, 999,
                                               isOfContainer() ? wholeContainer().SerializeAsString()
                                                               : wholeProduct().SerializeAsString()));
    EXPECT_EQ(product(), ProductInfo());
    EXPECT_EQ(container(), ContainerInfo());
}

TEST_ROWS(all, MerlowPidServiceTest, pidServices);

// What the answers hold

TEST_F(MerlowPidTest, theFieldsOfTheFrameAreTakenByTheirNumbers)
{
    m_board.bri().sendHex("0170773d 00000009 00000064 0a0161 120162 1a0163 220164 2a0165 320166 3a0167");
    EXPECT_EQ(product(), (ProductInfo{"a", "b", "c", "d", "f", "g", true, true}));
    m_board.bri().sendHex("01707740 00000009 00000064 0a0168 120169 1a016a 22016b 2a016c 32016d");
    EXPECT_EQ(container(), (ContainerInfo{"h", "i", "j", "k", "m", true}));
}

struct PidMissingField {
    const char* name;
    void (bri::GetProductInfoCfm::*clearProduct)();
    void (bri::GetContainerPidCfm::*clearContainer)();
};

class MerlowPidMissingFieldTest : public MerlowPidTest, public WithRow<PidMissingField> {};

ROW_TEST(MerlowPidMissingFieldTest, makesTheAnswerIncompleteAndKeepsTheOlderText)
{
    auto cfm = wholeProduct();
    (cfm.*row().clearProduct)();
    auto containerCfm = wholeContainer();
    (containerCfm.*row().clearContainer)();

    tell(wholeProduct());
    tell(wholeContainer());
    tell(cfm);
    tell(containerCfm);
    auto expected = wholeProductInfo;
    expected.isComplete = false;
    EXPECT_EQ(product(), expected);
    auto expectedContainer = wholeContainerInfo;
    expectedContainer.isComplete = false;
    EXPECT_EQ(container(), expectedContainer);

    const auto client = m_board.connectClient();
    for (const char* number : {"01658200", "01658206", "01658203"}) {
        EXPECT_EQ(ask(client, number), "") << "asks BRI again";
    }
    EXPECT_TRUE(ask(client, "01658209").starts_with("0165820a")) << "needs the one name alone";
    for (int i = 0; i < 2; ++i) {
        m_board.bri().answer(m_board.bri().expect<bri::GetProductInfoReq>(), cfm);
    }
    m_board.bri().answer(m_board.bri().expect<bri::GetContainerPidReq>(), containerCfm);
    const std::string tail = pidReferences + " " + rejectTail("Failed to retrieve all PID data");
    for (const char* number : {"01658202", "01658208", "01658205"}) {
        EXPECT_EQ(client.receivedHex(), number + tail);
    }
}

const PidMissingField pidMissingFields[] = {
    {"first", &bri::GetProductInfoCfm::clear_production_date,
     &bri::GetContainerPidCfm::clear_production_date},
    {"second", &bri::GetProductInfoCfm::clear_product_name, &bri::GetContainerPidCfm::clear_container_name},
    {"third", &bri::GetProductInfoCfm::clear_product_number, &bri::GetContainerPidCfm::clear_product_number},
    {"fourth", &bri::GetProductInfoCfm::clear_product_revision,
     &bri::GetContainerPidCfm::clear_product_revision},
    {"sixth", &bri::GetProductInfoCfm::clear_serial_number, &bri::GetContainerPidCfm::clear_serial_number}};
TEST_ROWS(all, MerlowPidMissingFieldTest, pidMissingFields);

TEST_F(MerlowPidTest, theFifthFieldIsNotNeeded)
{
    auto cfm = wholeProduct();
    cfm.clear_manufacturer();
    tell(cfm);
    EXPECT_EQ(product(), wholeProductInfo);
    auto containerCfm = wholeContainer();
    containerCfm.clear_manufacturer();
    tell(containerCfm);
    EXPECT_EQ(container(), wholeContainerInfo);
}

TEST_F(MerlowPidTest, aTextThatIsTheEmptyOneIsThere)
{
    bri::GetProductInfoCfm cfm;
    cfm.set_production_date("");
    cfm.set_product_name("");
    cfm.set_product_number("");
    cfm.set_product_revision("");
    cfm.set_serial_number("");
    cfm.set_extended_market_name("");
    tell(cfm);
    EXPECT_EQ(product(), (ProductInfo{"", "", "", "", "", "", true, true}));
    const auto client = m_board.connectClient();
    EXPECT_EQ(ask(client, "01658209"), "0165820a 00000007 0000012c"
                                       " 00000000 00000000 00000000 00000000 00000000 00000000 00000000"
                                       " 00000000 00000000 00000000 00000000 00000000 00000000 00000000"
                                       " 00000000 00000000 00000000");
}

TEST_F(MerlowPidTest, withoutTheSeventhFieldTheMarketNamesAskAgain)
{
    auto cfm = wholeProduct();
    cfm.clear_extended_market_name();
    tell(wholeProduct());
    tell(cfm);
    EXPECT_EQ(product().extendedMarketName, "KQU 7 Outdoor") << "the older text stays";
    EXPECT_FALSE(product().hasExtendedMarketName);

    const auto client = m_board.connectClient();
    EXPECT_EQ(ask(client, "01658200"), pidServices[0].confirm);
    for (const auto& [request, reject] : {std::pair{"01658206", "01658208"}, {"01658209", "0165820b"}}) {
        for (int round = 0; round < 2; ++round) {
            EXPECT_EQ(ask(client, request), "");
            m_board.bri().answer(m_board.bri().expect<bri::GetProductInfoReq>(), cfm);
            EXPECT_EQ(client.receivedHex(),
                      reject + pidReferences + " " + rejectTail("Failed to retrieve all PID data"));
        }
    }
}

TEST_F(MerlowPidTest, withTheSeventhFieldAloneTheExtendedNameIsServed)
{
    bri::GetProductInfoCfm cfm;
    cfm.set_extended_market_name("KQU 7 Outdoor");
    const auto client = m_board.connectClient();
    EXPECT_EQ(ask(client, "01658209"), "");
    m_board.bri().answer(m_board.bri().expect<bri::GetProductInfoReq>(), cfm);
    EXPECT_EQ(client.receivedHex(), pidServices[2].confirm);
    EXPECT_EQ(product(), (ProductInfo{"", "", "", "", "", "KQU 7 Outdoor", false, true}));
    EXPECT_EQ(ask(client, "01658200"), "") << "asks BRI";
    m_board.bri().expect<bri::GetProductInfoReq>();
    EXPECT_EQ(ask(client, "01658206"), "") << "asks BRI";
    m_board.bri().expect<bri::GetProductInfoReq>();
}

TEST_F(MerlowPidTest, aTransactionOfAnotherServiceIsAnsweredByNobody)
{
    const auto client = m_board.connectClient();
    for (const bool isConfirmed : {true, false}) {
        m_board.traces().clear();
        m_board.commonData().getBriClient().addProcedureTransaction({.procedureRef = 5,
                                                                     .clientMbox = client.mbox(),
                                                                     .serverRef = 300,
                                                                     .clientRef = 7,
                                                                     .data = 0x1658203});
        if (isConfirmed) {
            m_board.bri().send(wholeProduct(), 5);
        } else {
            m_board.bri().send(bri::GetProductInfoRej(), 5);
        }
        EXPECT_TRUE(m_board.traced(4, "ABN: Unknown signal number in transaction! Ignoring signal!"));
        EXPECT_TRUE(client.nothingReceived());
        EXPECT_EQ(openTransactions(), 0U);
    }
}

// Names

struct PidNameRow {
    const char* name;
    const char* productName;
    std::int32_t serverRef;
    const char* told; ///< what the client reads in both signals
};

class MerlowPidNameTest : public MerlowPidTest, public WithRow<PidNameRow> {};

ROW_TEST(MerlowPidNameTest, theNameDependsOnTheClientAndTheFamily)
{
    auto cfm = wholeProduct();
    cfm.set_product_name(row().productName);
    tell(cfm);
    const auto client = m_board.connectClient({.serverRef = 300}); // the request's reference decides
    const support::Bytes refs{0, 0, 0, 7, 0, 0, 0, static_cast<std::uint8_t>(row().serverRef)};
    for (const std::uint8_t request : {std::uint8_t{0x00}, std::uint8_t{0x06}}) {
        support::Bytes bytes{request, 0x82, 0x65, 0x01};
        bytes.insert(bytes.end(), refs.begin(), refs.end());
        client.sendToServer(bytes);
        const auto answer = client.receive();
        ASSERT_TRUE(answer);
        ASSERT_GE(answer->bytes.size(), 92U);
        const auto* text = reinterpret_cast<const char*>(answer->bytes.data() + 24);
        EXPECT_EQ(std::string(text, strnlen(text, request == 0 ? 13 : 33)), row().told);
    }
    EXPECT_EQ(product().productName, row().productName) << "the cache is not touched";
}

const PidNameRow pidNameRows[] = {{"below", "KPX 2203", 99, "KPX 2203"},
                                  {"first", "KPX 2203", 100, "UNIT 40 K7"},
                                  {"last", "KPX 2203", 199, "UNIT 40 K7"},
                                  {"above", "KPX 2203", 200, "KPX 2203"},
                                  {"lettersAlone", "KPX", 150, "UNIT 40 K7"},
                                  {"lettersGoOn", "KPXY", 150, "UNIT 40 K7"},
                                  {"tooShort", "KP", 150, "KP"},
                                  {"none", "", 150, ""},
                                  {"furtherIn", "A KPX", 150, "A KPX"},
                                  {"otherCase", "kpx", 150, "kpx"}};
TEST_ROWS(all, MerlowPidNameTest, pidNameRows);

struct PidCutRow {
    const char* name;
    const char* request;
    std::size_t offset; ///< of the text in the confirm
    std::size_t width;  ///< of its array
    std::string ProductInfo::*productText;
    std::string ContainerInfo::*containerText;
};

class MerlowPidCutTest : public MerlowPidTest, public WithRow<PidCutRow> {
protected:
    void fill(std::size_t length)
    {
        ProductInfo info{.isComplete = true, .hasExtendedMarketName = true};
        ContainerInfo containerInfo{.isComplete = true};
        const std::string text(length, 'x');
        if (row().productText != nullptr) {
            info.*row().productText = text;
        } else {
            containerInfo.*row().containerText = text;
        }
        m_board.commonData().setProductInfoCache(info);
        m_board.commonData().setContainerInfoCache(containerInfo);
    }
};

ROW_TEST(MerlowPidCutTest, aTextIsCutToItsArrayAndTheLossTraced)
{
    const auto client = m_board.connectClient();
    for (const std::size_t length : {row().width - 1, row().width, std::size_t{300}}) {
        SCOPED_TRACE(length);
        m_board.traces().clear();
        fill(length);
        client.sendHex(row().request + pidReferences);
        const auto answer = client.receive();
        ASSERT_TRUE(answer);
        support::Bytes expected(answer->bytes.size());
        std::copy_n(answer->bytes.begin(), 12, expected.begin());
        std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(row().offset), row().width - 1,
                    std::uint8_t{'x'});
        EXPECT_EQ(support::messageToHex(answer->bytes), support::messageToHex(expected));
        EXPECT_EQ(m_board.traces().contains(4, "ABN: copyErrorDescription: data lost."),
                  length >= row().width);
    }
}

const PidCutRow pidCutRows[] = {
    {"hwField1", "01658200", 12, 9, &ProductInfo::pidField1, nullptr},
    {"hwName", "01658200", 24, 13, &ProductInfo::productName, nullptr},
    {"hwField3", "01658200", 40, 25, &ProductInfo::pidField3, nullptr},
    {"hwField4", "01658200", 68, 8, &ProductInfo::pidField4, nullptr},
    {"hwField5", "01658200", 76, 14, &ProductInfo::pidField5, nullptr},
    {"marketField1", "01658206", 12, 9, &ProductInfo::pidField1, nullptr},
    {"marketName", "01658206", 24, 33, &ProductInfo::productName, nullptr},
    {"marketExtended", "01658206", 60, 33, &ProductInfo::extendedMarketName, nullptr},
    {"marketField3", "01658206", 96, 25, &ProductInfo::pidField3, nullptr},
    {"marketField4", "01658206", 124, 8, &ProductInfo::pidField4, nullptr},
    {"marketField5", "01658206", 132, 14, &ProductInfo::pidField5, nullptr},
    {"extended", "01658209", 12, 65, &ProductInfo::extendedMarketName, nullptr},
    {"containerField1", "01658203", 12, 9, nullptr, &ContainerInfo::pidField1},
    {"containerName", "01658203", 24, 21, nullptr, &ContainerInfo::containerName},
    {"containerField3", "01658203", 48, 25, nullptr, &ContainerInfo::pidField3},
    {"containerField4", "01658203", 76, 8, nullptr, &ContainerInfo::pidField4},
    {"containerField5", "01658203", 84, 14, nullptr, &ContainerInfo::pidField5}};
TEST_ROWS(all, MerlowPidCutTest, pidCutRows);

} // namespace
