// Tests of topics and type registration: the create_topic rules, look-up,
// delete_topic with its refusals, the facades and the TypeSupport base.
#include "Topic.h"

#include <gtest/gtest.h>

#include <string>

#include "DataWriter.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "LogCapture.h"
#include "NetnsGuard.h"
#include "Publisher.h"
#include "TopicDescription.h"
#include "TypeSupport.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/TopicImpl.h"

namespace {

const char kOwnershipFalse[] = "[DomainParticipant::create_topic] ownership is false";

DomainParticipant* Create(int domain) {
    return DomainParticipantFactory::get_instance()->create_participant(domain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
}

void Delete(DomainParticipant* p) {
    EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(p), RETCODE_OK);
}

class Topic_Fixture : public testing::Test {
protected:
    void SetUp() override {
        MORVODDS_REQUIRE_PRIVATE_NETNS();
        m_p = Create(71);
        ASSERT_NE(m_p, nullptr);
        m_p->register_type("Position");
        m_p->register_type("Velocity");
    }
    void TearDown() override {
        if (m_p != nullptr) Delete(m_p);
    }
    Topic* Make(const std::string& name, const std::string& type, const TopicQos& qos = TOPIC_QOS_DEFAULT) {
        return m_p->create_topic(name, type, qos, nullptr, 0);
    }
    DomainParticipant* m_p = nullptr;
};

using Topic_Create = Topic_Fixture;
using Topic_Delete = Topic_Fixture;
using Topic_Facade = Topic_Fixture;

}  // namespace

// ---------------------------------------------------------------- create_topic

TEST_F(Topic_Create, NeedsARegisteredTypeName) {
    LogCapture log;
    EXPECT_EQ(Make("Track", "Heading"), nullptr);
    EXPECT_EQ(log.Find("[DomainParticipantImpl::create_topic] Heading is not registereTypeSet").size(), 1u);
    EXPECT_EQ(log.Find(kOwnershipFalse).size(), 1u);
    EXPECT_EQ(m_p->lookup_topicdescription("Track"), nullptr);

    // Type names are compared exactly.
    EXPECT_EQ(Make("Track", "position"), nullptr);
    EXPECT_NE(Make("Track", "Position"), nullptr);
}

TEST_F(Topic_Create, SameNameAndTypeGivesTheSameObjectAndDropsTheNewQos) {
    TopicQos first;
    first.deadline.period = Duration_t(3, 0);
    TopicQos second;
    second.deadline.period = Duration_t(9, 0);
    second.history.depth = 40;

    const size_t before = m_p->getImpl()->getTopicImplList().size();
    Topic* a = Make("Track", "Position", first);
    ASSERT_NE(a, nullptr);
    Topic* b = Make("Track", "Position", second);
    EXPECT_EQ(a, b);
    EXPECT_EQ(m_p->getImpl()->getTopicImplList().size(), before + 1);

    TopicQos got;
    EXPECT_EQ(b->get_qos(got), RETCODE_OK);
    EXPECT_EQ(got.deadline.period, Duration_t(3, 0));
    EXPECT_EQ(got.history.depth, 1);
}

TEST_F(Topic_Create, SameNameWithAnotherTypeIsRefused) {
    ASSERT_NE(Make("Track", "Position"), nullptr);
    LogCapture log;
    EXPECT_EQ(Make("Track", "Velocity"), nullptr);
    EXPECT_EQ(log.Find("[DomainParticipantImpl::create_topic] typeName is different topicName = Track "
                       "typeName = Velocity")
                  .size(),
              1u);
    EXPECT_EQ(log.Find(kOwnershipFalse).size(), 1u);
    // The first topic is untouched.
    TopicDescription* found = m_p->lookup_topicdescription("Track");
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->get_type_name(), "Position");
}

TEST_F(Topic_Create, LookupFindsTopicsByNameOnly) {
    Topic* a = Make("Track", "Position");
    Topic* b = Make("Speed", "Velocity");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(m_p->lookup_topicdescription("Track"), static_cast<TopicDescription*>(a));
    EXPECT_EQ(m_p->lookup_topicdescription("Speed"), static_cast<TopicDescription*>(b));

    LogCapture log;
    EXPECT_EQ(m_p->lookup_topicdescription("Position"), nullptr);  // a type name is no topic name
    EXPECT_EQ(log.Find("[DomainParticipant::lookup_topicdescription] ownership is false").size(), 1u);
}

TEST(Topic_Participants, TopicsBelongToTheirOwnParticipant) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    DomainParticipant* p1 = Create(72);
    DomainParticipant* p2 = Create(72);
    ASSERT_NE(p1, nullptr);
    ASSERT_NE(p2, nullptr);
    p1->register_type("Position");
    // Registration is per participant.
    EXPECT_EQ(p2->create_topic("Track", "Position", TOPIC_QOS_DEFAULT, nullptr, 0), nullptr);
    p2->register_type("Position");
    Topic* t1 = p1->create_topic("Track", "Position", TOPIC_QOS_DEFAULT, nullptr, 0);
    Topic* t2 = p2->create_topic("Track", "Position", TOPIC_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(t1, nullptr);
    ASSERT_NE(t2, nullptr);
    EXPECT_NE(t1, t2);
    EXPECT_EQ(t1->get_participant(), p1);
    EXPECT_EQ(t2->get_participant(), p2);

    // A topic of another participant is not found in this list.
    LogCapture log;
    Topic* foreign = t2;
    EXPECT_EQ(p1->delete_topic(foreign), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(foreign, nullptr);
    EXPECT_EQ(log.Find("[DomainParticipantImpl::delete_topic] itTopicImpl = NULL").size(), 1u);
    EXPECT_EQ(p2->lookup_topicdescription("Track"), static_cast<TopicDescription*>(t2));
    Delete(p1);
    Delete(p2);
}

// ---------------------------------------------------------------- delete_topic

TEST_F(Topic_Delete, RemovesTheTopicAndClearsThePointer) {
    Topic* t = Make("Track", "Position");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(m_p->delete_topic(t), RETCODE_OK);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(m_p->lookup_topicdescription("Track"), nullptr);

    // A new topic of that name may take another type now. Two holders share one
    // object, and one delete removes it for both: there is no reference count.
    Topic* again = Make("Track", "Velocity");
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(Make("Track", "Velocity"), again);
    EXPECT_EQ(m_p->delete_topic(again), RETCODE_OK);
    EXPECT_EQ(m_p->lookup_topicdescription("Track"), nullptr);

    LogCapture log;
    EXPECT_EQ(m_p->delete_topic(again), RETCODE_ENTITY_NOT_FOUND);  // cleared: now null
    EXPECT_EQ(log.Find("[DomainParticipantImpl::delete_topic] pTopicImpl = NULL").size(), 1u);
}

TEST_F(Topic_Delete, RefusedWhileAWriterUsesTheTopicName) {
    Topic* t = Make("Track", "Position");
    ASSERT_NE(t, nullptr);
    Publisher* pub = m_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pub, nullptr);
    DataWriter* w = pub->create_datawriter(t, DATAWRITER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(w, nullptr);

    LogCapture log;
    Topic* held = t;
    EXPECT_EQ(m_p->delete_topic(held), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(held, nullptr);  // cleared although the topic lives on
    EXPECT_EQ(log.Find("[DomainParticipantImpl::delete_topic] pDataWriterImpl = NULL").size(), 1u);
    EXPECT_EQ(m_p->lookup_topicdescription("Track"), static_cast<TopicDescription*>(t));

    // Once the writer is gone the topic can go.
    EXPECT_EQ(pub->delete_datawriter(w), RETCODE_OK);
    held = t;
    EXPECT_EQ(m_p->delete_topic(held), RETCODE_OK);
}

TEST_F(Topic_Delete, ContainedEntitiesTakeApplicationTopics) {
    ASSERT_NE(Make("Track", "Position"), nullptr);
    ASSERT_NE(Make("Speed", "Velocity"), nullptr);
    EXPECT_EQ(m_p->delete_contained_entities(), RETCODE_OK);
    EXPECT_EQ(m_p->lookup_topicdescription("Track"), nullptr);
    EXPECT_EQ(m_p->lookup_topicdescription("Speed"), nullptr);
}

// ---------------------------------------------------------------- facades

TEST_F(Topic_Facade, NamesQosAndParticipantAreThoseOfCreation) {
    TopicQos qos;
    qos.reliability.kind = RELIABLE_RELIABILITY_QOS;
    qos.topic_data.value.push_back(0x5A);
    Topic* t = Make("Track", "Position", qos);
    ASSERT_NE(t, nullptr);
    qos.topic_data.value[0] = 0;  // the topic keeps its own copy
    EXPECT_STREQ(t->get_name(), "Track");
    EXPECT_STREQ(t->get_type_name(), "Position");
    EXPECT_EQ(t->get_participant(), m_p);

    // Both pointers of the facade lead to the one Impl, which holds the facade.
    TopicImpl* pImpl = t->getTopicImpl();
    ASSERT_NE(pImpl, nullptr);
    EXPECT_EQ(static_cast<TopicDescriptionImpl*>(pImpl), t->getImpl());
    EXPECT_EQ(pImpl->getTopic(), t);
    EXPECT_EQ(pImpl->getFacade(), static_cast<TopicDescription*>(t));
    EXPECT_EQ(pImpl->getParticipant(), m_p->getImpl());
    EXPECT_EQ(pImpl->getDataReader(), nullptr);

    TopicQos got;
    EXPECT_EQ(t->get_qos(got), RETCODE_OK);
    EXPECT_EQ(got.reliability.kind, RELIABLE_RELIABILITY_QOS);
    ASSERT_EQ(got.topic_data.value.length, 1u);
    EXPECT_EQ(got.topic_data.value[0], 0x5A);
}

// ---------------------------------------------------------------- type support

namespace {
class ApplicationTypeSupport : public TypeSupport {
public:
    TypeCode* GetTypeCode() override { return reinterpret_cast<TypeCode*>(this); }
};
}  // namespace

TEST(TypeSupport, BaseHasNoTypeCodeAndDerivedClassesMayOverride) {
    TypeSupport base;
    EXPECT_EQ(base.GetTypeCode(), nullptr);
    ApplicationTypeSupport derived;
    TypeSupport& asBase = derived;
    EXPECT_NE(asBase.GetTypeCode(), nullptr);
}
