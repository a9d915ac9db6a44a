/// The records of this process: one for the process itself and one for each trace object, in memory that
/// never moves and, whenever possible, is the process's record file.
#pragma once

#include "recordFile.h"

namespace merlow::trace {

/// Name and id of this process, as they appear in the file's name. Private to this process, unlike the file.
std::string_view processName();
pid_t processId();

/// Makes the file in the run-time folder of the present environment, if the records aren't there already. 0,
/// or -1 with `errno` and a line in the remote log; the records then are this process's alone.
int publishRecords();

/// The name of the object with this record, copied to `name`; false if it is no record of `scryTraceObj`.
bool objectName(const scry_record* record, char (&name)[sizeof(RecordEntry::name) + 1]);

} // namespace merlow::trace
