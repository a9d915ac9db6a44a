#include "peer.h"

#include <cstring>

namespace sim {

using support::FakeMnet;

Weather Weather::drawn(Random& random)
{
    const auto oneOf = [&random](std::initializer_list<unsigned int> values) {
        return *(values.begin() + random.below(values.size()));
    };
    Weather weather;
    weather.serverShare = oneOf({25, 40, 50, 70});
    weather.refusals = oneOf({0, 5, 15, 50});
    weather.silence = oneOf({0, 2, 10});
    weather.lateness = oneOf({0, 20, 50, 90});
    weather.repeats = oneOf({0, 3, 10});
    weather.garbage = oneOf({0, 2, 8});
    weather.deaths = oneOf({0, 1, 3, 8});
    weather.strangers = oneOf({0, 5, 30});
    // Most runs send all kinds of requests, the others a few of them often.
    weather.kinds = random.chance(70) ? ~0ULL : (random.next() & random.next()) | 1U;
    return weather;
}

Weather Weather::calm()
{
    return {.serverShare = 60,
            .refusals = 0,
            .silence = 0,
            .lateness = 0,
            .repeats = 0,
            .garbage = 0,
            .deaths = 0,
            .strangers = 0};
}

void Peer::start(const std::string& name)
{
    m_process = FakeMnet::instance().newProcess();
    const FakeMnet::As self(m_process);
    m_mbox = mnet_create_mailbox(name.empty() ? nullptr : name.c_str(), 0);
}

void Peer::die()
{
    m_mbox = MNET_MBOX_NONE;
    FakeMnet::instance().killProcess(m_process);
}

bool Peer::hasMessage() const
{
    return isUp() && FakeMnet::instance().waiting(m_process) != 0;
}

std::optional<Received> Peer::receive() const
{
    const FakeMnet::As self(m_process);
    mnet_msg* msg = mnet_receive(nullptr, 0, MNET_FROM_ANY);
    if (msg == nullptr) {
        return {};
    }
    Received received{.msgNo = msg->msgNo, .sender = mnet_sender(msg), .bytes = Bytes(mnet_size(msg))};
    std::memcpy(received.bytes.data(), msg, received.bytes.size());
    mnet_free(&msg);
    return received;
}

void Peer::send(const Bytes& bytes, mnet_mbox_id_t to) const
{
    const FakeMnet::As self(m_process);
    mnet_msg* msg = mnet_alloc(bytes.size(), 0);
    std::memcpy(msg, bytes.data(), bytes.size());
    mnet_send(&msg, to, m_mbox);
}

} // namespace sim
