#include "dcps/TopicDescriptionImpl.h"

#include "TopicDescription.h"

TopicDescriptionImpl::TopicDescriptionImpl(const std::string& strName, const std::string& strTypeName,
                                           DomainParticipantImpl* pParticipant)
    : m_strName(strName),
      m_strTypeName(strTypeName),
      m_pParticipant(pParticipant),
      m_pTopicDescription(nullptr),
      m_pDataReaderImpl(nullptr) {
    new TopicDescription(this);  // stores itself in m_pTopicDescription
}

TopicDescriptionImpl::~TopicDescriptionImpl() {
    delete m_pTopicDescription;
    m_pTopicDescription = nullptr;
}

const std::string& TopicDescriptionImpl::get_type_name() const {
    return m_strTypeName;
}

const std::string& TopicDescriptionImpl::get_name() const {
    return m_strName;
}

ReturnCode_t TopicDescriptionImpl::get_qos(TopicQos& qos) {
    (void)qos;
    return RETCODE_OK;
}

void TopicDescriptionImpl::setFacade(TopicDescription* pFacade) {
    if (m_pTopicDescription == pFacade) return;
    TopicDescription* pOld = m_pTopicDescription;
    m_pTopicDescription = pFacade;
    delete pOld;
}
