#include <gtest/gtest.h>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "Sequence.h"
#include "core/SystemClock.h"

TEST(SequenceNumber, ArithmeticCarriesAndComparisonIsHighSignedLowUnsigned) {
    SequenceNumber_t s(0, 0xFFFFFFFFu), t(3, 0xFFFFFFF0u);
    EXPECT_EQ(SequenceNumber_t(1, 0), s += 1);
    EXPECT_EQ(SequenceNumber_t(4, 0x10), t += 0x20);
    EXPECT_EQ(SequenceNumber_t(3, 0xFFFFFFFFu), t -= 0x11);

    EXPECT_LT(SEQUENCENUMBER_UNKNOWN, SEQUENCENUMBER_ZERO);
    EXPECT_LT(SequenceNumber_t(0, 0xFFFFFFFFu), SequenceNumber_t(1, 0));
    EXPECT_LT(SequenceNumber_t(-1, 0xFFFFFFFFu), SequenceNumber_t(0, 0));
    EXPECT_GT(SequenceNumber_t(0, 0x80000000u), SequenceNumber_t(0, 1));
}

TEST(Time, AdditionCarriesNanosecondsSecondsCompareSignedAndTimestampsUseABinaryFraction) {
    EXPECT_EQ(Time_t(4, 100000000u), Time_t(1, 600000000u) + Time_t(2, 500000000u));
    EXPECT_TRUE(Time_t(1, 0) > Time_t(0, 999999999u));
    EXPECT_TRUE(Time_t(0, 0) > Time_t(-1, 5));
    // Five and a half seconds after 1970, in 100 ns ticks since 1601.
    SystemClock::SetFileTimeSource([]() -> uint64_t { return 0x019DB1DED53E8000ULL + 55000000ULL; });
    const Time_t stamp = GetRtpsTimestamp();
    SystemClock::SetFileTimeSource(nullptr);
    EXPECT_EQ(Time_t(5, 0x80000000u), stamp);  // half a second
}

TEST(Sequence, ReallocationRules) {
    sequence<int> s;
    EXPECT_THROW(s[0], std::out_of_range);
    ASSERT_TRUE(s.set_length(3, 5));
    for (int i = 0; i < 3; ++i) s[i] = i + 10;
    ASSERT_TRUE(s.reallocate(2));  // shrinking clips the length
    EXPECT_EQ(s.length, 2u);
    EXPECT_EQ(s[1], 11);
    EXPECT_FALSE(s.set_length(4, 3));  // length beyond target refused
    EXPECT_TRUE(s.set_length(1, 3));   // within the current maximum: no growth
    EXPECT_EQ(s.maximum, 2u);

    int storage[4] = {1, 2, 3, 4};
    sequence<int> borrowed;
    borrowed.buffer = storage;
    borrowed.maximum = borrowed.length = 4;
    borrowed.release = 0;
    EXPECT_FALSE(borrowed.reallocate(8));
    EXPECT_EQ(borrowed.buffer, storage);  // and the destructor must leave it alone
}

TEST(Qos, DeepCopySurvivesTheSourceAndATargetWithRoomKeepsItsMaximum) {
    DomainParticipantQos copy;
    {
        DomainParticipantQos src;
        src.peer_list.push_back("10.1.2.3");
        TransportMulticastSetting m;
        m.receive_port = 7777;
        src.multicast.value.push_back(m);
        copy = src;
        src.peer_list[0] = "changed";
    }
    ASSERT_EQ(copy.peer_list.length, 1u);
    EXPECT_EQ(copy.peer_list[0], "10.1.2.3");
    EXPECT_EQ(copy.multicast.value[0].receive_port, 7777u);

    PublisherQos p, q;
    p.partition.name.push_back("A*");
    ASSERT_TRUE(q.partition.name.reallocate(8));
    q = p;
    EXPECT_EQ(q.partition.name.maximum, 8u);
    EXPECT_EQ(q.partition.name[0], "A*");
}
