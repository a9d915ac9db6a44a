#include "merlowTracepoints.h"

#include <gtest/gtest.h>
#include <new>
#include <string>
#include <vector>

namespace {

using MerlowTracepoints::Event;
using MerlowTracepoints::Fields;

struct Captured {
    Event event;
    std::string file;
    unsigned int line;
    unsigned int sigNo;
    unsigned int pid;
    unsigned int sec;
    unsigned int usec;
    std::string process;
    std::string data;
    std::string msg;
};

class MerlowTracepointsTest : public ::testing::Test, public MerlowTracepoints::Sink {
protected:
    ~MerlowTracepointsTest() override { MerlowTracepoints::setSink(nullptr); }

    void onEvent(Event event, const Fields& f) override
    {
        m_captured.push_back({event, f.file, f.line, f.sigNo, f.pid, f.sec, f.usec, f.process,
                              std::string(f.data, f.dataLength), f.msg});
    }

    int counted() { return ++m_built; }

    std::vector<Captured> m_captured;
    int m_built = 0;
};

TEST_F(MerlowTracepointsTest, noTextIsBuiltForAnEventThatIsOff)
{
    TP_ERROR("n " << counted());
    TP_REC_SIG(static_cast<unsigned int>(counted()), "n " << counted());
    TP_TRACE_UTS7(1, 2, "p", "n " << counted(), "d", 1);
    EXPECT_EQ(m_built, 0);

    MerlowTracepoints::setSink(this);
    TP_ERROR("n " << counted());
    EXPECT_EQ(m_built, 1);
    EXPECT_EQ(m_captured.size(), 1u);

    MerlowTracepoints::setSink(nullptr);
    TP_ERROR("n " << counted());
    EXPECT_EQ(m_built, 1);
    EXPECT_EQ(m_captured.size(), 1u);
}

TEST_F(MerlowTracepointsTest, eachMacroFiresItsEvent)
{
    MerlowTracepoints::setSink(this);
    TP_ERROR("");
    TP_INFO("");
    TP_STATE_CHANGE("");
    TP_TRACE1("");
    TP_TRACE2("");
    TP_TRACE3("");
    TP_TRACE4("");
    TP_TRACE5("");
    TP_TRACE6("");
    TP_TRACE7("");
    TP_REC_SIG(1, "");
    TP_SEND_SIG(1, 2, "");
    TP_DATA("", "", 0);
    TP_TRACE_UTS1(1, 2, "", "", "", 0);
    TP_TRACE_UTS2(1, 2, "", "", "", 0);
    TP_TRACE_UTS3(1, 2, "", "", "", 0);
    TP_TRACE_UTS4(1, 2, "", "", "", 0);
    TP_TRACE_UTS5(1, 2, "", "", "", 0);
    TP_TRACE_UTS6(1, 2, "", "", "", 0);
    TP_TRACE_UTS7(1, 2, "", "", "", 0);
    ASSERT_EQ(m_captured.size(), MerlowTracepoints::eventCount);
    for (std::size_t i = 0; i < m_captured.size(); ++i) {
        EXPECT_EQ(m_captured[i].event, static_cast<Event>(i));
    }
}

TEST_F(MerlowTracepointsTest, anEventCarriesItsFields)
{
    MerlowTracepoints::setSink(this);
    TP_ERROR("id = 0x" << std::hex << 255);
    TP_REC_SIG(0x17C0201, "Received signal");
    TP_SEND_SIG(0x17C0202, 0xABC, "Sent signal");
    TP_TRACE_UTS7(11, 22, "process", "text", "a\0b", 3);
    ASSERT_EQ(m_captured.size(), 4u);
    EXPECT_EQ(m_captured[0].file, "merlowTracepointsTest.cpp");
    EXPECT_GT(m_captured[0].line, 80u);
    EXPECT_EQ(m_captured[0].msg, "id = 0xff");
    EXPECT_EQ(m_captured[1].sigNo, 0x17C0201u);
    EXPECT_EQ(m_captured[1].msg, "Received signal");
    EXPECT_EQ(m_captured[2].sigNo, 0x17C0202u);
    EXPECT_EQ(m_captured[2].pid, 0xABCu);
    EXPECT_EQ(m_captured[3].sec, 11u);
    EXPECT_EQ(m_captured[3].usec, 22u);
    EXPECT_EQ(m_captured[3].process, "process");
    EXPECT_EQ(m_captured[3].data, std::string("a\0b", 3));
    EXPECT_EQ(m_captured[3].msg, "text");
}

std::string withoutMemory()
{
    throw std::bad_alloc();
}

TEST_F(MerlowTracepointsTest, anEventWithoutMemoryForItsTextGoesWithoutIt)
{
    MerlowTracepoints::setSink(this);
    TP_SEND_SIG(0x17C0202, 0xABC, "Sent " << withoutMemory());
    ASSERT_EQ(m_captured.size(), 1u);
    EXPECT_EQ(m_captured[0].msg, "ABN: No memory for a trace");
    EXPECT_EQ(m_captured[0].sigNo, 0x17C0202u);
    EXPECT_EQ(m_captured[0].pid, 0xABCu);
}

TEST_F(MerlowTracepointsTest, enteringNamesTheFunction)
{
    MerlowTracepoints::setSink(this);
    TP_ENTERING();
    ASSERT_EQ(m_captured.size(), 1u);
    EXPECT_EQ(m_captured[0].msg, std::string("Entering ") + __PRETTY_FUNCTION__);
}

} // namespace
