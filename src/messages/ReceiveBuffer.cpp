#include "messages/ReceiveBuffer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "DDSLogManagementFactory.h"

namespace {
const uint32_t LENGTH_PREFIX_SIZE = sizeof(uint32_t);
}

ReceiveBuffer::ReceiveBuffer(uint32_t uiLength)
    : m_uiLength(uiLength),
      m_uiReadIndex(0),
      m_uiWriteIndex(0),
      // calloc: the 50 MiB come zeroed without touching every page up front.
      m_pBuffer(static_cast<octet*>(std::calloc(uiLength == 0 ? 1 : uiLength, 1))),
      m_uiAvailableLength(uiLength),
      m_DataSemaphore(0, 1),
      m_bWakePending(false),
      m_uiDomainId(0) {
    if (m_pBuffer == nullptr) {
        // Without storage the ring stays full for ever: every Write is refused.
        m_uiAvailableLength = 0;
    }
}

ReceiveBuffer::~ReceiveBuffer() {
    std::free(m_pBuffer);
}

uint32_t ReceiveBuffer::Advance(uint32_t uiIndex, uint32_t uiCount) const {
    return static_cast<uint32_t>((uint64_t(uiIndex) + uiCount) % m_uiLength);
}

void ReceiveBuffer::CopyIn(uint32_t uiIndex, const octet* pData, uint32_t uiCount) {
    uint32_t uiFirst = m_uiLength - uiIndex;
    if (uiFirst >= uiCount) {
        std::memcpy(m_pBuffer + uiIndex, pData, uiCount);
        return;
    }
    std::memcpy(m_pBuffer + uiIndex, pData, uiFirst);
    std::memcpy(m_pBuffer, pData + uiFirst, uiCount - uiFirst);
}

void ReceiveBuffer::CopyOut(uint32_t uiIndex, octet* pDestination, uint32_t uiCount) const {
    uint32_t uiFirst = m_uiLength - uiIndex;
    if (uiFirst >= uiCount) {
        std::memcpy(pDestination, m_pBuffer + uiIndex, uiCount);
        return;
    }
    std::memcpy(pDestination, m_pBuffer + uiIndex, uiFirst);
    std::memcpy(pDestination + uiFirst, m_pBuffer, uiCount - uiFirst);
}

int ReceiveBuffer::Write(const octet* pData, uint32_t uiLength) {
    m_Lock.Lock();
    // 64-bit sum: a length near 2^32 must not wrap into a small record.
    if (!(uint64_t(m_uiAvailableLength) > uint64_t(uiLength) + LENGTH_PREFIX_SIZE)) {
        uint32_t uiAvailable = m_uiAvailableLength;
        m_Lock.Unlock();
        char szLog[200];
        snprintf(szLog, sizeof(szLog), "[ReceiveBuffer::Write] uiAvailableLength = %d and uiLength = %d",
                 uiAvailable, uiLength);
        DDSLogManagementFactory::WriteDDSLog(static_cast<int>(m_uiDomainId), szLog, strlen(szLog),
                                             DDSLOG_INFO, GUID_UNKNOWN);
        return RETCODE_BUFFER_FULL;
    }

    uint32_t uiPrefix = uiLength;
    CopyIn(m_uiWriteIndex, reinterpret_cast<const octet*>(&uiPrefix), LENGTH_PREFIX_SIZE);
    m_uiWriteIndex = Advance(m_uiWriteIndex, LENGTH_PREFIX_SIZE);
    if (uiLength > 0) CopyIn(m_uiWriteIndex, pData, uiLength);
    m_uiWriteIndex = Advance(m_uiWriteIndex, uiLength);
    m_uiAvailableLength -= uiLength + LENGTH_PREFIX_SIZE;

    // A post on an open gate fails; that is harmless, the reader is woken once.
    if (m_uiAvailableLength < m_uiLength) m_DataSemaphore.Post();
    m_Lock.Unlock();
    return 0;
}

int ReceiveBuffer::Read(octet* pDestination, uint32_t& uiLength, uint32_t uiDestinationSize) {
    if (m_DataSemaphore.Wait(READ_WAIT_MS) != 0) return 1;

    m_Lock.Lock();
    // A gate opened by Wake carries no record: on an empty ring that is no
    // fault worth a log line, just an early end of the wait.
    const bool bWoken = m_bWakePending;
    m_bWakePending = false;
    if (m_uiAvailableLength == m_uiLength) {
        if (bWoken) {
            m_Lock.Unlock();
            return 1;
        }
        char szLog[200];
        snprintf(szLog, sizeof(szLog), "[ReceiveBuffer::Read] m_uiAvailableLength = %d m_uiLength = %d",
                 m_uiAvailableLength, m_uiLength);
        DDSLogManagementFactory::WriteDDSLog(static_cast<int>(m_uiDomainId), szLog, strlen(szLog),
                                             DDSLOG_INFO, GUID_UNKNOWN);
        m_Lock.Unlock();
        return 1;
    }

    uint32_t uiRecord = 0;
    CopyOut(m_uiReadIndex, reinterpret_cast<octet*>(&uiRecord), LENGTH_PREFIX_SIZE);
    m_uiReadIndex = Advance(m_uiReadIndex, LENGTH_PREFIX_SIZE);
    uint32_t uiCopy = uiRecord < uiDestinationSize ? uiRecord : uiDestinationSize;
    if (uiCopy > 0) CopyOut(m_uiReadIndex, pDestination, uiCopy);
    m_uiReadIndex = Advance(m_uiReadIndex, uiRecord);
    m_uiAvailableLength += uiRecord + LENGTH_PREFIX_SIZE;
    uiLength = uiRecord;

    // This read used up the gate's count: reopen it while records remain.
    if (m_uiAvailableLength < m_uiLength) m_DataSemaphore.Post();
    m_Lock.Unlock();
    return 0;
}

void ReceiveBuffer::Wake() {
    // Wakes the loop so a stop takes milliseconds, not a second. The flag goes
    // up before the post, so the Read that the post releases sees it; on an
    // open gate the post fails harmlessly and that Read takes a record instead.
    m_Lock.Lock();
    m_bWakePending = true;
    m_DataSemaphore.Post();
    m_Lock.Unlock();
}

uint32_t ReceiveBuffer::GetAvailableLength() {
    m_Lock.Lock();
    uint32_t uiAvailable = m_uiAvailableLength;
    m_Lock.Unlock();
    return uiAvailable;
}
