/* The probes of the provider `scry`: a library of its own, so that only a process that loads it has the
 * tracer's threads and needs LTTng to be installed. */
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#include "scryProvider.h"
