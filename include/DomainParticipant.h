// Public facade of one domain participant. It is borrowed: its Impl owns it and
// destroys it. Application threads call it, one at a time for creations and
// deletions; it takes no lock.
#ifndef MORVODDS_DOMAINPARTICIPANT_H
#define MORVODDS_DOMAINPARTICIPANT_H

#include <list>
#include <string>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "QosPolicy.h"
#include "Sequence.h"

class DomainParticipantImpl;
class Publisher;
class Subscriber;
class Topic;
class TopicDescription;
class ContentFilteredTopic;
class MultiTopic;
struct ParticipantBuiltinTopicData;
struct PublicationBuiltinTopicData;
struct SubscriptionBuiltinTopicData;

typedef sequence<InstanceHandle_t> InstanceHandleSeq;

class DomainParticipant {
public:
    // ---- entities
    Publisher* create_publisher(const PublisherQos& qos, PublisherListener* listener, unsigned long mask);
    Subscriber* create_subscriber(const SubscriberQos& qos, SubscriberListener* listener, unsigned long mask);
    Topic* create_topic(const std::string& topic_name, const std::string& type_name, const TopicQos& qos,
                        TopicListener* listener, unsigned long mask);
    ContentFilteredTopic* create_contentfilteredtopic(const std::string& name, Topic* related_topic,
                                                      const std::string& filter_expression,
                                                      const StringSeq& expression_parameters);

    // Each clears the caller's pointer before the Impl runs, whatever the outcome.
    ReturnCode_t delete_publisher(Publisher*& publisher);
    ReturnCode_t delete_subscriber(Subscriber*& subscriber);
    ReturnCode_t delete_topic(Topic*& topic);
    ReturnCode_t delete_contentfilteredtopic(ContentFilteredTopic*& topic);
    // Publishers, subscribers and application topics; always 0.
    ReturnCode_t delete_contained_entities();

    TopicDescription* lookup_topicdescription(const std::string& name);

    // Both forms always return 0; registering a name twice is harmless. The second
    // also hands the type description lines to the type registry.
    ReturnCode_t register_type(const std::string& type_name);
    ReturnCode_t register_type(const std::string& type_name, std::list<std::string>& description);

    Publisher* get_builtin_publisher();
    Subscriber* get_builtin_subscriber();

    // ---- the participant itself
    int get_domain_id();
    ReturnCode_t get_qos(DomainParticipantQos& qos);
    // Both store the pointer and ignore the mask. Discovery calls the monitor
    // listener on every match and every change of its remote tables.
    ReturnCode_t set_listener(DomainParticipantListener* listener, unsigned long mask);
    ReturnCode_t set_monitor_listener(DomainParticipantListener* listener, unsigned long mask);
    // Milliseconds since system start, not the wall clock; wraps with the 32-bit tick count.
    static ReturnCode_t get_current_time(Time_t& current_time);
    // True for any handle that starts with this participant's GUID prefix.
    bool contains_entity(const InstanceHandle_t& handle);

    // ---- discovered entities (answered by discovery; always 0)
    ReturnCode_t get_discovered_participants(InstanceHandleSeq& handles);
    ReturnCode_t get_discovered_participant_data(ParticipantBuiltinTopicData& data,
                                                 const InstanceHandle_t& handle);
    ReturnCode_t get_publications(InstanceHandleSeq& handles, bool include_contained_entities);
    ReturnCode_t get_publication_data(PublicationBuiltinTopicData& data, const InstanceHandle_t& handle);
    ReturnCode_t get_subscriptions(InstanceHandleSeq& handles, bool include_contained_entities);
    ReturnCode_t get_subscription_data(SubscriptionBuiltinTopicData& data, const InstanceHandle_t& handle);

    // ---- stubs with fixed results
    // Liveliness is asserted on data writers only; this sends nothing.
    ReturnCode_t assert_liveliness();
    MultiTopic* create_multitopic(const std::string& name, const std::string& type_name,
                                  const std::string& subscription_expression,
                                  const StringSeq& expression_parameters);
    ReturnCode_t delete_multitopic(MultiTopic* multitopic);
    Topic* find_topic(const std::string& topic_name, Time_t timeout);
    ReturnCode_t ignore_participant(const InstanceHandle_t& handle);
    ReturnCode_t ignore_publication(const InstanceHandle_t& handle);
    ReturnCode_t ignore_subscription(const InstanceHandle_t& handle);
    ReturnCode_t ignore_topic(const InstanceHandle_t& handle);
    ReturnCode_t get_default_publisher_qos(PublisherQos& qos);
    ReturnCode_t get_default_subscriber_qos(SubscriberQos& qos);
    ReturnCode_t get_default_topic_qos(TopicQos& qos);
    ReturnCode_t set_default_publisher_qos(const PublisherQos& qos);
    ReturnCode_t set_default_subscriber_qos(const SubscriberQos& qos);
    ReturnCode_t set_default_topic_qos(const TopicQos& qos);

    DomainParticipantImpl* getImpl() const { return m_pDomainParticipantImpl; }

private:
    friend class DomainParticipantImpl;

    // Stores itself into the Impl's facade pointer.
    explicit DomainParticipant(DomainParticipantImpl* pImpl);
    ~DomainParticipant();
    DomainParticipant(const DomainParticipant&) = delete;
    DomainParticipant& operator=(const DomainParticipant&) = delete;

    ReturnCode_t StubResult() const { return RETCODE_OK; }

    DomainParticipantImpl* m_pDomainParticipantImpl;
};

#endif
