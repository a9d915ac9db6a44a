#include "supervisedUnit.h"

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace merlow::test {

namespace {

namespace fs = std::filesystem;

constexpr std::array<const char*, 4> partNames{"legacyd", "brhd", "swmd", "merlowd"};

/// Ready for use by a board that restarts quickly.
Process::Environment environmentIn(const TempDir& dir)
{
    const std::string board = dir.path() + "/board.json";
    std::ofstream(board) << R"({"capabilities": [3, 24, 26, 28, 35, 36], "restart": {"noticeMs": 50},
                               "bmmi": {"hereIAmMs": 300}, "temperature": {"sensors": "simulated"}})";
    return {{"MERLOW_RUN_DIR", dir.path() + "/run"}, {"MERLOW_BOARD_FILE", board}};
}

/// The value of a line "KEY: VALUE" of a process's status; 0 when there is none.
std::size_t statusNumber(pid_t process, const std::string& key)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with(key + ":")) {
            return std::stoul(line.substr(key.size() + 1));
        }
    }
    return 0;
}

std::string nameOf(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

std::size_t descriptorsOf(pid_t process)
{
    std::error_code gone;
    const fs::directory_iterator fds("/proc/" + std::to_string(process) + "/fd", gone);
    return gone ? 0 : static_cast<std::size_t>(std::distance(begin(fds), end(fds)));
}

std::set<std::string> filesIn(const std::string& folder)
{
    std::set<std::string> names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(folder, none)) {
        names.insert(entry.path().filename());
    }
    return names;
}

} // namespace

std::string growth(const Holdings& before, const Holdings& after)
{
    std::ostringstream text;
    for (const auto& [part, count] : after.descriptors) {
        const auto found = before.descriptors.find(part);
        const std::size_t had = found == before.descriptors.end() ? 0 : found->second;
        if (count > had) {
            text << part << " has " << count << " descriptors, before " << had << "; ";
        }
    }
    for (const std::string& name : after.names) {
        if (!before.names.contains(name)) {
            text << "the mailbox " << name << " is left; ";
        }
    }
    if (after.endpoints > before.endpoints) {
        text << after.endpoints << " sockets of mailboxes, before " << before.endpoints << "; ";
    }
    return text.str();
}

SupervisedUnit::SupervisedUnit()
    : m_environment(environmentIn(m_dir)), m_supervisor("unit", {}, m_environment)
{
}

bool SupervisedUnit::waitUntilUp()
{
    return waitUntil([this] {
               return m_supervisor.out().find("The unit is up") != std::string::npos ||
                      !m_supervisor.running();
           }) &&
           m_supervisor.running();
}

std::map<std::string, pid_t> SupervisedUnit::parts()
{
    std::map<std::string, pid_t> found;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("/proc", ignored)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const pid_t process = std::stoi(name);
        if (statusNumber(process, "PPid") != static_cast<std::size_t>(m_supervisor.pid())) {
            continue;
        }
        for (const char* const part : partNames) {
            if (nameOf(process) == part) {
                found[part] = process;
                m_seen.insert(process);
            }
        }
    }
    return found;
}

std::size_t SupervisedUnit::memoryOf(pid_t process)
{
    return statusNumber(process, "RssAnon") * 1024;
}

Holdings SupervisedUnit::holdings()
{
    Holdings holdings;
    holdings.descriptors["unit"] = descriptorsOf(m_supervisor.pid());
    for (const auto& [part, process] : parts()) {
        holdings.descriptors[part] = descriptorsOf(process);
    }
    holdings.names = filesIn(path("run/mnet/names"));
    for (const std::string& file : filesIn(path("run/mnet/ep"))) {
        holdings.endpoints += file.ends_with(".live") ? 0 : 1;
    }
    return holdings;
}

std::string SupervisedUnit::unexpectedWords() const
{
    std::istringstream lines(m_supervisor.err());
    std::string unexpected;
    std::string line;
    while (std::getline(lines, line)) {
        const auto speaksOf = [&line](const char* what) {
            return line.find(what) != std::string::npos;
        };
        // A server that starts while the software server dies ends by itself.
        if (speaksOf("unit: ") && speaksOf(" ended with ") && !speaksOf(" ended with signal 9 (Killed)") &&
            !speaksOf("merlowd ended with exit status 1")) {
            unexpected += line + "\n";
        }
    }
    return unexpected;
}

int SupervisedUnit::end()
{
    m_supervisor.signal(SIGTERM);
    return m_supervisor.wait();
}

std::string SupervisedUnit::leftOvers()
{
    std::string text;
    for (const pid_t process : m_seen) {
        const std::string name = nameOf(process);
        for (const char* const part : partNames) {
            if (name == part) {
                text += name + " still runs as process " + std::to_string(process) + "; ";
            }
        }
    }
    // Who starts next removes what the dead left.
    if (const int status = call("bcictl", {"audit", "--timeout", "0.1"}).status; status != 4) {
        text += "a client finds a unit that has ended: status " + std::to_string(status) + "; ";
    }
    for (const std::string& name : filesIn(path("run/mnet/names"))) {
        text += "the mailbox " + name + " is left; ";
    }
    return text;
}

Outcome SupervisedUnit::call(const std::string& program, const std::vector<std::string>& arguments,
                             const std::string& input) const
{
    return runProgram(program, arguments, m_environment, input);
}

} // namespace merlow::test
