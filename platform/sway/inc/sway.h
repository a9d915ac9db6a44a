/// Connections between processes of one machine that keep message boundaries.
///
/// An address is "ux:" and a name without '/': a Unix socket of type SOCK_SEQPACKET, `sway/NAME` in the
/// run-time folder. One message of up to "sway.max_msg_size" bytes is one packet. Only processes of the same
/// user, root, or of the group in `MERLOW_GROUP` get a connection.
///
/// A handle is used by one thread at a time, any thread; different handles are independent. Operations
/// return -1, or a null handle, with `errno` set on failure; a null handle gives `EBADF`, and so does one
/// that a forked child has from its parent. No call raises SIGPIPE, none is a cancellation point, and waiting
/// goes on after a signal.
#ifndef SWAY_H
#define SWAY_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SWAY_API __attribute__((visibility("default")))

typedef struct sway_socket sway_socket;

/// Opens a connection, in blocking mode, and waits while the listener's queue is full. `flags` is 0. The
/// caller closes the handle. Fails with `EINVAL` for an address or flags that are not as above, `ENOENT` or
/// `ECONNREFUSED` when nobody listens, `EACCES` when who listens is not allowed to, and with what the kernel
/// says.
SWAY_API sway_socket* sway_connect(const char* address, int flags);

/// Switches between waiting and `EAGAIN`.
SWAY_API int sway_set_blocking(sway_socket* s, bool blocking);

/// Reads the attribute `name` into `value`, which has room for `capacity` bytes. `size`, unless null, gets
/// the attribute's size; with a null `value` nothing else happens. The one attribute is "sway.max_msg_size":
/// an unsigned 64-bit number of bytes. Fails with `ENOENT` for another name, `ERANGE` when there is too
/// little room, `EINVAL` for null pointers.
SWAY_API int sway_attr_get(sway_socket* s, const char* name, size_t* size, void* value, size_t capacity);

/// Declares what the owner waits for by the descriptor of sway_fd(), and returns at once. With `receive`
/// not 0, as it is from the start: a message, or the end. With 0: also room to send. Fails with `EINVAL`
/// for room on a listening handle.
SWAY_API int sway_await(sway_socket* s, int receive);

/// The descriptor to wait on: it becomes readable for what sway_await() declared, and whenever messages
/// that are kept can move on. It stays the handle's, and is for nothing but waiting.
SWAY_API int sway_fd(sway_socket* s);

/// Moves kept messages on, then takes one message. Its length; 0 when the peer has closed; -1 with `EAGAIN`
/// when there is none, `EMSGSIZE` when it was longer than `capacity` (it is gone then), `EPROTO` when the
/// peer broke the rules (the connection is over then, and 0 follows), `EINVAL` on a listening handle.
SWAY_API ssize_t sway_receive(sway_socket* s, void* buffer, size_t capacity);

/// Sends one message of `length` bytes, and copies what it must keep. 0 when it is on its way. In
/// non-blocking mode what the kernel does not take is kept, in order, up to `SWAY_QUEUE_LIMIT` bytes (an
/// environment variable, 16 MiB by default, read when the handle is made). Fails with `EAGAIN` beyond that
/// (nothing of the message was sent), `EINVAL` for length 0, `EMSGSIZE` above the attribute, `EPIPE` or
/// `ECONNRESET` when the peer has closed.
SWAY_API int sway_send(sway_socket* s, const void* buffer, size_t length);

/// Closes and frees. What is still kept is offered to the kernel once more, and lost otherwise. Null is fine.
SWAY_API void sway_close(sway_socket* s);

/// Listens, in blocking mode. `EADDRINUSE` when somebody does at this address; what a dead listener left
/// behind is taken over. `flags` is 0.
SWAY_API sway_socket* sway_listen(const char* address, int flags);

/// The next connection, in blocking mode. `EAGAIN` when there is none and the listening handle is
/// non-blocking; `EMFILE` or `ENFILE` when descriptors have run out, and the connection was refused.
SWAY_API sway_socket* sway_accept(sway_socket* s);

#ifdef __cplusplus
}
#endif

#endif
