/// Calls that must not be cancellation points: a thread cancelled meanwhile goes on, and ends at its next
/// one.
#pragma once

#include <pthread.h>

namespace merlow::base {

class NoCancel {
public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~NoCancel() { pthread_setcancelstate(m_before, nullptr); }
    NoCancel(const NoCancel&) = delete;
    NoCancel& operator=(const NoCancel&) = delete;

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

} // namespace merlow::base
