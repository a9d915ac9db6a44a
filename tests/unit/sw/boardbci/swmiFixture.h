/// The software component between virtual clients and a virtual SWM server. Frames of that server, here and
/// in the tests: message number, reference of the procedure, and the message.
#pragma once

#include "board.h"
#include "merlowSwmi.h"
#include "tracepointLog.h"
#include "virtualSwmServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace swmi {

using support::Board;
using support::rejectTail;
using support::VirtualClient;
using testing::ElementsAre;
using testing::IsEmpty;
using Event = MerlowTracepoints::Event;

/// Whatever the caller's environment says.
struct SysMode {
    explicit SysMode(const char* mode) { ::setenv("SYS_MODE", mode, 1); }
    ~SysMode() { ::unsetenv("SYS_MODE"); }
    SysMode(const SysMode&) = delete;
    SysMode& operator=(const SysMode&) = delete;
};

class SwmiTest : public ::testing::Test {
protected:
    explicit SwmiTest(const char* sysMode = "") : m_sysMode(sysMode) {}

    static void fromServer(const std::string& hex) { support::VirtualSwmServer::send(hex); }
    static std::vector<std::string> sent() { return support::VirtualSwmServer::received(); }
    /// A frame with a text of up to 127 bytes, or bytes, as field `number` behind `start`.
    static std::string withText(const std::string& start, unsigned int field, const std::string& text)
    {
        EXPECT_LT(text.size(), 128U);
        const char head[] = {static_cast<char>(field << 3U | 2U), static_cast<char>(text.size())};
        auto frame = support::frameFromHex(start);
        frame.insert(frame.end(), head, head + 2);
        frame.insert(frame.end(), text.begin(), text.end());
        return support::frameToHex(frame);
    }
    /// A signal with the text and its terminator behind it.
    static support::Bytes signalWithText(const std::string& start, const std::string& text)
    {
        auto bytes = support::messageFromHex(start);
        bytes.insert(bytes.end(), text.begin(), text.end());
        bytes.push_back(0);
        return bytes;
    }
    /// The client 7, 300 has resource 5 with ticket 9, by procedure 1.
    void acquire()
    {
        m_client.sendHex("01659800 00000007 0000012c 0005 0000");
        EXPECT_THAT(sent(), ElementsAre("00000007 00000001 08ac021000"));
        fromServer("00000008 00000001 08ac021009 1800");
        fromServer("0000000a 00000001 0809");
        EXPECT_EQ(m_client.receivedHex(), "01659801 00000007 0000012c 00050000");
    }
    /// Beyond that it loads "AB_R1A", by procedure 2.
    void startLoad()
    {
        acquire();
        m_client.sendToServer(signalWithText("01658803 00000007 0000012c", "AB_R1A"));
        EXPECT_THAT(sent(), ElementsAre("0000000e 00000002 0809120641425f523141"));
        fromServer("0000000f 00000002 0809");
        EXPECT_EQ(m_client.receivedHex(), "01658804 00000007 0000012c 00000000");
    }
    [[nodiscard]] bool nothingSent() { return sent().empty() && m_client.nothingReceived(); }

    SysMode m_sysMode;
    support::TracepointLog m_log;
    std::vector<std::chrono::microseconds> m_waits;
    Board m_board;
    MerlowSwmi& m_swmi = connected();
    VirtualClient m_client = m_board.connectClient();

private:
    MerlowSwmi& connected()
    {
        support::VirtualSwmServer::listen();
        auto& swmiComponent =
            m_board.add<MerlowSwmi>([this](std::chrono::microseconds time) { m_waits.push_back(time); });
        EXPECT_THAT(sent(), ElementsAre("00000001 00000000 0801"));
        fromServer("00000002 00000000 0801");
        fromServer("00000005 00000000");
        EXPECT_THAT(sent(), ElementsAre("00000004 00000000"));
        m_log.clear();
        return swmiComponent;
    }
};

} // namespace swmi
