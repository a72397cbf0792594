// Owner of every DomainParticipantImpl of the process, kept in one list per
// domain id in creation order. Called from application threads; m_Mutex guards
// the map and its lists, and participants are destroyed while it is held.
#ifndef MORVODDS_DCPS_DOMAINPARTICIPANTFACTORYIMPL_H
#define MORVODDS_DCPS_DOMAINPARTICIPANTFACTORYIMPL_H

#include <list>
#include <map>
#include <string>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "QosPolicy.h"
#include "core/Mutex.h"

class DomainParticipant;
class DomainParticipantImpl;

class DomainParticipantFactoryImpl {
public:
    DomainParticipantFactoryImpl();
    // Destroys every participant, walking the domains in key order.
    virtual ~DomainParticipantFactoryImpl();

    DomainParticipantFactoryImpl(const DomainParticipantFactoryImpl&) = delete;
    DomainParticipantFactoryImpl& operator=(const DomainParticipantFactoryImpl&) = delete;

    // The domain id is already checked. Builds the participant outside the lock.
    DomainParticipant* create_participant(int domain_id, const DomainParticipantQos& qos,
                                          DomainParticipantListener* listener, unsigned long mask);
    // 38 when the participant's domain has no entry; otherwise destroys it and returns 0.
    ReturnCode_t delete_participant(DomainParticipantImpl* pParticipant);
    DomainParticipant* lookup_participant(int domain_id);

    // Shared stub body for the factory's QoS operations.
    ReturnCode_t QosStub() const { return RETCODE_OK; }

    // Number of participants held in a domain; for diagnostics and tests.
    size_t ParticipantCount(int domain_id);

private:
    typedef std::list<DomainParticipantImpl*> ParticipantList;

    std::map<int, ParticipantList> m_DomainParticipantImplList;
    std::string m_strName;                         // never read
    DomainParticipantQos m_DefaultParticipantQos;  // never changed, never read
    Mutex m_Mutex;
};

#endif
