// Public facade of a publisher. Borrowed: its PublisherImpl owns it and destroys
// it. Application threads call it, one at a time for creations and deletions; no lock.
#ifndef MORVODDS_PUBLISHER_H
#define MORVODDS_PUBLISHER_H

#include <list>
#include <string>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "QosPolicy.h"

class DataWriter;
class DomainParticipant;
class PublisherImpl;
class Topic;

class Publisher {
public:
    // Null for a null topic or one that this participant does not hold. On a
    // participant with a static description, a writer that the description
    // already made is returned as it stands, whatever the QoS and listener.
    DataWriter* create_datawriter(Topic* topic, const DataWriterQos& qos, DataWriterListener* listener,
                                  unsigned long mask);
    // 1 for a null writer, 33 for a writer of another publisher, otherwise 0.
    ReturnCode_t delete_datawriter(DataWriter* writer);
    // Every writer of the topic, in creation order; empty when there is none.
    std::list<DataWriter*> lookup_datawriter(const std::string& topic_name);

    ReturnCode_t get_qos(PublisherQos& qos);
    DomainParticipant* get_participant();
    // Fills nothing; returns 0.
    ReturnCode_t get_default_datawriter_qos(DataWriterQos& qos);

    PublisherImpl* getImpl() const { return m_pPublisherImpl; }

private:
    friend class PublisherImpl;

    // Stores itself into the Impl's facade pointer.
    explicit Publisher(PublisherImpl* pImpl);
    ~Publisher();
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    PublisherImpl* m_pPublisherImpl;
};

#endif
