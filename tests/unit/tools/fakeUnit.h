/// A unit as clients see it: a thread with the mailbox that they look for and fixed answers, in a run-time
/// folder of the test's own.
#pragma once

#include <cstdint>
#include <map>
#include <mnet.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace merlow::tools {

/// Hexadecimal text as bytes; blanks are free. Fails the test for anything else.
std::vector<std::uint8_t> bytesOf(const std::string& hex);

/// A run-time folder, in force and removed with the object, and this process's mailbox library in it.
class RunFolder {
public:
    RunFolder();
    ~RunFolder();
    RunFolder(const RunFolder&) = delete;
    RunFolder& operator=(const RunFolder&) = delete;

    [[nodiscard]] const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// Answers as told, echoes nothing by itself. All bytes are what stands behind the number.
class FakeUnit {
public:
    struct Reply {
        std::uint32_t number;
        /// A '=' in front stands for the word that follows the request's number, a '@' for the references and
        /// the two bytes behind them.
        std::string hex;
    };
    using Answers = std::map<std::uint32_t, std::vector<Reply>>;

    /// `answers`: what goes back for each number that comes in, in this order.
    /// `name`: the mailbox that clients look for.
    explicit FakeUnit(Answers answers, const char* name = "Merlow");
    ~FakeUnit();
    FakeUnit(const FakeUnit&) = delete;
    FakeUnit& operator=(const FakeUnit&) = delete;

    /// What came with `number` last, behind the number, as hexadecimal digits, of no more than its
    /// first 4 KiB; empty for nothing.
    [[nodiscard]] std::string received(std::uint32_t number) const;

    /// A number whose arrival makes that mailbox go.
    static constexpr std::uint32_t goAway = 0x7000001;
    /// The number of a reply that is not sent: the public mailbox goes instead.
    static constexpr std::uint32_t leave = 0x7000004;
    /// The same, and another one of that name comes.
    static constexpr std::uint32_t comeAgain = 0x7000010;
    /// The number of a reply that is not sent: what follows it is for the next request of the same number.
    static constexpr std::uint32_t nextTime = 0x7000020;
    /// The number of a reply that is not sent: the thread that made this object gets a SIGINT.
    static constexpr std::uint32_t interrupt = 0x7000021;

private:
    void serve(const char* name, mnet_mbox_id_t mailbox);

    Answers m_answers;
    mutable std::mutex m_mutex;
    std::map<std::uint32_t, std::string> m_received;
    mnet_mbox_id_t m_control = MNET_MBOX_NONE; // outlives the other mailbox, for the stop
    pthread_t m_maker = pthread_self();
    std::thread m_thread;
};

} // namespace merlow::tools
