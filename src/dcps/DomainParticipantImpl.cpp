#include "dcps/DomainParticipantImpl.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "core/Mutex.h"
#include "core/SystemClock.h"

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
    m_uiDomainParticipantId =
        (SystemClock::ProcessId() + uiRandom + uiDomainId) % 15000 + static_cast<uint32_t>(iCreationCount) + 1;

    // Three words in host order: address, domain id, participant id.
    std::memcpy(&m_ParticipantGuid.guidPrefix.value[0], &uiLocalIp, 4);
    std::memcpy(&m_ParticipantGuid.guidPrefix.value[4], &uiDomainId, 4);
    std::memcpy(&m_ParticipantGuid.guidPrefix.value[8], &m_uiDomainParticipantId, 4);
    m_ParticipantGuid.entityId = ENTITYID_PARTICIPANT;
}

void DomainParticipantImpl::BuildRtpsParticipant() {
    // Seam: m_pParticipant = new Participant(m_ParticipantGuid, this), then its network
    // initialisation; the code it returns is not acted on.
}

void DomainParticipantImpl::CreateBuiltinEntities() {
    // Seam: built-in PublisherImpl and SubscriberImpl from default QoS, null listener,
    // zero mask, kept out of the lists.
}

void DomainParticipantImpl::StartDiscovery() {
    // Seam: m_pDiscovery = new Discovery(this), then its initiation; the result is ignored.
}

void DomainParticipantImpl::StartThreads() {
    // Seam: the RTPS participant starts "<domain>_SEND", "<domain>_RECV" and "<domain>_DIST".
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
    // Seam: stop the transmitter, poll every 10 ms until stopped, delete "_RECV".
}

void DomainParticipantImpl::StopProcessing() {
    // Seam: stop the message processor, poll every 10 ms until stopped, delete "_DIST".
}

void DomainParticipantImpl::SendGoodbye() {
    // Seam: Discovery writes the participant key with key hash, status info 3 and sentinel.
}

void DomainParticipantImpl::StopSending() {
    // Seam: stop the immediate request scheduler, poll every 10 ms, delete "_SEND".
}

void DomainParticipantImpl::DeleteDiscovery() {
    // Seam: delete m_pDiscovery.
}

void DomainParticipantImpl::DeleteBuiltinEntities() {
    // Seam: delete m_pBuiltinPublisherImpl and m_pBuiltinSubscriberImpl.
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
    // Seam: delete m_pParticipant.
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
    (void)pPublisher;  // Seam: delete pPublisher (it deletes its writers first).
}

void DomainParticipantImpl::DestroySubscriber(SubscriberImpl* pSubscriber) {
    (void)pSubscriber;  // Seam: delete pSubscriber (it deletes its readers first).
}

void DomainParticipantImpl::DestroyTopic(TopicImpl* pTopic) {
    (void)pTopic;  // Seam: delete pTopic.
}

std::string DomainParticipantImpl::TopicNameOf(const TopicImpl* pTopic) {
    (void)pTopic;  // Seam: pTopic->get_name().
    return std::string();
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
    (void)qos; (void)listener; (void)mask;
    return nullptr;  // Seam: PublisherImpl arrives with the publishing side.
}

Subscriber* DomainParticipantImpl::create_subscriber(const SubscriberQos& qos, SubscriberListener* listener,
                                                     unsigned long mask) {
    (void)qos; (void)listener; (void)mask;
    return nullptr;  // Seam: SubscriberImpl arrives with the subscribing side.
}

Topic* DomainParticipantImpl::create_topic(const std::string& topic_name, const std::string& type_name,
                                           const TopicQos& qos, TopicListener* listener, unsigned long mask) {
    (void)topic_name; (void)type_name; (void)qos; (void)listener; (void)mask;
    return nullptr;  // Seam: TopicImpl; the facade already logs the null case.
}

ContentFilteredTopic* DomainParticipantImpl::create_contentfilteredtopic(const std::string& name, Topic* related_topic,
                                                                         const std::string& filter_expression,
                                                                         const StringSeq& expression_parameters) {
    (void)name; (void)related_topic; (void)filter_expression; (void)expression_parameters;
    return nullptr;  // Seam: ContentFilteredTopicImpl arrives with the filters.
}

ReturnCode_t DomainParticipantImpl::delete_publisher(Publisher* pPublisher) {
    (void)pPublisher;
    return RETCODE_OK;  // Seam: find by pointer in m_PublisherImplList, else 33.
}

ReturnCode_t DomainParticipantImpl::delete_subscriber(Subscriber* pSubscriber) {
    (void)pSubscriber;
    return RETCODE_OK;  // Seam: find by pointer in m_SubscriberImplList, else 33.
}

ReturnCode_t DomainParticipantImpl::delete_topic(Topic* pTopic) {
    (void)pTopic;
    return RETCODE_OK;  // Seam: the checks against writers and readers, then erase.
}

ReturnCode_t DomainParticipantImpl::delete_contentfilteredtopic(ContentFilteredTopic* pTopic) {
    (void)pTopic;
    return RETCODE_OK;  // Seam: erase from m_ContentFilteredTopicImplList.
}

TopicDescription* DomainParticipantImpl::lookup_topicdescription(const std::string& name) {
    (void)name;
    return nullptr;  // Seam: search m_TopicImplList by name; the facade logs the null case.
}

Publisher* DomainParticipantImpl::get_builtin_publisher() {
    return nullptr;  // Seam: the facade of m_pBuiltinPublisherImpl.
}

Subscriber* DomainParticipantImpl::get_builtin_subscriber() {
    return nullptr;  // Seam: the facade of m_pBuiltinSubscriberImpl.
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

void DomainParticipantImpl::updateQos(const DomainParticipantQos& qos) { m_Qos = qos; }

ReturnCode_t DomainParticipantImpl::set_listener(DomainParticipantListener* listener, unsigned long mask) {
    (void)mask;
    m_pListener = listener;
    return RETCODE_OK;
}

ReturnCode_t DomainParticipantImpl::set_monitor_listener(DomainParticipantListener* listener, unsigned long mask) {
    (void)mask;
    m_pMonitorListener = listener;
    return RETCODE_OK;
}

bool DomainParticipantImpl::contains_entity(const InstanceHandle_t& handle) const {
    // Only the prefix counts: any handle of this participant does, no entity is looked up.
    // Seam: compare with the RTPS participant's GUID once it rewrites the address octets.
    return std::memcmp(handle.value, m_ParticipantGuid.guidPrefix.value, 12) == 0;
}

// ---------------------------------------------------------------- discovered entities

ReturnCode_t DomainParticipantImpl::get_discovered_participants(InstanceHandleSeq& handles) {
    (void)handles;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_discovered_participant_data(ParticipantBuiltinTopicData& data,
                                                                    const InstanceHandle_t& handle) {
    (void)data; (void)handle;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_publications(InstanceHandleSeq& handles, bool include_contained_entities) {
    (void)handles; (void)include_contained_entities;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_publication_data(PublicationBuiltinTopicData& data,
                                                         const InstanceHandle_t& handle) {
    (void)data; (void)handle;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_subscriptions(InstanceHandleSeq& handles, bool include_contained_entities) {
    (void)handles; (void)include_contained_entities;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}

ReturnCode_t DomainParticipantImpl::get_subscription_data(SubscriptionBuiltinTopicData& data,
                                                          const InstanceHandle_t& handle) {
    (void)data; (void)handle;
    return RETCODE_OK;  // Seam: forward to m_pDiscovery.
}
