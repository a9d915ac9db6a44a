#pragma once

#include "merlowComponent.h"

#include <string>
#include <string_view>
#include <vector>

/// The board's hardware log: numbered logs of text entries, kept by the board's server.
///
///   TARN_BC_HWLOG_GET_REQ -> bri::HwLogGetReq -> TARN_BC_HWLOG_GET_CFM
///                                             -> TARN_BC_HWLOG_GET_REJ
///   TARN_BC_HWLOG_SET_REQ -> bri::HwLogSetReq, for log 2 bri::StoreNodeConfigEntryReq
///                                             -> TARN_BC_HWLOG_SET_CFM
///                         -> at once, or later -> TARN_BC_HWLOG_SET_REJ
///
/// A request to write needs a session, and its transaction ends with the answer of BRI. A request to read
/// goes on for anybody, and its transaction ends when the client has been answered: an answer of BRI for
/// which there is no session, or which says nothing, leaves it open. Keeps nothing itself. Server thread
/// only.
class MerlowHwLog : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;

private:
    using Transaction = BrhClient::ProcedureTransaction;

    void handleHwLogGetReq(const std::shared_ptr<mnet_msg>& msg);
    void handleBriHwLogGetCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBriHwLogGetRej(const std::shared_ptr<mnet_msg>& msg);
    void handleHwLogSetReq(const std::shared_ptr<mnet_msg>& msg);
    void handleBriHwLogSetCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBriHwLogSetRej(const std::shared_ptr<mnet_msg>& msg);
    void handleBriStoreNodeConfigEntryCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBriStoreNodeConfigEntryRej(const std::shared_ptr<mnet_msg>& msg);

    /// The transaction, gone from the map, of a client that still has a session; nothing, and a trace that
    /// names what is ignored, when either is missing.
    [[nodiscard]] std::optional<Transaction>
    takeSetTransaction(unsigned int procedureRef, const char* briAnswer, const char* answer) const;

    void sendHwLogSetCfm(const Transaction& transaction) const;
    void sendHwLogSetRej(const Transaction& transaction, std::uint16_t errorCode,
                         const std::string& text) const;
};

/// The first `length` entries of `area`, the bytes of a request to write from its packed entries to its end,
/// at least BCI_HWLOG_ENTRIES_SIZE. An entry begins in those; a last one without a NUL ends with the area.
/// None, and a trace with the whole, when there are fewer or an empty one is among them.
[[nodiscard]] std::vector<std::string> getHwLogData(std::uint32_t length, std::string_view area);
