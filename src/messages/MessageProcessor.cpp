#include "messages/MessageProcessor.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "DDSLogManagementFactory.h"
#include "MorvoFun.h"

namespace {
const uint32_t INITIAL_MESSAGE_SIZE = 2048;
// Doubling past this would overflow the 32-bit capacity.
const uint32_t DEFAULT_MESSAGE_LIMIT = 0x80000000u;
}  // namespace

MessageProcessor::MessageProcessor(Participant* pOwner, ReceiveBuffer* pReceiveBuffer,
                                   const GuidPrefix& prefix, int iLogKey)
    : m_bRun(1),
      m_bStopped(0),
      m_pOwner(pOwner),
      m_pReceiveBuffer(pReceiveBuffer),
      m_pEncapsulateMessage(nullptr),
      m_uiEncapsulateMessageSize(INITIAL_MESSAGE_SIZE),
      m_uiEncapsulateDirty(0),
      m_uiLocalEndianness(MorvoFun::LocalEndianness() == 1 ? 1 : 0),
      m_uiDstGuidPrefixPos(0),
      m_uiDataReaderIdPos(0),
      m_uiHeartBeatReaderIdPos(0),
      m_GuidPrefix(prefix),
      m_iLogKey(iLogKey),
      m_uiEncapsulateMessageLimit(DEFAULT_MESSAGE_LIMIT) {
    // A failed allocation here is retried by the next EncapsulateMessageHeader.
    m_pEncapsulateMessage = new (std::nothrow) octet[m_uiEncapsulateMessageSize];
    if (m_pEncapsulateMessage != nullptr) std::memset(m_pEncapsulateMessage, 0, m_uiEncapsulateMessageSize);
}

MessageProcessor::~MessageProcessor() {
    delete[] m_pEncapsulateMessage;
    m_pEncapsulateMessage = nullptr;
}

int MessageProcessor::lockMessage() {
    return m_MessageMutex.Lock();
}

int MessageProcessor::unlockMessage() {
    return m_MessageMutex.Unlock();
}

void MessageProcessor::LogText(const char* pText, int iCode) {
    char szText[200];
    snprintf(szText, sizeof(szText), "%s", pText);
    DDSLogManagementFactory::WriteDDSLog(m_iLogKey, szText, strlen(szText), iCode, GUID_UNKNOWN);
}
