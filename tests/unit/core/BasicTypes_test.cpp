#include <gtest/gtest.h>

#include <string>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "Sequence.h"
#include "core/SystemClock.h"

TEST(SequenceNumber, ArithmeticCarriesAndComparisonIsHighSignedLowUnsigned) {
    SequenceNumber_t s(0, 0xFFFFFFFFu);
    s += 1;
    EXPECT_EQ(SequenceNumber_t(1, 0), s);
    SequenceNumber_t t(3, 0xFFFFFFF0u);
    t += 0x20;
    EXPECT_EQ(SequenceNumber_t(4, 0x10), t);
    t -= 0x11;
    EXPECT_EQ(SequenceNumber_t(3, 0xFFFFFFFFu), t);

    EXPECT_EQ(SequenceNumber_t().high, -2);
    EXPECT_LT(SEQUENCENUMBER_UNKNOWN, SEQUENCENUMBER_ZERO);
    EXPECT_LT(SequenceNumber_t(0, 0xFFFFFFFFu), SequenceNumber_t(1, 0));
    EXPECT_LT(SequenceNumber_t(-1, 0xFFFFFFFFu), SequenceNumber_t(0, 0));
    EXPECT_GT(SequenceNumber_t(0, 0x80000000u), SequenceNumber_t(0, 1));
}

TEST(Time, NanosecondAdditionCarriesAndSecondsCompareSigned) {
    Time_t c = Time_t(1, 600000000u) + Time_t(2, 500000000u);
    EXPECT_EQ(Time_t(4, 100000000u), c);
    EXPECT_TRUE(Time_t(1, 0) > Time_t(0, 999999999u));
    EXPECT_TRUE(Time_t(0, 0) > Time_t(-1, 5));
}

namespace {
uint64_t FixedTicks() {
    return 0x019DB1DED53E8000ULL + 10000000ULL * 5 + 5000000ULL;
}
}  // namespace

TEST(Time, RtpsTimestampSplitsSecondsAndBinaryFraction) {
    SystemClock::SetFileTimeSource(&FixedTicks);
    Time_t t = GetRtpsTimestamp();
    SystemClock::SetFileTimeSource(nullptr);
    EXPECT_EQ(Time_t(5, 0x80000000u), t);  // half a second
}

TEST(Locator, Ipv4SitsInTheLastFourOctetsInNetworkOrder) {
    Locator_t l;
    l.SetIPv4(0x7F000001u);
    EXPECT_EQ(l.address[12], 127);
    EXPECT_EQ(l.address[15], 1);
    EXPECT_EQ(l.GetIPv4(), 0x7F000001u);
}

TEST(Parameter, ValueIsBoundedTo128Octets) {
    unsigned char big[300];
    for (int i = 0; i < 300; ++i) big[i] = static_cast<unsigned char>(i);
    Parameter p(PID_KEY_HASH, 300, big);
    EXPECT_EQ(p.value[127], 127);
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
    EXPECT_EQ(borrowed.buffer, storage);
    borrowed.buffer = nullptr;  // not ours: keep the destructor away from it
    borrowed.maximum = borrowed.length = 0;
}

TEST(Qos, DefaultsGiveBestEffortVolatileKeepLastOne) {
    DataWriterQos w;
    EXPECT_EQ(w.reliability.kind, BEST_EFFORT_RELIABILITY_QOS);
    EXPECT_EQ(w.durability.kind, VOLATILE_DURABILITY_QOS);
    EXPECT_EQ(w.history.kind, KEEP_LAST_HISTORY_QOS);
    EXPECT_EQ(w.history.depth, 1);
    DataReaderQos r;
    EXPECT_TRUE(r.deadline.period == DURATION_INFINITE);
    EXPECT_TRUE(r.liveliness.lease_duration == DURATION_INFINITE);
    EXPECT_EQ(r.multicast.kind, DDS_UNICAST_ONLY_TRANSPORT_MULTICAST_QOS);
}

TEST(Qos, DeepCopySurvivesTheSource) {
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
    ASSERT_TRUE(q.partition.name.reallocate(8));  // a target with room keeps its maximum
    q = p;
    EXPECT_EQ(q.partition.name.maximum, 8u);
    EXPECT_EQ(q.partition.name[0], "A*");
}
