/// A fault manager that keeps what it is told.
#pragma once

#include "faultManagerIf.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

struct FaultCall {
    bool raised;
    std::uint16_t faultId;
    std::uint16_t faultCase; ///< of a raise
    std::string description; ///< of a raise

    bool operator==(const FaultCall&) const = default;
};

inline void PrintTo(const FaultCall& call, std::ostream* out)
{
    *out << (call.raised ? "raise 0x" : "remove 0x") << std::hex << call.faultId << std::dec << " case "
         << call.faultCase << " \"" << call.description << "\"";
}

inline FaultCall raiseOf(std::uint16_t id, std::uint16_t faultCase, std::string description)
{
    return {.raised = true, .faultId = id, .faultCase = faultCase, .description = std::move(description)};
}

inline FaultCall removalOf(std::uint16_t id)
{
    return {.raised = false, .faultId = id, .faultCase = 0, .description = {}};
}

class FaultCalls : public Merlow::FaultManagerIf {
public:
    void
    subscribeForFaultNotifications(const std::function<void(Merlow::FaultData, unsigned int)>& /*raised*/,
                                   const std::function<void(Merlow::FaultData)>& /*ceased*/) override
    {
    }
    bool addFault(Merlow::FaultData& data) override
    {
        lastRaise = data;
        calls.push_back(raiseOf(data.faultId, data.faultCase, data.faultDescription));
        return result;
    }
    void removeFault(unsigned short faultId) override { calls.push_back(removalOf(faultId)); }
    void sendActiveFaults(unsigned int /*mbox*/) override {}
    [[nodiscard]] std::string getIwdFaultIdString(unsigned short /*faultId*/) override { return {}; }
    [[nodiscard]] std::string traceIwdFaultId(unsigned short /*faultId*/) override { return {}; }

    bool result = true;
    Merlow::FaultData lastRaise;
    std::vector<FaultCall> calls;
};
