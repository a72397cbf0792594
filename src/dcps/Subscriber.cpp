#include "Subscriber.h"

#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "DataReader.h"
#include "DomainParticipant.h"
#include "TopicDescription.h"
#include "dcps/DataReaderImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/SubscriberImpl.h"

Subscriber::Subscriber(SubscriberImpl* pImpl) : m_pSubscriberImpl(pImpl) {
    pImpl->setFacade(this);
}

Subscriber::~Subscriber() {}

DataReader* Subscriber::create_datareader(TopicDescription* a_topic, const DataReaderQos& qos,
                                          DataReaderListener* a_listener, unsigned long mask) {
    if (a_topic == nullptr) {
        std::printf("ERROR: Invalid Argument\n");
        return nullptr;
    }
    DataReaderImpl* pDataReaderImpl = m_pSubscriberImpl->create_datareader(a_topic, qos, a_listener, mask);
    if (pDataReaderImpl == nullptr) {
        DomainParticipantImpl* pParticipant = m_pSubscriberImpl->getParticipant();
        char szLog[200];
        std::snprintf(szLog, sizeof(szLog),
                      "[Subscriber::create_datareader] pDataReader = NULL andTopicName = %s",
                      a_topic->get_name());
        DDSLogManagementFactory::WriteDDSLog(pParticipant->getLogId(), szLog, std::strlen(szLog), DDSLOG_INFO,
                                             pParticipant->getParticipantGuid());
        return nullptr;
    }
    return pDataReaderImpl->getFacade();
}

ReturnCode_t Subscriber::delete_datareader(DataReader* a_datareader) {
    // 0, unlike the publisher's 1 for the same mistake; callers rely on it.
    if (a_datareader == nullptr) {
        std::printf("ERROR: Invalid Argument\n");
        return RETCODE_OK;
    }
    return m_pSubscriberImpl->delete_datareader(a_datareader->getImpl());
}

DataReader* Subscriber::lookup_datareader(const std::string& topic_name) {
    if (topic_name.empty()) {
        std::printf("ERROR: Invalid Argument\n");
        return nullptr;
    }
    DataReaderImpl* pDataReaderImpl = m_pSubscriberImpl->lookup_datareader(topic_name);
    return pDataReaderImpl != nullptr ? pDataReaderImpl->getFacade() : nullptr;
}

ReturnCode_t Subscriber::get_qos(SubscriberQos& qos) {
    return m_pSubscriberImpl->get_qos(qos);
}

DomainParticipant* Subscriber::get_participant() {
    return m_pSubscriberImpl->getParticipant()->getFacade();
}

ReturnCode_t Subscriber::set_listener(SubscriberListener* a_listener, unsigned long mask) {
    return m_pSubscriberImpl->set_listener(a_listener, mask);
}

// ---------------------------------------------------------------- stubs

SubscriberListener* Subscriber::get_listener() {
    return nullptr;
}

ReturnCode_t Subscriber::get_default_datareader_qos(DataReaderQos& qos) {
    (void)qos;
    return StubResult();
}

ReturnCode_t Subscriber::set_qos(const SubscriberQos& qos) {
    (void)qos;
    return StubResult();
}
