#include "merlowFaultHandling.h"

#include "merlowTrace.h"
#include "merlowUtil.h"

#include <algorithm>
#include <sstream>

namespace {

/// A number of the server's own, as the exit message's: a subscriber's mailbox is gone.
constexpr std::uint32_t SUBSCRIBER_LOST = 0xDEADBEF0;

constexpr std::uint32_t SIGNALS[] = {
    TARN_BC_SUBSCRIBE_FAULTS_REQ,
    TARN_BC_SUBSCRIBE_FAULTS_CFM,
    TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ,
    TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM,
    TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ,
    TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_CFM,
    TARN_BC_FAULT_IND,
    TARN_BC_FAULTCEASE_IND,
};

bool contains(const std::vector<BcFaultSubscriber>& subscribers, const BcFaultSubscriber& subscriber)
{
    return std::find(subscribers.begin(), subscribers.end(), subscriber) != subscribers.end();
}

} // namespace

std::ostream& operator<<(std::ostream& out, const BcFaultSubscriber& subscriber)
{
    std::ostringstream text; // so that the caller's stream keeps its base
    text << "BcFaultSubscriber: mboxId = 0x" << std::hex << subscriber.mboxId << std::dec
         << ", clientRef = " << subscriber.clientRef << ", serverRef = " << subscriber.serverRef;
    return out << text.str();
}

bool MerlowFaultHandling::init()
{
    std::map<unsigned int, std::string> names;
    for (const std::uint32_t number : SIGNALS) {
        names.emplace(number, findBciSignal(number)->name);
    }
    MerlowUtil::registerMessageNames(names);
    m_commonData.getFaultManager().subscribeForFaultNotifications(
        [this](const Merlow::FaultData& data, unsigned int mbox) { handleRaisedFault(data, mbox); },
        [this](const Merlow::FaultData& data) { handleCeasedFault(data); });
    onSignal(TARN_BC_SUBSCRIBE_FAULTS_REQ, &MerlowFaultHandling::handleSubscribeFaultsReq);
    onSignal(TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ,
             &MerlowFaultHandling::handleSubscribeHwFaultLabelReq);
    onSignal(TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ,
             &MerlowFaultHandling::handleSubscribeRecoveryTimeFaultsReq);
    onNotice(SUBSCRIBER_LOST, &MerlowFaultHandling::handleSubscriberLost);
    m_watched.clear(); // the watches of an earlier server thread ended with its mailbox
    return true;
}

void MerlowFaultHandling::onBcSessionLost(const BcSession& session)
{
    const auto isOfSession = [&session](const BcFaultSubscriber& subscriber) {
        return subscriber.mboxId == session.mailboxId;
    };
    const auto it = std::find_if(m_defaultSubscribers.begin(), m_defaultSubscribers.end(), isOfSession);
    if (it != m_defaultSubscribers.end()) {
        SCRY_OBJ_TRACE(5, "Deleting fault subscriber using mbox = " << session.mailboxId);
        m_defaultSubscribers.erase(it);
    }
    for (const Subscribers* left :
         {&m_defaultSubscribers, &m_hwFaultLabelSubscribers, &m_recoveryTimeSubscribers}) {
        if (std::any_of(left->begin(), left->end(), isOfSession)) {
            watch(session.mailboxId);
        }
    }
}

std::size_t MerlowFaultHandling::getNumSubscribers() const
{
    return m_defaultSubscribers.size() + m_hwFaultLabelSubscribers.size() + m_recoveryTimeSubscribers.size();
}

void MerlowFaultHandling::watch(mnet_mbox_id_t mbox)
{
    // One watch for each mailbox, however many sessions it has had.
    if (!m_watched.insert(mbox).second) {
        return;
    }
    mnet_msg* notice = allocMsg(sizeof(mnet_msg), SUBSCRIBER_LOST).release();
    if (notice == nullptr || mnet_monitor(mbox, &notice) == MNET_MBOX_NONE) {
        SCRY_TRACE(4, "ABN: Cannot watch fault subscriber using mbox = " << mbox);
        m_watched.erase(mbox);
    }
}

void MerlowFaultHandling::handleSubscriberLost(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t mbox = mnet_sender(msg.get());
    m_watched.erase(mbox);
    for (Subscribers* subscribers :
         {&m_defaultSubscribers, &m_hwFaultLabelSubscribers, &m_recoveryTimeSubscribers}) {
        std::erase_if(*subscribers,
                      [mbox](const BcFaultSubscriber& subscriber) { return subscriber.mboxId == mbox; });
    }
}

void MerlowFaultHandling::handleSubscribeFaultsReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcSubscribeFaultsReqS>(*msg);
    if (!req) {
        return;
    }
    const auto subscriber = getFaultSubscriber(req->addressInfo, mnet_sender(msg.get()));
    if (isIgnored(subscriber, TARN_BC_SUBSCRIBE_FAULTS_REQ)) {
        return;
    }
    if (!addSubscriber(m_defaultSubscribers, subscriber)) {
        traceNotConnected(subscriber, TARN_BC_SUBSCRIBE_FAULTS_REQ);
        return;
    }
    sendTarnBcSubscribeCfm<TarnBcSubscribeFaultsCfmS>(subscriber);
    m_commonData.getFaultManager().sendActiveFaults(subscriber.mboxId);
}

void MerlowFaultHandling::handleSubscribeHwFaultLabelReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcSubscribeFaultsWithHwFaultLabelReqS>(*msg);
    if (!req) {
        return;
    }
    const auto subscriber = getFaultSubscriber(req->addressInfo, mnet_sender(msg.get()));
    if (contains(m_defaultSubscribers, subscriber)) {
        SCRY_OBJ_TRACE(5, "Removing client subscription for default faults, serverRef = "
                              << subscriber.serverRef << ", mboxId = 0x" << std::hex << subscriber.mboxId);
        std::erase(m_defaultSubscribers, subscriber);
    }
    if (!addSubscriber(m_hwFaultLabelSubscribers, subscriber)) {
        traceNotConnected(subscriber, TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ);
        return;
    }
    sendTarnBcSubscribeCfm<TarnBcSubscribeFaultsWithHwFaultLabelCfmS>(subscriber);
}

void MerlowFaultHandling::handleSubscribeRecoveryTimeFaultsReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcSubscribeFaultsWithRecoveryTimeReqS>(*msg);
    if (!req) {
        return;
    }
    const auto subscriber = getFaultSubscriber(req->addressInfo, mnet_sender(msg.get()));
    if (isIgnored(subscriber, TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ)) {
        return;
    }
    if (!addSubscriber(m_recoveryTimeSubscribers, subscriber)) {
        traceNotConnected(subscriber, TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ);
        return;
    }
    sendTarnBcSubscribeCfm<TarnBcSubscribeFaultsWithRecoveryTimeCfmS>(subscriber);
}

void MerlowFaultHandling::handleRaisedFault(const Merlow::FaultData& data, unsigned int mbox) const
{
    for (const BcFaultSubscriber& subscriber : m_defaultSubscribers) {
        if (mbox != Merlow::FaultManagerIf::ALL_SUBSCRIBERS && mbox != subscriber.mboxId) {
            continue;
        }
        auto ind = answerTo<TarnBcFaultIndS>(subscriber.addressInfo());
        ind.faultId = data.faultId;
        copyStringToClearedArray(ind.faultDescription, sizeof(ind.faultDescription), data.faultDescription);
        ind.faultCase = data.faultCase;
        traceFaultInd(ind);
        SCRY_OBJ_TRACE(5, "sending " << MerlowUtil::getMsgName(ind.msgNo)
                                     << ", serverRef = " << subscriber.serverRef);
        sendToClient(subscriber.mboxId, ind);
    }
}

void MerlowFaultHandling::handleCeasedFault(const Merlow::FaultData& data) const
{
    for (const BcFaultSubscriber& subscriber : m_defaultSubscribers) {
        auto ind = answerTo<TarnBcFaultceaseIndS>(subscriber.addressInfo());
        ind.faultId = data.faultId;
        ind.faultCase = data.faultCase;
        traceFaultInd(ind);
        SCRY_OBJ_TRACE(5, "sending " << MerlowUtil::getMsgName(ind.msgNo)
                                     << ", serverRef = " << subscriber.serverRef);
        sendToClient(subscriber.mboxId, ind);
    }
}

BcFaultSubscriber MerlowFaultHandling::getFaultSubscriber(const TarnNodeCommonAddressInfoS& addressInfo,
                                                          unsigned int sender) const
{
    return {.mboxId = sender,
            .clientRef = static_cast<std::uint32_t>(addressInfo.clientRef),
            .serverRef = static_cast<std::uint32_t>(addressInfo.serverRef)};
}

bool MerlowFaultHandling::addSubscriber(Subscribers& subscribers, const BcFaultSubscriber& subscriber) const
{
    if (m_commonData.getClientSession(subscriber.mboxId) == nullptr) {
        return false;
    }
    if (!contains(subscribers, subscriber)) {
        SCRY_OBJ_TRACE(5, "new " << subscriber);
        subscribers.push_back(subscriber);
    }
    return true;
}

bool MerlowFaultHandling::isIgnored(const BcFaultSubscriber& subscriber, std::uint32_t msgNo) const
{
    if (!contains(m_hwFaultLabelSubscribers, subscriber)) {
        return false;
    }
    SCRY_TRACE(4,
               "ABN: Signal ignored, signal: "
                   << MerlowUtil::getMsgName(msgNo)
                   << "; additional info: received after TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ; "
                   << "serverRef: " << subscriber.serverRef << "clientRef: " << subscriber.clientRef
                   << " sender: 0x" << std::hex << subscriber.mboxId);
    return true;
}

void MerlowFaultHandling::traceNotConnected(const BcFaultSubscriber& subscriber, std::uint32_t msgNo) const
{
    SCRY_TRACE(4, "ABN: " << MerlowUtil::getMsgName(msgNo) << " ignored, serverRef " << subscriber.serverRef
                          << " is not connected");
}

template <class Cfm>
void MerlowFaultHandling::sendTarnBcSubscribeCfm(const BcFaultSubscriber& subscriber) const
{
    sendToClient(subscriber.mboxId, answerTo<Cfm>(subscriber.addressInfo()));
}

void MerlowFaultHandling::traceFaultInd(const TarnBcFaultIndS& ind) const
{
    SCRY_OBJ_TRACE(5, "ABN:Equipment fault,signal:"
                          << MerlowUtil::getMsgName(ind.msgNo) << ",client ref:" << ind.addressInfo.clientRef
                          << ",server ref:" << ind.addressInfo.serverRef
                          << ",fault id:" << m_commonData.getFaultManager().traceIwdFaultId(ind.faultId)
                          << ",fault description:" << reinterpret_cast<const char*>(ind.faultDescription)
                          << ",fault case:" << ind.faultCase);
}

void MerlowFaultHandling::traceFaultInd(const TarnBcFaultceaseIndS& ind) const
{
    SCRY_OBJ_TRACE(5, "ABN:Equipment fault cease,signal:"
                          << MerlowUtil::getMsgName(ind.msgNo) << ",client ref:" << ind.addressInfo.clientRef
                          << ",server ref:" << ind.addressInfo.serverRef
                          << ",fault id:" << m_commonData.getFaultManager().traceIwdFaultId(ind.faultId)
                          << ",fault case:" << ind.faultCase);
}
