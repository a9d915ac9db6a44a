#include "loadModule.h"
#include "rowTest.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace merlow::loadmodule {
namespace {

using Pieces = std::vector<std::byte>;

Pieces bytesOfHex(const std::string& text)
{
    Pieces bytes;
    for (std::size_t index = 0; index < text.size(); index += 2) {
        bytes.push_back(static_cast<std::byte>(std::stoi(text.substr(index, 2), nullptr, 16)));
    }
    return bytes;
}

/// A whole load module with the content "abc", whose digest is a published example.
const std::string abcModule = "4d45524c4f574c4d" // MERLOWLM
                              "00000001"
                              "0000000000000003"
                              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
                              "51585231322f330000000000000000000000000000000000000000" // QXR12/3
                              "00"
                              "52314100000000000000000000000000" // R1A
                              "616263";

const SoftwareId abcId{"QXR12/3", "R1A"};

Header abcHeader()
{
    Header header{abcId, 3, {}};
    const Pieces digest = bytesOfHex(abcModule.substr(40, 64));
    std::copy(digest.begin(), digest.end(), header.digest.begin());
    return header;
}

TEST(LoadModuleTest, theHeaderIsTheseBytes)
{
    const auto encoded = encode(abcHeader());
    EXPECT_EQ(Pieces(encoded.begin(), encoded.end()), bytesOfHex(abcModule.substr(0, 192)));
    const auto decoded = decode(bytesOfHex(abcModule));
    EXPECT_EQ(decoded.error, "");
    EXPECT_EQ(decoded.header, abcHeader());
    EXPECT_TRUE(hasMagic(bytesOfHex("4d45524c4f574c4d")));
    EXPECT_FALSE(hasMagic(bytesOfHex("4d45524c4f574c")));
    EXPECT_FALSE(hasMagic(bytesOfHex("4d45524c4f574c4e00")));
}

TEST(LoadModuleTest, theDigestIsTakenPieceByPiece)
{
    Sha256 sha;
    for (const std::byte byte : bytesOfHex("616263")) {
        sha.add(std::span(&byte, 1));
    }
    EXPECT_EQ(sha.finish(), abcHeader().digest);
}

TEST(LoadModuleTest, identitiesHaveTwoPartsOfFewCharacters)
{
    EXPECT_EQ(softwareIdFrom("QXR12/3_R1A"), abcId);
    EXPECT_EQ(toText(abcId), "QXR12/3_R1A");
    const std::string longest = std::string(19, 'A') + "_" + std::string(15, '1');
    EXPECT_TRUE(softwareIdFrom(longest)) << longest.size();
    EXPECT_TRUE(softwareIdFrom(std::string(27, 'A') + "_R123456"));
    for (const std::string& text :
         {std::string(), std::string("_"), std::string("QXR"), std::string("QXR_"), std::string("_R1A"),
          std::string("QXR_R1/A"), std::string("C P_R1A"), std::string("QXR%1_R1A"), std::string("QXR<_R1A"),
          std::string("QXR_R_1"), std::string("QXR\0_R1A", 8), "A" + longest, std::string(28, 'A') + "_R1A",
          "A_" + std::string(16, '1')}) {
        EXPECT_FALSE(softwareIdFrom(text)) << text;
    }
    EXPECT_THROW(encode({{"QXR 1", "R1A"}, 0, {}}), std::invalid_argument);
}

struct BrokenModuleRow {
    const char* what;
    std::size_t at; ///< the byte that is replaced; beyond the end it is appended
    unsigned value;
    std::size_t size; ///< bytes that come
    const char* error;
};

class BrokenLoadModuleTest : public testing::Test, public WithRow<BrokenModuleRow> {};

const BrokenModuleRow brokenModules[] = {
    {"nothing", 0, 0x4d, 0, "it ends within the header, after 0 bytes of 96"},
    {"cutHeader", 0, 0x4d, 95, "it ends within the header, after 95 bytes of 96"},
    {"magic", 7, 0x4e, 99, "it does not begin with MERLOWLM"},
    {"format", 11, 2, 99, "it has the format 2, not 1"},
    {"lengthTooLarge", 12, 0xff, 99, "it ends after 3 of 18374686479671623683 bytes of content"},
    {"lengthTooSmall", 19, 2, 99, "it goes on after its 2 bytes of content"},
    {"digest", 51, 0xae, 99, "its SHA-256 is not that of its header"},
    {"otherNumber", 58, '4', 99, "it is QXR12/4_R1A, not QXR12/3_R1A"},
    {"otherRevision", 82, 'B', 99, "it is QXR12/3_R1B, not QXR12/3_R1A"},
    {"emptyNumber", 52, 0, 99, "its header has no valid product number and revision"},
    {"behindTheNumber", 79, 'x', 99, "its header has no valid product number and revision"},
    {"endlessRevision", 95, 'x', 99, "its header has no valid product number and revision"},
    {"cutContent", 0, 0x4d, 98, "it ends after 2 of 3 bytes of content"},
    {"noContent", 0, 0x4d, 96, "it ends after 0 of 3 bytes of content"},
    {"longContent", 99, 0, 100, "it goes on after its 3 bytes of content"},
    {"otherContent", 98, 'd', 99, "its SHA-256 is not that of its header"},
};

ROW_TEST(BrokenLoadModuleTest, isFoundHoweverItIsCut)
{
    Pieces bytes = bytesOfHex(abcModule);
    bytes.resize(std::max<std::size_t>(bytes.size(), row().at + 1));
    bytes[row().at] = static_cast<std::byte>(row().value);
    bytes.resize(row().size);
    for (const std::size_t step : {std::size_t{1}, std::size_t{7}, std::size_t{97}, std::size_t{200}}) {
        LoadModuleCheck check(abcId);
        bool good = true;
        for (std::size_t offset = 0; offset < bytes.size(); offset += step) {
            good = check.add(std::span(bytes).subspan(offset, std::min(step, bytes.size() - offset)));
        }
        EXPECT_TRUE(good == check.error().empty());
        EXPECT_FALSE(check.finish());
        EXPECT_EQ(check.error(), row().error) << step;
    }
}

TEST_ROWS(All, BrokenLoadModuleTest, brokenModules, [](const auto& row) { return row.what; });

TEST(LoadModuleTest, aWholeOneIsRightHoweverItIsCut)
{
    const Pieces bytes = bytesOfHex(abcModule);
    for (std::size_t step = 1; step <= bytes.size(); ++step) {
        LoadModuleCheck check(abcId);
        for (std::size_t offset = 0; offset < bytes.size(); offset += step) {
            EXPECT_TRUE(check.add(std::span(bytes).subspan(offset, std::min(step, bytes.size() - offset))));
        }
        EXPECT_TRUE(check.finish()) << check.error();
    }
}

TEST(LoadModuleTest, oneWithoutContentIsAModule)
{
    Sha256 sha;
    LoadModuleCheck check(abcId);
    EXPECT_TRUE(check.add(encode({abcId, 0, sha.finish()})));
    EXPECT_TRUE(check.finish()) << check.error();
}

} // namespace
} // namespace merlow::loadmodule
