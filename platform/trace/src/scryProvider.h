/* The LTTng provider `scry`. Read several times by the LTTng headers, hence no plain include guard. */
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER scry

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "scryProvider.h"

#if !defined(SCRYPROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define SCRYPROVIDER_H

#include <lttng/tracepoint.h>

/* clang-format off */
LTTNG_UST_TRACEPOINT_EVENT(scry, trace,
    LTTNG_UST_TP_ARGS(unsigned int, level, const char*, file, unsigned int, line, const char*, obj,
                      const char*, text),
    LTTNG_UST_TP_FIELDS(
        lttng_ust_field_integer(unsigned int, level, level)
        lttng_ust_field_string(file, file)
        lttng_ust_field_integer(unsigned int, line, line)
        lttng_ust_field_string(obj, obj)
        lttng_ust_field_string(text, text)))
/* clang-format on */

#endif

#include <lttng/tracepoint-event.h>
