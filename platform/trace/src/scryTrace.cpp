#include "scryTrace.h"

#include "lineOutput.h"
#include "processRecords.h"
#include "scryTracepoints.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace merlow::trace;

namespace {

struct Site {
    unsigned int level;
    const char* file;
    unsigned int line;
};

void emitLine(const char* target, const Site& site, const char* object, const char* text)
{
    TextLine line;
    line.now() << " " << processName() << "." << static_cast<unsigned long>(processId()) << " "
               << static_cast<unsigned long>(site.level) << " " << site.file << ":"
               << static_cast<unsigned long>(site.line) << " ";
    if (*object != '\0') {
        line << "[" << object << "] ";
    }
    line << text;
    appendLine(target, line.ended());
}

void emit(const Site& site, const scry_record* object, const char* text)
{
    char name[sizeof(RecordEntry::name) + 1] = "";
    if (object != nullptr) {
        objectName(object, name);
    }
    emitTracepoint(site.level, site.file, site.line, name, text);
    const char* const target = std::getenv("SCRY_OUT");
    if (target != nullptr && *target != '\0') {
        emitLine(target, site, name, text);
    }
}

const char* orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

} // namespace

const char* short_fname(const char* path)
{
    const char* const slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
    return slash != nullptr ? slash + 1 : orEmpty(path);
}

const char* tpt_short_fname(const char* path)
{
    return short_fname(path);
}

void lttngScryTrace(unsigned int level, const char* file, unsigned int line, const char* text,
                    const scry_record* /*proc*/)
{
    const UnnoticedScope unnoticed;
    emit({level, orEmpty(file), line}, nullptr, orEmpty(text));
}

void lttngScryIfObjTrace(unsigned int level, const char* file, unsigned int line, const char* text,
                         const scry_record* /*proc*/, const scry_record* obj)
{
    const UnnoticedScope unnoticed;
    emit({level, orEmpty(file), line}, obj, orEmpty(text));
}

void lttngScryIfObjRecSigTrace(const char* file, unsigned int line, const struct mnet_msg* msg,
                               const char* text, const scry_record* /*proc*/, const scry_record* obj)
{
    const UnnoticedScope unnoticed;
    TextLine whole;
    whole << "REC ";
    if (msg != nullptr) {
        std::uint32_t number = 0;
        std::memcpy(&number, msg, sizeof number);
        whole.hex(number) << " ";
    }
    whole << text;
    emit({SCRY_LEVEL_RECEIVED, orEmpty(file), line}, obj, whole.c_str());
}

void lttngScryIfObjSendSigTrace(const char* file, unsigned int line, uint32_t sigNo, uint32_t receiver,
                                const char* text, const scry_record* /*proc*/, const scry_record* obj)
{
    const UnnoticedScope unnoticed;
    TextLine whole;
    whole << "SEND ";
    whole.hex(sigNo) << " to ";
    whole.hex(receiver) << " " << text;
    emit({SCRY_LEVEL_SENT, orEmpty(file), line}, obj, whole.c_str());
}

std::string formatStr(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text;
    if (length > 0) {
        try {
            text.resize(static_cast<std::size_t>(length));
        } catch (const std::bad_alloc&) {
            return {};
        }
        va_start(args, format);
        std::vsnprintf(text.data(), text.size() + 1, format, args);
        va_end(args);
    }
    return text;
}
