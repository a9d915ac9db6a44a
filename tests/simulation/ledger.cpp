#include "ledger.h"

#include "fakeMnet.h"
#include "merlowCommonData.h"

#include <algorithm>
#include <sstream>

namespace sim {

using support::FakeMnet;

namespace {

constexpr std::size_t headerSize = 12;

std::string hex(std::uint64_t value)
{
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

[[noreturn]] void violated(const std::string& text)
{
    throw Violation(text);
}

} // namespace

Ledger::Ledger(bool isAuboot) : m_isAuboot(isAuboot)
{
    m_faults.subscribe([this](const Fault& fault) { faultRaised(fault, {}); },
                       [this](const Fault& fault) { faultCeased(fault); });
    addClientHandlers();
    addBoardHandlers();
    addMmiHandlers();
    addSoftwareHandlers();
    addFaultHandlers();
}

void Ledger::started(const Unit& unit, const Outcome& outcome)
{
    m_private = unit.data().getPrivateMbox();
    m_canSendSwmi = true;
    if (!outcome.messages.empty() || outcome.swmiFrames.size() != 1) {
        violated("The start asks the SWM server for a connection, and nobody for anything else");
    }
    checkState(unit);
}

void Ledger::ended()
{
    const auto& mnet = FakeMnet::instance();
    if (mnet.mailboxCount(FakeMnet::server) != 0 || mnet.monitorCount() != 0 || mnet.pendingLocates() != 0) {
        violated("The server has ended and left mailboxes, watches or searches");
    }
    if (mnet.heldMessages() != 0) {
        violated("The server has ended and left messages that were neither sent nor freed");
    }
}

// What is expected

void Ledger::answer(mnet_mbox_id_t to, std::uint32_t number, Refs refs, const Bytes& tail,
                    std::optional<std::size_t> size)
{
    if (m_public != MNET_MBOX_NONE) {
        m_expected.push_back({.to = to,
                              .from = m_public,
                              .number = number,
                              .size = size.value_or(bciSizeOf(number)),
                              .refs = refs,
                              .tail = tail});
    }
}

void Ledger::reject(mnet_mbox_id_t to, std::uint32_t number, Refs refs, unsigned int code)
{
    answer(to, number, refs, {static_cast<std::uint8_t>(code >> 8U), static_cast<std::uint8_t>(code)});
}

void Ledger::pass(mnet_mbox_id_t to, mnet_mbox_id_t from, const Bytes& bytes)
{
    if (from != MNET_MBOX_NONE) {
        m_expected.push_back({.to = to, .from = from, .number = numberOf(bytes), .whole = bytes});
    }
}

bool Ledger::ask(Backend& backend, std::uint32_t number, const google::protobuf::MessageLite& message,
                 std::uint32_t procedureRef, std::optional<Transaction> opens)
{
    if (!backend.isConnected) {
        return false;
    }
    const std::string body = message.SerializeAsString();
    m_expected.push_back({.to = backend.server,
                          .from = m_private,
                          .number = number,
                          .size = headerSize + body.size(),
                          .tail = {body.begin(), body.end()},
                          .backend = &backend,
                          .procedureRef = procedureRef,
                          .connectionRef = backend.connectionRef,
                          .opens = std::move(opens)});
    return true;
}

// What came

void Ledger::handled(const Unit& unit, const Event& event, const Outcome& outcome)
{
    m_expected.clear();
    m_expectedSwmi.clear();
    m_isPublishing = false;
    m_mayThrow = false;
    dispatch(event);
    if (!outcome.exception.empty() && !m_mayThrow) {
        violated("A handler threw: " + outcome.exception);
    }
    compare(unit, outcome);
    compareSwmi(outcome);
    if (!m_isExiting) {
        checkState(unit);
    }
}

void Ledger::compare(const Unit& unit, const Outcome& outcome)
{
    std::vector<const Output*> outputs;
    for (const Output& output : outcome.messages) {
        if (output.from != MNET_MBOX_NONE) { // without the public mailbox there is nobody to answer from
            outputs.push_back(&output);
        }
    }
    for (std::size_t i = 0; i < m_expected.size(); ++i) {
        if (i == outputs.size()) {
            violated("Nothing was sent to " + hex(m_expected[i].to) + " where " + hex(m_expected[i].number) +
                     " is due");
        }
        compareMessage(m_expected[i], *outputs[i]);
    }
    if (outputs.size() > m_expected.size()) {
        const Output& output = *outputs[m_expected.size()];
        violated("Nobody asked for what was sent to " + hex(output.to) + ": " +
                 support::messageToHex(output.bytes));
    }
    const mnet_mbox_id_t real = unit.data().getPublicMbox();
    if (m_isPublishing) {
        if (FakeMnet::instance().nameOf(real) != "Merlow") {
            violated("All is ready, and the server is not published");
        }
        m_public = real;
    } else if (real != m_public) {
        violated(real == MNET_MBOX_NONE ? "The public mailbox was withdrawn"
                                        : "There is a public mailbox, and not all is ready");
    }
}

void Ledger::compareMessage(const Expected& expected, const Output& output)
{
    const auto wrong = [&](const std::string& what) {
        violated("Wrong " + what + " in what was sent to " + hex(output.to) + " from " + hex(output.from) +
                 ": " + support::messageToHex(output.bytes) + ", where " + hex(expected.number) + " to " +
                 hex(expected.to) + " with references " + hex(expected.refs.client) + ", " +
                 hex(expected.refs.server) + " is due");
    };
    if (numberOf(output.bytes) != expected.number) {
        wrong("number");
    }
    if (output.to != expected.to) {
        wrong("receiver");
    }
    if (expected.opensSessionOf != MNET_MBOX_NONE) {
        Session& session = m_sessions.at(expected.opensSessionOf);
        session.clone = output.from;
        if (FakeMnet::instance().nameOf(session.clone) != "BcFwdMbox_" + std::to_string(session.number)) {
            wrong("clone");
        }
    } else if (output.from != expected.from) {
        wrong("sender");
    }
    if (expected.whole) {
        if (output.bytes != *expected.whole) {
            wrong("byte");
        }
        return;
    }
    if (expected.size != 0 && output.bytes.size() != expected.size) {
        wrong("size");
    }
    if (expected.backend != nullptr) {
        const std::uint32_t procedureRef = wordAt(output.bytes, 4);
        const bool isNew = expected.procedureRef == 0;
        if (isNew ? procedureRef == 0 || expected.backend->open.count(procedureRef) != 0
                  : procedureRef != expected.procedureRef) {
            wrong("procedure reference");
        }
        if (wordAt(output.bytes, 8) != expected.connectionRef) {
            wrong("connection reference");
        }
        if (expected.opens) {
            expected.backend->open[procedureRef] = *expected.opens;
        }
    } else if (wordAt(output.bytes, 4) != expected.refs.client ||
               wordAt(output.bytes, 8) != expected.refs.server) {
        wrong("reference");
    }
    if (output.bytes.size() < headerSize + expected.tail.size() ||
        !std::equal(expected.tail.begin(), expected.tail.end(), output.bytes.begin() + headerSize)) {
        wrong("content");
    }
}

void Ledger::compareSwmi(const Outcome& outcome) const
{
    const auto& frames = outcome.swmiFrames;
    for (std::size_t i = 0; i < m_expectedSwmi.size(); ++i) {
        const ExpectedSwmi& expected = m_expectedSwmi[i];
        if (i == frames.size()) {
            violated("The SWM server was not sent " + std::to_string(expected.number));
        }
        if (wordAt(frames[i], 0) != expected.number || wordAt(frames[i], 4) != expected.procRef ||
            std::string(frames[i].begin() + 8, frames[i].end()) != expected.body) {
            violated("The SWM server was sent " + std::to_string(wordAt(frames[i], 0)) + " with reference " +
                     std::to_string(wordAt(frames[i], 4)) + " where " + std::to_string(expected.number) +
                     " with " + std::to_string(expected.procRef) + " is due, or with another content");
        }
    }
    if (frames.size() > m_expectedSwmi.size()) {
        violated("The SWM server was sent " + std::to_string(wordAt(frames[m_expectedSwmi.size()], 0)) +
                 " without a reason");
    }
}

void Ledger::checkState(const Unit& unit) const
{
    const auto& mnet = FakeMnet::instance();
    auto& data = unit.data();
    if (data.getNumClientSessions() != m_sessions.size()) {
        violated(std::to_string(data.getNumClientSessions()) + " sessions where there are " +
                 std::to_string(m_sessions.size()));
    }
    std::size_t held = 0;
    std::size_t watches = 0;
    for (const auto& [mbox, session] : m_sessions) {
        const BcSession* real = data.getClientSession(mbox);
        if (real == nullptr || real->getFwdMailboxId() != session.clone || !mnet.exists(session.clone)) {
            violated("The session of " + hex(mbox) + " has no clone");
        }
        if (static_cast<std::uint32_t>(real->serverRef) != session.refs.server ||
            real->getMmiUserId() != session.mmiUser || real->getUtcTimeSourceRef() != session.timeSource) {
            violated("The session of " + hex(mbox) + " has other references");
        }
        held += session.held ? 1 : 0;
        watches += mnet.exists(mbox) ? 1 : 0;
    }
    if (mnet.heldMessages() != held) {
        violated(std::to_string(mnet.heldMessages()) + " messages are held where " + std::to_string(held) +
                 " confirms are");
    }
    for (const mnet_mbox_id_t watched : {m_legacy, m_bri.server, m_bmmi.server}) {
        watches += mnet.exists(watched) ? 1 : 0;
    }
    for (const mnet_mbox_id_t watched : m_watched) {
        watches += mnet.exists(watched) ? 1 : 0;
    }
    for (const auto& [reference, connection] : m_ccfi) {
        watches += mnet.exists(connection.mbox) ? 1 : 0;
    }
    if (mnet.monitorCount() != watches) {
        violated(std::to_string(mnet.monitorCount()) + " mailboxes are watched where " +
                 std::to_string(watches) + " are to be");
    }
    const std::size_t mailboxes = 1 + (isPublished() ? 1 : 0) + m_sessions.size();
    if (mnet.mailboxCount(FakeMnet::server) != mailboxes) {
        violated(std::to_string(mnet.mailboxCount(FakeMnet::server)) + " mailboxes where there are to be " +
                 std::to_string(mailboxes));
    }
    checkTransactions(m_bri, data.getBriClient());
    checkTransactions(m_bmmi, data.getBmmiClient());
    if (unit.numSwmiRecords() != m_records.size()) {
        violated(std::to_string(unit.numSwmiRecords()) + " open software procedures where there are " +
                 std::to_string(m_records.size()));
    }
    if (data.getSelectLoadModule() != m_selectedModule) {
        violated("Another load module is selected");
    }
}

void Ledger::checkTransactions(const Backend& backend, BrhClient& client)
{
    if (client.isConnected() != backend.isConnected) {
        violated("The connection to a board server is told wrongly");
    }
    if (client.getNumTransactions() != backend.open.size()) {
        violated(std::to_string(client.getNumTransactions()) + " transactions where there are to be " +
                 std::to_string(backend.open.size()));
    }
    for (const auto& [procedureRef, transaction] : backend.open) {
        const auto* real = client.searchTransactionProcedure(procedureRef);
        if (real == nullptr || real->clientMbox != transaction.client ||
            static_cast<std::uint32_t>(real->clientRef) != transaction.refs.client ||
            static_cast<std::uint32_t>(real->serverRef) != transaction.refs.server) {
            violated("Transaction " + std::to_string(procedureRef) + " is not kept as it was opened");
        }
    }
}

} // namespace sim
