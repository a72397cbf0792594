// State of one domain participant: builds its protocol stack in the constructor
// and stops it in the destructor, and owns its publishers, subscribers and topics.
// Application threads call it one at a time; it takes no lock of its own (only
// the process-wide participant counter is guarded). The "_DIST" and timer
// threads read it through Discovery.
#ifndef MORVODDS_DCPS_DOMAINPARTICIPANTIMPL_H
#define MORVODDS_DCPS_DOMAINPARTICIPANTIMPL_H

#include <list>
#include <map>
#include <set>
#include <string>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "DomainParticipant.h"
#include "Entity.h"
#include "QosPolicy.h"

class PublisherImpl;
class SubscriberImpl;
class TopicImpl;
class ContentFilteredTopicImpl;
class StaticDomainParticipant;
class Participant;
class Discovery;

class MessageTransmitter;
class ReceiveBuffer;

class DomainParticipantImpl : public Entity {
public:
    DomainParticipantImpl(int domain_id, const DomainParticipantQos& qos,
                          DomainParticipantListener* listener);
    virtual ~DomainParticipantImpl();

    DomainParticipantImpl(const DomainParticipantImpl&) = delete;
    DomainParticipantImpl& operator=(const DomainParticipantImpl&) = delete;

    // ---- entities (bodies arrive with their classes)
    Publisher* create_publisher(const PublisherQos& qos, PublisherListener* listener, unsigned long mask);
    Subscriber* create_subscriber(const SubscriberQos& qos, SubscriberListener* listener, unsigned long mask);
    Topic* create_topic(const std::string& topic_name, const std::string& type_name, const TopicQos& qos,
                        TopicListener* listener, unsigned long mask);
    ContentFilteredTopic* create_contentfilteredtopic(const std::string& name, Topic* related_topic,
                                                      const std::string& filter_expression,
                                                      const StringSeq& expression_parameters);
    ReturnCode_t delete_publisher(Publisher* pPublisher);
    ReturnCode_t delete_subscriber(Subscriber* pSubscriber);
    ReturnCode_t delete_topic(Topic* pTopic);
    ReturnCode_t delete_contentfilteredtopic(ContentFilteredTopic* pTopic);
    ReturnCode_t delete_contained_entities();
    TopicDescription* lookup_topicdescription(const std::string& name);
    Publisher* get_builtin_publisher();
    Subscriber* get_builtin_subscriber();

    // ---- types
    ReturnCode_t register_type(const std::string& type_name);
    ReturnCode_t register_type(const std::string& type_name, std::list<std::string>& description);
    bool isTypeRegistered(const std::string& type_name) const;
    // The lines given with the type, or null. Kept here until the type registry exists.
    const std::list<std::string>* findTypeDescription(const std::string& type_name) const;

    // ---- the participant itself
    int get_domain_id() const { return m_iDomainId; }
    // Deep copy.
    ReturnCode_t get_qos(DomainParticipantQos& qos) const;
    // Write-back of the working copy that the RTPS participant completes at start-up.
    void updateQos(const DomainParticipantQos& qos);
    ReturnCode_t set_listener(DomainParticipantListener* listener, unsigned long mask);
    ReturnCode_t set_monitor_listener(DomainParticipantListener* listener, unsigned long mask);
    bool contains_entity(const InstanceHandle_t& handle) const;

    // ---- discovered entities
    ReturnCode_t get_discovered_participants(InstanceHandleSeq& handles);
    ReturnCode_t get_discovered_participant_data(ParticipantBuiltinTopicData& data,
                                                 const InstanceHandle_t& handle);
    ReturnCode_t get_publications(InstanceHandleSeq& handles, bool include_contained_entities);
    ReturnCode_t get_publication_data(PublicationBuiltinTopicData& data, const InstanceHandle_t& handle);
    ReturnCode_t get_subscriptions(InstanceHandleSeq& handles, bool include_contained_entities);
    ReturnCode_t get_subscription_data(SubscriptionBuiltinTopicData& data, const InstanceHandle_t& handle);

    // ---- for the other layers
    int getLogId() const { return m_iLogId; }
    DomainParticipant* getFacade() const { return m_pDomainParticipant; }
    void setFacade(DomainParticipant* pFacade) { m_pDomainParticipant = pFacade; }
    Participant* getRtpsParticipant() const { return m_pParticipant; }
    Discovery* getDiscovery() const { return m_pDiscovery; }
    StaticDomainParticipant* getStaticParticipant() const { return m_pStaticDomainParticipant; }
    PublisherImpl* getBuiltinPublisherImpl() const { return m_pBuiltinPublisherImpl; }
    SubscriberImpl* getBuiltinSubscriberImpl() const { return m_pBuiltinSubscriberImpl; }
    bool getDynamicDiscoveryFlag() const { return m_bDynamicDiscovery; }
    void setDynamicDiscoveryFlag(bool bDynamic) { m_bDynamicDiscovery = bDynamic; }
    DomainParticipantListener* getListener() const { return m_pListener; }
    DomainParticipantListener* getMonitorListener() const { return m_pMonitorListener; }
    // Prefix: local address (0 here), domain id, participant id; entity id ENTITYID_PARTICIPANT.
    const GUID_t& getParticipantGuid() const { return m_ParticipantGuid; }
    // The participant id of the prefix, also used in the port numbers.
    uint32_t getDomainParticipantId() const { return m_uiDomainParticipantId; }

    std::list<PublisherImpl*>& getPublisherImplList() { return m_PublisherImplList; }
    std::list<SubscriberImpl*>& getSubscriberImplList() { return m_SubscriberImplList; }
    std::list<TopicImpl*>& getTopicImplList() { return m_TopicImplList; }
    std::list<ContentFilteredTopicImpl*>& getContentFilteredTopicImplList() {
        return m_ContentFilteredTopicImplList;
    }

    // "DCPSParticipant", "DCPSPublication", "DCPSSubscription", "DCPSParticipantMessage".
    static bool IsBuiltinTopicName(const std::string& name);

    // Test seam: participants created from now on take their transmitter from this factory
    // (an in-process network, say); null restores UDP sockets.
    typedef MessageTransmitter* (*TransmitterFactory)(ReceiveBuffer* pReceiveBuffer, int iLogKey);
    static void SetTransmitterFactory(TransmitterFactory pFactory);

private:
    // Construction steps, in the order the constructor runs them.
    void AssignLogId();
    void CreateLogManager();
    void LookupStaticEntry();
    void BuildGuid();
    void BuildRtpsParticipant();
    void CreateBuiltinEntities();
    void StartDiscovery();
    void StartThreads();
    void AnnounceThreeTimes();
    void InitStaticEntities();

    // Teardown steps, in the order the destructor runs them.
    void DeleteStaticParticipant();
    void StopReceiving();
    void StopProcessing();
    void SendGoodbye();
    void StopSending();
    void DeleteDiscovery();
    void DeleteBuiltinEntities();
    void DeleteBuiltinTopics();
    void DeleteRtpsParticipant();

    // Destruction of contained entities whose classes arrive later.
    void DestroyPublisher(PublisherImpl* pPublisher);
    void DestroySubscriber(SubscriberImpl* pSubscriber);
    void DestroyTopic(TopicImpl* pTopic);
    static std::string TopicNameOf(const TopicImpl* pTopic);
    // True when a subscriber of the list holds a reader on a topic of this name.
    bool HasReaderOnTopic(const std::string& name);

    DomainParticipant* m_pDomainParticipant;  // owned facade
    int m_iDomainId;
    DomainParticipantQos m_Qos;                // deep copy
    DomainParticipantListener* m_pListener;    // borrowed, never called
    PublisherImpl* m_pBuiltinPublisherImpl;    // owned, not in the list
    SubscriberImpl* m_pBuiltinSubscriberImpl;  // owned, not in the list
    std::list<PublisherImpl*> m_PublisherImplList;
    std::list<SubscriberImpl*> m_SubscriberImplList;
    std::set<std::string> m_RegisteredTypeSet;
    std::list<TopicImpl*> m_TopicImplList;  // built-in topics too
    std::list<ContentFilteredTopicImpl*> m_ContentFilteredTopicImplList;
    DomainParticipantListener* m_pMonitorListener;        // borrowed; Discovery calls it
    StaticDomainParticipant* m_pStaticDomainParticipant;  // owned; null under dynamic discovery
    bool m_bDynamicDiscovery;
    Participant* m_pParticipant;  // owned RTPS participant
    Discovery* m_pDiscovery;      // owned
    int m_iLogId;                 // (participant count << 16) + domain id

    GUID_t m_ParticipantGuid;
    uint32_t m_uiDomainParticipantId;
    std::map<std::string, std::list<std::string>> m_TypeDescriptionMap;
};

#endif
