// Tests of the participant factory: domain bounds, per-domain lists, deletion
// codes and the factory's stubs. Participants open no sockets at this stage.
#include "DomainParticipantFactory.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "DomainParticipant.h"
#include "LogCapture.h"
#include "dcps/DomainParticipantFactoryImpl.h"
#include "dcps/DomainParticipantImpl.h"

namespace {

const char kRangeText[] = "A vaild range of Domain Id : 0 ~ 500 !\n";
const char kLookupFail[] = "[DomainParticipantFactoryImpl::lookup_participant] fail";
const char kNotExist[] = "[DomainParticipantFactoryImpl::delete_participant] participant isnot exist";

DomainParticipantFactory* Factory() { return DomainParticipantFactory::get_instance(); }

DomainParticipant* Create(int domain) {
    return Factory()->create_participant(domain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
}

}  // namespace

TEST(DomainParticipantFactory, InstanceExistsFromLoadAndIsStable) {
    ASSERT_NE(Factory(), nullptr);
    EXPECT_EQ(Factory(), DomainParticipantFactory::get_instance());
    EXPECT_NE(Factory()->getImpl(), nullptr);
}

// ---------------------------------------------------------------- domain bounds

TEST(DomainParticipantFactory_DomainRange, CreateRefusesOutsideZeroTo500WithConsoleText) {
    LogCapture log;
    for (int domain : {501, -1, 1000000, -2147483647 - 1}) {
        testing::internal::CaptureStdout();
        DomainParticipant* p = Create(domain);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), kRangeText) << domain;
        EXPECT_EQ(p, nullptr) << domain;
    }
    // No log exists for such a domain, so nothing goes there.
    EXPECT_TRUE(log.Entries().empty());
}

TEST(DomainParticipantFactory_DomainRange, BoundsZeroAnd500AreAccepted) {
    for (int domain : {500, 0}) {
        testing::internal::CaptureStdout();
        DomainParticipant* p = Create(domain);
        EXPECT_EQ(testing::internal::GetCapturedStdout().find(kRangeText), std::string::npos);
        ASSERT_NE(p, nullptr) << domain;
        EXPECT_EQ(p->get_domain_id(), domain);
        EXPECT_EQ(Factory()->lookup_participant(domain), p);
        EXPECT_EQ(Factory()->delete_participant(p), RETCODE_OK);
    }
}

TEST(DomainParticipantFactory_DomainRange, LookupRefusesOutsideRangeWithoutLogging) {
    LogCapture log;
    for (int domain : {501, -1}) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(Factory()->lookup_participant(domain), nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), kRangeText) << domain;
    }
    EXPECT_TRUE(log.Find(kLookupFail).empty());
}

// ---------------------------------------------------------------- lists per domain

TEST(DomainParticipantFactory_Lists, LookupGivesFirstLivingParticipantOfTheDomain) {
    const int domain = 41;
    DomainParticipant* first = Create(domain);
    DomainParticipant* second = Create(domain);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_NE(first, second);
    EXPECT_EQ(Factory()->getImpl()->ParticipantCount(domain), 2u);
    EXPECT_EQ(Factory()->lookup_participant(domain), first);

    DomainParticipant* held = first;
    EXPECT_EQ(Factory()->delete_participant(first), RETCODE_OK);
    EXPECT_EQ(first, held);  // the caller's pointer is left as it stands
    EXPECT_EQ(Factory()->lookup_participant(domain), second);
    EXPECT_EQ(Factory()->getImpl()->ParticipantCount(domain), 1u);

    EXPECT_EQ(Factory()->delete_participant(second), RETCODE_OK);
}

TEST(DomainParticipantFactory_Lists, DeletingTheLastParticipantEmptiesTheDomain) {
    const int domain = 42;
    DomainParticipant* p = Create(domain);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(Factory()->delete_participant(p), RETCODE_OK);

    LogCapture log;
    EXPECT_EQ(Factory()->lookup_participant(domain), nullptr);
    std::vector<LogCapture::Entry> found = log.Find(kLookupFail);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].key, domain);
    EXPECT_EQ(found[0].code, DDSLOG_INFO);
    EXPECT_EQ(Factory()->getImpl()->ParticipantCount(domain), 0u);

    // The domain is usable again afterwards.
    DomainParticipant* again = Create(domain);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(Factory()->lookup_participant(domain), again);
    EXPECT_EQ(Factory()->delete_participant(again), RETCODE_OK);
}

TEST(DomainParticipantFactory_Lists, DomainsAreKeptApart) {
    DomainParticipant* a = Create(43);
    DomainParticipant* b = Create(44);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(Factory()->lookup_participant(43), a);
    EXPECT_EQ(Factory()->lookup_participant(44), b);
    EXPECT_EQ(Factory()->delete_participant(a), RETCODE_OK);
    EXPECT_EQ(Factory()->lookup_participant(44), b);
    EXPECT_EQ(Factory()->delete_participant(b), RETCODE_OK);
}

TEST(DomainParticipantFactory_Lists, ParallelCreationKeepsEveryParticipant) {
    const int domain = 45;
    const int kThreads = 4;
    const int kEach = 3;
    std::vector<std::vector<DomainParticipant*>> made(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&made, t]() {
            for (int i = 0; i < kEach; ++i) made[t].push_back(Create(domain));
        });
    }
    for (std::thread& th : threads) th.join();

    std::set<int> logIds;
    for (const auto& list : made) {
        for (DomainParticipant* p : list) {
            ASSERT_NE(p, nullptr);
            logIds.insert(p->getImpl()->getLogId());
        }
    }
    // The log id counter is guarded, so every participant has its own.
    EXPECT_EQ(logIds.size(), size_t(kThreads * kEach));
    EXPECT_EQ(Factory()->getImpl()->ParticipantCount(domain), size_t(kThreads * kEach));

    for (auto& list : made)
        for (DomainParticipant*& p : list) EXPECT_EQ(Factory()->delete_participant(p), RETCODE_OK);
    EXPECT_EQ(Factory()->getImpl()->ParticipantCount(domain), 0u);
}

// ---------------------------------------------------------------- deletion codes

TEST(DomainParticipantFactory_Delete, NullGivesError) {
    DomainParticipant* p = nullptr;
    EXPECT_EQ(Factory()->delete_participant(p), RETCODE_ERROR);
    EXPECT_EQ(p, nullptr);
}

TEST(DomainParticipantFactory_Delete, ParticipantOfAnUnheldDomainGivesNotExistAndChangesNothing) {
    const int heldDomain = 46;
    const int unheldDomain = 47;
    DomainParticipant* held = Create(heldDomain);
    ASSERT_NE(held, nullptr);

    // Built without the factory, so no list holds its domain.
    DomainParticipantImpl* stray = new DomainParticipantImpl(unheldDomain, PARTICIPANT_QOS_DEFAULT, nullptr);
    DomainParticipant* strayFacade = stray->getFacade();
    LogCapture log;
    EXPECT_EQ(Factory()->delete_participant(strayFacade), RETCODE_NOT_EXIST);
    EXPECT_EQ(strayFacade, stray->getFacade());

    std::vector<LogCapture::Entry> found = log.Find(kNotExist);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].key, stray->getLogId());
    EXPECT_EQ(found[0].code, DDSLOG_INFO);

    // The stray participant is untouched and the held one still listed.
    EXPECT_EQ(strayFacade->get_domain_id(), unheldDomain);
    EXPECT_EQ(Factory()->lookup_participant(heldDomain), held);
    EXPECT_EQ(Factory()->getImpl()->ParticipantCount(heldDomain), 1u);
    EXPECT_EQ(Factory()->getImpl()->ParticipantCount(unheldDomain), 0u);

    delete stray;
    EXPECT_EQ(Factory()->delete_participant(held), RETCODE_OK);
}

// ---------------------------------------------------------------- stubs

TEST(DomainParticipantFactory_Stubs, DefaultParticipantQosLeavesAFilledRecordUnchanged) {
    DomainParticipantQos qos;
    qos.entity_factory.autoenable_created_entities = false;
    qos.multicast.kind = DDS_AUTOMATIC_TRANSPORT_MULTICAST_QOS;
    qos.peer_list.push_back("10.1.2.3");
    qos.user_data.value.push_back(0x5A);
    const char* address = "192.168.7.7";
    qos.local_address = address;

    EXPECT_EQ(Factory()->get_default_participant_qos(qos), RETCODE_OK);
    EXPECT_FALSE(qos.entity_factory.autoenable_created_entities);
    EXPECT_EQ(qos.multicast.kind, DDS_AUTOMATIC_TRANSPORT_MULTICAST_QOS);
    ASSERT_EQ(qos.peer_list.length, 1u);
    EXPECT_EQ(qos.peer_list[0], "10.1.2.3");
    ASSERT_EQ(qos.user_data.value.length, 1u);
    EXPECT_EQ(qos.user_data.value[0], 0x5A);
    EXPECT_EQ(qos.local_address, address);
}

TEST(DomainParticipantFactory_Stubs, QosOperationsReturnOk) {
    DomainParticipantFactoryQos factoryQos;
    factoryQos.entity_factory.autoenable_created_entities = false;
    EXPECT_EQ(Factory()->get_qos(factoryQos), RETCODE_OK);
    EXPECT_FALSE(factoryQos.entity_factory.autoenable_created_entities);
    EXPECT_EQ(Factory()->set_qos(factoryQos), RETCODE_OK);
    EXPECT_EQ(Factory()->set_default_participant_qos(PARTICIPANT_QOS_DEFAULT), RETCODE_OK);
}

// ---------------------------------------------------------------- destruction

TEST(DomainParticipantFactory_DeathTest, DestructorTearsDownParticipantsAndLogFactory) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Create(48);
            Create(48);
            Create(49);
            delete DomainParticipantFactory::get_instance();
            const bool cleared = DomainParticipantFactory::get_instance() == nullptr &&
                                 DDSLogManagementFactory::GetInstance() == nullptr;
            std::exit(cleared ? 0 : 3);
        },
        testing::ExitedWithCode(0), "");
}
