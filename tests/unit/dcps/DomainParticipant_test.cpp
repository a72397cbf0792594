// Tests of the domain participant: GUID prefix, contains_entity, and the topics it
// creates, finds and deletes.
#include "DomainParticipant.h"

#include "DataWriter.h"
#include "DcpsFixture.h"

namespace {
class DomainParticipant_Shared : public DcpsTest {
protected:
    static Topic* Make(const std::string& name, const std::string& type) {
        return s_p->create_topic(name, type, TOPIC_QOS_DEFAULT, nullptr, 0);
    }
    static TopicDescription* Find(const std::string& name) { return s_p->lookup_topicdescription(name); }
};
}  // namespace

TEST_F(DomainParticipant_Shared, GuidPrefixHoldsAddressDomainAndParticipantIdAndContainsComparesIt) {
    DomainParticipantImpl* pImpl = s_p->getImpl();
    // Loopback is the only adapter in the test namespace, so it names the participant.
    GUID_t expected = ParticipantGuid(0x1F3, pImpl->getDomainParticipantId());
    expected.guidPrefix.value[0] = 127;
    expected.guidPrefix.value[3] = 1;
    EXPECT_EQ(expected, pImpl->getParticipantGuid());

    // Any entity id under this prefix counts, and so does a handle marked invalid.
    EXPECT_FALSE(s_p->contains_entity(HANDLE_NIL));
    expected.entityId = EntityId_t{{0x3C, 0x04, 0x01}, 0x03};
    InstanceHandle_t handle(expected);
    handle.isValid = 0;
    EXPECT_TRUE(s_p->contains_entity(handle));
    for (int octetIndex : {0, 4, 11}) {
        InstanceHandle_t other(pImpl->getParticipantGuid());
        other.value[octetIndex] ^= 0x80;
        EXPECT_FALSE(s_p->contains_entity(other)) << octetIndex;
    }
}

TEST_F(DomainParticipant_Shared, CreateTopicNeedsTheExactRegisteredTypeAndGivesTheFirstTopicOfAName) {
    LogRecorder log;
    EXPECT_EQ(std::make_pair((Topic*)nullptr, (Topic*)nullptr),
              std::make_pair(Make("Course", "Bearing"), Make("Course", "position")));
    EXPECT_EQ(log.Count("[DomainParticipantImpl::create_topic] Bearing is not registereTypeSet"), 1);
    EXPECT_EQ(Find("Course"), nullptr);
    Topic* t = Make("Course", "Position");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(
        std::make_tuple(std::string("Course"), std::string("Position"), s_p),
        std::make_tuple(std::string(t->get_name()), std::string(t->get_type_name()), t->get_participant()));
    const size_t uiTopics = s_p->getImpl()->getTopicImplList().size();
    EXPECT_EQ(std::make_pair(t, (Topic*)nullptr),  // another type under the name is refused
              std::make_pair(Make("Course", "Position"), Make("Course", "Velocity")));
    EXPECT_EQ(s_p->getImpl()->getTopicImplList().size(), uiTopics);
    // Look-up is by topic name only; a type name is no topic name.
    Topic* b = Make("Pace", "Velocity");
    EXPECT_EQ(std::vector<TopicDescription*>({t, b, nullptr}),
              (std::vector<TopicDescription*>{Find("Course"), Find("Pace"), Find("Position")}));
}

TEST_F(DomainParticipant_Shared, DeleteTopicClearsThePointerWithoutReferenceCount) {
    Topic* t = Make("Course", "Position");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(s_p->delete_topic(t), RETCODE_OK);
    EXPECT_EQ(std::make_pair((Topic*)nullptr, (TopicDescription*)nullptr), std::make_pair(t, Find("Course")));
    // The name may take another type now. Two holders share one object and one delete removes it for both.
    Topic* again = Make("Course", "Velocity");
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(Make("Course", "Velocity"), again);
    EXPECT_EQ(s_p->delete_topic(again), RETCODE_OK);
    EXPECT_EQ(s_p->delete_topic(again), RETCODE_ENTITY_NOT_FOUND);  // cleared: now null
    // Refused while a writer uses the topic name, the pointer cleared all the same.
    Topic* held = t = Make("Course", "Position");
    DataWriter* w = m_pPub->create_datawriter(t, DATAWRITER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(s_p->delete_topic(held), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(std::make_pair((Topic*)nullptr, static_cast<TopicDescription*>(t)),
              std::make_pair(held, Find("Course")));
    EXPECT_EQ(m_pPub->delete_datawriter(w), RETCODE_OK);
    EXPECT_EQ(s_p->delete_topic(held = t), RETCODE_OK);
    // delete_contained_entities takes application topics.
    ASSERT_TRUE(Make("Course", "Position") && Make("Pace", "Velocity"));
    EXPECT_EQ(s_p->delete_contained_entities(), RETCODE_OK);
    EXPECT_TRUE(Find("Course") == nullptr && Find("Pace") == nullptr);
}
