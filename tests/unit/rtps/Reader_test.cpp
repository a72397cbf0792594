#include "rtps/Reader.h"

#include <gtest/gtest.h>

#include "QosPolicy.h"
#include "rtps/HistoryCache.h"
#include "rtps/StatefulReader.h"

namespace
{
GUID_t ReaderGuid()
{
    GUID_t guid = GUID_UNKNOWN;
    guid.entityId = EntityId_t{{0x05, 0x09, 0x01}, 0x04};
    return guid;
}
} // namespace

TEST(Reader, ReliabilityLevelFollowsTheQos)
{
    DataReaderQos qos;
    StatefulReader bestEffort(ReaderGuid(), qos, nullptr);
    EXPECT_EQ(1u, bestEffort.getReliabilityLevel());
    qos.reliability.kind = RELIABLE_RELIABILITY_QOS;
    StatefulReader reliable(ReaderGuid(), qos, nullptr);
    EXPECT_EQ(2u, reliable.getReliabilityLevel());
    EXPECT_EQ(RELIABLE_RELIABILITY_QOS, reliable.getQos().reliability.kind);
    EXPECT_EQ(0, reliable.afterCreate());
}

TEST(Reader, SetReaderCacheMakesASecondCacheLikeTheFirst)
{
    StatefulReader reader(ReaderGuid(), DataReaderQos(), nullptr);
    EXPECT_EQ(nullptr, reader.getReaderCache());
    EXPECT_EQ(nullptr, reader.getSecondCache());

    HistoryCache cache(7);
    cache.SetTopic(9, "Square");
    reader.setReaderCache(&cache);
    EXPECT_EQ(&cache, reader.getReaderCache());
    HistoryCache* pSecond = reader.getSecondCache();
    ASSERT_NE(nullptr, pSecond);
    EXPECT_NE(&cache, pSecond);
    EXPECT_EQ(7u, pSecond->GetCapacity());
    EXPECT_EQ(9u, pSecond->GetDomainId());
    EXPECT_EQ("Square", pSecond->GetTopicName());

    // Set again: the second cache is replaced, not lost (the leak checker watches).
    HistoryCache other(3);
    reader.setReaderCache(&other);
    ASSERT_NE(nullptr, reader.getSecondCache());
    EXPECT_EQ(3u, reader.getSecondCache()->GetCapacity());
}

TEST(Reader, SchedulerArrayIsCopied)
{
    RequestScheduler* schedulers[2] = {reinterpret_cast<RequestScheduler*>(0x10),
                                       reinterpret_cast<RequestScheduler*>(0x20)};
    StatefulReader reader(ReaderGuid(), DataReaderQos(), schedulers);
    schedulers[0] = nullptr;
    EXPECT_EQ(reinterpret_cast<RequestScheduler*>(0x10), reader.getScheduler(0));
    EXPECT_EQ(reinterpret_cast<RequestScheduler*>(0x20), reader.getScheduler(1));
    EXPECT_EQ(nullptr, reader.getScheduler(2));
}
