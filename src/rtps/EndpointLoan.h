// A borrowed endpoint, given back when the loan ends: the one way a background thread
// (decoder, send requests, timers, walks) reaches an endpoint of the participant's registry.
// A loan belongs to the thread that made it; it takes the registry lock only to borrow and
// to give back.
#pragma once

#include "BasicTypes.h"

class Endpoint;
class Participant;

class EndpointLoan {
public:
    EndpointLoan() : m_pParticipant(nullptr), m_pEndpoint(nullptr) {}
    // Waits while another thread holds the endpoint. Empty when the id is unknown, when the
    // endpoint was left taken on purpose, or when this thread holds it already (each logged).
    EndpointLoan(Participant* pParticipant, const EntityId_t& entityId);
    // As the constructor, but an unknown id is not logged (the caller reports it).
    static EndpointLoan IfExists(Participant* pParticipant, const EntityId_t& entityId);
    // The local reader that discovery matched with the remote writer, as
    // Participant::lookupMatchedReader finds it.
    static EndpointLoan MatchedReader(Participant* pParticipant, const GUID_t& remoteWriter);
    // Empty at once, and silently, when another thread holds the endpoint: for walks, which
    // pass a busy endpoint over.
    static EndpointLoan TryBorrow(Participant* pParticipant, const EntityId_t& entityId);

    EndpointLoan(EndpointLoan&& other) noexcept;
    EndpointLoan& operator=(EndpointLoan&& other) noexcept;
    EndpointLoan(const EndpointLoan&) = delete;
    EndpointLoan& operator=(const EndpointLoan&) = delete;
    ~EndpointLoan() { Return(); }

    Endpoint* get() const { return m_pEndpoint; }
    template <class T>
    T* as() const {
        return dynamic_cast<T*>(m_pEndpoint);
    }
    explicit operator bool() const { return m_pEndpoint != nullptr; }

    // Gives the endpoint back now; the loan is empty afterwards.
    void Return();
    // Leaves the endpoint out of the registry on purpose, where the protocol says a message
    // keeps it: nobody can borrow it until something returns it, and nobody waits for it.
    void KeepTaken();

private:
    EndpointLoan(Participant* pParticipant, Endpoint* pEndpoint)
        : m_pParticipant(pParticipant), m_pEndpoint(pEndpoint) {}

    Participant* m_pParticipant;
    Endpoint* m_pEndpoint;
};
