#include "merlowHwLog.h"

#include "bci/bciHwLog.h"
#include "bri.pb.h"

#include <cstring>

namespace bri = boardresourcehandler::bri;

namespace {

constexpr std::uint32_t MAX_LOG_ID = 999;
/// The log of the node configuration, which BRI keeps with the reference of the client.
constexpr std::uint32_t NODE_CONFIG_LOG_ID = 2;

struct GetReject {
    std::uint16_t errorCode;
    const char* text;
};

GetReject toGetReject(bri::HwLogGetRej::ErrorType errorType)
{
    switch (errorType) {
    case bri::HwLogGetRej::LOG_ID_OUT_OF_RANGE:
        return {2, "logId out of range"};
    case bri::HwLogGetRej::READ_FAILED:
        return {1, "Reading from HW log has failed"};
    default:
        return {1, "ABN: Unknown ErrorCode!"};
    }
}

/// Control characters as a backslash and their decimal value, all else as it is.
std::string toRendering(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 31) {
            text += c;
        } else {
            text += '\\' + std::to_string(byte);
        }
    }
    return text;
}

/// Packs entries as long as they fit, each up to its first NUL: a client finds entries by their NULs.
void pack(const google::protobuf::RepeatedPtrField<std::string>& entries, TarnBcHwLogGetCfmS& cfm)
{
    std::size_t used = 0;
    for (const std::string& entry : entries) {
        const std::size_t size = std::strlen(entry.c_str()) + 1;
        if (size > sizeof(cfm.entries) - used) {
            SCRY_TRACE(4, "ABN: HwLogGetCfm: only " << cfm.length << " of " << entries.size()
                                                    << " entries fit into TARN_BC_HWLOG_GET_CFM");
            return;
        }
        std::memcpy(cfm.entries + used, entry.c_str(), size);
        used += size;
        ++cfm.length;
    }
}

} // namespace

bool MerlowHwLog::init()
{
    BrhClient& briClient = m_commonData.getBriClient();
    onSignal(TARN_BC_HWLOG_GET_REQ, &MerlowHwLog::handleHwLogGetReq);
    onFrame<bri::HwLogGetCfm>(briClient, &MerlowHwLog::handleBriHwLogGetCfm);
    onFrame<bri::HwLogGetRej>(briClient, &MerlowHwLog::handleBriHwLogGetRej);
    onSignal(TARN_BC_HWLOG_SET_REQ, &MerlowHwLog::handleHwLogSetReq);
    onFrame<bri::HwLogSetCfm>(briClient, &MerlowHwLog::handleBriHwLogSetCfm);
    onFrame<bri::HwLogSetRej>(briClient, &MerlowHwLog::handleBriHwLogSetRej);
    onFrame<bri::StoreNodeConfigEntryCfm>(briClient, &MerlowHwLog::handleBriStoreNodeConfigEntryCfm);
    onFrame<bri::StoreNodeConfigEntryRej>(briClient, &MerlowHwLog::handleBriStoreNodeConfigEntryRej);
    return true;
}

// Reading

void MerlowHwLog::handleHwLogGetReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcHwLogGetReqS>(*msg);
    if (!req) {
        return;
    }
    bri::HwLogGetReq briReq;
    briReq.set_log_id(req->logId);
    BrhClient& briClient = m_commonData.getBriClient();
    const auto procedureRef = briClient.sendMessage(briReq);
    if (procedureRef == 0) {
        return;
    }
    const Transaction transaction = transactionOf(*req, *msg, procedureRef);
    briClient.addProcedureTransaction(transaction);
    if (m_commonData.getClientSession(transaction.clientMbox) == nullptr) {
        briClient.abandonTransaction(procedureRef); // no session's end will
    }
}

void MerlowHwLog::handleBriHwLogGetCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::HwLogGetCfm>(*msg);
    if (!briCfm) {
        return;
    }
    BrhClient& briClient = m_commonData.getBriClient();
    const Transaction* transaction = briClient.searchTransactionProcedure(briCfm->procedureRef);
    if (transaction == nullptr) {
        SCRY_TRACE(1, "BriHwLogGetCfm:: missing transaction for the provided procedureRef!");
        return;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_TRACE(4, "ABN: BriHwLogGetCfm:: cannot find BC session for the provided mboxID!");
        return;
    }
    auto cfm = answerTo<TarnBcHwLogGetCfmS>(transaction->addressInfo());
    pack(briCfm->message.entries(), cfm);
    sendToClient(transaction->clientMbox, cfm);
    briClient.removeTransactionProcedure(briCfm->procedureRef);
}

void MerlowHwLog::handleBriHwLogGetRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::HwLogGetRej>(*msg);
    if (!briRej) {
        return;
    }
    BrhClient& briClient = m_commonData.getBriClient();
    const Transaction* transaction = briClient.searchTransactionProcedure(briRej->procedureRef);
    if (transaction == nullptr) {
        return;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_TRACE(4, "ABN: BriHwLogGetRej:: cannot find BC session for the provided mboxID!");
        return;
    }
    if (!briRej->message.has_errortype()) {
        SCRY_TRACE(1, "BriHwLogGetRej missing errorType! Ignoring signal!");
        briClient.abandonTransaction(briRej->procedureRef); // stays open, and is counted
        return;
    }
    const GetReject reject = toGetReject(briRej->message.errortype());
    auto rej = answerTo<TarnBcHwLogGetRejS>(transaction->addressInfo());
    rej.errorCode = reject.errorCode;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), reject.text);
    sendToClient(transaction->clientMbox, rej);
    briClient.removeTransactionProcedure(briRej->procedureRef);
}

// Writing

void MerlowHwLog::handleHwLogSetReq(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    if (m_commonData.getClientSession(client) == nullptr) {
        SCRY_TRACE(4, "ABN: Merlow has no session for mailbox 0x" << std::hex << client
                                                                  << ". Ignoring TARN_BC_HWLOG_SET_REQ.");
        return;
    }
    const std::size_t size = mnet_size(msg.get());
    // A shorter one is rejected, once it has the references that this takes.
    if (size < offsetof(TarnBcHwLogSetReqS, logLabel)) {
        Bci::traceShortSignal(*msg, TARN_BC_HWLOG_SET_REQ, offsetof(TarnBcHwLogSetReqS, logLabel));
        return;
    }
    const auto addressInfo = Bci::referencesOf(*msg);
    Transaction transaction{.procedureRef = 0,
                            .clientMbox = client,
                            .serverRef = addressInfo.serverRef,
                            .clientRef = addressInfo.clientRef,
                            .data = TARN_BC_HWLOG_SET_REQ};
    const auto logId = Bci::fieldOrZero<std::uint32_t>(*msg, offsetof(TarnBcHwLogSetReqS, logId));
    if (logId > MAX_LOG_ID) {
        sendHwLogSetRej(transaction, 2, "logId out of range,logId:" + std::to_string(logId));
        return;
    }
    if (size < BciRecord<TarnBcHwLogSetReqS>::size) {
        sendHwLogSetRej(transaction, 1,
                        "input signal (size=" + std::to_string(size) +
                            ") is too small to be a TarnBcHwLogSetReqS (size=460)");
        return;
    }
    const auto req = readSignal<TarnBcHwLogSetReqS>(*msg);
    const auto entries = getHwLogData(
        req->length, {reinterpret_cast<const char*>(msg.get()) + offsetof(TarnBcHwLogSetReqS, entries),
                      size - offsetof(TarnBcHwLogSetReqS, entries)});
    if (req->length != entries.size()) {
        sendHwLogSetRej(transaction, 1,
                        "length field of " + std::to_string(req->length) +
                            " is different from the number of entries " + std::to_string(entries.size()));
        return;
    }
    const std::string label = Bci::textOf(req->logLabel);
    BrhClient& briClient = m_commonData.getBriClient();
    if (logId == NODE_CONFIG_LOG_ID) {
        bri::StoreNodeConfigEntryReq briReq;
        briReq.set_log_label(label);
        briReq.set_log_id(logId);
        briReq.set_server_ref(addressInfo.serverRef);
        briReq.mutable_entries()->Add(entries.begin(), entries.end());
        transaction.procedureRef = briClient.sendMessage(briReq);
    } else {
        bri::HwLogSetReq briReq;
        briReq.set_log_label(label);
        briReq.set_log_id(logId);
        briReq.mutable_entries()->Add(entries.begin(), entries.end());
        transaction.procedureRef = briClient.sendMessage(briReq);
    }
    if (transaction.procedureRef != 0) {
        briClient.addProcedureTransaction(transaction);
    }
}

std::vector<std::string> getHwLogData(std::uint32_t length, std::string_view area)
{
    std::vector<std::string> entries;
    std::size_t at = 0;
    while (entries.size() < length && at < BCI_HWLOG_ENTRIES_SIZE) {
        const std::string_view entry = area.substr(at, area.find('\0', at) - at);
        if (entry.empty()) {
            break;
        }
        SCRY_OBJ_TRACE(6, "HW Log #" << entries.size() + 1 << "/" << length << ": \"" << entry << "\" (size "
                                     << entry.size() << ")");
        at += entry.size() + 1;
        entries.emplace_back(entry);
    }
    if (entries.size() != length) {
        SCRY_TRACE(4, "ABN: Malformed HwLog data can't find all "
                          << length << " entries: \"" << toRendering(area.substr(0, BCI_HWLOG_ENTRIES_SIZE))
                          << "\"");
        entries.clear();
    }
    return entries;
}

std::optional<MerlowHwLog::Transaction>
MerlowHwLog::takeSetTransaction(unsigned int procedureRef, const char* briAnswer, const char* answer) const
{
    auto transaction = m_commonData.getBriClient().takeTransaction(procedureRef);
    if (!transaction) {
        SCRY_TRACE(4, "ABN: No BRI transaction was found for procedureRef: " << procedureRef << ". Ignoring "
                                                                             << briAnswer << ".");
        return std::nullopt;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_TRACE(4, "ABN: Merlow has no session for mailbox 0x" << std::hex << transaction->clientMbox
                                                                  << ". Ignoring " << answer << ".");
        return std::nullopt;
    }
    return transaction;
}

void MerlowHwLog::handleBriHwLogSetCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::HwLogSetCfm>(*msg);
    if (!briCfm) {
        return;
    }
    if (const auto transaction =
            takeSetTransaction(briCfm->procedureRef, "HwLogSetCfm", "TARN_BC_HWLOG_SET_CFM")) {
        sendHwLogSetCfm(*transaction);
    }
}

void MerlowHwLog::handleBriHwLogSetRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::HwLogSetRej>(*msg);
    if (!briRej) {
        return;
    }
    if (const auto transaction =
            takeSetTransaction(briRej->procedureRef, "HwLogSetRej", "TARN_BC_HWLOG_SET_REJ")) {
        sendHwLogSetRej(*transaction, 1, "");
    }
}

void MerlowHwLog::handleBriStoreNodeConfigEntryCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::StoreNodeConfigEntryCfm>(*msg);
    if (!briCfm) {
        return;
    }
    if (const auto transaction =
            takeSetTransaction(briCfm->procedureRef, "StoreNodeConfigEntryCfm", "TARN_BC_HWLOG_SET_CFM")) {
        sendHwLogSetCfm(*transaction);
    }
}

void MerlowHwLog::handleBriStoreNodeConfigEntryRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::StoreNodeConfigEntryRej>(*msg);
    if (!briRej) {
        return;
    }
    if (const auto transaction =
            takeSetTransaction(briRej->procedureRef, "StoreNodeConfigEntryRej", "TARN_BC_HWLOG_SET_REJ")) {
        sendHwLogSetRej(*transaction, 1, "");
    }
}

void MerlowHwLog::sendHwLogSetCfm(const Transaction& transaction) const
{
    sendToClient(transaction.clientMbox, answerTo<TarnBcHwLogSetCfmS>(transaction.addressInfo()));
}

void MerlowHwLog::sendHwLogSetRej(const Transaction& transaction, std::uint16_t errorCode,
                                  const std::string& text) const
{
    auto rej = answerTo<TarnBcHwLogSetRejS>(transaction.addressInfo());
    rej.errorCode = errorCode;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), text);
    sendToClient(transaction.clientMbox, rej);
}
