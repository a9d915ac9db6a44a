#pragma once

#include "bci/bciSoftware.h"
#include "merlowComponent.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace swm {
class AcquireResourceCfm;
class AcquireResourceInd;
class AcquireResourceRej;
class DeleteCfm;
class DeleteRej;
class GetRunningSwCfm;
class GetRunningSwRej;
class GetSwProductInvCfm;
class GetSwProductInvRej;
class PushLoadAck;
class PushLoadEndCfm;
class PushLoadEndRej;
class PushLoadInitCfm;
class PushLoadInitRej;
class ReleaseResourceCfm;
class ReleaseResourceRej;
class SwCompListCfm;
class SwCompListData;
class SwCompListRej;
} // namespace swm

/// The unit's software: the store's acquisition, loading, selection, the running module, the list of software
/// components. Brings the connection to the SWM server up, and turns each signal into a request and each of
/// its answers into one to the client.
///
///   TARN_BC_ACQUIRE_RESOURCE_REQ -> AcquireResourceReq, Cfm and Ind -> TARN_BC_ACQUIRE_RESOURCE_CFM
///   TARN_BC_LMC_INIT_REQ         -> PushLoadInitReq, Cfm            -> TARN_BC_LMC_INIT_CFM
///   TARN_BC_LMC_DATA             -> PushLoadData, Ack               -> TARN_BC_LMC_DATA_ACK
///   TARN_BC_LMC_END_REQ          -> PushLoadEndReq, Cfm             -> TARN_BC_LMC_END_CFM
///   TARN_BC_RELEASE_RESOURCE_REQ -> ReleaseResourceReq, Cfm         -> TARN_BC_RELEASE_RESOURCE_CFM
///   TARN_BC_SELECT_LMC_REQ       -> GetSwProductInvReq, Cfm         -> TARN_BC_SELECT_LMC_CFM
///   TARN_BC_SW_COMP_LIST_REQ     -> SwCompListReq, Cfm, Data        -> TARN_BC_SW_COMP_LIST_CFM, _DATA
///   TARN_BC_GET_RUNNING_LMC_REQ  -> GetRunningSwReq, Cfm            -> TARN_BC_GET_RUNNING_LMC_CFM
///
/// A load that finds the store full deletes the oldest module that may go and is tried again. In automatic
/// boot mode a client of revision 1 needs not acquire: its first request does that for it.
///
/// Each open step is a record, which ends with its answer, its ticket's release or the loss of its session. A
/// block is not looked at. Server thread only.
class MerlowSwmi : public MerlowComponent {
public:
    using Wait = std::function<void(std::chrono::microseconds)>;

    /// Records without a session that are kept for their answers; of more the oldest go.
    static constexpr std::size_t maxAbandonedRecords = 4096;
    /// Bytes of a list that is collected. The client gets two pieces of its start; of what comes behind it
    /// could notice only that a "<Preinstalled/>" or the end of a tag that stands there is not found.
    static constexpr std::size_t maxCollectedList = std::size_t{1} << 20;

    /// What a client hears that has not acquired the store.
    static constexpr const char* NOT_ACQUIRED = "ABN: Resource not acquired";

    explicit MerlowSwmi(MerlowCommonData& commonData);
    /// `wait` is called between attempts to connect.
    MerlowSwmi(MerlowCommonData& commonData, Wait wait);

    /// Connects, with several attempts; false when the SWM server does not take the connection.
    bool init() override;
    void onBcSessionLost(const BcSession& session) override;
    /// The SWM server has confirmed the connection. Its capabilities may not have come yet.
    [[nodiscard]] bool isReadyToPublish() const override;
    [[nodiscard]] std::string getComponentName() const override;
    /// Open steps of procedures.
    [[nodiscard]] std::size_t getNumRecords() const { return m_records.size(); }

private:
    /// An open step of a procedure.
    struct SwayClientRecord {
        std::uint32_t signalNo;         ///< what it stands for now: its state
        std::uint32_t savedSignalNo{0}; ///< what it stood for before its release or end was asked for
        TarnNodeCommonAddressInfoS addressInfo;
        std::uint32_t procRef;         ///< of all requests to the SWM server that belong to the step
        std::uint32_t auxValue{0};     ///< acquisition: the client's resource; list: `end` of the last piece
        std::uint32_t ticketNumber{0}; ///< 0 until it is known
        mnet_mbox_id_t clientMbox;
        std::string software{};        ///< load and selection: the name; list: its text
        std::string runningSoftware{}; ///< list only
    };
    using Records = std::vector<SwayClientRecord>;

    void registerSignals();
    void registerAnswers();
    /// Calls `handler` for each SWMI message M.
    template <class M> void onSwmi(void (MerlowSwmi::*handler)(unsigned int procRef, const M& message));

    // Records. Pointers and references to them last until one is added or erased.
    SwayClientRecord& addRecord(std::uint32_t signalNo, const TarnNodeCommonAddressInfoS& addressInfo,
                                mnet_mbox_id_t client);
    /// Null, as of all that search, when there is none.
    [[nodiscard]] SwayClientRecord* findRecord(std::uint32_t signalNo,
                                               const TarnNodeCommonAddressInfoS& addressInfo);
    [[nodiscard]] SwayClientRecord* findAcquisition(const TarnNodeCommonAddressInfoS& addressInfo,
                                                    std::uint16_t resource);
    /// An acquisition whose answer has this reference.
    [[nodiscard]] SwayClientRecord* findAcquiring(unsigned int procRef, unsigned int ticketReference);
    [[nodiscard]] SwayClientRecord* findProcedure(unsigned int procRef);
    [[nodiscard]] SwayClientRecord* findProcedure(unsigned int procRef, unsigned int ticketNumber);
    void eraseRecord(const SwayClientRecord* record);
    /// Gives back what the record holds in the SWM server; false when that is nothing.
    [[nodiscard]] bool giveBack(const SwayClientRecord& record) const;
    /// Of more records without a session than are kept the oldest go. A client that is `leaving` counts as
    /// gone.
    void limitAbandonedRecords(mnet_mbox_id_t leaving);

    // The store's acquisition
    void handleAcquireResourceReq(const std::shared_ptr<mnet_msg>& msg);
    void handleAcquireResourceCfm(unsigned int procRef, const swm::AcquireResourceCfm& cfm);
    void handleAcquireResourceRej(unsigned int procRef, const swm::AcquireResourceRej& rej);
    void handleAcquireResourceInd(unsigned int procRef, const swm::AcquireResourceInd& ind);
    void handleReleaseResourceReq(const std::shared_ptr<mnet_msg>& msg);
    void handleReleaseResourceCfm(unsigned int procRef, const swm::ReleaseResourceCfm& cfm);
    void handleReleaseResourceRej(unsigned int procRef, const swm::ReleaseResourceRej& rej);
    void acquire(const TarnNodeCommonAddressInfoS& addressInfo, std::uint16_t resource,
                 mnet_mbox_id_t client);
    /// Acquires for a client that knows nothing of acquisitions. The record of its request must be the next.
    void auBootAcquireResourceReq(const TarnNodeCommonAddressInfoS& addressInfo, mnet_mbox_id_t client);
    [[nodiscard]] bool isAcquiringImplicitly(mnet_mbox_id_t client) const;
    void startWaitingProcedure(unsigned int procRef, unsigned int ticketNumber);
    /// Opens a procedure that needs a ticket. Null when its request to the SWM server is not to be sent yet,
    /// or, having been rejected with a Rej, at all.
    template <class Rej, class Req>
    SwayClientRecord* openWithTicket(const Req& req, const mnet_msg& msg, const std::string& software);

    // Loading
    void handleLmcInitReq(const std::shared_ptr<mnet_msg>& msg);
    void handlePushLoadInitCfm(unsigned int procRef, const swm::PushLoadInitCfm& cfm);
    void handlePushLoadInitRej(unsigned int procRef, const swm::PushLoadInitRej& rej);
    void handleLmcData(const std::shared_ptr<mnet_msg>& msg);
    void handlePushLoadAck(unsigned int procRef, const swm::PushLoadAck& ack);
    void handleLmcEndReq(const std::shared_ptr<mnet_msg>& msg);
    void handlePushLoadEndCfm(unsigned int procRef, const swm::PushLoadEndCfm& cfm);
    void handlePushLoadEndRej(unsigned int procRef, const swm::PushLoadEndRej& rej);
    void sendLmcInitCfm(const SwayClientRecord& record, std::uint16_t loadStatus) const;

    // Selection, and the deletion that makes room for a load
    void handleLmcSelectReq(const std::shared_ptr<mnet_msg>& msg);
    void handleGetSwProductInvCfm(unsigned int procRef, const swm::GetSwProductInvCfm& cfm);
    void handleGetSwProductInvRej(unsigned int procRef, const swm::GetSwProductInvRej& rej);
    void handleDeleteCfm(unsigned int procRef, const swm::DeleteCfm& cfm);
    void handleDeleteRej(unsigned int procRef, const swm::DeleteRej& rej);
    void select(const SwayClientRecord& record, const swm::GetSwProductInvCfm& inventory);

    // The running module
    void handleGetRunningLmcReq(const std::shared_ptr<mnet_msg>& msg);
    void handleGetRunningSwCfm(unsigned int procRef, const swm::GetRunningSwCfm& cfm);
    void handleGetRunningSwRej(unsigned int procRef, const swm::GetRunningSwRej& rej);

    // The list of software components
    void handleSwCompListReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSwCompListCfm(unsigned int procRef, const swm::SwCompListCfm& cfm);
    void handleSwCompListRej(unsigned int procRef, const swm::SwCompListRej& rej);
    void handleSwCompListData(unsigned int procRef, const swm::SwCompListData& data);
    void handleSwCompListAck(const std::shared_ptr<mnet_msg>& msg);
    /// The client's kind gets a list of its own, which is collected first.
    [[nodiscard]] bool isKpxList(const SwayClientRecord& record) const;
    void collectList(SwayClientRecord& record, const swm::SwCompListData& data);
    /// Rewrites the collected list and sends its first piece. Throws as `SwCompList::rewrite` does.
    void parseSwCompListForGsmKpx(SwayClientRecord& record) const;
    void sendNextListPiece(SwayClientRecord& record) const;
    void sendListPiece(const SwayClientRecord& record, bool isEnd, const std::string& text) const;

    template <class Rej>
    void sendRej(mnet_mbox_id_t client, const TarnNodeCommonAddressInfoS& addressInfo,
                 const char* text) const;
    template <class Rej> void sendRej(const SwayClientRecord& record, const char* text) const;
    template <class Rej> void sendResourceRej(const SwayClientRecord& record, const char* text) const;
    template <class Cfm> void sendResourceCfm(const SwayClientRecord& record) const;

    Wait m_wait;
    Records m_records; ///< in the order in which they were opened
    std::uint32_t m_procRefCounter{0};
    bool m_recordCapTraced{false};
    bool m_listCapTraced{false};
};

template <class Rej>
void MerlowSwmi::sendRej(mnet_mbox_id_t client, const TarnNodeCommonAddressInfoS& addressInfo,
                         const char* text) const
{
    auto rej = answerTo<Rej>(addressInfo);
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), text);
    sendToClient(client, rej);
}

template <class Rej> void MerlowSwmi::sendRej(const SwayClientRecord& record, const char* text) const
{
    sendRej<Rej>(record.clientMbox, record.addressInfo, text);
}

template <class Rej, class Req>
MerlowSwmi::SwayClientRecord* MerlowSwmi::openWithTicket(const Req& req, const mnet_msg& msg,
                                                         const std::string& software)
{
    const mnet_mbox_id_t client = mnet_sender(&msg);
    const SwayClientRecord* acquisition = findRecord(TARN_BC_ACQUIRE_RESOURCE_REQ, req.addressInfo);
    if (acquisition != nullptr) {
        const auto ticketNumber = acquisition->ticketNumber;
        SwayClientRecord& record = addRecord(BciRecord<Req>::number, req.addressInfo, client);
        record.ticketNumber = ticketNumber;
        record.software = software;
        return &record;
    }
    if (isAcquiringImplicitly(client)) {
        auBootAcquireResourceReq(req.addressInfo, client);
        addRecord(BciRecord<Req>::number, req.addressInfo, client).software = software;
    } else {
        sendRej<Rej>(client, req.addressInfo, NOT_ACQUIRED);
    }
    return nullptr;
}
