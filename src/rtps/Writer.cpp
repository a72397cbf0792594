#include "rtps/Writer.h"

#include <cstring>
#include <new>

#include "core/SystemClock.h"
#include "rtps/CacheChange.h"
#include "rtps/WriterEventSink.h"

Writer::Writer(const GUID_t& guidValue, const DataWriterQos& attributes, RequestScheduler* const* pSchedulers)
    : Endpoint(guidValue, uint32_t(attributes.reliability.kind)),
      pushMode(1),
      heartbeatPeriod(0, 200000000),
      nackResponseDelay(0, 0),
      lastChangeSequenceNumber(0),
      m_WriterCache(nullptr),
      m_Duration(),
      m_DataWriter(nullptr),
      m_Qos(attributes),
      m_LastLivelinessTime(PublicClockNow()),
      m_LivelinessActive(0) {
    m_Schedulers[0] = pSchedulers != nullptr ? pSchedulers[0] : nullptr;
    m_Schedulers[1] = pSchedulers != nullptr ? pSchedulers[1] : nullptr;
}

Writer::~Writer() {}

int Writer::getEndpointDuration(Time_t& duration) {
    duration = m_Duration;
    return 0;
}

namespace {
SequenceNumber_t FromCount(int64_t llCount) {
    return SequenceNumber_t(int32_t(llCount >> 32), uint32_t(llCount));
}
}  // namespace

RequestScheduler* Writer::getScheduler(int iIndex) const {
    return (iIndex == 0 || iIndex == 1) ? m_Schedulers[iIndex] : nullptr;
}

Time_t Writer::PublicClockNow() {
    const uint32_t uiTicks = SystemClock::TickCountMs();
    return Time_t(int32_t(uiTicks / 1000), (uiTicks % 1000) * 1000000u);
}

CacheChange* Writer::new_change(const void* pData, uint32_t uiLength, uint16_t kind,
                                const InstanceHandle_t& instanceHandle) {
    CacheChange* pChange = new (std::nothrow) CacheChange();
    if (pChange == nullptr) return nullptr;
    pChange->kind = kind;
    pChange->instanceHandle = instanceHandle;
    pChange->writerGUID = guid;
    pChange->dataLength = uiLength;
    pChange->sequenceNumber = FromCount(lastChangeSequenceNumber.fetch_add(1, std::memory_order_relaxed) + 1);
    if (uiLength != 0) {
        pChange->data = CacheChange::AllocData(uiLength);
        if (pChange->data == nullptr) {
            // The number stays spent, as the DataWriterImpl's own counter has moved on.
            delete pChange;
            return nullptr;
        }
        if (pData != nullptr) memcpy(pChange->data, pData, uiLength);
    }
    return pChange;
}

void Writer::skipSequenceNumber() {
    lastChangeSequenceNumber.fetch_add(1, std::memory_order_relaxed);
}

SequenceNumber_t Writer::getLastChangeSequenceNumber() const {
    return FromCount(lastChangeSequenceNumber.load(std::memory_order_relaxed));
}

int Writer::checkLiveliness(Time_t now) {
    const Duration_t lease = m_Qos.liveliness.lease_duration;
    // An infinite lease never runs out; it is not added to a time.
    if (lease == DURATION_INFINITE) return 0;

    bool bLost = false;
    m_LivelinessMutex.Lock();
    // Sum with the nanosecond carry, in 64 bits so that a long lease cannot wrap.
    const uint64_t ns = uint64_t(m_LastLivelinessTime.nanosec) + uint64_t(lease.nanosec);
    const int64_t expirySec =
        int64_t(m_LastLivelinessTime.sec) + int64_t(lease.sec) + int64_t(ns / 1000000000ULL);
    const uint64_t expiryNs = ns % 1000000000ULL;
    const bool bExpired =
        expirySec < int64_t(now.sec) || (expirySec == int64_t(now.sec) && expiryNs < uint64_t(now.nanosec));
    if (bExpired && m_LivelinessActive == 1) {
        m_LivelinessActive = 0;
        bLost = true;
    }
    m_LivelinessMutex.Unlock();

    // Outside the lock: the data writer runs the application's listener.
    if (bLost) notifyLivelinessLost();
    return 0;
}

int Writer::assertLiveliness(uint32_t uiKind) {
    if (uint32_t(m_Qos.liveliness.kind) != uiKind) return 0;
    m_LivelinessMutex.Lock();
    m_LastLivelinessTime = PublicClockNow();
    m_LivelinessActive = 1;
    m_LivelinessMutex.Unlock();
    return 0;
}

uint8_t Writer::getLivelinessActive() {
    m_LivelinessMutex.Lock();
    const uint8_t active = m_LivelinessActive;
    m_LivelinessMutex.Unlock();
    return active;
}

Time_t Writer::getLastLivelinessTime() {
    m_LivelinessMutex.Lock();
    const Time_t last = m_LastLivelinessTime;
    m_LivelinessMutex.Unlock();
    return last;
}

void Writer::notifyLivelinessLost() {
    // The data writer counts the loss and calls its listener.
    if (m_DataWriter != nullptr) m_DataWriter->livelinessLost();
}
