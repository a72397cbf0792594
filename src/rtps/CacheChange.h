// One sample as the protocol endpoints see it: who wrote it, its number, its
// time and its serialised payload. A plain record without a lock; whoever holds
// the pointer (a HistoryCache, a proxy, a request) is responsible for it.
#pragma once

#include <cstdint>
#include <list>
#include <vector>

#include "BasicTypes.h"
#include "rtps/FragmentRanges.h"

// Change kind of every change this system makes.
const uint16_t CHANGE_KIND_ALIVE = 1;

class CacheChange {
public:
    // Zeroes the length, the payload pointer and the fragment counters; the
    // change starts relevant and with an infinite lifespan.
    CacheChange();
    // Frees the stored fragments but not `data`: whoever deletes a change
    // frees the payload first (FreeData), or decides to leave it.
    virtual ~CacheChange();

    CacheChange(const CacheChange&) = delete;
    CacheChange& operator=(const CacheChange&) = delete;

    // The one allocator of payload blocks. Every payload that ends up in
    // `data` comes from here, so that every owner can free it with FreeData.
    // AllocData returns a zeroed block, or null when memory is short or
    // uiLength is 0.
    static octet* AllocData(uint32_t uiLength);
    static void FreeData(octet* pData);

    // Reassembly store (a change made by the first fragment of a sample):
    // fragments are kept as they come, so memory follows the bytes received,
    // not the announced size. Copies pData at uiOffset, cut to dataLength;
    // uiOffset must lie below dataLength. Once the copies would outweigh the
    // sample, it is assembled and later fragments go straight into `data`.
    // False when memory is short (nothing changed).
    bool StoreFragment(uint32_t uiOffset, const octet* pData, uint32_t uiLength);
    // Makes `data` one zeroed block of dataLength holding the stored
    // fragments, copied in order of arrival, and frees them. True when `data`
    // is set (already or now); false when memory is short (nothing changed).
    bool Assemble();
    // Whether enough of the sample has come to make it whole: at least half of its announced
    // length. Every sample this system sends qualifies (whole, or short of the last stretch
    // that an exact multiple of the fragment size never sends); an announcement of far more
    // than was sent gets no block of that size.
    bool WorthAssembling() const { return data != nullptr || 2 * m_ReceivedBytes >= dataLength; }
    // Memory this change holds: record, payload, inline QoS, stored
    // fragments and a charge per range of missing fragments.
    uint64_t HeldBytes() const;

    uint16_t kind;
    GUID_t writerGUID;
    GUID_t targetReaderGUID;  // GUID_UNKNOWN: every matched reader
    InstanceHandle_t instanceHandle;
    SequenceNumber_t sequenceNumber;  // the key of the change in its cache
    Time_t sourceTimestamp;
    uint32_t dataLength;  // of a sample under reassembly: the announced size
    octet* data;
    std::list<Parameter> inlineQos;
    uint32_t highestFragment;
    uint32_t fragmentCount;
    FragmentRanges missingFragments;
    uint8_t reassembling;  // 1 from the first fragment until the sample is complete or handed over
    uint8_t relevant;
    Time_t lifespan;  // a duration: seconds and nanoseconds

private:
    struct StoredFragment {
        uint32_t offset;
        uint32_t length;
        octet* bytes;  // from AllocData
    };
    void FreeFragments();

    std::vector<StoredFragment> m_Fragments;  // in order of arrival, while `data` is null
    uint64_t m_StoredBytes;                   // their lengths summed
    uint64_t m_ReceivedBytes;                 // every fragment's bytes copied in, summed
};
