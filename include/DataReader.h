// Public facade of one data reader. It is borrowed: its DataReaderImpl owns it and
// destroys it. Application threads call read and take while the process thread
// fills the cache; the facade takes no lock (the cache has its own).
//
// Buffers: every UserData::data handed over by read, take, read_next_sample and
// take_next_sample belongs to the application, which releases it with free()
// from <cstdlib>. return_loan frees nothing.
#ifndef MORVODDS_DATAREADER_H
#define MORVODDS_DATAREADER_H

#include <vector>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "QosPolicy.h"
#include "Sequence.h"
#include "StatusTypes.h"

class DataReaderImpl;
class Subscriber;
class TopicDescription;
struct ParticipantBuiltinTopicData;
struct PublicationBuiltinTopicData;

typedef sequence<SampleInfo> SampleInfoSeq;

class DataReader {
public:
    // The four read operations always return 0: an application learns that
    // nothing was there only from an empty vector or a UserData of length 0.
    // max_samples and the state masks are ignored.
    //
    // read copies every sample of the cache into new buffers and leaves the cache
    // as it is. take hands over the cache's own buffers, but only every other
    // entry per call (entries 0, 2, 4, ...): the rest stay for the next call and
    // the tail of the vector keeps null elements. Both resize the vector to the
    // number of samples held; pass an empty vector, as elements already there
    // and not overwritten are left as they are.
    ReturnCode_t read(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos, int max_samples,
                      unsigned sample_states, unsigned view_states, unsigned instance_states);
    ReturnCode_t take(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos, int max_samples,
                      unsigned sample_states, unsigned view_states, unsigned instance_states);
    // The newest sample, not the oldest. Once take_next_sample has taken the
    // newest, both find nothing until a newer sample arrives, even though older
    // ones wait in the cache.
    ReturnCode_t read_next_sample(UserData& data_value, SampleInfo& sample_info);
    ReturnCode_t take_next_sample(UserData& data_value, SampleInfo& sample_info);

    ReturnCode_t get_subscription_matched_status(SubscriptionMatchedStatus& status);
    ReturnCode_t get_matched_publication_data(PublicationBuiltinTopicData& publication_data,
                                              const InstanceHandle_t& publication_handle);
    // Asks for the participant of that writer: the handle's entity id is replaced
    // by the participant's.
    ReturnCode_t get_matched_publication_participant_data(ParticipantBuiltinTopicData& participant_data,
                                                          const InstanceHandle_t& publication_handle);

    Subscriber* get_subscriber();
    TopicDescription* get_topicdescription();
    ReturnCode_t get_qos(DataReaderQos& qos);
    DataReaderListener* get_listener();
    // GUID of the protocol reader.
    GUID_t getGuid();

    // ---- stubs with fixed results
    // Frees nothing; only the by-value sequence is destroyed.
    ReturnCode_t return_loan(UserData& data_value, SampleInfoSeq sample_infos);
    // Changes nothing: the listener of creation stays in force.
    ReturnCode_t set_listener(DataReaderListener* a_listener, unsigned long mask);
    ReturnCode_t set_qos(const DataReaderQos& qos);
    ReturnCode_t get_liveliness_changed_status(LivelinessChangedStatus& status);
    ReturnCode_t get_requested_deadline_missed_status(RequestedDeadlineMissedStatus& status);
    ReturnCode_t get_requested_incompatible_qos_status(RequestedIncompatibleQosStatus& status);
    ReturnCode_t get_sample_lost_status(SampleLostStatus& status);
    ReturnCode_t get_sample_rejected_statu(SampleRejectedStatus& status);

    DataReaderImpl* getImpl() const { return m_pDataReaderImpl; }

protected:
    friend class DataReaderImpl;

    // Installs itself as the Impl's facade; a facade the Impl already has is
    // deleted, so that built-in subclasses replace the plain one.
    explicit DataReader(DataReaderImpl* pImpl);
    virtual ~DataReader();
    DataReader(const DataReader&) = delete;
    DataReader& operator=(const DataReader&) = delete;

    ReturnCode_t StubResult() const { return RETCODE_OK; }

    DataReaderImpl* m_pDataReaderImpl;
};

#endif
