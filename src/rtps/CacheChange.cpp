#include "rtps/CacheChange.h"

#include <cstdlib>

CacheChange::CacheChange()
    : kind(0),
      writerGUID(GUID_UNKNOWN),
      targetReaderGUID(GUID_UNKNOWN),
      instanceHandle(HANDLE_NIL),
      sequenceNumber(),
      sourceTimestamp(),
      dataLength(0),
      data(nullptr),
      highestFragment(0),
      fragmentCount(0),
      relevant(1),
      lifespan(DURATION_INFINITE) {}

CacheChange::~CacheChange() {}

octet* CacheChange::AllocData(uint32_t uiLength) {
    if (uiLength == 0) return nullptr;
    return static_cast<octet*>(calloc(uiLength, 1));
}

void CacheChange::FreeData(octet* pData) {
    free(pData);
}
