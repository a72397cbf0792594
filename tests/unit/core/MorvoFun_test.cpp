#include "MorvoFun.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace
{
int Match(const char* regexp, const char* text)
{
    std::string strPattern(regexp);
    std::string strText(text);
    return MorvoFun::match(&strPattern[0], &strText[0]);
}

std::vector<std::string> Parts(std::initializer_list<const char*> list)
{
    return std::vector<std::string>(list.begin(), list.end());
}
} // namespace

TEST(MorvoFun_match, AnchorsAndAnyCharacter)
{
    EXPECT_EQ(1, Match("^a.c$", "abc"));
    EXPECT_EQ(0, Match("^a.c$", "abcd"));
    EXPECT_EQ(0, Match("^a.c$", "xabc"));
    EXPECT_EQ(0, Match("^b", "ab"));
    EXPECT_EQ(1, Match("b", "ab"));
    EXPECT_EQ(1, Match("c$", "abc"));
    EXPECT_EQ(0, Match("b$", "abc"));
    EXPECT_EQ(1, Match("$", ""));
    EXPECT_EQ(1, Match("^$", ""));
    EXPECT_EQ(0, Match("^$", "a"));
}

TEST(MorvoFun_match, EmptyPatternAndEmptyText)
{
    EXPECT_EQ(1, Match("", ""));
    EXPECT_EQ(1, Match("", "anything"));
    EXPECT_EQ(0, Match("a", ""));
    EXPECT_EQ(1, Match("b*", ""));
    EXPECT_EQ(1, MorvoFun::match(nullptr, nullptr));
}

TEST(MorvoFun_match, Star)
{
    EXPECT_EQ(1, Match("^ab*c$", "ac"));
    EXPECT_EQ(1, Match("^ab*c$", "abbbc"));
    EXPECT_EQ(0, Match("^ab*c$", "abxc"));
    EXPECT_EQ(1, Match("^a.*z$", "a123z"));
    EXPECT_EQ(1, Match("^.*$", "partition"));
    // A leading star has nothing before it: it is an ordinary character.
    EXPECT_EQ(1, Match("*", "a*b"));
    EXPECT_EQ(0, Match("*", "ab"));
    EXPECT_EQ(1, Match("^*a", "*a"));
    EXPECT_EQ(0, Match("^*a", "a"));
    // Only a character before it makes it a repetition.
    EXPECT_EQ(1, Match("x*", "ab"));
}

TEST(MorvoFun_match, OtherCharactersAreLiteral)
{
    EXPECT_EQ(1, Match("a+b", "a+b"));
    EXPECT_EQ(0, Match("a+b", "aab"));
    EXPECT_EQ(1, Match("a?", "xa?"));
    EXPECT_EQ(0, Match("a?", "a"));
    EXPECT_EQ(1, Match("[ab]", "[ab]"));
    EXPECT_EQ(0, Match("[ab]", "a"));
    EXPECT_EQ(1, Match("\\.", "\\x"));
    EXPECT_EQ(0, Match("\\.", "."));
    EXPECT_EQ(1, Match("a$b", "a$b")); // '$' only anchors at the end
}

TEST(MorvoFun_StringSplit, CutsKeepingTheSeparator)
{
    EXPECT_EQ(Parts({"a", ".b", ".c"}), MorvoFun::StringSplit("a.b.c", '.', 10));
    EXPECT_EQ(Parts({"abc"}), MorvoFun::StringSplit("abc", '.', 10));
    EXPECT_EQ(Parts({"a", ".", ".b"}), MorvoFun::StringSplit("a..b", '.', 10));
    EXPECT_EQ(Parts({"a", "."}), MorvoFun::StringSplit("a.", '.', 10));
}

TEST(MorvoFun_StringSplit, ScanStartsAtOffsetOne)
{
    EXPECT_EQ(Parts({".a", ".b"}), MorvoFun::StringSplit(".a.b", '.', 10));
    EXPECT_EQ(Parts({"."}), MorvoFun::StringSplit(".", '.', 10));
    EXPECT_EQ(Parts({".", "."}), MorvoFun::StringSplit("..", '.', 10));
}

TEST(MorvoFun_StringSplit, MaxPartsLimitsTheCuts)
{
    EXPECT_EQ(Parts({"a", ".b.c.d"}), MorvoFun::StringSplit("a.b.c.d", '.', 2));
    EXPECT_EQ(Parts({"a", ".b", ".c.d"}), MorvoFun::StringSplit("a.b.c.d", '.', 3));
    EXPECT_EQ(Parts({"a.b"}), MorvoFun::StringSplit("a.b", '.', 1));
    EXPECT_EQ(Parts({"a.b"}), MorvoFun::StringSplit("a.b", '.', 0));
}

TEST(MorvoFun_StringSplit, EmptyStringGivesNoParts)
{
    EXPECT_TRUE(MorvoFun::StringSplit("", '.', 10).empty());
}

TEST(MorvoFun, StringConversions)
{
    EXPECT_EQ("0", MorvoFun::IntToString(0));
    EXPECT_EQ("-17", MorvoFun::IntToString(-17));
    EXPECT_EQ("500", MorvoFun::IntToString(500));

    EXPECT_EQ(42, MorvoFun::StringToInt("42"));
    EXPECT_EQ(-3, MorvoFun::StringToInt(" -3"));
    EXPECT_EQ(12, MorvoFun::StringToInt("12abc"));
    EXPECT_EQ(0, MorvoFun::StringToInt("abc"));
    EXPECT_EQ(0, MorvoFun::StringToInt(""));

    EXPECT_EQ(7400u, MorvoFun::StringToUnsigned("7400"));
    EXPECT_EQ(0u, MorvoFun::StringToUnsigned("0"));
    EXPECT_EQ(0xFFFFFFFFu, MorvoFun::StringToUnsigned("abc"));
    EXPECT_EQ(0xFFFFFFFFu, MorvoFun::StringToUnsigned(""));
}

TEST(MorvoFun, LocalEndiannessIsFirstOctetOfOne)
{
    const int iOne = 1;
    unsigned char first = 0;
    memcpy(&first, &iOne, 1);
    EXPECT_EQ(static_cast<int>(first), MorvoFun::LocalEndianness());
}

TEST(MorvoFun, DDS_msleepSleepsAndReturnsZero)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, MorvoFun::DDS_msleep(30));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(29));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1000));
    EXPECT_EQ(0, MorvoFun::DDS_msleep(-5));
}
