#include "statusText.h"

#include "brhdTest.h"
#include "legacyServer.h"

namespace merlow::board::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class StatusTextTest : public BrhdTest {};

TEST_F(StatusTextTest, showsWhatBrhdHolds)
{
    receive(briMailbox, client, "0170772d 00000064 00000064 0801");
    receive(briMailbox, client, "01707733 00000001 00000001 0802");
    receive(briMailbox, client, "01707739 00000002 00000001 08011080c2d72f");
    receive(bmmiMailbox, client, "01707570 00000065 00000065 0801");
    receive(bmmiMailbox, client, "01707580 00000001 00000001 0801");
    plan("delay", "bri::SetUtcTimeReq", {{"ms", 7}});
    const std::string text = brhdStatusText(m_brhd.status());
    EXPECT_THAT(text, HasSubstr("connection 1: client 100 at 0x20, revision 1\n"));
    EXPECT_THAT(text, HasSubstr("time source 1: connection 1, REDUCED, told 1973-03-03 09:46:40 UTC\n"));
    EXPECT_THAT(text, HasSubstr("board time 1973-03-03 09:46:40 UTC, 99000000 s off the system's, from time "
                                "source 1\n"));
    EXPECT_THAT(text, HasSubstr("MMI user 1: connection 1, NORMAL\n"));
    EXPECT_THAT(text, HasSubstr("planned: delay bri::SetUtcTimeReq, next 1, 7 ms\n"));
    EXPECT_THAT(text, HasSubstr("bri::RegisterUtcTimeSourceReq"));
    EXPECT_THAT(text, Not(HasSubstr("fault")));
    EXPECT_THAT(text, Not(HasSubstr("bri::UnregisterUtcTimeSourceReq"))) << "none came";
}

TEST_F(StatusTextTest, showsFaultsAndWhoIsToldOfThem)
{
    const auto fault = [this](nlohmann::json request) {
        request["command"] = "fault";
        return serveControl(m_brhd, request);
    };
    EXPECT_EQ(faultsText(fault({{"action", "list"}}).data), "no active faults\n");
    receive(briMailbox, client, "0170772d 00000064 00000064 0801");
    receive(briMailbox, client, "01707753 00000001 00000001");
    fault({{"action", "raise"}, {"id", "0"}, {"case", 317}});
    m_store.saveError = "No space left on device";
    fault({{"action", "raise"}, {"id", "7"}, {"fan", "K 1"}, {"parent", "P 2"}, {"slot", 3}});
    EXPECT_EQ(faultsText(fault({{"action", "list"}}).data),
              "HW_FAULT (0), case 317\n"
              "EXTERNAL_FAN_FAILED (7), case 0, fan K 1, parent P 2, slot 3\n");
    const std::string text = brhdStatusText(m_brhd.status());
    EXPECT_THAT(text, HasSubstr("    active fault HW_FAULT (0), case 317\n"
                                "    active fault EXTERNAL_FAN_FAILED (7), case 0, fan K 1, parent P 2, "
                                "slot 3\n"
                                "    fault subscriber: connection 1\n"
                                "    fault memory: the store cannot be written: No space left on device\n"));
}

TEST_F(StatusTextTest, showsARestartAndAHardwareLogThatFails)
{
    receive(briMailbox, client, "0170772d 00000064 00000064 0801");
    EXPECT_THAT(brhdStatusText(m_brhd.status()),
                testing::AllOf(Not(HasSubstr("restarts")), Not(HasSubstr("hardware log"))));
    receive(briMailbox, client, "01707749 00000005 00000001 0a034d5f31 189103 2802");
    auto status = m_brhd.status();
    status["bri"]["hardwareLog"] = {{"place", "/state/log"}, {"error", "database is locked"}};
    EXPECT_THAT(brhdStatusText(status),
                HasSubstr("    hardware log: /state/log: database is locked\n"
                          "    the board restarts: code 401, rank 2, load module \"M_1\"\n"));
}

TEST_F(StatusTextTest, showsWhatLegacydHolds)
{
    LegacyServer server(m_outbox);
    server.attach("LegacyMerlow", 0x40);
    for (const char* text : {"01658000 00000007 0000012c 0003", "0165ffff 00"}) {
        const HeapMessage message(messageFrom(text));
        server.receive({client, 0x40, message.bytes()});
    }
    const std::string text = legacydStatusText(server.status());
    EXPECT_THAT(text, HasSubstr("LegacyMerlow, mailbox 0x40, 1 connections\n"));
    EXPECT_THAT(text, HasSubstr("connection 300: client 7 at 0x20, revision 3\n"));
    EXPECT_THAT(text, HasSubstr("legacy::0x165ffff received 1\n"));
}

TEST_F(StatusTextTest, showsWhatSwmdHolds)
{
    const auto status = nlohmann::json::parse(R"({"program": "swmd", "version": "1.2.3", "pid": 7,
        "address": "ux:SWMServer", "revisions": [1], "maxConnections": 64,
        "connections": [{"ref": 1, "revision": 1}, {"ref": 2, "revision": 0}],
        "tickets": [{"ticket": 3, "connection": 1, "active": true}, {"ticket": 4, "connection": 1, "active": false}],
        "store": {"place": "/state/software", "slots": 2, "loadedBytes": 65536, "lastLoad": "completed",
            "modules": [{"slot": 0, "software": "QXR1_R1A", "type": "PREINSTALLED", "size": 0, "status": "VALID",
                         "access": "READ_ONLY", "running": true},
                        {"slot": 1, "software": "QXR2_R1A", "type": "AUAPPLIC", "size": 100, "status": "WRITING",
                         "access": "READ_WRITE", "running": false}]},
        "received": {"swm::PushLoadData": 5, "swm::DeleteReq": 0}, "malformed": {"swm::PushLoadData": 0},
        "confirmed": {"swm::PushLoadData": 4}, "rejected": {"swm::PushLoadData": 1},
        "delayed": {"swm::PushLoadData": 0}, "dropped": {"swm::PushLoadData": 2},
        "cutFrames": 1, "unknownFrames": 2, "tooLongFrames": 3, "earlyFrames": 4,
        "plans": [{"action": "abort", "kind": "swm::PushLoadData", "count": 2}]})");
    EXPECT_EQ(
        swmdStatusText(status),
        "swmd 1.2.3, process 7\n"
        "  ux:SWMServer, revisions 1, 2 connections, at most 64 established\n"
        "    connection 1: revision 1\n"
        "    connection 2: not established\n"
        "    ticket 3: connection 1, active\n"
        "    ticket 4: connection 1, waits\n"
        "  store /state/software, 2 slots\n"
        "    slot 0: QXR1_R1A, PREINSTALLED, 0 bytes, VALID, READ_ONLY, running\n"
        "    slot 1: QXR2_R1A, AUAPPLIC, 100 bytes, WRITING, READ_WRITE\n"
        "    a load is on its way, 65536 bytes so far\n"
        "    the last load: completed\n"
        "    frames                            received malformed confirmed  rejected   delayed   "
        "dropped\n"
        "    swm::PushLoadData                        5         0         4         1         0         "
        "2\n"
        "    dropped: 1 cut frames, 2 unknown frames, 3 too long, 4 before the connection was "
        "established\n"
        "  planned: abort swm::PushLoadData, next 2\n");
}

TEST_F(StatusTextTest, missingMembersLeaveGaps)
{
    for (const nlohmann::json& status : {nlohmann::json(), nlohmann::json::array({1}), nlohmann::json(5),
                                         nlohmann::json({{"bri", 5}, {"plans", {1}}, {"received", "x"}})}) {
        EXPECT_THAT(brhdStatusText(status), HasSubstr("process -"));
        EXPECT_THAT(legacydStatusText(status), HasSubstr("process -"));
        EXPECT_THAT(swmdStatusText(status), HasSubstr("process -"));
        EXPECT_NO_THROW(kindsText(status));
        EXPECT_NO_THROW(faultsText(status));
    }
}

TEST_F(StatusTextTest, kindsShowWhatTheyCarry)
{
    const std::string text = kindsText(serveControl(m_brhd, {{"command", "kinds"}}).data);
    EXPECT_THAT(text, HasSubstr("bri::ConnEstablishReq: delay, drop, refuse (causes "
                                "NO_SUPPORTED_PROTOCOL_REVISION, MAX_NUMBER_OF_CONNECTIONS_EXCEEDED)\n"));
    EXPECT_THAT(text, HasSubstr("bmmi::RegisterMmiUserReq: delay, drop, refuse\n"));
}

TEST_F(StatusTextTest, aDescriptionHasALineForEachKey)
{
    const nlohmann::json description{{"capabilityText", "MERLOW"},
                                     {"product", {{"name", "MLU"}, {"number", nullptr}}},
                                     {"bri",
                                      {{"hotspots", {{{"sensor", 0}, {"threshold", 850}}, {{"sensor", 1}}}},
                                       {"capabilities", nlohmann::json::array()}}},
                                     {"restart", {{"ranks", {1, 2}}}},
                                     {"store", {{"preinstalled", {{"number", "A/1"}, {"revision", "R1"}}}}}};
    EXPECT_EQ(descriptionText("the board description in b.json", description),
              "the board description in b.json\n"
              "  bri.capabilities             none\n"
              "  bri.hotspots                 sensor 0, threshold 850; sensor 1\n"
              "  capabilityText               MERLOW\n"
              "  product.name                 MLU\n"
              "  product.number               -\n"
              "  restart.ranks                1, 2\n"
              "  store.preinstalled           number A/1, revision R1\n");
}

} // namespace
} // namespace merlow::board::test
