#include "requests/ImmeditRequestScheduler.h"

#include <cstdio>

#include "DDSLogManagementFactory.h"
#include "core/SystemClock.h"
#include "requests/Request.h"

namespace {
// Longest wait of one pass: the send loop sees a cleared run flag within it.
const unsigned int SEND_WAKE_TIMEOUT_MS = 1000;
}  // namespace

ImmeditRequestScheduler::ImmeditRequestScheduler(MessageProcessor* pMessageProcessor,
                                                 MessageTransmitter* pMessageTransmitter)
    : RequestScheduler(pMessageProcessor, pMessageTransmitter), m_bAddPosted(true) {}

ImmeditRequestScheduler::~ImmeditRequestScheduler() {}

int ImmeditRequestScheduler::RequestAdd(Request* pRequest) {
    if (pRequest == nullptr) return 1;

    m_Lock.Lock();
    std::list<Request*>::iterator it = m_RequestList.begin();
    for (; it != m_RequestList.end(); ++it) {
        Request* pCurrent = *it;
        if (pRequest->isHeartbeat() && pCurrent->isHeartbeat()) {
            // A burst of writes must not fill the queue with equal heartbeats:
            // the one already waiting absorbs the new one. Heartbeats of other
            // endpoints are passed without comparing priorities.
            if (pRequest->getEntityId() == pCurrent->getEntityId()) {
                pCurrent->setNextTime(pRequest->getNextTime());
                delete pRequest;
                pRequest = nullptr;
                break;
            }
            continue;
        }
        if (pRequest->getPriority() > pCurrent->getPriority()) break;
        if (pRequest->getPriority() == pCurrent->getPriority() &&
            pRequest->getNextTime() < pCurrent->getNextTime())
            break;
    }
    if (pRequest != nullptr) m_RequestList.insert(it, pRequest);
    m_bAddPosted = true;
    m_Lock.Unlock();

    // At most one token: a post on a full semaphore is refused, harmlessly.
    m_WakeSemaphore.Post();
    return 0;
}

int ImmeditRequestScheduler::RequestRemove(Request* pRequest) {
    m_Lock.Lock();
    for (std::list<Request*>::iterator it = m_RequestList.begin(); it != m_RequestList.end(); ++it) {
        if (*it == pRequest) {
            m_RequestList.erase(it);
            delete pRequest;
            m_Lock.Unlock();
            return 0;
        }
    }
    m_Lock.Unlock();
    Log("[ImmeditRequestScheduler::RequestRemove] DELETEREQUEST_NOT_EXIST", DDSLOG_INFO);
    return DELETEREQUEST_NOT_EXIST;
}

int ImmeditRequestScheduler::ExcuteRequest() {
    // The time-out path does not look at the list: a request that is not yet
    // due is looked at again only after the next RequestAdd.
    if (m_WakeSemaphore.Wait(SEND_WAKE_TIMEOUT_MS) != 0) return 0;

    const Time_t now = CurrentTime();
    std::list<Request*> ExcuteRequestList;

    m_Lock.Lock();
    const bool bAddPosted = m_bAddPosted;
    m_bAddPosted = false;
    if (!bAddPosted && m_RunFlag.load() == 0) {
        // Only RequestStop's wake: behave as the time-out that it cut short.
        m_Lock.Unlock();
        return 0;
    }
    std::list<Request*>::iterator it = m_RequestList.begin();
    while (it != m_RequestList.end()) {
        std::list<Request*>::iterator itCurrent = it++;
        Request* currentExecRequest = *itCurrent;
        if (currentExecRequest->getNextTime() < now)
            ExcuteRequestList.splice(ExcuteRequestList.end(), m_RequestList, itCurrent);
    }
    m_Lock.Unlock();

    // Once each, whatever the result: repair is the reliable protocol's job.
    for (Request* pRequest : ExcuteRequestList) {
        pRequest->Execute();
        delete pRequest;
    }
    return 0;
}

void ImmeditRequestScheduler::RequestStop() {
    m_RunFlag.store(0);
    // Wakes the loop so a stop takes milliseconds, not a second. On a full
    // semaphore the post is refused: a wake is already on its way.
    m_WakeSemaphore.Post();
}

unsigned int ImmeditRequestScheduler::SendRun(void* pArgument) {
    ImmeditRequestScheduler* pScheduler = static_cast<ImmeditRequestScheduler*>(pArgument);

    while (pScheduler->m_RunFlag.load() != 0) {
        pScheduler->ExcuteRequest();
        SystemClock::SleepMs(0);
    }

    // The stop line goes to every log class that a reader of the files may watch.
    const int aiCodes[] = {DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO};
    for (int iCode : aiCodes) pScheduler->Log("Stop Send Thread Sucess", iCode);
    printf("Stop Send Thread .. \n");
    fflush(stdout);
    SystemClock::SleepMs(1);
    // Last act: after this the owner may delete the scheduler.
    pScheduler->m_StoppedFlag.store(1);
    return 0;
}
