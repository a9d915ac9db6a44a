#include "merlowTrace.h"

const scry_record* MerlowTraceObj = scryTraceObj("Merlow");
