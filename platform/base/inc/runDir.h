/// The one run-time folder of a unit: where it is, who may enter, and how things below it are made.
///
/// Everything of the platform that lives in the file system lives below this folder, so that two units with
/// different folders on one machine never see each other. All operations are thread-safe and report
/// failures by -1 with `errno`, or by std::bad_alloc; nothing is left of what failed.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace merlow::base {

/// `MERLOW_RUN_DIR` if set, else `$XDG_RUNTIME_DIR/merlow` if that variable is set, else `/run/merlow`. Read
/// anew at each call; an empty variable counts as unset.
std::string runDirPath();

/// The group of `MERLOW_GROUP` (a name or a number), nothing when the variable is not set. A group that does
/// not exist is nothing as well: access then is what it is without a group. False, with `errno`, when there
/// is no way to look it up at present.
bool accessGroup(std::optional<gid_t>& group);

/// Opens folder `path` (relative to the run-time folder, "" for the run-time folder itself; made with its
/// parents as far as missing) and gives an `O_PATH` descriptor, close-on-exec, that the caller closes. New
/// folders get mode 0700, or the group of `MERLOW_GROUP` and 02770. A folder that anyone on the machine may
/// write to is refused with `EPERM`.
int openRunSubdir(const std::string& path);

/// Gives the file behind `fd` the access rights of files in the run-time folder: 0600, or the group and 0660.
int setFileAccess(int fd);

/// The same for `name` in the folder `dirFd`, for what cannot be reached by a descriptor (bound sockets).
int setFileAccessAt(int dirFd, const std::string& name);

} // namespace merlow::base
