#include "words.h"

#include <gtest/gtest.h>

namespace merlow::tools {
namespace {

using Words = std::vector<std::string>;

TEST(WordsTest, blanksPart)
{
    EXPECT_EQ(splitWords(""), Words{});
    EXPECT_EQ(splitWords(" \t\r"), Words{});
    EXPECT_EQ(splitWords(" raw\t1  2 "), (Words{"raw", "1", "2"}));
}

TEST(WordsTest, quotesKeepBlanksAndGiveEmptyWords)
{
    EXPECT_EQ(splitWords(R"(a "b c" 'd "e' f"g h"i)"), (Words{"a", "b c", "d \"e", "fg hi"}));
    EXPECT_EQ(splitWords(R"("" '')"), (Words{"", ""}));
}

TEST(WordsTest, aBackslashTakesTheNextCharacter)
{
    EXPECT_EQ(splitWords(R"(a\ b "c\"d" 'e\f' \\)"), (Words{"a b", "c\"d", "e\\f", "\\"}));
}

TEST(WordsTest, aCommentBeginsAWord)
{
    EXPECT_EQ(splitWords("# all"), Words{});
    EXPECT_EQ(splitWords("a #b c"), Words{"a"});
    EXPECT_EQ(splitWords("a#b '#c'"), (Words{"a#b", "#c"}));
}

TEST(WordsTest, whatIsNotClosedIsNothing)
{
    EXPECT_FALSE(splitWords("a 'b"));
    EXPECT_FALSE(splitWords("a \"b"));
    EXPECT_FALSE(splitWords("a\\"));
}

} // namespace
} // namespace merlow::tools
