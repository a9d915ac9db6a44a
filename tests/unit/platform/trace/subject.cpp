#include "subject.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace merlow::test {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds patience{20};

std::vector<std::string> environmentWith(const Environment& changes)
{
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (!changes.contains(text.substr(0, text.find('=')))) {
            result.push_back(text);
        }
    }
    for (const auto& [name, value] : changes) {
        if (!value.empty()) {
            result.push_back(name + "=" + value);
        }
    }
    return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

} // namespace

bool waitUntil(const std::function<bool()>& condition)
{
    const auto end = Clock::now() + patience;
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        poll(nullptr, 0, 5);
    }
    return true;
}

std::string contentOf(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

TempFolder::TempFolder() : m_path(::testing::TempDir() + "merlowTraceXXXXXX")
{
    if (mkdtemp(m_path.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
}

TempFolder::~TempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

Subject::Subject(const std::vector<std::string>& command, const Environment& environment, int stderrFd)
{
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (stderrFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stderrFd, STDERR_FILENO);
    }
    std::vector<std::string> words = command;
    std::vector<std::string> variables = environmentWith(environment);
    const int error = posix_spawn(&m_pid, words.front().c_str(), &actions, nullptr, pointersTo(words).data(),
                                  pointersTo(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    m_input = in[1];
    m_output = out[0];
    if (error != 0) {
        m_pid = -1;
        ADD_FAILURE() << "can't run " << command.front();
    }
}

Subject::~Subject()
{
    if (m_pid > 0) {
        killHard();
    }
    if (m_input >= 0) {
        close(m_input);
    }
    close(m_output);
}

bool Subject::readMore()
{
    pollfd entry{m_output, POLLIN, 0};
    const auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(patience).count();
    if (poll(&entry, 1, static_cast<int>(timeout)) != 1) {
        return false;
    }
    char buffer[4096];
    const ssize_t length = read(m_output, buffer, sizeof buffer);
    m_read.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return length > 0;
}

std::string Subject::ask(const std::string& command)
{
    const std::string line = command + "\n";
    if (write(m_input, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        return "no answer";
    }
    while (m_read.find('\n') == std::string::npos) {
        if (!readMore()) {
            return "no answer";
        }
    }
    const auto end = m_read.find('\n');
    const std::string answer = m_read.substr(0, end);
    m_read.erase(0, end + 1);
    return answer;
}

void Subject::killHard()
{
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

std::string Subject::readAll()
{
    if (m_input >= 0) {
        close(std::exchange(m_input, -1));
    }
    while (readMore()) {
    }
    return m_read;
}

int Subject::finish()
{
    readAll();
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Result runProgram(const std::vector<std::string>& command, const Environment& environment)
{
    const TempFolder folder;
    const int err = open((folder / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Result result{};
    {
        Subject program(command, environment, err);
        result.out = program.readAll();
        result.status = program.finish();
    }
    close(err);
    result.err = contentOf(folder / "err");
    return result;
}

} // namespace merlow::test
