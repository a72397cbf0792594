#include "core/NetCard.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>

TEST(NetCard, SystemListIsWellFormedAndAppended) {
    std::vector<netCard> cards(1);
    cards[0].strName = "kept";
    ASSERT_EQ(0, GetNetCardInfo(cards));
    EXPECT_EQ("kept", cards[0].strName);

    std::set<std::string> names;
    for (size_t c = 1; c < cards.size(); ++c) {
        const netCard& card = cards[c];
        EXPECT_FALSE(card.strName.empty());
        EXPECT_TRUE(names.insert(card.strName).second) << "one record per adapter: " << card.strName;
        ASSERT_FALSE(card.IPAddstrVec.empty());
        ASSERT_EQ(card.IPAddstrVec.size(), card.IPAddressVec.size());
        for (size_t i = 0; i < card.IPAddstrVec.size(); ++i) {
            unsigned int a, b, c2, d;
            ASSERT_EQ(4, sscanf(card.IPAddstrVec[i].c_str(), "%u.%u.%u.%u", &a, &b, &c2, &d));
            EXPECT_EQ((a << 24) | (b << 16) | (c2 << 8) | d, card.IPAddressVec[i]) << "host order";
        }
    }
}

// Other tests swap the source in; a failing one reports, and null restores the system's.
TEST(NetCard, ReplacedSourceFailsAndNullRestores) {
    std::vector<netCard> cards;
    SetNetCardSource([](std::vector<netCard>&) { return 1; });
    EXPECT_EQ(1, GetNetCardInfo(cards));
    SetNetCardSource(nullptr);
    EXPECT_EQ(0, GetNetCardInfo(cards));
    EXPECT_FALSE(cards.empty());
}
