/// The client side on the in-memory board: the procedures run on the board's thread, and another board
/// controller answers them in bytes.
#pragma once

#include "board.h"
#include "tracepointLog.h"

#include <gmock/gmock.h>

namespace bbbci {

using MerlowTracepoints::Event;

class BbBciTest : public ::testing::Test {
protected:
    BbBciTest() : m_peer(m_board.newClient()) {}

    /// From the other board controller to the procedures.
    void answer(const std::string& hex) { answer(support::messageFromHex(hex)); }
    void answer(const support::Bytes& bytes) { m_peer.sendBytes(bytes, own()); }
    /// The oldest request that the other board controller got, "" when there is none. It must have come from
    /// the procedures' own mailbox.
    std::string request()
    {
        const auto received = m_peer.receive();
        if (!received) {
            return {};
        }
        EXPECT_EQ(received->sender, own());
        return support::messageToHex(received->bytes);
    }
    [[nodiscard]] mnet_mbox_id_t own() { return m_board.commonData().getPrivateMbox(); }
    std::vector<std::string> errors() { return m_log.texts(Event::Error); }
    /// A reject of `text` to references 1 and 300.
    static std::string reject(const std::string& number, const std::string& text)
    {
        return number + " 00000001 0000012c " + support::rejectTail(text);
    }
    std::string receivedReject(const std::string& name, const std::string& text)
    {
        std::ostringstream line;
        line << "Received " << name << " from mailbox id 0x" << std::hex << m_peer.mbox() << " due to "
             << text;
        return line.str();
    }
    ::testing::AssertionResult tracedAsShort(const std::string& signal, const std::string& sizes)
    {
        std::ostringstream text;
        text << "ABN: " << signal << " from mbox: 0x" << std::hex << m_peer.mbox()
             << " is too short: " << sizes << " bytes. Ignoring it.";
        return m_board.traced(4, text.str());
    }

    support::Board m_board;
    support::VirtualClient m_peer;
    support::TracepointLog m_log;
    const TarnNodeCommonAddressInfoS m_address{.clientRef = 1, .serverRef = 300};
};

} // namespace bbbci
