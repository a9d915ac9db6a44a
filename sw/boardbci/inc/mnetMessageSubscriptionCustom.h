#pragma once

#include "mnetMessageSubscriptionIf.h"
#include "mnetMsgPtr.h"

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <unordered_map>

/// The server's message pump: takes one message for each readable event of the mailbox library's descriptor
/// and calls the handler of its number, or the default handler. Nothing else in the server receives messages.
///
/// One instance for each thread, made on first use and gone with the thread. Only its own thread changes it.
class __attribute__((visibility("default"))) MnetMessageSubscriptionCustom
    : public Loomwork::MnetMessageSubscription::V1::MnetMessageSubscriptionIf {
public:
    using MsgHandler = std::function<void(const std::shared_ptr<mnet_msg>&)>;
    using DefaultHandler = std::function<void(mnet_msg*)>;

    enum Result : int {
        DONE = 0,
        ALREADY_THERE = 1,
        NOT_THERE = 2,
        FOREIGN_THREAD = 3,
        LOOP_REFUSED = 4,
    };

    /// The calling thread's instance.
    [[nodiscard]] static MnetMessageSubscriptionCustom& getInstance();
    /// The calling thread's instance, or null: for those who only take handlers off, which may be after the
    /// thread that the handlers were on.
    [[nodiscard]] static MnetMessageSubscriptionCustom* findInstance();
    /// Destroys the calling thread's instance, if there is one.
    static void reset();

    MnetMessageSubscriptionCustom(const MnetMessageSubscriptionCustom&) = delete;
    MnetMessageSubscriptionCustom& operator=(const MnetMessageSubscriptionCustom&) = delete;

    /// Puts the descriptor on the calling thread's event loop. ALREADY_THERE when one is monitored.
    int monitorMnetFd(int fd) override;
    /// ALREADY_THERE when the number has a handler; that one stays.
    int addMsgHandler(unsigned int msgNo, const MsgHandler& handler) override;
    /// A handler may remove itself: it is kept until it has returned.
    int removeMsgHandler(unsigned int msgNo) override;
    int getMsgHandler(unsigned int msgNo, MsgHandler& out) const override;
    /// As `addMsgHandler`, for what the mailbox library itself sends under this number. What anybody else
    /// sends under it goes the way of any other number.
    int addNoticeHandler(unsigned int msgNo, const MsgHandler& handler);
    /// Takes the descriptor off the event loop.
    ~MnetMessageSubscriptionCustom() override;
    /// Replaces the default handler, which owns each message that it is given. Always DONE: the thread is not
    /// checked, so another one must not call while the pump runs.
    int addDefaultHandler(const DefaultHandler& handler) override;

    /// The event loop's callback.
    void handleFdEvent();

private:
    MnetMessageSubscriptionCustom();

    [[nodiscard]] bool isOwnerThread() const { return pthread_equal(pthread_self(), m_ownerThread) != 0; }

    using Handlers = std::unordered_map<std::uint32_t, std::shared_ptr<const MsgHandler>>;

    /// Who takes the message; null for nobody. A copy, since a handler may remove itself while it runs.
    [[nodiscard]] std::shared_ptr<const MsgHandler> handlerOf(const mnet_msg& msg) const;

    pthread_t m_ownerThread;
    std::int32_t m_fd{-1};
    std::shared_ptr<const DefaultHandler> m_defaultHandler;
    Handlers m_handlers;
    Handlers m_noticeHandlers;
};
