#include "bbbciConnEstablish.h"

#include "bbBciProcedure.h"

namespace Merlow::BbBci {

namespace {

/// The revision that is offered first: a peer that names it in a reject means something else.
constexpr std::uint16_t OFFERED_REVISION = 3;

/// The peer gives the references that count in its confirm.
constexpr TarnNodeCommonAddressInfoS FIRST_REFERENCES{.clientRef = 1, .serverRef = 300};

} // namespace

BbbciConnEstablish::BbbciConnEstablish() = default;

BbbciConnEstablish::~BbbciConnEstablish()
{
    removeMessageHandlers();
}

void BbbciConnEstablish::initialize()
{
    TP_ENTERING();
    onSignal(this, TARN_BC_CONN_ESTABLISH_CFM, &BbbciConnEstablish::handleConnEstablishCfm);
    onSignal(this, TARN_BC_CONN_ESTABLISH_REJ, &BbbciConnEstablish::handleConnEstablishRej);
}

void BbbciConnEstablish::removeMessageHandlers() const
{
    removeHandlers({TARN_BC_CONN_ESTABLISH_CFM, TARN_BC_CONN_ESTABLISH_REJ});
}

void BbbciConnEstablish::sendConnEstablishReq(mnet_mbox_id_t mbox, const CfmReceivedHandler& cfm,
                                              const RejReceivedHandler& rej)
{
    m_cfm = cfm;
    m_rej = rej;
    sendConnEstablishReq(mbox, OFFERED_REVISION);
}

void BbbciConnEstablish::sendConnEstablishReq(mnet_mbox_id_t mbox, std::uint16_t protocolRev)
{
    auto req = answerTo<TarnBcConnEstablishReqS>(FIRST_REFERENCES);
    req.protocolRev = protocolRev;
    sendToPeer(req, mbox);
}

void BbbciConnEstablish::handleConnEstablishCfm(const std::shared_ptr<mnet_msg>& msg)
{
    if (const auto cfm = receive<TarnBcConnEstablishCfmS>(*msg)) {
        const auto confirmed = m_cfm;
        confirmed(cfm->addressInfo);
    }
}

void BbbciConnEstablish::handleConnEstablishRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto rej = receive<TarnBcConnEstablishRejS>(*msg);
    if (!rej) {
        return;
    }
    if (rej->protocolRev == OFFERED_REVISION) {
        traceReject("TARN_BC_CONN_ESTABLISH_REJ", *rej, *msg);
        const auto rejected = m_rej;
        rejected();
    } else {
        sendConnEstablishReq(mnet_sender(msg.get()), rej->protocolRev);
    }
}

} // namespace Merlow::BbBci
