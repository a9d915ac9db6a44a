#include "bbBciGetCapabilities.h"

#include "bbBciProcedure.h"
#include "bci/bciCapabilities.h"

#include <stdexcept>

namespace Merlow::BbBci {

namespace {

constexpr std::size_t RECORD_HEAD = 4; ///< number and size of a capability

/// The records behind the confirm; nothing, and a trace, when it announces more than it holds.
std::optional<std::vector<CapabilityInfo>> readCapabilities(const TarnBcGetCapabilitiesCfmS& cfm,
                                                            const mnet_msg& msg)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&msg);
    std::vector<CapabilityInfo> capabilities;
    std::size_t at = BciRecord<TarnBcGetCapabilitiesCfmS>::size;
    for (unsigned int i = 0; i < cfm.numberOfBoardCapabilities; ++i) {
        std::size_t end = at + RECORD_HEAD;
        if (end <= mnet_size(&msg)) {
            const auto size = Bci::fieldOrZero<std::uint16_t>(msg, at + 2);
            if (size < RECORD_HEAD) {
                throw std::length_error("cannot create std::vector larger than max_size()");
            }
            end = at + size;
        }
        if (end > mnet_size(&msg)) {
            Bci::traceShortSignal(msg, TARN_BC_GET_CAPABILITIES_CFM, end);
            return std::nullopt;
        }
        capabilities.push_back({.tag = Bci::fieldOrZero<std::int16_t>(msg, at),
                                .value = {bytes + at + RECORD_HEAD, bytes + end}});
        at = end;
    }
    return capabilities;
}

} // namespace

BbBciGetCapabilities::BbBciGetCapabilities() = default;

BbBciGetCapabilities::~BbBciGetCapabilities()
{
    removeMessageHandlers();
}

void BbBciGetCapabilities::initialize()
{
    TP_ENTERING();
    onSignal(this, TARN_BC_GET_CAPABILITIES_CFM, &BbBciGetCapabilities::handleGetCapabilitiesCfm);
    onSignal(this, TARN_BC_GET_CAPABILITIES_REJ, &BbBciGetCapabilities::handleGetCapabilitiesRej);
}

void BbBciGetCapabilities::removeMessageHandlers() const
{
    removeHandlers({TARN_BC_GET_CAPABILITIES_CFM, TARN_BC_GET_CAPABILITIES_REJ});
}

void BbBciGetCapabilities::sendGetCapabilitiesReq(mnet_mbox_id_t mbox,
                                                  const TarnNodeCommonAddressInfoS& address,
                                                  const CfmReceivedHandler& cfm,
                                                  const RejReceivedHandler& rej)
{
    m_cfm = cfm;
    m_rej = rej;
    sendToPeer(answerTo<TarnBcGetCapabilitiesReqS>(address), mbox);
}

void BbBciGetCapabilities::handleGetCapabilitiesCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto cfm = receive<TarnBcGetCapabilitiesCfmS>(*msg);
    if (!cfm) {
        return;
    }
    TP_INFO("numberOfBoardCapabilities: " << cfm->numberOfBoardCapabilities);
    if (const auto capabilities = readCapabilities(*cfm, *msg)) {
        const auto confirmed = m_cfm;
        confirmed(*capabilities);
    }
}

void BbBciGetCapabilities::handleGetCapabilitiesRej(const std::shared_ptr<mnet_msg>& msg)
{
    if (const auto rej = receive<TarnBcGetCapabilitiesRejS>(*msg)) {
        traceReject("TARN_BC_GET_CAPABILITIES_REJ", *rej, *msg);
        const auto rejected = m_rej;
        rejected();
    }
}

} // namespace Merlow::BbBci
