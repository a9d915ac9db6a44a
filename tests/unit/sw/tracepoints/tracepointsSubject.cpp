// A program with the server's tracepoints and the trace library: says what is on, and fires everything.

#include "merlowTracepoints.h"

#include <cstdint>
#include <iostream>
#include <string>

namespace {

void fireAll()
{
    TP_ERROR("error text");
    TP_INFO("info text");
    TP_STATE_CHANGE("state text");
    TP_TRACE1("trace1 text");
    TP_TRACE2("trace2 text");
    TP_TRACE3("trace3 text");
    TP_TRACE4("trace4 text");
    TP_TRACE5("trace5 text");
    TP_TRACE6("trace6 text");
    TP_TRACE7("trace7 text");
    TP_REC_SIG(0x17C0201, "rec text");
    TP_SEND_SIG(0x17C0202, 0xABC, "send text");
    TP_DATA("data text", "\x01\xff", 2);
    TP_TRACE_UTS1(11, 22, "process", "uts1 text", "\x02", 1);
    TP_TRACE_UTS2(11, 22, "process", "uts2 text", "\x02", 1);
    TP_TRACE_UTS3(11, 22, "process", "uts3 text", "\x02", 1);
    TP_TRACE_UTS4(11, 22, "process", "uts4 text", "\x02", 1);
    TP_TRACE_UTS5(11, 22, "process", "uts5 text", "\x02", 1);
    TP_TRACE_UTS6(11, 22, "process", "uts6 text", "\x02", 1);
    TP_TRACE_UTS7(11, 22, "process", "uts7 text", "\x02", 1);

    const scry_record* object = scryTraceObj("Merlow");
    const std::uint32_t number = 0x1658000;
    lttngScryTrace(4, "a.cpp", 12, "scry text", procInfo);
    lttngScryIfObjTrace(5, "b.cpp", 13, "flow text", procInfo, object);
    lttngScryIfObjRecSigTrace("c.cpp", 14, reinterpret_cast<const mnet_msg*>(&number), "in", procInfo,
                              object);
    lttngScryIfObjSendSigTrace("d.cpp", 15, 0x1658001, 0xABC, "out", procInfo, object);
}

} // namespace

int main()
{
    MerlowTracepoints::start();
    std::string command;
    while (std::getline(std::cin, command)) {
        if (command == "fire") {
            fireAll();
        }
        std::cout << (MerlowTracepoints::isOn(MerlowTracepoints::Event::TraceUts7) ? "on" : "off")
                  << std::endl;
    }
}
