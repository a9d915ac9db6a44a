/// Lines of text for people, and the ways they leave the process without disturbing it.
#pragma once

#include <array>
#include <cerrno>
#include <pthread.h>
#include <string_view>

namespace merlow::trace {

/// Makes the scope invisible to the thread that traces: no cancellation point, `errno` as it was.
class UnnoticedScope {
public:
    UnnoticedScope() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState); }
    ~UnnoticedScope()
    {
        pthread_setcancelstate(m_cancelState, nullptr);
        errno = m_errno;
    }
    UnnoticedScope(const UnnoticedScope&) = delete;
    UnnoticedScope& operator=(const UnnoticedScope&) = delete;

private:
    int m_errno = errno;
    int m_cancelState = 0;
};

/// One line, built without the heap. Control characters become spaces, and what exceeds the line is cut and
/// marked by "...". Its length is such that a pipe takes it as a whole.
class TextLine {
public:
    TextLine& operator<<(std::string_view text);
    TextLine& operator<<(const char* text) { return *this << std::string_view(text != nullptr ? text : ""); }
    TextLine& operator<<(unsigned long number);
    TextLine& hex(unsigned int number);
    /// The present time, UTC, to the microsecond: "2026-11-21T00:44:25.123456Z".
    TextLine& now();

    std::string_view text() const { return {m_buffer.data(), m_length}; }
    const char* c_str();
    /// The text with its newline.
    std::string_view ended();

private:
    static constexpr std::size_t maxText = 4094;
    std::array<char, maxText + 2> m_buffer; // what is not written yet is never read
    std::size_t m_length = 0;
};

/// Appends `line` by one write to "stderr" or the file `target`, which is made if it is missing (mode 0600)
/// and opened for this line only, so that it can be moved away at any time and no descriptor is held. Doesn't
/// wait for a slow reader. False when the line could not be written.
bool appendLine(const char* target, std::string_view line);

/// Sends `data` as one datagram to the socket `path` without waiting; false when it can't be sent.
bool sendDatagram(const char* path, std::string_view data);

} // namespace merlow::trace
