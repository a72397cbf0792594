// Tests of the domain participant: GUID prefix and ids, contains_entity, the
// public clock, type registration, QoS copies and the fixed-value stubs.
#include "DomainParticipant.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DomainParticipantFactory.h"
#include "core/SystemClock.h"
#include "dcps/DomainParticipantImpl.h"

namespace {

DomainParticipant* Create(int domain, const DomainParticipantQos& qos = PARTICIPANT_QOS_DEFAULT) {
    return DomainParticipantFactory::get_instance()->create_participant(domain, qos, nullptr, 0);
}

void Delete(DomainParticipant*& p) {
    EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(p), RETCODE_OK);
}

// One participant of domain 499 (two octets in use) for the whole suite.
class DomainParticipant_Shared : public testing::Test {
protected:
    static void SetUpTestSuite() { s_p = Create(0x1F3); }
    static void TearDownTestSuite() {
        if (s_p != nullptr) Delete(s_p);
        s_p = nullptr;
    }
    void SetUp() override {
        ASSERT_NE(s_p, nullptr);
        m_pImpl = s_p->getImpl();
    }
    static DomainParticipant* s_p;
    DomainParticipantImpl* m_pImpl = nullptr;
};
DomainParticipant* DomainParticipant_Shared::s_p = nullptr;

uint32_t g_fakeTicks = 0;
uint32_t FakeTicks() {
    return g_fakeTicks;
}

}  // namespace

TEST_F(DomainParticipant_Shared, GuidPrefixHoldsAddressDomainAndParticipantId) {
    const GUID_t& guid = m_pImpl->getParticipantGuid();
    // Loopback is the only adapter in the test namespace, so it names the participant.
    const octet expectedHead[8] = {127, 0, 0, 1, 0xF3, 0x01, 0x00, 0x00};
    EXPECT_EQ(std::memcmp(guid.guidPrefix.value, expectedHead, 8), 0);
    uint32_t id;
    std::memcpy(&id, &guid.guidPrefix.value[8], 4);
    EXPECT_EQ(id, m_pImpl->getDomainParticipantId());
    const octet participantKind[4] = {0x00, 0x00, 0x01, 0xC1};
    EXPECT_EQ(std::memcmp(&guid.entityId, participantKind, 4), 0);
    EXPECT_EQ(m_pImpl->getLogId() & 0xFFFF, 0x1F3);
    EXPECT_GE(m_pImpl->getLogId() >> 16, 1);
}

TEST(DomainParticipant_Guid, IdsFollowProcessRandomDomainAndCreationCount) {
    const int domain = 61;
    // An id is a base drawn with the wall-clock second as seed, plus the process's creation
    // count. Only a creation that begins and ends within one second shows its base; under a
    // slow build some do not, so a few are made and the ones that do are compared.
    std::vector<std::pair<int, uint32_t>> counts;  // creation index, id less its base
    int previousLog = -1;
    for (int i = 0; i < 8 && counts.size() < 2; ++i) {
        const int64_t before = SystemClock::WallSeconds();
        DomainParticipant* p = Create(domain);
        const int64_t after = SystemClock::WallSeconds();
        ASSERT_TRUE(p);
        const uint32_t id = p->getImpl()->getDomainParticipantId();
        const int log = p->getImpl()->getLogId();
        Delete(p);
        EXPECT_EQ(log & 0xFFFF, domain);
        if (previousLog >= 0) {
            EXPECT_EQ(log >> 16, (previousLog >> 16) + 1);
        }
        previousLog = log;
        if (before != after) continue;
        std::srand(static_cast<unsigned>(before));
        const uint32_t r = static_cast<uint32_t>(std::rand());
        const uint32_t base = (SystemClock::ProcessId() + r + domain) % 15000 + 1;
        ASSERT_GT(id, base);
        counts.emplace_back(i, id - base);
    }
    ASSERT_EQ(counts.size(), 2u) << "wall clock kept turning its second";
    EXPECT_EQ(counts[1].second - counts[0].second, uint32_t(counts[1].first - counts[0].first));
}

TEST_F(DomainParticipant_Shared, ContainsEntityComparesThePrefixOnly) {
    EXPECT_FALSE(s_p->contains_entity(HANDLE_NIL));
    GUID_t guid = m_pImpl->getParticipantGuid();
    // Any entity id under this prefix counts, and so does a handle marked invalid.
    guid.entityId = EntityId_t{{0x3C, 0x04, 0x01}, 0x03};
    InstanceHandle_t handle(guid);
    handle.isValid = 0;
    EXPECT_TRUE(s_p->contains_entity(handle));
    for (int octetIndex : {0, 4, 11}) {
        InstanceHandle_t other(m_pImpl->getParticipantGuid());
        other.value[octetIndex] ^= 0x80;
        EXPECT_FALSE(s_p->contains_entity(other)) << octetIndex;
    }
}

TEST(DomainParticipant_Clock, SplitsTheWrappingTickCountIntoMilliseconds) {
    struct Row {
        uint32_t ticks;
        int32_t sec;
        uint32_t nanosec;
    };
    const Row rows[] = {{123456789u, 123456, 789000000u}, {0xFFFFFFFFu, 4294967, 295000000u}, {0, 0, 0}};
    SystemClock::SetTickCountSource(&FakeTicks);
    for (const Row& row : rows) {
        g_fakeTicks = row.ticks;
        Time_t t;
        EXPECT_EQ(DomainParticipant::get_current_time(t), RETCODE_OK);
        EXPECT_EQ(t.sec, row.sec) << row.ticks;
        EXPECT_EQ(t.nanosec, row.nanosec) << row.ticks;
    }
    SystemClock::SetTickCountSource(nullptr);

    // The real source advances with real time.
    Time_t t1, t2;
    DomainParticipant::get_current_time(t1);
    SystemClock::SleepMs(30);
    DomainParticipant::get_current_time(t2);
    const int64_t ms = (int64_t(t2.sec) - t1.sec) * 1000 + (int64_t(t2.nanosec) - t1.nanosec) / 1000000;
    EXPECT_GE(ms, 25);
    EXPECT_LT(ms, 2000);
    EXPECT_EQ(t2.nanosec % 1000000u, 0u);
}

TEST_F(DomainParticipant_Shared, RegisterTypeIsExactAndKeepsTheDescription) {
    EXPECT_FALSE(m_pImpl->isTypeRegistered("Position"));
    EXPECT_EQ(s_p->register_type("Position"), RETCODE_OK);
    EXPECT_EQ(s_p->register_type("Position"), RETCODE_OK);
    EXPECT_TRUE(m_pImpl->isTypeRegistered("Position"));
    EXPECT_FALSE(m_pImpl->isTypeRegistered("position"));
    EXPECT_EQ(m_pImpl->findTypeDescription("Position"), nullptr);

    std::list<std::string> lines = {"struct Heading {", "long x;", "};"};
    EXPECT_EQ(s_p->register_type("Heading", lines), RETCODE_OK);
    // A later plain registration does not drop the description.
    EXPECT_EQ(s_p->register_type("Heading"), RETCODE_OK);
    const std::list<std::string>* kept = m_pImpl->findTypeDescription("Heading");
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(*kept, lines);
}

TEST(DomainParticipant_Qos, GetQosIsADeepCopyThatOutlivesItsSources) {
    static const char kAddress[] = "127.0.0.2";
    std::unique_ptr<DomainParticipantQos> source(new DomainParticipantQos);
    source->peer_list.push_back("127.0.0.1");
    source->peer_list.push_back("239.255.0.7");
    source->user_data.value.push_back(0x22);
    source->local_address = kAddress;

    DomainParticipant* p = Create(63, *source);
    ASSERT_NE(p, nullptr);
    source.reset();  // the participant holds its own copy
    DomainParticipantQos out;
    EXPECT_EQ(p->get_qos(out), RETCODE_OK);
    Delete(p);  // and the copy handed out does not depend on the participant

    // The network set-up completed the copy: "127.0.0.1" became the configured address.
    ASSERT_EQ(out.peer_list.length, 2u);
    EXPECT_EQ(out.peer_list[0], kAddress);
    EXPECT_EQ(out.peer_list[1], "239.255.0.7");
    ASSERT_EQ(out.user_data.value.length, 1u);
    EXPECT_EQ(out.user_data.value[0], 0x22);
    EXPECT_EQ(out.local_address, kAddress);  // copied as a pointer
}

TEST(DomainParticipant_Topics, BuiltinTopicNamesAreExactlyTheFour) {
    for (const char* name :
         {"DCPSParticipant", "DCPSPublication", "DCPSSubscription", "DCPSParticipantMessage"})
        EXPECT_TRUE(DomainParticipantImpl::IsBuiltinTopicName(name)) << name;
    for (const char* name : {"", "DCPSTopic", "dcpsparticipant", "DCPSParticipant "})
        EXPECT_FALSE(DomainParticipantImpl::IsBuiltinTopicName(name)) << name;
}

TEST_F(DomainParticipant_Shared, StubsReturnFixedValuesAndLeaveRecordsUnchanged) {
    InstanceHandle_t handle(m_pImpl->getParticipantGuid());
    StringSeq params;
    InstanceHandleSeq handles;
    const ReturnCode_t codes[] = {s_p->assert_liveliness(),
                                  s_p->delete_multitopic(nullptr),
                                  s_p->ignore_participant(handle),
                                  s_p->ignore_publication(handle),
                                  s_p->ignore_subscription(handle),
                                  s_p->ignore_topic(handle),
                                  s_p->set_default_publisher_qos(PUBLISHER_QOS_DEFAULT),
                                  s_p->set_default_subscriber_qos(SUBSCRIBER_QOS_DEFAULT),
                                  s_p->set_default_topic_qos(TOPIC_QOS_DEFAULT),
                                  s_p->get_discovered_participants(handles),
                                  s_p->get_publications(handles, false),
                                  s_p->get_subscriptions(handles, true)};
    for (size_t i = 0; i < sizeof(codes) / sizeof(codes[0]); ++i) EXPECT_EQ(codes[i], RETCODE_OK) << i;
    EXPECT_EQ(handles.length, 0u);
    EXPECT_EQ(s_p->create_multitopic("M", "T", "SELECT * FROM T", params), nullptr);
    EXPECT_EQ(s_p->find_topic("T", DURATION_INFINITE), nullptr);
    TopicQos topic;
    topic.history.depth = 17;
    EXPECT_EQ(s_p->get_default_topic_qos(topic), RETCODE_OK);
    EXPECT_EQ(topic.history.depth, 17);
}
