/// Trace calls with their guard in place: the text behind the guard is only built when somebody will read it.
///
///   SCRY_TRACE(4, "ABN: No session for mailbox 0x" << std::hex << mailbox);
///
/// The last argument is what goes into an output stream, so `std::hex` lasts until `std::dec` or its end.
/// Any thread.
#pragma once

#include "scryTrace.h"

#include <new>
#include <sstream>

/// The server's trace object: switches levels 5, 6, 13, 17 and 18.
extern const scry_record* MerlowTraceObj;

namespace MerlowTrace {

inline bool isOn(unsigned int level)
{
    return (procInfo->mask & (1u << level)) != 0;
}

inline bool isObjOn(unsigned int level)
{
    return isOn(SCRY_OBJ_BIT) && (MerlowTraceObj->mask & (1u << level)) != 0;
}

} // namespace MerlowTrace

/// What the calls below have in common: `write` is what becomes of `scryText`. Without memory the text is
/// lost and told of, but neither the handler that traces nor the destructor.
#define SCRY_TEXT(level, stream, write)                                                                      \
    do {                                                                                                     \
        try {                                                                                                \
            std::ostringstream scryText;                                                                     \
            scryText << stream; /* NOLINT(bugprone-macro-parentheses): a chain of << */                      \
            write;                                                                                           \
        } catch (const std::bad_alloc&) {                                                                    \
            lttngScryTrace(level, short_fname(__FILE__), __LINE__, "ABN: No memory for a trace", procInfo);  \
        }                                                                                                    \
    } while (false)

/// Levels 1 (failures) and 4 (abnormal and other notable events).
#define SCRY_TRACE(level, stream)                                                                            \
    do {                                                                                                     \
        if (MerlowTrace::isOn(level)) [[unlikely]] {                                                         \
            SCRY_TEXT(                                                                                       \
                level, stream,                                                                               \
                lttngScryTrace(level, short_fname(__FILE__), __LINE__, scryText.str().c_str(), procInfo));   \
        }                                                                                                    \
    } while (false)

/// Levels 5 (a handler's flow), 6 (an object's life) and 13 (the pump, message by message).
#define SCRY_OBJ_TRACE(level, stream)                                                                        \
    do {                                                                                                     \
        if (MerlowTrace::isObjOn(level)) [[unlikely]] {                                                      \
            SCRY_TEXT(level, stream,                                                                         \
                      lttngScryIfObjTrace(level, short_fname(__FILE__), __LINE__, scryText.str().c_str(),    \
                                          procInfo, MerlowTraceObj));                                        \
        }                                                                                                    \
    } while (false)

/// A received signal or frame; `msg` is a `const mnet_msg*`.
#define SCRY_REC_SIG(msg, stream)                                                                            \
    do {                                                                                                     \
        if (MerlowTrace::isObjOn(SCRY_LEVEL_RECEIVED)) [[unlikely]] {                                        \
            SCRY_TEXT(SCRY_LEVEL_RECEIVED, stream,                                                           \
                      lttngScryIfObjRecSigTrace(short_fname(__FILE__), __LINE__, msg,                        \
                                                scryText.str().c_str(), procInfo, MerlowTraceObj));          \
        }                                                                                                    \
    } while (false)

/// A signal or frame about to be sent: its number and the receiving mailbox.
#define SCRY_SEND_SIG(sigNo, receiver, stream)                                                               \
    do {                                                                                                     \
        if (MerlowTrace::isObjOn(SCRY_LEVEL_SENT)) [[unlikely]] {                                            \
            SCRY_TEXT(SCRY_LEVEL_SENT, stream,                                                               \
                      lttngScryIfObjSendSigTrace(short_fname(__FILE__), __LINE__, sigNo, receiver,           \
                                                 scryText.str().c_str(), procInfo, MerlowTraceObj));         \
        }                                                                                                    \
    } while (false)

/// The category of everything that this server writes to the remote log.
inline constexpr const char* RUSHLOG_CATEGORY = "RadioApplication,RadioBoardCtrl";
