#include "process.h"

#include "descriptor.h"
#include "endpoint.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <new>
#include <pthread.h>

#ifdef MNET_WITH_REMOTE_LOG
#include "rushlog.h"
#endif

namespace mnet {

namespace {

constexpr std::size_t defaultQueueLimit = std::size_t{64} * 1024 * 1024;

/// Never destroyed: threads that are still running when `main` returns, and static destructors, may call.
struct Globals {
    std::mutex mutex;
    std::shared_ptr<Process> process;
    std::atomic<bool> forked{false};
    pthread_key_t key{};
    /// What a forked child inherits and must neither use nor free, since other threads of the parent may
    /// have been at work on it.
    std::vector<std::shared_ptr<void>> inherited;
};

Globals& globals();

/// The calling thread's endpoint: owned by the slot, which the thread's end releases.
struct Slot {
    std::shared_ptr<Endpoint> endpoint;
};
thread_local Slot* t_slot __attribute__((tls_model("initial-exec"))) = nullptr;

void onThreadEnd(void* value)
{
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    const std::unique_ptr<Slot> slot(static_cast<Slot*>(value));
    t_slot = nullptr;
    slot->endpoint->threadEnded();
    pthread_setcancelstate(state, nullptr);
}

void beforeFork()
{
    globals().mutex.lock();
    Descriptor::gate().lock();
}

void afterForkInParent()
{
    Descriptor::gate().unlock();
    globals().mutex.unlock();
}

void afterForkInChild()
{
    Globals& all = globals();
    Descriptor::closeAll();
    if (t_slot != nullptr) {
        all.inherited.push_back(std::move(t_slot->endpoint));
        delete std::exchange(t_slot, nullptr);
        pthread_setspecific(all.key, nullptr);
    }
    if (all.process) {
        all.inherited.push_back(std::move(all.process));
        all.process.reset();
    }
    all.forked = true;
    Descriptor::gate().unlock();
    all.mutex.unlock();
}

Globals& globals()
{
    static Globals& instance = [&]() -> Globals& {
        auto& made = *new Globals;
        pthread_key_create(&made.key, onThreadEnd);
        pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
        return made;
    }();
    return instance;
}

std::size_t limitFromEnvironment()
{
    const char* text = std::getenv("MNET_QUEUE_LIMIT");
    if (text == nullptr || *text == '\0') {
        return defaultQueueLimit;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || *text == '-') {
        report([&] { return "MNET_QUEUE_LIMIT is not a number of bytes: " + std::string(text); });
        return defaultQueueLimit;
    }
    return value;
}

} // namespace

std::shared_ptr<Process> Process::create(std::uint32_t maxMailboxes, const std::string& nameSpace)
{
    std::shared_ptr<Process> process(new Process);
    process->m_folder = RunFolder::open(nameSpace);
    if (!process->m_folder) {
        return nullptr;
    }
    process->m_maxMailboxes = maxMailboxes;
    process->m_queueLimit = limitFromEnvironment();
    return process;
}

std::shared_ptr<Endpoint> Process::addEndpoint()
{
    const std::lock_guard lock(m_mutex);
    if (m_closed) {
        errno = ENOTCONN;
        return nullptr;
    }
    const auto number = m_folder->claim([this](std::uint16_t own) { return m_endpoints.count(own) != 0; });
    if (!number) {
        return nullptr;
    }
    // Its place first: nothing that can fail comes behind the endpoint.
    std::shared_ptr<Endpoint> endpoint;
    try {
        m_endpoints.emplace(*number, nullptr);
        endpoint = Endpoint::create(shared_from_this(), *number);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    if (!endpoint) {
        const int error = errno;
        m_endpoints.erase(*number);
        m_folder->release(*number);
        errno = error;
        return nullptr;
    }
    m_endpoints[*number] = endpoint;
    return endpoint;
}

std::shared_ptr<Endpoint> Process::find(std::uint16_t number)
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_endpoints.find(number);
    return found != m_endpoints.end() ? found->second : nullptr;
}

std::vector<std::shared_ptr<Endpoint>> Process::all()
{
    const std::lock_guard lock(m_mutex);
    std::vector<std::shared_ptr<Endpoint>> result;
    for (const auto& entry : m_endpoints) {
        result.push_back(entry.second);
    }
    return result;
}

void Process::remove(std::uint16_t number)
{
    std::shared_ptr<Endpoint> removed; // goes after the lock
    const std::lock_guard lock(m_mutex);
    if (const auto found = m_endpoints.find(number); found != m_endpoints.end()) {
        removed = std::move(found->second);
        m_endpoints.erase(found);
    }
}

void Process::close()
{
    {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
    }
    for (const auto& endpoint : all()) {
        endpoint->close();
    }
    // Threads may keep the closed state for as long as they live, but not its descriptors.
    m_folder->close();
}

bool Process::reserveMailbox()
{
    std::uint32_t open = m_mailboxes.load(std::memory_order_relaxed);
    do {
        if (open >= m_maxMailboxes) {
            return false;
        }
    } while (!m_mailboxes.compare_exchange_weak(open, open + 1, std::memory_order_relaxed));
    return true;
}

std::shared_ptr<Process> currentProcess()
{
    Globals& all = globals();
    const std::lock_guard lock(all.mutex);
    return all.process;
}

int initProcess(std::uint32_t maxMailboxes, const std::string& nameSpace)
{
    Globals& all = globals();
    const std::lock_guard lock(all.mutex);
    if (all.process) {
        errno = EALREADY;
        return -2;
    }
    all.process = Process::create(maxMailboxes, nameSpace);
    if (!all.process) {
        return -1;
    }
    all.forked = false;
    return 0;
}

int exitProcess()
{
    Globals& all = globals();
    // Nobody may initialise before this is over: closing the file of the numbers' locks drops every lock that
    // the process has on it.
    const std::lock_guard lock(all.mutex);
    if (!all.process) {
        errno = ENOTCONN;
        return -1;
    }
    all.process->close();
    all.process.reset();
    return 0;
}

bool isForkedChild()
{
    return globals().forked.load(std::memory_order_relaxed);
}

Endpoint* threadEndpoint()
{
    if (t_slot == nullptr || t_slot->endpoint->isClosed()) {
        return nullptr;
    }
    return t_slot->endpoint.get();
}

Endpoint* obtainThreadEndpoint()
{
    if (Endpoint* endpoint = threadEndpoint()) {
        return endpoint;
    }
    const auto process = currentProcess();
    if (!process) {
        errno = ENOTCONN;
        return nullptr;
    }
    auto slot = t_slot == nullptr ? std::make_unique<Slot>() : nullptr;
    auto endpoint = process->addEndpoint();
    if (!endpoint) {
        return nullptr;
    }
    if (slot) {
        if (pthread_setspecific(globals().key, slot.get()) != 0) {
            endpoint->close();
            errno = ENOMEM;
            return nullptr;
        }
        t_slot = slot.release();
    }
    t_slot->endpoint = std::move(endpoint);
    return t_slot->endpoint.get();
}

std::string hex(std::uint32_t number)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string result = "0x00000000";
    for (std::size_t at = result.size(); at > 2; number >>= 4) {
        result[--at] = digits[number & 0xF];
    }
    return result;
}

namespace {

struct Log {
    std::mutex mutex;
    std::chrono::steady_clock::time_point start;
    int lines = 0;
    unsigned suppressed = 0;
};

Log& theLog()
{
    static Log log;
    return log;
}

} // namespace

void rememberUntold()
{
    const std::lock_guard lock(theLog().mutex);
    ++theLog().suppressed;
}

void reportLine(const std::string& text)
{
#ifdef MNET_WITH_REMOTE_LOG
    constexpr int linesPerSecond = 10;
    Log& log = theLog();
    std::string line = text;
    {
        const std::lock_guard lock(log.mutex);
        const auto now = std::chrono::steady_clock::now();
        if (now - log.start >= std::chrono::seconds(1)) {
            log.start = now;
            log.lines = 0;
        }
        if (++log.lines > linesPerSecond) {
            ++log.suppressed;
            return;
        }
        if (log.suppressed > 0) {
            line += " (" + std::to_string(log.suppressed) + " lines before this one left out)";
            log.suppressed = 0;
        }
    }
    rushlog_log("mnet", line.c_str());
#else
    static_cast<void>(text);
#endif
}

} // namespace mnet
