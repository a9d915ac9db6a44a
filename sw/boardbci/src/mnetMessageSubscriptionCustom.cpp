#include "mnetMessageSubscriptionCustom.h"

#include "eventLoopIf.h"
#include "merlowTrace.h"
#include "serverThread.h"

#include <new>
#include <system_error>
#include <utility>

namespace {

using Loomwork::EventLoop::V1::EventLoopIf;

constexpr unsigned int READABLE = 1;

pthread_key_t s_instanceKey;
pthread_once_t s_instanceKeyOnce = PTHREAD_ONCE_INIT;
int s_instanceKeyResult = 0;

extern "C" void destroyInstance(void* instance)
{
    delete static_cast<MnetMessageSubscriptionCustom*>(instance);
}

extern "C" void createInstanceKey()
{
    s_instanceKeyResult = pthread_key_create(&s_instanceKey, destroyInstance);
}

/// A message that has no memory for its count in one moment is not lost for it.
std::shared_ptr<mnet_msg> shared(MnetMsgPtr& msg)
{
    try {
        return std::shared_ptr<mnet_msg>(std::move(msg)); // which leaves it alone when it throws
    } catch (const std::bad_alloc&) {
        return std::shared_ptr<mnet_msg>(std::move(msg)); // NOLINT(bugprone-use-after-move)
    }
}

void throwOn(int error)
{
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "slot of the mailbox subscription");
    }
}

} // namespace

MnetMessageSubscriptionCustom& MnetMessageSubscriptionCustom::getInstance()
{
    auto* instance = findInstance();
    throwOn(s_instanceKeyResult);
    if (instance == nullptr) {
        std::unique_ptr<MnetMessageSubscriptionCustom> created(new MnetMessageSubscriptionCustom);
        throwOn(pthread_setspecific(s_instanceKey, created.get()));
        instance = created.release();
    }
    return *instance;
}

MnetMessageSubscriptionCustom* MnetMessageSubscriptionCustom::findInstance()
{
    pthread_once(&s_instanceKeyOnce, createInstanceKey);
    return s_instanceKeyResult == 0
               ? static_cast<MnetMessageSubscriptionCustom*>(pthread_getspecific(s_instanceKey))
               : nullptr;
}

void MnetMessageSubscriptionCustom::reset()
{
    if (auto* instance = findInstance()) {
        pthread_setspecific(s_instanceKey, nullptr);
        delete instance;
    }
}

MnetMessageSubscriptionCustom::MnetMessageSubscriptionCustom() : m_ownerThread(pthread_self()) {}

MnetMessageSubscriptionCustom::~MnetMessageSubscriptionCustom()
{
    if (m_fd != -1) {
        EventLoopIf::getInstance().removeFd(m_fd);
    }
}

int MnetMessageSubscriptionCustom::monitorMnetFd(int fd)
{
    if (!isOwnerThread()) {
        return FOREIGN_THREAD;
    }
    if (m_fd != -1) {
        return ALREADY_THERE;
    }
    if (EventLoopIf::getInstance().addFd(fd, READABLE, [this](int, unsigned int) { handleFdEvent(); }) != 0) {
        return LOOP_REFUSED;
    }
    m_fd = fd;
    return DONE;
}

int MnetMessageSubscriptionCustom::addMsgHandler(unsigned int msgNo, const MsgHandler& handler)
{
    if (!isOwnerThread()) {
        return FOREIGN_THREAD;
    }
    if (m_handlers.contains(msgNo)) {
        return ALREADY_THERE;
    }
    m_handlers.emplace(msgNo, std::make_shared<const MsgHandler>(handler));
    return DONE;
}

int MnetMessageSubscriptionCustom::addNoticeHandler(unsigned int msgNo, const MsgHandler& handler)
{
    if (!isOwnerThread()) {
        return FOREIGN_THREAD;
    }
    const bool isNew = m_noticeHandlers.emplace(msgNo, std::make_shared<const MsgHandler>(handler)).second;
    return isNew ? DONE : ALREADY_THERE;
}

int MnetMessageSubscriptionCustom::removeMsgHandler(unsigned int msgNo)
{
    if (!isOwnerThread()) {
        return FOREIGN_THREAD;
    }
    return m_handlers.erase(msgNo) != 0 ? DONE : NOT_THERE;
}

int MnetMessageSubscriptionCustom::getMsgHandler(unsigned int msgNo, MsgHandler& out) const
{
    if (!isOwnerThread()) {
        return FOREIGN_THREAD;
    }
    const auto it = m_handlers.find(msgNo);
    if (it == m_handlers.end() || !*it->second) {
        return NOT_THERE;
    }
    out = *it->second;
    return DONE;
}

int MnetMessageSubscriptionCustom::addDefaultHandler(const DefaultHandler& handler)
{
    m_defaultHandler = std::make_shared<const DefaultHandler>(handler);
    return DONE;
}

std::shared_ptr<const MnetMessageSubscriptionCustom::MsgHandler>
MnetMessageSubscriptionCustom::handlerOf(const mnet_msg& msg) const
{
    if (const auto it = m_noticeHandlers.find(msg.msgNo);
        it != m_noticeHandlers.end() && mnet_is_notice(&msg) == 1) {
        return it->second;
    }
    const auto it = m_handlers.find(msg.msgNo);
    return it != m_handlers.end() ? it->second : nullptr;
}

void MnetMessageSubscriptionCustom::handleFdEvent()
{
    const CancelGuard notCancelled;
    MnetMsgPtr msg(mnet_receive(nullptr, 0, MNET_FROM_ANY));
    if (!msg) {
        return;
    }
    const std::uint32_t msgNo = msg->msgNo;
    if (const auto handler = handlerOf(*msg)) {
        (*handler)(shared(msg));
    } else if (const auto defaultHandler = m_defaultHandler; defaultHandler && *defaultHandler) {
        SCRY_OBJ_TRACE(13, "Using default handler to process message 0x" << std::hex << msgNo);
        (*defaultHandler)(msg.release());
    } else {
        SCRY_TRACE(4, "ABN: No handler found for MNET message number: 0x" << std::hex << msgNo);
    }
}
