#include "core/Mutex.h"

#include <gtest/gtest.h>

#include <thread>

namespace {
// Probes the lock from another thread; releases it again when acquired.
int ProbeFromOtherThread(Mutex& mutex, unsigned int uiMilliseconds) {
    int iResult = -1;
    std::thread probe([&] {
        iResult = mutex.TryLock(uiMilliseconds);
        if (iResult == 0) mutex.Unlock();
    });
    probe.join();
    return iResult;
}
}  // namespace

TEST(Mutex, RecursiveAndOnlyTheOwnerUnlocks) {
    Mutex mutex;
    EXPECT_EQ(0, mutex.Lock());
    EXPECT_EQ(0, mutex.Lock());
    EXPECT_EQ(0, mutex.Unlock());
    EXPECT_EQ(-100, ProbeFromOtherThread(mutex, 30));
    std::thread stranger([&] { EXPECT_EQ(0, mutex.Unlock()); });
    stranger.join();
    EXPECT_EQ(-100, ProbeFromOtherThread(mutex, 30));
    EXPECT_EQ(0, mutex.Unlock());
    EXPECT_EQ(0, ProbeFromOtherThread(mutex, 2000));
}
