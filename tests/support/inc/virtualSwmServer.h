/// The SWM server's end of the server's connection, in memory.
#pragma once

#include "fakeSway.h"

#include <cstdint>
#include <string>
#include <vector>

namespace support {

/// A frame's bytes from hexadecimal text; blanks do not count. Fails the test when the text is no bytes.
[[nodiscard]] std::vector<std::uint8_t> frameFromHex(const std::string& hex);
/// Number and reference in groups of four bytes, then the body: "00000001 00000007 0801".
[[nodiscard]] std::string frameToHex(const std::vector<std::uint8_t>& frame);

/// All that it says and hears is bytes. One for the process, as the in-memory sockets that it lives in.
class VirtualSwmServer {
public:
    static constexpr const char* address = "ux:SWMServer";

    static void listen() { FakeSway::instance().listen(address); }
    static void refuse() { FakeSway::instance().refuse(address); }
    /// Null without a connection.
    [[nodiscard]] static sway_socket* connection() { return FakeSway::instance().connection(address); }
    /// Sends a frame, and pumps until the server is idle.
    static void send(const std::vector<std::uint8_t>& frame);
    static void send(const std::string& hex) { send(frameFromHex(hex)); }
    /// What came since the last call, as hexadecimal text.
    [[nodiscard]] static std::vector<std::string> received();
    /// Closes, and pumps.
    static void close();
};

} // namespace support
