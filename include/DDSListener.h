// Listener bases. Callbacks run on the participant's process thread or on a
// timer thread; an application listener must not block for long.
#ifndef MORVODDS_DDSLISTENER_H
#define MORVODDS_DDSLISTENER_H

#include "StatusTypes.h"

class DataReader;
class DataWriter;
class Topic;
struct SPDPdiscoveredParticipantData;
struct DiscoveredReaderData;
struct DiscoveredWriterData;

class DDSListener {
public:
    virtual ~DDSListener() {}
};

class DataReaderListener : public DDSListener {
public:
    virtual ~DataReaderListener() {}
    virtual void on_data_available(DataReader* reader) { (void)reader; }
    virtual void on_sample_lost(DataReader* reader, const SampleLostStatus& status) {
        (void)reader;
        (void)status;
    }
    virtual void on_liveliness_changed(DataReader* reader, const LivelinessChangedStatus& status) {
        (void)reader;
        (void)status;
    }
    virtual void on_requested_deadline_missed(DataReader* reader,
                                              const RequestedDeadlineMissedStatus& status) {
        (void)reader;
        (void)status;
    }
    virtual void on_sample_rejected(DataReader* reader, const SampleRejectedStatus& status) {
        (void)reader;
        (void)status;
    }
    virtual void on_subscription_matched(DataReader* reader, const SubscriptionMatchedStatus& status) {
        (void)reader;
        (void)status;
    }
    virtual void on_requested_incompatible_missed(DataReader* reader,
                                                  const RequestedIncompatibleQosStatus& status) {
        (void)reader;
        (void)status;
    }
};

class DataWriterListener : public DDSListener {
public:
    virtual ~DataWriterListener() {}
    virtual void on_liveliness_lost(DataWriter* writer, const LivelinessLostStatus& status) {
        (void)writer;
        (void)status;
    }
    virtual void on_offered_deadline_missed(DataWriter* writer, const OfferedDeadlineMissedStatus& status) {
        (void)writer;
        (void)status;
    }
    virtual void on_offered_incompatible_qos(DataWriter* writer, const OfferedIncompatibleQosStatus& status) {
        (void)writer;
        (void)status;
    }
    virtual void on_publication_matched(DataWriter* writer, const PublicationMatchedStatus& status) {
        (void)writer;
        (void)status;
    }
};

class TopicListener : public DDSListener {
public:
    virtual ~TopicListener() {}
};

class PublisherListener : public DataWriterListener {
public:
    virtual ~PublisherListener() {}
};

class SubscriberListener : public DataReaderListener {
public:
    virtual ~SubscriberListener() {}
};

// The discovery callbacks are this system's own: Discovery reports every change
// of its remote tables through them to the monitor listener.
class DomainParticipantListener : public DataReaderListener, public DataWriterListener {
public:
    virtual ~DomainParticipantListener() {}
    virtual void on_participant_discovery_changed(const SPDPdiscoveredParticipantData& data,
                                                  const InstanceHandle_t& handle) {
        (void)data;
        (void)handle;
    }
    virtual void on_subscription_discovery_changed(const DiscoveredReaderData& data,
                                                   const InstanceHandle_t& handle) {
        (void)data;
        (void)handle;
    }
    virtual void on_publication_discovery_changed(const DiscoveredWriterData& data,
                                                  const InstanceHandle_t& handle) {
        (void)data;
        (void)handle;
    }
};

#endif
