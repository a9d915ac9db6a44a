#include "merlowIf.h"

#include "merlowImpl.h"
#include "merlowTracepoints.h"

namespace Merlow::V1 {

MerlowIf& MerlowIf::getInstance()
{
    static MerlowIf instance;
    return instance;
}

MerlowIf::MerlowIf() : m_impl(std::make_unique<MerlowImpl>()) {}

MerlowIf::~MerlowIf() = default;

bool MerlowIf::startServer()
{
    MerlowTracepoints::start(); // on the host's thread: not in a static initialiser, not under a lock
    return m_impl->start() == MerlowImpl::SUCCESS;
}

bool MerlowIf::startServer(const std::function<void()>& /*callback*/)
{
    return startServer();
}

bool MerlowIf::stopServer()
{
    return m_impl->stop(false) == MerlowImpl::SUCCESS;
}

} // namespace Merlow::V1
