// Tests of the domain participant: GUID prefix, log id, contains_entity, the
// public clock, type registration, QoS copies and the fixed-value stubs.
#include "DomainParticipant.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <string>

#include "DDSLogManagementFactory.h"
#include "DomainParticipantFactory.h"
#include "LogCapture.h"
#include "core/SystemClock.h"
#include "dcps/DomainParticipantImpl.h"

namespace {

DomainParticipant* Create(int domain, const DomainParticipantQos& qos = PARTICIPANT_QOS_DEFAULT) {
    return DomainParticipantFactory::get_instance()->create_participant(domain, qos, nullptr, 0);
}

void Delete(DomainParticipant* p) {
    EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(p), RETCODE_OK);
}

uint32_t Word(const GUID_t& guid, int offset) {
    uint32_t w;
    std::memcpy(&w, &guid.guidPrefix.value[offset], 4);
    return w;
}

// A participant per test, deleted through the factory.
class DomainParticipant_Ops : public testing::Test {
protected:
    void SetUp() override {
        m_p = Create(60);
        ASSERT_NE(m_p, nullptr);
        m_pImpl = m_p->getImpl();
    }
    void TearDown() override {
        if (m_p != nullptr) Delete(m_p);
    }
    DomainParticipant* m_p = nullptr;
    DomainParticipantImpl* m_pImpl = nullptr;
};

uint32_t g_fakeTicks = 0;
uint32_t FakeTicks() { return g_fakeTicks; }

}  // namespace

// ---------------------------------------------------------------- GUID and log id

TEST(DomainParticipant_Guid, PrefixHoldsAddressDomainAndParticipantId) {
    DomainParticipant* p = Create(0x1F3);  // 499: two octets in use
    ASSERT_NE(p, nullptr);
    const GUID_t& guid = p->getImpl()->getParticipantGuid();
    // Loopback is the only adapter in the test namespace, so it names the participant.
    const octet expectedHead[8] = {127, 0, 0, 1, 0xF3, 0x01, 0x00, 0x00};
    EXPECT_EQ(std::memcmp(guid.guidPrefix.value, expectedHead, 8), 0);
    EXPECT_EQ(Word(guid, 8), p->getImpl()->getDomainParticipantId());
    const octet participantKind[4] = {0x00, 0x00, 0x01, 0xC1};
    EXPECT_EQ(std::memcmp(&guid.entityId, participantKind, 4), 0);
    Delete(p);
}

TEST(DomainParticipant_Guid, ParticipantIdFollowsProcessRandomDomainAndCreationCount) {
    const int domain = 61;
    // Retried when the wall clock second turns in between, which changes the seed.
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int64_t before = SystemClock::WallSeconds();
        DomainParticipant* a = Create(domain);
        DomainParticipant* b = Create(domain);
        const int64_t after = SystemClock::WallSeconds();
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        const uint32_t idA = a->getImpl()->getDomainParticipantId();
        const uint32_t idB = b->getImpl()->getDomainParticipantId();
        EXPECT_NE(idA, idB);
        Delete(a);
        Delete(b);
        if (before != after) continue;

        std::srand(static_cast<unsigned>(before));
        const uint32_t r = static_cast<uint32_t>(std::rand());
        const uint32_t base = (SystemClock::ProcessId() + r + domain) % 15000 + 1;
        // Same second, same draw: only the creation counter tells the two apart.
        ASSERT_GT(idA, base);
        EXPECT_EQ(idB, idA + 1);
        return;
    }
    ADD_FAILURE() << "wall clock kept turning its second";
}

TEST(DomainParticipant_Guid, LogIdCarriesDomainInLowBitsAndCountAbove) {
    DomainParticipant* a = Create(62);
    DomainParticipant* b = Create(500);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    const int idA = a->getImpl()->getLogId();
    const int idB = b->getImpl()->getLogId();
    EXPECT_EQ(idA & 0xFFFF, 62);
    EXPECT_EQ(idB & 0xFFFF, 500);
    EXPECT_GE(idA >> 16, 1);
    EXPECT_EQ(idB >> 16, (idA >> 16) + 1);
    Delete(a);
    Delete(b);
}

// ---------------------------------------------------------------- contains_entity

TEST_F(DomainParticipant_Ops, ContainsEntityComparesThePrefixOnly) {
    EXPECT_FALSE(m_p->contains_entity(HANDLE_NIL));

    GUID_t guid = m_pImpl->getParticipantGuid();
    EXPECT_TRUE(m_p->contains_entity(InstanceHandle_t(guid)));

    // Any entity id under this prefix counts, and so does a handle marked invalid.
    guid.entityId = EntityId_t{{0x3C, 0x04, 0x01}, 0x03};
    InstanceHandle_t handle(guid);
    EXPECT_TRUE(m_p->contains_entity(handle));
    handle.isValid = 0;
    EXPECT_TRUE(m_p->contains_entity(handle));

    for (int octetIndex : {0, 4, 11}) {
        InstanceHandle_t other(m_pImpl->getParticipantGuid());
        other.value[octetIndex] ^= 0x80;
        EXPECT_FALSE(m_p->contains_entity(other)) << octetIndex;
    }
}

TEST_F(DomainParticipant_Ops, ContainsEntityRefusesAnotherParticipantsHandle) {
    DomainParticipant* other = Create(60);
    ASSERT_NE(other, nullptr);
    InstanceHandle_t handle(other->getImpl()->getParticipantGuid());
    EXPECT_TRUE(other->contains_entity(handle));
    EXPECT_FALSE(m_p->contains_entity(handle));
    Delete(other);
}

// ---------------------------------------------------------------- public clock

TEST(DomainParticipant_Clock, SplitsTheTickCountIntoSecondsAndNanoseconds) {
    Time_t t;
    g_fakeTicks = 123456789u;
    SystemClock::SetTickCountSource(&FakeTicks);
    EXPECT_EQ(DomainParticipant::get_current_time(t), RETCODE_OK);
    EXPECT_EQ(t.sec, 123456);
    EXPECT_EQ(t.nanosec, 789000000u);

    // The 32-bit tick count wraps, and the time with it.
    g_fakeTicks = 0xFFFFFFFFu;
    DomainParticipant::get_current_time(t);
    EXPECT_EQ(t.sec, 4294967);
    EXPECT_EQ(t.nanosec, 295000000u);
    g_fakeTicks = 0;
    DomainParticipant::get_current_time(t);
    EXPECT_EQ(t.sec, 0);
    EXPECT_EQ(t.nanosec, 0u);
    SystemClock::SetTickCountSource(nullptr);
}

TEST(DomainParticipant_Clock, AdvancesWithRealTime) {
    Time_t t1, t2;
    DomainParticipant::get_current_time(t1);
    SystemClock::SleepMs(30);
    DomainParticipant::get_current_time(t2);
    for (const Time_t& t : {t1, t2}) {
        EXPECT_LT(t.nanosec, 1000000000u);
        EXPECT_EQ(t.nanosec % 1000000u, 0u);
    }
    const int64_t ms1 = int64_t(t1.sec) * 1000 + t1.nanosec / 1000000;
    const int64_t ms2 = int64_t(t2.sec) * 1000 + t2.nanosec / 1000000;
    EXPECT_GE(ms2 - ms1, 25);
    EXPECT_LT(ms2 - ms1, 2000);
}

// ---------------------------------------------------------------- types

TEST_F(DomainParticipant_Ops, RegisterTypeIsIdempotent) {
    EXPECT_FALSE(m_pImpl->isTypeRegistered("Position"));
    EXPECT_EQ(m_p->register_type("Position"), RETCODE_OK);
    EXPECT_EQ(m_p->register_type("Position"), RETCODE_OK);
    EXPECT_TRUE(m_pImpl->isTypeRegistered("Position"));
    EXPECT_FALSE(m_pImpl->isTypeRegistered("position"));
    EXPECT_EQ(m_pImpl->findTypeDescription("Position"), nullptr);
}

TEST_F(DomainParticipant_Ops, RegisterTypeWithDescriptionKeepsTheLines) {
    std::list<std::string> lines = {"struct Position {", "long x;", "long y;", "};"};
    EXPECT_EQ(m_p->register_type("Position", lines), RETCODE_OK);
    EXPECT_TRUE(m_pImpl->isTypeRegistered("Position"));
    const std::list<std::string>* kept = m_pImpl->findTypeDescription("Position");
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(*kept, lines);

    // A later plain registration does not drop the description.
    EXPECT_EQ(m_p->register_type("Position"), RETCODE_OK);
    EXPECT_NE(m_pImpl->findTypeDescription("Position"), nullptr);
}

TEST_F(DomainParticipant_Ops, RegisteredTypesArePerParticipant) {
    DomainParticipant* other = Create(60);
    ASSERT_NE(other, nullptr);
    m_p->register_type("OnlyHere");
    EXPECT_FALSE(other->getImpl()->isTypeRegistered("OnlyHere"));
    Delete(other);
}

// ---------------------------------------------------------------- QoS and listeners

TEST(DomainParticipant_Qos, GetQosIsADeepCopyThatOutlivesItsSources) {
    static const char kAddress[] = "127.0.0.2";
    std::unique_ptr<DomainParticipantQos> source(new DomainParticipantQos);
    source->peer_list.push_back("127.0.0.1");
    source->peer_list.push_back("239.255.0.7");
    source->user_data.value.push_back(0x11);
    source->user_data.value.push_back(0x22);
    TransportMulticastSetting setting;
    setting.receive_address = "239.1.1.1";
    setting.receive_port = 7777;
    source->multicast.value.push_back(setting);
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
    ASSERT_EQ(out.user_data.value.length, 2u);
    EXPECT_EQ(out.user_data.value[1], 0x22);
    ASSERT_EQ(out.multicast.value.length, 1u);
    EXPECT_EQ(out.multicast.value[0].receive_address, "239.1.1.1");
    EXPECT_EQ(out.multicast.value[0].receive_port, 7777u);
    EXPECT_EQ(out.local_address, kAddress);  // copied as a pointer
}

TEST_F(DomainParticipant_Ops, ListenersAreStoredAndMasksIgnored) {
    DomainParticipantListener listener;
    DomainParticipantListener monitor;
    EXPECT_EQ(m_pImpl->getMonitorListener(), nullptr);
    EXPECT_EQ(m_p->set_listener(&listener, 0), RETCODE_OK);
    EXPECT_EQ(m_p->set_monitor_listener(&monitor, 0x1234), RETCODE_OK);
    EXPECT_EQ(m_pImpl->getListener(), &listener);
    EXPECT_EQ(m_pImpl->getMonitorListener(), &monitor);
    EXPECT_EQ(m_p->set_monitor_listener(nullptr, 0), RETCODE_OK);
    EXPECT_EQ(m_pImpl->getMonitorListener(), nullptr);
    m_p->set_listener(nullptr, 0);
}

TEST_F(DomainParticipant_Ops, FacadeAndImplPointAtEachOther) {
    EXPECT_EQ(m_pImpl->getFacade(), m_p);
    EXPECT_EQ(m_p->get_domain_id(), 60);
    EXPECT_TRUE(m_pImpl->getDynamicDiscoveryFlag());
    m_pImpl->setDynamicDiscoveryFlag(false);
    EXPECT_FALSE(m_pImpl->getDynamicDiscoveryFlag());
    m_pImpl->setDynamicDiscoveryFlag(true);
}

// ---------------------------------------------------------------- topics by name

TEST_F(DomainParticipant_Ops, UnknownTopicNamesLogOwnershipFalse) {
    LogCapture log;
    EXPECT_EQ(m_p->lookup_topicdescription("NoSuchTopic"), nullptr);
    EXPECT_EQ(m_p->create_topic("T", "UnregisteredType", TOPIC_QOS_DEFAULT, nullptr, 0), nullptr);
    auto lookup = log.Find("[DomainParticipant::lookup_topicdescription] ownership is false");
    auto create = log.Find("[DomainParticipant::create_topic] ownership is false");
    ASSERT_EQ(lookup.size(), 1u);
    ASSERT_EQ(create.size(), 1u);
    EXPECT_EQ(lookup[0].key, m_pImpl->getLogId());
    EXPECT_EQ(create[0].code, DDSLOG_INFO);
}

TEST(DomainParticipant_Topics, BuiltinTopicNamesAreExactlyTheFour) {
    for (const char* name : {"DCPSParticipant", "DCPSPublication", "DCPSSubscription", "DCPSParticipantMessage"})
        EXPECT_TRUE(DomainParticipantImpl::IsBuiltinTopicName(name)) << name;
    for (const char* name : {"", "DCPSTopic", "dcpsparticipant", "DCPSParticipant ", "Position"})
        EXPECT_FALSE(DomainParticipantImpl::IsBuiltinTopicName(name)) << name;
}

TEST_F(DomainParticipant_Ops, DeleteContainedEntitiesOnAnEmptyParticipantIsOk) {
    EXPECT_EQ(m_p->delete_contained_entities(), RETCODE_OK);
    EXPECT_EQ(m_p->delete_contained_entities(), RETCODE_OK);
}

// ---------------------------------------------------------------- stubs

TEST_F(DomainParticipant_Ops, StubsReturnTheirFixedValues) {
    InstanceHandle_t handle(m_pImpl->getParticipantGuid());
    StringSeq params;
    EXPECT_EQ(m_p->assert_liveliness(), RETCODE_OK);
    EXPECT_EQ(m_p->create_multitopic("M", "T", "SELECT * FROM T", params), nullptr);
    EXPECT_EQ(m_p->delete_multitopic(nullptr), RETCODE_OK);
    EXPECT_EQ(m_p->find_topic("T", DURATION_INFINITE), nullptr);
    EXPECT_EQ(m_p->ignore_participant(handle), RETCODE_OK);
    EXPECT_EQ(m_p->ignore_publication(handle), RETCODE_OK);
    EXPECT_EQ(m_p->ignore_subscription(handle), RETCODE_OK);
    EXPECT_EQ(m_p->ignore_topic(handle), RETCODE_OK);
    EXPECT_EQ(m_p->set_default_publisher_qos(PUBLISHER_QOS_DEFAULT), RETCODE_OK);
    EXPECT_EQ(m_p->set_default_subscriber_qos(SUBSCRIBER_QOS_DEFAULT), RETCODE_OK);
    EXPECT_EQ(m_p->set_default_topic_qos(TOPIC_QOS_DEFAULT), RETCODE_OK);
}

TEST_F(DomainParticipant_Ops, DefaultQosGettersLeaveRecordsUnchanged) {
    PublisherQos pub;
    pub.presentation.ordered_access = true;
    pub.partition.name.push_back("A");
    SubscriberQos sub;
    sub.entity_factory.autoenable_created_entities = false;
    TopicQos topic;
    topic.history.depth = 17;
    topic.reliability.kind = RELIABLE_RELIABILITY_QOS;

    EXPECT_EQ(m_p->get_default_publisher_qos(pub), RETCODE_OK);
    EXPECT_EQ(m_p->get_default_subscriber_qos(sub), RETCODE_OK);
    EXPECT_EQ(m_p->get_default_topic_qos(topic), RETCODE_OK);
    EXPECT_TRUE(pub.presentation.ordered_access);
    ASSERT_EQ(pub.partition.name.length, 1u);
    EXPECT_EQ(pub.partition.name[0], "A");
    EXPECT_FALSE(sub.entity_factory.autoenable_created_entities);
    EXPECT_EQ(topic.history.depth, 17);
    EXPECT_EQ(topic.reliability.kind, RELIABLE_RELIABILITY_QOS);
}

TEST_F(DomainParticipant_Ops, DiscoveredEntityQueriesReturnOk) {
    InstanceHandleSeq handles;
    EXPECT_EQ(m_p->get_discovered_participants(handles), RETCODE_OK);
    EXPECT_EQ(m_p->get_publications(handles, false), RETCODE_OK);
    EXPECT_EQ(m_p->get_subscriptions(handles, true), RETCODE_OK);
    EXPECT_EQ(handles.length, 0u);
}
