#include "rtps/CacheChange.h"

#include <cstdlib>
#include <cstring>

namespace {
// Bookkeeping charged besides the bytes themselves: the allocator's header and
// the vector slot of a stored fragment, the map node of a missing range, the
// list node of an inline QoS parameter.
const uint64_t STORED_FRAGMENT_CHARGE = 64;
const uint64_t MISSING_RANGE_CHARGE = 64;
const uint64_t PARAMETER_CHARGE = sizeof(Parameter) + 32;
}  // namespace

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
      reassembling(0),
      relevant(1),
      lifespan(DURATION_INFINITE),
      m_StoredBytes(0),
      m_ReceivedBytes(0) {}

CacheChange::~CacheChange() {
    FreeFragments();
}

octet* CacheChange::AllocData(uint32_t uiLength) {
    if (uiLength == 0) return nullptr;
    return static_cast<octet*>(calloc(uiLength, 1));
}

void CacheChange::FreeData(octet* pData) {
    free(pData);
}

void CacheChange::FreeFragments() {
    for (const StoredFragment& fragment : m_Fragments) FreeData(fragment.bytes);
    m_Fragments.clear();
    m_Fragments.shrink_to_fit();
    m_StoredBytes = 0;
}

bool CacheChange::StoreFragment(uint32_t uiOffset, const octet* pData, uint32_t uiLength) {
    if (pData == nullptr || uiLength == 0 || uiOffset >= dataLength) return true;
    const uint32_t uiCopy = uiLength < dataLength - uiOffset ? uiLength : dataLength - uiOffset;
    const uint64_t ulStoredAfter = m_StoredBytes + (m_Fragments.size() + 1) * STORED_FRAGMENT_CHARGE + uiCopy;
    if (data == nullptr && ulStoredAfter >= dataLength && !Assemble()) return false;
    if (data != nullptr) {
        memcpy(data + uiOffset, pData, uiCopy);
        m_ReceivedBytes += uiCopy;
        return true;
    }
    octet* pBytes = AllocData(uiCopy);
    if (pBytes == nullptr) return false;
    memcpy(pBytes, pData, uiCopy);
    m_Fragments.push_back(StoredFragment{uiOffset, uiCopy, pBytes});
    m_StoredBytes += uiCopy;
    m_ReceivedBytes += uiCopy;
    return true;
}

bool CacheChange::Assemble() {
    if (data != nullptr) return true;
    data = AllocData(dataLength);
    if (data == nullptr) return false;
    // Later fragments overwrite earlier ones where they overlap, as they
    // would have had they been copied on arrival.
    for (StoredFragment& fragment : m_Fragments) {
        memcpy(data + fragment.offset, fragment.bytes, fragment.length);
        FreeData(fragment.bytes);
        fragment.bytes = nullptr;
    }
    FreeFragments();
    return true;
}

uint64_t CacheChange::HeldBytes() const {
    return sizeof(CacheChange) + (data != nullptr ? dataLength : 0) + m_StoredBytes +
           m_Fragments.size() * STORED_FRAGMENT_CHARGE +
           missingFragments.rangeCount() * MISSING_RANGE_CHARGE + inlineQos.size() * PARAMETER_CHARGE;
}
