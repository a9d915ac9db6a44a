#include "clientTargets.h"
#include "bbbciConnEstablish.h"
#include "bbBciEnableOperation.h"
#include "bbBciFaults.h"
#include "bbBciGetCapabilities.h"
#include "bbBciHwFaultLabel.h"
#include "board.h"
#include "connection.h"
#include "faultManager.h"
#include "report.h"

#include "bci/bciSignals.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace fuzz {

namespace {

/// A signal of the table with any bytes, of the table's size or another one.
Bytes signalFrom(Input& input)
{
    const SchemaMessage& row = input.message(bciSchema());
    Bytes bytes = input.body();
    bytes.resize(std::max<std::size_t>(bytes.size(), sizeof(row.number)));
    if (input.u8() % 2 == 0) {
        bytes.resize(std::max(bytes.size(), row.size));
    }
    std::memcpy(bytes.data(), &row.number, sizeof(row.number));
    return bytes;
}

/// From another unit to the client side, which may throw what its event loop reports.
void send(support::Board& board, const support::VirtualClient& other, const Bytes& bytes)
{
    try {
        other.sendBytes(bytes, board.commonData().getPrivateMbox());
    } catch (const std::length_error&) {      // a record that is shorter than its own head
    } catch (const std::bad_function_call&) { // an answer to what was not asked
    }
    while (other.receive()) {
    }
}

} // namespace

/// The client side, at another unit that says anything.
void runClientDrivers(Input& input)
{
    const int failures = platformFailures();
    {
        support::Board board({.bri = false, .bmmi = false});
        const support::VirtualClient other = board.newClient();
        Merlow::FaultManager faultManager;
        Merlow::BbBci::BbbciConnEstablish connection;
        Merlow::BbBci::BbBciGetCapabilities capabilities;
        Merlow::BbBci::BbBciEnableOperation enableOperation;
        Merlow::BbBci::BbBciFaults faults(faultManager);
        Merlow::BbBci::BbBciHwFaultLabel hwFaultLabel(faultManager);
        connection.initialize();
        capabilities.initialize();
        enableOperation.initialize();
        faults.initialize();
        hwFaultLabel.initialize();
        const TarnNodeCommonAddressInfoS address{.clientRef = 1, .serverRef = 300};
        const auto nothing = [] {
        };
        connection.sendConnEstablishReq(
            other.mbox(), [](const TarnNodeCommonAddressInfoS&) {}, nothing);
        capabilities.sendGetCapabilitiesReq(
            other.mbox(), address,
            [](const std::vector<Merlow::BbBci::CapabilityInfo>& infos) {
                require(infos.size() <= 0xFFFF, "capabilities are counted in 16 bits");
            },
            nothing);
        enableOperation.sendEnableOperationReq(other.mbox(), address, nothing, nothing);
        faults.sendSubscribeFaultsReq(other.mbox(), address, nothing, nothing);
        hwFaultLabel.sendSubscribeHwFaultLabelReq(other.mbox(), address, nothing, nothing);
        for (unsigned int i = 0; i < maxSteps && !input.empty(); ++i) {
            input.markStep();
            send(board, other, signalFrom(input));
        }
    }
    require(platformFailures() == failures, "the platform is used as it may be");
}

/// bbagent's connections to a unit, one after the other.
void runAgent(Input& input)
{
    const int failures = platformFailures();
    const bool isJson = input.u8() % 2 == 0;
    std::ostringstream out;
    {
        support::Board board({.bri = false, .bmmi = false});
        const support::VirtualClient unit = board.newClient();
        merlow::bbagent::Report report(out, isJson);
        std::optional<merlow::bbagent::Connection> connection;
        const auto connect = [&] {
            connection.reset();
            connection.emplace(unit.mbox(), report, [] {});
        };
        connect();
        for (unsigned int i = 0; i < maxSteps && !input.empty(); ++i) {
            if (input.step() < 0xF0) {
                send(board, unit, signalFrom(input));
            } else { // the unit was lost, and is back
                connect();
            }
        }
    }
    require(platformFailures() == failures, "the platform is used as it may be");
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
        require(std::all_of(line.begin(), line.end(),
                            [](char c) { return static_cast<unsigned char>(c) >= ' ' && c != 0x7F; }),
                "a signal does not steer the terminal");
        require(isJson ? nlohmann::json::accept(line)
                       : line.find_first_of("\x9b\x90") == std::string::npos && std::isalpha(line[0]) != 0,
                "an event is a line");
    }
}

} // namespace fuzz
