#include "core/Mutex.h"

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <new>

struct MutexHandle {
    pthread_mutex_t mutex;
    // Owner and depth let an unlock by a thread that does not hold the lock
    // be refused here, without asking the system to release a lock it does
    // not own (which also keeps thread checkers quiet).
    std::atomic<pthread_t> owner{0};
    unsigned int depth = 0;  // guarded by mutex
};

namespace {
// Returns 0 or the error code of the failed step.
int InitRecursive(pthread_mutex_t* pMutex) {
    pthread_mutexattr_t attr;
    int iResult = pthread_mutexattr_init(&attr);
    if (iResult != 0) return iResult;
    iResult = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (iResult == 0) iResult = pthread_mutex_init(pMutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return iResult;
}
}  // namespace

Mutex::Mutex() : m_pHandle(nullptr) {
    // Creation never gives up: callers have no path for a missing lock.
    for (;;) {
        MutexHandle* pHandle = new (std::nothrow) MutexHandle;
        int iError = ENOMEM;
        if (pHandle != nullptr) {
            iError = InitRecursive(&pHandle->mutex);
            if (iError == 0) {
                m_pHandle = pHandle;
                return;
            }
            delete pHandle;
        }
        printf(" CreateMutex  Error %d\n", iError);
    }
}

Mutex::~Mutex() {
    pthread_mutex_destroy(&m_pHandle->mutex);
    delete m_pHandle;
}

namespace {
void NoteAcquired(MutexHandle* pHandle) {
    if (pHandle->depth++ == 0) pHandle->owner.store(pthread_self());
}
}  // namespace

int Mutex::Lock() {
    if (pthread_mutex_lock(&m_pHandle->mutex) == 0) NoteAcquired(m_pHandle);
    return 0;
}

int Mutex::Unlock() {
    // Only the owner can see its own id here, so the test is race-free.
    if (m_pHandle->owner.load() != pthread_self()) return 0;
    if (--m_pHandle->depth == 0) m_pHandle->owner.store(0);
    pthread_mutex_unlock(&m_pHandle->mutex);
    return 0;
}

int Mutex::TryLock(unsigned int uiMilliseconds) {
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += uiMilliseconds / 1000;
    deadline.tv_nsec += static_cast<long>(uiMilliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    int iResult = pthread_mutex_timedlock(&m_pHandle->mutex, &deadline);
    if (iResult == 0) {
        NoteAcquired(m_pHandle);
        return 0;
    }
    return iResult == ETIMEDOUT ? -100 : -1;
}
