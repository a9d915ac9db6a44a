#pragma once

#include "bmmi.pb.h"
#include "merlowComponent.h"

/// The unit's indicators. Translates between the visual states of both sides and keeps nothing.
///
///   TARN_BC_SET_VISUAL_INDICATION_REQ -> bmmi::SetVisualIndicationReq -> TARN_BC_SET_VISUAL_INDICATION_CFM
///                                                                     -> TARN_BC_SET_VISUAL_INDICATION_REJ
///   TARN_BC_GET_VISUAL_INDICATION_REQ -> bmmi::GetVisualIndicationReq -> TARN_BC_GET_VISUAL_INDICATION_CFM
///                                                                     -> TARN_BC_GET_VISUAL_INDICATION_REJ
///   TARN_BC_GET_SPECIAL_INDICATOR_REQ -> bmmi::GetVisualIndicationReq -> TARN_BC_GET_SPECIAL_INDICATOR_CFM
///                                                                     -> TARN_BC_GET_SPECIAL_INDICATOR_REJ
///
/// Only registered MMI users are served. On a unit of the KPX family a GSM client's order is confirmed, and
/// nothing is done. A transaction ends with its answer. Server thread only.
class MerlowVisual : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;

private:
    using Transaction = BrhClient::ProcedureTransaction;
    using BmmiStates = boardresourcehandler::bmmi::GetVisualIndicationCfm;

    void handleSetVisualIndicationReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSetVisualIndicationCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleSetVisualIndicationRej(const std::shared_ptr<mnet_msg>& msg);
    void handleGetVisualIndicationReq(const std::shared_ptr<mnet_msg>& msg);
    void handleGetSpecialIndicatorReq(const std::shared_ptr<mnet_msg>& msg);
    void handleGetVisualIndicationCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleGetVisualIndicationRej(const std::shared_ptr<mnet_msg>& msg);

    /// Asks BMMI for the states, whatever the client wants of them.
    void askForStates(const BcSession& session, const Transaction& transaction) const;

    void sendSetVisualIndicationCfm(const Transaction& transaction) const;
    void sendSetVisualIndicationRej(const Transaction& transaction, const std::string& text) const;
    void sendGetVisualIndicationCfm(const Transaction& transaction, const BmmiStates& states) const;
    void sendGetSpecialIndicationCfm(const Transaction& transaction, const BmmiStates& states) const;
    template <class Rej> void sendRej(const Transaction& transaction, const std::string& text) const;

    /// The clients of this family's units order states that its indicators must not show.
    [[nodiscard]] bool isLedHandlingDisabledFor(int serverRef) const;
    /// Null, and a trace, when the sender has no session.
    [[nodiscard]] const BcSession* findSession(const mnet_msg& msg) const;
    /// The transaction of an answer, gone from the map; nothing, and a trace, when there is none.
    [[nodiscard]] std::optional<Transaction> takeTransaction(unsigned int procedureRef,
                                                             const char* answer) const;
};
