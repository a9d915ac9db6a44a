// bcictl's capabilities against a unit with fixed answers: signals as bytes, what is told as text.

#include "bcictlFixture.h"

namespace merlow::bcictl {
namespace {

using testing::HasSubstr;

/// A record of 220 bytes that begins with `hex`.
std::string capabilityRecord(const std::string& hex)
{
    return padded(hex, 220);
}

class CapabilitiesCommandTest : public BcictlTest {
protected:
    /// A unit whose confirm has `fields` behind the references.
    void startUnitWith(const std::string& fields)
    {
        startUnit({{0x1658007, {{0x1658008, references + fields}}}});
    }
    /// The list without its first line, of a unit with this one record.
    std::string listOf(const std::string& record)
    {
        m_unit.reset();
        startUnitWith("0001 eeee" + capabilityRecord(record));
        EXPECT_EQ(run({"capabilities"}), 0) << m_err.str();
        const auto text = m_out.str();
        EXPECT_THAT(text, testing::StartsWith("1 capability\n"));
        return text.substr(text.find('\n') + 1);
    }
    /// What a unit with this one record tells of it as JSON.
    std::string jsonOf(const std::string& record)
    {
        m_unit.reset();
        startUnitWith("0001 eeee" + capabilityRecord(record));
        EXPECT_EQ(run({"capabilities", "--json"}), 0) << m_err.str();
        const auto text = m_out.str();
        const auto start = text.find('[');
        return text.substr(start, text.rfind(']') + 1 - start);
    }
};

TEST_F(CapabilitiesCommandTest, nothingIsAListToo)
{
    startUnitWith("0000 eeee");
    EXPECT_EQ(run({"capabilities"}), 0);
    EXPECT_EQ(m_out.str(), "0 capabilities\n");
    EXPECT_EQ(m_unit->received(0x1658007), "000000010000012d");
    EXPECT_EQ(run({"capabilities", "--json"}), 0);
    EXPECT_EQ(m_out.str(),
              R"({"command":"capabilities","status":"done","sent":"TARN_BC_GET_CAPABILITIES_REQ",)"
              R"("answer":"TARN_BC_GET_CAPABILITIES_CFM","clientRef":1,"serverRef":301,"capabilities":[]})"
              "\n");
}

TEST_F(CapabilitiesCommandTest, eachRecordHasALineInItsOrder)
{
    startUnitWith("0003 eeee" + capabilityRecord("0018 00dc") + capabilityRecord("0007 00dc eeee") +
                  capabilityRecord("ffff 00dc ee") + "eeeeeeee"); // longer than its records
    EXPECT_EQ(run({"capabilities"}), 0);
    EXPECT_EQ(m_out.str(), "3 capabilities\n   24  platform capability\n    7  common MMI\n"
                           "  65535  unknown\n");
}

struct CapabilityContent {
    const char* record;
    const char* text;
    const char* json;
};

TEST_F(CapabilitiesCommandTest, contentIsDecoded)
{
    const CapabilityContent contents[] = {
        {"0001 00dc 0001 0002 ffff eeee 00010000",
         "    1  loading in blocks: 65536 bytes, values 1, 2, 65535\n",
         R"([{"number":1,"name":"loading in blocks","blockSize":65536,"values":[1,2,65535]}])"},
        {"0006 00dc 0002 eeee 0000 0352 001e eeee 0001 03b6 fffe eeee eeee",
         "    6  hot spots: sensor 0, threshold 850, hysteresis 30; sensor 1, threshold 950, hysteresis -2\n",
         R"([{"number":6,"name":"hot spots","sets":[{"sensor":0,"threshold":850,"hysteresis":30},)"
         R"({"sensor":1,"threshold":950,"hysteresis":-2}]}])"},
        {"0006 00dc 0000", "    6  hot spots\n", R"([{"number":6,"name":"hot spots","sets":[]}])"},
        {"001e 00dc 0001 0000 0226 feb6 0014",
         "   30  temperature levels: upper 550, lower -330, hysteresis 20\n",
         R"([{"number":30,"name":"temperature levels","sets":[{"upper":550,"lower":-330,"hysteresis":20}]}])"},
        {"0029 00dc 4d45524c4f57 00 ee", "   41  platform text: \"MERLOW\"\n",
         R"([{"number":41,"name":"platform text","text":"MERLOW"}])"},
        {"0029 00dc 4142434445464748494a4b4c4d4e4f50 51", "   41  platform text: \"ABCDEFGHIJKLMNOP\"\n",
         R"([{"number":41,"name":"platform text","text":"ABCDEFGHIJKLMNOP"}])"},
        {"002d 00dc 8000001f", "   45  restart ranks: mask 0x8000001f\n",
         R"([{"number":45,"name":"restart ranks","mask":2147483679}])"},
    };
    for (const auto& content : contents) {
        EXPECT_EQ(listOf(content.record), content.text);
        EXPECT_EQ(jsonOf(content.record), content.json);
    }
}

TEST_F(CapabilitiesCommandTest, moreSetsThanThereIsRoomForAreTheTenThatThereAre)
{
    const std::string set = R"({"sensor":0,"threshold":0,"hysteresis":0})";
    std::string sets = set;
    for (int i = 1; i < 10; ++i) {
        sets += "," + set;
    }
    EXPECT_EQ(jsonOf("0006 00dc ffff"), R"([{"number":6,"name":"hot spots","sets":[)" + sets + "]}]");
}

TEST_F(CapabilitiesCommandTest, anAnswerThatMakesNoSenseIsStatusThree)
{
    const auto record = capabilityRecord("0007 00dc");
    const std::string answers[] = {
        "0001 0000",                                     // no record at all
        "0001 0000" + record.substr(0, 438),             // a byte short
        "0002 0000" + record + record.substr(0, 438),    // the second one
        "ffff 0000" + record,                            // more than any message holds
        "0001 0000" + capabilityRecord("0007 00db"),     // a record of another size
        "0002 0000" + record + capabilityRecord("0007"), // of none
    };
    for (const auto& answer : answers) {
        m_unit.reset();
        startUnitWith(answer);
        EXPECT_EQ(run({"capabilities"}), 3) << answer.substr(0, 60);
        EXPECT_EQ(m_out.str(), "");
        EXPECT_EQ(m_err.str(), "bcictl: capabilities: the unit's capabilities make no sense\n");
    }
    m_unit.reset();
    startUnitWith("0000");
    EXPECT_EQ(run({"capabilities"}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("it should have 16"));
}

TEST_F(CapabilitiesCommandTest, noAnswerIsStatusThree)
{
    startUnit({});
    EXPECT_EQ(run({"capabilities", "--timeout", "0.05"}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("no answer to TARN_BC_GET_CAPABILITIES_REQ"));
}

} // namespace
} // namespace merlow::bcictl
