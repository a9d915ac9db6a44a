/// The entry of the board controller server: what a host process calls.
#pragma once

#include <functional>
#include <memory>

#define MERLOW_API __attribute__((visibility("default")))

class MerlowImpl;

namespace Merlow::V1 {

/// The server of this process. Any thread may call; the server does all its work on one thread of its own.
///
/// The object is destroyed at process exit. A server that still runs is then stopped by force: the host needs
/// no call of its own for that.
class MERLOW_API MerlowIf {
public:
    static MerlowIf& getInstance();
    virtual ~MerlowIf();
    MerlowIf(const MerlowIf&) = delete;
    MerlowIf& operator=(const MerlowIf&) = delete;

    /// True when the server thread was created. False when it runs already, has run before and ended
    /// normally, or could not be created. What fails later, on the thread, is told by `stopServer`.
    bool startServer();
    /// The same: the callback is neither stored nor called.
    bool startServer(const std::function<void()>& callback);
    /// Asks the server to end and waits for it. True when it had started well and ended, or never ran.
    bool stopServer();

    /// For hosts that want the result code of `MerlowImpl::stop` or set what the server supports.
    [[nodiscard]] MerlowImpl& getImpl() { return *m_impl; }

private:
    MerlowIf();

    std::unique_ptr<MerlowImpl> m_impl;
};

} // namespace Merlow::V1
