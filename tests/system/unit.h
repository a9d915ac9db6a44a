/// A whole unit of real processes in a run-time folder of its own.
#pragma once

#include "process.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace merlow::test {

class Unit {
public:
    /// Only the folder; nothing runs yet. `user`: whom folder and processes belong to, instead of whom the
    /// test does.
    explicit Unit(std::optional<uid_t> user = std::nullopt);

    /// legacyd, brhd, swmd and merlowd, and waits until the public mailbox stands.
    void start();

    void startLegacyd();
    /// None of its temperatures is this machine's.
    void startBrhd(std::vector<std::string> arguments = {});
    void startSwmd(const std::vector<std::string>& arguments = {});
    void startMerlowd(const std::vector<std::string>& arguments = {});

    [[nodiscard]] Process& legacyd() { return *m_legacyd; }
    [[nodiscard]] Process& brhd() { return *m_brhd; }
    [[nodiscard]] Process& swmd() { return *m_swmd; }
    [[nodiscard]] Process& merlowd() { return *m_merlowd; }
    [[nodiscard]] const std::string& runDir() const { return m_dir.path(); }
    [[nodiscard]] const Process::Environment& environment() const { return m_environment; }
    void setVariable(const std::string& name, const std::string& value) { m_environment[name] = value; }

    /// Whether a client that connects now is let in.
    [[nodiscard]] bool letsClientsIn() const;
    [[nodiscard]] bool waitUntilItLetsClientsIn() const;

    [[nodiscard]] Outcome bcictl(const std::vector<std::string>& arguments,
                                 const std::string& input = {}) const;
    [[nodiscard]] Outcome ccfictl(const std::vector<std::string>& arguments) const;
    [[nodiscard]] Outcome boardctl(const std::vector<std::string>& arguments) const;

    /// What `boardctl status --json` says of "brhd", "legacyd" or "swmd"; null when it does not answer.
    [[nodiscard]] nlohmann::json status(const std::string& program) const;

private:
    [[nodiscard]] std::unique_ptr<Process> launch(const char* program,
                                                  const std::vector<std::string>& arguments) const;

    TempDir m_dir;
    std::optional<uid_t> m_user;
    Process::Environment m_environment;
    std::unique_ptr<Process> m_legacyd;
    std::unique_ptr<Process> m_brhd;
    std::unique_ptr<Process> m_swmd;
    std::unique_ptr<Process> m_merlowd;
};

} // namespace merlow::test
