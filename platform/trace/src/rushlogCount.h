/// What rushlog and the records share: a forked child starts its count of lost lines anew.
#pragma once

namespace merlow::trace {

void forgetLostLines();

} // namespace merlow::trace
