/// Mailboxes between the processes of one machine: ids and names, ordered messages, notices of death.
///
/// A mailbox belongs to the thread that created it, and a thread has one queue and one descriptor for all its
/// mailboxes. A message is one contiguous buffer that starts with its number in host byte order. Everything
/// lives below the run-time folder (`MERLOW_RUN_DIR`, else `$XDG_RUNTIME_DIR/merlow`, else `/run/merlow`).
///
/// All functions may be called from any thread. On failure they set `errno`; `ENOTCONN` means that the
/// process (or the child of a fork) has not called `mnet_init`, `ENOMEM` that there is no memory. None
/// aborts, none blocks but a waiting `mnet_receive`, and that is the only cancellation point.
#ifndef MNET_H
#define MNET_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MNET_API __attribute__((visibility("default")))

typedef uint32_t mnet_mbox_id_t;
typedef uint32_t mnet_monitor_id_t;

struct mnet_msg {
    uint32_t msgNo;
}; /* the rest of the message follows */

/// No mailbox; also the failure value of an id or a monitor.
#define MNET_MBOX_NONE 0xFFFFFFFFu
/// As sender: the calling thread's own mailbox.
#define MNET_MY_MBOX 0xFFF00000u
/// As filter of `mnet_receive`: any sender.
#define MNET_FROM_ANY 0xFFF11111u
/// The numbers of the messages that a locate or a monitor delivers when none was given.
#define MNET_LOCATE_DEFAULT_MSGNO 0x1901000u
#define MNET_MONITOR_DEFAULT_MSGNO 0x1901001u

/// Once a process: room for `max_mailboxes` mailboxes, in the sub-folder `name_space` of the run-time folder
/// (NULL or "" for none). `alloc_scheme` and `flags` are 0. Gives 0, -2 when the process has done so already
/// (nothing changes then), or -1: `EINVAL`, or why the folder can't be used.
MNET_API int mnet_init(uint32_t max_mailboxes, int alloc_scheme, const char* name_space, uint32_t flags);

/// Deletes every mailbox of the process, with the notices that a deletion gives, and gives back every
/// descriptor and file. What was kept for receivers that do not read is lost, messages that were received
/// stay their owner's. A thread that waits in `mnet_receive` gets NULL. 0, or -1.
MNET_API int mnet_exit(void);

/// A mailbox of the calling thread. Names have 1 to 200 bytes, any but NUL; NULL or "" gives one without a
/// name. `flags` is 0. `MNET_MBOX_NONE` with `EEXIST` when a live mailbox of the run-time folder has the
/// name, `ENOSPC` when all that `mnet_init` made room for are open, `ENAMETOOLONG`, `EINVAL`, or what the
/// system lacks (`EMFILE`).
MNET_API mnet_mbox_id_t mnet_create_mailbox(const char* name, uint32_t flags);

/// A second id and name on the queue of `parent`, a mailbox of the calling thread (else `ENOENT`, or `EPERM`
/// for another thread's). As `mnet_create_mailbox` otherwise. Lives on when its parent is deleted.
MNET_API mnet_mbox_id_t mnet_clone_mailbox(mnet_mbox_id_t parent, const char* name);

/// Whoever monitors the mailbox is told, and messages to it that were not received yet are freed. Works from
/// every thread of the process, also while one ends and in static destructors. -1 with `ENOENT` for an id
/// that is unknown or gone. Its id comes back late.
MNET_API int mnet_delete_mailbox(mnet_mbox_id_t mbox);

/// The calling thread's own mailbox: the oldest one that it created, clones included, that is still there, or
/// `MNET_MBOX_NONE`.
MNET_API mnet_mbox_id_t mnet_current_mbox(void);

/// The calling thread's descriptor, level-triggered: readable as long as a message waits, for an epoll set of
/// the caller's. Belongs to the library. -1 on failure. Short wake-ups without a message are possible.
MNET_API int mnet_get_fd(void);

/// A zeroed message of `size` bytes (at least 4), aligned for any type, which the caller owns. NULL with
/// `EMSGSIZE` above 16 MiB, or `ENOMEM`.
MNET_API struct mnet_msg* mnet_alloc(size_t size, uint32_t msgNo);

/// Frees `*msg`, which may be NULL, and sets it to NULL.
MNET_API void mnet_free(struct mnet_msg** msg);

/// The bytes of the message, its number included.
MNET_API size_t mnet_size(const struct mnet_msg* msg);

/// Takes the message, whatever the result, and sets `*msg` to NULL. 0 when it is on its way. -1 with `ENOENT`
/// when `to` is not there (any more); `EPERM` when `from` is neither `MNET_MY_MBOX` nor a live mailbox of
/// this process; `ENOBUFS` when more than `MNET_QUEUE_LIMIT` bytes (environment, 64 MiB by default) wait for
/// the receiving thread already; `EACCES` when the receiver's process is not to be spoken to. From the
/// mailboxes of one thread to those of another, everything arrives in the order in which it was sent. What
/// the kernel does not take at once is kept, and moves on when the thread that owns `from` serves its
/// descriptor.
MNET_API int mnet_send(struct mnet_msg** msg, mnet_mbox_id_t to, mnet_mbox_id_t from);

/// The next message of the calling thread's queue, which the caller owns: one of the `filter[0]` numbers that
/// follow in `filter` (NULL for any), from `from` or `MNET_FROM_ANY`. Waits `timeout_ms` milliseconds, not at
/// all for 0, for ever for -1. NULL when nothing came. What the filter passes over stays queued, in order.
MNET_API struct mnet_msg* mnet_receive(const uint32_t* filter, int timeout_ms, mnet_mbox_id_t from);

/// Who sent a received message; for what a locate or a monitor delivered, the mailbox that was found or lost.
MNET_API mnet_mbox_id_t mnet_sender(const struct mnet_msg* msg);

/// Which of the thread's mailboxes a received message was sent to.
MNET_API mnet_mbox_id_t mnet_receiver(const struct mnet_msg* msg);

/// Takes the message (NULL, or a pointer to NULL, for an empty one of `MNET_LOCATE_DEFAULT_MSGNO`) and
/// delivers it to `mbox`, a mailbox of this process, with the mailbox called `name` as its sender: at once,
/// or when there is one. Once for each call; ends with `mbox`. 0, or -1 with `ENOENT` (no such `mbox`),
/// `EINVAL`, `ENAMETOOLONG`.
MNET_API int mnet_locate_async(const char* name, struct mnet_msg** msg, mnet_mbox_id_t mbox);

/// Takes the message (as above, `MNET_MONITOR_DEFAULT_MSGNO`) and delivers it to the calling thread's own
/// mailbox, with `mbox` as its sender, when `mbox` is deleted or its process dies in any way; behind all that
/// `mbox` had sent to this thread. At once for one that is gone. Once for each call; ends with the mailbox
/// that it delivers to. `MNET_MBOX_NONE` with `ENOENT` when the thread has no mailbox, `EINVAL` when `mbox`
/// can't be one, `ENOSPC` above 65,536 monitors for the mailboxes of one thread.
MNET_API mnet_monitor_id_t mnet_monitor(mnet_mbox_id_t mbox, struct mnet_msg** msg);

/// Ends a monitor: no notice comes after this returns, also not one that was queued. From any thread. -1 with
/// `ENOENT` for an id that is unknown, ended, or whose notice was received.
MNET_API int mnet_unmonitor(mnet_monitor_id_t id);

/// 1 for what a locate or a monitor delivered, 0 for what somebody sent, whatever its number.
MNET_API int mnet_is_notice(const struct mnet_msg* msg);

#ifdef __cplusplus
}
#endif

#endif
