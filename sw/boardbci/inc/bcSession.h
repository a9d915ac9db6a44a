#pragma once

#include "fwdMbox.h"
#include "mnetMsgPtr.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

/// A session's own view of its operational state. Read and written by its client alone.
enum class BcState : std::uint32_t {
    Disabled = 0,
    Starting = 1,
    Operational = 2,
};

/// Who a client is: the mailbox that its signals come from, and what it established the connection with.
struct BcClientInfo {
    BcClientInfo() = default;
    BcClientInfo(std::uint32_t mailbox, std::int32_t client, std::int32_t server, std::uint16_t revision,
                 std::uint32_t extra);
    virtual ~BcClientInfo() = default;
    BcClientInfo(const BcClientInfo&) = delete;
    BcClientInfo& operator=(const BcClientInfo&) = delete;

    std::uint32_t mailboxId{MNET_MBOX_NONE};
    std::int32_t clientRef{0};
    std::int32_t serverRef{0};
    std::uint16_t protocolRev{0};
    std::uint32_t extraRef{0};
};

/// One connected client, or the legacy server: its forwarding mailbox, the watch on its mailbox, and what the
/// services keep for it. Everything in it ends with it.
///
/// Server thread only, but for the destructor, which may also run on the thread that ends the server.
class BcSession : public BcClientInfo {
public:
    /// Starts to watch `mailbox`: its loss arrives as the mailbox library's default monitor notice.
    BcSession(std::uint32_t mailbox, std::int32_t client, std::int32_t server, std::uint16_t revision,
              const std::string& name, std::uint32_t extra);
    /// Ends the watch, deletes the forwarding mailbox and frees a confirm that is still held.
    ~BcSession() override;

    [[nodiscard]] mnet_monitor_id_t getMonitorId() const { return monitorId; }

    [[nodiscard]] BcState getBcState() const { return bcState; }
    void setBcState(BcState state) { bcState = state; }
    /// "DISABLED", "STARTING", "OPERATIONAL" or "Unknown".
    [[nodiscard]] std::string getBcStateName() const;

    /// The held `TARN_BC_CONN_ESTABLISH_CFM`, still owned by the session; null, with a trace, when none is
    /// held.
    [[nodiscard]] mnet_msg* getCfmPending() const;
    /// Takes the message; one that is held already is freed.
    void setCfmPending(mnet_msg* msg);
    /// Gives the held message away, so that it is sent once. No trace when there is none.
    [[nodiscard]] MnetMsgPtr takeCfmPending() const { return std::move(cfmPending); }

    /// Null, with a trace, when there is none.
    [[nodiscard]] FwdMbox* getFwdMbox() const;
    /// Takes the mailbox and destroys the one that it replaces.
    void setFwdMbox(FwdMbox* mbox);
    /// The forwarding mailbox's id; `MNET_MBOX_NONE` without one, or when it is not started.
    [[nodiscard]] mnet_mbox_id_t getFwdMailboxId() const;

    [[nodiscard]] std::uint32_t getUtcTimeSourceRef() const { return utcTimeSourceRef; }
    void setUtcTimeSourceRef(unsigned int ref) { utcTimeSourceRef = ref; }
    /// 0 means no user.
    [[nodiscard]] std::uint32_t getMmiUserId() const { return mmiUserId; }
    void setMmiUserId(unsigned int id) { mmiUserId = id; }

    void setMmiUserRegisterReqResponded(bool responded) { mmiUserRegisterReqResponded = responded; }
    void setTimeSourceRegisterReqResponded(bool responded) { timeSourceRegisterReqResponded = responded; }
    /// Both registrations have been answered: the held confirm may go.
    [[nodiscard]] bool areRegistrationsResponded() const
    {
        return mmiUserRegisterReqResponded && timeSourceRegisterReqResponded;
    }

    /// The session's standing backend transactions, by signal number. A number that has one keeps it: a
    /// trace.
    void addProcedureRefInfo(unsigned int signalNumber, unsigned int procedureRef);
    [[nodiscard]] bool isProcedureRefInfoExist(unsigned int signalNumber) const;
    /// 0 when there is none.
    [[nodiscard]] unsigned int getProcedureRef(unsigned int signalNumber) const;
    void deleteProcedureRefInfo(unsigned int signalNumber);

    [[nodiscard]] std::uint32_t getTempMeasRef() const { return tempMeasRef; }
    void setTempMeasRef(unsigned int ref) { tempMeasRef = ref; }

    /// "DU_" and the session number, or the legacy server's mailbox name.
    [[nodiscard]] const std::string& getMboxName() const { return mboxName; }

private:
    mnet_monitor_id_t monitorId{MNET_MBOX_NONE};
    std::unique_ptr<FwdMbox> fwdMbox;
    BcState bcState{BcState::Starting};
    /// Mutable, since the confirm is released through the session as the services see it.
    mutable MnetMsgPtr cfmPending;
    std::uint32_t utcTimeSourceRef{0};
    std::uint32_t mmiUserId{0};
    bool mmiUserRegisterReqResponded{false};
    bool timeSourceRegisterReqResponded{false};
    std::map<std::uint32_t, std::uint32_t> procedureRefInfoMap;
    std::uint32_t tempMeasRef{0};
    std::string mboxName;
};
