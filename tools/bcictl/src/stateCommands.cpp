// The session's operational state.

#include "groups.h"

#include "bci/bciState.h"

#include <array>

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;

std::string stateName(std::uint16_t state)
{
    constexpr std::array names{"STARTING", "OPERATIONAL", "DISABLED"};
    return state < names.size() ? names.at(state) : "unknown";
}

class Audit : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        return exchange<TarnBcAuditReqS, TarnBcAuditCfmS>(
            client, output, tools::requestFrom<TarnBcAuditReqS>(client), [](const TarnBcAuditCfmS& cfm) {
                const auto name = stateName(cfm.state);
                return Told{"state " + name + " (" + std::to_string(cfm.state) + ")",
                            {{"state", name}, {"stateValue", cfm.state}}};
            });
    }
};

class Enable : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        return exchange<TarnBcEnableOperationReqS, TarnBcEnableOperationCfmS, TarnBcEnableOperationRejS>(
            client, output, tools::requestFrom<TarnBcEnableOperationReqS>(client),
            [](const TarnBcEnableOperationCfmS&) {
                return Told{"operation enabled", Fields::object()};
            });
    }
};

class Disable : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        return exchange<TarnBcDisableOperationReqS, TarnBcDisableOperationCfmS, TarnBcDisableOperationRejS>(
            client, output, tools::requestFrom<TarnBcDisableOperationReqS>(client),
            [](const TarnBcDisableOperationCfmS&) {
                return Told{"operation disabled", Fields::object()};
            });
    }
};

} // namespace

std::unique_ptr<Command> makeAudit()
{
    return std::make_unique<Audit>();
}

std::unique_ptr<Command> makeEnable()
{
    return std::make_unique<Enable>();
}

std::unique_ptr<Command> makeDisable()
{
    return std::make_unique<Disable>();
}

} // namespace merlow::bcictl
