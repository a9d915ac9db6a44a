/// What the tests of the services on BMMI share.
#pragma once

#include "bmmi.pb.h"
#include "board.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

/// A board with the service under test.
template <class Service> class MmiServiceTest : public ::testing::Test {
protected:
    static constexpr unsigned int userId = 55;

    MmiServiceTest() { m_board.add<Service>(); }

    /// A client whose session is an MMI user.
    support::VirtualClient mmiUser(support::Board::ClientOptions options = {})
    {
        const auto client = m_board.connectClient(options);
        client.session()->setMmiUserId(userId);
        return client;
    }
    [[nodiscard]] BrhClient& bmmiClient() { return m_board.commonData().getBmmiClient(); }
    [[nodiscard]] std::size_t openTransactions() { return bmmiClient().getNumTransactions(); }
    static std::string hexOf(mnet_mbox_id_t mailbox)
    {
        std::ostringstream text;
        text << "0x" << std::hex << mailbox;
        return text.str();
    }

    /// A frame of `name` under the reference of an open transaction, at every length: below its header, with
    /// a body that does not parse. Nothing comes of it but traces.
    void expectDroppedAtEveryLength(std::uint32_t number, const std::string& name, std::uint32_t procedureRef)
    {
        SCOPED_TRACE(name);
        const auto open = openTransactions();
        const auto frame = support::makeFrame(number, procedureRef, bmmiClient().getClientRef(), "\x08");
        m_board.traces().clear();
        m_board.bmmi().sendBytes(frame);
        EXPECT_TRUE(m_board.traced(1, "Unable to parse GPB message boardresourcehandler.bmmi." + name +
                                          " of size 13 bytes"));
        for (std::size_t size = 4; size < 12; ++size) {
            m_board.traces().clear();
            m_board.bmmi().sendBytes({frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size)});
            EXPECT_TRUE(m_board.traces().contains(4, "ABN: ") || m_board.traces().contains(1, "of size"))
                << size << " bytes without a trace";
        }
        EXPECT_EQ(openTransactions(), open);
    }
    /// `whole` from the client at each length, a word more than its size included: only a whole one is
    /// served.
    void expectReadAtEveryLength(const support::VirtualClient& client, const std::string& hex)
    {
        auto whole = support::messageFromHex(hex);
        const auto needed = whole.size();
        whole.resize(needed + 4);
        for (std::size_t size = 4; size <= whole.size(); ++size) {
            SCOPED_TRACE(size);
            m_board.traces().clear();
            client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
            EXPECT_EQ(m_board.bmmi().nothingReceived(), size < needed);
            EXPECT_EQ(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of " +
                                                       std::to_string(needed) + " bytes"),
                      size < needed);
            while (m_board.bmmi().receive()) {
            }
        }
        EXPECT_TRUE(client.nothingReceived());
    }

    support::Board m_board;
};
