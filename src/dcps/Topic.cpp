#include "Topic.h"

#include "dcps/TopicImpl.h"

Topic::Topic(TopicImpl* pImpl) : TopicDescription(pImpl), m_pTopicImpl(pImpl) {}

Topic::~Topic() {}

ReturnCode_t Topic::get_qos(TopicQos& qos) {
    return m_pTopicImpl->get_qos(qos);
}
