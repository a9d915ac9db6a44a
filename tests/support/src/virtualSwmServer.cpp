#include "virtualSwmServer.h"

#include "fakeLoop.h"

#include <gtest/gtest.h>
#include <utility>

namespace support {

std::vector<std::uint8_t> frameFromHex(const std::string& hex)
{
    std::string text = hex;
    std::erase(text, ' ');
    std::vector<std::uint8_t> frame;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        frame.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    EXPECT_EQ(text.size() % 2, 0U) << "Half a byte in " << hex;
    return frame;
}

std::string frameToHex(const std::vector<std::uint8_t>& frame)
{
    constexpr const char* hexDigits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < frame.size(); ++i) {
        if (i == 4 || i == 8) {
            text += ' ';
        }
        text += hexDigits[frame[i] >> 4U];
        text += hexDigits[frame[i] & 15U];
    }
    return text;
}

void VirtualSwmServer::send(const std::vector<std::uint8_t>& frame)
{
    ASSERT_NE(connection(), nullptr) << "The server under test has no connection";
    connection()->fromPeer.push_back(frame);
    FakeLoop::instance().pumpUntilIdle();
}

std::vector<std::string> VirtualSwmServer::received()
{
    std::vector<std::string> frames;
    if (connection() != nullptr) {
        for (const auto& frame : std::exchange(connection()->toPeer, {})) {
            frames.push_back(frameToHex(frame));
        }
    }
    return frames;
}

void VirtualSwmServer::close()
{
    ASSERT_NE(connection(), nullptr);
    connection()->closedByPeer = true;
    FakeLoop::instance().pumpUntilIdle();
}

} // namespace support
