#include "ccfi.h"

#include "ccfiClient.h"
#include "ccfiConnClose.h"
#include "ccfiConnEstablish.h"
#include "ccfiFaultFwd.h"

namespace Merlow::Ccfi {

struct Ccfi::Impl {
    explicit Impl(FaultManagerIf& faultManager)
        : connEstablish(client), connClose(client), faultFwd(client, faultManager)
    {
    }

    CcfiClient client;
    CcfiConnEstablish connEstablish;
    CcfiConnClose connClose;
    CcfiFaultFwd faultFwd;
    bool initialized = false;
};

Ccfi::Ccfi(MerlowCommonData& commonData)
    : MerlowComponent(commonData), m_impl(std::make_unique<Impl>(commonData.getFaultManager()))
{
}

Ccfi::~Ccfi() = default;

bool Ccfi::init()
{
    m_impl->client.initialize();
    m_impl->connEstablish.initialize();
    m_impl->connClose.initialize();
    m_impl->faultFwd.initialize();
    m_impl->initialized = true;
    return true;
}

bool Ccfi::isReadyToPublish() const
{
    return m_impl->initialized;
}

} // namespace Merlow::Ccfi
