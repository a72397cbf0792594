#include "core/Thread.h"

#include "core/Semaphore.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {
struct Probe {
    Semaphore done{0, 1};
    Semaphore proceed{0, 1};
    std::string strSeenName;
    bool bWaitForProceed = false;
};

unsigned int RecordName(void* pArgument) {
    Probe* pProbe = static_cast<Probe*>(pArgument);
    pProbe->strSeenName = Thread::CurrentName();
    if (pProbe->bWaitForProceed) pProbe->proceed.Wait(5000);
    pProbe->done.Post();
    return 0;
}
}  // namespace

TEST(Thread, NameIsTheGivenOneOrTheConstructorsCutToFifteen) {
    const struct {
        const char* ctorName;
        const char* startName;
        int priority;
        const char* expected;
    } rows[] = {
        {"ignored", "0_DIST", THREAD_PRIORITY_NORMAL_LEVEL, "0_DIST"},
        {"12_RECV", "", THREAD_PRIORITY_HIGHEST_LEVEL, "12_RECV"},  // accepted without privileges
        {"", "123456789_ABCDEFGHIJ", 0, "123456789_ABCDE"},
    };
    for (const auto& row : rows) {
        Probe probe;
        Thread thread(row.ctorName);
        ASSERT_EQ(0, thread.Start(RecordName, &probe, row.priority, row.startName));
        ASSERT_EQ(0, probe.done.Wait(5000));
        EXPECT_EQ(row.expected, probe.strSeenName);
        EXPECT_NE(0u, thread.GetThreadId());
    }
}

// A named thread asks for a small stack; it must still hold the protocol
// loops' local buffers (a quarter of a MiB here).
TEST(Thread, SmallRequestedStackStillHoldsLargeLocals) {
    Probe probe;
    Thread thread("deep");
    EXPECT_EQ(10240u, thread.GetStackSize());
    auto deep = [](void* pArgument) -> unsigned int {
        volatile char buffer[256 * 1024];
        memset(const_cast<char*>(buffer), 0x5A, sizeof(buffer));
        static_cast<Probe*>(pArgument)->strSeenName.assign(1, buffer[sizeof(buffer) - 1]);
        static_cast<Probe*>(pArgument)->done.Post();
        return 0;
    };
    ASSERT_EQ(0, thread.Start(deep, &probe, 0, ""));
    ASSERT_EQ(0, probe.done.Wait(5000));
    EXPECT_EQ("Z", probe.strSeenName);
}

TEST(Thread, DeletingTheObjectLeavesTheThreadRunning) {
    Probe probe;
    probe.bWaitForProceed = true;
    Thread* pThread = new Thread("detached");
    ASSERT_EQ(0, pThread->Start(RecordName, &probe, 0, ""));
    delete pThread;  // must neither join nor stop the thread
    EXPECT_EQ(-100, probe.done.Wait(0));
    probe.proceed.Post();
    EXPECT_EQ(0, probe.done.Wait(5000));
}
