// Byte ring of length-prefixed datagrams between the receive thread (and local
// senders), which Write, and the process thread, which Reads. Every operation
// takes the ring's own lock, a leaf held only for the copy.
#pragma once

#include <cstdint>

#include "BasicTypes.h"
#include "core/Mutex.h"
#include "core/Semaphore.h"

class ReceiveBuffer {
public:
    static constexpr uint32_t DEFAULT_CAPACITY = 52428800;  // 50 MiB
    // What the process thread hands to Read: a UDP datagram never exceeds it.
    static constexpr uint32_t READ_DESTINATION_SIZE = 65536;
    static constexpr unsigned int READ_WAIT_MS = 1000;

    explicit ReceiveBuffer(uint32_t uiLength = DEFAULT_CAPACITY);
    virtual ~ReceiveBuffer();

    ReceiveBuffer(const ReceiveBuffer&) = delete;
    ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

    // Log key of the owning participant; 0 until set.
    void SetDomainId(uint32_t uiDomainId) { m_uiDomainId = uiDomainId; }
    uint32_t GetDomainId() const { return m_uiDomainId; }

    // Appends one record. 0, or RETCODE_BUFFER_FULL (9) when the free space is
    // not strictly greater than uiLength + 4; the datagram is then dropped whole.
    int Write(const octet* pData, uint32_t uiLength);

    // Takes the oldest record into pDestination, waiting at most 1000 ms for
    // one. 0, or 1 when nothing was read. pDestination must hold
    // uiDestinationSize bytes; a longer record (which no UDP datagram can make)
    // is cut there and its rest skipped, uiLength still giving its full length.
    int Read(octet* pDestination, uint32_t& uiLength, uint32_t uiDestinationSize = READ_DESTINATION_SIZE);

    // Releases a Read that waits on the gate now (or the next one to wait) without
    // a record: on an empty ring it returns 1 silently, as on a time-out; with a
    // record it reads that. Wakes the process loop so a stop takes milliseconds,
    // not a second: meant for the stop, after which that Read is the loop's last.
    // Any thread.
    void Wake();

    uint32_t GetLength() const { return m_uiLength; }
    // Free bytes, read under the lock.
    uint32_t GetAvailableLength();

private:
    // Copy into / out of the ring at the given index, wrapping at the end.
    void CopyIn(uint32_t uiIndex, const octet* pData, uint32_t uiCount);
    void CopyOut(uint32_t uiIndex, octet* pDestination, uint32_t uiCount) const;
    uint32_t Advance(uint32_t uiIndex, uint32_t uiCount) const;

    uint32_t m_uiLength;
    uint32_t m_uiReadIndex;
    uint32_t m_uiWriteIndex;
    octet* m_pBuffer;
    uint32_t m_uiAvailableLength;
    Mutex m_Lock;
    Semaphore m_DataSemaphore;  // initial 0, maximum 1: a gate, not a count
    bool m_bWakePending;        // under m_Lock: the gate was opened by Wake
    uint32_t m_uiDomainId;
};
