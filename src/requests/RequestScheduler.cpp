#include "requests/RequestScheduler.h"

#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "core/SystemClock.h"
#include "requests/Request.h"

RequestScheduler::RequestScheduler(MessageProcessor* pMessageProcessor,
                                   MessageTransmitter* pMessageTransmitter)
    : m_pMessageProcessor(pMessageProcessor),
      m_pMessageTransmitter(pMessageTransmitter),
      m_RequestList(),
      m_SpareRequestList(),
      m_Lock(),
      m_WakeSemaphore(1, 1),
      m_RunFlag(1),
      m_StoppedFlag(0),
      m_iLogKey(0) {}

RequestScheduler::~RequestScheduler() {
    for (Request* pRequest : m_RequestList) delete pRequest;
    m_RequestList.clear();
}

Time_t RequestScheduler::CurrentTime() {
    const uint32_t uiTicks = SystemClock::TickCountMs();
    return Time_t(static_cast<int32_t>(uiTicks / 1000), (uiTicks % 1000) * 1000000u);
}

void RequestScheduler::Log(const char* szText, int iCode) const {
    char szLog[200];
    snprintf(szLog, sizeof(szLog), "%s", szText);
    DDSLogManagementFactory::WriteDDSLog(m_iLogKey, szLog, strlen(szLog), iCode, GUID_UNKNOWN);
}
