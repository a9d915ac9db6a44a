/// The remote log: a line for the operator, by the local syslog socket.
#ifndef RUSHLOG_H
#define RUSHLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/// Sends `text` with `category` in front to the local syslog socket (facility local0, level info), or, with
/// the environment variable `RUSHLOG_OUT` set to "stderr" or a file's name, appends a line there. Never
/// blocks and never fails: what can't be delivered is counted, and the count goes out with the next line that
/// can. Control characters become spaces; what exceeds about 4,000 bytes is cut. Any thread, also in a child
/// of fork(); keeps `errno`, no cancellation point, raises no SIGPIPE.
__attribute__((visibility("default"))) void rushlog_log(const char* category, const char* text);

#ifdef __cplusplus
}
#endif

#endif
