#include "DomainParticipantFactory.h"

#include <cstdio>
#include <exception>

#include "DDSLogManagementFactory.h"
#include "DomainParticipant.h"
#include "dcps/DomainParticipantFactoryImpl.h"

// Created at library load, so get_instance() never allocates or fails.
DomainParticipantFactory* DomainParticipantFactory::m_pDomainParticipantFactoryInstance =
    new DomainParticipantFactory();

DomainParticipantFactory::DomainParticipantFactory()
    : m_pDomainParticipantFactoryImpl(new DomainParticipantFactoryImpl()) {}

DomainParticipantFactory::~DomainParticipantFactory() {
    delete m_pDomainParticipantFactoryImpl;
    m_pDomainParticipantFactoryImpl = nullptr;
    delete DDSLogManagementFactory::GetInstance();
    // The static-discovery manager singleton is destroyed here, last, once it exists.
    if (m_pDomainParticipantFactoryInstance == this) m_pDomainParticipantFactoryInstance = nullptr;
}

DomainParticipantFactory* DomainParticipantFactory::get_instance() {
    return m_pDomainParticipantFactoryInstance;
}

bool DomainParticipantFactory::IsValidDomainId(int domain_id) {
    if (domain_id >= DOMAIN_ID_MIN && domain_id <= DOMAIN_ID_MAX) return true;
    // No log exists for a domain that cannot exist, so this goes to the console only.
    std::printf("A vaild range of Domain Id : 0 ~ 500 !\n");
    return false;
}

DomainParticipant* DomainParticipantFactory::create_participant(int domain_id,
                                                                const DomainParticipantQos& qos,
                                                                DomainParticipantListener* listener,
                                                                unsigned long mask) {
    if (!IsValidDomainId(domain_id)) return nullptr;
    return m_pDomainParticipantFactoryImpl->create_participant(domain_id, qos, listener, mask);
}

ReturnCode_t DomainParticipantFactory::delete_participant(DomainParticipant*& participant) {
    if (participant == nullptr) return RETCODE_ERROR;
    try {
        return m_pDomainParticipantFactoryImpl->delete_participant(participant->getImpl());
    } catch (...) {
        // Nothing may escape the public interface; the deletion counts as done.
        std::printf("delete_participant .. warning \n");
        return RETCODE_OK;
    }
}

DomainParticipant* DomainParticipantFactory::lookup_participant(int domain_id) {
    if (!IsValidDomainId(domain_id)) return nullptr;
    return m_pDomainParticipantFactoryImpl->lookup_participant(domain_id);
}

ReturnCode_t DomainParticipantFactory::get_default_participant_qos(DomainParticipantQos& qos) {
    (void)qos;
    return m_pDomainParticipantFactoryImpl->QosStub();
}

ReturnCode_t DomainParticipantFactory::set_default_participant_qos(const DomainParticipantQos& qos) {
    (void)qos;
    return m_pDomainParticipantFactoryImpl->QosStub();
}

ReturnCode_t DomainParticipantFactory::get_qos(DomainParticipantFactoryQos& qos) {
    (void)qos;
    return m_pDomainParticipantFactoryImpl->QosStub();
}

ReturnCode_t DomainParticipantFactory::set_qos(const DomainParticipantFactoryQos& qos) {
    (void)qos;
    return m_pDomainParticipantFactoryImpl->QosStub();
}
