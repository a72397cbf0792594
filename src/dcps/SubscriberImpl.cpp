#include "dcps/SubscriberImpl.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "DDSLogManagementFactory.h"
#include "Subscriber.h"
#include "TopicDescription.h"
#include "dcps/DataReaderImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/TopicDescriptionImpl.h"
#include "rtps/Participant.h"
#include "rtps/StatefulReader.h"

SubscriberImpl::SubscriberImpl(DomainParticipantImpl* pParticipant, const SubscriberQos& qos,
                               SubscriberListener* pListener, unsigned long mask)
    : m_pSubscriber(nullptr), m_pParticipant(pParticipant), m_Qos(qos), m_pListener(pListener), m_Mask(mask) {
    new Subscriber(this);  // stores itself in m_pSubscriber
}

SubscriberImpl::~SubscriberImpl() {
    while (!m_DataReaderImplList.empty()) delete_datareader(m_DataReaderImplList.front());
    for (DataReaderImpl* pDataReaderImpl : m_HalfBuiltReaderList) {
        TopicDescriptionImpl* pTopic = pDataReaderImpl->getTopicDescriptionImpl();
        if (pTopic->getDataReader() == pDataReaderImpl) pTopic->setDataReader(nullptr);
        delete pDataReaderImpl;
    }
    m_HalfBuiltReaderList.clear();
    delete m_pSubscriber;
    m_pSubscriber = nullptr;
}

ReturnCode_t SubscriberImpl::get_qos(SubscriberQos& qos) const {
    qos = m_Qos;
    return RETCODE_OK;
}

ReturnCode_t SubscriberImpl::set_listener(SubscriberListener* pListener, unsigned long mask) {
    (void)mask;
    m_pListener = pListener;
    return RETCODE_OK;
}

void SubscriberImpl::Log(const char* szText) const {
    char szLog[200];
    std::snprintf(szLog, sizeof(szLog), "%s", szText);
    DDSLogManagementFactory::WriteDDSLog(m_pParticipant->getLogId(), szLog, std::strlen(szLog), DDSLOG_INFO,
                                         m_pParticipant->getParticipantGuid());
}

// ---------------------------------------------------------------- creation

DataReaderImpl* SubscriberImpl::create_datareader(TopicDescription* pTopic, const DataReaderQos& qos,
                                                  DataReaderListener* pListener, unsigned long mask) {
    char szLog[200];
    const std::string strTopicName = pTopic->get_name();

    // Only a check: the description passed in (maybe a content-filtered one) is
    // the one that gets the reader.
    if (m_pParticipant->lookup_topicdescription(strTopicName) == nullptr) {
        std::snprintf(szLog, sizeof(szLog),
                      "[SubscriberImpl::create_datareader] lookup_topicdescription Error,and TopicName = %s",
                      strTopicName.c_str());
        Log(szLog);
        return nullptr;
    }

    if (m_pParticipant->getStaticParticipant() != nullptr) {
        // Joins with the static discovery work: when find_datareader(strTopicName) finds
        // a reader declared by the static file, give it pListener through its
        // set_listener and return it. Otherwise, for a name other than "DCPSParticipant",
        // "DCPSPublication" and "DCPSSubscription" that IsStaticTopic does not list,
        // set the participant's dynamic discovery flag.
    }

    // One reader per topic and participant, across subscribers: a second call gets
    // the first reader, and its own QoS and listener are dropped.
    TopicDescriptionImpl* pTopicImpl = pTopic->getImpl();
    if (pTopicImpl->getDataReader() != nullptr) return pTopicImpl->getDataReader();

    DataReaderQos readerQos = qos;
    FillMulticastPorts(readerQos);

    DataReaderImpl* pDataReaderImpl =
        new (std::nothrow) DataReaderImpl(this, pTopicImpl, readerQos, pListener, mask);
    if (pDataReaderImpl == nullptr) return nullptr;
    pTopicImpl->setDataReader(pDataReaderImpl);

    // Always a stateful reader, whatever the reliability; the participant opens the
    // multicast receive addresses of the QoS.
    Participant* pParticipant = m_pParticipant->getRtpsParticipant();
    StatefulReader* pReader =
        pParticipant != nullptr
            ? pParticipant->createReader(pDataReaderImpl->getQos(), ReaderEntityIdOf(strTopicName))
            : nullptr;
    if (pReader == nullptr) {
        // The topic keeps pointing at the half-built reader, so a later call returns
        // it; it is in no list that delete_datareader searches and goes with this
        // subscriber.
        m_HalfBuiltReaderList.push_back(pDataReaderImpl);
        std::snprintf(szLog, sizeof(szLog),
                      "[SubscriberImpl::create_datareader] pReader = NULL and TopicName = %s",
                      strTopicName.c_str());
        Log(szLog);
        return nullptr;
    }

    const int iLogId = m_pParticipant->getLogId();
    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory != nullptr && pLogFactory->GetUseDDSLogFlag(iLogId)) {
        std::snprintf(szLog, sizeof(szLog), "Create Local DR TopicName = %s TopicType = %s",
                      strTopicName.c_str(), pTopicImpl->get_type_name().c_str());
        DDSLogManagementFactory::WriteDDSLog(iLogId, szLog, std::strlen(szLog), DDSLOG_MATCH,
                                             pReader->getGUID());
    }

    pDataReaderImpl->setReader(pReader);  // links both ways and hands over the cache
    // Joins with the content filter work: when pTopicImpl is a content-filtered topic,
    // pDataReaderImpl->setFilterExpression(its FilterExpression).
    m_DataReaderImplList.push_back(pDataReaderImpl);

    if (!DomainParticipantImpl::IsBuiltinTopicName(strTopicName)) {
        // Joins with the discovery work: Discovery's matchLocalReader(pDataReaderImpl)
        // matches the new reader with the remote writers it knows.
        pDataReaderImpl->enable(0);
    }
    return pDataReaderImpl;
}

void SubscriberImpl::FillMulticastPorts(DataReaderQos& qos) const {
    // The low half of the log id is the domain id.
    const uint32_t uiDomainId = uint32_t(m_pParticipant->getLogId()) & 0xFFFF;
    const uint32_t uiPort = uiDomainId * 250 + m_pParticipant->getDomainParticipantId() * 2 + 7411;
    TransportMulticastSettingSeq& settings = qos.multicast.value;
    for (uint32_t i = 0; i < settings.length; ++i)
        if (settings[i].receive_port == 0) settings[i].receive_port = uiPort;
}

EntityId_t SubscriberImpl::ReaderEntityIdOf(const std::string& topic_name) {
    if (topic_name == "DCPSParticipant") return ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER;
    if (topic_name == "DCPSPublication") return ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER;
    if (topic_name == "DCPSSubscription") return ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER;
    if (topic_name == "DCPSParticipantMessage") return ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_READER;
    return ENTITYID_UNKNOWN;  // the RTPS participant allots one
}

// ---------------------------------------------------------------- deletion and look-up

ReturnCode_t SubscriberImpl::delete_datareader(DataReaderImpl* pDataReaderImpl) {
    // The topic link goes first, even for a reader that turns out not to be ours.
    if (pDataReaderImpl != nullptr) pDataReaderImpl->getTopicDescriptionImpl()->setDataReader(nullptr);

    auto it = m_DataReaderImplList.begin();
    while (it != m_DataReaderImplList.end() && *it != pDataReaderImpl) ++it;
    if (it == m_DataReaderImplList.end()) {
        char szLog[200];
        std::snprintf(szLog, sizeof(szLog),
                      "[SubscriberImpl::delete_datareader] Detele DataReedr fail and TopicName = %s",
                      pDataReaderImpl != nullptr ? pDataReaderImpl->getTopicName().c_str() : "");
        Log(szLog);
        return RETCODE_ENTITY_NOT_FOUND;
    }

    pDataReaderImpl->enable(1);  // Discovery withdraws it
    m_DataReaderImplList.erase(it);
    // The protocol reader points at the cache: it goes before the Impl. The
    // participant waits until no other thread has it borrowed.
    StatefulReader* pReader = pDataReaderImpl->getReader();
    Participant* pParticipant = m_pParticipant->getRtpsParticipant();
    if (pReader != nullptr && pParticipant != nullptr) pParticipant->deleteReader(pReader);
    pDataReaderImpl->getTopicDescriptionImpl()->setDataReader(nullptr);
    delete pDataReaderImpl;
    return RETCODE_OK;
}

DataReaderImpl* SubscriberImpl::lookup_datareader(const std::string& topic_name) {
    for (DataReaderImpl* pDataReaderImpl : m_DataReaderImplList)
        if (pDataReaderImpl->getTopicName() == topic_name) return pDataReaderImpl;
    return nullptr;
}
