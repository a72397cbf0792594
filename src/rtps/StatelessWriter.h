// The best-effort writer: a set of destination locators and no per-reader
// state. DataSend and getMatchedCount run on the application thread without a
// borrow; the locator map changes and is read only while the writer is borrowed,
// and its size is mirrored in an atomic for the application's count.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "rtps/ReaderLocator.h"
#include "rtps/Writer.h"

class StatelessWriter : public Writer {
public:
    StatelessWriter(const GUID_t& guidValue, const DataWriterQos& attributes,
                    RequestScheduler* const* pSchedulers);
    ~StatelessWriter() override;

    // Number of destination locators (not of readers).
    uint32_t getMatchedCount() override;
    // Takes over the change: it is sent to every locator and then freed, by a
    // request executed here or, with a latency budget or asynchronous publish
    // mode, queued to the immediate scheduler. 0, or 1 when no request could
    // be made or queued (the change is freed all the same).
    ReturnCode_t DataSend(CacheChange* pCacheChange) override;
    int removeChange(SequenceNumber_t seqNum) override;

    // A multicast locator counts its readers; a unicast one is held once,
    // however many readers stand behind it. Returns 0.
    int reader_locator_add(Locator_t locator);
    // 0, or 1 (logged) for a locator that is not in the map.
    int reader_locator_remove(Locator_t locator);
    // By reference, for the same reason as the unicast list: read per sample.
    const std::map<Locator_t, ReaderLocator>& getReaderLocators() const { return m_MatchedLocatorMap; }

protected:
    // Locator_t's order compares all its octets.
    std::map<Locator_t, ReaderLocator> m_MatchedLocatorMap;
    std::atomic<uint32_t> m_uiMatchedCount;  // size of the map, read without a borrow

private:
    // Domain and topic of the writer's cache, for requests and log texts.
    uint32_t logKey() const;
    const std::string& topicName() const;
};
