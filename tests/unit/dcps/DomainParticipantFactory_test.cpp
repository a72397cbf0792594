// Tests of the participant factory: domain bounds, per-domain lists under
// parallel creation, deletion codes, the stubs and the factory's teardown.
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

DomainParticipantFactory* Factory() {
    return DomainParticipantFactory::get_instance();
}

DomainParticipant* Create(int domain) {
    return Factory()->create_participant(domain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
}

size_t Count(int domain) {
    return Factory()->getImpl()->ParticipantCount(domain);
}

}  // namespace

TEST(DomainParticipantFactory, DomainRangeIsZeroTo500ForCreateAndLookup) {
    struct Row {
        int domain;
        bool valid;
    };
    const Row rows[] = {{0, true}, {500, true}, {501, false}, {-1, false}, {-2147483647 - 1, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.domain);
        LogCapture log;
        testing::internal::CaptureStdout();
        DomainParticipant* p = Create(row.domain);
        DomainParticipant* found = Factory()->lookup_participant(row.domain);
        const std::string out = testing::internal::GetCapturedStdout();
        if (!row.valid) {
            EXPECT_EQ(p, nullptr);
            EXPECT_EQ(found, nullptr);
            EXPECT_EQ(out, std::string(kRangeText) + kRangeText);
            EXPECT_TRUE(log.Entries().empty());  // no log exists for such a domain
            continue;
        }
        EXPECT_EQ(out.find(kRangeText), std::string::npos);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->get_domain_id(), row.domain);
        EXPECT_EQ(found, p);
        EXPECT_EQ(Factory()->delete_participant(p), RETCODE_OK);
    }
}

TEST(DomainParticipantFactory, LookupGivesTheFirstLivingParticipantOfItsDomain) {
    DomainParticipant* first = Create(41);
    DomainParticipant* second = Create(41);
    DomainParticipant* apart = Create(42);
    ASSERT_TRUE(first && second && apart);
    EXPECT_EQ(Count(41), 2u);
    EXPECT_EQ(Factory()->lookup_participant(41), first);
    EXPECT_EQ(Factory()->lookup_participant(42), apart);

    DomainParticipant* held = first;
    EXPECT_EQ(Factory()->delete_participant(first), RETCODE_OK);
    EXPECT_EQ(first, held);  // the caller's pointer is left as it stands
    EXPECT_EQ(Factory()->lookup_participant(41), second);
    EXPECT_EQ(Factory()->delete_participant(second), RETCODE_OK);
    EXPECT_EQ(Count(41), 0u);
    EXPECT_EQ(Factory()->lookup_participant(42), apart);

    LogCapture log;
    EXPECT_EQ(Factory()->lookup_participant(41), nullptr);
    std::vector<LogCapture::Entry> found =
        log.Find("[DomainParticipantFactoryImpl::lookup_participant] fail");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].key, 41);  // the domain, as no participant is left to name
    EXPECT_EQ(Factory()->delete_participant(apart), RETCODE_OK);
}

TEST(DomainParticipantFactory, ParallelCreationKeepsEveryParticipant) {
    const int kThreads = 4, kEach = 3;
    std::vector<std::vector<DomainParticipant*>> made(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&made, t]() {
            for (int i = 0; i < kEach; ++i) made[t].push_back(Create(45));
        });
    for (std::thread& th : threads) th.join();

    std::set<int> logIds;
    for (const auto& list : made)
        for (DomainParticipant* p : list) {
            ASSERT_NE(p, nullptr);
            logIds.insert(p->getImpl()->getLogId());
        }
    // The log id counter is guarded, so every participant has its own.
    EXPECT_EQ(logIds.size(), size_t(kThreads * kEach));
    EXPECT_EQ(Count(45), size_t(kThreads * kEach));
    for (auto& list : made)
        for (DomainParticipant*& p : list) EXPECT_EQ(Factory()->delete_participant(p), RETCODE_OK);
    EXPECT_EQ(Count(45), 0u);
}

TEST(DomainParticipantFactory, DeleteRefusesNullAndParticipantsOfUnheldDomains) {
    DomainParticipant* none = nullptr;
    EXPECT_EQ(Factory()->delete_participant(none), RETCODE_ERROR);

    DomainParticipant* held = Create(46);
    ASSERT_NE(held, nullptr);
    // Built without the factory, so no list holds its domain.
    DomainParticipantImpl* stray = new DomainParticipantImpl(47, PARTICIPANT_QOS_DEFAULT, nullptr);
    DomainParticipant* strayFacade = stray->getFacade();
    LogCapture log;
    EXPECT_EQ(Factory()->delete_participant(strayFacade), RETCODE_NOT_EXIST);
    std::vector<LogCapture::Entry> found =
        log.Find("[DomainParticipantFactoryImpl::delete_participant] participant isnot exist");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].key, stray->getLogId());
    EXPECT_EQ(found[0].code, DDSLOG_INFO);
    EXPECT_EQ(strayFacade->get_domain_id(), 47);  // untouched
    EXPECT_EQ(Factory()->lookup_participant(46), held);
    EXPECT_EQ(Count(46), 1u);
    delete stray;
    EXPECT_EQ(Factory()->delete_participant(held), RETCODE_OK);
}

TEST(DomainParticipantFactory, QosStubsReturnOkAndLeaveRecordsUnchanged) {
    DomainParticipantQos qos;
    qos.peer_list.push_back("10.1.2.3");
    DomainParticipantFactoryQos factoryQos;
    factoryQos.entity_factory.autoenable_created_entities = false;
    EXPECT_EQ(Factory()->get_default_participant_qos(qos), RETCODE_OK);
    EXPECT_EQ(Factory()->get_qos(factoryQos), RETCODE_OK);
    EXPECT_EQ(Factory()->set_qos(factoryQos), RETCODE_OK);
    EXPECT_EQ(Factory()->set_default_participant_qos(PARTICIPANT_QOS_DEFAULT), RETCODE_OK);
    EXPECT_EQ(qos.peer_list.length, 1u);
    EXPECT_FALSE(factoryQos.entity_factory.autoenable_created_entities);
}

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
