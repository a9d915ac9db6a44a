/* The LTTng provider com_vorlund_radiosw_merlow. Read several times by the LTTng headers, hence no plain
 * include guard. For merlowTracepoints.cpp and the probe library only: everybody else traces by the macros of
 * merlowTracepoints.h, out of reach of event names such as ERROR that other headers define as macros. */
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER com_vorlund_radiosw_merlow

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "merlowTracepointProvider.h"

#if !defined(MERLOWTRACEPOINTPROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define MERLOWTRACEPOINTPROVIDER_H

#include <lttng/tracepoint.h>
#include <stddef.h>
#include <stdint.h>

/* clang-format off */

#define MERLOW_PLAIN_ARGS                                                                                    \
    LTTNG_UST_TP_ARGS(const char*, file, unsigned int, line, const char*, msg)
#define MERLOW_OBJECT_ARGS                                                                                   \
    LTTNG_UST_TP_ARGS(const char*, file, unsigned int, line, const char*, obj, const char*, msg)
#define MERLOW_UTS_ARGS                                                                                      \
    LTTNG_UST_TP_ARGS(const char*, file, unsigned int, line, unsigned int, sec, unsigned int, usec,          \
                      const char*, process, const char*, msg, const char*, data, size_t, datalen)

/* ERROR, INFO */
LTTNG_UST_TRACEPOINT_EVENT_CLASS(com_vorlund_radiosw_merlow, plain, MERLOW_PLAIN_ARGS,
    LTTNG_UST_TP_FIELDS(
        lttng_ust_field_string(file, file)
        lttng_ust_field_integer(unsigned int, line, line)
        lttng_ust_field_string(msg, msg)))

LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(com_vorlund_radiosw_merlow, plain, com_vorlund_radiosw_merlow, ERROR,
    MERLOW_PLAIN_ARGS)
LTTNG_UST_TRACEPOINT_LOGLEVEL(com_vorlund_radiosw_merlow, ERROR, LTTNG_UST_TRACEPOINT_LOGLEVEL_ERR)
LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(com_vorlund_radiosw_merlow, plain, com_vorlund_radiosw_merlow, INFO,
    MERLOW_PLAIN_ARGS)
LTTNG_UST_TRACEPOINT_LOGLEVEL(com_vorlund_radiosw_merlow, INFO, LTTNG_UST_TRACEPOINT_LOGLEVEL_INFO)

/* STATE_CHANGE, TRACE1 to TRACE7 */
LTTNG_UST_TRACEPOINT_EVENT_CLASS(com_vorlund_radiosw_merlow, object, MERLOW_OBJECT_ARGS,
    LTTNG_UST_TP_FIELDS(
        lttng_ust_field_string(file, file)
        lttng_ust_field_integer(unsigned int, line, line)
        lttng_ust_field_string(obj, obj)
        lttng_ust_field_string(msg, msg)))

#define MERLOW_OBJECT_EVENT(name)                                                                            \
    LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(com_vorlund_radiosw_merlow, object, com_vorlund_radiosw_merlow, name, \
        MERLOW_OBJECT_ARGS)
MERLOW_OBJECT_EVENT(STATE_CHANGE)
MERLOW_OBJECT_EVENT(TRACE1)
MERLOW_OBJECT_EVENT(TRACE2)
MERLOW_OBJECT_EVENT(TRACE3)
MERLOW_OBJECT_EVENT(TRACE4)
MERLOW_OBJECT_EVENT(TRACE5)
MERLOW_OBJECT_EVENT(TRACE6)
MERLOW_OBJECT_EVENT(TRACE7)

LTTNG_UST_TRACEPOINT_EVENT(com_vorlund_radiosw_merlow, REC_SIG,
    LTTNG_UST_TP_ARGS(const char*, file, unsigned int, line, const char*, obj, unsigned int, sig_no,
                      const char*, msg),
    LTTNG_UST_TP_FIELDS(
        lttng_ust_field_string(file, file)
        lttng_ust_field_integer(unsigned int, line, line)
        lttng_ust_field_string(obj, obj)
        lttng_ust_field_integer_hex(unsigned int, sig_no, sig_no)
        lttng_ust_field_string(msg, msg)))

LTTNG_UST_TRACEPOINT_EVENT(com_vorlund_radiosw_merlow, SEND_SIG,
    LTTNG_UST_TP_ARGS(const char*, file, unsigned int, line, const char*, obj, unsigned int, sig_no,
                      unsigned int, pid, const char*, msg),
    LTTNG_UST_TP_FIELDS(
        lttng_ust_field_string(file, file)
        lttng_ust_field_integer(unsigned int, line, line)
        lttng_ust_field_string(obj, obj)
        lttng_ust_field_integer_hex(unsigned int, sig_no, sig_no)
        lttng_ust_field_integer_hex(unsigned int, pid, pid)
        lttng_ust_field_string(msg, msg)))

LTTNG_UST_TRACEPOINT_EVENT(com_vorlund_radiosw_merlow, DATA,
    LTTNG_UST_TP_ARGS(const char*, file, unsigned int, line, const char*, obj, const char*, msg,
                      const char*, data, size_t, datalen),
    LTTNG_UST_TP_FIELDS(
        lttng_ust_field_string(file, file)
        lttng_ust_field_integer(unsigned int, line, line)
        lttng_ust_field_string(obj, obj)
        lttng_ust_field_string(msg, msg)
        lttng_ust_field_sequence_hex(uint8_t, data, data, size_t, datalen)
        lttng_ust_field_integer(size_t, datalen, datalen)))

/* TRACE_UTS1 to TRACE_UTS7 */
LTTNG_UST_TRACEPOINT_EVENT_CLASS(com_vorlund_radiosw_merlow, uts, MERLOW_UTS_ARGS,
    LTTNG_UST_TP_FIELDS(
        lttng_ust_field_string(file, file)
        lttng_ust_field_integer(unsigned int, line, line)
        lttng_ust_field_integer(unsigned int, sec, sec)
        lttng_ust_field_integer(unsigned int, usec, usec)
        lttng_ust_field_string(process, process)
        lttng_ust_field_string(msg, msg)
        lttng_ust_field_sequence_hex(uint8_t, data, data, size_t, datalen)
        lttng_ust_field_integer(size_t, datalen, datalen)))

#define MERLOW_UTS_EVENT(name)                                                                               \
    LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(com_vorlund_radiosw_merlow, uts, com_vorlund_radiosw_merlow, name,   \
        MERLOW_UTS_ARGS)
MERLOW_UTS_EVENT(TRACE_UTS1)
MERLOW_UTS_EVENT(TRACE_UTS2)
MERLOW_UTS_EVENT(TRACE_UTS3)
MERLOW_UTS_EVENT(TRACE_UTS4)
MERLOW_UTS_EVENT(TRACE_UTS5)
MERLOW_UTS_EVENT(TRACE_UTS6)
MERLOW_UTS_EVENT(TRACE_UTS7)

/* clang-format on */

#endif

#include <lttng/tracepoint-event.h>
