#include "process.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace merlow::test {

namespace {

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

int openOutput(const std::string& path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw std::runtime_error("cannot write " + path);
    }
    return fd;
}

} // namespace

bool waitUntil(const std::function<bool()>& condition, milliseconds limit)
{
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        poll(nullptr, 0, 2);
    }
    return true;
}

std::string programPath(const std::string& program)
{
    return std::string(MERLOW_BIN_DIR) + "/" + program;
}

TempDir::TempDir() : m_path(::testing::TempDir() + "merlowXXXXXX")
{
    if (mkdtemp(m_path.data()) == nullptr) {
        throw std::runtime_error("cannot make a folder for the test");
    }
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

Process::Process(const std::string& program, const std::vector<std::string>& arguments,
                 const Environment& environment, std::optional<uid_t> user)
{
    const std::string path = program.find('/') == std::string::npos ? programPath(program) : program;
    std::map<std::string, std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        variables[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& [name, value] : environment) {
        variables[name] = value;
    }
    std::vector<std::string> strings;
    strings.reserve(variables.size());
    for (const auto& [name, value] : variables) {
        strings.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& text : strings) {
        envp.push_back(text.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    int input[2];
    if (pipe2(input, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    const int out = openOutput(m_output.path() + "/out");
    const int err = openOutput(m_output.path() + "/err");
    m_pid = fork();
    if (m_pid == 0) {
        if (user && (setgroups(0, nullptr) != 0 || setresgid(*user, *user, *user) != 0 ||
                     setresuid(*user, *user, *user) != 0)) {
            _exit(126);
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that dies leaves nothing behind
        dup2(input[0], 0);
        dup2(out, 1);
        dup2(err, 2);
        execve(path.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(input[0]);
    close(out);
    close(err);
    m_input = input[1];
    if (m_pid < 0) {
        throw std::runtime_error("cannot start " + path);
    }
}

Process::~Process()
{
    kill();
    closeInput();
}

bool Process::running()
{
    if (m_pid > 0) {
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            reap(status);
        }
    }
    return m_pid > 0;
}

void Process::reap(int waitStatus)
{
    m_status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
    m_pid = -1;
}

std::string Process::out() const
{
    return contentOf(m_output.path() + "/out");
}

std::string Process::err() const
{
    return contentOf(m_output.path() + "/err");
}

void Process::signal(int number) const
{
    if (m_pid > 0) {
        ::kill(m_pid, number);
    }
}

void Process::write(const std::string& text) const
{
    if (::write(m_input, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error("the program does not read its input");
    }
}

void Process::closeInput()
{
    if (m_input >= 0) {
        close(m_input);
        m_input = -1;
    }
}

int Process::wait(milliseconds limit)
{
    if (!waitUntil([this] { return !running(); }, limit)) {
        kill();
    }
    return m_status;
}

void Process::kill()
{
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::kill(m_pid, SIGCONT);
        int status = 0;
        if (waitpid(m_pid, &status, 0) == m_pid) {
            reap(status);
        }
        m_pid = -1;
    }
}

Outcome runProgram(const std::string& program, const std::vector<std::string>& arguments,
                   const Process::Environment& environment, const std::string& input,
                   std::optional<uid_t> user)
{
    Process process(program, arguments, environment, user);
    process.write(input);
    process.closeInput();
    Outcome outcome;
    outcome.status = process.wait();
    outcome.out = process.out();
    outcome.err = process.err();
    return outcome;
}

} // namespace merlow::test
