/// The C interface: arguments checked, no exception and no cancellation let through.
#include "mnet.h"

#include "endpoint.h"
#include "message.h"
#include "names.h"
#include "process.h"
#include "wire.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <pthread.h>

using mnet::BlockPtr;
using mnet::Endpoint;

namespace {

/// Inside the library a thread can't be cancelled, so that it never dies with a lock in its hands. Whatever
/// happens is told by `errno`, which the end of a call leaves alone.
class Call {
public:
    Call() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_state); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call()
    {
        int ignored = 0;
        pthread_setcancelstate(m_state, &ignored);
    }
    int callersState() const { return m_state; }

private:
    int m_state = 0;
};

template <class Result, class Work> Result guarded(Result failure, Work work)
{
    try {
        return work();
    } catch (const std::exception&) {
        errno = ENOMEM;
        return failure;
    }
}

template <class Result> Result fail(Result failure, int error)
{
    errno = error;
    return failure;
}

/// Empty for a mailbox without a name.
bool checkName(const char* name, std::string& out)
{
    if (name == nullptr) {
        return true;
    }
    if (strnlen(name, mnet::maxNameLength + 1) > mnet::maxNameLength) {
        errno = ENAMETOOLONG;
        return false;
    }
    out = name;
    return true;
}

/// The endpoint of this process that a mailbox belongs to, if it does.
std::shared_ptr<Endpoint> ownerOf(mnet_mbox_id_t id)
{
    const auto process = mnet::isMailboxId(id) ? mnet::currentProcess() : nullptr;
    return process ? process->find(mnet::endpointOf(id)) : nullptr;
}

} // namespace

int mnet_init(uint32_t max_mailboxes, int alloc_scheme, const char* name_space, uint32_t flags)
{
    const Call call;
    if (alloc_scheme != 0 || flags != 0) {
        return fail(-1, EINVAL);
    }
    return guarded(-1, [&] {
        return mnet::initProcess(max_mailboxes,
                                 name_space != nullptr ? std::string(name_space) : std::string());
    });
}

int mnet_exit(void)
{
    const Call call;
    return guarded(-1, [] { return mnet::exitProcess(); });
}

mnet_mbox_id_t mnet_create_mailbox(const char* name, uint32_t flags)
{
    const Call call;
    return guarded(MNET_MBOX_NONE, [&]() -> mnet_mbox_id_t {
        std::string checked;
        if (flags != 0) {
            return fail(MNET_MBOX_NONE, EINVAL);
        }
        if (!checkName(name, checked)) {
            return MNET_MBOX_NONE;
        }
        Endpoint* endpoint = mnet::obtainThreadEndpoint();
        return endpoint != nullptr ? endpoint->addMailbox(checked) : MNET_MBOX_NONE;
    });
}

mnet_mbox_id_t mnet_clone_mailbox(mnet_mbox_id_t parent, const char* name)
{
    const Call call;
    return guarded(MNET_MBOX_NONE, [&]() -> mnet_mbox_id_t {
        std::string checked;
        if (!checkName(name, checked)) {
            return MNET_MBOX_NONE;
        }
        Endpoint* endpoint = mnet::threadEndpoint();
        if (endpoint == nullptr || !endpoint->hasMailbox(parent)) {
            const auto owner = ownerOf(parent);
            return fail(MNET_MBOX_NONE, owner && owner->hasMailbox(parent) ? EPERM : ENOENT);
        }
        return endpoint->addMailbox(checked);
    });
}

int mnet_delete_mailbox(mnet_mbox_id_t mbox)
{
    const Call call;
    return guarded(-1, [&] {
        const auto owner = ownerOf(mbox);
        return owner && owner->deleteMailbox(mbox) ? 0 : fail(-1, ENOENT);
    });
}

mnet_mbox_id_t mnet_current_mbox(void)
{
    const Call call;
    return guarded(MNET_MBOX_NONE, []() -> mnet_mbox_id_t {
        Endpoint* endpoint = mnet::threadEndpoint();
        return endpoint != nullptr ? endpoint->currentMailbox() : MNET_MBOX_NONE;
    });
}

int mnet_get_fd(void)
{
    const Call call;
    return guarded(-1, [] {
        Endpoint* endpoint = mnet::obtainThreadEndpoint();
        return endpoint != nullptr ? endpoint->fd() : -1;
    });
}

struct mnet_msg* mnet_alloc(size_t size, uint32_t msgNo)
{
    if (size > mnet::maxMessageSize) {
        return fail<mnet_msg*>(nullptr, EMSGSIZE);
    }
    if (mnet::isForkedChild()) {
        return fail<mnet_msg*>(nullptr, ENOTCONN);
    }
    BlockPtr block = mnet::makeBlock(std::max(size, mnet::minMessageSize), mnet::Fill::zero);
    if (!block) {
        return fail<mnet_msg*>(nullptr, ENOMEM);
    }
    block->msg()->msgNo = msgNo;
    return block.release()->msg();
}

void mnet_free(struct mnet_msg** msg)
{
    mnet::takeMessage(msg);
}

size_t mnet_size(const struct mnet_msg* msg)
{
    return msg != nullptr ? mnet::Block::of(msg)->size : 0;
}

int mnet_send(struct mnet_msg** msg, mnet_mbox_id_t to, mnet_mbox_id_t from)
{
    const Call call;
    BlockPtr block = mnet::takeMessage(msg);
    return guarded(-1, [&] {
        if (!block) {
            return fail(-1, EINVAL);
        }
        if (from == MNET_MBOX_NONE) {
            return fail(-1, EPERM);
        }
        block->sender = from;
        Endpoint* own = mnet::threadEndpoint();
        int error = EPERM;
        if (own != nullptr && (from == MNET_MY_MBOX || mnet::endpointOf(from) == own->number())) {
            error = own->send(std::move(block), to);
        } else if (const auto owner = ownerOf(from)) {
            error = owner->send(std::move(block), to);
        }
        if (error == EPERM) {
            mnet::report([&] {
                return "refused to send to mailbox " + mnet::hex(to) + ": " + mnet::hex(from) +
                       " is not a mailbox of this process";
            });
        }
        return error == 0 ? 0 : fail(-1, error);
    });
}

struct mnet_msg* mnet_receive(const uint32_t* filter, int timeout_ms, mnet_mbox_id_t from)
{
    const Call call;
    return guarded<mnet_msg*>(nullptr, [&]() -> mnet_msg* {
        Endpoint* endpoint = mnet::threadEndpoint();
        if (endpoint == nullptr) {
            return fail<mnet_msg*>(nullptr, ENOTCONN);
        }
        BlockPtr block = endpoint->receive(filter, timeout_ms, from, call.callersState());
        return block ? block.release()->msg() : nullptr;
    });
}

mnet_mbox_id_t mnet_sender(const struct mnet_msg* msg)
{
    return msg != nullptr ? mnet::Block::of(msg)->sender : MNET_MBOX_NONE;
}

mnet_mbox_id_t mnet_receiver(const struct mnet_msg* msg)
{
    return msg != nullptr ? mnet::Block::of(msg)->receiver : MNET_MBOX_NONE;
}

int mnet_locate_async(const char* name, struct mnet_msg** msg, mnet_mbox_id_t mbox)
{
    const Call call;
    BlockPtr block = mnet::takeMessage(msg);
    return guarded(-1, [&] {
        std::string checked;
        if (!checkName(name, checked)) {
            return -1;
        }
        if (checked.empty()) {
            return fail(-1, EINVAL);
        }
        const auto owner = ownerOf(mbox);
        if (!owner) {
            return fail(-1, ENOENT);
        }
        if (!block && !(block = mnet::makeDefaultMessage(MNET_LOCATE_DEFAULT_MSGNO))) {
            return fail(-1, ENOMEM);
        }
        return owner->locate(checked, std::move(block), mbox) ? 0 : -1;
    });
}

mnet_monitor_id_t mnet_monitor(mnet_mbox_id_t mbox, struct mnet_msg** msg)
{
    const Call call;
    BlockPtr block = mnet::takeMessage(msg);
    return guarded(MNET_MBOX_NONE, [&]() -> mnet_monitor_id_t {
        Endpoint* endpoint = mnet::threadEndpoint();
        if (endpoint == nullptr) {
            return fail(MNET_MBOX_NONE, ENOTCONN);
        }
        if (!mnet::isMailboxId(mbox)) {
            return fail(MNET_MBOX_NONE, EINVAL);
        }
        if (!block && !(block = mnet::makeDefaultMessage(MNET_MONITOR_DEFAULT_MSGNO))) {
            return fail(MNET_MBOX_NONE, ENOMEM);
        }
        return endpoint->monitor(mbox, std::move(block));
    });
}

int mnet_unmonitor(mnet_monitor_id_t id)
{
    const Call call;
    return guarded(-1, [&] {
        Endpoint* own = mnet::threadEndpoint();
        if (own != nullptr && own->unmonitor(id)) {
            return 0;
        }
        if (const auto process = mnet::currentProcess()) {
            for (const auto& endpoint : process->all()) {
                if (endpoint->unmonitor(id)) {
                    return 0;
                }
            }
        }
        return fail(-1, ENOENT);
    });
}

int mnet_is_notice(const struct mnet_msg* msg)
{
    return msg != nullptr && mnet::Block::of(msg)->isNotice ? 1 : 0;
}
