// Public facade of a topic description: a name and a type name. Borrowed: the
// TopicDescriptionImpl owns it and destroys it. Application threads call it; no lock.
#ifndef MORVODDS_TOPICDESCRIPTION_H
#define MORVODDS_TOPICDESCRIPTION_H

class DomainParticipant;
class TopicDescriptionImpl;

class TopicDescription {
public:
    // C strings of the Impl's own strings, valid as long as the Impl lives.
    const char* get_name();
    const char* get_type_name();
    DomainParticipant* get_participant();

    TopicDescriptionImpl* getImpl() const { return m_pTopicDescriptionImpl; }

protected:
    friend class TopicDescriptionImpl;

    // Installs itself as the Impl's facade; a facade already there is destroyed.
    explicit TopicDescription(TopicDescriptionImpl* pImpl);
    virtual ~TopicDescription();
    TopicDescription(const TopicDescription&) = delete;
    TopicDescription& operator=(const TopicDescription&) = delete;

    TopicDescriptionImpl* m_pTopicDescriptionImpl;
};

#endif
