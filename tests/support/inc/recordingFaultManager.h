#pragma once

#include "faultManagerIf.h"

#include <string>
#include <vector>

namespace support {

/// A fault manager that keeps what it is told.
class RecordingFaultManager : public Merlow::FaultManagerIf {
public:
    void
    subscribeForFaultNotifications(const std::function<void(Merlow::FaultData, unsigned int)>& /*raised*/,
                                   const std::function<void(Merlow::FaultData)>& /*ceased*/) override
    {
    }
    bool addFault(Merlow::FaultData& data) override
    {
        added.push_back(data);
        return takes;
    }
    void removeFault(unsigned short faultId) override { removed.push_back(faultId); }
    void sendActiveFaults(unsigned int /*mbox*/) override {}
    [[nodiscard]] std::string getIwdFaultIdString(unsigned short /*faultId*/) override { return {}; }
    [[nodiscard]] std::string traceIwdFaultId(unsigned short /*faultId*/) override { return {}; }

    bool takes = true; ///< what addFault gives
    std::vector<Merlow::FaultData> added;
    std::vector<unsigned short> removed;
};

} // namespace support
