/// The rows of the table, by what they need: each function starts its own processes, measures, and ends them.
#pragma once

#include "measure.h"
#include "report.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace merlow::bench {

/// What all rows share.
struct Setting {
    Effort effort;
    std::string runFolder; ///< of this run; units and mailboxes live in folders below it
};

/// The mailbox library beside raw sockets: round trips and one way, three sizes.
std::vector<Row> mailboxRows(const Setting& setting);
/// The server beside a bare relay and a relay over a D-Bus broker.
std::vector<Row> relayRows(const Setting& setting);
/// Sessions and memory: 45 sessions against one.
std::vector<Row> sessionRows(const Setting& setting);
/// Loads: blocks of 64 KiB from a client to the SWM server, and another client meanwhile.
std::vector<Row> loadRows(const Setting& setting);
/// Starts, restarts and deaths.
std::vector<Row> lifeRows(const Setting& setting);
/// Faults on their way from the board to subscribers, and what many of them leave behind.
std::vector<Row> faultRows(const Setting& setting);
/// Ten thousand fault events a second, and one subscriber that does not read.
std::vector<Row> stormRows(const Setting& setting);
/// Round trips of a client beside peers that mean harm.
std::vector<Row> trustRows(const Setting& setting);
/// What a trace site costs while it is off.
std::vector<Row> traceRows(const Setting& setting);

/// A row of two ways that took turns: what the second takes, and how it compares with the first.
Row comparedRow(const std::string& id, const std::string& what, const Series& floor, const Series& product);

} // namespace merlow::bench
