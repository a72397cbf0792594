#include "requests/RequestFactory.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "TestRequest.h"
#include "requests/ImmeditRequestScheduler.h"
#include "requests/PeriodRequestScheduler.h"

namespace {

// Stand-ins that are only carried, never followed.
MessageProcessor* const kProcessor = reinterpret_cast<MessageProcessor*>(uintptr_t(0x1000));
MessageTransmitter* const kTransmitter = reinterpret_cast<MessageTransmitter*>(uintptr_t(0x2000));

TEST(RequestFactory, TakesProcessorAndTransmitterFromTheNamedScheduler) {
    RequestJournal journal;
    ImmeditRequestScheduler immediate(kProcessor, kTransmitter);
    PeriodRequestScheduler periodic(nullptr, nullptr);

    TestRequest* pRequest = RequestFactory::CreateRequest<TestRequest>(&immediate, TestEntity(9), &journal, 1,
                                                                       REQUEST_TYPE_HEARTBEAT);
    ASSERT_NE(nullptr, pRequest);
    EXPECT_EQ(kProcessor, pRequest->getMessageProcessor());
    EXPECT_EQ(kTransmitter, pRequest->getMessageTransmitter());
    EXPECT_EQ(TestEntity(9), pRequest->getEntityId());
    EXPECT_EQ(Time_t(0, 0), pRequest->getStartTime());
    EXPECT_EQ(Time_t(0, 0), pRequest->getNextTime());
    delete pRequest;

    pRequest = RequestFactory::CreateRequest<TestRequest>(&periodic, TestEntity(9), &journal, 2,
                                                          REQUEST_TYPE_ACKNACK);
    ASSERT_NE(nullptr, pRequest);
    EXPECT_EQ(nullptr, pRequest->getMessageProcessor());
    EXPECT_EQ(nullptr, pRequest->getMessageTransmitter());
    delete pRequest;

    EXPECT_EQ(nullptr, RequestFactory::CreateRequest<TestRequest>(nullptr, TestEntity(9), &journal, 3,
                                                                  REQUEST_TYPE_DATA));
    EXPECT_EQ(2, journal.destroyed.load());
}

// The topic setter comes in both argument orders; each sets the log key too.
TEST(Request, TakesTopicWithLogKeyInEitherOrder) {
    RequestJournal journal;
    TestRequest request(TestEntity(3), &journal, 1, REQUEST_TYPE_DATA_L, nullptr, nullptr, Time_t(0, 0),
                        Time_t(0, 0));
    EXPECT_EQ(0, request.setTopicName(0x10007u, "Square"));
    EXPECT_EQ("Square", request.getTopicName());
    EXPECT_EQ(0x10007u, request.getDomainId());
    EXPECT_EQ(0, request.setTopicName("Circle", 5u));
    EXPECT_EQ("Circle", request.getTopicName());
    EXPECT_EQ(5u, request.getDomainId());
}

}  // namespace
