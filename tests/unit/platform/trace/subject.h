/// A program under test at the other end of two pipes, and what its tests need around it.
#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace merlow::test {

using Environment = std::map<std::string, std::string>;

/// Whether `condition` becomes true within 20 s.
bool waitUntil(const std::function<bool()>& condition);

std::string contentOf(const std::string& path);
std::vector<std::string> linesOf(const std::string& path);

/// A folder of its own for each test, gone with it.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

/// A running program that answers each line with a line. Killed, if it still runs, with its object.
class Subject {
public:
    /// What `environment` names is set, or with an empty value unset, and the rest is inherited. With
    /// `stderrFd` -1 the program's standard error is that of the test.
    Subject(const std::vector<std::string>& command, const Environment& environment, int stderrFd = -1);
    ~Subject();
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    /// The answer to `command`; "no answer" when there is none within 20 s.
    std::string ask(const std::string& command);
    pid_t pid() const { return m_pid; }
    /// As nobody can survive it.
    void killHard();
    /// Closes its input and waits for its end; its exit status, or -1 when it was killed.
    int finish();
    /// All that it writes until it ends.
    std::string readAll();

private:
    bool readMore();

    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    std::string m_read;
};

struct Result {
    int status;
    std::string out;
    std::string err;
};

/// Runs `command` to its end.
Result runProgram(const std::vector<std::string>& command, const Environment& environment);

} // namespace merlow::test
