#include "rtps/ReaderLocator.h"

ReaderLocator::ReaderLocator() : requested_changes(), unsent_changes(), locator(), m_RefCount(1) {}

ReaderLocator::ReaderLocator(const Locator_t& destination)
    : requested_changes(), unsent_changes(), locator(destination), m_RefCount(1) {}

bool ReaderLocator::isMulticast() const {
    // The IPv4 address sits in the last four octets; its first octet decides.
    return (locator.address[12] & 0xE0) == 0xE0;
}
