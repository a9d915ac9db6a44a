#include "merlowSwmi.h"
#include "merlowTracepoints.h"
#include "swmi.pb.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

/// Of a load that cannot begin. What is not listed is an unknown failure.
struct LoadRefusal {
    swm::PushLoadInitRej::Reason reason;
    const char* text;
};
constexpr std::array LOAD_REFUSALS{
    LoadRefusal{swm::PushLoadInitRej::INVALID_TICKET_NUMBER, "Invalid ticket number"},
    LoadRefusal{swm::PushLoadInitRej::BUSY, "Busy"},
    LoadRefusal{swm::PushLoadInitRej::TICKET_IN_QUEUE, MerlowSwmi::NOT_ACQUIRED},
};

const char* loadRefusalText(swm::PushLoadInitRej::Reason reason)
{
    const auto* const found =
        std::find_if(LOAD_REFUSALS.begin(), LOAD_REFUSALS.end(),
                     [reason](const auto& refusal) { return refusal.reason == reason; });
    return found == LOAD_REFUSALS.end() ? "LMC encountered unknown failure" : found->text;
}

} // namespace

void MerlowSwmi::handleLmcInitReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcLmcInitReqS>(*msg);
    if (!req) {
        return;
    }
    const auto* load = openWithTicket<TarnBcLmcInitRejS>(*req, *msg, textBehind<TarnBcLmcInitReqS>(*msg));
    if (load != nullptr) {
        m_commonData.getSwmiClient().pushLoadInitReq(load->procRef, load->ticketNumber, load->software);
    }
}

void MerlowSwmi::sendLmcInitCfm(const SwayClientRecord& record, std::uint16_t loadStatus) const
{
    auto cfm = answerTo<TarnBcLmcInitCfmS>(record.addressInfo);
    cfm.loadStatus = loadStatus;
    sendToClient(record.clientMbox, cfm);
}

void MerlowSwmi::handlePushLoadInitCfm(unsigned int procRef, const swm::PushLoadInitCfm& cfm)
{
    if (const auto* record = findProcedure(procRef, cfm.ticket_number())) {
        sendLmcInitCfm(*record, TarnBcLmcInitCfmS::LOAD_MAY_BEGIN);
    }
}

void MerlowSwmi::handlePushLoadInitRej(unsigned int procRef, const swm::PushLoadInitRej& rej)
{
    const SwayClientRecord* record = findProcedure(procRef, rej.ticket_number());
    if (record == nullptr) {
        return;
    }
    switch (rej.reason()) {
    case swm::PushLoadInitRej::RESOURCE_SHORTAGE:
        m_commonData.getSwmiClient().getSwProductInvReq(record->procRef, record->ticketNumber);
        return; // the load goes on when there is room
    case swm::PushLoadInitRej::ALREADY_LOADED:
        sendLmcInitCfm(*record, TarnBcLmcInitCfmS::ALREADY_LOADED);
        break;
    case swm::PushLoadInitRej::RUNNING:
        sendLmcInitCfm(*record, TarnBcLmcInitCfmS::RUNNING);
        break;
    default:
        sendRej<TarnBcLmcInitRejS>(*record, loadRefusalText(rej.reason()));
        break;
    }
    eraseRecord(record);
}

void MerlowSwmi::handleLmcData(const std::shared_ptr<mnet_msg>& msg)
{
    const auto data = readSignal<TarnBcLmcDataS>(*msg);
    if (!data) {
        return;
    }
    constexpr std::size_t start = BciRecord<TarnBcLmcDataS>::size;
    if (data->size > mnet_size(msg.get()) - start) {
        Bci::traceShortSignal(*msg, TARN_BC_LMC_DATA, std::uint64_t{start} + data->size);
        return;
    }
    const SwayClientRecord* load = findRecord(TARN_BC_LMC_INIT_REQ, data->addressInfo);
    if (load == nullptr) {
        return;
    }
    const auto ticketNumber = load->ticketNumber;
    SwayClientRecord& block = addRecord(TARN_BC_LMC_DATA, data->addressInfo, mnet_sender(msg.get()));
    block.ticketNumber = ticketNumber;
    const unsigned int result = m_commonData.getSwmiClient().pushLoadData(
        block.procRef, ticketNumber, data->lmSeqNr, reinterpret_cast<const char*>(msg.get()) + start,
        data->size);
    if (result != SWMClient::SUCCESS) {
        TP_ERROR("MerlowSwmi::handleLmcData failCode(" << result << "), lmSeqNr(" << data->lmSeqNr << ")");
    }
}

void MerlowSwmi::handlePushLoadAck(unsigned int procRef, const swm::PushLoadAck& ack)
{
    const SwayClientRecord* record = findProcedure(procRef, ack.ticket_number());
    if (record == nullptr) {
        return;
    }
    if (!ack.abort()) {
        auto dataAck = answerTo<TarnBcLmcDataAckS>(record->addressInfo);
        dataAck.lmSeqNr = static_cast<std::uint16_t>(ack.sequence_number());
        sendToClient(record->clientMbox, dataAck);
    }
    eraseRecord(record);
}

void MerlowSwmi::handleLmcEndReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcLmcEndReqS>(*msg);
    if (!req) {
        return;
    }
    SwayClientRecord* load = findRecord(TARN_BC_LMC_INIT_REQ, req->addressInfo);
    if (load == nullptr) {
        return;
    }
    load->savedSignalNo = std::exchange(load->signalNo, TARN_BC_LMC_END_REQ);
    m_commonData.getSwmiClient().pushLoadEndReq(load->procRef, load->ticketNumber);
}

void MerlowSwmi::handlePushLoadEndCfm(unsigned int procRef, const swm::PushLoadEndCfm& cfm)
{
    const SwayClientRecord* record = findProcedure(procRef, cfm.ticket_number());
    if (record == nullptr) {
        return;
    }
    auto lmcCfm = answerTo<TarnBcLmcEndCfmS>(record->addressInfo);
    lmcCfm.result = cfm.result() == swm::PushLoadEndCfm::COMPLETED ? TarnBcLmcEndCfmS::COMPLETED
                                                                   : TarnBcLmcEndCfmS::FAILED;
    sendToClient(record->clientMbox, lmcCfm);
    eraseRecord(record);
}

void MerlowSwmi::handlePushLoadEndRej(unsigned int procRef, const swm::PushLoadEndRej& rej)
{
    SwayClientRecord* record = findProcedure(procRef, rej.ticket_number());
    if (record == nullptr) {
        return;
    }
    record->signalNo = record->savedSignalNo;
    sendRej<TarnBcLmcEndRejS>(*record, rej.reason() == swm::PushLoadEndRej::INVALID_TICKET_NUMBER
                                           ? "Invalid ticket number"
                                           : "ticket in queue");
}
