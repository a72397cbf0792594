// Periodic timer: the callback runs on a thread of the timer's own, first 2000 ms
// after Start, then once per period. Start and Stop may come from any thread,
// Stop also from inside the callback. Takes only its own internal lock.
#pragma once

#include <atomic>

// flag is always 1: the timer fired.
typedef void (*timer_callback)(void* pArgument, unsigned char flag);

struct MorvoTimerQueue;
struct MorvoTimerState;

class MorvoTimer {
public:
    // Delay of the first firing, whatever the period.
    static constexpr unsigned int FIRST_DUE_MS = 2000;

    MorvoTimer();
    // Calls Stop().
    virtual ~MorvoTimer();

    MorvoTimer(const MorvoTimer&) = delete;
    MorvoTimer& operator=(const MorvoTimer&) = delete;

    // Period = uiSec * 1000 + uiMs milliseconds, computed in 64 bits: callers
    // pass the nanosecond word of a duration as ms unchanged, so uiMs may be
    // huge. A period of 0 fires once. A running timer is stopped first.
    // Callbacks of one timer never overlap: one that outlasts the period delays
    // the next, which then fires at once and the schedule restarts from there.
    // Returns 0, or 1 when no thread could be started.
    int Start(unsigned int uiSec, unsigned int uiMs, timer_callback pCallback, void* pArgument);

    // Deletes the timer; does nothing on a timer that is not running. From any
    // other thread it waits for a callback in flight, so no callback runs after
    // it returns. From inside the callback it returns at once; the callback's
    // thread then ends without touching this object, which the caller may
    // delete right away. Returns 0.
    int Stop();

    bool IsRunning() const { return m_pTimerQueue.load() != nullptr; }

private:
    // Atomic so that two racing Stop calls delete the queue only once.
    std::atomic<MorvoTimerQueue*> m_pTimerQueue;  // the thread; null when not running
    std::atomic<MorvoTimerState*> m_pTimer;       // shared schedule; null when not running
};
