// State of a topic description: name, type name, owning participant, facade,
// and the one reader of the topic in this participant. Application threads
// create and delete it one at a time; the process thread reads it. No lock.
#ifndef MORVODDS_DCPS_TOPICDESCRIPTIONIMPL_H
#define MORVODDS_DCPS_TOPICDESCRIPTIONIMPL_H

#include <string>

#include "BasicTypes.h"
#include "QosPolicy.h"

class DataReaderImpl;
class DomainParticipantImpl;
class TopicDescription;

class TopicDescriptionImpl {
public:
    // Makes a plain TopicDescription facade; derived Impls replace it with their own.
    TopicDescriptionImpl(const std::string& strName, const std::string& strTypeName,
                         DomainParticipantImpl* pParticipant);
    // Destroys the facade.
    virtual ~TopicDescriptionImpl();

    TopicDescriptionImpl(const TopicDescriptionImpl&) = delete;
    TopicDescriptionImpl& operator=(const TopicDescriptionImpl&) = delete;

    virtual const std::string& get_type_name() const;
    virtual const std::string& get_name() const;
    // The base has no QoS: fills nothing, returns 0.
    virtual ReturnCode_t get_qos(TopicQos& qos);

    DomainParticipantImpl* getParticipant() const { return m_pParticipant; }
    TopicDescription* getFacade() const { return m_pTopicDescription; }
    // Called by each facade's constructor: destroys the facade it replaces.
    void setFacade(TopicDescription* pFacade);

    // Set by the subscriber side when it creates the reader, cleared on its deletion.
    DataReaderImpl* getDataReader() const { return m_pDataReaderImpl; }
    void setDataReader(DataReaderImpl* pDataReader) { m_pDataReaderImpl = pDataReader; }

protected:
    std::string m_strName;
    std::string m_strTypeName;
    DomainParticipantImpl* m_pParticipant;  // owner
    TopicDescription* m_pTopicDescription;  // owned facade
    DataReaderImpl* m_pDataReaderImpl;      // borrowed; null without a reader
};

#endif
