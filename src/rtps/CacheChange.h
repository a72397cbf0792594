// One sample as the protocol endpoints see it: who wrote it, its number, its
// time and its serialised payload. A plain record without a lock; whoever holds
// the pointer (a HistoryCache, a proxy, a request) is responsible for it.
#pragma once

#include <cstdint>
#include <list>
#include <set>

#include "BasicTypes.h"

// Change kind of every change this system makes.
const uint16_t CHANGE_KIND_ALIVE = 1;

class CacheChange {
public:
    // Zeroes the length, the payload pointer and the fragment counters; the
    // change starts relevant and with an infinite lifespan.
    CacheChange();
    // Frees nothing, not even `data`: whoever deletes a change frees the
    // payload first (FreeData), or decides to leave it.
    virtual ~CacheChange();

    CacheChange(const CacheChange&) = delete;
    CacheChange& operator=(const CacheChange&) = delete;

    // The one allocator of payload blocks. Every payload that ends up in
    // `data` comes from here, so that every owner can free it with FreeData.
    // AllocData returns a zeroed block, or null when memory is short or
    // uiLength is 0.
    static octet* AllocData(uint32_t uiLength);
    static void FreeData(octet* pData);

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
    std::set<uint16_t> missingFragments;
    uint8_t relevant;
    Time_t lifespan;  // a duration: seconds and nanoseconds
};
