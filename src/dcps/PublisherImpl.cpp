#include "dcps/PublisherImpl.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "DDSLogManagementFactory.h"
#include "Publisher.h"
#include "TopicDescription.h"
#include "dcps/DataWriterImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/TopicImpl.h"
#include "rtps/Participant.h"
#include "rtps/Writer.h"

PublisherImpl::PublisherImpl(DomainParticipantImpl* pParticipant, const PublisherQos& qos,
                             PublisherListener* pListener)
    : m_pPublisher(nullptr), m_pParticipant(pParticipant), m_Qos(qos), m_pListener(pListener) {
    new Publisher(this);  // stores itself in m_pPublisher
}

PublisherImpl::~PublisherImpl() {
    while (!m_DataWriterImplList.empty()) delete_datawriter(m_DataWriterImplList.front());
    for (DataWriterImpl* pDataWriter : m_HalfBuiltWriterList) delete pDataWriter;
    m_HalfBuiltWriterList.clear();
    delete m_pPublisher;
    m_pPublisher = nullptr;
}

ReturnCode_t PublisherImpl::get_qos(PublisherQos& qos) const {
    qos = m_Qos;
    return RETCODE_OK;
}

void PublisherImpl::WriteLog(const char* szText, const GUID_t& guid) const {
    char szLog[200];
    std::snprintf(szLog, sizeof(szLog), "%s", szText);
    DDSLogManagementFactory::WriteDDSLog(m_pParticipant->getLogId(), szLog, std::strlen(szLog), DDSLOG_INFO,
                                         guid);
}

// ---------------------------------------------------------------- creation

DataWriterImpl* PublisherImpl::create_datawriter(TopicImpl* pTopic, const DataWriterQos& qos,
                                                 unsigned long mask, DataWriterListener* pListener) {
    const std::string strTopicName = pTopic->get_name();
    char szLog[200];

    // The participant's own topic of that name stands for the one passed in.
    TopicDescription* pDescription = m_pParticipant->lookup_topicdescription(strTopicName);
    TopicImpl* pTopicImpl =
        pDescription != nullptr ? dynamic_cast<TopicImpl*>(pDescription->getImpl()) : nullptr;
    if (pTopicImpl == nullptr) {
        std::snprintf(szLog, sizeof(szLog),
                      "[PublisherImpl::create_datawriter] Topic find error and TopicName = %s",
                      strTopicName.c_str());
        WriteLog(szLog, m_pParticipant->getParticipantGuid());
        return nullptr;
    }

    DataWriterImpl* pStatic = FindStaticWriter(strTopicName);
    if (pStatic != nullptr) return pStatic;

    DataWriterImpl* pDataWriter = new (std::nothrow) DataWriterImpl(this, pTopicImpl, qos, pListener, mask);
    if (pDataWriter == nullptr) return nullptr;

    Participant* pParticipant = m_pParticipant->getRtpsParticipant();
    Writer* pWriter =
        pParticipant != nullptr ? pParticipant->createWriter(qos, WriterEntityIdFor(strTopicName)) : nullptr;
    if (pWriter == nullptr) {
        // The half-built writer stays alive (its deadline timer keeps running) but is no
        // writer of this publisher; it is kept aside only to be destroyed with the publisher.
        m_HalfBuiltWriterList.push_back(pDataWriter);
        WriteLog("[PublisherImpl::create_datawriter] pWriter = NULL", m_pParticipant->getParticipantGuid());
        return nullptr;
    }

    const int iLogId = m_pParticipant->getLogId();
    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory != nullptr && pLogFactory->GetUseDDSLogFlag(iLogId)) {
        std::snprintf(szLog, sizeof(szLog), "Create Local DW TopicName = %s TopicName = %s",
                      strTopicName.c_str(), pTopicImpl->get_type_name().c_str());
        DDSLogManagementFactory::WriteDDSLog(iLogId, szLog, std::strlen(szLog), DDSLOG_MATCH,
                                             pWriter->getGUID());
    }

    pDataWriter->setRtpsWriter(pWriter);  // links both ways and hands over the cache
    if (qos.reliability.kind == RELIABLE_RELIABILITY_QOS) InitStatefulWriter(pWriter, strTopicName);
    m_DataWriterImplList.push_back(pDataWriter);

    if (!DomainParticipantImpl::IsBuiltinTopicName(strTopicName)) {
        AddToDiscovery(pDataWriter);
        pDataWriter->enable(0);
    }
    return pDataWriter;
}

EntityId_t PublisherImpl::WriterEntityIdFor(const std::string& strTopicName) {
    if (strTopicName == "DCPSParticipant") return ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER;
    if (strTopicName == "DCPSPublication") return ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER;
    if (strTopicName == "DCPSSubscription") return ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER;
    if (strTopicName == "DCPSParticipantMessage") return ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER;
    return ENTITYID_UNKNOWN;  // the RTPS participant allots one
}

DataWriterImpl* PublisherImpl::FindStaticWriter(const std::string& strTopicName) {
    if (m_pParticipant->getStaticParticipant() == nullptr) return nullptr;
    // Joins with the static discovery work: return find_datawriter(strTopicName) when it
    // finds one; otherwise, for a name other than "DCPSParticipant", "DCPSPublication" and
    // "DCPSSubscription" that IsStaticTopic does not list, set the dynamic discovery flag.
    (void)strTopicName;
    return nullptr;
}

void PublisherImpl::InitStatefulWriter(Writer* pWriter, const std::string& strTopicName) {
    // Joins with the stateful writer work: initialise the StatefulWriter with the log id
    // and strTopicName, which sets up its periodic heartbeat.
    (void)pWriter;
    (void)strTopicName;
}

void PublisherImpl::AddToDiscovery(DataWriterImpl* pDataWriter) {
    // Joins with the discovery work: Discovery records the new local writer for matching.
    (void)pDataWriter;
}

// ---------------------------------------------------------------- deletion and look-up

ReturnCode_t PublisherImpl::delete_datawriter(DataWriterImpl* pDataWriter) {
    auto it = m_DataWriterImplList.begin();
    while (it != m_DataWriterImplList.end() && *it != pDataWriter) ++it;
    if (it == m_DataWriterImplList.end()) {
        char szLog[200];
        std::snprintf(szLog, sizeof(szLog),
                      "[PublisherImpl::delete_datawriter] Find DataWriter faid and TopicName = %s",
                      pDataWriter != nullptr ? pDataWriter->getTopicName().c_str() : "");
        WriteLog(szLog, m_pParticipant->getParticipantGuid());
        return RETCODE_ENTITY_NOT_FOUND;
    }
    m_DataWriterImplList.erase(it);
    pDataWriter->enable(1);  // Discovery withdraws it
    Writer* pWriter = pDataWriter->getRtpsWriter();
    Participant* pParticipant = m_pParticipant->getRtpsParticipant();
    if (pWriter != nullptr && pParticipant != nullptr) pParticipant->deleteWriter(pWriter);
    delete pDataWriter;
    return RETCODE_OK;
}

std::list<DataWriterImpl*> PublisherImpl::lookup_datawriter(const std::string& strTopicName) const {
    std::list<DataWriterImpl*> found;
    for (DataWriterImpl* pDataWriter : m_DataWriterImplList)
        if (pDataWriter->getTopicName() == strTopicName) found.push_back(pDataWriter);
    return found;
}
