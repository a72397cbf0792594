// Recursive lock: the owning thread may lock it again and must unlock it as
// often. Any thread may use it; only the owner may unlock.
#pragma once

#include <string>

struct MutexHandle;

class Mutex {
public:
    Mutex();
    virtual ~Mutex();

    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Waits without limit. Returns 0.
    int Lock();
    // Returns 0. An unlock by a thread that does not own the lock changes nothing.
    int Unlock();
    // Bounded attempt: 0 when acquired, -100 on time-out, -1 on other failure.
    // Not used by the protocol; for diagnostics and tests.
    int TryLock(unsigned int uiMilliseconds);

private:
    std::string m_strName;  // always empty: the mutex is unnamed
    MutexHandle* m_pHandle;
};
