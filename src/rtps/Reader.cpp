#include "rtps/Reader.h"

Reader::Reader(const GUID_t& guidValue, const DataReaderQos& attributes, RequestScheduler* const* pSchedulers)
    : Endpoint(guidValue, uint32_t(attributes.reliability.kind)),
      m_ReaderCache(nullptr),
      m_Duration(),
      m_ReservedSeq(),
      m_DataReader(nullptr),
      m_LastSeq(),
      m_Qos(attributes) {
    m_Schedulers[0] = pSchedulers != nullptr ? pSchedulers[0] : nullptr;
    m_Schedulers[1] = pSchedulers != nullptr ? pSchedulers[1] : nullptr;
}

Reader::~Reader() {}

int Reader::getEndpointDuration(Time_t& duration) {
    duration = m_Duration;
    return 0;
}

int Reader::afterCreate() {
    return 0;
}

RequestScheduler* Reader::getScheduler(int iIndex) const {
    return (iIndex == 0 || iIndex == 1) ? m_Schedulers[iIndex] : nullptr;
}
