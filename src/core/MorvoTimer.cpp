#include "core/MorvoTimer.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

// Everything the timer thread touches lives here, held by the thread through a
// shared_ptr, so that the MorvoTimer may be deleted while a stopped callback is
// still finishing on that thread.
struct MorvoTimerState {
    std::mutex mutex;
    std::condition_variable condition;
    bool stopped = false;
    timer_callback pCallback = nullptr;
    void* pArgument = nullptr;
    uint64_t periodMs = 0;
};

struct MorvoTimerQueue {
    std::thread thread;
    std::shared_ptr<MorvoTimerState> state;
};

namespace {
void TimerRun(std::shared_ptr<MorvoTimerState> state) {
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::milliseconds(state->periodMs);
    auto due = Clock::now() + std::chrono::milliseconds(MorvoTimer::FIRST_DUE_MS);

    std::unique_lock<std::mutex> lock(state->mutex);
    for (;;) {
        if (state->condition.wait_until(lock, due, [&state] { return state->stopped; })) return;
        lock.unlock();
        state->pCallback(state->pArgument, 1);
        lock.lock();
        if (state->stopped || state->periodMs == 0) return;
        due += period;
        // A callback that outlasted the period: fire once at once, then keep
        // the period from now instead of firing a burst of missed ticks.
        const auto now = Clock::now();
        if (due < now) due = now;
    }
}
}  // namespace

MorvoTimer::MorvoTimer() : m_pTimerQueue(nullptr), m_pTimer(nullptr) {}

MorvoTimer::~MorvoTimer() {
    Stop();
}

int MorvoTimer::Start(unsigned int uiSec, unsigned int uiMs, timer_callback pCallback, void* pArgument) {
    Stop();
    if (pCallback == nullptr) return 1;

    MorvoTimerQueue* pQueue = new (std::nothrow) MorvoTimerQueue;
    if (pQueue == nullptr) return 1;
    try {
        pQueue->state = std::make_shared<MorvoTimerState>();
        pQueue->state->pCallback = pCallback;
        pQueue->state->pArgument = pArgument;
        pQueue->state->periodMs = static_cast<uint64_t>(uiSec) * 1000u + uiMs;
        pQueue->thread = std::thread(TimerRun, pQueue->state);
    } catch (const std::exception&) {
        delete pQueue;
        return 1;
    }
    m_pTimer = pQueue->state.get();
    m_pTimerQueue = pQueue;
    return 0;
}

int MorvoTimer::Stop() {
    MorvoTimerQueue* pQueue = m_pTimerQueue.exchange(nullptr);
    if (pQueue == nullptr) return 0;
    m_pTimer = nullptr;

    {
        std::lock_guard<std::mutex> lock(pQueue->state->mutex);
        pQueue->state->stopped = true;
    }
    pQueue->state->condition.notify_all();

    if (pQueue->thread.get_id() == std::this_thread::get_id())
        pQueue->thread.detach();  // inside our own callback: the thread ends after it
    else
        pQueue->thread.join();
    delete pQueue;
    return 0;
}
