#include "merlowTracepoints.h"

#define LTTNG_UST_TRACEPOINT_DEFINE
#define LTTNG_UST_TRACEPOINT_PROBE_DYNAMIC_LINKAGE
#include "merlowTracepointProvider.h"

namespace MerlowTracepoints {

namespace {

/// Each event with its name and its fields in the provider.
#define FOR_EACH_EVENT(DO)                                                                                   \
    DO(Error, ERROR, PLAIN_ARGUMENTS)                                                                        \
    DO(Info, INFO, PLAIN_ARGUMENTS)                                                                          \
    DO(StateChange, STATE_CHANGE, OBJECT_ARGUMENTS)                                                          \
    DO(Trace1, TRACE1, OBJECT_ARGUMENTS)                                                                     \
    DO(Trace2, TRACE2, OBJECT_ARGUMENTS)                                                                     \
    DO(Trace3, TRACE3, OBJECT_ARGUMENTS)                                                                     \
    DO(Trace4, TRACE4, OBJECT_ARGUMENTS)                                                                     \
    DO(Trace5, TRACE5, OBJECT_ARGUMENTS)                                                                     \
    DO(Trace6, TRACE6, OBJECT_ARGUMENTS)                                                                     \
    DO(Trace7, TRACE7, OBJECT_ARGUMENTS)                                                                     \
    DO(RecSig, REC_SIG, REC_SIG_ARGUMENTS)                                                                   \
    DO(SendSig, SEND_SIG, SEND_SIG_ARGUMENTS)                                                                \
    DO(Data, DATA, DATA_ARGUMENTS)                                                                           \
    DO(TraceUts1, TRACE_UTS1, UTS_ARGUMENTS)                                                                 \
    DO(TraceUts2, TRACE_UTS2, UTS_ARGUMENTS)                                                                 \
    DO(TraceUts3, TRACE_UTS3, UTS_ARGUMENTS)                                                                 \
    DO(TraceUts4, TRACE_UTS4, UTS_ARGUMENTS)                                                                 \
    DO(TraceUts5, TRACE_UTS5, UTS_ARGUMENTS)                                                                 \
    DO(TraceUts6, TRACE_UTS6, UTS_ARGUMENTS)                                                                 \
    DO(TraceUts7, TRACE_UTS7, UTS_ARGUMENTS)

#define STATE_OF(event, name, arguments) &lttng_ust_tracepoint_com_vorlund_radiosw_merlow___##name.state,
constexpr States lttngStates{FOR_EACH_EVENT(STATE_OF)};
#undef STATE_OF

constexpr int alwaysOn = 1;

Sink* g_sink = nullptr;

// The arguments of each kind of event, in the provider's order.
#define PLAIN_ARGUMENTS fields.file, fields.line, fields.msg
#define OBJECT_ARGUMENTS fields.file, fields.line, object, fields.msg
#define REC_SIG_ARGUMENTS fields.file, fields.line, object, fields.sigNo, fields.msg
#define SEND_SIG_ARGUMENTS fields.file, fields.line, object, fields.sigNo, fields.pid, fields.msg
#define DATA_ARGUMENTS fields.file, fields.line, object, fields.msg, fields.data, fields.dataLength
#define UTS_ARGUMENTS                                                                                        \
    fields.file, fields.line, fields.sec, fields.usec, fields.process, fields.msg, fields.data,              \
        fields.dataLength

} // namespace

constinit States g_states = lttngStates;

void setSink(Sink* sink)
{
    g_sink = sink;
    g_states = lttngStates;
    if (sink != nullptr) {
        g_states.fill(&alwaysOn);
    }
}

void fire(Event event, const Fields& fields)
{
    if (g_sink != nullptr) {
        g_sink->onEvent(event, fields);
        return;
    }
    switch (event) {
#define FIRE(event, name, arguments)                                                                         \
    case Event::event:                                                                                       \
        lttng_ust_do_tracepoint(com_vorlund_radiosw_merlow, name, arguments);                                \
        break;
        FOR_EACH_EVENT(FIRE)
#undef FIRE
    }
}

void start()
{
    // Failures are told to the remote log, and the server works without a recording.
    static_cast<void>(scryStart());
    static_cast<void>(scryLoadProbes("libmerlow-lttng.so"));
}

} // namespace MerlowTracepoints
