#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "comm/Token.h"

namespace {

// Every token in order, and checks that the count agreed with what NextToken handed out.
std::vector<std::string> Tokens(std::string text, const std::string& delimiter) {
    CToken token(text, delimiter);
    std::vector<std::string> tokens;
    while (token.HasMoreTokens())
        tokens.push_back(token.NextToken());
    EXPECT_EQ(static_cast<size_t>(token.GetTokenCount()), tokens.size());
    // Once run out it keeps giving the empty string.
    EXPECT_EQ(token.NextToken(), "");
    EXPECT_EQ(token.NextToken(), "");
    EXPECT_FALSE(token.HasMoreTokens());
    return tokens;
}

using Items = std::vector<std::string>;

TEST(TokenTest, TokensAreTrimmedAndTheCallersTextToo) {
    std::string text = " \t a, b ,c \r\n";
    CToken token(text, ",");
    EXPECT_EQ(text, "a, b ,c");
    EXPECT_EQ(token.GetTokenCount(), 3);
    EXPECT_EQ(token.NextToken(), "a");
    EXPECT_EQ(token.NextToken(), "b");
    EXPECT_TRUE(token.HasMoreTokens());
    EXPECT_EQ(token.NextToken(), "c");
    EXPECT_FALSE(token.HasMoreTokens());
    EXPECT_EQ(token.NextToken(), "");

    EXPECT_EQ(Tokens("a,", ","), Items({"a"}));
    EXPECT_EQ(Tokens("", ","), Items({}));
    EXPECT_EQ(Tokens("single", ","), Items({"single"}));
    EXPECT_EQ(Tokens("a,,b", ","), Items({"a", "", "b"}));
    EXPECT_EQ(Tokens("a,\t\r\n b \t,c", ","), Items({"a", "b", "c"}));
    // The agent's tower list: the "&" is the reader's business, not the tokenizer's.
    EXPECT_EQ(Tokens("west-1,west-2,east-1&west-2", ","),
              Items({"west-1", "west-2", "east-1&west-2"}));
}

TEST(TokenTest, DelimiterOfSeveralCharactersAndEmptyDelimiter) {
    // The rest is taken one character past the start of the match, so the delimiter's tail
    // leads the next token; the count follows the same steps.
    EXPECT_EQ(Tokens("a::b", "::"), Items({"a", ":b"}));
    EXPECT_EQ(Tokens("a::::b", "::"), Items({"a", "", "", ":b"}));
    EXPECT_EQ(Tokens("a::", "::"), Items({"a", ":"}));
    // An empty delimiter matches at the start every time: one empty token per character.
    EXPECT_EQ(Tokens("abc", ""), Items({"", "", ""}));
    EXPECT_EQ(Tokens("", ""), Items({}));
}

TEST(TokenTest, SplitListDropsEmptyItemsAndCutsAtNul) {
    Items list = {"stale"};
    CToken::SplitList(",,a", ",", list);
    EXPECT_EQ(list, Items({"a"}));
    CToken::SplitList(" a , b,, c ,", ",", list);
    EXPECT_EQ(list, Items({"a", "b", "c"}));
    // Only blanks are trimmed from items.
    CToken::SplitList("a\t, b", ",", list);
    EXPECT_EQ(list, Items({"a\t", "b"}));
    CToken::SplitList("", ",", list);
    EXPECT_TRUE(list.empty());
    // An empty delimiter: the whole text, as it stands.
    CToken::SplitList(" a,b ", "", list);
    EXPECT_EQ(list, Items({" a,b "}));
    // A delimiter of several characters: the next item begins with its tail.
    CToken::SplitList("a::b", "::", list);
    EXPECT_EQ(list, Items({"a", ":b"}));
    // Items end at their first NUL.
    CToken::SplitList(std::string("ab\0cd,ef", 8), ",", list);
    EXPECT_EQ(list, Items({"ab", "ef"}));
    // A piece of blanks alone is left as it is by the trimming rule, so it stays an item.
    CToken::SplitList("a,   ,b", ",", list);
    EXPECT_EQ(list, Items({"a", "   ", "b"}));
}

TEST(TokenTest, SplitSetOrdersAndDropsDoubles) {
    std::set<std::string> set = {"stale"};
    CToken::SplitSet("10.0.0.0/8; b;a;b;;10.0.0.0/8", ";", set);
    EXPECT_EQ(set, std::set<std::string>({"10.0.0.0/8", "a", "b"}));
    CToken::SplitSet("", ";", set);
    EXPECT_TRUE(set.empty());
}

}  // namespace
