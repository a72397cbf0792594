#include "dcps/TopicImpl.h"

#include "Topic.h"

TopicImpl::TopicImpl(const std::string& strName, const std::string& strTypeName,
                     DomainParticipantImpl* pParticipant, const TopicQos& qos, TopicListener* pListener)
    : TopicDescriptionImpl(strName, strTypeName, pParticipant), m_Qos(qos), m_pListener(pListener) {
    new Topic(this);  // installs itself in place of the base's facade
}

TopicImpl::~TopicImpl() {}

ReturnCode_t TopicImpl::get_qos(TopicQos& qos) {
    qos = m_Qos;
    return RETCODE_OK;
}

Topic* TopicImpl::getTopic() const {
    return static_cast<Topic*>(getFacade());
}
