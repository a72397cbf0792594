// Tests of the participant factory: domain bounds, per-domain lists under
// parallel creation, deletion codes and the factory's teardown.
#include "DomainParticipantFactory.h"

#include <climits>
#include <set>

#include "DDSLogManagementFactory.h"
#include "DcpsFixture.h"
#include "dcps/DomainParticipantFactoryImpl.h"

namespace {
size_t Count(int domain) {
    return Factory()->getImpl()->ParticipantCount(domain);
}
}  // namespace

TEST(DomainParticipantFactory, DomainRangeIsZeroTo500ForCreateAndLookup) {
    const std::string strRange = "A vaild range of Domain Id : 0 ~ 500 !\n";
    for (int domain : {0, 500, 501, -1, INT_MIN}) {
        const bool valid = domain == 0 || domain == 500;
        LogRecorder log;
        testing::internal::CaptureStdout();
        DomainParticipant *p = Create(domain), *found = Factory()->lookup_participant(domain);
        EXPECT_EQ(valid ? std::string::npos : 0,
                  testing::internal::GetCapturedStdout().find(strRange + strRange));
        EXPECT_EQ(std::make_pair(valid ? p : nullptr, valid),
                  std::make_pair(found, p && p->get_domain_id() == domain))
            << domain;
        EXPECT_TRUE(valid || log.Entries().empty());  // no log exists for such a domain
        EXPECT_TRUE(p == nullptr || Factory()->delete_participant(p) == RETCODE_OK);
    }
}

TEST(DomainParticipantFactory, ParallelCreationKeepsEveryParticipantWithItsOwnLogId) {
    std::vector<DomainParticipant*> made(12);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t)
        threads.emplace_back([&made, t] {
            for (size_t i = 0; i < 3; ++i) made[3 * t + i] = Create(45);
        });
    for (std::thread& th : threads) th.join();
    std::set<int> logIds;
    for (DomainParticipant* p : made) logIds.insert(p != nullptr ? p->getImpl()->getLogId() : -1);
    EXPECT_EQ(std::make_tuple(size_t(12), size_t(12), size_t(0)),
              std::make_tuple(logIds.size(), Count(45), logIds.count(-1)));
    for (DomainParticipant*& p : made) EXPECT_EQ(Factory()->delete_participant(p), RETCODE_OK);
    EXPECT_EQ(Count(45), 0u);
}

TEST(DomainParticipantFactory_DeathTest, DestructorTearsDownParticipantsAndLogFactory) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            for (int domain : {48, 48, 49}) Create(domain);
            delete DomainParticipantFactory::get_instance();
            std::exit(Factory() == nullptr && DDSLogManagementFactory::GetInstance() == nullptr ? 0 : 3);
        },
        testing::ExitedWithCode(0), "");
}
