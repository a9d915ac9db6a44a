/// The service manager's notification protocol: one datagram with lines NAME=VALUE for each report.
#pragma once

#include <string>

namespace merlow::merlowd {

/// Sends `state` ("READY=1", "STATUS=..."; several lines at once are fine) to the socket that the service
/// manager named in `NOTIFY_SOCKET`: a path, or an abstract name after '@'. Never blocks. False when there is
/// no such variable or nobody took the report; a service works the same without a manager.
bool sdNotify(const std::string& state);

} // namespace merlow::merlowd
