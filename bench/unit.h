/// A whole unit for measuring: the server in a host process, and neighbours that answer at once and do
/// nothing else, so that what is measured is the server.
#pragma once

#include "process.h"

#include <cstdint>
#include <string>

namespace merlow::bench {

inline constexpr const char* publicName = "Merlow";
inline constexpr const char* legacyName = "LegacyMerlow";

inline constexpr std::uint32_t connEstablishReq = 0x1658000;
inline constexpr std::uint32_t connEstablishCfm = 0x1658001;

/// Orders to the board, any mailbox's. An event of a number of faults (offset 4), of which the next one is
/// raised or, if it is, ceased:
inline constexpr std::uint32_t boardFaultOrder = 0x7000001;
/// So many different faults give every id of the board with three cases each.
inline constexpr std::uint32_t variedFaults = 36;
/// Seconds (offset 4) of so many events a second (offset 8) of one hardware fault, and the answer: how many
/// there were (offset 4).
inline constexpr std::uint32_t boardStormOrder = 0x7000002;
inline constexpr std::uint32_t boardStormOver = 0x7000003;

/// Legacy server, board, SWM server and host, in a run-time folder of their own.
class Unit {
public:
    /// `anyCpu`: not on the measuring CPU alone.
    explicit Unit(const std::string& runDir, bool anyCpu = false);

    Process& legacy() { return m_legacy; }
    Process& board() { return m_board; }
    Process& swm() { return m_swm; }
    Process& host() { return m_host; }

    /// `kill -9`, and a new one at once.
    void restartLegacy();

    /// A client with an established session. `service` is "pass" for a signal that goes to the legacy
    /// server and back, "utc" for one that is translated to BRI.
    Process connect(const std::string& service) const;
    /// A client in another role, with that role's argument.
    Process start(const std::string& role, const std::string& argument) const;

private:
    std::string m_runDir;
    bool m_anyCpu;
    Process m_legacy;
    Process m_board;
    Process m_swm;
    Process m_host;
};

Process startLegacy(const std::string& runDir, bool anyCpu = false);
Process startBoard(const std::string& runDir, bool anyCpu = false);
/// The server does not start without it.
Process startSwm(const std::string& runDir, bool anyCpu = false);
/// Returns at once: the server may not be published yet.
Process startHost(const std::string& runDir, bool anyCpu = false);
Process startWatch(const std::string& runDir);

} // namespace merlow::bench
