/// Descriptors that a forked child does not keep.
///
/// Close-on-exec is not enough for a process that forks without exec: the child's copy of a socket would
/// delay the end of the connection, and its copy of a lock would outlive the parent. Every descriptor of the
/// library is therefore opened and closed under one gate that `fork` passes too, and the child closes them
/// all before anything else.
#pragma once

#include <mutex>
#include <utility>

namespace mnet {

class Descriptor {
public:
    Descriptor() = default;
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    ~Descriptor() { reset(); }

    /// Opens by calling `open`, which gives a descriptor or -1 with `errno`.
    template <class Open> static Descriptor open(Open&& open)
    {
        const std::lock_guard lock(gate());
        return Descriptor(track(open()));
    }

    explicit operator bool() const { return m_fd >= 0; }
    int get() const { return m_fd; }
    void reset();

    /// What every opening, every closing and `fork` pass one at a time.
    static std::mutex& gate();
    /// For the child of a fork, with the gate held: closes every descriptor of the parent's.
    static void closeAll();

private:
    explicit Descriptor(int fd) : m_fd(fd) {}
    static int track(int fd);

    int m_fd = -1;
};

} // namespace mnet
