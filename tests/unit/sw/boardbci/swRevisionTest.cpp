#include "swRevision.h"
#include "rowTest.h"

#include <gtest/gtest.h>
#include <ostream>

namespace {

struct SwRevisionRow {
    const char* revision;
    int missingLetters;
    std::int64_t value;
};

void PrintTo(const SwRevisionRow& row, std::ostream* out)
{
    *out << '"' << row.revision << "\", " << static_cast<char>(row.missingLetters);
}

class SwRevisionTest : public ::testing::Test, public WithRow<SwRevisionRow> {};

ROW_TEST(SwRevisionTest, hasItsPlace)
{
    EXPECT_EQ(swrev_str_to_int(row().revision, row().missingLetters), row().value);
}

// The first number and its flag count 2^36, the letters 2^16; P is 0 and R 2^52.
const SwRevisionRow swRevisionRows[] = {{"P1A", 'F', 0x0000002000010000}, //
                                        {"R1A", 'F', 0x0010002000010000},
                                        {"R0A", 'F', 0x0010001000010000},
                                        {"R9A", 'F', 0x001000A000010000},
                                        {"R10A", 'F', 0x0010017000010000},   // 2 * 11 + 1
                                        {"R01A", 'F', 0x001000D000010000},   // 1 * 11 + 2
                                        {"R9999A", 'F', 0x0013930000010000}, // 14640
                                        {"R1Z", 'F', 0x00100020001A0000},
                                        {"R1AA", 'F', 0x00100020001C0000},
                                        {"R1ZZZZ", 'F', 0x001000281BF00000},
                                        {"R1A0", 'F', 0x0010002000010001},
                                        {"R1A1", 'F', 0x0010002000010002},
                                        {"R1A10", 'F', 0x0010002000010017},
                                        {"R1A9999", 'F', 0x0010002000013930},
                                        {"R1A99999", 'F', 0x0010002000013930}, // the rest does not count
                                        {"R1A/x", 'F', 0x0010002000010000},
                                        {"R1Aa", 'F', 0x0010002000010000},
                                        {"R1AAAAA", 'F', 0x001000204FD80000},
                                        {"R12345A", 'F', -1}, // the fifth digit is no letter
                                        {"R9999ZZZZ9999x", 'F', 0x001393081BF03930},
                                        {"R11", 'F', -1}, //
                                        {"R1", 'H', 0x001000281BF00000},
                                        {"R1", 'L', 0x0010002000010000},
                                        {"R1", 'x', 0x0010002000000000},
                                        {"R1", 0, 0x0010002000000000},
                                        {"R1a", 'L', 0x0010002000010000},
                                        {"R12345", 'x', 0x0010C02000000006}, //
                                        {"", 'H', -1},
                                        {"R", 'H', -1},
                                        {"RA", 'H', -1},
                                        {"r1A", 'H', -1},
                                        {"Q1A", 'H', -1},
                                        {" R1A", 'H', -1},
                                        {"1A", 'H', -1},
                                        {"p1A", 'H', -1}};
TEST_ROWS(all, SwRevisionTest, swRevisionRows);

TEST(SwRevisionOrder, rises)
{
    const char* const revisions[] = {
        "P1A",   "P1A1",  "P1A01", "P1B", "P1AA", "P2A",    "P10A", "R0A", "R1A",  "R1A0", "R1A9",
        "R1A00", "R1A10", "R1B",   "R1Z", "R1AA", "R1ZZZZ", "R2A",  "R9A", "R00A", "R10A", "R9999ZZZZ9999"};
    std::int64_t last = -1;
    for (const char* revision : revisions) {
        const std::int64_t value = swrev_str_to_int(revision, 'F');
        EXPECT_LT(last, value) << revision;
        last = value;
    }
    EXPECT_GT(swrev_str_to_int("R12", 'H'), swrev_str_to_int("R12Z", 'H'));
    EXPECT_LT(swrev_str_to_int("R12", 'L'), swrev_str_to_int("R12Z", 'L'));
}

} // namespace
