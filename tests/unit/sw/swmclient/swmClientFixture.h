/// The SWM client between an in-memory event loop and an in-memory SWM server.
#pragma once

#include "fakeLoop.h"
#include "fakeSway.h"
#include "swmClient.h"
#include "tracepointLog.h"
#include "virtualSwmServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace swmclient {

using Event = MerlowTracepoints::Event;
using Bytes = std::vector<std::uint8_t>;

inline Bytes bytesOf(const std::string& hex)
{
    return support::frameFromHex(hex);
}

class SwmClientTest : public ::testing::Test {
protected:
    static constexpr const char* address = support::VirtualSwmServer::address;

    SwmClientTest()
    {
        sway().reset();
        loop().reset();
        sway().listen(address);
    }
    ~SwmClientTest() override
    {
        m_client.reset();
        EXPECT_EQ(sway().openConnections(), 0U) << "A connection was not closed";
        loop().reset();
        sway().reset();
    }

    static support::FakeSway& sway() { return support::FakeSway::instance(); }
    static support::FakeLoop& loop() { return support::FakeLoop::instance(); }
    /// The server's end.
    static sway_socket* peer() { return sway().connection(address); }

    unsigned int establish(const std::vector<unsigned int>& revisions = {1})
    {
        return m_client->connEstablishReq([this] { ++m_readyCalls; }, 7, address, revisions);
    }
    /// Up to the confirm, with revision 1; what was sent and traced so far is forgotten.
    void connect()
    {
        ASSERT_EQ(establish(), 0U);
        fromServer("00000002 00000007 0801");
        ASSERT_TRUE(m_client->isConnected());
        sent();
        m_log.clear();
    }
    /// A frame from the server, handled.
    static void fromServer(const Bytes& frame) { support::VirtualSwmServer::send(frame); }
    static void fromServer(const std::string& hex) { support::VirtualSwmServer::send(hex); }
    /// What the server got since the last call.
    static std::vector<std::string> sent() { return support::VirtualSwmServer::received(); }
    [[nodiscard]] std::vector<unsigned int> capabilityIds() const
    {
        std::vector<std::shared_ptr<SWAYCapability>> capabilities;
        m_client->getCapabilities(capabilities);
        std::vector<unsigned int> ids;
        for (const auto& capability : capabilities) {
            ids.push_back(capability->id);
        }
        return ids;
    }
    /// A handler that writes down its calls as "8: ref 7, 0801".
    SWMClient::MsgHandler recorder(unsigned int msgNo)
    {
        return [this, msgNo](unsigned int procRef, const char* buffer, unsigned int size) {
            m_calls.push_back(std::to_string(msgNo) + ": ref " + std::to_string(procRef) + ", " +
                              std::to_string(size) + " " + std::string(buffer, size));
        };
    }
    std::vector<std::string> errors() const { return m_log.texts(Event::Error); }
    std::vector<std::string> infos() const { return m_log.texts(Event::Info); }
    std::vector<std::string> steps() const { return m_log.texts(Event::Trace7); }

    support::TracepointLog m_log;
    std::unique_ptr<SWMClient> m_client = std::make_unique<SWMClient>();
    unsigned int m_readyCalls = 0;
    std::vector<std::string> m_calls;
};

} // namespace swmclient
