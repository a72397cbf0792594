// Common part of every protocol endpoint: reliability level and locators.
// Created by the Participant and owned by its endpoint map; reached from other
// threads only while borrowed (takeEndpoint), so it has no lock of its own.
#pragma once

#include <cstdint>
#include <list>

#include "BasicTypes.h"
#include "rtps/RTPSEntity.h"

class Endpoint : public RTPSEntity {
public:
    Endpoint(const GUID_t& guidValue, uint32_t uiReliabilityLevel);
    ~Endpoint() override;

    // Answers DURATION_INFINITE. Returns 0.
    virtual int getEndpointDuration(Time_t& duration);
    // Always 0; no endpoint is ever busy.
    virtual int isEndpointBusy();

    void setUnicastLocatorList(const std::list<Locator_t>& locators);
    // By reference: the send path reads it once per sample while it holds the
    // endpoint, and copies only what it keeps.
    const std::list<Locator_t>& getUnicastLocatorList() const;
    std::list<Locator_t> getMulticastLocatorList() const;
    EntityId_t getEntityId() const;
    GUID_t getGUID() const;
    // 1 best effort, 2 reliable.
    uint32_t getReliabilityLevel() const { return reliabilityLevel; }

protected:
    uint32_t reliabilityLevel;
    std::list<Locator_t> unicastLocatorList;    // the participant's default list, set after construction
    std::list<Locator_t> multicastLocatorList;  // stays empty
};
