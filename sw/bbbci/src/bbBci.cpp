#include "bbBci.h"

#include "merlowTracepoints.h"

namespace Merlow::BbBci {

struct BbBci::Impl {};

BbBci::BbBci(MerlowCommonData& commonData) : MerlowComponent(commonData), m_impl(std::make_unique<Impl>()) {}

BbBci::~BbBci() = default;

bool BbBci::init()
{
    TP_ENTERING();
    return true;
}

bool BbBci::isReadyToPublish() const
{
    return true;
}

} // namespace Merlow::BbBci
