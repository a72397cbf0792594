#include "core/Thread.h"

#include "core/Semaphore.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace
{
struct Probe
{
    Semaphore done{0, 1};
    Semaphore proceed{0, 1};
    std::string strSeenName;
    int iArgumentSeen = 0;
    bool bWaitForProceed = false;
};

unsigned int RecordName(void* pArgument)
{
    Probe* pProbe = static_cast<Probe*>(pArgument);
    pProbe->strSeenName = Thread::CurrentName();
    pProbe->iArgumentSeen = 42;
    if (pProbe->bWaitForProceed)
        pProbe->proceed.Wait(5000);
    pProbe->done.Post();
    return 0;
}

// Touches a quarter of a MiB of stack: a thread given the small size of a
// named thread must still have room for the protocol loops' local buffers.
unsigned int UseDeepStack(void* pArgument)
{
    Probe* pProbe = static_cast<Probe*>(pArgument);
    volatile char buffer[256 * 1024];
    memset(const_cast<char*>(buffer), 0x5A, sizeof(buffer));
    pProbe->iArgumentSeen = buffer[sizeof(buffer) - 1];
    pProbe->done.Post();
    return 0;
}
} // namespace

TEST(Thread, ConstructorsSetStackSize)
{
    Thread named("7_SEND");
    Thread unnamed;
    EXPECT_EQ(10240u, named.GetStackSize());
    EXPECT_EQ(0x100000u, unnamed.GetStackSize());
    EXPECT_EQ(0u, named.GetThreadId());
}

TEST(Thread, RunsEntryWithArgumentAndGivenName)
{
    Probe probe;
    Thread thread("ignored");
    ASSERT_EQ(0, thread.Start(RecordName, &probe, THREAD_PRIORITY_NORMAL_LEVEL, "0_DIST"));
    ASSERT_EQ(0, probe.done.Wait(5000));
    EXPECT_EQ("0_DIST", probe.strSeenName);
    EXPECT_EQ(42, probe.iArgumentSeen);
    EXPECT_NE(0u, thread.GetThreadId());
}

TEST(Thread, EmptyNameFallsBackToConstructorName)
{
    Probe probe;
    Thread thread("12_RECV");
    ASSERT_EQ(0, thread.Start(RecordName, &probe, 0, ""));
    ASSERT_EQ(0, probe.done.Wait(5000));
    EXPECT_EQ("12_RECV", probe.strSeenName);
}

TEST(Thread, LongNameIsCutToFifteenCharacters)
{
    Probe probe;
    Thread thread;
    ASSERT_EQ(0, thread.Start(RecordName, &probe, 0, "123456789_ABCDEFGHIJ"));
    ASSERT_EQ(0, probe.done.Wait(5000));
    EXPECT_EQ("123456789_ABCDE", probe.strSeenName);
}

TEST(Thread, PriorityIsAcceptedWithoutPrivileges)
{
    Probe probe;
    Thread thread("prio");
    ASSERT_EQ(0, thread.Start(RecordName, &probe, THREAD_PRIORITY_HIGHEST_LEVEL, ""));
    ASSERT_EQ(0, probe.done.Wait(5000));
}

TEST(Thread, SmallRequestedStackStillHoldsLargeLocals)
{
    Probe probe;
    Thread thread("deep");
    ASSERT_EQ(0, thread.Start(UseDeepStack, &probe, 0, ""));
    ASSERT_EQ(0, probe.done.Wait(5000));
    EXPECT_EQ(0x5A, probe.iArgumentSeen);
}

TEST(Thread, DeletingTheObjectLeavesTheThreadRunning)
{
    Probe probe;
    probe.bWaitForProceed = true;
    Thread* pThread = new Thread("detached");
    ASSERT_EQ(0, pThread->Start(RecordName, &probe, 0, ""));
    delete pThread; // must neither join nor stop the thread
    EXPECT_EQ(-100, probe.done.Wait(0));
    probe.proceed.Post();
    EXPECT_EQ(0, probe.done.Wait(5000));
}
