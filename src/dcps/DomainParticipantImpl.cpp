#include "dcps/DomainParticipantImpl.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "DDSLogManagementFactory.h"
#include "core/Mutex.h"
#include "core/SystemClock.h"
#include "Publisher.h"
#include "Topic.h"
#include "dcps/DataReaderImpl.h"
#include "dcps/PublisherImpl.h"
#include "dcps/SubscriberImpl.h"
#include "dcps/TopicImpl.h"
#include "discovery/Discovery.h"
#include "rtps/Participant.h"

namespace {

// Participants made so far, for the log ids. Guarded by ParticipantCountMutex().
int g_iParticipantCount = 0;

Mutex& ParticipantCountMutex() {
    static Mutex mutex;
    return mutex;
}

// Participants made so far, for the participant id of the GUID prefix: two participants
// built in one second draw the same rand() value and differ only through this count.
// Deliberately taken without a lock; the relaxed atomic only keeps parallel creations
// free of data races and adds no ordering.
std::atomic<int> g_iParticipantCreationCount{0};

const char* const kBuiltinTopicNames[] = {"DCPSParticipant", "DCPSPublication", "DCPSSubscription",
                                          "DCPSParticipantMessage"};

}  // namespace

// ---------------------------------------------------------------- construction

DomainParticipantImpl::DomainParticipantImpl(int domain_id, const DomainParticipantQos& qos,
                                             DomainParticipantListener* listener)
    : m_pDomainParticipant(nullptr),
      m_iDomainId(domain_id),
      m_Qos(qos),
      m_pListener(listener),
      m_pBuiltinPublisherImpl(nullptr),
      m_pBuiltinSubscriberImpl(nullptr),
      m_pMonitorListener(nullptr),
      m_pStaticDomainParticipant(nullptr),
      m_bDynamicDiscovery(false),
      m_pParticipant(nullptr),
      m_pDiscovery(nullptr),
      m_iLogId(0),
      m_ParticipantGuid(GUID_UNKNOWN),
      m_uiDomainParticipantId(0) {
    AssignLogId();
    CreateLogManager();
    m_bDynamicDiscovery = true;  // until a static entry for this domain says otherwise
    LookupStaticEntry();
    m_pDomainParticipant = new DomainParticipant(this);  // the facade also stores itself
    BuildGuid();
    BuildRtpsParticipant();
    CreateBuiltinEntities();
    StartDiscovery();
    StartThreads();
    AnnounceThreeTimes();
    InitStaticEntities();
}

void DomainParticipantImpl::AssignLogId() {
    Mutex& mutex = ParticipantCountMutex();
    mutex.Lock();
    ++g_iParticipantCount;
    m_iLogId = (g_iParticipantCount << 16) + m_iDomainId;
    mutex.Unlock();
}

void DomainParticipantImpl::CreateLogManager() {
    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory != nullptr) pLogFactory->CreateDDSManagement(m_iLogId);
}

void DomainParticipantImpl::LookupStaticEntry() {
    // Seam: ask the static-discovery manager for this domain's entry; when there is
    // one, clear m_bDynamicDiscovery and create m_pStaticDomainParticipant from it.
}

void DomainParticipantImpl::BuildGuid() {
    std::srand(static_cast<unsigned>(SystemClock::WallSeconds()));
    const uint32_t uiRandom = static_cast<uint32_t>(std::rand());
    SystemClock::SleepMs(1);
    const int iCreationCount = g_iParticipantCreationCount.fetch_add(1, std::memory_order_relaxed) + 1;

    const uint32_t uiLocalIp = 0;  // the RTPS participant writes the address in later
    const uint32_t uiDomainId = static_cast<uint32_t>(m_iDomainId);
    m_uiDomainParticipantId = (SystemClock::ProcessId() + uiRandom + uiDomainId) % 15000 +
                              static_cast<uint32_t>(iCreationCount) + 1;

    // Three words in host order: address, domain id, participant id.
    std::memcpy(&m_ParticipantGuid.guidPrefix.value[0], &uiLocalIp, 4);
    std::memcpy(&m_ParticipantGuid.guidPrefix.value[4], &uiDomainId, 4);
    std::memcpy(&m_ParticipantGuid.guidPrefix.value[8], &m_uiDomainParticipantId, 4);
    m_ParticipantGuid.entityId = ENTITYID_PARTICIPANT;
}

namespace {
std::atomic<DomainParticipantImpl::TransmitterFactory> g_pTransmitterFactory{nullptr};
}  // namespace

void DomainParticipantImpl::SetTransmitterFactory(TransmitterFactory pFactory) {
    g_pTransmitterFactory.store(pFactory);
}

void DomainParticipantImpl::BuildRtpsParticipant() {
    // The participant works on our QoS record (initLoaclNet completes it in place).
    m_pParticipant = new (std::nothrow)
        Participant(m_ParticipantGuid, this, m_iLogId, &m_Qos, g_pTransmitterFactory.load());
    if (m_pParticipant == nullptr) return;
    (void)m_pParticipant->initParticipant();  // logged inside; construction carries on
    // The network set-up wrote the local address into the prefix.
    m_ParticipantGuid = m_pParticipant->getGuid();
}

void DomainParticipantImpl::CreateBuiltinEntities() {
    // Plain objects from default QoS with no listener, kept out of the lists.
    m_pBuiltinPublisherImpl = new (std::nothrow) PublisherImpl(this, PublisherQos(), nullptr);
    m_pBuiltinSubscriberImpl = new (std::nothrow) SubscriberImpl(this, SubscriberQos(), nullptr, 0);
}

void DomainParticipantImpl::StartDiscovery() {
    m_pDiscovery = new (std::nothrow) Discovery(this);
    if (m_pParticipant != nullptr) m_pParticipant->setDiscovery(m_pDiscovery);
    // Seam: the discovery initiation (built-in topics, endpoints, timers) joins here.
}

void DomainParticipantImpl::StartThreads() {
    if (m_pParticipant != nullptr) m_pParticipant->startThreads();
}

void DomainParticipantImpl::AnnounceThreeTimes() {
    // Not timer driven: these make a new participant visible before the first timer
    // expiry. Without a discovery object there is nothing to space out.
    if (m_pDiscovery == nullptr) return;
    for (int i = 0; i < 3; ++i) {
        SystemClock::SleepMs(30);
        // Seam: m_pDiscovery->announceParticipant(0).
    }
}

void DomainParticipantImpl::InitStaticEntities() {
    // Seam: m_pStaticDomainParticipant->Init() when a static entry exists.
}

// ---------------------------------------------------------------- teardown

DomainParticipantImpl::~DomainParticipantImpl() {
    DeleteStaticParticipant();
    StopReceiving();
    StopProcessing();
    delete_contained_entities();
    SendGoodbye();  // queued while the send thread still runs
    StopSending();
    DeleteDiscovery();
    DeleteBuiltinEntities();
    DeleteBuiltinTopics();
    DeleteRtpsParticipant();
    delete m_pDomainParticipant;
    m_pDomainParticipant = nullptr;
}

void DomainParticipantImpl::DeleteStaticParticipant() {
    // Seam: delete m_pStaticDomainParticipant.
}

void DomainParticipantImpl::StopReceiving() {
    if (m_pParticipant != nullptr) m_pParticipant->stopRecvThread();
}

void DomainParticipantImpl::StopProcessing() {
    if (m_pParticipant != nullptr) m_pParticipant->stopDistThread();
}

void DomainParticipantImpl::SendGoodbye() {
    // Seam: Discovery writes the participant key with key hash, status info 3 and sentinel.
}

void DomainParticipantImpl::StopSending() {
    if (m_pParticipant != nullptr) m_pParticipant->stopSendThread();
}

void DomainParticipantImpl::DeleteDiscovery() {
    if (m_pParticipant != nullptr) m_pParticipant->setDiscovery(nullptr);
    delete m_pDiscovery;
    m_pDiscovery = nullptr;
}

void DomainParticipantImpl::DeleteBuiltinEntities() {
    delete m_pBuiltinPublisherImpl;  // with the discovery writers
    m_pBuiltinPublisherImpl = nullptr;
    delete m_pBuiltinSubscriberImpl;  // with the discovery readers
    m_pBuiltinSubscriberImpl = nullptr;
}

void DomainParticipantImpl::DeleteBuiltinTopics() {
    // Application topics are gone already (delete_contained_entities); only these remain.
    for (auto it = m_TopicImplList.begin(); it != m_TopicImplList.end();) {
        if (!IsBuiltinTopicName(TopicNameOf(*it))) {
            ++it;
            continue;
        }
        DestroyTopic(*it);
        it = m_TopicImplList.erase(it);
    }
}

void DomainParticipantImpl::DeleteRtpsParticipant() {
    delete m_pParticipant;
    m_pParticipant = nullptr;
}

ReturnCode_t DomainParticipantImpl::delete_contained_entities() {
    while (!m_PublisherImplList.empty()) {
        PublisherImpl* pPublisher = m_PublisherImplList.front();
        m_PublisherImplList.pop_front();
        DestroyPublisher(pPublisher);
    }
    while (!m_SubscriberImplList.empty()) {
        SubscriberImpl* pSubscriber = m_SubscriberImplList.front();
        m_SubscriberImplList.pop_front();
        DestroySubscriber(pSubscriber);
    }
    // Built-in topics stay until teardown; content-filtered topics are left in their list.
    for (auto it = m_TopicImplList.begin(); it != m_TopicImplList.end();) {
        if (IsBuiltinTopicName(TopicNameOf(*it))) {
            ++it;
            continue;
        }
        DestroyTopic(*it);
        it = m_TopicImplList.erase(it);
    }
    return RETCODE_OK;
}

void DomainParticipantImpl::DestroyPublisher(PublisherImpl* pPublisher) {
    delete pPublisher;  // it deletes its writers first
}

void DomainParticipantImpl::DestroySubscriber(SubscriberImpl* pSubscriber) {
    delete pSubscriber;  // it deletes its readers first
}

void DomainParticipantImpl::DestroyTopic(TopicImpl* pTopic) {
    delete pTopic;
}

std::string DomainParticipantImpl::TopicNameOf(const TopicImpl* pTopic) {
    return pTopic->get_name();
}

bool DomainParticipantImpl::IsBuiltinTopicName(const std::string& name) {
    for (const char* pBuiltin : kBuiltinTopicNames) {
        if (name == pBuiltin) return true;
    }
    return false;
}

// ---------------------------------------------------------------- entities

Publisher* DomainParticipantImpl::create_publisher(const PublisherQos& qos, PublisherListener* listener,
                                                   unsigned long mask) {
    (void)mask;  // dropped: a publisher keeps no mask
    PublisherImpl* pPublisher = new (std::nothrow) PublisherImpl(this, qos, listener);
    if (pPublisher == nullptr) {
        char text[200];
        std::snprintf(text, sizeof(text), "[Discovery::create_publisher] pPublisherImpl == NULL");
        DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO,
                                             m_ParticipantGuid);
        return nullptr;
    }
    m_PublisherImplList.push_back(pPublisher);
    return pPublisher->getFacade();
}

Subscriber* DomainParticipantImpl::create_subscriber(const SubscriberQos& qos, SubscriberListener* listener,
                                                     unsigned long mask) {
    // No QoS value is checked.
    SubscriberImpl* pSubscriber = new (std::nothrow) SubscriberImpl(this, qos, listener, mask);
    if (pSubscriber == nullptr) {
        char text[200];
        std::snprintf(text, sizeof(text), "[DomainParticipant::create_subscriber] pSubscriberImpl == NULL");
        DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO,
                                             m_ParticipantGuid);
        return nullptr;
    }
    m_SubscriberImplList.push_back(pSubscriber);
    return pSubscriber->getFacade();
}

Topic* DomainParticipantImpl::create_topic(const std::string& topic_name, const std::string& type_name,
                                           const TopicQos& qos, TopicListener* listener, unsigned long mask) {
    (void)mask;  // a topic keeps no mask; the facade logs every null result
    char text[200];
    if (!isTypeRegistered(type_name)) {
        std::snprintf(text, sizeof(text), "[DomainParticipantImpl::create_topic] %s is not registereTypeSet",
                      type_name.c_str());
        DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO,
                                             m_ParticipantGuid);
        return nullptr;
    }
    for (TopicImpl* pTopic : m_TopicImplList) {
        if (pTopic->get_name() != topic_name) continue;
        if (pTopic->get_type_name() == type_name)
            return pTopic->getTopic();  // same object, arguments dropped
        std::snprintf(
            text, sizeof(text),
            "[DomainParticipantImpl::create_topic] typeName is different topicName = %s typeName = %s",
            topic_name.c_str(), type_name.c_str());
        DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO,
                                             m_ParticipantGuid);
        return nullptr;
    }
    TopicImpl* pTopic = new (std::nothrow) TopicImpl(topic_name, type_name, this, qos, listener);
    if (pTopic == nullptr) return nullptr;
    m_TopicImplList.push_back(pTopic);
    return pTopic->getTopic();
}

ContentFilteredTopic* DomainParticipantImpl::create_contentfilteredtopic(
    const std::string& name, Topic* related_topic, const std::string& filter_expression,
    const StringSeq& expression_parameters) {
    (void)name;
    (void)related_topic;
    (void)filter_expression;
    (void)expression_parameters;
    return nullptr;  // Seam: ContentFilteredTopicImpl arrives with the filters.
}

ReturnCode_t DomainParticipantImpl::delete_publisher(Publisher* pPublisher) {
    // Compared by facade, so that a foreign or stale pointer is never followed.
    for (auto it = m_PublisherImplList.begin(); it != m_PublisherImplList.end(); ++it) {
        if ((*it)->getFacade() != pPublisher || pPublisher == nullptr) continue;
        PublisherImpl* pPublisherImpl = *it;
        m_PublisherImplList.erase(it);
        DestroyPublisher(pPublisherImpl);  // its writers go too; nothing refuses them
        return RETCODE_OK;
    }
    char text[200];
    std::snprintf(text, sizeof(text), "[DomainParticipantImpl::delete_publisher] pPublisher not exist");
    DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO, m_ParticipantGuid);
    return RETCODE_ENTITY_NOT_FOUND;
}

ReturnCode_t DomainParticipantImpl::delete_subscriber(Subscriber* pSubscriber) {
    // Compared by facade, so that a foreign or stale pointer is never followed.
    for (auto it = m_SubscriberImplList.begin(); it != m_SubscriberImplList.end(); ++it) {
        if ((*it)->getFacade() != pSubscriber || pSubscriber == nullptr) continue;
        SubscriberImpl* pSubscriberImpl = *it;
        m_SubscriberImplList.erase(it);
        DestroySubscriber(pSubscriberImpl);  // its readers go too; nothing refuses them
        return RETCODE_OK;
    }
    char text[200];
    std::snprintf(text, sizeof(text), "[DomainParticipantImpl::delete_subscriber] pSubscriber not exist");
    DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO, m_ParticipantGuid);
    return RETCODE_ENTITY_NOT_FOUND;
}

ReturnCode_t DomainParticipantImpl::delete_topic(Topic* pTopic) {
    char text[200];
    TopicImpl* pTopicImpl = pTopic != nullptr ? pTopic->getTopicImpl() : nullptr;
    if (pTopicImpl == nullptr) {
        std::snprintf(text, sizeof(text), "[DomainParticipantImpl::delete_topic] pTopicImpl = NULL");
        DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO,
                                             m_ParticipantGuid);
        return RETCODE_ENTITY_NOT_FOUND;
    }
    // Writers and readers are matched by topic name, not by object.
    const std::string strName = pTopicImpl->get_name();
    for (PublisherImpl* pPublisher : m_PublisherImplList) {
        if (pPublisher->lookup_datawriter(strName).empty()) continue;
        std::snprintf(text, sizeof(text), "[DomainParticipantImpl::delete_topic] pDataWriterImpl = NULL");
        DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO,
                                             m_ParticipantGuid);
        return RETCODE_ENTITY_NOT_FOUND;
    }
    if (HasReaderOnTopic(strName)) {
        std::snprintf(text, sizeof(text), "[DomainParticipantImpl::delete_topic]  pDataReaderImpl = NULL");
        DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO,
                                             m_ParticipantGuid);
        return RETCODE_ENTITY_NOT_FOUND;
    }
    for (auto it = m_TopicImplList.begin(); it != m_TopicImplList.end(); ++it) {
        if (*it != pTopicImpl) continue;
        m_TopicImplList.erase(it);
        DestroyTopic(pTopicImpl);
        return RETCODE_OK;
    }
    std::snprintf(text, sizeof(text), "[DomainParticipantImpl::delete_topic] itTopicImpl = NULL");
    DDSLogManagementFactory::WriteDDSLog(m_iLogId, text, std::strlen(text), DDSLOG_INFO, m_ParticipantGuid);
    return RETCODE_ENTITY_NOT_FOUND;
}

bool DomainParticipantImpl::HasReaderOnTopic(const std::string& name) {
    for (SubscriberImpl* pSubscriber : m_SubscriberImplList)
        for (DataReaderImpl* pReader : pSubscriber->getDataReaderImplList())
            if (pReader->getTopicName() == name) return true;
    return false;
}

ReturnCode_t DomainParticipantImpl::delete_contentfilteredtopic(ContentFilteredTopic* pTopic) {
    (void)pTopic;
    return RETCODE_OK;  // Seam: erase from m_ContentFilteredTopicImplList.
}

TopicDescription* DomainParticipantImpl::lookup_topicdescription(const std::string& name) {
    // Content-filtered topics are not searched; the facade logs the null case.
    for (TopicImpl* pTopic : m_TopicImplList)
        if (pTopic->get_name() == name) return pTopic->getFacade();
    return nullptr;
}

Publisher* DomainParticipantImpl::get_builtin_publisher() {
    return m_pBuiltinPublisherImpl != nullptr ? m_pBuiltinPublisherImpl->getFacade() : nullptr;
}

Subscriber* DomainParticipantImpl::get_builtin_subscriber() {
    return m_pBuiltinSubscriberImpl != nullptr ? m_pBuiltinSubscriberImpl->getFacade() : nullptr;
}

// ---------------------------------------------------------------- types

ReturnCode_t DomainParticipantImpl::register_type(const std::string& type_name) {
    m_RegisteredTypeSet.insert(type_name);
    return RETCODE_OK;
}

ReturnCode_t DomainParticipantImpl::register_type(const std::string& type_name,
                                                  std::list<std::string>& description) {
    // Kept per participant until the process-wide type registry takes the lines.
    m_TypeDescriptionMap[type_name] = description;
    return register_type(type_name);
}

bool DomainParticipantImpl::isTypeRegistered(const std::string& type_name) const {
    return m_RegisteredTypeSet.count(type_name) != 0;
}

const std::list<std::string>* DomainParticipantImpl::findTypeDescription(const std::string& type_name) const {
    auto it = m_TypeDescriptionMap.find(type_name);
    return it == m_TypeDescriptionMap.end() ? nullptr : &it->second;
}

// ---------------------------------------------------------------- the participant itself

ReturnCode_t DomainParticipantImpl::get_qos(DomainParticipantQos& qos) const {
    qos = m_Qos;
    return RETCODE_OK;
}

void DomainParticipantImpl::updateQos(const DomainParticipantQos& qos) {
    m_Qos = qos;
}

ReturnCode_t DomainParticipantImpl::set_listener(DomainParticipantListener* listener, unsigned long mask) {
    (void)mask;
    m_pListener = listener;
    return RETCODE_OK;
}

ReturnCode_t DomainParticipantImpl::set_monitor_listener(DomainParticipantListener* listener,
                                                         unsigned long mask) {
    (void)mask;
    m_pMonitorListener = listener;
    return RETCODE_OK;
}

bool DomainParticipantImpl::contains_entity(const InstanceHandle_t& handle) const {
    // Only the prefix counts: any handle of this participant does, no entity is looked up.
    return std::memcmp(handle.value, m_ParticipantGuid.guidPrefix.value, 12) == 0;
}

// ---------------------------------------------------------------- discovered entities

ReturnCode_t DomainParticipantImpl::get_discovered_participants(InstanceHandleSeq& handles) {
    (void)handles;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_discovered_participant_data(ParticipantBuiltinTopicData& data,
                                                                    const InstanceHandle_t& handle) {
    (void)data;
    (void)handle;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_publications(InstanceHandleSeq& handles,
                                                     bool include_contained_entities) {
    (void)handles;
    (void)include_contained_entities;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_publication_data(PublicationBuiltinTopicData& data,
                                                         const InstanceHandle_t& handle) {
    (void)data;
    (void)handle;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_subscriptions(InstanceHandleSeq& handles,
                                                      bool include_contained_entities) {
    (void)handles;
    (void)include_contained_entities;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_subscription_data(SubscriptionBuiltinTopicData& data,
                                                          const InstanceHandle_t& handle) {
    (void)data;
    (void)handle;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}
