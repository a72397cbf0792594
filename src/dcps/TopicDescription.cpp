#include "TopicDescription.h"

#include "dcps/DomainParticipantImpl.h"
#include "dcps/TopicDescriptionImpl.h"

TopicDescription::TopicDescription(TopicDescriptionImpl* pImpl) : m_pTopicDescriptionImpl(pImpl) {
    pImpl->setFacade(this);
}

TopicDescription::~TopicDescription() {}

const char* TopicDescription::get_name() {
    return m_pTopicDescriptionImpl->get_name().c_str();
}

const char* TopicDescription::get_type_name() {
    return m_pTopicDescriptionImpl->get_type_name().c_str();
}

DomainParticipant* TopicDescription::get_participant() {
    DomainParticipantImpl* pParticipant = m_pTopicDescriptionImpl->getParticipant();
    return pParticipant != nullptr ? pParticipant->getFacade() : nullptr;
}
