/// Traces with bit-masked levels that can be switched while the process runs.
///
/// The caller tests the guard of a trace and builds its text only then; the functions emit what they are
/// given. Where they emit to, and how levels are switched, is in docs/tracing.md. All functions can be called
/// on any thread, keep `errno`, are no cancellation points and never fail; none keeps a pointer that it was
/// given. Usable from C and C++.
#ifndef SCRYTRACE_H
#define SCRYTRACE_H

#include <stdint.h>

#ifdef __cplusplus
#include <string>
extern "C" {
#endif

#define SCRY_API __attribute__((visibility("default")))

struct mnet_msg;

/// A mask record: four words of which the fourth is the mask, bit n for level n. Another process may change
/// the mask at any moment; the first three words are 0.
typedef struct scry_record {
    uint32_t words[3];
    uint32_t mask;
} scry_record;

/// The bit of the process's mask that enables trace objects as a whole.
#define SCRY_OBJ_BIT 21
/// The levels of an object's mask for received and for sent signals.
#define SCRY_LEVEL_RECEIVED 17
#define SCRY_LEVEL_SENT 18

/// The process's record, as each thread sees it; never null, the same for all threads, valid for the life of
/// the process.
extern SCRY_API __thread const scry_record* procInfo __attribute__((tls_model("initial-exec")));

/// The record of the trace object `name`; the same name gives the same record, valid for the life of the
/// process, never null. A new object starts with the levels of `SCRY_OBJ_LEVELS`, or those that `scryctl` set
/// for all objects since. Names hold up to 47 printable characters: the rest is cut, other characters become
/// '_'. A process has at most 126 objects; all further names share the last record.
SCRY_API const scry_record* scryTraceObj(const char* name);

/// To be called once, early in main() or where a library's work begins, never in a static initialiser: makes
/// the process's masks visible to `scryctl` in the run-time folder that the environment names now, and loads
/// the LTTng probes of this library unless `SCRY_LTTNG` is "0". 0, or -1 with `errno` when the masks can't be
/// made visible (the remote log is told; tracing works all the same). Absent probes are no failure. Call it
/// again in a child of fork() that doesn't exec, to make that visible too.
SCRY_API int scryStart(void);

/// Loads the LTTng probe library `file`, a name without folder, from the folder of this library, under the
/// rules of `scryStart`. 0 when it is loaded, -1 with `errno` when it is not: ENOENT there is none, ECANCELED
/// switched off by `SCRY_LTTNG`, ELIBACC it can't be loaded, ENOMEM. It stays loaded.
SCRY_API int scryLoadProbes(const char* file);

/// The part of `path` after its last '/', pointing into `path`; "" for null.
SCRY_API const char* short_fname(const char* path);
/// The same, for the tracepoints of LTTng providers.
SCRY_API const char* tpt_short_fname(const char* path);

/// Guard: bit `level` of the process's mask.
SCRY_API void lttngScryTrace(unsigned int level, const char* file, unsigned int line, const char* text,
                             const scry_record* proc);

/// Guard: bit `level` of the object's mask and bit 21 of the process's.
SCRY_API void lttngScryIfObjTrace(unsigned int level, const char* file, unsigned int line, const char* text,
                                  const scry_record* proc, const scry_record* obj);

/// A received message, level 17; its number (first 32 bits, host order) goes in front of the text. `msg` is
/// read for its number only. Guard: bit 17 of the object's mask and bit 21 of the process's.
SCRY_API void lttngScryIfObjRecSigTrace(const char* file, unsigned int line, const struct mnet_msg* msg,
                                        const char* text, const scry_record* proc, const scry_record* obj);

/// A sent message, level 18; number and receiving mailbox go in front of the text. Guard: bit 18 of the
/// object's mask and bit 21 of the process's.
SCRY_API void lttngScryIfObjSendSigTrace(const char* file, unsigned int line, uint32_t sigNo,
                                         uint32_t receiver, const char* text, const scry_record* proc,
                                         const scry_record* obj);

#ifdef __cplusplus
}
/// A text built as printf does; "" when `format` can't be followed, or there is no memory.
SCRY_API std::string formatStr(const char* format, ...) __attribute__((format(printf, 1, 2)));
#endif

#endif
