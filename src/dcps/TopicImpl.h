// State of a topic: the description plus a deep copy of its QoS and the
// listener of creation (stored, never called). Application threads create and
// delete it one at a time; other threads only read it. No lock.
#ifndef MORVODDS_DCPS_TOPICIMPL_H
#define MORVODDS_DCPS_TOPICIMPL_H

#include <string>

#include "DDSListener.h"
#include "Entity.h"
#include "QosPolicy.h"
#include "dcps/TopicDescriptionImpl.h"

class Topic;

class TopicImpl : public TopicDescriptionImpl, public DomainEntity {
public:
    // Replaces the base's plain facade with a Topic.
    TopicImpl(const std::string& strName, const std::string& strTypeName, DomainParticipantImpl* pParticipant,
              const TopicQos& qos, TopicListener* pListener);
    ~TopicImpl() override;

    // Deep copy; returns 0.
    ReturnCode_t get_qos(TopicQos& qos) override;

    Topic* getTopic() const;
    TopicListener* getListener() const { return m_pListener; }

private:
    TopicQos m_Qos;
    TopicListener* m_pListener;  // borrowed; never called
};

#endif
