// What the unit can do.

#include "capabilityRecords.h"
#include "groups.h"

#include "bci/bciCapabilities.h"

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;
using tools::Signal;

class Capabilities : public Command {
public:
    ExitStatus run(BciClient& client, Output& output) override
    {
        const auto req = tools::requestFrom<TarnBcGetCapabilitiesReqS>(client);
        const auto answer = client.request(toMessage(req), {TARN_BC_GET_CAPABILITIES_CFM});
        if (const auto* const failure = std::get_if<tools::Failure>(&answer)) {
            output.failed(TARN_BC_GET_CAPABILITIES_REQ, *failure);
            return failure->status;
        }
        const auto& signal = std::get<Signal>(answer);
        const auto told = decodeCapabilities(signal);
        if (!told) {
            const tools::Failure failure{ExitStatus::noAnswer,
                                         "the unit's capabilities make no sense",
                                         {},
                                         TARN_BC_GET_CAPABILITIES_CFM};
            output.failed(TARN_BC_GET_CAPABILITIES_REQ, failure);
            return failure.status;
        }
        output.done(TARN_BC_GET_CAPABILITIES_REQ, TARN_BC_GET_CAPABILITIES_CFM, told->text,
                    withReferences(signal.addressInfo(), told->fields));
        return ExitStatus::done;
    }
};

} // namespace

std::unique_ptr<Command> makeCapabilities()
{
    return std::make_unique<Capabilities>();
}

} // namespace merlow::bcictl
