#include "core/NetCard.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>

namespace
{
// Dotted text to a host-order value; false when the text is not a.b.c.d.
bool ParseDotted(const std::string& strAddress, unsigned int& uiValue)
{
    unsigned int a, b, c, d;
    char extra;
    if (sscanf(strAddress.c_str(), "%u.%u.%u.%u%c", &a, &b, &c, &d, &extra) != 4)
        return false;
    if (a > 255 || b > 255 || c > 255 || d > 255)
        return false;
    uiValue = (a << 24) | (b << 16) | (c << 8) | d;
    return true;
}

int FakeTwoCards(std::vector<netCard>& out)
{
    netCard first;
    first.strName = "fake0";
    first.IPAddstrVec.push_back("10.9.0.1");
    first.IPAddressVec.push_back(0x0A090001u);
    out.push_back(first);
    netCard second = first;
    second.strName = "fake1";
    out.push_back(second);
    return 0;
}

int FakeFailure(std::vector<netCard>&)
{
    return 1;
}
} // namespace

TEST(NetCard, SystemListIsWellFormed)
{
    std::vector<netCard> cards;
    ASSERT_EQ(0, GetNetCardInfo(cards));

    std::set<std::string> names;
    for (const netCard& card : cards)
    {
        EXPECT_FALSE(card.strName.empty());
        EXPECT_TRUE(names.insert(card.strName).second) << "one record per adapter: " << card.strName;
        ASSERT_FALSE(card.IPAddstrVec.empty());
        ASSERT_EQ(card.IPAddstrVec.size(), card.IPAddressVec.size());
        for (size_t i = 0; i < card.IPAddstrVec.size(); ++i)
        {
            unsigned int uiParsed = 0;
            ASSERT_TRUE(ParseDotted(card.IPAddstrVec[i], uiParsed)) << card.IPAddstrVec[i];
            EXPECT_EQ(uiParsed, card.IPAddressVec[i]) << "host order for " << card.IPAddstrVec[i];
        }
    }
}

TEST(NetCard, AppendsToWhatTheCallerHolds)
{
    std::vector<netCard> cards(1);
    cards[0].strName = "kept";
    ASSERT_EQ(0, GetNetCardInfo(cards));
    ASSERT_GE(cards.size(), 1u);
    EXPECT_EQ("kept", cards[0].strName);
}

TEST(NetCard, SourceCanBeReplacedAndRestored)
{
    SetNetCardSource(FakeTwoCards);
    std::vector<netCard> cards;
    EXPECT_EQ(0, GetNetCardInfo(cards));
    ASSERT_EQ(2u, cards.size());
    EXPECT_EQ("fake1", cards[1].strName);

    SetNetCardSource(FakeFailure);
    std::vector<netCard> none;
    EXPECT_EQ(1, GetNetCardInfo(none));

    SetNetCardSource(nullptr);
    std::vector<netCard> real;
    EXPECT_EQ(0, GetNetCardInfo(real));
    for (const netCard& card : real)
        EXPECT_NE("fake0", card.strName);
}
