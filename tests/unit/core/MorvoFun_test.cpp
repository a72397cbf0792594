#include "MorvoFun.h"

#include <gtest/gtest.h>

// The partition pattern match: '^', '$', '.' and a star after a character;
// everything else, a leading star included, is literal.
TEST(MorvoFun_match, Table) {
    const struct {
        const char *pattern, *text;
        int expected;
    } rows[] = {{"^a.c$", "abc", 1},    {"^a.c$", "abcd", 0},  {"^a.c$", "xabc", 0},   {"^b", "ab", 0},
                {"b", "ab", 1},         {"b$", "abc", 0},      {"^$", "", 1},          {"^$", "a", 0},
                {"", "anything", 1},    {"a", "", 0},          {"b*", "", 1},          {"^ab*c$", "ac", 1},
                {"^ab*c$", "abbbc", 1}, {"^ab*c$", "abxc", 0}, {"^a.*z$", "a123z", 1}, {"*", "a*b", 1},
                {"*", "ab", 0},         {"^*a", "*a", 1},      {"^*a", "a", 0},        {"a+b", "a+b", 1},
                {"a+b", "aab", 0},      {"[ab]", "a", 0},      {"\\.", "\\x", 1},      {"\\.", ".", 0},
                {"a$b", "a$b", 1}};
    for (const auto& row : rows) {
        std::string strPattern(row.pattern), strText(row.text);
        EXPECT_EQ(row.expected, MorvoFun::match(&strPattern[0], &strText[0]))
            << "'" << row.pattern << "' on '" << row.text << "'";
    }
    EXPECT_EQ(1, MorvoFun::match(nullptr, nullptr));
}
