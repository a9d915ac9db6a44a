#include "fakeTrace.h"

#include "shortage.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mnet.h>
#include <rushlog.h>
#include <sstream>

namespace {

scry_record g_proc{{0, 0, 0}, 0xFFFFFFFF};
scry_record g_obj{{0, 0, 0}, 0xFFFFFFFF};

} // namespace

namespace support {

Traces& Traces::instance()
{
    static Traces traces;
    return traces;
}

void Traces::reset()
{
    clear();
    g_proc.mask = 0xFFFFFFFF;
    g_obj.mask = 0xFFFFFFFF;
}

void Traces::clear()
{
    m_lines.clear();
    m_rushlog.clear();
}

void Traces::setProcMask(std::uint32_t mask)
{
    g_proc.mask = mask;
}

void Traces::setObjMask(std::uint32_t mask)
{
    g_obj.mask = mask;
}

std::size_t Traces::count(unsigned int level, const std::string& text) const
{
    return static_cast<std::size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const TraceLine& line) {
        return line.level == level && line.text == text;
    }));
}

bool Traces::contains(unsigned int level, const std::string& part) const
{
    return std::any_of(m_lines.begin(), m_lines.end(), [&](const TraceLine& line) {
        return line.level == level && line.text.find(part) != std::string::npos;
    });
}

std::string Traces::dump() const
{
    std::ostringstream out;
    for (const auto& line : m_lines) {
        out << line.level << ": " << line.text << '\n';
    }
    return out.str();
}

} // namespace support

using support::Traces;

__thread const scry_record* procInfo = &g_proc;

const scry_record* scryTraceObj(const char* /*name*/)
{
    const support::shortage::Pause pause;
    return &g_obj;
}

int scryStart()
{
    const support::shortage::Pause pause;
    return 0;
}

int scryLoadProbes(const char* /*file*/)
{
    const support::shortage::Pause pause;
    return 0;
}

const char* short_fname(const char* path)
{
    const support::shortage::Pause pause;
    const char* slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

const char* tpt_short_fname(const char* path)
{
    const support::shortage::Pause pause;
    return short_fname(path);
}

void lttngScryTrace(unsigned int level, const char* /*file*/, unsigned int /*line*/, const char* text,
                    const scry_record* /*proc*/)
{
    const support::shortage::Pause pause;
    Traces::instance().add(support::TraceLine{.level = level, .text = text});
}

void lttngScryIfObjTrace(unsigned int level, const char* /*file*/, unsigned int /*line*/, const char* text,
                         const scry_record* /*proc*/, const scry_record* /*obj*/)
{
    const support::shortage::Pause pause;
    Traces::instance().add(support::TraceLine{.level = level, .text = text});
}

void lttngScryIfObjRecSigTrace(const char* /*file*/, unsigned int /*line*/, const struct mnet_msg* msg,
                               const char* text, const scry_record* /*proc*/, const scry_record* /*obj*/)
{
    const support::shortage::Pause pause;
    Traces::instance().add(support::TraceLine{
        .level = SCRY_LEVEL_RECEIVED, .text = text, .sigNo = msg == nullptr ? 0 : msg->msgNo});
}

void lttngScryIfObjSendSigTrace(const char* /*file*/, unsigned int /*line*/, uint32_t sigNo,
                                uint32_t receiver, const char* text, const scry_record* /*proc*/,
                                const scry_record* /*obj*/)
{
    const support::shortage::Pause pause;
    Traces::instance().add(
        support::TraceLine{.level = SCRY_LEVEL_SENT, .text = text, .sigNo = sigNo, .receiver = receiver});
}

std::string formatStr(const char* format, ...)
{
    const support::shortage::Pause pause;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (!text.empty()) {
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

void rushlog_log(const char* category, const char* text)
{
    const support::shortage::Pause pause;
    Traces::instance().add(support::RushlogLine{.category = category, .text = text});
}
