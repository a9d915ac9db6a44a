// The unit's faults.

#include "groups.h"

#include "faultSignals.h"

#include "bci/bciFaults.h"
#include "bci/bciState.h"

#include <map>
#include <vector>

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;
using tools::Signal;

enum class Kind { standard, hwLabel, recoveryTime };

const std::map<std::string, Kind> kinds{
    {"default", Kind::standard}, {"hw-label", Kind::hwLabel}, {"recovery-time", Kind::recoveryTime}};

/// Active faults in the order in which they came; the unit shows each id once.
class FaultList {
public:
    void take(const FaultEvent& event)
    {
        std::erase_if(m_faults, [&event](const FaultEvent& known) { return known.faultId == event.faultId; });
        if (event.isRaise) {
            m_faults.push_back(event);
        }
    }

    void tell(Output& output, const TarnNodeCommonAddressInfoS& references) const
    {
        for (const FaultEvent& fault : m_faults) {
            tellActiveFault(output, fault);
        }
        const auto count = m_faults.size();
        output.done(TARN_BC_SUBSCRIBE_FAULTS_REQ, TARN_BC_SUBSCRIBE_FAULTS_CFM,
                    (count == 0 ? "no" : std::to_string(count)) +
                        (count == 1 ? " active fault" : " active faults"),
                    withReferences(references, {{"active", count}}));
    }

private:
    std::vector<FaultEvent> m_faults;
};

class Faults : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addFlag("--follow", m_follows,
                    "Stay, and print each raise and cease as it happens; a session does so anyway");
        const auto take = [this](const std::string& name) {
            m_kind = kinds.at(name);
            return std::string();
        };
        app.addReader("--kind", take,
                      "The subscription: default, or hw-label or recovery-time, which the unit confirms and "
                      "sends nothing for")
            .oneOf({"default", "hw-label", "recovery-time"});
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        switch (m_kind) {
        case Kind::hwLabel:
            return subscribeInSilence<TarnBcSubscribeFaultsWithHwFaultLabelReqS,
                                      TarnBcSubscribeFaultsWithHwFaultLabelCfmS>(client, output);
        case Kind::recoveryTime:
            return subscribeInSilence<TarnBcSubscribeFaultsWithRecoveryTimeReqS,
                                      TarnBcSubscribeFaultsWithRecoveryTimeCfmS>(client, output);
        case Kind::standard:
            break;
        }
        return m_follows ? follow(client, output) : list(client, output);
    }

private:
    template <class Req, class Cfm> ExitStatus subscribeInSilence(BciClient& client, Output& output) const
    {
        const auto status = subscribe<Req, Cfm>(
            client, output, "subscribed; the unit sends no faults for this kind of subscription");
        return status == ExitStatus::done && m_follows ? stayConnected(client, output) : status;
    }

    template <class Req, class Cfm>
    static ExitStatus subscribe(BciClient& client, Output& output, const char* text)
    {
        return exchange<Req, Cfm>(client, output, tools::requestFrom<Req>(client), [text](const Cfm&) {
            return Told{text, {{"text", text}}};
        });
    }

    static ExitStatus follow(BciClient& client, Output& output)
    {
        const auto status = subscribe<TarnBcSubscribeFaultsReqS, TarnBcSubscribeFaultsCfmS>(
            client, output, "subscribed to faults");
        return status == ExitStatus::done ? stayConnected(client, output) : status;
    }

    /// What is active comes right behind the confirm, so all of it is there when something asked for later is
    /// answered.
    static ExitStatus list(BciClient& client, Output& output)
    {
        FaultList faults;
        const auto others = client.onIndication({});
        client.onIndication([&faults, &others](const Signal& signal) {
            if (const auto event = decodeFault(signal)) {
                faults.take(*event);
            } else if (others) {
                others(signal);
            }
        });
        const auto status = listInto(faults, client, output);
        client.onIndication(others);
        return status;
    }

    static ExitStatus listInto(const FaultList& faults, BciClient& client, Output& output)
    {
        const auto req = tools::requestFrom<TarnBcSubscribeFaultsReqS>(client);
        const auto confirm = client.request(toMessage(req), {TARN_BC_SUBSCRIBE_FAULTS_CFM});
        if (const auto* const failure = std::get_if<tools::Failure>(&confirm)) {
            output.failed(TARN_BC_SUBSCRIBE_FAULTS_REQ, *failure);
            return failure->status;
        }
        const auto audit = tools::requestFrom<TarnBcAuditReqS>(client);
        const auto answer = client.request(toMessage(audit), {TARN_BC_AUDIT_CFM});
        if (const auto* const failure = std::get_if<tools::Failure>(&answer)) {
            output.failed(TARN_BC_AUDIT_REQ, *failure);
            return failure->status;
        }
        faults.tell(output, client.references());
        return ExitStatus::done;
    }

    bool m_follows = false;
    Kind m_kind = Kind::standard;
};

} // namespace

std::unique_ptr<Command> makeFaults()
{
    return std::make_unique<Faults>();
}

} // namespace merlow::bcictl
