// bcictl's product identity against a unit with fixed answers: signals as bytes, what is told as text.

#include "bcictlFixture.h"
#include "rowTest.h"

namespace merlow::bcictl {
namespace {

using testing::HasSubstr;

struct PidCommandRow {
    const char* what;
    std::uint32_t request;
    std::uint32_t reject;
    FakeUnit::Reply confirm;
    const char* text;
    const char* json; ///< what follows the references
};

// Gaps and the bytes behind a text's end hold rubbish.
const PidCommandRow pidRows[] = {
    {"hw",
     0x1658200,
     0x1658202,
     {0x1658201, references + "323032343031333100 eeeeee"
                              "4b51552037001b5b00 00000000 eeeeee"
                              "5144412031313820303031 2f3200 eeeeeeeeeeeeeeeeeeeeee eeeeee"
                              "523242 00eeeeeeee"
                              "534e303030343200 eeeeeeeeeeee eeee"},
     "product KQU 7, number QDA 118 001/2, revision R2B, serial number SN00042, produced 20240131\n",
     R"("productName":"KQU 7","productNumber":"QDA 118 001/2","productRevision":"R2B",)"
     R"("serialNumber":"SN00042","productionDate":"20240131"})"
     "\n"},
    {"market",
     0x1658206,
     0x1658208,
     {0x1658207, references + "323032343031333100 eeeeee"
                              "4b5155203700 eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee eeeeee"
                              "4f7574646f6f7200 eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee eeeeee"
                              "5144412031313820303031 2f3200 eeeeeeeeeeeeeeeeeeeeee eeeeee"
                              "523242 00eeeeeeee"
                              "534e303030343200 eeeeeeeeeeee eeee"},
     "product KQU 7, extended market name Outdoor, number QDA 118 001/2, revision R2B, serial number "
     "SN00042, produced 20240131\n",
     R"("productName":"KQU 7","extendedMarketName":"Outdoor","productNumber":"QDA 118 001/2",)"
     R"("productRevision":"R2B","serialNumber":"SN00042","productionDate":"20240131"})"
     "\n"},
    {"extended",
     0x1658209,
     0x165820B,
     {0x165820A, padded(references + "4f7574646f6f7200 ee", 76)},
     "extended market name Outdoor\n",
     R"("extendedMarketName":"Outdoor"})"
     "\n"},
    {"container",
     0x1658203,
     0x1658205,
     {0x1658204, references + "323032343031333100 eeeeee"
                              "434142203300 eeeeeeeeeeeeeeeeeeeeeeeeeeeeee eeeeee"
                              "5144412031313820303031 2f3200 eeeeeeeeeeeeeeeeeeeeee eeeeee"
                              "523242 00eeeeeeee"
                              "534e303030343200 eeeeeeeeeeee eeee"},
     "container CAB 3, number QDA 118 001/2, revision R2B, serial number SN00042, produced 20240131\n",
     R"("containerName":"CAB 3","productNumber":"QDA 118 001/2","productRevision":"R2B",)"
     R"("serialNumber":"SN00042","productionDate":"20240131"})"
     "\n"},
};

class PidCommandTest : public BcictlTest, public WithRow<PidCommandRow> {};

ROW_TEST(PidCommandTest, readsItAndTellsIt)
{
    startUnit({{row().request, {row().confirm}}});
    EXPECT_EQ(run({"pid", row().what}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), row().text);
    EXPECT_EQ(m_unit->received(row().request), "000000010000012d");
    EXPECT_EQ(run({"pid", row().what, "--json"}), 0);
    EXPECT_THAT(m_out.str(), HasSubstr(R"({"command":"pid","status":"done","sent":"TARN_BC_GET_)"));
    EXPECT_THAT(m_out.str(), HasSubstr(std::string(R"("clientRef":1,"serverRef":301,)") + row().json));
}

ROW_TEST(PidCommandTest, aRejectIsToldWithItsText)
{
    startUnit({{row().request, {{row().reject, padded(references + "0001 0000 6e6f", 124)}}}});
    EXPECT_EQ(run({"pid", row().what}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: pid: rejected, errorCode 1: no\n");
}

ROW_TEST(PidCommandTest, aShortConfirmIsNone)
{
    auto confirm = row().confirm;
    confirm.hex.resize(confirm.hex.size() - 2);
    startUnit({{row().request, {confirm}}});
    EXPECT_EQ(run({"pid", row().what}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("it should have"));
}

TEST_ROWS(all, PidCommandTest, pidRows, [](const auto& row) { return row.what; });

} // namespace
} // namespace merlow::bcictl
