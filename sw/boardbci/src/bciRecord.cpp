#include "bci/bciRecord.h"

#include "merlowTrace.h"

namespace Bci {

void traceShortSignal(const mnet_msg& msg, std::uint32_t number, std::uint64_t size)
{
    const BciSignal* signal = findBciSignal(number);
    SCRY_TRACE(4, "ABN: " << (signal != nullptr ? signal->name : "signal") << " (0x" << std::hex << number
                          << ") from mbox: 0x" << mnet_sender(&msg) << " is too short: " << std::dec
                          << mnet_size(&msg) << " of " << size << " bytes. Ignoring it.");
}

} // namespace Bci
