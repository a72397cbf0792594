// The read side of DataReaderImpl: read, take and the two next-sample forms, on
// application threads (and on the process thread when Discovery drains a
// built-in reader). Only the cache's own lock is taken.
//
// Every buffer handed over comes from CacheChange::AllocData (calloc), like the
// payloads the protocol reader stores, so the application frees all of them
// with free().
#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "dcps/DataReaderImpl.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"

namespace {

// A new buffer holding a copy of the change's payload; null for an empty one.
void CopyOut(const CacheChange* pCacheChange, UserData& data_value) {
    data_value.length = pCacheChange->dataLength;
    data_value.data = CacheChange::AllocData(pCacheChange->dataLength);
    if (data_value.data != nullptr && pCacheChange->data != nullptr)
        std::memcpy(data_value.data, pCacheChange->data, pCacheChange->dataLength);
}

// Hands the change's own buffer over and drops the emptied record. Its slot in
// the cache stays, holding null.
void HandOver(CacheChange* pCacheChange, UserData& data_value) {
    data_value.data = pCacheChange->data;
    data_value.length = pCacheChange->dataLength;
    pCacheChange->data = nullptr;
    delete pCacheChange;
}

// The loop below re-reads the count, so a sample arriving meanwhile can carry
// the index past the size taken at the start: the vector grows with it.
UserData& Element(std::vector<UserData>& data_values, uint32_t uiIndex) {
    if (uiIndex >= data_values.size()) data_values.resize(uiIndex + 1);
    return data_values[uiIndex];
}

}  // namespace

ReturnCode_t DataReaderImpl::CollectSamples(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos,
                                            const char* szNoDataFormat, bool bTake) {
    const uint32_t uiCount = m_pHistoryCache->GetChangeCount();
    if (uiCount == 0) {
        char szLog[200];
        std::snprintf(szLog, sizeof(szLog), szNoDataFormat, m_strTopicName.c_str());
        Log(szLog, DDSLOG_INFO);
        return NO_DATA;
    }
    data_values.resize(uiCount);
    sample_infos.reallocate(uiCount);
    sample_infos.set_length(uiCount);

    // Deliberately kept as it has always behaved for take: each take lowers the
    // count while the index rises and the index counts only the entries still
    // held, so one call takes entries 0, 2, 4, ... of the cache. The others wait
    // for the next call, and the tail of the vector keeps null elements.
    // Applications call take until empty.
    for (uint32_t i = 0; i < m_pHistoryCache->GetChangeCount(); ++i) {
        const SequenceNumber_t seqNum = m_pHistoryCache->GetSeqNumAt(i);
        // A read borrows it for the copy, so that the process thread cannot free it meanwhile.
        CacheChange* pCacheChange = m_pHistoryCache->takeChange(seqNum);
        if (pCacheChange == nullptr) continue;
        if (bTake) {
            HandOver(pCacheChange, Element(data_values, i));
        } else {
            CopyOut(pCacheChange, Element(data_values, i));
            m_pHistoryCache->returnChange(pCacheChange);
        }
    }
    return RETCODE_OK;
}

// The filters are not applied: both hand over everything the cache holds.
ReturnCode_t DataReaderImpl::read(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos,
                                  int /*max_samples*/, unsigned /*sample_states*/, unsigned /*view_states*/,
                                  unsigned /*instance_states*/) {
    return CollectSamples(data_values, sample_infos,
                          "{DataReaderImpl::read] NO_DATA Error and TopicName = %s", false);
}

ReturnCode_t DataReaderImpl::take(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos,
                                  int /*max_samples*/, unsigned /*sample_states*/, unsigned /*view_states*/,
                                  unsigned /*instance_states*/) {
    return CollectSamples(data_values, sample_infos,
                          "{DataReaderImpl::take] NO_DATA Error and TopicName = %s", true);
}

ReturnCode_t DataReaderImpl::read_next_sample(UserData& data_value, SampleInfo& sample_info) {
    (void)sample_info;
    return NextSample(data_value, false);
}

ReturnCode_t DataReaderImpl::take_next_sample(UserData& data_value, SampleInfo& sample_info) {
    (void)sample_info;
    return NextSample(data_value, true);
}

ReturnCode_t DataReaderImpl::NextSample(UserData& data_value, bool bTake) {
    // Both forms log with the take wording.
    char szLog[200];
    if (m_pHistoryCache->GetChangeCount() == 0) {
        std::snprintf(szLog, sizeof(szLog),
                      "{DataReaderImpl::take_next_sample] NO_DATA Error and TopicName = %s",
                      m_strTopicName.c_str());
        Log(szLog, DDSLOG_INFO);
        return NO_DATA;
    }
    // The newest, not the oldest. A taken newest keeps its key with a null value,
    // so later calls find nothing here until a newer sample arrives.
    const SequenceNumber_t seqNum = m_pHistoryCache->GetSeqNumMax();
    CacheChange* pCacheChange = m_pHistoryCache->takeChange(seqNum);
    if (pCacheChange == nullptr) {
        std::snprintf(szLog, sizeof(szLog),
                      "{DataReaderImpl::take_next_sample] pCacheChange = NULL Error and TopicName = %s",
                      m_strTopicName.c_str());
        Log(szLog, DDSLOG_INFO);
        return NO_DATA;
    }
    if (bTake) {
        HandOver(pCacheChange, data_value);
    } else {
        CopyOut(pCacheChange, data_value);
        m_pHistoryCache->returnChange(pCacheChange);
    }
    return RETCODE_OK;
}
