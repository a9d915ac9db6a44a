#include "unit.h"

#include "fakeLoop.h"
#include "fakeSway.h"
#include "merlowCommonData.h"
#include "merlowComponent.h"
#include "merlowImpl.h"
#include "merlowSwmi.h"
#include "mnetMessageSubscriptionCustom.h"
#include "shortage.h"
#include "virtualSwmServer.h"

#include <cstring>

namespace sim {

using support::FakeLoop;
using support::FakeMnet;
using support::VirtualSwmServer;

namespace {

Bytes bytesOf(const mnet_msg& msg)
{
    Bytes bytes(mnet_size(&msg));
    std::memcpy(bytes.data(), &msg, bytes.size());
    return bytes;
}

} // namespace

Unit::Unit() = default;

Unit::~Unit()
{
    end();
}

template <class Call> Outcome Unit::observe(const Call& call)
{
    Outcome outcome;
    const FakeMnet::As server(FakeMnet::server);
    FakeMnet::instance().setSendObserver(
        [&outcome](const mnet_msg& msg, const support::SentMessage& sent, bool arrives) {
            outcome.messages.push_back(
                {.to = sent.to, .from = sent.from, .arrives = arrives, .bytes = bytesOf(msg)});
        });
    const sway_socket* before = VirtualSwmServer::connection();
    const std::size_t sentBefore = before == nullptr ? 0 : before->toPeer.size();
    try {
        const support::shortage::Watch watch;
        call();
    } catch (const std::exception& e) {
        outcome.exception = e.what(); // the event loop reports it and goes on
    }
    FakeMnet::instance().setSendObserver({});
    if (const sway_socket* socket = VirtualSwmServer::connection()) {
        const auto first = socket == before ? sentBefore : 0;
        outcome.swmiFrames.assign(socket->toPeer.begin() + static_cast<std::ptrdiff_t>(first),
                                  socket->toPeer.end());
    }
    return outcome;
}

int Unit::start(Outcome& outcome)
{
    m_impl = std::make_unique<MerlowImpl>([this](MerlowCommonData& commonData) {
        auto components = MerlowImpl::createComponents(commonData);
        for (auto& component : components) {
            if (component->getComponentName() == "MerlowSwmi") {
                // The same without the time between its attempts.
                auto swmi = std::make_unique<MerlowSwmi>(commonData, [](std::chrono::microseconds) {});
                m_swmi = swmi.get();
                component = std::move(swmi);
            }
        }
        return components;
    });
    int result = 0;
    outcome = observe([&] {
        result = m_impl->startUp();
        const support::shortage::Pause pause;
        m_mnetFd = mnet_get_fd();
    });
    if (result != MerlowImpl::SUCCESS) {
        end();
    }
    return result;
}

void Unit::end()
{
    if (m_impl != nullptr) {
        const FakeMnet::As server(FakeMnet::server);
        const support::shortage::Watch watch;
        m_impl->cleanUp();
        MnetMessageSubscriptionCustom::reset();
        m_impl.reset();
        m_swmi = nullptr;
    }
}

void Unit::requestStop()
{
    const FakeMnet::As server(FakeMnet::server);
    const support::shortage::Watch watch;
    m_impl->sendRequestToStop();
}

bool Unit::hasStopped() const
{
    return FakeLoop::instance().stopped();
}

bool Unit::hasMessage() const
{
    return m_impl != nullptr && FakeMnet::instance().isReadable(m_mnetFd);
}

bool Unit::hasSwmiFrame() const
{
    const sway_socket* socket = VirtualSwmServer::connection();
    return m_impl != nullptr && socket != nullptr && FakeLoop::instance().watches(socket->fd) &&
           support::FakeSway::instance().isReadable(socket->fd);
}

Event Unit::nextMessage() const
{
    const mnet_msg* msg = FakeMnet::instance().next(FakeMnet::server);
    return {.sender = mnet_sender(msg),
            .receiver = mnet_receiver(msg),
            .isNotice = mnet_is_notice(msg) == 1,
            .bytes = bytesOf(*msg),
            .number = msg->msgNo};
}

Event Unit::nextSwmiFrame() const
{
    Event event{.isSwmi = true};
    const sway_socket* socket = VirtualSwmServer::connection();
    if (!socket->fromPeer.empty()) {
        event.bytes = socket->fromPeer.front();
        event.number = wordAt(event.bytes, 0);
    }
    return event;
}

Outcome Unit::handle(bool swmi)
{
    return observe(
        [&] { FakeLoop::instance().callReadable(swmi ? VirtualSwmServer::connection()->fd : m_mnetFd); });
}

MerlowCommonData& Unit::data() const
{
    return m_impl->getCommonData();
}

std::size_t Unit::numSwmiRecords() const
{
    return m_swmi->getNumRecords();
}

} // namespace sim
