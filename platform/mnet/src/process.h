/// What a process has of the library between `mnet_init` and `mnet_exit`.
///
/// Order of locks: the one that guards init and exit, then one endpoint's, then the one in here. No thread
/// ever holds two endpoints' locks.
#pragma once

#include "mnet.h"
#include "runFolder.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace mnet {

class Endpoint;

class Process : public std::enable_shared_from_this<Process> {
public:
    /// Nothing, with `errno`, when the run-time folder can't be used.
    static std::shared_ptr<Process> create(std::uint32_t maxMailboxes, const std::string& nameSpace);

    RunFolder& folder() { return *m_folder; }
    std::size_t queueLimit() const { return m_queueLimit; }

    /// A new endpoint for the calling thread. Nothing, with `errno`, on failure.
    std::shared_ptr<Endpoint> addEndpoint();
    /// The endpoint of this process that has the number, if there is one.
    std::shared_ptr<Endpoint> find(std::uint16_t number);
    std::vector<std::shared_ptr<Endpoint>> all();
    /// The endpoint is closed and its number free for others.
    void remove(std::uint16_t number);
    /// Closes every endpoint; none can be added afterwards.
    void close();

    bool reserveMailbox();
    void returnMailbox() { m_mailboxes.fetch_sub(1, std::memory_order_relaxed); }

private:
    Process() = default;

    std::unique_ptr<RunFolder> m_folder;
    std::size_t m_queueLimit = 0;
    std::uint32_t m_maxMailboxes = 0;
    std::atomic<std::uint32_t> m_mailboxes{0};
    std::mutex m_mutex;
    bool m_closed = false;
    std::unordered_map<std::uint16_t, std::shared_ptr<Endpoint>> m_endpoints;
};

/// The process's state, or nothing before `mnet_init`, after `mnet_exit` and in the child of a fork.
std::shared_ptr<Process> currentProcess();
/// What `mnet_init` and `mnet_exit` do.
int initProcess(std::uint32_t maxMailboxes, const std::string& nameSpace);
int exitProcess();
/// Whether this is the child of a fork that has not called `mnet_init` itself.
bool isForkedChild();

/// The calling thread's endpoint, or null. Stays valid during the call of the API that asked.
Endpoint* threadEndpoint();
/// The same, made if the thread has none. Null, with `errno`, on failure.
Endpoint* obtainThreadEndpoint();

/// There was a line that could not be told.
void rememberUntold();

/// "0x" and eight digits.
std::string hex(std::uint32_t number);

/// A line for the remote log; a flood of them is thinned out.
void reportLine(const std::string& text);
/// The same, with what `text` gives. Never fails: most is told when there is no memory to tell it in full.
template <class Text> void report(Text text) noexcept
{
    try {
        reportLine(text());
    } catch (const std::exception&) {
        rememberUntold();
    }
}

} // namespace mnet
