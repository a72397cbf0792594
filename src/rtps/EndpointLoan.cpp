#include "rtps/EndpointLoan.h"

#include "rtps/Participant.h"
#include "rtps/StatefulReader.h"

EndpointLoan::EndpointLoan(Participant* pParticipant, const EntityId_t& entityId)
    : m_pParticipant(pParticipant),
      m_pEndpoint(pParticipant != nullptr ? pParticipant->takeEndpoint(entityId) : nullptr) {}

EndpointLoan EndpointLoan::MatchedReader(Participant* pParticipant, const GUID_t& remoteWriter) {
    if (pParticipant == nullptr) return EndpointLoan();
    return EndpointLoan(pParticipant,
                        static_cast<Endpoint*>(pParticipant->lookupMatchedReader(remoteWriter)));
}

EndpointLoan EndpointLoan::IfExists(Participant* pParticipant, const EntityId_t& entityId) {
    if (pParticipant == nullptr) return EndpointLoan();
    return EndpointLoan(pParticipant, pParticipant->takeEndpointIfExists(entityId));
}

EndpointLoan EndpointLoan::TryBorrow(Participant* pParticipant, const EntityId_t& entityId) {
    if (pParticipant == nullptr) return EndpointLoan();
    return EndpointLoan(pParticipant, pParticipant->tryTakeEndpoint(entityId));
}

EndpointLoan::EndpointLoan(EndpointLoan&& other) noexcept
    : m_pParticipant(other.m_pParticipant), m_pEndpoint(other.m_pEndpoint) {
    other.m_pEndpoint = nullptr;
}

EndpointLoan& EndpointLoan::operator=(EndpointLoan&& other) noexcept {
    if (this != &other) {
        Return();
        m_pParticipant = other.m_pParticipant;
        m_pEndpoint = other.m_pEndpoint;
        other.m_pEndpoint = nullptr;
    }
    return *this;
}

void EndpointLoan::Return() {
    if (m_pEndpoint == nullptr) return;
    m_pParticipant->returnEndpoint(m_pEndpoint);
    m_pEndpoint = nullptr;
}

void EndpointLoan::KeepTaken() {
    if (m_pEndpoint == nullptr) return;
    m_pParticipant->keepEndpointTaken(m_pEndpoint);
    m_pEndpoint = nullptr;
}
