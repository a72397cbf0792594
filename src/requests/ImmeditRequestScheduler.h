// Priority queue of one-shot requests, served by the participant's send thread
// (SendRun). RequestAdd/RequestRemove come from any thread and take m_Lock
// briefly; requests execute on the send thread with no scheduler lock held.
#pragma once

#include "requests/RequestScheduler.h"

class ImmeditRequestScheduler : public RequestScheduler {
public:
    ImmeditRequestScheduler(MessageProcessor* pMessageProcessor, MessageTransmitter* pMessageTransmitter);
    ~ImmeditRequestScheduler() override;

    // Queues the request, highest priority first and within a priority by next
    // time, equals in arrival order. A "HeartBeat" meeting a queued heartbeat
    // of the same entity only moves that one's next time and is deleted at
    // once. From here on the scheduler owns the request. Returns 0 (1 for null).
    int RequestAdd(Request* pRequest) override;

    // Deletes a request that is still queued and returns 0; one that is not
    // (already executed, or taken into the running batch) gives
    // DELETEREQUEST_NOT_EXIST.
    int RequestRemove(Request* pRequest) override;

    // One pass of the send loop, on the send thread: waits at most 1000 ms for
    // a RequestAdd, then executes and deletes every queued request whose next
    // time has passed. Requests not yet due wait for the next RequestAdd. A
    // wake by RequestStop alone ends the wait like its time-out.
    int ExcuteRequest();

    // Send thread entry for Thread::Start; the argument is the
    // ImmeditRequestScheduler*. Loops until the run flag is cleared, then sets
    // the stopped flag as its last act. Returns 0.
    static unsigned int SendRun(void* pArgument);

    // Clears the run flag and posts the wake semaphore, so a stop takes
    // milliseconds, not a second. The pass that this post alone wakes walks no
    // list: requests not yet due stay unexecuted, as with a plain time-out.
    void RequestStop();

private:
    // Under m_Lock: a RequestAdd has posted since the last pass took the token.
    // True at first, for the semaphore's initial token. Tells a stop's bare
    // wake from one that queued work.
    bool m_bAddPosted;
};
