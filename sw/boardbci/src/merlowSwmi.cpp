#include "merlowSwmi.h"

#include "merlowTracepoints.h"
#include "swmi.pb.h"
#include "swmiBody.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace {

constexpr int SWMI_CONNECT_ATTEMPTS = 5;
constexpr std::chrono::microseconds SWMI_CONNECT_WAIT{250000};
constexpr unsigned int SWMI_PROTOCOL_REVISION = 1;
/// The resource of an acquisition that the server makes for a client.
constexpr std::uint16_t IMPLICIT_RESOURCE = 1;
/// The protocol revision of clients that know nothing of acquisitions.
constexpr std::uint16_t REVISION_WITHOUT_TICKETS = 1;

constexpr const char* UNKNOWN_RESOURCE = "unknown resource";

} // namespace

// The component

MerlowSwmi::MerlowSwmi(MerlowCommonData& commonData)
    : MerlowSwmi(commonData, [](std::chrono::microseconds time) { std::this_thread::sleep_for(time); })
{
}

MerlowSwmi::MerlowSwmi(MerlowCommonData& commonData, Wait wait)
    : MerlowComponent(commonData), m_wait(std::move(wait))
{
}

bool MerlowSwmi::init()
{
    if (!m_checkComponents) {
        TP_ERROR("SWMI component: missing callback function to areComponentsReadyToPublish().");
        return false;
    }
    SWMClient& swmi = m_commonData.getSwmiClient();
    const std::string address = swm::ServerMetadata().name();
    const auto ready = [this] {
        m_checkComponents();
    };
    for (int attempt = 0; attempt < SWMI_CONNECT_ATTEMPTS; ++attempt) {
        if (swmi.connEstablishReq(ready, m_procRefCounter, address, {SWMI_PROTOCOL_REVISION}) ==
            SWMClient::SUCCESS) {
            // No answer can overtake its handler: both are of this thread.
            registerSignals();
            registerAnswers();
            return true;
        }
        m_wait(SWMI_CONNECT_WAIT);
    }
    TP_ERROR("SWMI component: the SWMI client failed to send connEstablishReq.");
    return false;
}

void MerlowSwmi::registerSignals()
{
    onSignal(TARN_BC_ACQUIRE_RESOURCE_REQ, &MerlowSwmi::handleAcquireResourceReq);
    onSignal(TARN_BC_RELEASE_RESOURCE_REQ, &MerlowSwmi::handleReleaseResourceReq);
    onSignal(TARN_BC_LMC_INIT_REQ, &MerlowSwmi::handleLmcInitReq);
    onSignal(TARN_BC_LMC_DATA, &MerlowSwmi::handleLmcData);
    onSignal(TARN_BC_LMC_END_REQ, &MerlowSwmi::handleLmcEndReq);
    onSignal(TARN_BC_SELECT_LMC_REQ, &MerlowSwmi::handleLmcSelectReq);
    onSignal(TARN_BC_GET_RUNNING_LMC_REQ, &MerlowSwmi::handleGetRunningLmcReq);
    onSignal(TARN_BC_SW_COMP_LIST_REQ, &MerlowSwmi::handleSwCompListReq);
    onSignal(TARN_BC_SW_COMP_LIST_ACK, &MerlowSwmi::handleSwCompListAck);
}

template <class M> void MerlowSwmi::onSwmi(void (MerlowSwmi::*handler)(unsigned int, const M&))
{
    m_commonData.getSwmiClient().addMsgHandler(
        M::MESSAGE_NUMBER, [this, handler](unsigned int procRef, const char* buffer, unsigned int size) {
            (this->*handler)(procRef, parsedSwmiBody<M>(buffer, size));
        });
}

void MerlowSwmi::registerAnswers()
{
    onSwmi(&MerlowSwmi::handleAcquireResourceCfm);
    onSwmi(&MerlowSwmi::handleAcquireResourceRej);
    onSwmi(&MerlowSwmi::handleAcquireResourceInd);
    onSwmi(&MerlowSwmi::handleReleaseResourceCfm);
    onSwmi(&MerlowSwmi::handleReleaseResourceRej);
    onSwmi(&MerlowSwmi::handlePushLoadInitCfm);
    onSwmi(&MerlowSwmi::handlePushLoadInitRej);
    onSwmi(&MerlowSwmi::handlePushLoadAck);
    onSwmi(&MerlowSwmi::handlePushLoadEndCfm);
    onSwmi(&MerlowSwmi::handlePushLoadEndRej);
    onSwmi(&MerlowSwmi::handleGetSwProductInvCfm);
    onSwmi(&MerlowSwmi::handleGetSwProductInvRej);
    onSwmi(&MerlowSwmi::handleDeleteCfm);
    onSwmi(&MerlowSwmi::handleDeleteRej);
    onSwmi(&MerlowSwmi::handleGetRunningSwCfm);
    onSwmi(&MerlowSwmi::handleGetRunningSwRej);
    onSwmi(&MerlowSwmi::handleSwCompListCfm);
    onSwmi(&MerlowSwmi::handleSwCompListRej);
    onSwmi(&MerlowSwmi::handleSwCompListData);
}

bool MerlowSwmi::isReadyToPublish() const
{
    return m_commonData.getSwmiClient().isConnected();
}

std::string MerlowSwmi::getComponentName() const
{
    return "MerlowSwmi";
}

// Records

MerlowSwmi::SwayClientRecord& MerlowSwmi::addRecord(std::uint32_t signalNo,
                                                    const TarnNodeCommonAddressInfoS& addressInfo,
                                                    mnet_mbox_id_t client)
{
    m_records.push_back({.signalNo = signalNo,
                         .addressInfo = addressInfo,
                         .procRef = ++m_procRefCounter,
                         .clientMbox = client});
    if (m_commonData.getClientSession(client) == nullptr) {
        limitAbandonedRecords(client); // the oldest go, so that this one stays the last
    }
    return m_records.back();
}

MerlowSwmi::SwayClientRecord* MerlowSwmi::findRecord(std::uint32_t signalNo,
                                                     const TarnNodeCommonAddressInfoS& addressInfo)
{
    const auto found = std::find_if(m_records.begin(), m_records.end(), [&](const auto& record) {
        return record.signalNo == signalNo && record.addressInfo == addressInfo;
    });
    return found == m_records.end() ? nullptr : &*found;
}

MerlowSwmi::SwayClientRecord* MerlowSwmi::findAcquisition(const TarnNodeCommonAddressInfoS& addressInfo,
                                                          std::uint16_t resource)
{
    const auto found = std::find_if(m_records.begin(), m_records.end(), [&](const auto& record) {
        return record.signalNo == TARN_BC_ACQUIRE_RESOURCE_REQ && record.addressInfo == addressInfo &&
               record.auxValue == resource;
    });
    return found == m_records.end() ? nullptr : &*found;
}

MerlowSwmi::SwayClientRecord* MerlowSwmi::findAcquiring(unsigned int procRef, unsigned int ticketReference)
{
    const auto found = std::find_if(m_records.begin(), m_records.end(), [=](const auto& record) {
        return record.procRef == procRef &&
               static_cast<unsigned int>(record.addressInfo.serverRef) == ticketReference;
    });
    return found == m_records.end() ? nullptr : &*found;
}

MerlowSwmi::SwayClientRecord* MerlowSwmi::findProcedure(unsigned int procRef)
{
    const auto found = std::find_if(m_records.begin(), m_records.end(),
                                    [procRef](const auto& record) { return record.procRef == procRef; });
    return found == m_records.end() ? nullptr : &*found;
}

MerlowSwmi::SwayClientRecord* MerlowSwmi::findProcedure(unsigned int procRef, unsigned int ticketNumber)
{
    const auto found = std::find_if(m_records.begin(), m_records.end(), [=](const auto& record) {
        return record.procRef == procRef && record.ticketNumber == ticketNumber;
    });
    return found == m_records.end() ? nullptr : &*found;
}

void MerlowSwmi::eraseRecord(const SwayClientRecord* record)
{
    m_records.erase(m_records.begin() + (record - m_records.data()));
}

bool MerlowSwmi::giveBack(const SwayClientRecord& record) const
{
    SWMClient& swmi = m_commonData.getSwmiClient();
    switch (record.signalNo) {
    case TARN_BC_SW_COMP_LIST_REQ:
        swmi.swCompListAck(record.procRef, record.ticketNumber, true);
        return true;
    case TARN_BC_LMC_INIT_REQ:
        swmi.pushLoadEndReq(record.procRef, record.ticketNumber);
        return true;
    case TARN_BC_ACQUIRE_RESOURCE_REQ:
        swmi.releaseResourceReq(record.procRef, record.ticketNumber);
        return true;
    default:
        return false; // its answer closes it
    }
}

void MerlowSwmi::onBcSessionLost(const BcSession& session)
{
    const std::size_t before = m_records.size();
    for (std::size_t i = before; i-- > 0;) {
        if (m_records[i].addressInfo.serverRef == session.serverRef && giveBack(m_records[i])) {
            eraseRecord(&m_records[i]);
        }
    }
    if (m_records.size() == before) {
        TP_INFO("MerlowSwmi::onBcSessionLostSwmi() had nothing to release");
    }
    limitAbandonedRecords(session.mailboxId);
}

void MerlowSwmi::limitAbandonedRecords(mnet_mbox_id_t leaving)
{
    if (m_records.size() <= maxAbandonedRecords) {
        return;
    }
    const auto isAbandoned = [this, leaving](const SwayClientRecord& record) {
        return record.clientMbox == leaving || m_commonData.getClientSession(record.clientMbox) == nullptr;
    };
    auto abandoned = std::count_if(m_records.begin(), m_records.end(), isAbandoned);
    std::erase_if(m_records, [&](const SwayClientRecord& record) {
        if (abandoned <= std::ptrdiff_t{maxAbandonedRecords} || !isAbandoned(record)) {
            return false;
        }
        --abandoned;
        static_cast<void>(giveBack(record));
        if (!std::exchange(m_recordCapTraced, true)) {
            TP_ERROR("ABN: More than "
                     << maxAbandonedRecords
                     << " software procedures without a session wait for the SWM server: the oldest "
                        "go");
        }
        return true;
    });
}

// The store's acquisition

template <class Rej> void MerlowSwmi::sendResourceRej(const SwayClientRecord& record, const char* text) const
{
    auto rej = answerTo<Rej>(record.addressInfo);
    rej.resource = static_cast<std::uint16_t>(record.auxValue);
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), text);
    sendToClient(record.clientMbox, rej);
}

template <class Cfm> void MerlowSwmi::sendResourceCfm(const SwayClientRecord& record) const
{
    auto cfm = answerTo<Cfm>(record.addressInfo);
    cfm.resource = static_cast<std::uint16_t>(record.auxValue);
    sendToClient(record.clientMbox, cfm);
}

void MerlowSwmi::handleAcquireResourceReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcAcquireResourceReqS>(*msg);
    if (!req) {
        return;
    }
    if (const auto* record = findAcquisition(req->addressInfo, req->resource)) {
        sendResourceRej<TarnBcAcquireResourceRejS>(*record,
                                                   "acquire resource already requested by this client");
        return;
    }
    acquire(req->addressInfo, req->resource, mnet_sender(msg.get()));
}

void MerlowSwmi::acquire(const TarnNodeCommonAddressInfoS& addressInfo, std::uint16_t resource,
                         mnet_mbox_id_t client)
{
    SwayClientRecord& record = addRecord(TARN_BC_ACQUIRE_RESOURCE_REQ, addressInfo, client);
    record.auxValue = resource;
    m_commonData.getSwmiClient().acquireResourceReq(
        record.procRef, static_cast<unsigned int>(addressInfo.serverRef), swm::SW_STORE);
}

bool MerlowSwmi::isAcquiringImplicitly(mnet_mbox_id_t client) const
{
    const BcSession* session = m_commonData.getClientSession(client);
    return m_commonData.isAuboot() && session != nullptr && session->protocolRev == REVISION_WITHOUT_TICKETS;
}

void MerlowSwmi::auBootAcquireResourceReq(const TarnNodeCommonAddressInfoS& addressInfo,
                                          mnet_mbox_id_t client)
{
    acquire(addressInfo, IMPLICIT_RESOURCE, client);
}

void MerlowSwmi::handleAcquireResourceCfm(unsigned int procRef, const swm::AcquireResourceCfm& cfm)
{
    SwayClientRecord* record = findAcquiring(procRef, cfm.ticket_request_reference());
    if (record != nullptr) {
        record->ticketNumber = cfm.ticket_number();
    }
}

void MerlowSwmi::handleAcquireResourceRej(unsigned int procRef, const swm::AcquireResourceRej& rej)
{
    const SwayClientRecord* record = findAcquiring(procRef, rej.ticket_request_reference());
    if (record == nullptr) {
        return;
    }
    sendResourceRej<TarnBcAcquireResourceRejS>(*record, UNKNOWN_RESOURCE);
    eraseRecord(record);
}

void MerlowSwmi::handleAcquireResourceInd(unsigned int procRef, const swm::AcquireResourceInd& ind)
{
    const SwayClientRecord* record = findProcedure(procRef, ind.ticket_number());
    if (record == nullptr) {
        return;
    }
    m_commonData.setSelectLoadModule("");
    if (isAcquiringImplicitly(record->clientMbox)) {
        startWaitingProcedure(procRef + 1, ind.ticket_number());
    } else {
        sendResourceCfm<TarnBcAcquireResourceCfmS>(*record);
    }
}

void MerlowSwmi::startWaitingProcedure(unsigned int procRef, unsigned int ticketNumber)
{
    SwayClientRecord* record = findProcedure(procRef);
    if (record == nullptr) {
        return;
    }
    record->ticketNumber = ticketNumber;
    SWMClient& swmi = m_commonData.getSwmiClient();
    switch (record->signalNo) {
    case TARN_BC_SELECT_LMC_REQ:
        swmi.getSwProductInvReq(procRef, ticketNumber);
        break;
    case TARN_BC_SW_COMP_LIST_REQ:
        swmi.swCompListReq(procRef, ticketNumber);
        break;
    case TARN_BC_LMC_INIT_REQ:
        swmi.pushLoadInitReq(procRef, ticketNumber, record->software);
        break;
    default:
        break;
    }
}

void MerlowSwmi::handleReleaseResourceReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcReleaseResourceReqS>(*msg);
    if (!req) {
        return;
    }
    SwayClientRecord* record = findAcquisition(req->addressInfo, req->resource);
    if (record == nullptr) {
        return;
    }
    record->savedSignalNo = std::exchange(record->signalNo, TARN_BC_RELEASE_RESOURCE_REQ);
    m_commonData.getSwmiClient().releaseResourceReq(record->procRef, record->ticketNumber);
}

void MerlowSwmi::handleReleaseResourceCfm(unsigned int procRef, const swm::ReleaseResourceCfm& cfm)
{
    const SwayClientRecord* record = findProcedure(procRef, cfm.ticket_number());
    if (record == nullptr) {
        return;
    }
    sendResourceCfm<TarnBcReleaseResourceCfmS>(*record);
    eraseRecord(record);
    std::erase_if(m_records, [&cfm](const auto& other) { return other.ticketNumber == cfm.ticket_number(); });
}

void MerlowSwmi::handleReleaseResourceRej(unsigned int procRef, const swm::ReleaseResourceRej& rej)
{
    SwayClientRecord* record = findProcedure(procRef, rej.ticket_number());
    if (record == nullptr) {
        return;
    }
    record->signalNo = record->savedSignalNo;
    sendResourceRej<TarnBcReleaseResourceRejS>(*record, UNKNOWN_RESOURCE);
}
