#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#include "merlowTracepointProvider.h"
