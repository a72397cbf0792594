#include "Publisher.h"

#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "DataWriter.h"
#include "Topic.h"
#include "dcps/DataWriterImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/PublisherImpl.h"
#include "dcps/TopicImpl.h"

namespace {

void WriteLog(PublisherImpl* pImpl, const char* szText) {
    DomainParticipantImpl* pParticipant = pImpl->getParticipant();
    char szLog[200];
    std::snprintf(szLog, sizeof(szLog), "%s", szText);
    DDSLogManagementFactory::WriteDDSLog(pParticipant->getLogId(), szLog, std::strlen(szLog), DDSLOG_INFO,
                                         pParticipant->getParticipantGuid());
}

}  // namespace

Publisher::Publisher(PublisherImpl* pImpl) : m_pPublisherImpl(pImpl) {
    pImpl->setFacade(this);
}

Publisher::~Publisher() {}

DataWriter* Publisher::create_datawriter(Topic* topic, const DataWriterQos& qos, DataWriterListener* listener,
                                         unsigned long mask) {
    if (topic == nullptr) {
        std::printf("ERROR:Topic is NULL\n");
        return nullptr;
    }
    char szLog[200];
    TopicImpl* pTopicImpl = dynamic_cast<TopicImpl*>(topic->getImpl());
    if (pTopicImpl == nullptr) {
        std::snprintf(szLog, sizeof(szLog),
                      "[Publisher::create_datawriter] pTopicImpl = NULL and TopicName = %s",
                      topic->get_name());
        WriteLog(m_pPublisherImpl, szLog);
        return nullptr;
    }
    DataWriterImpl* pDataWriter = m_pPublisherImpl->create_datawriter(pTopicImpl, qos, mask, listener);
    if (pDataWriter == nullptr) {
        std::snprintf(szLog, sizeof(szLog),
                      "[Publisher::create_datawriter] pDataWriter = NULL and TopicName = %s",
                      topic->get_name());
        WriteLog(m_pPublisherImpl, szLog);
        return nullptr;
    }
    return pDataWriter->getFacade();
}

ReturnCode_t Publisher::delete_datawriter(DataWriter* writer) {
    if (writer == nullptr) {
        std::printf("ERROR: Invalid Argument\n");
        return RETCODE_ERROR;
    }
    return m_pPublisherImpl->delete_datawriter(writer->getImpl());
}

std::list<DataWriter*> Publisher::lookup_datawriter(const std::string& topic_name) {
    std::list<DataWriter*> writers;
    if (topic_name.empty()) {
        std::printf("ERROR: Invalid Argument\n");
        return writers;
    }
    for (DataWriterImpl* pDataWriter : m_pPublisherImpl->lookup_datawriter(topic_name))
        writers.push_back(pDataWriter->getFacade());
    if (writers.empty())
        WriteLog(m_pPublisherImpl, "[Publisher::lookup_datawriter] pDataWriterImplList.size() == 0");
    return writers;
}

ReturnCode_t Publisher::get_qos(PublisherQos& qos) {
    return m_pPublisherImpl->get_qos(qos);
}

DomainParticipant* Publisher::get_participant() {
    return m_pPublisherImpl->getParticipant()->getFacade();
}

ReturnCode_t Publisher::get_default_datawriter_qos(DataWriterQos& qos) {
    (void)qos;
    return RETCODE_OK;
}
