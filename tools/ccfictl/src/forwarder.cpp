#include "forwarder.h"

#include <algorithm>
#include <cstring>

namespace merlow::ccfictl {

namespace {

using tools::Failure;
using tools::Signal;

/// The record with `tail` behind it.
template <class R> MnetMsgPtr toMessage(const R& record, const std::vector<std::uint8_t>& tail)
{
    const auto head = ::toMessage(record);
    auto msg = allocMsg(BciRecord<R>::size + tail.size(), BciRecord<R>::number);
    if (!head || !msg) {
        return {};
    }
    auto* const start = reinterpret_cast<std::uint8_t*>(msg.get());
    std::memcpy(start, head.get(), BciRecord<R>::size);
    std::copy(tail.begin(), tail.end(), start + BciRecord<R>::size);
    return msg;
}

/// The procedure reference stands where the other interface has the client's.
std::uint32_t procedureRefOf(const Signal& signal)
{
    return static_cast<std::uint32_t>(signal.addressInfo().clientRef);
}

} // namespace

Forwarder::Forwarder(std::chrono::milliseconds timeout) : UnitClient("private_Merlow", timeout) {}

Forwarder::Answer Forwarder::connect(const Offer& offer)
{
    const CcfiBcConnEstablishReqS req{.msgNo = CCFI_BC_CONN_ESTABLISH_REQ,
                                      .procedureRef = ++m_procedureRef,
                                      .connectionRef = offer.clientRef,
                                      .nbrOfSupportedProtocolRev =
                                          static_cast<std::uint32_t>(offer.revisions.size())};
    std::vector<std::uint8_t> list;
    for (const auto revision : offer.revisions) {
        for (const int shift : {24, 16, 8, 0}) {
            list.push_back(static_cast<std::uint8_t>(revision >> shift));
        }
    }
    auto answer = exchange(
        toMessage(req, list),
        [&req](const Signal& signal) {
            return (signal.number() == CCFI_BC_CONN_ESTABLISH_CFM ||
                    signal.number() == CCFI_BC_CONN_ESTABLISH_REJ) &&
                   procedureRefOf(signal) == req.procedureRef;
        },
        false);
    if (const auto* const signal = std::get_if<Signal>(&answer)) {
        if (const auto cfm = tools::decode<CcfiBcConnEstablishCfmS>(*signal)) {
            m_connections.push_back(cfm->connectionRef);
        }
    }
    return answer;
}

Forwarder::Answer Forwarder::close(std::uint32_t serverRef)
{
    const CcfiBcConnCloseReqS req{
        .msgNo = CCFI_BC_CONN_CLOSE_REQ, .procedureRef = ++m_procedureRef, .connectionRef = serverRef};
    std::erase(m_connections, serverRef);
    return exchange(
        ::toMessage(req),
        [&req](const Signal& signal) {
            return signal.number() == CCFI_BC_CONN_CLOSE_CFM && procedureRefOf(signal) == req.procedureRef;
        },
        false);
}

std::optional<Failure> Forwarder::closeAll()
{
    while (!isLost() && !m_connections.empty()) {
        const auto answer = close(m_connections.back());
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            return *failure;
        }
    }
    return std::nullopt;
}

std::optional<Failure> Forwarder::raise(CcfiBcFaultFwdS fault, const std::string& hwFaultLabel)
{
    fault.msgNo = CCFI_BC_FAULT_FWD;
    fault.procedureRef = ++m_procedureRef;
    std::vector<std::uint8_t> label(hwFaultLabel.begin(), hwFaultLabel.end());
    label.push_back(0);
    return send(toMessage(fault, label));
}

std::optional<Failure> Forwarder::cease(CcfiBcFaultceaseFwdS fault)
{
    fault.msgNo = CCFI_BC_FAULTCEASE_FWD;
    fault.procedureRef = ++m_procedureRef;
    return send(::toMessage(fault));
}

} // namespace merlow::ccfictl
