/// A whole unit for measuring: the server in a host process, and neighbours that answer at once and do
/// nothing else, so that what is measured is the server.
#pragma once

#include "process.h"

#include <string>

namespace merlow::bench {

inline constexpr const char* publicName = "Merlow";
inline constexpr const char* legacyName = "LegacyMerlow";

/// Legacy server, board and host, in a run-time folder of their own.
class Unit {
public:
    explicit Unit(const std::string& runDir);

    Process& legacy() { return m_legacy; }
    Process& board() { return m_board; }
    Process& host() { return m_host; }

    /// `kill -9`, and a new one at once.
    void restartLegacy();

    /// A client with an established session. `service` is "pass" for a signal that goes to the legacy
    /// server and back, "utc" for one that is translated to BRI.
    Process connect(const std::string& service) const;

private:
    std::string m_runDir;
    Process m_legacy;
    Process m_board;
    Process m_host;
};

Process startLegacy(const std::string& runDir);
Process startBoard(const std::string& runDir);
/// Returns at once: the server may not be published yet.
Process startHost(const std::string& runDir);
Process startWatch(const std::string& runDir);

} // namespace merlow::bench
