/// CCFI on the in-memory board: processes that speak it in bytes, and the server's events.
#pragma once

#include "board.h"
#include "ccfi.h"
#include "tracepointLog.h"

#include <gmock/gmock.h>

namespace ccfi {

using MerlowTracepoints::Event;
using support::Bytes;

class CcfiTest : public ::testing::Test {
protected:
    CcfiTest() : CcfiTest(support::Board::Options{}) {}
    explicit CcfiTest(support::Board::Options options) : m_board(options)
    {
        m_board.add<Merlow::Ccfi::Ccfi>();
        m_log.clear();
    }

    mnet_mbox_id_t privateMbox() { return m_board.commonData().getPrivateMbox(); }
    void send(const support::VirtualPeer& peer, const std::string& hex)
    {
        peer.sendBytes(support::messageFromHex(hex), privateMbox());
    }
    /// The oldest message as text, "" when there is none. It must have come from the private mailbox.
    std::string received(const support::VirtualPeer& peer)
    {
        const auto letter = peer.receive();
        if (!letter) {
            return {};
        }
        EXPECT_EQ(letter->sender, privateMbox());
        return support::messageToHex(letter->bytes);
    }
    /// A connection; gives the server's reference in hexadecimal digits.
    std::string connect(const support::VirtualPeer& peer, const std::string& clientRef = "00000007")
    {
        send(peer, "017c0201 00000001 " + clientRef + " 00000001 00000001");
        const std::string cfm = received(peer);
        EXPECT_EQ(cfm.substr(0, 17), "017c0202 00000001") << cfm;
        return cfm.size() == 35 ? cfm.substr(18, 8) : "";
    }
    std::vector<std::string> infos() { return m_log.texts(Event::Info); }
    std::vector<std::string> errors() { return m_log.texts(Event::Error); }
    /// "ABN: ..." of one signal that was cut.
    ::testing::AssertionResult tracedAsShort(const support::VirtualPeer& peer, const std::string& signal,
                                             const std::string& sizes)
    {
        std::ostringstream text;
        text << "ABN: " << signal << " from mbox: 0x" << std::hex << peer.mbox() << " is too short: " << sizes
             << " bytes. Ignoring it.";
        return m_board.traced(4, text.str());
    }

    support::Board m_board;
    support::TracepointLog m_log;
};

} // namespace ccfi
