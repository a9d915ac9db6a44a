#pragma once

#include "bci/bciRecord.h"

#include <functional>
#include <memory>

namespace Merlow::BbBci {

/// Asks another board controller for a connection.
///
///   TARN_BC_CONN_ESTABLISH_REQ -> TARN_BC_CONN_ESTABLISH_CFM
///                              -> TARN_BC_CONN_ESTABLISH_REJ
///
/// As for all procedures of this folder:
///   - An object belongs to the thread that calls `initialize()`: that thread owns the mailbox, runs the
///   event
///     loop, sends, gets the callbacks, and destroys the object while its subscription still stands.
///   - A signal has one handler on a thread. A second object of a class does not get the signals of the
///   first,
///     and the end of either takes the handlers off.
///   - A callback may send again, and may destroy the object. A confirm or reject for which no callback was
///     given raises `std::bad_function_call`, which the event loop reports; it then goes on.
///   - A signal that is shorter than its layout is traced and dropped.
class __attribute__((visibility("default"))) BbbciConnEstablish {
public:
    /// Gets the references that all later requests on this connection carry, in host order.
    using CfmReceivedHandler = std::function<void(const TarnNodeCommonAddressInfoS&)>;
    using RejReceivedHandler = std::function<void()>;

    BbbciConnEstablish();
    ~BbbciConnEstablish();
    BbbciConnEstablish(const BbbciConnEstablish&) = delete;
    BbbciConnEstablish& operator=(const BbbciConnEstablish&) = delete;

    /// Registers the handlers with the calling thread's subscription.
    void initialize();
    void removeMessageHandlers() const;

    /// Asks at revision 3, from the mailbox that the calling thread created first. `mbox`: the public mailbox
    /// of the other unit. `rej` is called when the peer names revision 3 itself as what it supports; any
    /// other revision that it names is tried at once.
    void sendConnEstablishReq(mnet_mbox_id_t mbox, const CfmReceivedHandler& cfm,
                              const RejReceivedHandler& rej);
    /// The callbacks stay as they are.
    void sendConnEstablishReq(mnet_mbox_id_t mbox, std::uint16_t protocolRev);

private:
    void handleConnEstablishCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleConnEstablishRej(const std::shared_ptr<mnet_msg>& msg);

    CfmReceivedHandler m_cfm;
    RejReceivedHandler m_rej;
};

} // namespace Merlow::BbBci
