#include <gtest/gtest.h>

#include <string>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "Sequence.h"
#include "core/SystemClock.h"

TEST(SequenceNumber, AddCarriesIntoHighWhenLowOverflows) {
    SequenceNumber_t s(0, 0xFFFFFFFEu);
    s += 1;
    EXPECT_EQ(s.high, 0);
    EXPECT_EQ(s.low, 0xFFFFFFFFu);
    s += 1;
    EXPECT_EQ(s.high, 1);
    EXPECT_EQ(s.low, 0u);
    SequenceNumber_t t(3, 0xFFFFFFF0u);
    t += 0x20;
    EXPECT_EQ(t.high, 4);
    EXPECT_EQ(t.low, 0x10u);
}

TEST(SequenceNumber, SubtractBorrowsFromHigh) {
    SequenceNumber_t s(1, 0);
    s -= 1;
    EXPECT_EQ(s.high, 0);
    EXPECT_EQ(s.low, 0xFFFFFFFFu);
}

TEST(SequenceNumber, ComparesHighSignedThenLowUnsigned) {
    EXPECT_LT(SEQUENCENUMBER_UNKNOWN, SEQUENCENUMBER_ZERO);
    EXPECT_NE(SEQUENCENUMBER_UNKNOWN, SEQUENCENUMBER_ZERO);
    EXPECT_EQ(SequenceNumber_t().high, -2);
    // A large low word never makes a lower high win.
    EXPECT_LT(SequenceNumber_t(0, 0xFFFFFFFFu), SequenceNumber_t(1, 0));
    EXPECT_LT(SequenceNumber_t(-1, 0xFFFFFFFFu), SequenceNumber_t(0, 0));
    EXPECT_GT(SequenceNumber_t(0, 0x80000000u), SequenceNumber_t(0, 1));
}

TEST(Time, NanosecondAdditionCarries) {
    Time_t a(1, 600000000u), b(2, 500000000u);
    Time_t c = a + b;
    EXPECT_EQ(c.sec, 4);
    EXPECT_EQ(c.nanosec, 100000000u);
    EXPECT_TRUE(Time_t(1, 0) > Time_t(0, 999999999u));
    EXPECT_TRUE(Time_t(0, 0) > Time_t(-1, 5));
    EXPECT_TRUE(DURATION_INFINITE == Duration_t(0x7FFFFFFF, 0xFFFFFFFFu));
    EXPECT_TRUE(Time_t(1, 2) != Time_t(1, 3));
}

TEST(Time, RtpsTimestampUsesBinaryFractions) {
    Time_t t = GetRtpsTimestamp();
    EXPECT_GT(t.sec, 1700000000);  // seconds since 1970
}

TEST(Guid, EqualityComparesPrefixAndEntity) {
    GUID_t a = GUID_UNKNOWN, b = GUID_UNKNOWN;
    EXPECT_EQ(a, b);
    b.entityId = ENTITYID_PARTICIPANT;
    EXPECT_NE(a, b);
    b = a;
    b.guidPrefix.value[11] = 1;
    EXPECT_NE(a, b);
    EXPECT_EQ(GUID_t().entityId, ENTITYID_UNKNOWN);
}

TEST(Locator, DefaultsAndIpv4Octets) {
    Locator_t l;
    EXPECT_EQ(l.kind, 0);
    EXPECT_EQ(l.port, 0u);
    l.SetIPv4(0x7F000001u);
    EXPECT_EQ(l.address[12], 127);
    EXPECT_EQ(l.address[15], 1);
    EXPECT_EQ(l.GetIPv4(), 0x7F000001u);
}

TEST(InstanceHandle, NilIsZeroAndInvalid) {
    EXPECT_EQ(HANDLE_NIL.length, 16u);
    EXPECT_EQ(HANDLE_NIL.isValid, 0);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(HANDLE_NIL.value[i], 0);
}

TEST(Parameter, ValueIsBoundedTo128Octets) {
    unsigned char big[300];
    for (int i = 0; i < 300; ++i) big[i] = static_cast<unsigned char>(i);
    Parameter p(PID_KEY_HASH, 300, big);
    EXPECT_EQ(p.value[127], 127);
}

TEST(Sequence, DefaultsAndOutOfRangeAccess) {
    sequence<int> s;
    EXPECT_EQ(s.maximum, 0u);
    EXPECT_EQ(s.length, 0u);
    EXPECT_EQ(s.release, 1);
    EXPECT_EQ(s.buffer, nullptr);
    EXPECT_THROW(s[0], std::out_of_range);
}

TEST(Sequence, ReallocationRules) {
    sequence<int> s;
    ASSERT_TRUE(s.set_length(3, 5));
    EXPECT_EQ(s.maximum, 5u);
    for (int i = 0; i < 3; ++i) s[i] = i + 10;
    EXPECT_TRUE(s.reallocate(5));  // unchanged maximum is a no-op
    ASSERT_TRUE(s.reallocate(2));  // shrinking clips the length
    EXPECT_EQ(s.length, 2u);
    EXPECT_EQ(s[1], 11);
    EXPECT_FALSE(s.set_length(4, 3));  // length beyond target refused
    EXPECT_TRUE(s.set_length(1, 3));   // within the current maximum: no growth
    EXPECT_EQ(s.maximum, 2u);
}

TEST(Sequence, RefusesWhenNotReleasableOrBroken) {
    int storage[4] = {1, 2, 3, 4};
    sequence<int> s;
    s.buffer = storage;
    s.maximum = 4;
    s.length = 4;
    s.release = 0;
    EXPECT_FALSE(s.reallocate(8));
    EXPECT_EQ(s.buffer, storage);
    EXPECT_EQ(s.length, 4u);
    s.buffer = nullptr;  // not ours: keep the destructor away from it
    s.maximum = 0;
    s.length = 0;

    sequence<int> broken;
    broken.maximum = 4;  // maximum without a buffer breaks the invariant
    EXPECT_FALSE(broken.reallocate(8));
    broken.maximum = 0;
}

TEST(Qos, DefaultsGiveBestEffortVolatileKeepLastOne) {
    DataWriterQos w;
    EXPECT_EQ(w.reliability.kind, BEST_EFFORT_RELIABILITY_QOS);
    EXPECT_EQ(w.durability.kind, VOLATILE_DURABILITY_QOS);
    EXPECT_EQ(w.history.kind, KEEP_LAST_HISTORY_QOS);
    EXPECT_EQ(w.history.depth, 1);
    EXPECT_TRUE(w.writer_data_lifecycle.autodispose_unregistered_instances);
    DataReaderQos r;
    EXPECT_TRUE(r.deadline.period == DURATION_INFINITE);
    EXPECT_TRUE(r.liveliness.lease_duration == DURATION_INFINITE);
    EXPECT_TRUE(r.time_based_filter.minimum_separation == DURATION_ZERO);
    EXPECT_EQ(r.multicast.value.length, 0u);
    EXPECT_EQ(r.multicast.kind, DDS_UNICAST_ONLY_TRANSPORT_MULTICAST_QOS);
    EXPECT_EQ(DurabilityServiceQosPolicy().history_kind, KEEP_ALL_HISTORY_QOS);
}

TEST(Qos, DeepCopySurvivesTheSource) {
    DomainParticipantQos copy;
    {
        DomainParticipantQos src;
        src.peer_list.push_back("10.1.2.3");
        src.peer_list.push_back("239.255.0.1");
        src.user_data.value.push_back(7);
        TransportMulticastSetting m;
        m.receive_address = "239.255.0.2";
        m.receive_port = 7777;
        src.multicast.value.push_back(m);
        copy = src;
        src.peer_list[0] = "changed";
    }
    ASSERT_EQ(copy.peer_list.length, 2u);
    EXPECT_EQ(copy.peer_list[0], "10.1.2.3");
    EXPECT_EQ(copy.user_data.value[0], 7);
    EXPECT_EQ(copy.multicast.value[0].receive_port, 7777u);

    PublisherQos p;
    p.partition.name.push_back("A*");
    PublisherQos q;
    ASSERT_TRUE(q.partition.name.reallocate(8));  // a target with room keeps its maximum
    q = p;
    EXPECT_EQ(q.partition.name.maximum, 8u);
    EXPECT_EQ(q.partition.name[0], "A*");
}

namespace {
uint64_t FixedTicks() { return 0x019DB1DED53E8000ULL + 10000000ULL * 5 + 5000000ULL; }
}  // namespace

TEST(Time, RtpsTimestampSplitsSecondsAndBinaryFraction) {
    SystemClock::SetFileTimeSource(&FixedTicks);
    Time_t t = GetRtpsTimestamp();
    SystemClock::SetFileTimeSource(nullptr);
    EXPECT_EQ(t.sec, 5);
    EXPECT_EQ(t.nanosec, 0x80000000u);  // half a second
}
