// Tests of topics: the create_topic rules, look-up, delete_topic with its
// refusals, and the names and QoS a topic keeps from its creation.
#include "Topic.h"

#include <gtest/gtest.h>

#include <string>

#include "DDSLogManagementFactory.h"
#include "DataWriter.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "LogCapture.h"
#include "Publisher.h"
#include "TopicDescription.h"
#include "dcps/DomainParticipantImpl.h"

namespace {

const char kOwnershipFalse[] = "[DomainParticipant::create_topic] ownership is false";

DomainParticipant* Create(int domain) {
    return DomainParticipantFactory::get_instance()->create_participant(domain, PARTICIPANT_QOS_DEFAULT,
                                                                        nullptr, 0);
}

// One participant for the suite; every test leaves it without application entities.
class Topic_Shared : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_p = Create(71);
        if (s_p == nullptr) return;
        s_p->register_type("Position");
        s_p->register_type("Velocity");
    }
    static void TearDownTestSuite() {
        if (s_p == nullptr) return;
        EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(s_p), RETCODE_OK);
        s_p = nullptr;
    }
    void SetUp() override { ASSERT_NE(s_p, nullptr); }
    void TearDown() override {
        if (s_p != nullptr) s_p->delete_contained_entities();
    }
    Topic* Make(const std::string& name, const std::string& type, const TopicQos& qos = TOPIC_QOS_DEFAULT) {
        return s_p->create_topic(name, type, qos, nullptr, 0);
    }
    static DomainParticipant* s_p;
};
DomainParticipant* Topic_Shared::s_p = nullptr;

}  // namespace

TEST_F(Topic_Shared, CreateNeedsTheExactRegisteredTypeName) {
    LogCapture log;
    EXPECT_EQ(Make("Track", "Heading"), nullptr);
    EXPECT_EQ(Make("Track", "position"), nullptr);
    EXPECT_EQ(log.Count("[DomainParticipantImpl::create_topic] Heading is not registereTypeSet"), 1u);
    std::vector<LogCapture::Entry> found = log.Find(kOwnershipFalse);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].key, s_p->getImpl()->getLogId());
    EXPECT_EQ(found[0].code, DDSLOG_INFO);
    EXPECT_EQ(s_p->lookup_topicdescription("Track"), nullptr);
    EXPECT_EQ(log.Count("[DomainParticipant::lookup_topicdescription] ownership is false"), 1u);

    TopicQos qos;
    qos.topic_data.value.push_back(0x5A);
    Topic* t = Make("Track", "Position", qos);
    ASSERT_NE(t, nullptr);
    qos.topic_data.value[0] = 0;  // the topic keeps its own copy
    EXPECT_STREQ(t->get_name(), "Track");
    EXPECT_STREQ(t->get_type_name(), "Position");
    EXPECT_EQ(t->get_participant(), s_p);
    TopicQos got;
    EXPECT_EQ(t->get_qos(got), RETCODE_OK);
    ASSERT_EQ(got.topic_data.value.length, 1u);
    EXPECT_EQ(got.topic_data.value[0], 0x5A);
}

TEST_F(Topic_Shared, SameNameGivesTheFirstTopicOrIsRefusedForAnotherType) {
    TopicQos first;
    first.deadline.period = Duration_t(3, 0);
    TopicQos second;
    second.deadline.period = Duration_t(9, 0);
    const size_t before = s_p->getImpl()->getTopicImplList().size();
    Topic* a = Make("Track", "Position", first);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(Make("Track", "Position", second), a);  // the new QoS is dropped
    EXPECT_EQ(s_p->getImpl()->getTopicImplList().size(), before + 1);
    TopicQos got;
    a->get_qos(got);
    EXPECT_EQ(got.deadline.period, Duration_t(3, 0));

    LogCapture log;
    EXPECT_EQ(Make("Track", "Velocity"), nullptr);
    EXPECT_EQ(log.Count("[DomainParticipantImpl::create_topic] typeName is different topicName = Track "
                        "typeName = Velocity"),
              1u);
    EXPECT_EQ(log.Count(kOwnershipFalse), 1u);

    // Look-up is by topic name only; a type name is no topic name.
    Topic* b = Make("Speed", "Velocity");
    EXPECT_EQ(s_p->lookup_topicdescription("Track"), static_cast<TopicDescription*>(a));
    EXPECT_EQ(s_p->lookup_topicdescription("Speed"), static_cast<TopicDescription*>(b));
    EXPECT_EQ(s_p->lookup_topicdescription("Position"), nullptr);
}

TEST_F(Topic_Shared, DeleteClearsThePointerWithoutReferenceCount) {
    Topic* t = Make("Track", "Position");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(s_p->delete_topic(t), RETCODE_OK);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(s_p->lookup_topicdescription("Track"), nullptr);

    // The name may take another type now. Two holders share one object and one
    // delete removes it for both.
    Topic* again = Make("Track", "Velocity");
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(Make("Track", "Velocity"), again);
    EXPECT_EQ(s_p->delete_topic(again), RETCODE_OK);
    EXPECT_EQ(s_p->lookup_topicdescription("Track"), nullptr);

    LogCapture log;
    EXPECT_EQ(s_p->delete_topic(again), RETCODE_ENTITY_NOT_FOUND);  // cleared: now null
    EXPECT_EQ(log.Count("[DomainParticipantImpl::delete_topic] pTopicImpl = NULL"), 1u);

    // delete_contained_entities takes application topics.
    ASSERT_NE(Make("Track", "Position"), nullptr);
    ASSERT_NE(Make("Speed", "Velocity"), nullptr);
    EXPECT_EQ(s_p->delete_contained_entities(), RETCODE_OK);
    EXPECT_EQ(s_p->lookup_topicdescription("Track"), nullptr);
    EXPECT_EQ(s_p->lookup_topicdescription("Speed"), nullptr);
}

TEST_F(Topic_Shared, DeleteIsRefusedWhileAWriterUsesTheTopicName) {
    Topic* t = Make("Track", "Position");
    ASSERT_NE(t, nullptr);
    Publisher* pub = s_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pub, nullptr);
    DataWriter* w = pub->create_datawriter(t, DATAWRITER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(w, nullptr);

    LogCapture log;
    Topic* held = t;
    EXPECT_EQ(s_p->delete_topic(held), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(held, nullptr);  // cleared although the topic lives on
    EXPECT_EQ(log.Count("[DomainParticipantImpl::delete_topic] pDataWriterImpl = NULL"), 1u);
    EXPECT_EQ(s_p->lookup_topicdescription("Track"), static_cast<TopicDescription*>(t));

    EXPECT_EQ(pub->delete_datawriter(w), RETCODE_OK);
    held = t;
    EXPECT_EQ(s_p->delete_topic(held), RETCODE_OK);
}

TEST_F(Topic_Shared, TopicsAndTypesBelongToTheirOwnParticipant) {
    DomainParticipant* p2 = Create(71);
    ASSERT_NE(p2, nullptr);
    EXPECT_EQ(p2->create_topic("Track", "Position", TOPIC_QOS_DEFAULT, nullptr, 0), nullptr);
    p2->register_type("Position");
    Topic* t1 = Make("Track", "Position");
    Topic* t2 = p2->create_topic("Track", "Position", TOPIC_QOS_DEFAULT, nullptr, 0);
    ASSERT_TRUE(t1 && t2);
    EXPECT_NE(t1, t2);
    EXPECT_EQ(t2->get_participant(), p2);

    LogCapture log;
    Topic* foreign = t2;
    EXPECT_EQ(s_p->delete_topic(foreign), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(foreign, nullptr);
    EXPECT_EQ(log.Count("[DomainParticipantImpl::delete_topic] itTopicImpl = NULL"), 1u);
    EXPECT_EQ(p2->lookup_topicdescription("Track"), static_cast<TopicDescription*>(t2));
    EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(p2), RETCODE_OK);
}
