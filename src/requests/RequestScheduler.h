// Common part of the participant's two request schedulers: the queue, its lock,
// the wake semaphore and the run/stopped flags of the send loop. RequestAdd and
// RequestRemove come from application and process threads; m_Lock guards the
// containers and is never held while a request executes.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>

#include "BasicTypes.h"
#include "core/Mutex.h"
#include "core/Semaphore.h"

class MessageProcessor;
class MessageTransmitter;
class Request;

class RequestScheduler {
public:
    RequestScheduler(MessageProcessor* pMessageProcessor, MessageTransmitter* pMessageTransmitter);
    // Deletes every request still queued, unexecuted. Owners stop the send
    // loop before deleting a scheduler.
    virtual ~RequestScheduler();

    RequestScheduler(const RequestScheduler&) = delete;
    RequestScheduler& operator=(const RequestScheduler&) = delete;

    virtual int RequestAdd(Request* pRequest) = 0;
    virtual int RequestRemove(Request* pRequest) = 0;

    // Handed to every request that the factory builds for this scheduler.
    MessageProcessor* GetMessageProcessor() const { return m_pMessageProcessor; }
    MessageTransmitter* GetMessageTransmitter() const { return m_pMessageTransmitter; }

    // Stop protocol of the send loop: the owner clears the run flag, then
    // polls the stopped flag, which the loop sets as its last act.
    void SetRunFlag(bool bRun) { m_RunFlag.store(bRun ? 1 : 0); }
    uint8_t GetRunFlag() const { return m_RunFlag.load(); }
    uint8_t GetStoppedFlag() const { return m_StoppedFlag.load(); }

    // Log key of the owning participant (its low 16 bits are the domain id).
    void SetLogKey(int iLogKey) { m_iLogKey = iLogKey; }
    int GetLogKey() const { return m_iLogKey; }

    // The participant's public clock: the millisecond tick count split into
    // seconds and nanoseconds. Request times are compared against it, so
    // creators must fill next times from the same clock.
    static Time_t CurrentTime();

protected:
    void Log(const char* szText, int iCode) const;

    MessageProcessor* m_pMessageProcessor;      // not owned
    MessageTransmitter* m_pMessageTransmitter;  // not owned
    std::list<Request*> m_RequestList;          // the queue; owns its requests
    std::list<Request*> m_SpareRequestList;     // never filled
    Mutex m_Lock;                               // guards the containers
    Semaphore m_WakeSemaphore;                  // initial 1, maximum 1
    std::atomic<uint8_t> m_RunFlag;
    std::atomic<uint8_t> m_StoppedFlag;
    int m_iLogKey;
};
