// Runs each added request once a second on a timer of its own (first after
// 2000 ms), for periodic heartbeats and preemptive ACKNACKs. RequestAdd and
// RequestRemove come from endpoint threads and from timer threads (a finished
// request removes itself); m_Lock guards m_TimerMap only for the map update.
#pragma once

#include <cstddef>
#include <map>

#include "requests/RequestScheduler.h"

class MorvoTimer;

class PeriodRequestScheduler : public RequestScheduler {
public:
    // Period of every request, whatever the QoS; the timer adds its own
    // first delay of 2000 ms.
    static const unsigned int REQUEST_PERIOD_MS = 1000;

    PeriodRequestScheduler(MessageProcessor* pMessageProcessor, MessageTransmitter* pMessageTransmitter);
    // Stops and deletes the timers still running; the requests stay their
    // creators'.
    ~PeriodRequestScheduler() override;

    // Starts a timer for the request. The creator stays owner and must call
    // RequestRemove before deleting it. Returns 0; 1 for null, for a request
    // already added, or when no timer could be started.
    int RequestAdd(Request* pRequest) override;

    // Stops and deletes the request's timer; the request is not deleted.
    // Called from another thread it waits for an Execute in flight, so none
    // runs after it returns: do not call it while holding the message lock or
    // a borrowed endpoint. An unknown request is ignored. Returns 0.
    int RequestRemove(Request* pRequest) override;

    // Timer callback, on the request's timer thread. Executes the request if
    // its next time is not later than now. A request that answers
    // REQUEST_EXECUTE_FINISHED is removed here, from inside its own timer's
    // callback; its creator still owns it and deletes it.
    static void PeriodTimerCallback(void* pArgument, unsigned char flag);

    // Number of running timers, for diagnostics.
    size_t GetTimerCount();

protected:
    class RequestTimer;

    // Erases the entry of pRequest if its timer is pExpected (any timer when
    // pExpected is null), then deletes that timer outside the lock.
    int RemoveTimer(Request* pRequest, MorvoTimer* pExpected);

    std::map<Request*, MorvoTimer*> m_TimerMap;  // owned timers, RequestTimer each
};
