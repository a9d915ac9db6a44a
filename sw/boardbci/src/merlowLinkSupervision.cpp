#include "merlowLinkSupervision.h"

#include "bci/bciLinkSupervision.h"
#include "bri.pb.h"

namespace bri = boardresourcehandler::bri;

namespace {

/// Reading a frame traces it, whole or broken; that is all there is to do.
template <class M> void traceFrame(const mnet_msg& msg)
{
    static_cast<void>(readFrame<M>(msg));
}

} // namespace

bool MerlowLinkSupervision::init()
{
    BrhClient& briClient = m_commonData.getBriClient();
    onSignal(TARN_BC_LINK_SUPERVISION_REQ, &MerlowLinkSupervision::handleLinkSupervisionReq);
    onFrame<bri::SetLinkSupervisionTimeoutCfm>(briClient,
                                               &MerlowLinkSupervision::handleSetLinkSupervisionTimeoutCfm);
    onFrame<bri::SetLinkSupervisionTimeoutRej>(briClient,
                                               &MerlowLinkSupervision::handleSetLinkSupervisionTimeoutRej);
    onFrame<bri::StartLinkTimeoutSupervisionCfm>(
        briClient, &MerlowLinkSupervision::handleStartLinkTimeoutSupervisionCfm);
    onFrame<bri::StartLinkTimeoutSupervisionRej>(
        briClient, &MerlowLinkSupervision::handleStartLinkTimeoutSupervisionRej);
    onFrame<bri::StopLinkTimeoutSupervisionCfm>(briClient,
                                                &MerlowLinkSupervision::handleStopLinkTimeoutSupervisionCfm);
    onFrame<bri::StopLinkTimeoutSupervisionRej>(briClient,
                                                &MerlowLinkSupervision::handleStopLinkTimeoutSupervisionRej);
    onFrame<bri::ConnectivitySetSupervisionTimeoutCfm>(
        briClient, &MerlowLinkSupervision::handleConnectivitySetSupervisionTimeoutCfm);
    onFrame<bri::ConnectivitySetSupervisionTimeoutRej>(
        briClient, &MerlowLinkSupervision::handleConnectivitySetSupervisionTimeoutRej);
    onFrame<bri::ConnectivityConnectedCfm>(briClient, &MerlowLinkSupervision::handleConnectivityConnectedCfm);
    onFrame<bri::ConnectivityConnectedRej>(briClient, &MerlowLinkSupervision::handleConnectivityConnectedRej);
    onFrame<bri::ConnectivityNotConnectedCfm>(briClient,
                                              &MerlowLinkSupervision::handleConnectivityNotConnectedCfm);
    onFrame<bri::ConnectivityNotConnectedRej>(briClient,
                                              &MerlowLinkSupervision::handleConnectivityNotConnectedRej);
    return true;
}

void MerlowLinkSupervision::handleLinkSupervisionReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcLinkSupervisionReqS>(*msg);
    if (!req) {
        return;
    }
    auto rej = answerTo<TarnBcLinkSupervisionRejS>(req->addressInfo);
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription),
                             "Capability prerequisite not fulfilled");
    sendToClient(mnet_sender(msg.get()), rej);
}

unsigned int MerlowLinkSupervision::sendSetLinkSupervisionTimeoutReq(unsigned int timeout,
                                                                     const std::string& link)
{
    bri::SetLinkSupervisionTimeoutReq briReq;
    briReq.set_timeout(timeout);
    briReq.set_link(link);
    return m_commonData.getBriClient().sendMessage(briReq);
}

void MerlowLinkSupervision::handleSetLinkSupervisionTimeoutCfm(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::SetLinkSupervisionTimeoutCfm>(*msg);
}

void MerlowLinkSupervision::handleSetLinkSupervisionTimeoutRej(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::SetLinkSupervisionTimeoutRej>(*msg);
}

void MerlowLinkSupervision::handleStartLinkTimeoutSupervisionCfm(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::StartLinkTimeoutSupervisionCfm>(*msg);
}

void MerlowLinkSupervision::handleStartLinkTimeoutSupervisionRej(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::StartLinkTimeoutSupervisionRej>(*msg);
}

void MerlowLinkSupervision::handleStopLinkTimeoutSupervisionCfm(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::StopLinkTimeoutSupervisionCfm>(*msg);
}

void MerlowLinkSupervision::handleStopLinkTimeoutSupervisionRej(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::StopLinkTimeoutSupervisionRej>(*msg);
}

void MerlowLinkSupervision::handleConnectivitySetSupervisionTimeoutCfm(
    const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::ConnectivitySetSupervisionTimeoutCfm>(*msg);
}

void MerlowLinkSupervision::handleConnectivitySetSupervisionTimeoutRej(
    const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::ConnectivitySetSupervisionTimeoutRej>(*msg);
}

void MerlowLinkSupervision::handleConnectivityConnectedCfm(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::ConnectivityConnectedCfm>(*msg);
}

void MerlowLinkSupervision::handleConnectivityConnectedRej(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::ConnectivityConnectedRej>(*msg);
}

void MerlowLinkSupervision::handleConnectivityNotConnectedCfm(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::ConnectivityNotConnectedCfm>(*msg);
}

void MerlowLinkSupervision::handleConnectivityNotConnectedRej(const std::shared_ptr<mnet_msg>& msg) const
{
    traceFrame<bri::ConnectivityNotConnectedRej>(*msg);
}
