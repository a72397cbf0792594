// DATA_FRAG receipt of StatefulReader: reassembly of large samples in the
// change that the writer proxy holds for their number, within the bounds
// listed in WriterProxy.h.
#include "rtps/StatefulReader.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/WriterProxy.h"

namespace {
// Notes fragment uiFragmentNum in the store's bookkeeping: numbers passed over
// become missing, a late one stops being missing.
void NoteFragment(CacheChange* pFragDataCache, uint32_t uiFragmentNum) {
    const uint32_t uiHighest = pFragDataCache->highestFragment;
    if (uiFragmentNum == uiHighest + 1) {
        pFragDataCache->highestFragment = uiFragmentNum;
    } else if (uiFragmentNum > uiHighest + 1) {
        pFragDataCache->missingFragments.insert(uiHighest + 1, uiFragmentNum - 1);
        pFragDataCache->highestFragment = uiFragmentNum;
    } else if (uiFragmentNum < uiHighest) {
        pFragDataCache->missingFragments.erase(uiFragmentNum);
    }
}

// Whether NoteFragment may add a gap (a range of missing numbers).
bool MayAddGap(const CacheChange* pFragDataCache, uint32_t uiFragmentNum) {
    const uint32_t uiHighest = pFragDataCache->highestFragment;
    return uiFragmentNum > uiHighest + 1 ||
           (uiFragmentNum < uiHighest && pFragDataCache->missingFragments.splits(uiFragmentNum));
}

// Complete by the fixed fragment size, whatever size the messages stated.
bool IsComplete(const CacheChange* pFragDataCache) {
    return pFragDataCache->highestFragment == (pFragDataCache->dataLength - 1) / FRAGMENT_SIZE + 1 &&
           pFragDataCache->missingFragments.empty();
}
}  // namespace

bool StatefulReader::AdmitsNewSample(WriterProxy* pWriterProxy, const SequenceNumber_t& writerSN,
                                     uint64_t ulCharge) {
    const uint64_t ulBytes = getHeldBytes() + ulCharge;
    if (reliabilityLevel != 2) {
        // Best effort gives older samples up for newer ones, by bytes as by count.
        const char* szRefusal = pWriterProxy->refusal(writerSN, ulBytes, m_HeldBytesMax);
        if (szRefusal == nullptr) return true;
        LogDrop("DataFragMessageReceive", szRefusal, "older samples", writerSN);
        pWriterProxy->remove_changes_below(writerSN);
        return true;
    }
    if (pWriterProxy->is_first_in_line(writerSN)) return true;
    const char* szRefusal = pWriterProxy->getReassemblyCount() >= RELIABLE_REASSEMBLY_MAX
                                ? "too many samples under reassembly"
                                : pWriterProxy->refusal(writerSN, ulBytes, m_HeldBytesMax);
    if (szRefusal == nullptr) return true;
    LogDrop("DataFragMessageReceive", szRefusal, "fragment", writerSN);
    return false;
}

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
    if (fragment.fragmentSize == 0 || uiFragmentNum == 0) {
        LogDrop("DataFragMessageReceive", "fragment number or size 0", "fragment", writerSN);
        return 0;
    }
    const uint64_t ulOffset = uint64_t(uiFragmentNum - 1) * fragment.fragmentSize;
    if (ulOffset >= fragment.sampleSize) {
        LogDrop("DataFragMessageReceive", "fragment outside the sample", "fragment", writerSN);
        return 0;
    }

    auto NoMemory = [&]() {
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::DataFragMessageReceive] pFragDataCache = NULL and TopicName "
                 "=%s  Seq = %d ",
                 TopicName().c_str(), int(writerSN.low));
        WriteLog(szLog);
        return 1;
    };
    const auto& changes = pWriterProxy->getChangesFromWriter();
    const auto itEntry = changes.find(writerSN);
    CacheChange* pFragDataCache = itEntry != changes.end() ? itEntry->second.change : nullptr;
    const uint64_t ulCharge = sizeof(CacheChange) + uiLength;
    if (pFragDataCache == nullptr) {
        if (!AdmitsNewSample(pWriterProxy, writerSN, ulCharge)) return 1;
        pFragDataCache = new (std::nothrow) CacheChange();
        if (pFragDataCache == nullptr) return NoMemory();
        // No payload yet: the fragments are kept as they come (StoreFragment).
        pFragDataCache->kind = CHANGE_KIND_ALIVE;
        pFragDataCache->dataLength = fragment.sampleSize;
        pFragDataCache->writerGUID = writerGuid;
        pFragDataCache->sequenceNumber = writerSN;
        // One too many for an exact multiple of the fragment size; it stands so.
        pFragDataCache->fragmentCount = fragment.sampleSize / fragment.fragmentSize + 1;
        pFragDataCache->reassembling = 1;
        pWriterProxy->received_change(pFragDataCache);
    } else if (pFragDataCache->reassembling != 0 && !pWriterProxy->is_first_in_line(writerSN) &&
               getHeldBytes() + ulCharge > m_HeldBytesMax) {
        if (reliabilityLevel == 2) {
            LogDrop("DataFragMessageReceive", "byte bound reached", "fragment", writerSN);
            return 1;
        }
        LogDrop("DataFragMessageReceive", "byte bound reached", "older samples", writerSN);
        pWriterProxy->remove_changes_below(writerSN);
    }

    // A later fragment may announce another size than the first: the store's
    // own length bounds the copy. A parked DATA without payload takes none.
    if ((pFragDataCache->reassembling == 0 && pFragDataCache->data == nullptr) ||
        ulOffset >= pFragDataCache->dataLength) {
        LogDrop("DataFragMessageReceive", "fragment outside the sample", "fragment", writerSN);
        return 0;
    }
    if (pFragDataCache->missingFragments.rangeCount() >= FRAGMENT_GAPS_MAX &&
        MayAddGap(pFragDataCache, uiFragmentNum)) {
        LogDrop("DataFragMessageReceive", "too many gaps in the sample", "fragment", writerSN);
        return 1;
    }
    ChangeFromWriter& entry = pWriterProxy->change_entry(writerSN);
    bool bStored = pFragDataCache->StoreFragment(uint32_t(ulOffset), pData, uiLength);
    bool bComplete = false;
    if (bStored) {
        NoteFragment(pFragDataCache, uiFragmentNum);
        bComplete = IsComplete(pFragDataCache);
        if (bComplete && !pFragDataCache->WorthAssembling()) {
            // Complete by its numbers, yet far less came than it announced.
            LogDrop("DataFragMessageReceive", "too little received for its size", "sample", writerSN);
            WriterProxy::DeleteChange(pWriterProxy->release_change(entry));
            return 1;
        }
        // A complete sample becomes one block of its length.
        if (bComplete && pFragDataCache->reassembling != 0) {
            bStored = pFragDataCache->Assemble();
            if (bStored) pFragDataCache->reassembling = 0;
        }
    }
    pWriterProxy->change_updated(entry);
    if (!bStored) {
        // Short of memory: the sample starts over with its next fragment.
        if (bComplete) WriterProxy::DeleteChange(pWriterProxy->release_change(entry));
        return NoMemory();
    }

    if (reliabilityLevel == 2) {
        if (bComplete) {
            pWriterProxy->received_change_set(writerSN);
            ReliableDataMessageReceive(pFragDataCache);
        }
        return 0;
    }
    if (bComplete) {
        pWriterProxy->release_change(entry);
        BestEffortDataMessageReceive(pFragDataCache);
        // The layer above may have unmatched the writer meanwhile.
        if (FindProxy(writerGuid) != pWriterProxy) return 0;
    }
    pWriterProxy->remove_oldest_changes(BEST_EFFORT_REASSEMBLY_MAX);
    return 0;
}
