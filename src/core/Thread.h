// A started, detached thread with a name. The owner starts it once from any
// thread; the wrapper gives no stop: the thread's loop ends on its owner's run
// flag, and the owner waits for its own "stopped" flag before deleting this.
#pragma once

#include <cstdint>
#include <string>

// Entry of a thread: takes the argument given to Start, returns an exit code.
typedef unsigned int (*thread_entry)(void* pArgument);

// Priorities in the values that callers pass; 0 is normal.
enum ThreadPriority {
    THREAD_PRIORITY_LOWEST_LEVEL = -2,
    THREAD_PRIORITY_BELOW_NORMAL_LEVEL = -1,
    THREAD_PRIORITY_NORMAL_LEVEL = 0,
    THREAD_PRIORITY_ABOVE_NORMAL_LEVEL = 1,
    THREAD_PRIORITY_HIGHEST_LEVEL = 2
};

struct ThreadHandle;

class Thread {
public:
    Thread();                                     // stack size 0x100000
    explicit Thread(const std::string& strName);  // stack size 10240
    // Frees the name and the handle record only; never joins.
    virtual ~Thread();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts entry(pArgument) on a new thread named strName (the constructor's
    // name when strName is empty; cut to 15 characters by the system).
    // iPriority is accepted and not applied: a process without privileges may
    // not raise it, and lowering the protocol threads would only delay them.
    // Returns 0, or 1 when the system refuses the thread.
    int Start(thread_entry entry, void* pArgument, int iPriority, const std::string& strName);

    // System thread id of the started thread, 0 before Start.
    uint32_t GetThreadId() const { return m_ThreadId; }
    uint32_t GetStackSize() const { return m_StackSize; }

    // Name of the calling thread as the system holds it.
    static std::string CurrentName();

private:
    ThreadHandle* m_pHandle;
    std::string m_strName;
    uint32_t m_StackSize;
    uint32_t m_ThreadId;
};
