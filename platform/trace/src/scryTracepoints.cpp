#include "scryTracepoints.h"

#include "lineOutput.h"
#include "processRecords.h"
#include "rushlog.h"
#include "scryTrace.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <new>
#include <string>
#include <unistd.h>

#define LTTNG_UST_TRACEPOINT_DEFINE
#define LTTNG_UST_TRACEPOINT_PROBE_DYNAMIC_LINKAGE
#include "scryProvider.h"

void merlow::trace::emitTracepoint(unsigned int level, const char* file, unsigned int line,
                                   const char* object, const char* text)
{
    lttng_ust_tracepoint(scry, trace, level, file, line, object, text);
}

namespace {

/// Why the probes in the folder of this library can't be loaded, 0 when they are.
int loadProbes(const char* file)
try {
    const char* const setting = std::getenv("SCRY_LTTNG");
    if (setting != nullptr && std::strcmp(setting, "0") == 0) {
        return ECANCELED;
    }
    Dl_info self{};
    if (file == nullptr || dladdr(procInfo, &self) == 0 || self.dli_fname == nullptr) {
        return ENOENT;
    }
    const std::string path = std::string(self.dli_fname, short_fname(self.dli_fname)) + file;
    const bool asked = setting != nullptr && *setting != '\0';
    if (access(path.c_str(), F_OK) != 0) {
        if (asked) {
            rushlog_log("RadioPlatform,Trace", ("no LTTng probes: " + path + " is not there").c_str());
        }
        return ENOENT;
    }
    // The probes need LTTng's library; where that is missing, they are of no use and that is all.
    if (dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE) == nullptr) {
        const char* const reason = dlerror();
        if (asked) {
            rushlog_log("RadioPlatform,Trace",
                        (std::string("no LTTng probes: ") + (reason != nullptr ? reason : file)).c_str());
        }
        return ELIBACC;
    }
    return 0;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

} // namespace

int scryLoadProbes(const char* file)
{
    int error = 0;
    {
        const merlow::trace::UnnoticedScope unnoticed;
        error = loadProbes(file);
    }
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

int scryStart()
{
    int result = 0;
    int error = 0;
    {
        const merlow::trace::UnnoticedScope unnoticed;
        result = merlow::trace::publishRecords();
        error = errno;
        loadProbes("libscry-lttng.so");
    }
    if (result != 0) {
        errno = error;
    }
    return result;
}
