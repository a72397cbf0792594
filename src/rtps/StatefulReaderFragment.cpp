// DATA_FRAG receipt of StatefulReader: reassembly of large samples in the
// change that the writer proxy holds for their number.
#include "rtps/StatefulReader.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/WriterProxy.h"

namespace {
// Best effort keeps at most this many samples of one writer under reassembly.
const uint32_t BEST_EFFORT_REASSEMBLY_MAX = 3;

// Notes fragment uiFragmentNum in the store's bookkeeping: numbers passed over
// become missing, a late one stops being missing.
void NoteFragment(CacheChange* pFragDataCache, uint32_t uiFragmentNum) {
    const uint32_t uiHighest = pFragDataCache->highestFragment;
    if (uiFragmentNum == uiHighest + 1) {
        pFragDataCache->highestFragment = uiFragmentNum;
    } else if (uiFragmentNum > uiHighest + 1) {
        // Missing numbers are 16-bit values: beyond 65536 steps the walk
        // could add nothing new.
        uint64_t ulSteps = uint64_t(uiFragmentNum) - 1 - uiHighest;
        if (ulSteps > 65536) ulSteps = 65536;
        for (uint64_t i = 0; i < ulSteps; ++i)
            pFragDataCache->missingFragments.insert(uint16_t(uiHighest + 1 + uint32_t(i)));
        pFragDataCache->highestFragment = uiFragmentNum;
    } else if (uiFragmentNum < uiHighest) {
        pFragDataCache->missingFragments.erase(uint16_t(uiFragmentNum));
    }
}

// Complete by the fixed fragment size, whatever size the messages stated.
bool IsComplete(const CacheChange* pFragDataCache) {
    return pFragDataCache->highestFragment == (pFragDataCache->dataLength - 1) / FRAGMENT_SIZE + 1 &&
           pFragDataCache->missingFragments.empty();
}
}  // namespace

int StatefulReader::DataFragMessageReceive(const MessageReceiver& receiver, const DataFragSubMessage& message,
                                           const dataFrag& fragment, const std::list<Parameter>&,
                                           const octet* pData, uint32_t uiLength) {
    // The fragment's inline QoS and the INFO_TS time are not kept: a
    // reassembled change has neither.
    char szLog[200];
    const GUID_t writerGuid(receiver.sourceGuidPrefix, message.writerId);
    const SequenceNumber_t writerSN = FromWire(message.writerSN);

    if (IsNotOwner(writerGuid)) {
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::DataFragMessageReceive] OwnerShip error TopicName =%s  Seq = %d ",
                 TopicName().c_str(), int(writerSN.low));
        WriteLog(szLog);
        return 0;
    }
    WriterProxy* pWriterProxy = FindProxy(writerGuid);
    if (pWriterProxy == nullptr) return 0;
    if (reliabilityLevel == 2) {
        const SequenceNumber_t maxSeq = pWriterProxy->available_changes_max();
        if (!(maxSeq < writerSN)) {
            snprintf(szLog, sizeof(szLog),
                     "[StatefulReader::DataFragMessageReceive] maxAvailableNum(%d) >= "
                     "DataFragMessage.WriterSN(%d) TopicName = %s",
                     int(maxSeq.low), int(writerSN.low), TopicName().c_str());
            WriteLog(szLog);
            return 1;
        }
    }

    // Each DATA_FRAG counts as its first fragment only. A fragment that would
    // start outside the announced sample is dropped before it touches anything.
    const uint32_t uiFragmentNum = fragment.fragmentStartingNum;
    if (fragment.fragmentSize == 0 || uiFragmentNum == 0) return 0;
    const uint64_t ulOffset = uint64_t(uiFragmentNum - 1) * fragment.fragmentSize;
    if (ulOffset >= fragment.sampleSize) return 0;

    ChangeFromWriter& entry = pWriterProxy->change_entry(writerSN);
    CacheChange* pFragDataCache = entry.change;
    if (pFragDataCache == nullptr) {
        pFragDataCache = new (std::nothrow) CacheChange();
        octet* pPayload = pFragDataCache != nullptr ? CacheChange::AllocData(fragment.sampleSize) : nullptr;
        if (pPayload == nullptr) {
            delete pFragDataCache;
            snprintf(szLog, sizeof(szLog),
                     "[StatefulReader::DataFragMessageReceive] pFragDataCache = NULL and TopicName "
                     "=%s  Seq = %d ",
                     TopicName().c_str(), int(writerSN.low));
            WriteLog(szLog);
            return 1;
        }
        pFragDataCache->kind = CHANGE_KIND_ALIVE;
        pFragDataCache->data = pPayload;
        pFragDataCache->dataLength = fragment.sampleSize;
        pFragDataCache->writerGUID = writerGuid;
        pFragDataCache->sequenceNumber = writerSN;
        // One too many for an exact multiple of the fragment size; it stands so.
        pFragDataCache->fragmentCount = fragment.sampleSize / fragment.fragmentSize + 1;
        pWriterProxy->received_change(pFragDataCache);
    }

    // A later fragment may announce another size than the first: the store's
    // own length bounds the copy.
    if (pFragDataCache->data == nullptr || ulOffset >= pFragDataCache->dataLength) return 0;
    if (pData != nullptr && uiLength > 0) {
        uint64_t ulCopy = pFragDataCache->dataLength - ulOffset;
        if (ulCopy > uiLength) ulCopy = uiLength;
        memcpy(pFragDataCache->data + ulOffset, pData, size_t(ulCopy));
    }
    NoteFragment(pFragDataCache, uiFragmentNum);
    const bool bComplete = IsComplete(pFragDataCache);

    if (reliabilityLevel == 2) {
        if (bComplete) {
            pWriterProxy->received_change_set(writerSN);
            ReliableDataMessageReceive(pFragDataCache);
        }
        return 0;
    }
    if (bComplete) {
        entry.change = nullptr;
        BestEffortDataMessageReceive(pFragDataCache);
        // The layer above may have unmatched the writer meanwhile.
        if (FindProxy(writerGuid) != pWriterProxy) return 0;
    }
    pWriterProxy->remove_oldest_changes(BEST_EFFORT_REASSEMBLY_MAX);
    return 0;
}
