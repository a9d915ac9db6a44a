#pragma once

#include "faultManager.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#define MERLOW_API __attribute__((visibility("default")))

class BcSession;
class MerlowCommonData;
class MerlowComponent;
class ServerThread;
struct MnetMsgFree;
struct mnet_msg;
using MnetMsgPtr = std::unique_ptr<mnet_msg, MnetMsgFree>;

/// Owner of everything in the server: the thread, the shared data, the components, the fault manager, the
/// legacy server's session.
///
/// Host threads touch `start`, `stop` and `enablePowerDropSvFaultSupport`; all else runs on the server
/// thread. The two share `m_thread`, which has a lock of its own, `m_result` and the private mailbox's id,
/// both atomic. Host threads that start at once take turns by `m_startMutex`.
class MerlowImpl {
public:
    enum Result : int {
        SUCCESS = 0,
        MNET_INIT_FAILED = 1,
        NO_PRIVATE_MBOX = 2,
        NO_MNET_FD = 3,
        NO_THREAD = 5,
        COMPONENT_FAILED = 6,
        ALREADY_STARTED = 7,
    };

    using Components = std::vector<std::unique_ptr<MerlowComponent>>;

    /// The server's components in the order in which they register, hear of sessions and of the end.
    [[nodiscard]] static Components createComponents(MerlowCommonData& commonData);

    MERLOW_API MerlowImpl();
    /// With a component list of the caller's own.
    explicit MerlowImpl(const std::function<Components(MerlowCommonData&)>& componentsFor);
    /// Stops by force, waits until the thread is over, and frees everything.
    MERLOW_API ~MerlowImpl();
    MerlowImpl(const MerlowImpl&) = delete;
    MerlowImpl& operator=(const MerlowImpl&) = delete;

    /// Creates the server thread. 0 tells only that there is one: the thread's own result comes from `stop`.
    MERLOW_API int start();
    /// Ends the server and returns the thread's result. With `force` it is cancelled where it next waits for
    /// an event, and nothing is waited for; else it is asked by message to end, and joined.
    MERLOW_API int stop(bool force);
    /// The supervision of power drops takes the external power supply fault over: the server suppresses it.
    /// Counted: each true needs a false of its own. Before the server is started.
    MERLOW_API void enablePowerDropSvFaultSupport(bool enabled);

    /// Sends the exit message to the private mailbox.
    void sendRequestToStop();
    /// The thread's way into the event loop: mailbox library, private mailbox, handlers. A result code.
    [[nodiscard]] int startUp();
    [[nodiscard]] int registerSignalHandlers();
    void cleanUp();

    /// Publishes when the legacy server and all components are there; true when that happened now.
    bool areComponentsReadyToPublish();
    bool publishToDu();
    /// Takes the message, as `redirectToAndFromLegacy` does: the default handler owns what it is given.
    void processBcConnEstablishReq(mnet_msg* msg);
    void redirectToAndFromLegacy(mnet_msg* msg);
    /// Sends the held confirm, once, when both registrations have been answered.
    void sendTarnBcConnEstablishCfm(const BcSession& session);
    void deleteBcSession(const BcSession& session);

    void handleSignalToExit(const std::shared_ptr<mnet_msg>& msg);
    void handleLegacyFound(const std::shared_ptr<mnet_msg>& msg);
    void handleSessionLost(const std::shared_ptr<mnet_msg>& msg);

    [[nodiscard]] MerlowCommonData& getCommonData() { return *m_commonData; }

private:
    /// The thread's body; ends by pthread_exit.
    static void* serverThread(void* impl);
    void startToSearchLegacy();
    /// A session of the sender with its forwarding mailbox, not started yet; both are named by `number`.
    BcSession* addForwardedSession(const mnet_msg& msg, const std::string& number, std::uint16_t protocolRev);
    void forwardFromLegacy(BcSession& session, MnetMsgPtr msg);

    std::mutex m_startMutex;
    std::unique_ptr<ServerThread> m_thread;
    std::atomic<int> m_result{SUCCESS};
    Merlow::FaultManager m_faultManager; ///< before the common data, which refers to it
    std::unique_ptr<MerlowCommonData> m_commonData;
    std::unique_ptr<BcSession> m_legacySession; ///< null until it is found, and after it was lost
    Components m_components;                    ///< the order of every walk over them
};
