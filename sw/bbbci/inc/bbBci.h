#pragma once

#include "bbBciCapabilityInfo.h"
#include "merlowComponent.h"

namespace Merlow::BbBci {

/// The place of the client side among the server's components. It serves nothing and holds nothing up:
/// whoever wants to be the client of another board controller creates the procedures, one class each, and
/// drives them.
class BbBci : public MerlowComponent {
public:
    using CapabilityInfo = Merlow::BbBci::CapabilityInfo;

    explicit BbBci(MerlowCommonData& commonData);
    ~BbBci() override;

    bool init() override;
    [[nodiscard]] bool isReadyToPublish() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace Merlow::BbBci
