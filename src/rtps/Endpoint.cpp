#include "rtps/Endpoint.h"

Endpoint::Endpoint(const GUID_t& guidValue, uint32_t uiReliabilityLevel)
    : RTPSEntity(guidValue), reliabilityLevel(uiReliabilityLevel) {}

Endpoint::~Endpoint() {}

int Endpoint::getEndpointDuration(Time_t& duration) {
    duration = DURATION_INFINITE;
    return 0;
}

int Endpoint::isEndpointBusy() {
    return 0;
}

void Endpoint::setUnicastLocatorList(const std::list<Locator_t>& locators) {
    unicastLocatorList = locators;
}

const std::list<Locator_t>& Endpoint::getUnicastLocatorList() const {
    return unicastLocatorList;
}

std::list<Locator_t> Endpoint::getMulticastLocatorList() const {
    return multicastLocatorList;
}

EntityId_t Endpoint::getEntityId() const {
    return guid.entityId;
}

GUID_t Endpoint::getGUID() const {
    return guid;
}
