#pragma once

#include "merlowComponent.h"

namespace Merlow::Ccfi {

/// The interface through which another process of the unit forwards its own faults. Its connections have
/// nothing to do with client sessions, and clients do not see them.
///
///   CCFI_BC_CONN_ESTABLISH_REQ -> CCFI_BC_CONN_ESTABLISH_CFM
///                              -> CCFI_BC_CONN_ESTABLISH_REJ
///   CCFI_BC_FAULT_FWD, CCFI_BC_FAULTCEASE_FWD -> fault manager
///   CCFI_BC_CONN_CLOSE_REQ -> CCFI_BC_CONN_CLOSE_CFM
///
/// Keeps the open connections. Server thread only.
class Ccfi : public MerlowComponent {
public:
    explicit Ccfi(MerlowCommonData& commonData);
    ~Ccfi() override;

    bool init() override;
    [[nodiscard]] bool isReadyToPublish() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace Merlow::Ccfi
