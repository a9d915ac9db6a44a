// A traced program that does what it is told on its standard input, one command a line, and answers each with
// one line.

#include "rushlog.h"
#include "scryTrace.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

const scry_record* g_object = scryTraceObj("Subject"); // as early as a program can

bool isOn(unsigned int level)
{
    return (procInfo->mask >> level & 1u) != 0;
}

bool isObjectOn(unsigned int level)
{
    return isOn(SCRY_OBJ_BIT) && (g_object->mask >> level & 1u) != 0;
}

std::string rest(std::istringstream& words)
{
    std::string text;
    std::getline(words >> std::ws, text);
    return text;
}

std::string masks()
{
    return formatStr("%x %x", procInfo->mask, g_object->mask);
}

std::string trace(std::istringstream& words, bool ofObject)
{
    unsigned int level = 0;
    words >> level;
    if (!(ofObject ? isObjectOn(level) : isOn(level))) {
        return "silent";
    }
    const std::string text = rest(words);
    if (ofObject) {
        lttngScryIfObjTrace(level, short_fname("/some/where/object.cpp"), 7, text.c_str(), procInfo,
                            g_object);
    } else {
        lttngScryTrace(level, short_fname("/some/where/process.cpp"), 8, text.c_str(), procInfo);
    }
    return "traced";
}

std::string signals()
{
    const std::uint32_t number = 0x1658000;
    lttngScryIfObjRecSigTrace("rec.cpp", 1, reinterpret_cast<const mnet_msg*>(&number), "in", procInfo,
                              g_object);
    lttngScryIfObjSendSigTrace("send.cpp", 2, 0x1658001, 0xABC, "out", procInfo, g_object);
    return "traced";
}

std::string manyObjects(unsigned int count)
{
    const scry_record* last = nullptr;
    for (unsigned int i = 0; i < count; ++i) {
        last = scryTraceObj(formatStr("object%u", i).c_str());
    }
    return last == scryTraceObj("one more") ? "shared" : "own";
}

std::string obey(const std::string& command)
{
    std::istringstream words(command);
    std::string verb;
    words >> verb;
    if (verb == "masks") {
        return masks();
    }
    if (verb == "trace" || verb == "object") {
        return trace(words, verb == "object");
    }
    if (verb == "signals") {
        return signals();
    }
    if (verb == "new") {
        return formatStr("%x", scryTraceObj(rest(words).c_str())->mask);
    }
    if (verb == "many") {
        unsigned int count = 0;
        words >> count;
        return manyObjects(count);
    }
    if (verb == "log") {
        rushlog_log("Category", rest(words).c_str());
        return "logged";
    }
    if (verb == "start") {
        errno = 0;
        const int result = scryStart();
        return result == 0 ? "0" : std::string("-1 ") + strerror(errno);
    }
    if (verb == "rundir") {
        setenv("MERLOW_RUN_DIR", rest(words).c_str(), 1);
        return "set";
    }
    if (verb == "fork") { // the child goes on, the parent is gone
        if (fork() != 0) {
            _exit(0);
        }
        return std::to_string(getpid());
    }
    return "unknown command";
}

} // namespace

int main()
{
    std::string command;
    while (std::getline(std::cin, command)) {
        std::cout << obey(command) << std::endl;
    }
}
