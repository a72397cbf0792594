// State of a publisher: owns its data writers and makes them. Application
// threads create and delete writers one at a time; Discovery reads the list
// from the process thread. No lock.
#ifndef MORVODDS_DCPS_PUBLISHERIMPL_H
#define MORVODDS_DCPS_PUBLISHERIMPL_H

#include <list>
#include <string>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "Entity.h"
#include "QosPolicy.h"

class DataWriterImpl;
class DomainParticipantImpl;
class Publisher;
class TopicImpl;
class Writer;

class PublisherImpl : public DomainEntity {
public:
    PublisherImpl(DomainParticipantImpl* pParticipant, const PublisherQos& qos, PublisherListener* pListener);
    // Deletes the writers one at a time through delete_datawriter, then the facade.
    ~PublisherImpl() override;

    PublisherImpl(const PublisherImpl&) = delete;
    PublisherImpl& operator=(const PublisherImpl&) = delete;

    // The topic is looked up by name in the participant. Null (and logged) when the
    // participant has no such topic or the protocol writer cannot be made.
    DataWriterImpl* create_datawriter(TopicImpl* pTopic, const DataWriterQos& qos, unsigned long mask,
                                      DataWriterListener* pListener);
    // 33 (logged) when the writer is not in this publisher; otherwise withdraws and
    // destroys it with its protocol writer and returns 0.
    ReturnCode_t delete_datawriter(DataWriterImpl* pDataWriter);
    // Every writer of the topic, in list order.
    std::list<DataWriterImpl*> lookup_datawriter(const std::string& strTopicName) const;

    ReturnCode_t get_qos(PublisherQos& qos) const;
    DomainParticipantImpl* getParticipant() const { return m_pParticipant; }
    Publisher* getFacade() const { return m_pPublisher; }
    void setFacade(Publisher* pFacade) { m_pPublisher = pFacade; }
    PublisherListener* getListener() const { return m_pListener; }
    const std::list<DataWriterImpl*>& getDataWriterImplList() const { return m_DataWriterImplList; }

private:
    // Entity id of a writer by its topic name: the four discovery topics have fixed ids.
    static EntityId_t WriterEntityIdFor(const std::string& strTopicName);
    // The writer that a static description made for this topic, or null. Also keeps
    // the participant's dynamic discovery flag for topics outside the description.
    DataWriterImpl* FindStaticWriter(const std::string& strTopicName);
    // Starts the reliable writer's periodic heartbeat.
    void InitStatefulWriter(Writer* pWriter, const std::string& strTopicName);
    // Hands a new application writer to Discovery.
    void AddToDiscovery(DataWriterImpl* pDataWriter);
    void WriteLog(const char* szText, const GUID_t& guid) const;

    Publisher* m_pPublisher;                // owned facade
    DomainParticipantImpl* m_pParticipant;  // owner
    PublisherQos m_Qos;
    PublisherListener* m_pListener;                   // stored, never called
    std::list<DataWriterImpl*> m_DataWriterImplList;  // owned
    // Writers whose protocol writer could not be made: in no list that anyone
    // searches, destroyed only with the publisher.
    std::list<DataWriterImpl*> m_HalfBuiltWriterList;
};

#endif
