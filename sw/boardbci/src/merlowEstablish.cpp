#include "merlowEstablish.h"

#include "bci/bciCommon.h"
#include "brhRestart.h"
#include "merlowTrace.h"
#include "rushlog.h"

#include <string>

namespace {

constexpr std::size_t MAX_CLIENTS = 3;
constexpr std::size_t MAX_CLIENTS_AUBOOT = 1;
constexpr std::int32_t RANGE_SIZE = 100;
constexpr std::int32_t GSM_FIRST = 100;
constexpr std::int32_t WCDMA_FIRST = 200;
constexpr std::uint16_t CONN_ESTABLISH_ERROR = 1;

bool isWithin(int serverRef, std::int32_t first)
{
    return serverRef >= first && serverRef < first + RANGE_SIZE;
}

void logConnection(const std::string& text)
{
    rushlog_log(RUSHLOG_CATEGORY, ("Radio Merlow Connection Established, " + text).c_str());
}

} // namespace

MerlowEstablish::MerlowEstablish(MerlowCommonData& commonData)
    : MerlowComponent(commonData), m_maxClients(commonData.isAuboot() ? MAX_CLIENTS_AUBOOT : MAX_CLIENTS),
      m_ranges{{{GSM_FIRST, GSM_FIRST}, {300, 300}, {400, 400}}}
{
}

bool MerlowEstablish::init()
{
    onSignal(TARN_BC_CONN_ESTABLISH_REQ, &MerlowEstablish::handleConnEstablishReq);
    return true;
}

void MerlowEstablish::handleConnEstablishReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcConnEstablishReqS>(*msg);
    if (!req) {
        return;
    }
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    const auto& [clientRef, serverRef] = req->addressInfo;
    logConnection("Start clientRef=" + std::to_string(clientRef));

    const char* refusal = nullptr;
    if (!m_commonData.isSupportedProtocolRev(req->protocolRev)) {
        refusal = "Protocol not supported";
    }
    if (serverRef < GSM_FIRST || isWithin(serverRef, WCDMA_FIRST) || serverRef >= 500) {
        refusal = "RAT not supported";
    }
    if (m_commonData.getClientSession(client) != nullptr) {
        refusal = "Client already registered";
    } else if (m_commonData.getNumClientSessions() >= m_maxClients) {
        refusal = "Already at maximum client capacity";
    }
    if (refusal != nullptr) {
        sendConnEstablishRej(req->addressInfo, client, refusal);
        return;
    }
    const std::int32_t reference = connEstablishRadioAccessType(serverRef);
    logConnection("End clientRef=" + std::to_string(clientRef) + ", serverRef=" + std::to_string(reference));
    m_commonData.addClientSession(client, clientRef, reference, req->protocolRev,
                                  "DU_" + std::to_string(m_commonData.generateSessionNumber()), 0);
    BrhRestart::getInstance().reset();
    sendMsg(toMessage(answerTo<TarnBcConnEstablishCfmS>({.clientRef = clientRef, .serverRef = reference})),
            client, m_commonData.getPrivateMbox());
}

std::int32_t MerlowEstablish::connEstablishRadioAccessType(int serverRef)
{
    if (isWithin(serverRef, WCDMA_FIRST)) {
        SCRY_TRACE(4, "ABN: WCDMA Radio Access Type not supported by Merlow, serverRef = " << serverRef);
        return 0;
    }
    for (Range& range : m_ranges) {
        if (isWithin(serverRef, range.first)) {
            const std::int32_t reference = range.next;
            range.next = reference + 1 < range.first + RANGE_SIZE ? reference + 1 : range.first;
            return reference;
        }
    }
    return 0;
}

void MerlowEstablish::sendConnEstablishRej(const TarnNodeCommonAddressInfoS& addressInfo,
                                           mnet_mbox_id_t client, const char* text) const
{
    auto rej = answerTo<TarnBcConnEstablishRejS>(addressInfo);
    rej.protocolRev = m_commonData.getHighestProtocolRev();
    rej.errorCode = CONN_ESTABLISH_ERROR;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), text);
    sendMsg(toMessage(rej), client, m_commonData.getPrivateMbox());
}
