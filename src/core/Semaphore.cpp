#include "core/Semaphore.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <new>

struct SemaphoreHandle {
    std::mutex mutex;
    std::condition_variable condition;
    long count;
    long maximum;
};

namespace {
SemaphoreHandle* CreateHandle(int iInitialCount, int iMaximumCount) {
    // A refused handle is retried for ever, as everywhere in this library:
    // the callers have no path for a missing lock.
    for (;;) {
        SemaphoreHandle* pHandle = new (std::nothrow) SemaphoreHandle;
        if (pHandle != nullptr) {
            // Out-of-range arguments are brought into range instead of failing
            // the creation: a maximum below 1 becomes 1, the initial count is
            // clamped to [0, maximum].
            pHandle->maximum = iMaximumCount < 1 ? 1 : iMaximumCount;
            long lInitial = iInitialCount < 0 ? 0 : iInitialCount;
            pHandle->count = lInitial > pHandle->maximum ? pHandle->maximum : lInitial;
            return pHandle;
        }
        printf(" CreateSemaphore Error %d\n", ENOMEM);
    }
}
}  // namespace

Semaphore::Semaphore() : m_pHandle(CreateHandle(1, 1)) {}

Semaphore::Semaphore(int iInitialCount, int iMaximumCount)
    : m_pHandle(CreateHandle(iInitialCount, iMaximumCount)) {}

Semaphore::~Semaphore() {
    delete m_pHandle;
}

int Semaphore::Post() {
    // Notify under the lock: a woken waiter may delete the semaphore as soon
    // as it returns, so nothing here may touch it after the unlock.
    std::lock_guard<std::mutex> lock(m_pHandle->mutex);
    if (m_pHandle->count >= m_pHandle->maximum) return 1;
    ++m_pHandle->count;
    m_pHandle->condition.notify_one();
    return 0;
}

int Semaphore::Wait(unsigned int uiMilliseconds) {
    std::unique_lock<std::mutex> lock(m_pHandle->mutex);
    auto available = [this] { return m_pHandle->count > 0; };
    if (uiMilliseconds == INFINITE_WAIT) {
        m_pHandle->condition.wait(lock, available);
    } else {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(uiMilliseconds);
        if (!m_pHandle->condition.wait_until(lock, deadline, available)) return WAIT_TIMEOUT_RESULT;
    }
    --m_pHandle->count;
    return 0;
}
