// Frames in heap blocks of exactly their size: what is read behind a block's end, a sanitizer sees.

#include "mnetGpbMessage.h"

#include "bri.pb.h"
#include "traceDouble.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>

namespace bri = boardresourcehandler::bri;
using Loomwork::Util::MnetGpbMessage;

namespace {

std::map<const mnet_msg*, std::size_t> sizes;

/// A message as the mailbox library gives it out.
class Message {
public:
    explicit Message(const std::string& bytes) : m_block(new char[bytes.size()])
    {
        std::memcpy(m_block.get(), bytes.data(), bytes.size());
        sizes[get()] = bytes.size();
    }
    ~Message() { sizes.erase(get()); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    [[nodiscard]] const mnet_msg* get() const { return reinterpret_cast<const mnet_msg*>(m_block.get()); }

private:
    std::unique_ptr<char[]> m_block;
};

/// Number 0x1707746 or 24147782, procedure 7, connection 0x01020304 or 16909060, then `body`.
std::string frame(const std::string& body)
{
    const std::uint32_t number = 0x1707746;
    std::string bytes(reinterpret_cast<const char*>(&number), sizeof(number));
    return bytes + std::string("\0\0\0\7\1\2\3\4", 8) + body;
}

/// A process and an object with the given levels, in place of this thread's.
class Levels {
public:
    Levels(std::uint32_t process, std::uint32_t object) : m_before(procInfo)
    {
        m_process.mask = process;
        m_object.mask = object;
        procInfo = &m_process;
        traceDouble::takeTraces();
    }
    ~Levels() { procInfo = m_before; }
    Levels(const Levels&) = delete;
    Levels& operator=(const Levels&) = delete;

    [[nodiscard]] const scry_record* object() const { return &m_object; }

private:
    const scry_record* m_before;
    scry_record m_process{};
    scry_record m_object{};
};

constexpr std::uint32_t bit(unsigned int level)
{
    return 1u << level;
}

constexpr std::uint32_t everything = 0xFFFFFFFFu;

const std::string twoEntries = "\x0A\x03one\x0A\x03two";

} // namespace

size_t mnet_size(const mnet_msg* msg)
{
    return sizes.at(msg);
}

TEST(MnetGpbMessage, givesReferencesInHostOrderAndTheMessage)
{
    const Levels levels(bit(SCRY_OBJ_BIT), bit(SCRY_LEVEL_RECEIVED));
    const Message message(frame(twoEntries));
    const MnetGpbMessage<bri::HwLogGetCfm> received(message.get(), levels.object());
    ASSERT_TRUE(received.valid());
    EXPECT_EQ(received.msgNo(), 0x1707746u);
    EXPECT_EQ(received.procedureRef(), 7u);
    EXPECT_EQ(received.connectionRef(), 0x01020304u);
    ASSERT_EQ(received.get().entries_size(), 2);
    EXPECT_EQ(received.get().entries(0), "one");
    EXPECT_EQ(received.get().entries(1), "two");

    const auto traces = traceDouble::takeTraces();
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0].level, traceDouble::receivedSignal);
    EXPECT_EQ(traces[0].text, "msgNo:24147782 procedureRef:7 connectionRef:16909060 "
                              "boardresourcehandler.bri.HwLogGetCfm:{entries: \"one\" entries: \"two\"}");
}

TEST(MnetGpbMessage, takesABareHeaderForAnEmptyMessage)
{
    const Levels levels(everything, everything);
    const Message message(frame(""));
    const MnetGpbMessage<bri::HwLogGetCfm> received(message.get(), levels.object());
    EXPECT_TRUE(received.valid());
    EXPECT_EQ(received.get().entries_size(), 0);
    const auto traces = traceDouble::takeTraces();
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0].text, "msgNo:24147782 procedureRef:7 connectionRef:16909060 "
                              "boardresourcehandler.bri.HwLogGetCfm:{}");
}

TEST(MnetGpbMessage, failsForEachSizeBelowTheHeader)
{
    for (std::size_t size = 4; size < 12; ++size) {
        const Levels levels(everything, everything);
        const Message message(frame("").substr(0, size));
        const MnetGpbMessage<bri::HwLogGetCfm> received(message.get(), levels.object());
        EXPECT_FALSE(received.valid()) << size;
        EXPECT_EQ(received.msgNo(), 0x1707746u) << size;
        EXPECT_EQ(received.procedureRef(), size >= 8 ? 7u : 0u) << size;
        EXPECT_EQ(received.connectionRef(), 0u) << size;
        const auto traces = traceDouble::takeTraces();
        ASSERT_EQ(traces.size(), 1u) << size;
        EXPECT_EQ(traces[0].level, 1u);
        EXPECT_EQ(traces[0].text,
                  "Unable to parse GPB message boardresourcehandler.bri.HwLogGetCfm of size " +
                      std::to_string(size) + " bytes");
    }
}

TEST(MnetGpbMessage, failsForAMessageThatIsCutOrSpoiled)
{
    const std::string whole = frame(twoEntries);
    for (std::size_t size = 13; size < whole.size(); ++size) {
        const Levels levels(everything, everything);
        const Message message(whole.substr(0, size));
        const MnetGpbMessage<bri::HwLogGetCfm> received(message.get(), levels.object());
        const bool betweenFields = size == 12 + 5;
        EXPECT_EQ(received.valid(), betweenFields) << size;
        EXPECT_EQ(received.get().entries_size(), betweenFields ? 1 : 0)
            << "nothing half parsed, size " << size;
        const auto traces = traceDouble::takeTraces();
        ASSERT_EQ(traces.size(), 1u);
        EXPECT_EQ(traces[0].level, betweenFields ? traceDouble::receivedSignal : 1u);
    }
    const Levels levels(everything, everything);
    const Message lying(frame("\x0A\x7Fx"));
    EXPECT_FALSE(MnetGpbMessage<bri::HwLogGetCfm>(lying.get(), levels.object()).valid());
    const auto traces = traceDouble::takeTraces();
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0].text,
              "Unable to parse GPB message boardresourcehandler.bri.HwLogGetCfm of size 15 bytes");
}

TEST(MnetGpbMessage, readsAnUnknownValueOfAnEnumerationAsAbsent)
{
    const Levels levels(0, 0);
    const Message message(frame("\x08\x63"));
    const MnetGpbMessage<bri::HwLogGetRej> received(message.get(), levels.object());
    EXPECT_TRUE(received.valid());
    EXPECT_FALSE(received.get().has_errortype());
}

TEST(MnetGpbMessage, tracesNothingThatIsNotAskedFor)
{
    const Message good(frame(twoEntries));
    const Message bad(frame("\x0A\x7Fx"));
    const auto tracesWith = [&](std::uint32_t process, std::uint32_t object, bool withObject) {
        const Levels levels(process, object);
        const scry_record* traceObj = withObject ? levels.object() : nullptr;
        EXPECT_TRUE(MnetGpbMessage<bri::HwLogGetCfm>(good.get(), traceObj).valid());
        EXPECT_FALSE(MnetGpbMessage<bri::HwLogGetCfm>(bad.get(), traceObj).valid());
        return traceDouble::takeTraces().size();
    };
    EXPECT_EQ(tracesWith(everything, everything, true), 2u);
    EXPECT_EQ(tracesWith(0, everything, true), 0u);
    EXPECT_EQ(tracesWith(~bit(1), 0, true), 0u);
    EXPECT_EQ(tracesWith(~bit(1), ~bit(SCRY_LEVEL_RECEIVED), true), 0u);
    EXPECT_EQ(tracesWith(~bit(1) & ~bit(SCRY_OBJ_BIT), everything, true), 0u);
    EXPECT_EQ(tracesWith(bit(1), everything, true), 1u);
    EXPECT_EQ(tracesWith(everything, everything, false), 1u);
}
