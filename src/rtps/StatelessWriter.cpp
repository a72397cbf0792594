#include "rtps/StatelessWriter.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "DDSLogManagementFactory.h"
#include "requests/DataMessageRequest_L.h"
#include "requests/RequestFactory.h"
#include "requests/RequestScheduler.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"

namespace {
// now + budget, held at the largest time rather than wrapping for a huge budget.
Time_t DueTime(const Time_t& now, const Duration_t& budget) {
    const uint64_t ns = uint64_t(now.nanosec) + uint64_t(budget.nanosec);
    const int64_t sec = int64_t(now.sec) + int64_t(budget.sec) + int64_t(ns / 1000000000ULL);
    if (sec > INT32_MAX) return DURATION_INFINITE;
    return Time_t(int32_t(sec), uint32_t(ns % 1000000000ULL));
}
}  // namespace

StatelessWriter::StatelessWriter(const GUID_t& guidValue, const DataWriterQos& attributes,
                                 RequestScheduler* const* pSchedulers)
    : Writer(guidValue, attributes, pSchedulers), m_MatchedLocatorMap(), m_uiMatchedCount(0) {
    reliabilityLevel = 1;
}

StatelessWriter::~StatelessWriter() {}

uint32_t StatelessWriter::getMatchedCount() {
    return m_uiMatchedCount.load(std::memory_order_relaxed);
}

uint32_t StatelessWriter::logKey() const {
    return m_WriterCache != nullptr ? m_WriterCache->GetDomainId() : 0;
}

const std::string& StatelessWriter::topicName() const {
    static const std::string strNone;
    return m_WriterCache != nullptr ? m_WriterCache->GetTopicName() : strNone;
}

ReturnCode_t StatelessWriter::DataSend(CacheChange* pCacheChange) {
    if (pCacheChange == nullptr) return 1;
    const uint32_t uiLogKey = logKey();
    const std::string& strTopicName = topicName();
    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory != nullptr && pLogFactory->IsQueryTopic(int(uiLogKey), strTopicName)) {
        char szLog[200];
        snprintf(szLog, sizeof(szLog), "[StatelessWriter::DataSend] [2] TopicName = %s SeqNum = %d",
                 strTopicName.c_str(), int(pCacheChange->sequenceNumber.low));
        DDSLogManagementFactory::WriteDDSLog(int(uiLogKey), szLog, strlen(szLog), DDSLOG_WRITE, GUID_UNKNOWN);
    }

    // The change is not in the cache: from here on the request owns it.
    RequestScheduler* pImmediate = getScheduler(0);
    DataMessageRequest_L* pRequest =
        RequestFactory::CreateDataMessageRequest_L(pImmediate, getEntityId(), pCacheChange);
    if (pRequest == nullptr) {
        CacheChange::FreeData(pCacheChange->data);
        delete pCacheChange;
        return 1;
    }
    const Duration_t budget = m_Qos.latency_budget.duration;
    if (budget != DURATION_ZERO || m_Qos.publish_mode.kind == ASYNCHRONOUS_PUBLISH_MODE_QOS) {
        // Queued: it may outlive the writer and its cache, so it keeps a copy of the name.
        pRequest->setTopicName(uiLogKey, strTopicName);
        // The budget delays the send so that the send thread may batch it with others.
        const Time_t now = RequestScheduler::CurrentTime();
        pRequest->setStartTime(now);
        pRequest->setNextTime(DueTime(now, budget));
        pRequest->setPriority(uint32_t(m_Qos.transport_priority.value));
        if (pImmediate->RequestAdd(pRequest) != 0) {
            // Refused, so still ours: the change goes with the request.
            delete pRequest;
            return 1;
        }
        return 0;
    }

    pRequest->setTopicNameView(uiLogKey, strTopicName);
    pRequest->Execute();
    delete pRequest;
    return 0;
}

int StatelessWriter::removeChange(SequenceNumber_t seqNum) {
    // A best-effort writer keeps no reader state: only the cache is involved.
    if (m_WriterCache != nullptr) m_WriterCache->RemoveChange(seqNum);
    return 0;
}

int StatelessWriter::reader_locator_add(Locator_t locator) {
    auto it = m_MatchedLocatorMap.find(locator);
    if (it == m_MatchedLocatorMap.end()) {
        m_MatchedLocatorMap.emplace(locator, ReaderLocator(locator));
        m_uiMatchedCount.store(uint32_t(m_MatchedLocatorMap.size()), std::memory_order_relaxed);
        return 0;
    }
    // Readers behind one unicast locator share a single count, so the first
    // removal takes the locator from all of them.
    if (it->second.isMulticast()) ++it->second.m_RefCount;
    return 0;
}

int StatelessWriter::reader_locator_remove(Locator_t locator) {
    auto it = m_MatchedLocatorMap.find(locator);
    if (it == m_MatchedLocatorMap.end()) {
        char szLog[200];
        snprintf(szLog, sizeof(szLog),
                 "[StatelessWriter::reader_locator_remove] m_MatchedLocatorMap.count = 0 and TopicName = %s",
                 topicName().c_str());
        DDSLogManagementFactory::WriteDDSLog(int(logKey()), szLog, strlen(szLog), DDSLOG_INFO, GUID_UNKNOWN);
        return 1;
    }
    if (it->second.m_RefCount == 1) {
        m_MatchedLocatorMap.erase(it);
        m_uiMatchedCount.store(uint32_t(m_MatchedLocatorMap.size()), std::memory_order_relaxed);
    } else
        --it->second.m_RefCount;
    return 0;
}
