#include "swCompList.h"
#include "rowTest.h"

#include <gtest/gtest.h>
#include <ostream>
#include <stdexcept>

namespace {

TEST(SwCompListBuiltIn, has243Characters)
{
    EXPECT_EQ(SwCompList::BUILT_IN_LIST.size(), 243U);
    EXPECT_EQ(SwCompList::BUILT_IN_LIST,
              "<LmcList>\n<!-- QDA5560310/15 R91KT -->\n<ProdNbr>QXR7041162/15</ProdNbr>\n<Rev>R91KT</Rev>\n"
              "<Preinstalled/>\n<SwList>\n<ListItem>\n<ProdNbr>QXR7041162/15</ProdNbr>\n<StartRev>R88TF</"
              "StartRev>\n<StopRev>R91KT</StopRev>\n</ListItem>\n</SwList>\n</LmcList>\n");
}

struct RewriteRow {
    const char* name;
    const char* list; ///< all but the tag that keeps the built-in list out
    const char* running;
    const char* rewritten;
};

class SwCompListRewriteTest : public ::testing::Test, public WithRow<RewriteRow> {};

ROW_TEST(SwCompListRewriteTest, namesTheRunningSoftware)
{
    std::string list = row().list + std::string("<Preinstalled/>");
    SwCompList::rewrite(list, row().running);
    EXPECT_EQ(list, row().rewritten + std::string("<Preinstalled/>"));
}

const RewriteRow rewriteRows[] = {
    {"nothingToRewrite", "text", "A_R1", "text"},
    {"oneNumber", "<ProdNbr>old</ProdNbr>", "A%1_R1", "<ProdNbr>A/1</ProdNbr>"},
    {"firstPercentOnly", "<ProdNbr></ProdNbr>", "%A%_R1", "<ProdNbr>/A%</ProdNbr>"},
    {"firstLineOnly", "<ProdNbr></ProdNbr><Rev></Rev>", "A_R1_2", "<ProdNbr>A</ProdNbr><Rev>R1_2</Rev>"},
    {"percentOfTheRevisionStays", "<Rev></Rev>", "A_R%1", "<Rev>R%1</Rev>"},
    {"withoutRevision", "<ProdNbr>x</ProdNbr><Rev>y</Rev>", "AB", "<ProdNbr>AB</ProdNbr><Rev></Rev>"},
    {"nothingRuns", "<ProdNbr>x</ProdNbr><Rev>y</Rev>", "", "<ProdNbr></ProdNbr><Rev></Rev>"},
    {"twoNumbers", "<ProdNbr>1</ProdNbr><ProdNbr>2</ProdNbr><ProdNbr>3</ProdNbr>", "A_R",
     "<ProdNbr>A</ProdNbr><ProdNbr>A</ProdNbr><ProdNbr>3</ProdNbr>"},
    {"oneRevision", "<Rev>1</Rev><Rev>2</Rev>", "A_R", "<Rev>R</Rev><Rev>2</Rev>"},
    {"secondStartsBehindWhereTheFirstEnded",
     "<ProdNbr>01234567890123456789</ProdNbr><ProdNbr>2</ProdNbr>"
     "<ProdNbr>3</ProdNbr>",
     "A_R", "<ProdNbr>A</ProdNbr><ProdNbr>2</ProdNbr><ProdNbr>A</ProdNbr>"},
    {"secondIsBeyondTheShortenedText",
     "<ProdNbr>01234567890123456789012345678901234567890123456789</ProdNbr>", "A_R", "<ProdNbr>A</ProdNbr>"},
    {"openOnly", "<ProdNbr>1<Rev>2", "A_R", "<ProdNbr>1<Rev>2"},
    {"closeOnly", "1</ProdNbr>2</Rev>", "A_R", "1</ProdNbr>2</Rev>"},
    {"theWrongWayRound", "</ProdNbr><ProdNbr>x</Rev><Rev>y", "A_R", "</ProdNbr><ProdNbr>x</Rev><Rev>y"},
    {"secondWithoutEnd", "<ProdNbr>1</ProdNbr><ProdNbr>2", "A_R", "<ProdNbr>A</ProdNbr><ProdNbr>2"}};
TEST_ROWS(all, SwCompListRewriteTest, rewriteRows);

TEST(SwCompListRewrite, putsTheBuiltInListInFrontOfTheFirst)
{
    std::string list = "head<LmcList>1</LmcList><LmcList>2</LmcList>";
    SwCompList::rewrite(list, "A%1_R1");
    std::string builtIn(SwCompList::BUILT_IN_LIST);
    for (auto at = builtIn.find("QXR7041162/15"); at != std::string::npos;
         at = builtIn.find("QXR7041162/15")) {
        builtIn.replace(at, 13, "A/1");
    }
    builtIn.replace(builtIn.find("<Rev>") + 5, 5, "R1");
    EXPECT_EQ(list, "head" + builtIn + "<LmcList>1</LmcList><LmcList>2</LmcList>");
}

TEST(SwCompListRewrite, throwsForAListWithoutItsTagAndLeavesIt)
{
    for (const char* text : {"", "<LmcList", "text"}) {
        std::string list = text;
        EXPECT_THROW(SwCompList::rewrite(list, "A_R1"), std::out_of_range) << text;
        EXPECT_EQ(list, text);
    }
}

TEST(SwCompListPiece, isCutOffTheFront)
{
    std::string list = std::string(255, 'a') + std::string(255, 'b') + "c";
    EXPECT_EQ(SwCompList::cutPiece(list), std::string(255, 'a'));
    EXPECT_EQ(SwCompList::cutPiece(list), std::string(255, 'b'));
    EXPECT_EQ(SwCompList::cutPiece(list), "c");
    EXPECT_EQ(list, "");
}

} // namespace
