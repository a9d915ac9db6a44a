#include "bciClient.h"

#include <algorithm>

namespace merlow::tools {

BciClient::BciClient(const Settings& settings)
    : UnitClient("Merlow", settings.timeout),
      m_protocolRev(settings.protocolRev), m_references{settings.clientRef, settings.serverRef}
{
}

std::optional<Failure> BciClient::connect()
{
    if (auto failure = open()) {
        return failure;
    }
    auto req = requestFrom<TarnBcConnEstablishReqS>(*this);
    req.protocolRev = m_protocolRev;
    const auto answer = request(toMessage(req), {TARN_BC_CONN_ESTABLISH_CFM, TARN_BC_CONN_ESTABLISH_REJ});
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        return *failure;
    }
    m_references.serverRef = std::get<Signal>(answer).addressInfo().serverRef;
    return std::nullopt;
}

BciClient::Answer BciClient::request(MnetMsgPtr msg, std::initializer_list<std::uint32_t> answers)
{
    const auto references = msg ? Bci::referencesOf(*msg) : TarnNodeCommonAddressInfoS{};
    const bool isConnect = msg && msg->msgNo == TARN_BC_CONN_ESTABLISH_REQ;
    const auto isAnswer = [&references, isConnect, answers](const Signal& signal) {
        // The confirm of a connection brings the server reference, so only the client's own can be compared.
        const bool bringsReference = isConnect && signal.number() == TARN_BC_CONN_ESTABLISH_CFM;
        const bool isAwaited = answers.size() == 0 ||
                               std::find(answers.begin(), answers.end(), signal.number()) != answers.end();
        const auto theirs = signal.addressInfo();
        return isAwaited && theirs.clientRef == references.clientRef &&
               (theirs.serverRef == references.serverRef || bringsReference);
    };
    return exchange(std::move(msg), isAnswer, answers.size() == 0);
}

BciClient::Answer BciClient::awaitAnswer(std::uint32_t request, std::initializer_list<std::uint32_t> answers)
{
    const auto isAnswer = [this, answers](const Signal& signal) {
        return std::find(answers.begin(), answers.end(), signal.number()) != answers.end() &&
               signal.addressInfo() == m_references;
    };
    return await(request, isAnswer, false);
}

} // namespace merlow::tools
