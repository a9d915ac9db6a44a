/// Texts of the fault signals' events.
#pragma once

#include "bci/bciFaults.h"

#include <algorithm>
#include <sstream>
#include <string>

namespace Merlow::BbBci {

inline std::string describe(const TarnNodeCommonAddressInfoS& addressInfo)
{
    return "clientRef: " + std::to_string(addressInfo.clientRef) +
           ", serverRef: " + std::to_string(addressInfo.serverRef);
}

/// ", additionalData: 0x1 0x2". The signal may announce more words than it has room for; those it has count.
template <std::size_t N>
std::string describeAdditionalData(const std::uint16_t (&data)[N], std::uint16_t length)
{
    std::ostringstream text;
    text << ", additionalData:" << std::hex;
    for (std::size_t i = 0; i < std::min<std::size_t>(length, N); ++i) {
        text << " 0x" << data[i];
    }
    return text.str();
}

} // namespace Merlow::BbBci
