/// The processes of a measurement: each a fresh start of this program in one of its roles, or a foreign
/// program such as a bus daemon. Whatever ends the benchmark, its processes end with it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace merlow::bench {

/// A folder of its own for each run, removed with everything in it at the end.
class RunFolder {
public:
    RunFolder();
    ~RunFolder();
    RunFolder(const RunFolder&) = delete;
    RunFolder& operator=(const RunFolder&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// A file descriptor with an owner.
class Fd {
public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    ~Fd() { reset(); }
    Fd(Fd&& other) noexcept : m_fd(other.release()) {}
    Fd& operator=(Fd&& other) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const { return m_fd; }
    int release();
    void reset();

private:
    int m_fd;
};

/// Two connected non-blocking `SOCK_SEQPACKET` sockets.
struct SocketPair {
    SocketPair();
    Fd first;
    Fd second;
};

/// What a process is started with. As a rule each runs on the measuring CPU.
struct Start {
    std::vector<std::string> arguments; ///< a role and its arguments, or a foreign program and its own
    bool foreign = false;               ///< the first argument is a program, not a role
    std::string runDir = {};            ///< MERLOW_RUN_DIR of the process
    std::vector<int> descriptors = {};  ///< inherited as 4, 5, ...
    bool anyCpu = false;                ///< all CPUs that this process may use
    bool otherCpus = false;             ///< of them, all but the measuring one, where there are others
};

/// A running process with a line to it. Killed and waited for with this object.
class Process {
public:
    explicit Process(const Start& start);
    ~Process() { end(); }
    Process(Process&& other) noexcept;
    Process& operator=(Process&& other) noexcept;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }

    void tell(const std::string& text) const;
    /// The next text from the process. Throws after `limit`, when the process has ended, and when the
    /// benchmark is asked to stop.
    std::string hear(std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
    std::string ask(const std::string& text) const;
    /// Waits for the word "ready" that every role says once it serves.
    Process& untilReady();

    /// CPU time of all its threads so far, in nanoseconds.
    double cpuNanoseconds() const;
    /// Memory that is resident and its own (anonymous pages and pages of files that it maps), in bytes.
    double residentBytes() const;

    /// `kill -9` and wait; harmless when it is gone.
    void end();

private:
    std::string m_name;
    pid_t m_pid = -1;
    Fd m_line;
};

/// Stops the benchmark in an orderly way on SIGINT and SIGTERM: the next wait throws.
void stopOnSignals();

/// The CPU that all measuring is done on: the last one that this process may use.
int measuringCpu();

/// Nanoseconds of the monotonic clock, the same clock in every process.
double nowNanoseconds();

} // namespace merlow::bench
