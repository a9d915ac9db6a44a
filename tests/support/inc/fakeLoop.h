/// The event loop in one thread: callbacks run when a test pumps.
#pragma once

#include <eventLoopIf.h>
#include <functional>
#include <vector>

namespace support {

/// Level-triggered as the real one: as long as a descriptor of the in-memory platform has something to read,
/// its callback is called, one event at a time, in the order in which the descriptors were added.
class FakeLoop : public Loomwork::EventLoop::V1::EventLoopIf {
public:
    static FakeLoop& instance();

    void reset();

    /// Calls callbacks until nothing is readable. Fails the test when that does not come to an end.
    void pumpUntilIdle();
    /// Calls the callback of the first readable descriptor; false when none is.
    bool callOneReadable();
    /// Calls the callback of this descriptor; false when it is not watched or has nothing to read.
    bool callReadable(int fd);
    /// The watched descriptors that have something to read, in the order in which they were added.
    [[nodiscard]] std::vector<int> readable() const;
    /// The next `times` addFd give -1.
    void failAddFd(unsigned int times = 1) { m_failAddFd = times; }
    void setRunResult(int result) { m_runResult = result; }

    [[nodiscard]] bool watches(int fd) const;
    [[nodiscard]] bool stopped() const { return m_stopped; }
    [[nodiscard]] std::size_t watchCount() const { return m_entries.size(); }

    int addFd(int fd, unsigned int events, std::function<void(int, unsigned int)> callback) override;
    int updateFd(int fd, unsigned int events) override;
    int removeFd(int fd) override;
    /// Pumps until idle or stopped; a second thread is not there to wait for.
    int run() override;
    void stop() override { m_stopped = true; }

private:
    struct Entry {
        int fd;
        unsigned int events;
        std::function<void(int, unsigned int)> callback;
    };

    std::vector<Entry> m_entries;
    unsigned int m_failAddFd = 0;
    int m_runResult = 0;
    bool m_stopped = false;
};

} // namespace support
