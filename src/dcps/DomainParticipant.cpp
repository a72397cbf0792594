#include "DomainParticipant.h"

#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "core/SystemClock.h"
#include "dcps/DomainParticipantImpl.h"

DomainParticipant::DomainParticipant(DomainParticipantImpl* pImpl) : m_pDomainParticipantImpl(pImpl) {
    pImpl->setFacade(this);
}

DomainParticipant::~DomainParticipant() {}

// ---------------------------------------------------------------- entities

Publisher* DomainParticipant::create_publisher(const PublisherQos& qos, PublisherListener* listener,
                                               unsigned long mask) {
    return m_pDomainParticipantImpl->create_publisher(qos, listener, mask);
}

Subscriber* DomainParticipant::create_subscriber(const SubscriberQos& qos, SubscriberListener* listener,
                                                 unsigned long mask) {
    return m_pDomainParticipantImpl->create_subscriber(qos, listener, mask);
}

Topic* DomainParticipant::create_topic(const std::string& topic_name, const std::string& type_name,
                                       const TopicQos& qos, TopicListener* listener, unsigned long mask) {
    Topic* pTopic = m_pDomainParticipantImpl->create_topic(topic_name, type_name, qos, listener, mask);
    if (pTopic == nullptr) {
        char text[200];
        std::snprintf(text, sizeof(text), "[DomainParticipant::create_topic] ownership is false");
        DDSLogManagementFactory::WriteDDSLog(m_pDomainParticipantImpl->getLogId(), text, std::strlen(text),
                                             DDSLOG_INFO, m_pDomainParticipantImpl->getParticipantGuid());
    }
    return pTopic;
}

ContentFilteredTopic* DomainParticipant::create_contentfilteredtopic(const std::string& name,
                                                                     Topic* related_topic,
                                                                     const std::string& filter_expression,
                                                                     const StringSeq& expression_parameters) {
    return m_pDomainParticipantImpl->create_contentfilteredtopic(name, related_topic, filter_expression,
                                                                 expression_parameters);
}

ReturnCode_t DomainParticipant::delete_publisher(Publisher*& publisher) {
    Publisher* pPublisher = publisher;
    publisher = nullptr;
    return m_pDomainParticipantImpl->delete_publisher(pPublisher);
}

ReturnCode_t DomainParticipant::delete_subscriber(Subscriber*& subscriber) {
    Subscriber* pSubscriber = subscriber;
    subscriber = nullptr;
    return m_pDomainParticipantImpl->delete_subscriber(pSubscriber);
}

ReturnCode_t DomainParticipant::delete_topic(Topic*& topic) {
    Topic* pTopic = topic;
    topic = nullptr;
    return m_pDomainParticipantImpl->delete_topic(pTopic);
}

ReturnCode_t DomainParticipant::delete_contentfilteredtopic(ContentFilteredTopic*& topic) {
    ContentFilteredTopic* pTopic = topic;
    topic = nullptr;
    return m_pDomainParticipantImpl->delete_contentfilteredtopic(pTopic);
}

ReturnCode_t DomainParticipant::delete_contained_entities() {
    return m_pDomainParticipantImpl->delete_contained_entities();
}

TopicDescription* DomainParticipant::lookup_topicdescription(const std::string& name) {
    TopicDescription* pDescription = m_pDomainParticipantImpl->lookup_topicdescription(name);
    if (pDescription == nullptr) {
        char text[200];
        std::snprintf(text, sizeof(text), "[DomainParticipant::lookup_topicdescription] ownership is false");
        DDSLogManagementFactory::WriteDDSLog(m_pDomainParticipantImpl->getLogId(), text, std::strlen(text),
                                             DDSLOG_INFO, m_pDomainParticipantImpl->getParticipantGuid());
    }
    return pDescription;
}

ReturnCode_t DomainParticipant::register_type(const std::string& type_name) {
    return m_pDomainParticipantImpl->register_type(type_name);
}

ReturnCode_t DomainParticipant::register_type(const std::string& type_name,
                                              std::list<std::string>& description) {
    return m_pDomainParticipantImpl->register_type(type_name, description);
}

Publisher* DomainParticipant::get_builtin_publisher() {
    return m_pDomainParticipantImpl->get_builtin_publisher();
}

Subscriber* DomainParticipant::get_builtin_subscriber() {
    return m_pDomainParticipantImpl->get_builtin_subscriber();
}

// ---------------------------------------------------------------- the participant itself

int DomainParticipant::get_domain_id() {
    return m_pDomainParticipantImpl->get_domain_id();
}

ReturnCode_t DomainParticipant::get_qos(DomainParticipantQos& qos) {
    return m_pDomainParticipantImpl->get_qos(qos);
}

ReturnCode_t DomainParticipant::set_listener(DomainParticipantListener* listener, unsigned long mask) {
    return m_pDomainParticipantImpl->set_listener(listener, mask);
}

ReturnCode_t DomainParticipant::set_monitor_listener(DomainParticipantListener* listener,
                                                     unsigned long mask) {
    return m_pDomainParticipantImpl->set_monitor_listener(listener, mask);
}

ReturnCode_t DomainParticipant::get_current_time(Time_t& current_time) {
    const uint32_t uiTicks = SystemClock::TickCountMs();
    current_time.sec = int32_t(uiTicks / 1000);
    current_time.nanosec = (uiTicks % 1000) * 1000000u;
    return RETCODE_OK;
}

bool DomainParticipant::contains_entity(const InstanceHandle_t& handle) {
    return m_pDomainParticipantImpl->contains_entity(handle);
}

// ---------------------------------------------------------------- discovered entities

ReturnCode_t DomainParticipant::get_discovered_participants(InstanceHandleSeq& handles) {
    return m_pDomainParticipantImpl->get_discovered_participants(handles);
}

ReturnCode_t DomainParticipant::get_discovered_participant_data(ParticipantBuiltinTopicData& data,
                                                                const InstanceHandle_t& handle) {
    return m_pDomainParticipantImpl->get_discovered_participant_data(data, handle);
}

ReturnCode_t DomainParticipant::get_publications(InstanceHandleSeq& handles,
                                                 bool include_contained_entities) {
    return m_pDomainParticipantImpl->get_publications(handles, include_contained_entities);
}

ReturnCode_t DomainParticipant::get_publication_data(PublicationBuiltinTopicData& data,
                                                     const InstanceHandle_t& handle) {
    return m_pDomainParticipantImpl->get_publication_data(data, handle);
}

ReturnCode_t DomainParticipant::get_subscriptions(InstanceHandleSeq& handles,
                                                  bool include_contained_entities) {
    return m_pDomainParticipantImpl->get_subscriptions(handles, include_contained_entities);
}

ReturnCode_t DomainParticipant::get_subscription_data(SubscriptionBuiltinTopicData& data,
                                                      const InstanceHandle_t& handle) {
    return m_pDomainParticipantImpl->get_subscription_data(data, handle);
}

// ---------------------------------------------------------------- stubs

ReturnCode_t DomainParticipant::assert_liveliness() {
    return StubResult();
}

MultiTopic* DomainParticipant::create_multitopic(const std::string& name, const std::string& type_name,
                                                 const std::string& subscription_expression,
                                                 const StringSeq& expression_parameters) {
    (void)name;
    (void)type_name;
    (void)subscription_expression;
    (void)expression_parameters;
    return nullptr;
}

ReturnCode_t DomainParticipant::delete_multitopic(MultiTopic* multitopic) {
    (void)multitopic;
    return StubResult();
}

Topic* DomainParticipant::find_topic(const std::string& topic_name, Time_t timeout) {
    (void)topic_name;
    (void)timeout;
    return nullptr;
}

ReturnCode_t DomainParticipant::ignore_participant(const InstanceHandle_t& handle) {
    (void)handle;
    return StubResult();
}

ReturnCode_t DomainParticipant::ignore_publication(const InstanceHandle_t& handle) {
    (void)handle;
    return StubResult();
}

ReturnCode_t DomainParticipant::ignore_subscription(const InstanceHandle_t& handle) {
    (void)handle;
    return StubResult();
}

ReturnCode_t DomainParticipant::ignore_topic(const InstanceHandle_t& handle) {
    (void)handle;
    return StubResult();
}

ReturnCode_t DomainParticipant::get_default_publisher_qos(PublisherQos& qos) {
    (void)qos;
    return StubResult();
}

ReturnCode_t DomainParticipant::get_default_subscriber_qos(SubscriberQos& qos) {
    (void)qos;
    return StubResult();
}

ReturnCode_t DomainParticipant::get_default_topic_qos(TopicQos& qos) {
    (void)qos;
    return StubResult();
}

ReturnCode_t DomainParticipant::set_default_publisher_qos(const PublisherQos& qos) {
    (void)qos;
    return StubResult();
}

ReturnCode_t DomainParticipant::set_default_subscriber_qos(const SubscriberQos& qos) {
    (void)qos;
    return StubResult();
}

ReturnCode_t DomainParticipant::set_default_topic_qos(const TopicQos& qos) {
    (void)qos;
    return StubResult();
}
