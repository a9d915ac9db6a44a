#include "fakeMnet.h"

#include "shortage.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

namespace support {

namespace {

constexpr std::size_t maxSize = 16U << 20U;
constexpr int firstFd = 1000;

} // namespace

FakeMnet& FakeMnet::instance()
{
    static FakeMnet mnet;
    return mnet;
}

void FakeMnet::reset()
{
    for (auto& [msg, info] : m_messages) {
        std::free(const_cast<mnet_msg*>(msg));
    }
    *this = FakeMnet();
}

FakeMnet::Process FakeMnet::newProcess()
{
    return ++m_lastProcess;
}

FakeMnet::As::As(Process process) : m_previous(instance().m_current)
{
    instance().m_current = process;
}

FakeMnet::As::~As()
{
    instance().m_current = m_previous;
}

void FakeMnet::killProcess(Process process)
{
    std::vector<mnet_mbox_id_t> mailboxes;
    for (const auto& [id, mailbox] : m_mailboxes) {
        if (mailbox.process == process) {
            mailboxes.push_back(id);
        }
    }
    for (const auto id : mailboxes) {
        remove(id);
    }
    for (auto* msg : std::exchange(m_queues[process], {})) {
        freeBlock(msg);
    }
}

void FakeMnet::fail(Call call, unsigned int times, unsigned int skip)
{
    m_failures[call] = {.skip = skip, .times = times};
}

bool FakeMnet::failsNow(Call call)
{
    // Only the server's calls fail: the neighbours are the test's own.
    if (m_current == server && shortage::fails(1)) {
        return true;
    }
    const auto found = m_failures.find(call);
    if (m_current != server || found == m_failures.end() || found->second.times == 0) {
        return false;
    }
    if (found->second.skip > 0) {
        --found->second.skip;
        return false;
    }
    --found->second.times;
    return true;
}

bool FakeMnet::isReadable(int fd) const
{
    return fd >= firstFd && waiting(fd - firstFd) > 0;
}

std::size_t FakeMnet::waiting(Process process) const
{
    const auto found = m_queues.find(process);
    return found == m_queues.end() ? 0 : found->second.size();
}

const mnet_msg* FakeMnet::next(Process process) const
{
    const auto found = m_queues.find(process);
    return found == m_queues.end() || found->second.empty() ? nullptr : found->second.front();
}

std::size_t FakeMnet::mailboxCount(Process process) const
{
    return static_cast<std::size_t>(
        std::count_if(m_mailboxes.begin(), m_mailboxes.end(),
                      [process](const auto& entry) { return entry.second.process == process; }));
}

mnet_mbox_id_t FakeMnet::find(const std::string& name) const
{
    for (const auto& [id, mailbox] : m_mailboxes) {
        if (!name.empty() && mailbox.name == name) {
            return id;
        }
    }
    return MNET_MBOX_NONE;
}

std::string FakeMnet::nameOf(mnet_mbox_id_t mbox) const
{
    const auto found = m_mailboxes.find(mbox);
    return found == m_mailboxes.end() ? std::string() : found->second.name;
}

std::size_t FakeMnet::heldMessages() const
{
    std::size_t elsewhere = m_locates.size() + m_monitors.size();
    for (const auto& [process, queue] : m_queues) {
        elsewhere += queue.size();
    }
    return m_messages.size() - elsewhere;
}

int FakeMnet::init(std::uint32_t maxMailboxes)
{
    if (std::exchange(m_initResult.first, false)) {
        return m_initResult.second;
    }
    if (failsNow(Call::init)) {
        errno = ENOMEM;
        return -1;
    }
    if (m_initialised) {
        return -2;
    }
    m_initialised = true;
    m_maxMailboxes = maxMailboxes;
    return 0;
}

int FakeMnet::exit()
{
    killProcess(m_current);
    m_initialised = false;
    return 0;
}

mnet_mbox_id_t FakeMnet::create(const char* name, Call call)
{
    const std::string text = name == nullptr ? "" : name;
    if (failsNow(call) || (m_current == server && m_initialised && mailboxCount(server) >= m_maxMailboxes)) {
        errno = ENOSPC;
        return MNET_MBOX_NONE;
    }
    if (text.size() > 200) {
        errno = ENAMETOOLONG;
        return MNET_MBOX_NONE;
    }
    if (find(text) != MNET_MBOX_NONE) {
        errno = EEXIST;
        return MNET_MBOX_NONE;
    }
    return addMailbox(text, m_current);
}

mnet_mbox_id_t FakeMnet::clone(mnet_mbox_id_t parent, const char* name)
{
    const auto found = m_mailboxes.find(parent);
    if (found == m_mailboxes.end() || found->second.process != m_current) {
        errno = ENOENT;
        return MNET_MBOX_NONE;
    }
    return create(name, Call::clone);
}

mnet_mbox_id_t FakeMnet::addMailbox(const std::string& name, Process process)
{
    const mnet_mbox_id_t id = ++m_lastMbox;
    m_mailboxes[id] = {.name = name, .process = process};
    std::vector<Locate> found;
    std::vector<Locate> open;
    for (const auto& locate : m_locates) {
        (!name.empty() && locate.name == name ? found : open).push_back(locate);
    }
    m_locates = open;
    for (const auto& locate : found) {
        deliverNotice(locate.msg, id, locate.deliverTo, MNET_MBOX_NONE);
    }
    return id;
}

int FakeMnet::remove(mnet_mbox_id_t mbox)
{
    if (m_current == server) {
        m_deleteCalls.push_back(mbox);
    }
    const auto found = m_mailboxes.find(mbox);
    if (found == m_mailboxes.end()) {
        errno = ENOENT;
        return -1;
    }
    const Process process = found->second.process;
    m_mailboxes.erase(found);
    dropAddressedTo(mbox, process);
    fireMonitors(mbox);
    return 0;
}

void FakeMnet::dropAddressedTo(mnet_mbox_id_t mbox, Process process)
{
    auto& queue = m_queues[process];
    for (auto it = queue.begin(); it != queue.end();) {
        if (infoOf(*it).receiver == mbox) {
            freeBlock(*it);
            it = queue.erase(it);
        } else {
            ++it;
        }
    }
    for (auto it = m_monitors.begin(); it != m_monitors.end();) {
        if (it->second.deliverTo == mbox) {
            freeBlock(it->second.msg);
            it = m_monitors.erase(it);
        } else {
            ++it;
        }
    }
    for (auto it = m_locates.begin(); it != m_locates.end();) {
        if (it->deliverTo == mbox) {
            freeBlock(it->msg);
            it = m_locates.erase(it);
        } else {
            ++it;
        }
    }
}

void FakeMnet::fireMonitors(mnet_mbox_id_t lost)
{
    for (auto it = m_monitors.begin(); it != m_monitors.end();) {
        if (it->second.watched != lost) {
            ++it;
            continue;
        }
        const Monitor fired = it->second;
        const mnet_monitor_id_t id = it->first;
        it = m_monitors.erase(it);
        deliverNotice(fired.msg, lost, fired.deliverTo, id);
    }
}

mnet_mbox_id_t FakeMnet::currentMbox() const
{
    for (const auto& [id, mailbox] : m_mailboxes) {
        if (mailbox.process == m_current) {
            return id;
        }
    }
    return MNET_MBOX_NONE;
}

int FakeMnet::getFd()
{
    if (failsNow(Call::getFd)) {
        errno = EMFILE;
        return -1;
    }
    return firstFd + m_current;
}

mnet_msg* FakeMnet::newBlock(std::size_t size, std::uint32_t msgNo)
{
    const std::size_t bytes = std::max<std::size_t>(size, sizeof(mnet_msg));
    auto* msg = static_cast<mnet_msg*>(std::calloc(1, bytes));
    msg->msgNo = msgNo;
    m_messages[msg] = {.size = bytes};
    return msg;
}

void FakeMnet::freeBlock(mnet_msg* msg)
{
    if (m_messages.erase(msg) == 0) {
        ADD_FAILURE() << "A message was freed that is not alive";
        return;
    }
    std::free(msg);
}

mnet_msg* FakeMnet::alloc(std::size_t size, std::uint32_t msgNo)
{
    if (failsNow(Call::alloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    if (size > maxSize) {
        errno = EMSGSIZE;
        return nullptr;
    }
    return newBlock(size, msgNo);
}

void FakeMnet::free(mnet_msg** msg)
{
    if (msg != nullptr && *msg != nullptr) {
        freeBlock(std::exchange(*msg, nullptr));
    }
}

const FakeMnet::Info& FakeMnet::infoOf(const mnet_msg* msg) const
{
    static const Info none;
    const auto found = m_messages.find(msg);
    if (found == m_messages.end()) {
        ADD_FAILURE() << "A message was used that is not alive";
        return none;
    }
    return found->second;
}

std::size_t FakeMnet::size(const mnet_msg* msg) const
{
    return infoOf(msg).size;
}

mnet_mbox_id_t FakeMnet::sender(const mnet_msg* msg) const
{
    return infoOf(msg).sender;
}

mnet_mbox_id_t FakeMnet::receiver(const mnet_msg* msg) const
{
    return infoOf(msg).receiver;
}

bool FakeMnet::isNotice(const mnet_msg* msg) const
{
    return infoOf(msg).notice;
}

void FakeMnet::enqueue(mnet_msg* msg, Info info)
{
    info.size = infoOf(msg).size;
    auto* moved = newBlock(info.size, msg->msgNo);
    std::memcpy(moved, msg, info.size);
    freeBlock(msg);
    m_messages[moved] = info;
    m_queues[m_mailboxes.at(info.receiver).process].push_back(moved);
}

int FakeMnet::send(mnet_msg** msg, mnet_mbox_id_t to, mnet_mbox_id_t from)
{
    if (msg == nullptr || *msg == nullptr) {
        errno = EINVAL;
        return -1;
    }
    auto* taken = std::exchange(*msg, nullptr);
    const mnet_mbox_id_t sender = from == MNET_MY_MBOX ? currentMbox() : from;
    const auto own = m_mailboxes.find(sender);
    int error = 0;
    if (failsNow(Call::send)) {
        error = ENOBUFS;
    } else if (own == m_mailboxes.end() || own->second.process != m_current) {
        error = EPERM;
    } else if (!exists(to)) {
        error = ENOENT;
    }
    const SentMessage sending{.msgNo = taken->msgNo, .size = size(taken), .to = to, .from = sender};
    if (m_current == server && m_sendObserver) {
        m_sendObserver(*taken, sending, error == 0);
    }
    if (error != 0) {
        freeBlock(taken);
        errno = error;
        return -1;
    }
    m_sent.push_back(sending);
    enqueue(taken, {.sender = sender, .receiver = to});
    return 0;
}

mnet_msg* FakeMnet::receive(const std::uint32_t* filter, mnet_mbox_id_t from)
{
    auto& queue = m_queues[m_current];
    const auto wanted = std::find_if(queue.begin(), queue.end(), [&](const mnet_msg* msg) {
        const bool number =
            filter == nullptr || filter[0] == 0 ||
            std::find(filter + 1, filter + 1 + filter[0], msg->msgNo) != filter + 1 + filter[0];
        return number && (from == MNET_FROM_ANY || infoOf(msg).sender == from);
    });
    if (wanted == queue.end()) {
        return nullptr;
    }
    auto* msg = *wanted;
    queue.erase(wanted);
    return msg;
}

mnet_msg* FakeMnet::takeOrDefault(mnet_msg** msg, std::uint32_t msgNo)
{
    return msg != nullptr && *msg != nullptr ? std::exchange(*msg, nullptr)
                                             : newBlock(sizeof(mnet_msg), msgNo);
}

void FakeMnet::deliverNotice(mnet_msg* msg, mnet_mbox_id_t from, mnet_mbox_id_t to, mnet_monitor_id_t monitor)
{
    enqueue(msg, {.sender = from, .receiver = to, .notice = true, .monitor = monitor});
}

int FakeMnet::locate(const char* name, mnet_msg** msg, mnet_mbox_id_t mbox)
{
    auto* taken = takeOrDefault(msg, MNET_LOCATE_DEFAULT_MSGNO);
    if (failsNow(Call::locate) || !exists(mbox)) {
        freeBlock(taken);
        errno = ENOENT;
        return -1;
    }
    const mnet_mbox_id_t found = find(name);
    if (found != MNET_MBOX_NONE) {
        deliverNotice(taken, found, mbox, MNET_MBOX_NONE);
    } else {
        m_locates.push_back({.name = name, .deliverTo = mbox, .msg = taken});
    }
    return 0;
}

mnet_monitor_id_t FakeMnet::monitor(mnet_mbox_id_t mbox, mnet_msg** msg)
{
    auto* taken = takeOrDefault(msg, MNET_MONITOR_DEFAULT_MSGNO);
    const mnet_mbox_id_t deliverTo = currentMbox();
    if (failsNow(Call::monitor) || deliverTo == MNET_MBOX_NONE) {
        freeBlock(taken);
        errno = ENOENT;
        return MNET_MBOX_NONE;
    }
    const mnet_monitor_id_t id = ++m_lastMonitor;
    if (exists(mbox)) {
        m_monitors[id] = {.watched = mbox, .deliverTo = deliverTo, .msg = taken};
    } else {
        deliverNotice(taken, mbox, deliverTo, id);
    }
    return id;
}

int FakeMnet::unmonitor(mnet_monitor_id_t id)
{
    const auto found = m_monitors.find(id);
    if (found != m_monitors.end()) {
        freeBlock(found->second.msg);
        m_monitors.erase(found);
        return 0;
    }
    auto& queue = m_queues[m_current];
    const auto queued = std::find_if(queue.begin(), queue.end(),
                                     [&](const mnet_msg* msg) { return infoOf(msg).monitor == id; });
    if (id != MNET_MBOX_NONE && queued != queue.end()) {
        freeBlock(*queued);
        queue.erase(queued);
        return 0;
    }
    errno = ENOENT;
    return -1;
}

} // namespace support

using support::FakeMnet;

int mnet_init(uint32_t max_mailboxes, int /*alloc_scheme*/, const char* /*name_space*/, uint32_t /*flags*/)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().init(max_mailboxes);
}

int mnet_exit(void)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().exit();
}

mnet_mbox_id_t mnet_create_mailbox(const char* name, uint32_t /*flags*/)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().create(name, FakeMnet::Call::create);
}

mnet_mbox_id_t mnet_clone_mailbox(mnet_mbox_id_t parent, const char* name)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().clone(parent, name);
}

int mnet_delete_mailbox(mnet_mbox_id_t mbox)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().remove(mbox);
}

mnet_mbox_id_t mnet_current_mbox(void)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().currentMbox();
}

int mnet_get_fd(void)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().getFd();
}

struct mnet_msg* mnet_alloc(size_t size, uint32_t msgNo)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().alloc(size, msgNo);
}

void mnet_free(struct mnet_msg** msg)
{
    const support::shortage::Pause pause;
    FakeMnet::instance().free(msg);
}

size_t mnet_size(const struct mnet_msg* msg)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().size(msg);
}

int mnet_send(struct mnet_msg** msg, mnet_mbox_id_t to, mnet_mbox_id_t from)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().send(msg, to, from);
}

struct mnet_msg* mnet_receive(const uint32_t* filter, int /*timeout_ms*/, mnet_mbox_id_t from)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().receive(filter, from);
}

mnet_mbox_id_t mnet_sender(const struct mnet_msg* msg)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().sender(msg);
}

mnet_mbox_id_t mnet_receiver(const struct mnet_msg* msg)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().receiver(msg);
}

int mnet_locate_async(const char* name, struct mnet_msg** msg, mnet_mbox_id_t mbox)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().locate(name, msg, mbox);
}

mnet_monitor_id_t mnet_monitor(mnet_mbox_id_t mbox, struct mnet_msg** msg)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().monitor(mbox, msg);
}

int mnet_unmonitor(mnet_monitor_id_t id)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().unmonitor(id);
}

int mnet_is_notice(const struct mnet_msg* msg)
{
    const support::shortage::Pause pause;
    return FakeMnet::instance().isNotice(msg) ? 1 : 0;
}
