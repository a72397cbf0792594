// State of one subscriber: its QoS copy and the data readers it owns. Application
// threads call it one at a time (creation and deletion of readers); Discovery
// reaches the built-in one while the participant starts. It takes no lock.
#ifndef MORVODDS_DCPS_SUBSCRIBERIMPL_H
#define MORVODDS_DCPS_SUBSCRIBERIMPL_H

#include <list>
#include <string>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "Entity.h"
#include "QosPolicy.h"
#include "Subscriber.h"

class DomainParticipantImpl;
class DataReaderImpl;
class TopicDescription;
class TopicDescriptionImpl;

class SubscriberImpl : public DomainEntity {
public:
    SubscriberImpl(DomainParticipantImpl* pParticipant, const SubscriberQos& qos,
                   SubscriberListener* pListener, unsigned long mask);
    // Deletes the readers one at a time, always the first in the list, then the facade.
    virtual ~SubscriberImpl();

    SubscriberImpl(const SubscriberImpl&) = delete;
    SubscriberImpl& operator=(const SubscriberImpl&) = delete;

    // Null when the topic is unknown to the participant or no protocol reader
    // could be made; the reader the description already has when there is one.
    DataReaderImpl* create_datareader(TopicDescription* pTopic, const DataReaderQos& qos,
                                      DataReaderListener* pListener, unsigned long mask);
    // 0, or 33 when the reader is not in this subscriber.
    ReturnCode_t delete_datareader(DataReaderImpl* pDataReaderImpl);
    // The first reader whose topic has this name, or null.
    DataReaderImpl* lookup_datareader(const std::string& topic_name);

    ReturnCode_t get_qos(SubscriberQos& qos) const;
    ReturnCode_t set_listener(SubscriberListener* pListener, unsigned long mask);
    SubscriberListener* getListener() const { return m_pListener; }

    Subscriber* getFacade() const { return m_pSubscriber; }
    void setFacade(Subscriber* pFacade) { m_pSubscriber = pFacade; }
    DomainParticipantImpl* getParticipant() const { return m_pParticipant; }
    std::list<DataReaderImpl*>& getDataReaderImplList() { return m_DataReaderImplList; }

    // The protocol-level entity id of a reader on this topic name: the built-in
    // reader ids for the four built-in names, ENTITYID_UNKNOWN (allot one) otherwise.
    static EntityId_t ReaderEntityIdOf(const std::string& topic_name);

private:
    // Port of a multicast setting without one: the user unicast port formula
    // over the domain id and participant id.
    void FillMulticastPorts(DataReaderQos& qos) const;
    void Log(const char* szText) const;

    Subscriber* m_pSubscriber;                        // owned facade
    DomainParticipantImpl* m_pParticipant;            // owner
    SubscriberQos m_Qos;                              // deep copy
    SubscriberListener* m_pListener;                  // stored, never called
    std::list<DataReaderImpl*> m_DataReaderImplList;  // owned readers
    [[maybe_unused]] unsigned long m_Mask;            // of creation; not read
    // Readers whose protocol reader could not be made: their topic still names
    // them, but no list that anyone searches holds them. Destroyed with this subscriber.
    std::list<DataReaderImpl*> m_HalfBuiltReaderList;
};

#endif
