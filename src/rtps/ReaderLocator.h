// One destination of a best-effort writer and the number of matched readers
// behind it. A plain record held by value in the StatelessWriter's locator map;
// changed only while that writer is borrowed, so it has no lock.
#pragma once

#include <cstdint>
#include <list>

#include "BasicTypes.h"

class CacheChange;

class ReaderLocator {
public:
    // A locator that nobody shares yet: the count starts at 1.
    ReaderLocator();
    explicit ReaderLocator(const Locator_t& destination);

    // True for an IPv4 multicast address: first octet AND 0xE0 is 0xE0.
    bool isMulticast() const;

    std::list<CacheChange*> requested_changes;  // kept for the record's shape; never filled
    std::list<CacheChange*> unsent_changes;     // likewise
    Locator_t locator;
    uint32_t m_RefCount;  // readers served through this locator
};
