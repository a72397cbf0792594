#include "core/Mutex.h"

#include <gtest/gtest.h>

#include <thread>

namespace
{
// Probes the lock from another thread; releases it again when acquired.
int ProbeFromOtherThread(Mutex& mutex, unsigned int uiMilliseconds)
{
    int iResult = -1;
    std::thread probe([&] {
        iResult = mutex.TryLock(uiMilliseconds);
        if (iResult == 0)
            mutex.Unlock();
    });
    probe.join();
    return iResult;
}
} // namespace

TEST(Mutex, LockedTwiceNeedsTwoUnlocks)
{
    Mutex mutex;
    EXPECT_EQ(0, mutex.Lock());
    EXPECT_EQ(0, mutex.Lock());
    EXPECT_EQ(-100, ProbeFromOtherThread(mutex, 30));
    EXPECT_EQ(0, mutex.Unlock());
    EXPECT_EQ(-100, ProbeFromOtherThread(mutex, 30));
    EXPECT_EQ(0, mutex.Unlock());
    EXPECT_EQ(0, ProbeFromOtherThread(mutex, 2000));
}

TEST(Mutex, UnlockByNonOwnerKeepsTheLock)
{
    Mutex mutex;
    mutex.Lock();
    std::thread stranger([&] { EXPECT_EQ(0, mutex.Unlock()); });
    stranger.join();
    EXPECT_EQ(-100, ProbeFromOtherThread(mutex, 30));
    mutex.Unlock();
    EXPECT_EQ(0, ProbeFromOtherThread(mutex, 2000));
}

TEST(Mutex, ExcludesOtherThreads)
{
    Mutex mutex;
    long lCounter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; ++i)
        {
            mutex.Lock();
            long lValue = lCounter;
            lCounter = lValue + 1;
            mutex.Unlock();
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    EXPECT_EQ(40000, lCounter);
}
