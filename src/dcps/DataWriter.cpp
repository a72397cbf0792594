#include "DataWriter.h"

#include <cstring>

#include "DomainParticipant.h"
#include "dcps/DataWriterImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/PublisherImpl.h"
#include "dcps/TopicImpl.h"

DataWriter::DataWriter(DataWriterImpl* pImpl) : m_pDataWriterImpl(pImpl) {
    DataWriter* pOld = pImpl->getFacade();
    pImpl->setFacade(this);
    if (pOld != nullptr && pOld != this) delete pOld;
}

DataWriter::~DataWriter() {}

// ---------------------------------------------------------------- write

ReturnCode_t DataWriter::write(const char* data, unsigned int length, const InstanceHandle_t& handle) {
    std::list<Parameter> parameters;
    return m_pDataWriterImpl->write(data, length, handle, parameters, GetRtpsTimestamp(), GUID_UNKNOWN);
}

ReturnCode_t DataWriter::write(const char* data, unsigned int length, const InstanceHandle_t& handle,
                               std::list<Parameter>& parameters) {
    return m_pDataWriterImpl->write(data, length, handle, parameters, GetRtpsTimestamp(), GUID_UNKNOWN);
}

ReturnCode_t DataWriter::write_w_timestamp(const char* data, unsigned int length,
                                           const InstanceHandle_t& handle, const Time_t& source_timestamp) {
    std::list<Parameter> parameters;
    return m_pDataWriterImpl->write(data, length, handle, parameters, source_timestamp, GUID_UNKNOWN);
}

ReturnCode_t DataWriter::directed_write(const char* data, unsigned int length, const InstanceHandle_t& handle,
                                        const GUID_t& reader) {
    std::list<Parameter> parameters;
    return m_pDataWriterImpl->write(data, length, handle, parameters, GetRtpsTimestamp(), reader);
}

ReturnCode_t DataWriter::directed_write(const char* data, unsigned int length, const InstanceHandle_t& handle,
                                        const GUID_t& reader, std::list<Parameter>& parameters) {
    return m_pDataWriterImpl->write(data, length, handle, parameters, GetRtpsTimestamp(), reader);
}

// ---------------------------------------------------------------- liveliness and matches

ReturnCode_t DataWriter::assert_liveliness() {
    return m_pDataWriterImpl->assert_liveliness();
}

ReturnCode_t DataWriter::get_publication_matched_status(PublicationMatchedStatus& status) {
    status = m_pDataWriterImpl->getPublicationMatchedStatus();
    return RETCODE_OK;
}

ReturnCode_t DataWriter::get_matched_subscription_data(SubscriptionBuiltinTopicData& subscription_data,
                                                       const InstanceHandle_t& subscription_handle) {
    DomainParticipantImpl* pParticipant = m_pDataWriterImpl->getPublisherImpl()->getParticipant();
    return pParticipant->get_subscription_data(subscription_data, subscription_handle);
}

ReturnCode_t DataWriter::get_matched_subscription_participant_data(
    ParticipantBuiltinTopicData& participant_data, const InstanceHandle_t& subscription_handle) {
    // The reader's prefix with the participant's entity id.
    InstanceHandle_t participantHandle = subscription_handle;
    std::memcpy(&participantHandle.value[12], &ENTITYID_PARTICIPANT, 4);
    DomainParticipantImpl* pParticipant = m_pDataWriterImpl->getPublisherImpl()->getParticipant();
    return pParticipant->get_discovered_participant_data(participant_data, participantHandle);
}

// ---------------------------------------------------------------- accessors

Publisher* DataWriter::get_publisher() {
    return m_pDataWriterImpl->getPublisherImpl()->getFacade();
}

Topic* DataWriter::get_topic() {
    return m_pDataWriterImpl->getTopicImpl()->getTopic();
}

ReturnCode_t DataWriter::get_qos(DataWriterQos& qos) {
    qos = m_pDataWriterImpl->getQos();
    return RETCODE_OK;
}

GUID_t DataWriter::getGuid() {
    return m_pDataWriterImpl->getGuid();
}

// ---------------------------------------------------------------- stubs

DataWriterListener* DataWriter::get_listener() {
    return nullptr;
}

ReturnCode_t DataWriter::set_listener(DataWriterListener* listener, unsigned long mask) {
    (void)listener;
    (void)mask;
    return StubResult();
}

ReturnCode_t DataWriter::set_qos(const DataWriterQos& qos) {
    (void)qos;
    return StubResult();
}

ReturnCode_t DataWriter::get_liveliness_lost_status(LivelinessLostStatus& status) {
    (void)status;
    return StubResult();
}

ReturnCode_t DataWriter::get_matched_subscriptions(InstanceHandleSeq& subscription_handles) {
    (void)subscription_handles;
    return StubResult();
}

ReturnCode_t DataWriter::get_offered_deadline_missed_status(OfferedDeadlineMissedStatus& status) {
    (void)status;
    return StubResult();
}

ReturnCode_t DataWriter::get_offered_incompatible_qos_status(OfferedIncompatibleQosStatus& status) {
    (void)status;
    return StubResult();
}

ReturnCode_t DataWriter::wait_for_acknowledgments(const Duration_t& max_wait) {
    (void)max_wait;
    return StubResult();
}
