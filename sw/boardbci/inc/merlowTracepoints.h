/// The server's LTTng events. A macro for each tests the event's state first and builds the text, a chain of
/// `<<`, only when a recording wants it:
///
///   TP_ERROR("Could not remove fault, faultId = 0x" << std::hex << faultId);
///   TP_REC_SIG(msg->msgNo, "Received signal " << name);
///
/// Any thread. A disabled event costs two loads and a test. Without memory an event goes without its text.
#pragma once

#include "scryTrace.h"

#include <array>
#include <cstddef>
#include <new>
#include <sstream>
#include <string>

namespace MerlowTracepoints {

/// The events in the order of the provider com_vorlund_radiosw_merlow.
enum class Event : std::size_t {
    Error,
    Info,
    StateChange,
    Trace1,
    Trace2,
    Trace3,
    Trace4,
    Trace5,
    Trace6,
    Trace7,
    RecSig,
    SendSig,
    Data,
    TraceUts1,
    TraceUts2,
    TraceUts3,
    TraceUts4,
    TraceUts5,
    TraceUts6,
    TraceUts7,
};
constexpr std::size_t eventCount = 20;

/// What all events are about.
constexpr const char* object = "bcProc";

/// The fields of all events together; each has those that its row in the provider names. Texts are
/// terminated and never null; `data` holds `dataLength` bytes. Nothing is kept beyond the call.
struct Fields {
    const char* file = "";
    unsigned int line = 0;
    unsigned int sigNo = 0;
    unsigned int pid = 0; ///< the mailbox that a signal is sent to
    unsigned int sec = 0;
    unsigned int usec = 0;
    const char* process = "";
    const char* data = "";
    std::size_t dataLength = 0;
    const char* msg = "";
};

/// Takes all events in place of LTTng, for tests.
class Sink {
public:
    virtual ~Sink() = default;
    virtual void onEvent(Event event, const Fields& fields) = 0;
};

/// Enables all events and hands them to `sink`, or back to LTTng with null. The sink stays the caller's.
/// While no other thread traces.
void setSink(Sink* sink);

/// Where the state of each event lies.
using States = std::array<const int*, eventCount>;
extern constinit States g_states;

inline bool isOn(Event event)
{
    return __atomic_load_n(g_states[static_cast<std::size_t>(event)], __ATOMIC_RELAXED) != 0;
}

/// Fires `event`, which is on.
void fire(Event event, const Fields& fields);

/// The beginning of every process that traces, after its static initialisers: makes the trace masks visible
/// and loads the LTTng probes of the trace library and of the server, where they are installed.
void start();

} // namespace MerlowTracepoints

#define TP_FIRE(event, stream, ...)                                                                          \
    do {                                                                                                     \
        if (MerlowTracepoints::isOn(MerlowTracepoints::Event::event)) [[unlikely]] {                         \
            std::string tpMsg;                                                                               \
            MerlowTracepoints::Fields tpFields;                                                              \
            tpFields.file = tpt_short_fname(__FILE__);                                                       \
            tpFields.line = __LINE__;                                                                        \
            try {                                                                                            \
                std::ostringstream tpText;                                                                   \
                tpText << stream; /* NOLINT(bugprone-macro-parentheses): a chain of << */                    \
                tpMsg = tpText.str();                                                                        \
                tpFields.msg = tpMsg.c_str();                                                                \
            } catch (const std::bad_alloc&) {                                                                \
                tpFields.msg = "ABN: No memory for a trace";                                                 \
            }                                                                                                \
            __VA_ARGS__;                                                                                     \
            MerlowTracepoints::fire(MerlowTracepoints::Event::event, tpFields);                              \
        }                                                                                                    \
    } while (false)

#define TP_ERROR(stream) TP_FIRE(Error, stream)
#define TP_INFO(stream) TP_FIRE(Info, stream)
#define TP_STATE_CHANGE(stream) TP_FIRE(StateChange, stream)
#define TP_TRACE1(stream) TP_FIRE(Trace1, stream)
#define TP_TRACE2(stream) TP_FIRE(Trace2, stream)
#define TP_TRACE3(stream) TP_FIRE(Trace3, stream)
#define TP_TRACE4(stream) TP_FIRE(Trace4, stream)
#define TP_TRACE5(stream) TP_FIRE(Trace5, stream)
#define TP_TRACE6(stream) TP_FIRE(Trace6, stream)
#define TP_TRACE7(stream) TP_FIRE(Trace7, stream)

/// "Entering " and the full signature of the function.
#define TP_ENTERING() TP_TRACE1("Entering " << __PRETTY_FUNCTION__)

#define TP_REC_SIG(signalNumber, stream) TP_FIRE(RecSig, stream, tpFields.sigNo = (signalNumber))
#define TP_SEND_SIG(signalNumber, receiver, stream)                                                          \
    TP_FIRE(SendSig, stream, tpFields.sigNo = (signalNumber), tpFields.pid = (receiver))
#define TP_DATA(stream, bytes, length)                                                                       \
    TP_FIRE(Data, stream, tpFields.data = (bytes), tpFields.dataLength = (length))

#define TP_TRACE_UTS(event, seconds, microseconds, processName, stream, bytes, length)                       \
    TP_FIRE(event, stream, tpFields.sec = (seconds), tpFields.usec = (microseconds),                         \
            tpFields.process = (processName), tpFields.data = (bytes), tpFields.dataLength = (length))
#define TP_TRACE_UTS1(...) TP_TRACE_UTS(TraceUts1, __VA_ARGS__)
#define TP_TRACE_UTS2(...) TP_TRACE_UTS(TraceUts2, __VA_ARGS__)
#define TP_TRACE_UTS3(...) TP_TRACE_UTS(TraceUts3, __VA_ARGS__)
#define TP_TRACE_UTS4(...) TP_TRACE_UTS(TraceUts4, __VA_ARGS__)
#define TP_TRACE_UTS5(...) TP_TRACE_UTS(TraceUts5, __VA_ARGS__)
#define TP_TRACE_UTS6(...) TP_TRACE_UTS(TraceUts6, __VA_ARGS__)
#define TP_TRACE_UTS7(...) TP_TRACE_UTS(TraceUts7, __VA_ARGS__)
