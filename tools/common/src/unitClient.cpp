#include "unitClient.h"

#include "runDir.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace merlow::tools {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

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
UnitClient::Answer judge(const Signal& signal, bool isAnyLengthFine)
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

UnitClient::UnitClient(const char* unitMailbox, milliseconds timeout)
    : m_unitName(unitMailbox), m_timeout(timeout)
{
}

UnitClient::~UnitClient()
{
    if (m_mailbox != MNET_MBOX_NONE) {
        mnet_delete_mailbox(m_mailbox);
    }
    if (m_ownsLibrary) {
        mnet_exit();
    }
}

std::optional<Failure> UnitClient::open()
{
    if (auto failure = openMailbox()) {
        return failure;
    }
    return findUnit();
}

std::optional<Failure> UnitClient::openMailbox()
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

std::optional<Failure> UnitClient::findUnit()
{
    if (mnet_locate_async(m_unitName, nullptr, m_mailbox) == 0) {
        const std::uint32_t filter[] = {1, MNET_LOCATE_DEFAULT_MSGNO};
        const auto timeout = static_cast<int>(m_timeout.count());
        const MnetMsgPtr found(mnet_receive(filter, timeout, MNET_FROM_ANY));
        if (found && mnet_is_notice(found.get()) == 1) {
            m_unit = mnet_sender(found.get());
        }
    }
    if (m_unit == MNET_MBOX_NONE) {
        return Failure{ExitStatus::noUnit,
                       "no unit in run-time folder " + base::runDirPath() + ": nobody published \"" +
                           m_unitName + "\" within " + secondsText(m_timeout),
                       {}};
    }
    mnet_monitor(m_unit, nullptr);
    return std::nullopt;
}

std::optional<Failure> UnitClient::send(MnetMsgPtr msg)
{
    drain(); // a late answer to an earlier request is none to this one
    if (m_isLost) {
        return lost();
    }
    return post(std::move(msg));
}

std::optional<Failure> UnitClient::post(MnetMsgPtr msg)
{
    if (!msg) {
        return Failure{ExitStatus::usage, "the signal is longer than a mailbox takes", {}};
    }
    if (sendMsg(std::move(msg), m_unit, m_mailbox) != 0) {
        return Failure{
            ExitStatus::noUnit, std::string("the unit cannot be reached: ") + std::strerror(errno), {}};
    }
    return std::nullopt;
}

UnitClient::Answer UnitClient::exchange(MnetMsgPtr msg, const Predicate& isAnswer, bool isAnyLengthFine)
{
    const std::uint32_t number = msg ? msg->msgNo : 0;
    if (auto failure = send(std::move(msg))) {
        return *failure;
    }
    return await(number, isAnswer, isAnyLengthFine);
}

UnitClient::Answer UnitClient::await(std::uint32_t request, const Predicate& isAnswer, bool isAnyLengthFine)
{
    const auto until = steady_clock::now() + m_timeout;
    while (const auto signal = receiveUntil(until)) {
        if (isAnswer(*signal)) {
            return judge(*signal, isAnyLengthFine);
        }
        if (m_onIndication) {
            m_onIndication(*signal);
        }
    }
    if (m_isLost) {
        return lost();
    }
    return noAnswerTo(request);
}

Failure UnitClient::noAnswerTo(std::uint32_t request) const
{
    return {ExitStatus::noAnswer,
            "no answer to " + signalName(request) + " within " + secondsText(m_timeout),
            {}};
}

int UnitClient::fd() const
{
    return m_mailbox != MNET_MBOX_NONE ? mnet_get_fd() : -1;
}

void UnitClient::drain()
{
    while (const auto signal = receiveUntil(std::nullopt)) {
        if (m_onIndication) {
            m_onIndication(*signal);
        }
    }
}

bool UnitClient::awaitLoss()
{
    const auto until = steady_clock::now() + m_timeout;
    while (const auto signal = receiveUntil(until)) {
        if (m_onIndication) {
            m_onIndication(*signal);
        }
    }
    return m_isLost;
}

std::optional<Signal> UnitClient::receiveUntil(std::optional<TimePoint> deadline)
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

Failure UnitClient::lost() const
{
    return {ExitStatus::noUnit, "the unit went away", {}};
}

} // namespace merlow::tools
