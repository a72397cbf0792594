// Process-wide entry point of the public interface: checks domain ids and hands
// out participants, which its Impl owns per domain. Any application thread may
// call in; the Impl's lock guards the participant lists.
#ifndef MORVODDS_DOMAINPARTICIPANTFACTORY_H
#define MORVODDS_DOMAINPARTICIPANTFACTORY_H

#include "BasicTypes.h"
#include "DDSListener.h"
#include "QosPolicy.h"

class DomainParticipant;
class DomainParticipantFactoryImpl;

// Domain ids a participant may be created in.
const int DOMAIN_ID_MIN = 0;
const int DOMAIN_ID_MAX = 500;

class DomainParticipantFactory {
public:
    // Made by a static initialiser at library load, so this never allocates.
    static DomainParticipantFactory* get_instance();

    // Nothing calls this automatically. It destroys every participant, then the
    // log factory singleton, and leaves get_instance() answering null.
    ~DomainParticipantFactory();

    // Null on a domain id outside 0..500. The mask is accepted and ignored.
    DomainParticipant* create_participant(int domain_id, const DomainParticipantQos& qos,
                                          DomainParticipantListener* listener, unsigned long mask);
    // 1 for null, 38 when the factory holds nothing in its domain, else 0.
    // The caller's pointer is left as it stands.
    ReturnCode_t delete_participant(DomainParticipant*& participant);
    // The first participant created in the domain and still alive, or null.
    DomainParticipant* lookup_participant(int domain_id);

    // Stubs: return 0 and touch nothing. Defaults come from PARTICIPANT_QOS_DEFAULT.
    ReturnCode_t get_default_participant_qos(DomainParticipantQos& qos);
    ReturnCode_t set_default_participant_qos(const DomainParticipantQos& qos);
    ReturnCode_t get_qos(DomainParticipantFactoryQos& qos);
    ReturnCode_t set_qos(const DomainParticipantFactoryQos& qos);

    DomainParticipantFactoryImpl* getImpl() const { return m_pDomainParticipantFactoryImpl; }

private:
    DomainParticipantFactory();
    DomainParticipantFactory(const DomainParticipantFactory&) = delete;
    DomainParticipantFactory& operator=(const DomainParticipantFactory&) = delete;

    static bool IsValidDomainId(int domain_id);

    static DomainParticipantFactory* m_pDomainParticipantFactoryInstance;
    DomainParticipantFactoryImpl* m_pDomainParticipantFactoryImpl;
};

#endif
