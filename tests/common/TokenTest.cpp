#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Token.h"

namespace {

using Items = std::vector<std::string>;

TEST(TokenTest, TokensAreTrimmedCountedAndTheCallersTextTrimmedToo) {
    std::string text = " \t a, b ,c \r\n";
    CToken token(text, ",");
    EXPECT_EQ(text, "a, b ,c");

    const struct {
        std::string text, delimiter;
        Items tokens;
    } cases[] = {
        {" \t a, b ,c \r\n", ",", {"a", "b", "c"}},
        {"a,", ",", {"a"}},  // a trailing delimiter adds no empty token
        {"", ",", {}},
        {"a,,b", ",", {"a", "", "b"}},
        // The rest starts one past the match, so a longer delimiter's tail leads the next token.
        {"a::b", "::", {"a", ":b"}},
        // An empty delimiter matches at the start every time: one empty token per character.
        {"abc", "", {"", "", ""}}};
    for (auto c : cases) {
        CToken t(c.text, c.delimiter);
        Items tokens;
        while (t.HasMoreTokens())
            tokens.push_back(t.NextToken());
        EXPECT_EQ(tokens, c.tokens) << c.text;
        EXPECT_EQ(static_cast<size_t>(t.GetTokenCount()), tokens.size()) << c.text;
        EXPECT_EQ(t.NextToken(), "") << c.text;  // run out, it keeps giving the empty string
        EXPECT_FALSE(t.HasMoreTokens());
    }
}

TEST(TokenTest, SplitListAndSplitSetDropEmptyItemsAndCutAtNul) {
    const struct {
        std::string text, delimiter;
        Items items;
    } cases[] = {
        {",,a", ",", {"a"}},
        {" a , b,, c ,", ",", {"a", "b", "c"}},
        {"a\t, b", ",", {"a\t", "b"}},        // only blanks are trimmed from items
        {"a,   ,b", ",", {"a", "   ", "b"}},  // blanks alone are left as they are, so stay
        {"", ",", {}},
        {" a,b ", "", {" a,b "}},  // an empty delimiter: the whole text as it stands
        {"a::b", "::", {"a", ":b"}},
        {std::string("ab\0cd,ef", 8), ",", {"ab", "ef"}}  // items end at their first NUL
    };
    Items list = {"stale"};
    for (const auto& c : cases) {
        CToken::SplitList(c.text, c.delimiter, list);
        EXPECT_EQ(list, c.items) << c.text;
    }
    std::set<std::string> set = {"stale"};
    CToken::SplitSet("10.0.0.0/8; b;a;b;;10.0.0.0/8", ";", set);
    EXPECT_EQ(set, std::set<std::string>({"10.0.0.0/8", "a", "b"}));
    CToken::SplitSet("", ";", set);
    EXPECT_TRUE(set.empty());
}

}  // namespace
