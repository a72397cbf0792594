#include "MorvoFun.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

TEST(MorvoFun_match, Table) {
    const struct {
        const char* pattern;
        const char* text;
        int expected;
    } rows[] = {
        {"^a.c$", "abc", 1},
        {"^a.c$", "abcd", 0},
        {"^a.c$", "xabc", 0},
        {"^b", "ab", 0},
        {"b", "ab", 1},
        {"b$", "abc", 0},
        {"^$", "", 1},
        {"^$", "a", 0},
        {"", "anything", 1},
        {"a", "", 0},
        {"b*", "", 1},
        {"^ab*c$", "ac", 1},
        {"^ab*c$", "abbbc", 1},
        {"^ab*c$", "abxc", 0},
        {"^a.*z$", "a123z", 1},
        // A leading star has nothing before it: it is an ordinary character.
        {"*", "a*b", 1},
        {"*", "ab", 0},
        {"^*a", "*a", 1},
        {"^*a", "a", 0},
        // Everything else is literal; '$' only anchors at the end.
        {"a+b", "a+b", 1},
        {"a+b", "aab", 0},
        {"[ab]", "a", 0},
        {"\\.", "\\x", 1},
        {"\\.", ".", 0},
        {"a$b", "a$b", 1},
    };
    for (const auto& row : rows) {
        std::string strPattern(row.pattern), strText(row.text);
        EXPECT_EQ(row.expected, MorvoFun::match(&strPattern[0], &strText[0]))
            << "'" << row.pattern << "' on '" << row.text << "'";
    }
    EXPECT_EQ(1, MorvoFun::match(nullptr, nullptr));
}

TEST(MorvoFun_StringSplit, CutsFromOffsetOneKeepingTheSeparator) {
    typedef std::vector<std::string> Parts;
    const struct {
        const char* text;
        int maxParts;
        Parts expected;
    } rows[] = {
        {"a.b.c", 10, {"a", ".b", ".c"}},
        {"abc", 10, {"abc"}},
        {"a..b", 10, {"a", ".", ".b"}},
        {"a.", 10, {"a", "."}},
        {".a.b", 10, {".a", ".b"}},
        {"..", 10, {".", "."}},
        {"a.b.c.d", 2, {"a", ".b.c.d"}},
        {"a.b.c.d", 3, {"a", ".b", ".c.d"}},
        {"a.b", 1, {"a.b"}},
        {"a.b", 0, {"a.b"}},
        {"", 10, {}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, MorvoFun::StringSplit(row.text, '.', row.maxParts))
            << row.text << " " << row.maxParts;
}

TEST(MorvoFun, StringConversions) {
    EXPECT_EQ("-17", MorvoFun::IntToString(-17));
    EXPECT_EQ(-3, MorvoFun::StringToInt(" -3"));
    EXPECT_EQ(12, MorvoFun::StringToInt("12abc"));
    EXPECT_EQ(0, MorvoFun::StringToInt("abc"));
    EXPECT_EQ(7400u, MorvoFun::StringToUnsigned("7400"));
    EXPECT_EQ(0u, MorvoFun::StringToUnsigned("0"));
    EXPECT_EQ(0xFFFFFFFFu, MorvoFun::StringToUnsigned("abc"));
    EXPECT_EQ(0xFFFFFFFFu, MorvoFun::StringToUnsigned(""));
}

TEST(MorvoFun, DDS_msleepSleepsAndLocalEndiannessIsFirstOctetOfOne) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, MorvoFun::DDS_msleep(30));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(29));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1000));
    EXPECT_EQ(0, MorvoFun::DDS_msleep(-5));

    const int iOne = 1;
    EXPECT_EQ(int(*reinterpret_cast<const unsigned char*>(&iOne)), MorvoFun::LocalEndianness());
}
