// Public facade of a topic. Borrowed: its TopicImpl owns it and destroys it.
// Application threads call it; no lock.
#ifndef MORVODDS_TOPIC_H
#define MORVODDS_TOPIC_H

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "TopicDescription.h"

class TopicImpl;

class Topic : public TopicDescription {
public:
    // Deep copy of the QoS of creation; returns 0.
    ReturnCode_t get_qos(TopicQos& qos);

    TopicImpl* getTopicImpl() const { return m_pTopicImpl; }

private:
    friend class TopicImpl;

    explicit Topic(TopicImpl* pImpl);
    ~Topic() override;

    TopicImpl* m_pTopicImpl;  // the same object as the base's Impl
};

#endif
