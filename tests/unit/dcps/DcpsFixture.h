// Shared by the entity tests: one participant of domain 499 (two octets in use)
// for a whole suite, with the test types registered. Each test gets topic "Track",
// a publisher and a subscriber, and leaves no application entity behind.
// Every participant opens sockets, so the binary refuses to run outside a private
// network namespace (scripts/netns-run).
#pragma once

#include <gtest/gtest.h>

#include "DataSendRig.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "NetnsGuard.h"
#include "Publisher.h"
#include "Subscriber.h"
#include "Topic.h"
#include "dcps/DomainParticipantImpl.h"

inline const bool g_NetnsGuardAdded = (AddNetnsGuardEnvironment(), true);

inline DomainParticipantFactory* Factory() {
    return DomainParticipantFactory::get_instance();
}

inline DomainParticipant* Create(int domain) {
    return Factory()->create_participant(domain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
}

class DcpsTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_p = Create(0x1F3);
        for (const char* szType : {"Position", "Velocity"})
            if (s_p != nullptr) s_p->register_type(szType);
    }
    static void TearDownTestSuite() {
        EXPECT_TRUE(s_p == nullptr || Factory()->delete_participant(s_p) == RETCODE_OK);
        s_p = nullptr;
    }
    void SetUp() override {
        ASSERT_NE(s_p, nullptr);
        m_pTopic = s_p->create_topic("Track", "Position", TOPIC_QOS_DEFAULT, nullptr, 0);
        m_pPub = s_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
        m_pSub = s_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
        ASSERT_TRUE(m_pTopic && m_pPub && m_pSub);
    }
    void TearDown() override {
        if (s_p != nullptr) s_p->delete_contained_entities();
    }

    static inline DomainParticipant* s_p = nullptr;
    Topic* m_pTopic = nullptr;
    Publisher* m_pPub = nullptr;
    Subscriber* m_pSub = nullptr;
};

// Stands for a built-in entity class: a facade made around the Impl of a plain one,
// which it replaces.
template <class Facade, class Impl>
class NewFacade : public Facade {
public:
    explicit NewFacade(Impl* pImpl) : Facade(pImpl) {}
};
