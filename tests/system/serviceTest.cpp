// What a client gets from a whole unit of real processes, byte for byte.

#include "runningUnit.h"

#include <gtest/gtest.h>

namespace merlow::test {
namespace {

class ServiceTest : public RunningUnitTest {};

TEST_F(ServiceTest, theConfirmCarriesTheClientsReferenceAndOneOfTheRequestedRange)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_EQ(client.send(m_server, 0x1658000, "00000007 00000190 0003 0000"), 0);
    EXPECT_EQ(client.receive(0x1658001), "00000007"
                                         "00000190");
    EXPECT_EQ(client.lastSender(), m_server);
}

TEST_F(ServiceTest, aReferenceOutsideTheRangesIsRejectedByTheLegacyServer)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_EQ(client.send(m_server, 0x1658000, "00000007 000000c8 0003 0000"), 0);
    const auto reject = client.receive(0x1658002);
    ASSERT_TRUE(reject);
    EXPECT_EQ(reject->size(), 2 * (132u - 4));
    EXPECT_EQ(reject->substr(0, 16), "00000007"
                                     "000000c8");
    EXPECT_EQ(reject->substr(24, 4), "0001") << "errorCode at offset 16";
    EXPECT_EQ(reject->substr(32, 36), "524154206e6f7420737570706f7274656400") << "\"RAT not supported\"";
    EXPECT_EQ(client.lastSender(), m_server);
}

TEST_F(ServiceTest, theStateIsReadEnabledAndDisabled)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_TRUE(client.connect(m_server, -2, 300));
    const std::string refs = "fffffffe0000012c";

    ASSERT_EQ(client.send(m_server, 0x1658400, refs), 0);
    auto audit = client.receive(0x1658401);
    ASSERT_TRUE(audit);
    EXPECT_EQ(audit->substr(0, 20), refs + "0000");
    EXPECT_EQ(audit->size(), 24u);

    ASSERT_EQ(client.send(m_server, 0x1658403, refs), 0);
    EXPECT_EQ(client.receive(0x1658404), refs);
    ASSERT_EQ(client.send(m_server, 0x1658400, refs), 0);
    audit = client.receive(0x1658401);
    ASSERT_TRUE(audit);
    EXPECT_EQ(audit->substr(16, 4), "0001");

    ASSERT_EQ(client.send(m_server, 0x1658406, refs), 0);
    EXPECT_EQ(client.receive(0x1658407), refs);
    ASSERT_EQ(client.send(m_server, 0x1658400, refs), 0);
    audit = client.receive(0x1658401);
    ASSERT_TRUE(audit);
    EXPECT_EQ(audit->substr(16, 4), "0002");

    ASSERT_EQ(client.send(m_server, 0x1658403, refs), 0);
    const auto reject = client.receive(0x1658405);
    ASSERT_TRUE(reject);
    EXPECT_EQ(reject->size(), 2 * (128u - 4));
    EXPECT_EQ(reject->substr(0, 20), refs + "0001");
    const std::string text =
        "signal expected in BcState: STARTING OPERATIONAL, received in BcState: DISABLED";
    const auto sent = bytes(*reject);
    EXPECT_EQ(std::string(sent.begin() + 12, sent.begin() + 12 + static_cast<long>(text.size()) + 1),
              text + '\0');
}

TEST_F(ServiceTest, theTimeReachesTheBoardUnderTheSessionsSource)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_TRUE(client.connect(m_server, 5, 100));
    ASSERT_EQ(client.send(m_server, 0x1659500, "00000005 00000064 65920080"), 0);
    EXPECT_EQ(client.receive(0x1659501), "00000005"
                                         "00000064");

    ASSERT_EQ(m_unit.boardctl({"refuse", "bri::SetUtcTimeReq"}).status, 0);
    ASSERT_EQ(client.send(m_server, 0x1659500, "00000005 00000064 65920081"), 0);
    const auto reject = client.receive(0x1659502);
    ASSERT_TRUE(reject);
    EXPECT_EQ(reject->size(), 2 * (128u - 4));
    EXPECT_EQ(reject->substr(0, 20), "00000005"
                                     "00000064"
                                     "0001");
    // "Failed to set UTC time" at offset 16, terminated
    EXPECT_EQ(reject->substr(24, 46), "4661696c656420746f20736574205554432074696d6500");
}

TEST_F(ServiceTest, oneModeOfTheIndicatorsExists)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_TRUE(client.connect(m_server, 1, 300));
    ASSERT_EQ(client.send(m_server, 0x1658012, "00000001 0000012c 00000001"), 0);
    EXPECT_EQ(client.receive(0x1658013), "00000001"
                                         "0000012c");
    for (const char* mode : {"00000000", "00000002"}) {
        ASSERT_EQ(client.send(m_server, 0x1658012, std::string("00000001 0000012c ") + mode), 0);
        const auto reject = client.receive(0x1658014);
        ASSERT_TRUE(reject);
        EXPECT_EQ(reject->size(), 2 * (128u - 4));
        EXPECT_EQ(reject->substr(0, 20), "00000001"
                                         "0000012c"
                                         "0001");
        EXPECT_EQ(reject->substr(24, 42), "556e737570706f72746564204d4d49206d6f646500");
    }
}

TEST_F(ServiceTest, whatHasNoHandlerPassesToTheLegacyServerAndBackUnchanged)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_TRUE(client.connect(m_server, 1, 300));
    for (const std::string& content :
         {std::string(), std::string("01"), std::string("0102030405060708090a0b0c0d0e0f"),
          std::string(2 * 300000, 'e')}) {
        ASSERT_EQ(client.send(m_server, 0x1658fff, content), 0);
        EXPECT_EQ(client.receive(0x1658fff), content);
        EXPECT_EQ(client.lastSender(), m_server);
    }
}

TEST_F(ServiceTest, aStrangerIsForwardedWithoutHavingConnected)
{
    Client client(mnet_create_mailbox("stranger", 0));
    ASSERT_EQ(client.send(m_server, 0x1658fff, "00000009 00000001 abcd"), 0);
    EXPECT_EQ(client.receive(0x1658fff), "0000000900000001abcd");
}

TEST_F(ServiceTest, numbersOfTheServersOwnMessagesChangeNothing)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_TRUE(client.connect(m_server, 1, 300));
    const mnet_mbox_id_t privateMailbox = locate("private_Merlow");
    ASSERT_NE(privateMailbox, MNET_MBOX_NONE);
    for (const std::uint32_t number : {0xDEADBEEFu, 0x1901000u, 0x1901001u, 0x17075ADu, 0x17075BDu}) {
        for (const mnet_mbox_id_t to : {m_server, privateMailbox}) {
            for (const char* rest :
                 {"", "00", "00000064 00000064", "00000065 00000065", "ffffffff ffffffff"}) {
                ASSERT_EQ(client.send(to, number, rest), 0);
            }
        }
    }
    ASSERT_EQ(client.send(m_server, 0x1658400, "00000001 0000012c"), 0);
    ASSERT_TRUE(client.receive(0x1658401));
    Client other(mnet_create_mailbox("du2", 0));
    EXPECT_TRUE(other.connect(m_server, 2, 300));
    EXPECT_TRUE(m_unit.merlowd().running());
    EXPECT_EQ(m_unit.status("brhd").value("/bri/connections"_json_pointer, nlohmann::json::array()).size(),
              1u);
}

TEST_F(ServiceTest, fortyFiveClientsAreServedAtOnce)
{
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 45; ++i) {
        clients.push_back(
            std::make_unique<Client>(mnet_create_mailbox(("du" + std::to_string(i)).c_str(), 0)));
        ASSERT_TRUE(clients.back()->connect(m_server, i, 300)) << "client " << i;
    }
    for (auto& client : clients) {
        ASSERT_EQ(client->send(m_server, 0x1658403, "00000001 0000012c"), 0);
        ASSERT_EQ(client->send(m_server, 0x1659500, "00000001 0000012c 00000001"), 0);
        ASSERT_EQ(client->send(m_server, 0x1658fff, "00000001 0000012c 77"), 0);
    }
    for (auto& client : clients) {
        EXPECT_TRUE(client->receive(0x1658404));
        EXPECT_TRUE(client->receive(0x1659501));
        EXPECT_EQ(client->receive(0x1658fff), "000000010000012c77");
    }
}

TEST_F(ServiceTest, whatTheUnitCanDoIsGatheredFromAllSources)
{
    // Of the reference board, without the zeros at their ends: the platform's, BRI's, BMMI's.
    const std::vector<std::string> expected = {
        "000300dc",
        "001800dc",
        "001d00dc",
        "002000dc",
        "002900dc4d45524c4f57",
        "002a00dc",
        "000d00dc",
        "001300dc",
        "001900dc",
        "002200dc",
        "001e00dc000200000226feb60014000003520000001e", // temperature levels
        "000600dc0002000000000352001e0000000103b6001e", // hot spots
        "002b00dc",
        "002d00dc0000001f",
        "002c00dc",
        "001700dc",
        "002600dc",
        "000700dc",
    };
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_TRUE(client.connect(m_server, -2, 300));
    ASSERT_EQ(client.send(m_server, 0x1658007, "fffffffe 0000012c"), 0);
    const auto answer = client.receive(0x1658008);
    ASSERT_TRUE(answer);
    EXPECT_EQ(client.lastSender(), m_server);
    ASSERT_GE(answer->size(), 24U);
    EXPECT_EQ(answer->substr(0, 16), "fffffffe"
                                     "0000012c");
    const auto count = std::stoul(answer->substr(16, 4), nullptr, 16);
    ASSERT_GE(count, expected.size());
    ASSERT_GE(answer->size(), 24 + 440 * count);
    // Those of the software server, which this unit may do without, come first.
    auto record = answer->substr(24 + 440 * (count - expected.size()));
    for (const std::string& text : expected) {
        EXPECT_EQ(record.substr(0, 440), text + std::string(440 - text.size(), '0'));
        record.erase(0, 440);
    }
}

/// Every number that the unit handles so far, with its length and the content of one that is well-formed.
struct Known {
    std::uint32_t number;
    std::size_t length;
};

constexpr Known known[] = {
    {0x1658000, 16}, {0x1658400, 12},  {0x1658403, 12}, {0x1658406, 12}, {0x1659500, 16}, {0x1658012, 16},
    {0x1658001, 12}, {0x1658002, 132}, {0x17075AD, 12}, {0x17075BD, 12}, {0x1707571, 16}, {0x1707572, 16},
    {0x170757E, 20}, {0x170757F, 12},  {0x1707581, 16}, {0x1707582, 12}, {0x1707584, 12}, {0x1707585, 12},
    {0x170772E, 16}, {0x170772F, 16},  {0x1707731, 40}, {0x1707732, 12}, {0x1707734, 16}, {0x1707735, 12},
    {0x1707737, 12}, {0x1707738, 12},  {0x170773A, 12}, {0x170773B, 12}, {0xDEADBEEF, 4}, {0x1901000, 4},
    {0x1901001, 4},  {0x1658007, 12},
};

TEST_F(ServiceTest, shortAndRandomSignalsFromClientsAndStrangersDoNoHarm)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_TRUE(client.connect(m_server, 1, 300));
    Client stranger(mnet_create_mailbox("stranger", 0));
    std::uint32_t state = 20261121;
    const auto random = [&state] {
        state = state * 1664525u + 1013904223u;
        return static_cast<unsigned>(state >> 24);
    };
    const mnet_mbox_id_t privateMailbox = locate("private_Merlow");
    for (const Known& signal : known) {
        for (std::size_t length = 4; length <= signal.length + 4; ++length) {
            std::string content;
            for (std::size_t i = 4; i < length; ++i) {
                char digits[3];
                std::snprintf(digits, sizeof(digits), "%02x", random());
                content += digits;
            }
            // Frames that name the clients of the board's interfaces, so that they get past the routing.
            if (content.size() >= 16 && random() % 2 == 0) {
                content.replace(0, 8, "00000064");
                content.replace(8, 8, random() % 2 == 0 ? "00000064" : "00000065");
            }
            for (const Client* sender : {&client, &stranger}) {
                ASSERT_EQ(sender->send(m_server, signal.number, content), 0);
                ASSERT_EQ(sender->send(privateMailbox, signal.number, content), 0);
            }
        }
    }
    ASSERT_EQ(client.send(m_server, 0x1658400, "00000001 0000012c"), 0);
    bool answered = false;
    while (!answered) {
        const auto audit = client.receive(0x1658401);
        ASSERT_TRUE(audit) << m_unit.merlowd().err();
        answered = audit->substr(0, 16) == "000000010000012c";
    }
    EXPECT_TRUE(m_unit.merlowd().running());
    EXPECT_TRUE(m_unit.brhd().running());
    EXPECT_TRUE(m_unit.legacyd().running());
    m_unit.merlowd().signal(SIGTERM);
    EXPECT_EQ(m_unit.merlowd().wait(), 0) << m_unit.merlowd().err();
}

} // namespace
} // namespace merlow::test
