/// The library's own LTTng tracepoint, and the loading of probe libraries.
#pragma once

namespace merlow::trace {

/// The event scry:trace, if a recording wants it. `object` is "" for a trace of the process.
void emitTracepoint(unsigned int level, const char* file, unsigned int line, const char* object,
                    const char* text);

} // namespace merlow::trace
