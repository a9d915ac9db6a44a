#pragma once

#include "merlowComponent.h"

#include <array>

/// Admits clients by itself, where there is no legacy server to decide. `MerlowImpl` has none of these: in
/// the server the legacy server decides. A host of its own makes one beside the services that it wants.
///
///   TARN_BC_CONN_ESTABLISH_REQ -> TARN_BC_CONN_ESTABLISH_CFM
///                              -> TARN_BC_CONN_ESTABLISH_REJ
///
/// One client in automatic boot mode, three otherwise. Keeps the references that it hands out. Server thread
/// only.
class MerlowEstablish : public MerlowComponent {
public:
    explicit MerlowEstablish(MerlowCommonData& commonData);
    bool init() override;

    /// The next reference of the range that `serverRef` lies in; each range starts anew behind its end. 0
    /// when clients of that range are not served.
    [[nodiscard]] std::int32_t connEstablishRadioAccessType(int serverRef);

private:
    /// 100 references in turn.
    struct Range {
        std::int32_t first;
        std::int32_t next;
    };

    void handleConnEstablishReq(const std::shared_ptr<mnet_msg>& msg);
    void sendConnEstablishRej(const TarnNodeCommonAddressInfoS& addressInfo, mnet_mbox_id_t client,
                              const char* text) const;

    std::size_t m_maxClients;
    std::array<Range, 3> m_ranges;
};
