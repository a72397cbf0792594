// Counting semaphore with an upper bound on its count, the way the operating
// system's semaphore behaves. Any thread may Post or Wait; the internal lock is
// a leaf held only for the count update.
#pragma once

#include <string>

struct SemaphoreHandle;

class Semaphore {
public:
    // Wait() without a time limit.
    static constexpr unsigned int INFINITE_WAIT = 0xFFFFFFFF;
    static constexpr int WAIT_TIMEOUT_RESULT = -100;

    Semaphore();  // initial 1, maximum 1
    Semaphore(int iInitialCount, int iMaximumCount);
    virtual ~Semaphore();

    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Adds one token and wakes one waiter. Returns 0, or 1 when the count is
    // already at the maximum: the count then stays unchanged (the operating
    // system refuses such a release the same way).
    int Post();

    // Takes one token, waiting at most uiMilliseconds (INFINITE_WAIT: no limit).
    // Returns 0 on success, -100 on time-out, -1 on any other failure.
    int Wait(unsigned int uiMilliseconds);

private:
    std::string m_strName;  // always empty: the semaphore is unnamed
    SemaphoreHandle* m_pHandle;
};
