#include "rushlog.h"

#include "lineOutput.h"
#include "processRecords.h"
#include "rushlogCount.h"

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<unsigned long> g_lost{0};

constexpr const char* systemLog = "/dev/log";
constexpr const char* priority = "<134>"; // local0, info

const char* fromEnvironment(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

} // namespace

void merlow::trace::forgetLostLines()
{
    g_lost = 0;
}

void rushlog_log(const char* category, const char* text)
{
    using namespace merlow::trace;
    const UnnoticedScope unnoticed;
    const char* const target = fromEnvironment("RUSHLOG_OUT");
    const unsigned long lost = g_lost.exchange(0);
    const auto pid = static_cast<unsigned long>(processId());

    TextLine line;
    if (target != nullptr) {
        line.now() << " " << processName() << "." << pid << " ";
    } else {
        line << priority << processName() << "[" << pid << "]: ";
    }
    if (lost > 0) {
        line << "(" << lost << (lost == 1 ? " line was lost) " : " lines were lost) ");
    }
    line << category << ": " << text;

    const char* const socket = fromEnvironment("RUSHLOG_SOCKET");
    const bool done = target != nullptr ? appendLine(target, line.ended())
                                        : sendDatagram(socket != nullptr ? socket : systemLog, line.text());
    if (!done) {
        g_lost += lost + 1;
    }
}
