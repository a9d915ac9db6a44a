#pragma once

#include "bci/bciRecord.h"
#include "merlowCommonData.h"
#include "mnetMessageSubscriptionCustom.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

/// The base of every service: how the core starts it, tells it of sessions and of the end, and asks whether
/// it is ready to be published; and the one-step helpers that all services share.
///
/// Server thread only.
class MerlowComponent {
public:
    explicit MerlowComponent(MerlowCommonData& commonData);
    virtual ~MerlowComponent();
    MerlowComponent(const MerlowComponent&) = delete;
    MerlowComponent& operator=(const MerlowComponent&) = delete;

    /// Registers the service's handlers; false ends the server's start.
    virtual bool init() = 0;
    /// The session is still whole, and goes after the call.
    virtual void onBcSessionLost(const BcSession& session);
    virtual void onServerThreadExiting();
    /// The legacy server has confirmed the session's connection.
    virtual void onNewBcSession(const BcSession& session);
    [[nodiscard]] virtual bool isReadyToPublish() const;
    [[nodiscard]] virtual std::string getComponentName() const;

    /// `callback` is to be called when the service has set its flag on the session.
    void subscribeForSendTarnBcConnCfm(const std::function<void(BcSession&)>& callback);
    /// `callback` is to be called when the service has become ready to publish.
    void subscribeForCheckComponents(const std::function<bool()>& callback);

protected:
    /// References 100 to 199.
    [[nodiscard]] bool isGsmServerRef(int serverRef) const;

    void ntohDefault(TarnNodeCommonAddressInfoS& addressInfo) const;
    void htonDefault(TarnNodeCommonAddressInfoS& addressInfo) const;

    /// Clears `dest` and copies what fits of `src`, terminated in any case; a trace tells of what was lost.
    void copyStringToClearedArray(unsigned char* dest, unsigned int destSize, const std::string& src) const;

    /// Calls `handler` for each signal of this number. The first handler of a number stays.
    template <class C> void onSignal(unsigned int msgNo, void (C::*handler)(const std::shared_ptr<mnet_msg>&))
    {
        auto* self = static_cast<C*>(this);
        MnetMessageSubscriptionCustom::getInstance().addMsgHandler(
            msgNo, [self, handler](const std::shared_ptr<mnet_msg>& msg) { (self->*handler)(msg); });
    }

    /// Calls `handler` for each notice of the mailbox library with this number, of the caller's own choice.
    template <class C> void onNotice(unsigned int msgNo, void (C::*handler)(const std::shared_ptr<mnet_msg>&))
    {
        auto* self = static_cast<C*>(this);
        MnetMessageSubscriptionCustom::getInstance().addNoticeHandler(
            msgNo, [self, handler](const std::shared_ptr<mnet_msg>& msg) { (self->*handler)(msg); });
    }

    /// Calls `handler` for each frame that carries an M for this backend client.
    template <class M, class C>
    void onFrame(BrhClient& client, void (C::*handler)(const std::shared_ptr<mnet_msg>&))
    {
        auto* self = static_cast<C*>(this);
        client.addHandler(&MnetMessageSubscriptionCustom::getInstance(), M::MESSAGE_NUMBER,
                          [self, handler](const std::shared_ptr<mnet_msg>& msg) { (self->*handler)(msg); });
    }
    template <class M, class C>
    void onFrame(BrhClient& client, void (C::*handler)(const std::shared_ptr<mnet_msg>&) const)
    {
        const auto* self = static_cast<const C*>(this);
        client.addHandler(&MnetMessageSubscriptionCustom::getInstance(), M::MESSAGE_NUMBER,
                          [self, handler](const std::shared_ptr<mnet_msg>& msg) { (self->*handler)(msg); });
    }

    /// Sends the record, given in host order, to the client from the public mailbox.
    template <class R> void sendToClient(mnet_mbox_id_t client, const R& record) const
    {
        sendToClient(client, toMessage(record));
    }
    void sendToClient(mnet_mbox_id_t client, MnetMsgPtr msg) const;

    /// A copy of an open transaction with the BMMI server; nothing, and a trace that says what is ignored,
    /// when there is none of this reference.
    [[nodiscard]] std::optional<BrhClient::ProcedureTransaction>
    findBmmiTransaction(unsigned int procedureRef, const char* ignored) const;

    MerlowCommonData& m_commonData;
    std::function<void(BcSession&)> m_sendConnCfm; ///< empty until subscribed
    std::function<bool()> m_checkComponents;       ///< empty until subscribed
};
