/// The steps that all procedures of the client side share.
#pragma once

#include "bci/bciCommon.h"
#include "merlowTracepoints.h"
#include "mnetMessageSubscriptionCustom.h"

#include <initializer_list>
#include <string>

namespace Merlow::BbBci {

/// Calls `handler` of `self` for each signal of this number. The first handler of a number stays.
template <class C>
void onSignal(C* self, std::uint32_t msgNo, void (C::*handler)(const std::shared_ptr<mnet_msg>&))
{
    MnetMessageSubscriptionCustom::getInstance().addMsgHandler(
        msgNo, [self, handler](const std::shared_ptr<mnet_msg>& msg) { (self->*handler)(msg); });
}

/// Takes whatever handlers the numbers have off the calling thread's subscription, if it still has one.
inline void removeHandlers(std::initializer_list<std::uint32_t> numbers)
{
    if (auto* subscription = MnetMessageSubscriptionCustom::findInstance()) {
        for (const auto number : numbers) {
            subscription->removeMsgHandler(number);
        }
    }
}

/// Sends the record, given in host order, from the calling thread's own mailbox.
template <class R> void sendToPeer(const R& record, mnet_mbox_id_t mbox)
{
    TP_SEND_SIG(record.msgNo, mbox,
                "Sent signal " << findBciSignal(record.msgNo)->name
                               << ": clientRef: " << record.addressInfo.clientRef
                               << ", serverRef: " << record.addressInfo.serverRef);
    sendMsg(toMessage(record), mbox, MNET_MY_MBOX);
}

/// The record, with the event that tells of the signal; nothing when the signal is too short.
template <class R> std::optional<R> receive(const mnet_msg& msg)
{
    const auto record = readSignal<R>(msg);
    if (record) {
        TP_REC_SIG(record->msgNo, "Received signal " << findBciSignal(record->msgNo)->name
                                                     << ": clientRef: " << record->addressInfo.clientRef
                                                     << ", serverRef: " << record->addressInfo.serverRef);
    }
    return record;
}

/// `name`: the reject that the event names.
template <class R> void traceReject(const char* name, const R& rej, const mnet_msg& msg)
{
    TP_ERROR("Received " << name << " from mailbox id 0x" << std::hex << mnet_sender(&msg) << " due to "
                         << Bci::textOf(rej.errorDescription));
}

} // namespace Merlow::BbBci
