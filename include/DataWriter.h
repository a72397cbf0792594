// Public facade of a data writer: takes samples that the application has
// already serialised. Borrowed: its DataWriterImpl owns it and destroys it.
// write may come from any thread; the facade itself takes no lock.
#ifndef MORVODDS_DATAWRITER_H
#define MORVODDS_DATAWRITER_H

#include <list>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "QosPolicy.h"
#include "Sequence.h"
#include "StatusTypes.h"

class DataWriterImpl;
class Publisher;
class Topic;
struct ParticipantBuiltinTopicData;
struct SubscriptionBuiltinTopicData;

typedef sequence<InstanceHandle_t> InstanceHandleSeq;

class DataWriter {
public:
    // The data is copied before the call returns. 0 when handed to the protocol;
    // 200 when a volatile writer has no reader (the sample is dropped); 38 when
    // the sample could not be stored.
    ReturnCode_t write(const char* data, unsigned int length, const InstanceHandle_t& handle);
    // The parameters travel as inline QoS.
    ReturnCode_t write(const char* data, unsigned int length, const InstanceHandle_t& handle,
                       std::list<Parameter>& parameters);
    // The given time replaces the clock.
    ReturnCode_t write_w_timestamp(const char* data, unsigned int length, const InstanceHandle_t& handle,
                                   const Time_t& source_timestamp);
    // For one reader only.
    ReturnCode_t directed_write(const char* data, unsigned int length, const InstanceHandle_t& handle,
                                const GUID_t& reader);
    ReturnCode_t directed_write(const char* data, unsigned int length, const InstanceHandle_t& handle,
                                const GUID_t& reader, std::list<Parameter>& parameters);

    // Asserts the participant's liveliness, whatever this writer's kind; always 0.
    ReturnCode_t assert_liveliness();
    ReturnCode_t get_publication_matched_status(PublicationMatchedStatus& status);
    ReturnCode_t get_matched_subscription_data(SubscriptionBuiltinTopicData& subscription_data,
                                               const InstanceHandle_t& subscription_handle);
    // Data of the participant behind a matched reader's handle.
    ReturnCode_t get_matched_subscription_participant_data(ParticipantBuiltinTopicData& participant_data,
                                                           const InstanceHandle_t& subscription_handle);

    Publisher* get_publisher();
    Topic* get_topic();
    ReturnCode_t get_qos(DataWriterQos& qos);
    // The GUID of the protocol writer.
    GUID_t getGuid();

    // ---- stubs with fixed results: the QoS and listener of creation stay in force
    DataWriterListener* get_listener();
    ReturnCode_t set_listener(DataWriterListener* listener, unsigned long mask);
    ReturnCode_t set_qos(const DataWriterQos& qos);
    ReturnCode_t get_liveliness_lost_status(LivelinessLostStatus& status);
    ReturnCode_t get_matched_subscriptions(InstanceHandleSeq& subscription_handles);
    ReturnCode_t get_offered_deadline_missed_status(OfferedDeadlineMissedStatus& status);
    ReturnCode_t get_offered_incompatible_qos_status(OfferedIncompatibleQosStatus& status);
    // Returns at once.
    ReturnCode_t wait_for_acknowledgments(const Duration_t& max_wait);

    DataWriterImpl* getImpl() const { return m_pDataWriterImpl; }

protected:
    friend class DataWriterImpl;

    // Installs itself as the Impl's facade; a facade already there is destroyed,
    // which is how the built-in writers put their own facades in place.
    explicit DataWriter(DataWriterImpl* pImpl);
    virtual ~DataWriter();
    DataWriter(const DataWriter&) = delete;
    DataWriter& operator=(const DataWriter&) = delete;

    ReturnCode_t StubResult() const { return RETCODE_OK; }

    DataWriterImpl* m_pDataWriterImpl;
};

#endif
