#include "storeLease.h"

#include "bci/bciSoftware.h"

namespace merlow::bcictl {

using tools::BciClient;
using tools::ExitStatus;
using tools::Failure;

StepFailure failedStep(const char* step, std::uint32_t sent, Failure failure)
{
    failure.text = std::string(step) + ": " + failure.text;
    return {sent, std::move(failure)};
}

ExitStatus tell(Output& output, const StepFailure& failure)
{
    output.failed(failure.sent, failure.failure);
    return failure.failure.status;
}

std::optional<StepFailure> acquireStore(BciClient& client)
{
    auto req = tools::requestFrom<TarnBcAcquireResourceReqS>(client);
    req.resource = storeResource;
    const auto answer =
        client.request(::toMessage(req), {TARN_BC_ACQUIRE_RESOURCE_CFM, TARN_BC_ACQUIRE_RESOURCE_REJ});
    const auto* const failure = std::get_if<Failure>(&answer);
    client.setHoldsStore(failure == nullptr);
    if (failure == nullptr) {
        return std::nullopt;
    }
    auto told = failedStep("acquiring the store", TARN_BC_ACQUIRE_RESOURCE_REQ, *failure);
    if (failure->status == ExitStatus::noAnswer) {
        told.failure.text += "; another client may hold it, --timeout says how long to wait";
        (void)releaseStore(client); // a place in the queue would become the store later
    }
    return told;
}

std::optional<StepFailure> releaseStore(BciClient& client)
{
    auto req = tools::requestFrom<TarnBcReleaseResourceReqS>(client);
    req.resource = storeResource;
    const auto answer =
        client.request(::toMessage(req), {TARN_BC_RELEASE_RESOURCE_CFM, TARN_BC_RELEASE_RESOURCE_REJ});
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        return failedStep("releasing the store", TARN_BC_RELEASE_RESOURCE_REQ, *failure);
    }
    client.setHoldsStore(false);
    return std::nullopt;
}

StoreLease::~StoreLease()
{
    (void)release();
}

std::optional<StepFailure> StoreLease::acquire()
{
    if (m_client.holdsStore()) {
        return std::nullopt;
    }
    auto failure = acquireStore(m_client);
    m_isOurs = !failure;
    return failure;
}

std::optional<StepFailure> StoreLease::release()
{
    if (!m_isOurs) {
        return std::nullopt;
    }
    m_isOurs = false;
    return releaseStore(m_client);
}

} // namespace merlow::bcictl
