/// Programs of the project as child processes of a test: started with a clean environment of their own,
/// watched with deadlines, and never left behind.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace merlow::test {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// How long anything in a system test may take before it counts as not happening. Long, since sanitizer
/// builds on busy machines are slow; nothing waits for it when things go right.
constexpr milliseconds patience{20000};

/// Calls `condition` until it is true or `limit` has passed; says which it was.
[[nodiscard]] bool waitUntil(const std::function<bool()>& condition, milliseconds limit = patience);

/// Where a program of the build is.
[[nodiscard]] std::string programPath(const std::string& program);

/// A folder for one test, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// What a program left when it ended by itself.
struct Outcome {
    int status = -1; ///< exit status, or 128 and the signal's number
    std::string out;
    std::string err;
};

/// One running program. Killed and reaped by the destructor if it still runs.
class Process {
public:
    using Environment = std::map<std::string, std::string>;

    /// Starts `program` (looked up in the build's folder of programs unless it has a slash). Standard output
    /// and standard error go to files that `out()` and `err()` read back. `user`: whom it belongs to, instead
    /// of whom the test does.
    Process(const std::string& program, const std::vector<std::string>& arguments,
            const Environment& environment, std::optional<uid_t> user = std::nullopt);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    [[nodiscard]] pid_t pid() const { return m_pid; }
    [[nodiscard]] bool running();
    [[nodiscard]] std::string out() const;
    [[nodiscard]] std::string err() const;

    void signal(int number) const;
    void write(const std::string& text) const; ///< to its standard input
    void closeInput();

    /// Waits for the end. A program that does not end in time is killed and gives 128 and SIGKILL.
    int wait(milliseconds limit = patience);

    /// `kill -9`, and the end reaped.
    void kill();

private:
    void reap(int waitStatus);

    TempDir m_output;
    pid_t m_pid = -1;
    int m_input = -1;
    int m_status = -1;
};

/// Runs a program to its end, with `input` as its standard input.
Outcome runProgram(const std::string& program, const std::vector<std::string>& arguments,
                   const Process::Environment& environment, const std::string& input = {},
                   std::optional<uid_t> user = std::nullopt);

} // namespace merlow::test
