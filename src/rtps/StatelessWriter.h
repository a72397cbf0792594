// The best-effort writer: a set of destination locators and no per-reader
// state. DataSend and getMatchedCount run on the application thread without a
// borrow; the locator map changes only while the writer is borrowed. No lock.
#pragma once

#include <cstdint>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "rtps/Writer.h"

class StatelessWriter : public Writer
{
public:
    StatelessWriter(const GUID_t& guidValue, const DataWriterQos& attributes,
                    RequestScheduler* const* pSchedulers);
    ~StatelessWriter() override;

    uint32_t getMatchedCount() override;
    ReturnCode_t DataSend(CacheChange* pCacheChange) override;
    int removeChange(SequenceNumber_t seqNum) override;

protected:
    // m_MatchedLocatorMap (ordered map Locator_t to ReaderLocator) comes with
    // the stateless writer work, together with the ReaderLocator record.
};
