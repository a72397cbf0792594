#include "requests/PeriodRequestScheduler.h"

#include <new>

#include "core/MorvoTimer.h"
#include "requests/Request.h"

// A timer that knows what it runs: the callback gets it as its argument, so a
// finished request can be removed from the scheduler that holds it without any
// back pointer in the request itself.
class PeriodRequestScheduler::RequestTimer : public MorvoTimer {
public:
    RequestTimer(PeriodRequestScheduler* pScheduler, Request* pRequest)
        : m_pScheduler(pScheduler), m_pRequest(pRequest) {}

    PeriodRequestScheduler* const m_pScheduler;
    Request* const m_pRequest;
};

PeriodRequestScheduler::PeriodRequestScheduler(MessageProcessor* pMessageProcessor,
                                               MessageTransmitter* pMessageTransmitter)
    : RequestScheduler(pMessageProcessor, pMessageTransmitter), m_TimerMap() {}

PeriodRequestScheduler::~PeriodRequestScheduler() {
    // Take the map out first: a callback in flight may be removing itself and
    // needs m_Lock, while deleting its timer below waits for that callback.
    std::map<Request*, MorvoTimer*> timers;
    m_Lock.Lock();
    timers.swap(m_TimerMap);
    m_Lock.Unlock();
    for (auto& entry : timers) delete entry.second;
}

int PeriodRequestScheduler::RequestAdd(Request* pRequest) {
    if (pRequest == nullptr) return 1;

    RequestTimer* pTimer = new (std::nothrow) RequestTimer(this, pRequest);
    if (pTimer == nullptr) return 1;

    // Started under the lock so that no removal can see the entry before its
    // timer runs; Start never waits for a callback, and the first one comes
    // 2000 ms later.
    int iResult = 1;
    m_Lock.Lock();
    if (m_TimerMap.count(pRequest) == 0 &&
        pTimer->Start(0, REQUEST_PERIOD_MS, PeriodTimerCallback, pTimer) == 0) {
        m_TimerMap[pRequest] = pTimer;
        pTimer = nullptr;
        iResult = 0;
    }
    m_Lock.Unlock();

    delete pTimer;  // only when refused: never started
    return iResult;
}

int PeriodRequestScheduler::RequestRemove(Request* pRequest) {
    return RemoveTimer(pRequest, nullptr);
}

int PeriodRequestScheduler::RemoveTimer(Request* pRequest, MorvoTimer* pExpected) {
    MorvoTimer* pTimer = nullptr;
    m_Lock.Lock();
    std::map<Request*, MorvoTimer*>::iterator it = m_TimerMap.find(pRequest);
    if (it != m_TimerMap.end() && (pExpected == nullptr || it->second == pExpected)) {
        pTimer = it->second;
        m_TimerMap.erase(it);
    }
    m_Lock.Unlock();

    // Whoever erased the entry deletes the timer, outside the lock: from
    // another thread the delete waits for a callback in flight, and that
    // callback may itself be waiting for m_Lock to remove its request. From
    // inside the timer's own callback the delete does not wait, and the timer
    // thread touches nothing of the MorvoTimer object afterwards, so it may go
    // while its callback is still on the stack.
    delete pTimer;
    return 0;
}

void PeriodRequestScheduler::PeriodTimerCallback(void* pArgument, unsigned char flag) {
    (void)flag;
    RequestTimer* pTimer = static_cast<RequestTimer*>(pArgument);
    PeriodRequestScheduler* pScheduler = pTimer->m_pScheduler;
    Request* pRequest = pTimer->m_pRequest;

    // A time equal to now passes here, unlike on the send thread: the writer
    // pushes its periodic heartbeat's next time ahead to suppress ticks.
    if (pRequest->getNextTime() > CurrentTime()) return;

    const uint32_t uiResult = pRequest->Execute();
    if (uiResult == REQUEST_EXECUTE_FINISHED) {
        // Only this entry: if another thread removed the request meanwhile,
        // it is already waiting for this callback and owns the timer.
        pScheduler->RemoveTimer(pRequest, pTimer);
        // pTimer is gone now, and the creator may delete pRequest at any time.
    }
}

size_t PeriodRequestScheduler::GetTimerCount() {
    m_Lock.Lock();
    const size_t uiCount = m_TimerMap.size();
    m_Lock.Unlock();
    return uiCount;
}
