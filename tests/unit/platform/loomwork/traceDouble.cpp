#include "traceDouble.h"

#include "rushlog.h"
#include "scryTrace.h"

#include <mutex>
#include <utility>

namespace traceDouble {

namespace {

std::mutex mutex;
std::vector<Trace> traces;
std::vector<std::string> lines;

} // namespace

std::vector<Trace> takeTraces()
{
    const std::lock_guard lock(mutex);
    return std::exchange(traces, {});
}

std::vector<std::string> takeLogLines()
{
    const std::lock_guard lock(mutex);
    return std::exchange(lines, {});
}

} // namespace traceDouble

void lttngScryTrace(unsigned int level, const char* /*file*/, unsigned int /*line*/, const char* text,
                    const scry_record* /*proc*/)
{
    const std::lock_guard lock(traceDouble::mutex);
    traceDouble::traces.push_back({level, text});
}

void lttngScryIfObjRecSigTrace(const char* /*file*/, unsigned int /*line*/, const mnet_msg* /*msg*/,
                               const char* text, const scry_record* /*proc*/, const scry_record* /*obj*/)
{
    const std::lock_guard lock(traceDouble::mutex);
    traceDouble::traces.push_back({traceDouble::receivedSignal, text});
}

void rushlog_log(const char* category, const char* text)
{
    const std::lock_guard lock(traceDouble::mutex);
    traceDouble::lines.push_back(std::string(category) + ": " + text);
}
