#include "merlowImpl.h"

#include "bbBci.h"
#include "briFaultHandler.h"
#include "ccfi.h"
#include "eventLoopIf.h"
#include "merlowBmmi.h"
#include "merlowBri.h"
#include "merlowCapabilities.h"
#include "merlowCommonData.h"
#include "merlowFaultHandling.h"
#include "merlowHereIAm.h"
#include "merlowHwLog.h"
#include "merlowLinkSupervision.h"
#include "merlowMaintState.h"
#include "merlowMmiHandling.h"
#include "merlowPid.h"
#include "merlowRestart.h"
#include "merlowState.h"
#include "merlowSwmi.h"
#include "merlowTemperature.h"
#include "merlowTime.h"
#include "merlowTrace.h"
#include "merlowVisual.h"
#include "mnetMessageSubscriptionCustom.h"
#include "serverThread.h"

#include <exception>
#include <pthread.h>

namespace {

using Loomwork::EventLoop::V1::EventLoopIf;

constexpr std::uint32_t EXIT_THREAD_MSG = 0xDEADBEEF;
constexpr std::uint32_t MAX_MAILBOXES = 50;
constexpr int MNET_ALREADY_INITIALISED = -2;
constexpr unsigned int FIRST_CLIENT_REF = 100;

/// What must be done on the server thread as its last thing, also when it is cancelled: nothing of the server
/// may lead to the thread's subscription and event loop when they are gone.
class ThreadEnd {
public:
    ThreadEnd(ServerThread& thread, MerlowCommonData& commonData) : m_thread(thread), m_commonData(commonData)
    {
    }
    ~ThreadEnd()
    {
        m_commonData.destroyClients();
        MnetMessageSubscriptionCustom::reset();
        m_thread.setOver(m_failed);
    }
    /// The thread ends because the start-up failed.
    void setFailed() { m_failed = true; }
    ThreadEnd(const ThreadEnd&) = delete;
    ThreadEnd& operator=(const ThreadEnd&) = delete;

private:
    ServerThread& m_thread;
    MerlowCommonData& m_commonData;
    bool m_failed{false};
};

} // namespace

MerlowImpl::Components MerlowImpl::createComponents(MerlowCommonData& commonData)
{
    Components components;
    components.push_back(std::make_unique<MerlowPid>(commonData));
    components.push_back(std::make_unique<MerlowState>(commonData));
    components.push_back(std::make_unique<MerlowLinkSupervision>(commonData));
    components.push_back(std::make_unique<MerlowRestart>(commonData));
    components.push_back(std::make_unique<MerlowTemperature>(commonData));
    components.push_back(std::make_unique<MerlowTime>(commonData));
    components.push_back(std::make_unique<MerlowCapabilities>(commonData));
    components.push_back(std::make_unique<MerlowMaintState>(commonData));
    components.push_back(std::make_unique<MerlowVisual>(commonData));
    components.push_back(std::make_unique<MerlowBri>(commonData));
    components.push_back(std::make_unique<MerlowBmmi>(commonData));
    components.push_back(std::make_unique<MerlowMmiHandling>(commonData));
    components.push_back(std::make_unique<MerlowSwmi>(commonData));
    components.push_back(std::make_unique<MerlowHereIAm>(commonData));
    components.push_back(std::make_unique<MerlowHwLog>(commonData));
    components.push_back(std::make_unique<MerlowFaultHandling>(commonData));
    components.push_back(std::make_unique<BriFaultHandler>(commonData));
    components.push_back(std::make_unique<Merlow::BbBci::BbBci>(commonData));
    components.push_back(std::make_unique<Merlow::Ccfi::Ccfi>(commonData));
    return components;
}

MerlowImpl::MerlowImpl() : MerlowImpl(createComponents) {}

MerlowImpl::MerlowImpl(const std::function<Components(MerlowCommonData&)>& componentsFor)
    : m_thread(std::make_unique<ServerThread>()),
      m_commonData(MerlowCommonData::getNew(FIRST_CLIENT_REF, m_faultManager)),
      m_components(componentsFor(*m_commonData))
{
}

MerlowImpl::~MerlowImpl()
{
    const CancelGuard notCancelled; // nor may the thread that destroys this, while it waits
    if (m_thread->isOfThisProcess()) {
        stop(true);
        m_thread->join();
    }
    cleanUp();
    for (auto& component : m_components) {
        component.reset();
    }
}

int MerlowImpl::start()
{
    // Else the slower of two host threads would wait for the end of the thread that the other has created.
    const std::lock_guard oneAtATime(m_startMutex);
    if (m_thread->isSet()) {
        return ALREADY_STARTED;
    }
    if (m_thread->join() == PTHREAD_CANCELED) {
        cleanUp(); // what the cancelled thread left open
    }
    if (m_thread->create(serverThread, this) != 0) {
        cleanUp();
        return NO_THREAD;
    }
    return SUCCESS;
}

int MerlowImpl::stop(bool force)
{
    if (!m_thread->awaitStarted()) {
        return m_result;
    }
    if (m_commonData->getPrivateMbox() != MNET_MBOX_NONE) {
        if (!force) {
            sendRequestToStop();
        } else if (m_thread->cancel()) {
            return SUCCESS;
        }
    }
    if (m_thread->join() == PTHREAD_CANCELED) {
        return SUCCESS;
    }
    return m_result;
}

void MerlowImpl::enablePowerDropSvFaultSupport(bool enabled)
{
    m_commonData->setPdsFaultsEnabled(enabled);
}

void MerlowImpl::sendRequestToStop()
{
    const mnet_mbox_id_t privateMbox = m_commonData->getPrivateMbox();
    sendMsg(allocMsg(sizeof(mnet_msg), EXIT_THREAD_MSG), privateMbox, privateMbox);
}

void MerlowImpl::cleanUp()
{
    m_legacySession.reset();
    m_commonData->cleanUp();
}

void* MerlowImpl::serverThread(void* argument)
{
    // Cancelled only where it waits for the next event.
    const CancelGuard notCancelled;
    auto& impl = *static_cast<MerlowImpl*>(argument);
    ThreadEnd threadEnd(*impl.m_thread, *impl.m_commonData);

    impl.m_result = impl.startUp();
    if (impl.m_result != SUCCESS) {
        impl.cleanUp();
        threadEnd.setFailed();
        pthread_exit(&impl.m_result);
    }
    impl.m_thread->setStarted();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    const int loopResult = EventLoopIf::getInstance().run();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    if (loopResult != 0) {
        SCRY_TRACE(1, "failed to run event loop");
    }
    SCRY_TRACE(4, "Merlow exited main event loop: shutting down thread.");
    impl.cleanUp();
    pthread_exit(nullptr);
}

int MerlowImpl::startUp()
{
    const int initialised = mnet_init(MAX_MAILBOXES, 0, nullptr, 0);
    if (initialised != 0 && initialised != MNET_ALREADY_INITIALISED) {
        return MNET_INIT_FAILED;
    }
    m_commonData->setPrivateMbox(mnet_create_mailbox("private_Merlow", 0));
    if (m_commonData->getPrivateMbox() == MNET_MBOX_NONE) {
        return NO_PRIVATE_MBOX;
    }
    try {
        return registerSignalHandlers();
    } catch (const std::exception& e) { // no memory: above this there is only the end of the process
        SCRY_TRACE(1, "ABN: The server can't start: " << e.what());
        return COMPONENT_FAILED;
    }
}

int MerlowImpl::registerSignalHandlers()
{
    auto& subscription = MnetMessageSubscriptionCustom::getInstance();
    const auto handledBy = [this](void (MerlowImpl::*handler)(const std::shared_ptr<mnet_msg>&)) {
        return [this, handler](const std::shared_ptr<mnet_msg>& msg) {
            (this->*handler)(msg);
        };
    };
    subscription.addMsgHandler(EXIT_THREAD_MSG, handledBy(&MerlowImpl::handleSignalToExit));
    subscription.addMsgHandler(MNET_LOCATE_DEFAULT_MSGNO, handledBy(&MerlowImpl::handleLegacyFound));
    subscription.addMsgHandler(MNET_MONITOR_DEFAULT_MSGNO, handledBy(&MerlowImpl::handleSessionLost));
    subscription.addDefaultHandler([this](mnet_msg* msg) { redirectToAndFromLegacy(msg); });
    if (subscription.monitorMnetFd(mnet_get_fd()) != 0) {
        return NO_MNET_FD;
    }
    startToSearchLegacy();

    const auto sendConnCfm = [this](const BcSession& session) {
        sendTarnBcConnEstablishCfm(session);
    };
    const auto checkComponents = [this] {
        return areComponentsReadyToPublish();
    };
    for (const auto& component : m_components) {
        component->subscribeForSendTarnBcConnCfm(sendConnCfm);
        component->subscribeForCheckComponents(checkComponents);
        if (!component->init()) {
            return COMPONENT_FAILED;
        }
    }
    return SUCCESS;
}

void MerlowImpl::handleSignalToExit(const std::shared_ptr<mnet_msg>& msg)
{
    if (mnet_sender(msg.get()) != m_commonData->getPrivateMbox()) {
        SCRY_TRACE(4, "ABN: EXIT_THREAD_MSG from mbox: 0x" << std::hex << mnet_sender(msg.get())
                                                           << " is not the server's own. Ignoring it.");
        return;
    }
    SCRY_REC_SIG(msg.get(), "EXIT_THREAD_MSG");
    EventLoopIf& loop = EventLoopIf::getInstance();
    loop.removeFd(mnet_get_fd());
    for (const auto& component : m_components) {
        component->onServerThreadExiting();
    }
    m_commonData->setPublicMbox(MNET_MBOX_NONE);
    m_commonData->setPrivateMbox(MNET_MBOX_NONE);
    loop.stop();
}
