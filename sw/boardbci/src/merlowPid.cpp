#include "merlowPid.h"

#include "bci/bciPid.h"
#include "bri.pb.h"

namespace bri = boardresourcehandler::bri;

const MerlowPid::ProductService MerlowPid::s_productServices[] = {
    {TARN_BC_GET_MARKET_NAME_PID_REQ,
     [](const ProductInfo& info) { return info.isComplete && info.hasExtendedMarketName; },
     &MerlowPid::sendGetMarketNamePidCfm, &MerlowPid::sendGetMarketNamePidRej},
    {TARN_BC_GET_EXTENDED_MARKET_NAME_REQ, [](const ProductInfo& info) { return info.hasExtendedMarketName; },
     &MerlowPid::sendGetExtendedMarketNameCfm, &MerlowPid::sendGetExtendedMarketNameRej},
    {TARN_BC_GET_HW_PID_REQ, [](const ProductInfo& info) { return info.isComplete; },
     &MerlowPid::sendGetHwPidCfm, &MerlowPid::sendGetHwPidRej},
};

const MerlowPid::ProductService* MerlowPid::findProductService(const Transaction& transaction)
{
    for (const ProductService& service : s_productServices) {
        if (service.request == transaction.data) {
            return &service;
        }
    }
    SCRY_TRACE(4, "ABN: Unknown signal number in transaction! Ignoring signal!");
    return nullptr;
}

bool MerlowPid::init()
{
    BrhClient& briClient = m_commonData.getBriClient();
    onSignal(TARN_BC_GET_HW_PID_REQ, &MerlowPid::handleGetHwPidReq);
    onSignal(TARN_BC_GET_MARKET_NAME_PID_REQ, &MerlowPid::handleGetMarketNamePidReq);
    onSignal(TARN_BC_GET_EXTENDED_MARKET_NAME_REQ, &MerlowPid::handleGetExtendedMarketNameReq);
    onSignal(TARN_BC_GET_CONTAINER_PID_REQ, &MerlowPid::handleGetContainerPidReq);
    onFrame<bri::GetProductInfoCfm>(briClient, &MerlowPid::handleBriGetProductInfoCfm);
    onFrame<bri::GetProductInfoRej>(briClient, &MerlowPid::handleBriGetProductInfoRej);
    onFrame<bri::GetContainerPidCfm>(briClient, &MerlowPid::handleBriGetContainerPidCfm);
    onFrame<bri::GetContainerPidRej>(briClient, &MerlowPid::handleBriGetContainerPidRej);
    return true;
}

template <class BriReq, class Req> void MerlowPid::askBri(const Req& req, const mnet_msg& msg) const
{
    BrhClient& briClient = m_commonData.getBriClient();
    if (const auto procedureRef = briClient.sendMessage(BriReq())) {
        briClient.addProcedureTransaction(transactionOf(req, msg, procedureRef));
    }
}

void MerlowPid::handleGetHwPidReq(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    if (m_commonData.getClientSession(client) == nullptr) {
        SCRY_TRACE(4, "ABN: No BC session found for mailbox ID: 0x" << std::hex << client
                                                                    << ". Ignoring TARN_BC_GET_HW_PID_REQ.");
        return;
    }
    const auto req = readSignal<TarnBcGetHwPidReqS>(*msg);
    if (!req) {
        return;
    }
    if (m_commonData.getProductInfoCache().isComplete) {
        sendGetHwPidCfm(transactionOf(*req, *msg, 0));
        return;
    }
    askBri<bri::GetProductInfoReq>(*req, *msg);
}

void MerlowPid::handleGetMarketNamePidReq(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    if (m_commonData.getClientSession(client) == nullptr) {
        SCRY_TRACE(4, "ABN: Merlow has no session for mailbox 0x"
                          << std::hex << client << ". Ignoring TARN_BC_GET_MARKET_NAME_PID_REQ.");
        return;
    }
    const auto req = readSignal<TarnBcGetMarketNamePidReqS>(*msg);
    if (!req) {
        return;
    }
    const ProductInfo& info = m_commonData.getProductInfoCache();
    if (info.isComplete && info.hasExtendedMarketName) {
        sendGetMarketNamePidCfm(transactionOf(*req, *msg, 0));
        return;
    }
    askBri<bri::GetProductInfoReq>(*req, *msg);
}

void MerlowPid::handleGetExtendedMarketNameReq(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    if (m_commonData.getClientSession(client) == nullptr) {
        SCRY_TRACE(4, "ABN: Merlow has no session for mailbox 0x"
                          << std::hex << client << ". Ignoring TARN_BC_GET_EXTENDED_MARKET_NAME_REQ.");
        return;
    }
    const auto req = readSignal<TarnBcGetExtendedMarketNameReqS>(*msg);
    if (!req) {
        return;
    }
    if (m_commonData.getProductInfoCache().hasExtendedMarketName) {
        sendGetExtendedMarketNameCfm(transactionOf(*req, *msg, 0));
        return;
    }
    askBri<bri::GetProductInfoReq>(*req, *msg);
}

void MerlowPid::handleGetContainerPidReq(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    if (m_commonData.getClientSession(client) == nullptr) {
        SCRY_TRACE(4, "ABN: Merlow has no session for mailbox 0x"
                          << std::hex << client << ". Ignoring TARN_BC_GET_CONTAINER_PID_REQ.");
        return;
    }
    const auto req = readSignal<TarnBcGetContainerPidReqS>(*msg);
    if (!req) {
        return;
    }
    if (m_commonData.getContainerInfoCache().isComplete) {
        sendGetContainerPidCfm(transactionOf(*req, *msg, 0));
        return;
    }
    askBri<bri::GetContainerPidReq>(*req, *msg);
}

bool MerlowPid::hasSession(const Transaction& transaction, const char* answer) const
{
    if (m_commonData.getClientSession(transaction.clientMbox) != nullptr) {
        return true;
    }
    SCRY_TRACE(4, "ABN: No BC session found for mailbox ID: 0x" << std::hex << transaction.clientMbox
                                                                << ". Ignoring " << answer << ".");
    return false;
}

void MerlowPid::handleBriGetProductInfoCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::GetProductInfoCfm>(*msg);
    if (!briCfm) {
        return;
    }
    const bri::GetProductInfoCfm& told = briCfm->message;
    ProductInfo info = m_commonData.getProductInfoCache();
    if (told.has_production_date()) {
        info.pidField1 = told.production_date();
    }
    if (told.has_product_name()) {
        info.productName = told.product_name();
    }
    if (told.has_product_number()) {
        info.pidField3 = told.product_number();
    }
    if (told.has_product_revision()) {
        info.pidField4 = told.product_revision();
    }
    if (told.has_serial_number()) {
        info.pidField5 = told.serial_number();
    }
    if (told.has_extended_market_name()) {
        info.extendedMarketName = told.extended_market_name();
    }
    info.isComplete = told.has_production_date() && told.has_product_name() && told.has_product_number() &&
                      told.has_product_revision() && told.has_serial_number();
    info.hasExtendedMarketName = told.has_extended_market_name();
    m_commonData.setProductInfoCache(info);

    const auto transaction = m_commonData.getBriClient().takeTransaction(briCfm->procedureRef);
    if (!transaction) {
        SCRY_TRACE(4, "No BRI transaction was found for procedureRef: "
                          << briCfm->procedureRef << " but the cache has been updated.");
        return;
    }
    if (!hasSession(*transaction, "GetProductInfoCfm")) {
        return;
    }
    if (const ProductService* service = findProductService(*transaction)) {
        (this->*(service->canServe(info) ? service->sendCfm : service->sendRej))(*transaction);
    }
}

void MerlowPid::handleBriGetProductInfoRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::GetProductInfoRej>(*msg);
    if (!briRej) {
        return;
    }
    const auto transaction = m_commonData.getBriClient().takeTransaction(briRej->procedureRef);
    if (!transaction) {
        SCRY_TRACE(4, "No BRI transaction was found for procedureRef: " << briRej->procedureRef);
        return;
    }
    if (!hasSession(*transaction, "GetProductInfoRej")) {
        return;
    }
    if (const ProductService* service = findProductService(*transaction)) {
        (this->*service->sendRej)(*transaction);
    }
}

void MerlowPid::handleBriGetContainerPidCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::GetContainerPidCfm>(*msg);
    if (!briCfm) {
        return;
    }
    const bri::GetContainerPidCfm& told = briCfm->message;
    ContainerInfo info = m_commonData.getContainerInfoCache();
    if (told.has_production_date()) {
        info.pidField1 = told.production_date();
    }
    if (told.has_container_name()) {
        info.containerName = told.container_name();
    }
    if (told.has_product_number()) {
        info.pidField3 = told.product_number();
    }
    if (told.has_product_revision()) {
        info.pidField4 = told.product_revision();
    }
    if (told.has_serial_number()) {
        info.pidField5 = told.serial_number();
    }
    info.isComplete = told.has_production_date() && told.has_container_name() && told.has_product_number() &&
                      told.has_product_revision() && told.has_serial_number();
    m_commonData.setContainerInfoCache(info);

    const auto transaction = m_commonData.getBriClient().takeTransaction(briCfm->procedureRef);
    if (!transaction) {
        SCRY_TRACE(4, "No BRI transaction was found for procedureRef: "
                          << briCfm->procedureRef << " but the cache has been updated.");
        return;
    }
    if (!hasSession(*transaction, "GetContainerPidCfm")) {
        return;
    }
    if (info.isComplete) {
        sendGetContainerPidCfm(*transaction);
    } else {
        sendGetContainerPidRej(*transaction);
    }
}

void MerlowPid::handleBriGetContainerPidRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::GetContainerPidRej>(*msg);
    if (!briRej) {
        return;
    }
    const auto transaction = m_commonData.getBriClient().takeTransaction(briRej->procedureRef);
    if (!transaction) {
        SCRY_TRACE(4, "No BRI transaction was found for procedureRef: " << briRej->procedureRef);
        return;
    }
    if (hasSession(*transaction, "GetContainerPidRej")) {
        sendGetContainerPidRej(*transaction);
    }
}

std::string MerlowPid::productNameFor(const Transaction& transaction) const
{
    const ProductInfo& info = m_commonData.getProductInfoCache();
    return isGsmServerRef(transaction.serverRef) && info.isKpx() ? "UNIT 40 K7" : info.productName;
}

void MerlowPid::sendGetHwPidCfm(const Transaction& transaction) const
{
    const ProductInfo& info = m_commonData.getProductInfoCache();
    auto cfm = answerTo<TarnBcGetHwPidCfmS>(transaction.addressInfo());
    copyStringToClearedArray(cfm.pidField1, sizeof(cfm.pidField1), info.pidField1);
    copyStringToClearedArray(cfm.productName, sizeof(cfm.productName), productNameFor(transaction));
    copyStringToClearedArray(cfm.pidField3, sizeof(cfm.pidField3), info.pidField3);
    copyStringToClearedArray(cfm.pidField4, sizeof(cfm.pidField4), info.pidField4);
    copyStringToClearedArray(cfm.pidField5, sizeof(cfm.pidField5), info.pidField5);
    sendToClient(transaction.clientMbox, cfm);
}

void MerlowPid::sendGetMarketNamePidCfm(const Transaction& transaction) const
{
    const ProductInfo& info = m_commonData.getProductInfoCache();
    auto cfm = answerTo<TarnBcGetMarketNamePidCfmS>(transaction.addressInfo());
    copyStringToClearedArray(cfm.pidField1, sizeof(cfm.pidField1), info.pidField1);
    copyStringToClearedArray(cfm.productName, sizeof(cfm.productName), productNameFor(transaction));
    copyStringToClearedArray(cfm.extendedMarketName, sizeof(cfm.extendedMarketName), info.extendedMarketName);
    copyStringToClearedArray(cfm.pidField3, sizeof(cfm.pidField3), info.pidField3);
    copyStringToClearedArray(cfm.pidField4, sizeof(cfm.pidField4), info.pidField4);
    copyStringToClearedArray(cfm.pidField5, sizeof(cfm.pidField5), info.pidField5);
    sendToClient(transaction.clientMbox, cfm);
}

void MerlowPid::sendGetExtendedMarketNameCfm(const Transaction& transaction) const
{
    auto cfm = answerTo<TarnBcGetExtendedMarketNameCfmS>(transaction.addressInfo());
    copyStringToClearedArray(cfm.extendedMarketName, sizeof(cfm.extendedMarketName),
                             m_commonData.getProductInfoCache().extendedMarketName);
    sendToClient(transaction.clientMbox, cfm);
}

void MerlowPid::sendGetContainerPidCfm(const Transaction& transaction) const
{
    const ContainerInfo& info = m_commonData.getContainerInfoCache();
    auto cfm = answerTo<TarnBcGetContainerPidCfmS>(transaction.addressInfo());
    copyStringToClearedArray(cfm.pidField1, sizeof(cfm.pidField1), info.pidField1);
    copyStringToClearedArray(cfm.containerName, sizeof(cfm.containerName), info.containerName);
    copyStringToClearedArray(cfm.pidField3, sizeof(cfm.pidField3), info.pidField3);
    copyStringToClearedArray(cfm.pidField4, sizeof(cfm.pidField4), info.pidField4);
    copyStringToClearedArray(cfm.pidField5, sizeof(cfm.pidField5), info.pidField5);
    sendToClient(transaction.clientMbox, cfm);
}

template <class Rej> void MerlowPid::sendRej(const Transaction& transaction) const
{
    auto rej = answerTo<Rej>(transaction.addressInfo());
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription),
                             "Failed to retrieve all PID data");
    sendToClient(transaction.clientMbox, rej);
}

void MerlowPid::sendGetHwPidRej(const Transaction& transaction) const
{
    sendRej<TarnBcGetHwPidRejS>(transaction);
}

void MerlowPid::sendGetMarketNamePidRej(const Transaction& transaction) const
{
    sendRej<TarnBcGetMarketNamePidRejS>(transaction);
}

void MerlowPid::sendGetExtendedMarketNameRej(const Transaction& transaction) const
{
    sendRej<TarnBcGetExtendedMarketNameRejS>(transaction);
}

void MerlowPid::sendGetContainerPidRej(const Transaction& transaction) const
{
    sendRej<TarnBcGetContainerPidRejS>(transaction);
}
