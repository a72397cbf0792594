// Public facade of one subscriber. It is borrowed: its SubscriberImpl owns it and
// destroys it. Application threads call it, one at a time for creations and
// deletions; it takes no lock.
#ifndef MORVODDS_SUBSCRIBER_H
#define MORVODDS_SUBSCRIBER_H

#include <string>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "QosPolicy.h"

class SubscriberImpl;
class DataReader;
class DomainParticipant;
class TopicDescription;

class Subscriber {
public:
    // A topic has at most one reader per participant: a second call on the same
    // topic returns the first reader and drops this call's QoS and listener.
    DataReader* create_datareader(TopicDescription* a_topic, const DataReaderQos& qos,
                                  DataReaderListener* a_listener, unsigned long mask);
    // 0 for a null reader (after a console line), 33 for one not in this subscriber.
    ReturnCode_t delete_datareader(DataReader* a_datareader);
    // The first reader of that topic name in this subscriber, or null.
    DataReader* lookup_datareader(const std::string& topic_name);

    ReturnCode_t get_qos(SubscriberQos& qos);
    DomainParticipant* get_participant();
    // Stores the listener; nothing ever calls it.
    ReturnCode_t set_listener(SubscriberListener* a_listener, unsigned long mask);

    // ---- stubs with fixed results
    SubscriberListener* get_listener();
    ReturnCode_t get_default_datareader_qos(DataReaderQos& qos);
    ReturnCode_t set_qos(const SubscriberQos& qos);

    SubscriberImpl* getImpl() const { return m_pSubscriberImpl; }

private:
    friend class SubscriberImpl;

    // Stores itself into the Impl's facade pointer.
    explicit Subscriber(SubscriberImpl* pImpl);
    ~Subscriber();
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;

    ReturnCode_t StubResult() const { return RETCODE_OK; }

    SubscriberImpl* m_pSubscriberImpl;
};

#endif
