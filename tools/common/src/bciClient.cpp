#include "bciClient.h"

#include "runDir.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace merlow::tools {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char publicMailbox[] = "Merlow";
constexpr int alreadyInitialised = -2;

std::string secondsText(milliseconds time)
{
    std::string text = std::to_string(time.count() / 1000);
    const auto thousandths = std::to_string(1000 + time.count() % 1000).substr(1);
    const auto end = thousandths.find_last_not_of('0');
    if (end != std::string::npos) {
        text += "." + thousandths.substr(0, end + 1);
    }
    return text + " s";
}

/// What an answer says: the signal itself, a reject, or nothing of use when it is shorter than its layout.
BciClient::Answer judge(const Signal& signal, bool isAnyLengthFine)
{
    const BciSignal* const row = findBciSignal(signal.number());
    const bool isShort = row != nullptr && signal.bytes.size() < row->size;
    if (isShort && (!isAnyLengthFine || isReject(signal.number()))) {
        return Failure{ExitStatus::noAnswer,
                       std::string(row->name) + " came with " + std::to_string(signal.bytes.size()) +
                           " bytes, it should have " + std::to_string(row->size),
                       {},
                       signal.number()};
    }
    if (isReject(signal.number())) {
        return Failure{ExitStatus::rejected, "rejected", decodeReject(signal), signal.number()};
    }
    return signal;
}

Signal copyOf(const mnet_msg& msg)
{
    const auto* const start = reinterpret_cast<const std::uint8_t*>(&msg);
    return Signal{{start, start + mnet_size(&msg)}};
}

} // namespace

BciClient::BciClient(const Settings& settings)
    : m_settings(settings), m_references{settings.clientRef, settings.serverRef}
{
}

BciClient::~BciClient()
{
    if (m_mailbox != MNET_MBOX_NONE) {
        mnet_delete_mailbox(m_mailbox);
    }
    if (m_ownsLibrary) {
        mnet_exit();
    }
}

std::optional<Failure> BciClient::connect()
{
    if (auto failure = openMailbox()) {
        return failure;
    }
    if (auto failure = findUnit()) {
        return failure;
    }
    return establish();
}

std::optional<Failure> BciClient::openMailbox()
{
    const int result = mnet_init(4, 0, nullptr, 0);
    m_ownsLibrary = result == 0;
    if (result == 0 || result == alreadyInitialised) {
        m_mailbox = mnet_create_mailbox(nullptr, 0);
    }
    if (m_mailbox == MNET_MBOX_NONE) {
        return Failure{ExitStatus::noUnit,
                       "no mailbox in run-time folder " + base::runDirPath() + ": " + std::strerror(errno),
                       {}};
    }
    return std::nullopt;
}

std::optional<Failure> BciClient::findUnit()
{
    if (mnet_locate_async(publicMailbox, nullptr, m_mailbox) == 0) {
        const std::uint32_t filter[] = {1, MNET_LOCATE_DEFAULT_MSGNO};
        const auto timeout = static_cast<int>(m_settings.timeout.count());
        const MnetMsgPtr found(mnet_receive(filter, timeout, MNET_FROM_ANY));
        if (found && mnet_is_notice(found.get()) == 1) {
            m_unit = mnet_sender(found.get());
        }
    }
    if (m_unit == MNET_MBOX_NONE) {
        return Failure{ExitStatus::noUnit,
                       "no unit in run-time folder " + base::runDirPath() + ": nobody published \"" +
                           publicMailbox + "\" within " + secondsText(m_settings.timeout),
                       {}};
    }
    mnet_monitor(m_unit, nullptr);
    return std::nullopt;
}

std::optional<Failure> BciClient::establish()
{
    auto req = requestFrom<TarnBcConnEstablishReqS>(*this);
    req.protocolRev = m_settings.protocolRev;
    const auto answer = request(toMessage(req), {TARN_BC_CONN_ESTABLISH_CFM, TARN_BC_CONN_ESTABLISH_REJ});
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        return *failure;
    }
    m_references.serverRef = std::get<Signal>(answer).addressInfo().serverRef;
    return std::nullopt;
}

BciClient::Answer BciClient::request(MnetMsgPtr msg, std::initializer_list<std::uint32_t> answers)
{
    drain(); // a late answer to an earlier request is none to this one
    if (m_isLost) {
        return lost();
    }
    if (!msg) {
        return Failure{ExitStatus::usage, "the signal is longer than a mailbox takes", {}};
    }
    const std::uint32_t number = msg->msgNo;
    const auto references = Bci::referencesOf(*msg);
    const auto until = deadline();
    if (sendMsg(std::move(msg), m_unit, m_mailbox) != 0) {
        return Failure{
            ExitStatus::noUnit, std::string("the unit cannot be reached: ") + std::strerror(errno), {}};
    }
    while (const auto signal = receiveUntil(until)) {
        // The confirm of a connection brings the server reference, so only the client's own can be compared.
        const bool isConnect =
            signal->number() == TARN_BC_CONN_ESTABLISH_CFM && number == TARN_BC_CONN_ESTABLISH_REQ;
        const bool isAwaited = answers.size() == 0 ||
                               std::find(answers.begin(), answers.end(), signal->number()) != answers.end();
        const auto theirs = signal->addressInfo();
        if (!isAwaited || theirs.clientRef != references.clientRef ||
            (theirs.serverRef != references.serverRef && !isConnect)) {
            if (m_onIndication) {
                m_onIndication(*signal);
            }
            continue;
        }
        return judge(*signal, answers.size() == 0);
    }
    if (m_isLost) {
        return lost();
    }
    return Failure{ExitStatus::noAnswer,
                   "no answer to " + signalName(number) + " within " + secondsText(m_settings.timeout),
                   {}};
}

int BciClient::fd() const
{
    return m_mailbox != MNET_MBOX_NONE ? mnet_get_fd() : -1;
}

void BciClient::drain()
{
    while (const auto signal = receiveUntil(std::nullopt)) {
        if (m_onIndication) {
            m_onIndication(*signal);
        }
    }
}

std::optional<Signal> BciClient::receiveUntil(std::optional<TimePoint> deadline)
{
    while (!m_isLost) {
        int timeout = 0;
        if (deadline) {
            const auto left = std::chrono::ceil<milliseconds>(*deadline - steady_clock::now());
            if (left <= milliseconds(0)) {
                return std::nullopt; // even when signals that nobody asked for keep coming
            }
            timeout = static_cast<int>(left.count());
        }
        const MnetMsgPtr msg(mnet_receive(nullptr, timeout, MNET_FROM_ANY));
        if (!msg) {
            return std::nullopt;
        }
        if (mnet_is_notice(msg.get()) != 1) {
            return copyOf(*msg);
        }
        m_isLost = msg->msgNo == MNET_MONITOR_DEFAULT_MSGNO && mnet_sender(msg.get()) == m_unit;
    }
    return std::nullopt;
}

Failure BciClient::lost() const
{
    return {ExitStatus::noUnit, "the unit went away", {}};
}

} // namespace merlow::tools
