#include "DataReader.h"

#include <cstring>

#include "Subscriber.h"
#include "TopicDescription.h"
#include "dcps/DataReaderImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/SubscriberImpl.h"
#include "dcps/TopicDescriptionImpl.h"

DataReader::DataReader(DataReaderImpl* pImpl) : m_pDataReaderImpl(pImpl) {
    DataReader* pOld = pImpl->getFacade();
    pImpl->setFacade(this);
    if (pOld != nullptr && pOld != this) delete pOld;
}

DataReader::~DataReader() {}

// ---------------------------------------------------------------- read and take
// The Impl's code (11 on an empty cache) is dropped on purpose: callers,
// the built-in readers among them, test for an empty result instead.

ReturnCode_t DataReader::read(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos,
                              int max_samples, unsigned sample_states, unsigned view_states,
                              unsigned instance_states) {
    m_pDataReaderImpl->read(data_values, sample_infos, max_samples, sample_states, view_states,
                            instance_states);
    return RETCODE_OK;
}

ReturnCode_t DataReader::take(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos,
                              int max_samples, unsigned sample_states, unsigned view_states,
                              unsigned instance_states) {
    m_pDataReaderImpl->take(data_values, sample_infos, max_samples, sample_states, view_states,
                            instance_states);
    return RETCODE_OK;
}

ReturnCode_t DataReader::read_next_sample(UserData& data_value, SampleInfo& sample_info) {
    m_pDataReaderImpl->read_next_sample(data_value, sample_info);
    return RETCODE_OK;
}

ReturnCode_t DataReader::take_next_sample(UserData& data_value, SampleInfo& sample_info) {
    m_pDataReaderImpl->take_next_sample(data_value, sample_info);
    return RETCODE_OK;
}

// ---------------------------------------------------------------- matches

ReturnCode_t DataReader::get_subscription_matched_status(SubscriptionMatchedStatus& status) {
    return m_pDataReaderImpl->get_subscription_matched_status(status);
}

ReturnCode_t DataReader::get_matched_publication_data(PublicationBuiltinTopicData& publication_data,
                                                      const InstanceHandle_t& publication_handle) {
    DomainParticipantImpl* pParticipant = m_pDataReaderImpl->getSubscriberImpl()->getParticipant();
    return pParticipant->get_publication_data(publication_data, publication_handle);
}

ReturnCode_t DataReader::get_matched_publication_participant_data(
    ParticipantBuiltinTopicData& participant_data, const InstanceHandle_t& publication_handle) {
    // The writer's prefix with the participant's entity id.
    InstanceHandle_t participantHandle = publication_handle;
    std::memcpy(&participantHandle.value[12], &ENTITYID_PARTICIPANT, 4);
    DomainParticipantImpl* pParticipant = m_pDataReaderImpl->getSubscriberImpl()->getParticipant();
    return pParticipant->get_discovered_participant_data(participant_data, participantHandle);
}

// ---------------------------------------------------------------- accessors

Subscriber* DataReader::get_subscriber() {
    return m_pDataReaderImpl->getSubscriberImpl()->getFacade();
}

TopicDescription* DataReader::get_topicdescription() {
    return m_pDataReaderImpl->getTopicDescriptionImpl()->getFacade();
}

ReturnCode_t DataReader::get_qos(DataReaderQos& qos) {
    return m_pDataReaderImpl->get_qos(qos);
}

DataReaderListener* DataReader::get_listener() {
    return m_pDataReaderImpl->get_listener();
}

GUID_t DataReader::getGuid() {
    return m_pDataReaderImpl->getGuid();
}

// ---------------------------------------------------------------- stubs

ReturnCode_t DataReader::return_loan(UserData& data_value, SampleInfoSeq sample_infos) {
    (void)data_value;
    (void)sample_infos;
    return StubResult();
}

ReturnCode_t DataReader::set_listener(DataReaderListener* a_listener, unsigned long mask) {
    (void)a_listener;
    (void)mask;
    return StubResult();
}

ReturnCode_t DataReader::set_qos(const DataReaderQos& qos) {
    (void)qos;
    return StubResult();
}

ReturnCode_t DataReader::get_liveliness_changed_status(LivelinessChangedStatus& status) {
    (void)status;
    return StubResult();
}

ReturnCode_t DataReader::get_requested_deadline_missed_status(RequestedDeadlineMissedStatus& status) {
    (void)status;
    return StubResult();
}

ReturnCode_t DataReader::get_requested_incompatible_qos_status(RequestedIncompatibleQosStatus& status) {
    (void)status;
    return StubResult();
}

ReturnCode_t DataReader::get_sample_lost_status(SampleLostStatus& status) {
    (void)status;
    return StubResult();
}

ReturnCode_t DataReader::get_sample_rejected_statu(SampleRejectedStatus& status) {
    (void)status;
    return StubResult();
}
