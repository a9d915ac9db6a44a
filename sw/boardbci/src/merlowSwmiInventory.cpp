#include "merlowSwmi.h"
#include "merlowTracepoints.h"
#include "swCompList.h"
#include "swmi.pb.h"
#include "swRevision.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr const char* NO_SLOTS = "No LMC slots available";

/// How a load module of the inventory is named by clients.
std::string softwareNameOf(const swm::ProductInventory& module)
{
    const bool hasBoth = !module.product_number().empty() && !module.revision().empty();
    return module.product_number() + (hasBoth ? "_" : "") + module.revision();
}

bool isDeletable(const swm::ProductInventory& module)
{
    return module.status() == swm::ProductInventory::VALID &&
           module.access() == swm::ProductInventory::READ_WRITE &&
           module.software_type() == swm::ProductInventory::AUAPPLIC && !module.running();
}

/// The name of the deletable module with the lowest revision, of equal ones the first; a revision that cannot
/// be read is the lowest of all. Empty when there is none, or while the store erases one.
std::string moduleToDelete(const swm::GetSwProductInvCfm& inventory)
{
    const auto& modules = inventory.product_inventory();
    if (std::any_of(modules.begin(), modules.end(),
                    [](const auto& module) { return module.status() == swm::ProductInventory::ERASING; })) {
        return {};
    }
    std::string candidate;
    std::int64_t lowest = swrev_str_to_int("R9999ZZZZ9999x", 'F'); // above every real one
    for (const auto& module : modules) {
        const std::int64_t revision = swrev_str_to_int(module.revision().c_str(), 'F');
        if (isDeletable(module) && revision < lowest) {
            candidate = softwareNameOf(module);
            lowest = revision;
        }
    }
    return candidate;
}

} // namespace

// Selection, and the deletion that makes room for a load

void MerlowSwmi::handleLmcSelectReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcSelectLmcReqS>(*msg);
    if (!req) {
        return;
    }
    const auto* selection =
        openWithTicket<TarnBcSelectLmcRejS>(*req, *msg, textBehind<TarnBcSelectLmcReqS>(*msg));
    if (selection != nullptr) {
        m_commonData.getSwmiClient().getSwProductInvReq(selection->procRef, selection->ticketNumber);
    }
}

void MerlowSwmi::handleGetSwProductInvCfm(unsigned int procRef, const swm::GetSwProductInvCfm& cfm)
{
    const SwayClientRecord* record = findProcedure(procRef, cfm.ticket_number());
    if (record == nullptr) {
        return;
    }
    if (record->signalNo == TARN_BC_SELECT_LMC_REQ) {
        select(*record, cfm);
        eraseRecord(record);
    } else {
        m_commonData.getSwmiClient().deleteReq(procRef, record->ticketNumber, moduleToDelete(cfm));
    }
}

void MerlowSwmi::select(const SwayClientRecord& record, const swm::GetSwProductInvCfm& inventory)
{
    TP_TRACE7("MerlowSwmi::handleGetSwProductInvCfm() TARN_BC_SELECT_LMC_REQ try match='" << record.software
                                                                                          << "'");
    for (const auto& module : inventory.product_inventory()) {
        TP_TRACE7("MerlowSwmi::handleGetSwProductInvCfm() TARN_BC_SELECT_LMC_REQ product_number='"
                  << module.product_number() << "', revision='" << module.revision() << "'");
        if (softwareNameOf(module) == record.software) {
            m_commonData.setSelectLoadModule(record.software);
            sendToClient(record.clientMbox, answerTo<TarnBcSelectLmcCfmS>(record.addressInfo));
            return;
        }
    }
    sendRej<TarnBcSelectLmcRejS>(record, NOT_ACQUIRED);
}

void MerlowSwmi::handleGetSwProductInvRej(unsigned int procRef, const swm::GetSwProductInvRej& rej)
{
    const SwayClientRecord* record = findProcedure(procRef, rej.ticket_number());
    if (record == nullptr) {
        return;
    }
    if (record->signalNo == TARN_BC_SELECT_LMC_REQ) {
        m_commonData.setSelectLoadModule("");
        sendRej<TarnBcSelectLmcRejS>(*record, NOT_ACQUIRED);
    } else {
        sendRej<TarnBcLmcInitRejS>(*record, NO_SLOTS);
    }
    eraseRecord(record);
}

void MerlowSwmi::handleDeleteCfm(unsigned int procRef, const swm::DeleteCfm& cfm)
{
    if (const auto* record = findProcedure(procRef, cfm.ticket_number())) {
        m_commonData.getSwmiClient().pushLoadInitReq(procRef, record->ticketNumber, record->software);
    }
}

void MerlowSwmi::handleDeleteRej(unsigned int procRef, const swm::DeleteRej& rej)
{
    const SwayClientRecord* record = findProcedure(procRef, rej.ticket_number());
    if (record == nullptr) {
        return;
    }
    sendRej<TarnBcLmcInitRejS>(*record, NO_SLOTS);
    eraseRecord(record);
}

// The running module

void MerlowSwmi::handleGetRunningLmcReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcGetRunningLmcReqS>(*msg);
    if (!req) {
        return;
    }
    const auto& record = addRecord(TARN_BC_GET_RUNNING_LMC_REQ, req->addressInfo, mnet_sender(msg.get()));
    m_commonData.getSwmiClient().getRunningSwReq(record.procRef);
}

void MerlowSwmi::handleGetRunningSwCfm(unsigned int procRef, const swm::GetRunningSwCfm& cfm)
{
    SwayClientRecord* record = findProcedure(procRef);
    if (record == nullptr) {
        return;
    }
    if (record->signalNo == TARN_BC_SW_COMP_LIST_REQ) {
        record->runningSoftware = cfm.running_software();
        parseSwCompListForGsmKpx(*record);
        return;
    }
    auto lmcCfm = answerTo<TarnBcGetRunningLmcCfmS>(record->addressInfo);
    copyStringToClearedArray(lmcCfm.runningSoftware, sizeof(lmcCfm.runningSoftware), cfm.running_software());
    sendToClient(record->clientMbox, lmcCfm);
    eraseRecord(record);
}

void MerlowSwmi::handleGetRunningSwRej(unsigned int procRef, const swm::GetRunningSwRej& rej)
{
    SwayClientRecord* record = findProcedure(procRef);
    if (record == nullptr) {
        return;
    }
    if (record->signalNo == TARN_BC_SW_COMP_LIST_REQ) {
        record->runningSoftware.clear();
        parseSwCompListForGsmKpx(*record);
        return;
    }
    sendRej<TarnBcGetRunningLmcRejS>(*record, rej.reason() == swm::GetRunningSwRej::READ_ERROR
                                                  ? "HW interaction failure in reading environment variable"
                                                  : "Not found");
    eraseRecord(record);
}

// The list of software components

void MerlowSwmi::handleSwCompListReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcSwCompListReqS>(*msg);
    if (!req) {
        return;
    }
    if (const auto* list = openWithTicket<TarnBcSwCompListRejS>(*req, *msg, "")) {
        m_commonData.getSwmiClient().swCompListReq(list->procRef, list->ticketNumber);
    }
}

void MerlowSwmi::handleSwCompListCfm(unsigned int procRef, const swm::SwCompListCfm& cfm)
{
    if (const auto* record = findProcedure(procRef, cfm.ticket_number())) {
        sendToClient(record->clientMbox, answerTo<TarnBcSwCompListCfmS>(record->addressInfo));
    }
}

void MerlowSwmi::handleSwCompListRej(unsigned int procRef, const swm::SwCompListRej& rej)
{
    const SwayClientRecord* record = findProcedure(procRef, rej.ticket_number());
    if (record == nullptr) {
        return;
    }
    sendRej<TarnBcSwCompListRejS>(
        *record, rej.reason() > swm::SwCompListRej::TICKET_IN_QUEUE ? "ABN: Read error" : NOT_ACQUIRED);
    eraseRecord(record);
}

bool MerlowSwmi::isKpxList(const SwayClientRecord& record) const
{
    const ProductInfo& info = m_commonData.getProductInfoCache();
    return isGsmServerRef(record.addressInfo.serverRef) && info.isComplete && info.isKpx();
}

void MerlowSwmi::handleSwCompListData(unsigned int procRef, const swm::SwCompListData& data)
{
    SwayClientRecord* record = findProcedure(procRef, data.ticket_number());
    if (record == nullptr) {
        return;
    }
    record->auxValue = data.end() ? 1 : 0;
    if (isKpxList(*record)) {
        collectList(*record, data);
    } else {
        sendListPiece(*record, data.end(), data.data()); // acknowledged when the client has taken it
    }
}

void MerlowSwmi::collectList(SwayClientRecord& record, const swm::SwCompListData& data)
{
    const std::size_t room = maxCollectedList - std::min(record.software.size(), maxCollectedList);
    record.software.append(data.data(), 0, room);
    if (data.data().size() > room && !std::exchange(m_listCapTraced, true)) {
        TP_ERROR("ABN: A list of software components of more than " << maxCollectedList
                                                                    << " bytes: what is behind is lost");
    }
    SWMClient& swmi = m_commonData.getSwmiClient();
    swmi.swCompListAck(record.procRef, record.ticketNumber, data.end()); // giving up closes the transfer
    if (data.end()) {
        swmi.getRunningSwReq(record.procRef);
    }
}

void MerlowSwmi::parseSwCompListForGsmKpx(SwayClientRecord& record) const
{
    SwCompList::rewrite(record.software, record.runningSoftware);
    sendNextListPiece(record);
}

void MerlowSwmi::sendNextListPiece(SwayClientRecord& record) const
{
    if (!record.software.empty()) {
        const std::string piece = SwCompList::cutPiece(record.software);
        sendListPiece(record, record.software.empty(), piece);
    }
}

void MerlowSwmi::sendListPiece(const SwayClientRecord& record, bool isEnd, const std::string& text) const
{
    auto data = answerTo<TarnBcSwCompListDataS>(record.addressInfo);
    data.end = isEnd ? 1 : 0;
    data.length = static_cast<std::uint32_t>(text.size());
    hton(data);
    constexpr std::size_t start = BciRecord<TarnBcSwCompListDataS>::size;
    MnetMsgPtr msg = allocMsg(start + text.size() + BCI_SW_COMP_LIST_DATA_TAIL, TARN_BC_SW_COMP_LIST_DATA);
    if (msg) {
        std::memcpy(msg.get(), &data, start);
        std::memcpy(reinterpret_cast<char*>(msg.get()) + start, text.data(), text.size());
    }
    sendToClient(record.clientMbox, std::move(msg));
}

void MerlowSwmi::handleSwCompListAck(const std::shared_ptr<mnet_msg>& msg)
{
    const auto ack = readSignal<TarnBcSwCompListAckS>(*msg);
    if (!ack) {
        return;
    }
    SwayClientRecord* record = findRecord(TARN_BC_SW_COMP_LIST_REQ, ack->addressInfo);
    if (record == nullptr) {
        return;
    }
    const bool isAborted = ack->abort != 0;
    if (!isKpxList(*record)) {
        m_commonData.getSwmiClient().swCompListAck(record->procRef, record->ticketNumber, isAborted);
    } else if (!isAborted) {
        sendNextListPiece(*record);
    }
    if (isAborted || record->auxValue != 0) {
        eraseRecord(record);
    }
}
