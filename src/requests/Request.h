// One unit of outgoing work: a subclass composes and sends its message in Execute.
// Built by an endpoint on any thread; executed on the send thread, a timer thread
// or the writer's own thread. Only a leaf lock around the times; Execute takes
// the message lock itself.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "BasicTypes.h"

class MessageProcessor;
class MessageTransmitter;

// Results of Request::Execute. The schedulers ignore every result except
// REQUEST_EXECUTE_FINISHED, which ends a periodic request.
const uint32_t REQUEST_EXECUTE_OK = 0;
const uint32_t REQUEST_EXECUTE_FAILED = 1;
const uint32_t REQUEST_EXECUTE_FINISHED = 0x12345678;

// Type names set by the subclasses. Only "HeartBeat" changes how a request is
// queued (heartbeats of one endpoint merge); NackFragMessageRequest shares
// "Acknack" with AcknackMessageRequest on purpose.
extern const char* const REQUEST_TYPE_HEARTBEAT;
extern const char* const REQUEST_TYPE_DATA;
extern const char* const REQUEST_TYPE_DATA_L;
extern const char* const REQUEST_TYPE_DATA_READER_PROXY;
extern const char* const REQUEST_TYPE_FRAG_REPAIR;
extern const char* const REQUEST_TYPE_ACKNACK;

class Request {
public:
    virtual ~Request();

    // Composes and sends. REQUEST_EXECUTE_OK, REQUEST_EXECUTE_FAILED, or
    // REQUEST_EXECUTE_FINISHED when a periodic request has nothing more to do.
    virtual uint32_t Execute() = 0;

    // Topic name and log key (low 16 bits: domain id) for the request's log
    // lines. Returns 0. Both argument orders are accepted.
    int setTopicName(uint32_t uiDomainId, const std::string& strTopicName);
    int setTopicName(const std::string& strTopicName, uint32_t uiDomainId) {
        return setTopicName(uiDomainId, strTopicName);
    }
    // The same without a copy, for a request executed at once by its writer: the name must
    // outlive the request.
    void setTopicNameView(uint32_t uiDomainId, const std::string& strTopicName);

    // The times are read on the send and timer threads while the creator may
    // push them ahead (a writer does so with its periodic heartbeat), hence
    // the small lock.
    Time_t getStartTime() const;
    void setStartTime(const Time_t& startTime);
    Time_t getNextTime() const;
    void setNextTime(const Time_t& nextTime);
    uint32_t getPriority() const { return m_uiPriority; }
    void setPriority(uint32_t uiPriority) { m_uiPriority = uiPriority; }

    const std::string& getTypeName() const { return m_strTypeName; }
    bool isHeartbeat() const { return m_strTypeName == REQUEST_TYPE_HEARTBEAT; }
    const std::string& getTopicName() const { return *m_pTopicName; }
    uint32_t getDomainId() const { return m_uiDomainId; }
    const EntityId_t& getEntityId() const { return m_EntityId; }
    MessageProcessor* getMessageProcessor() const { return m_pMessageProcessor; }
    MessageTransmitter* getMessageTransmitter() const { return m_pMessageTransmitter; }

protected:
    // Subclass constructors take (entity id, own arguments, processor,
    // transmitter, start time, next time) and pass their type name here.
    Request(const char* szTypeName, const EntityId_t& entityId, MessageProcessor* pMessageProcessor,
            MessageTransmitter* pMessageTransmitter, const Time_t& startTime, const Time_t& nextTime);

    Time_t m_StartTime;  // when the creator made it ready
    Time_t m_NextTime;   // not to be executed before this
    std::string m_strTypeName;
    uint32_t m_uiPriority;                      // higher runs first
    uint32_t m_uiReserved;                      // always 0
    std::string m_strTopicName;                 // empty until setTopicName
    const std::string* m_pTopicName;            // m_strTopicName, or a view's string
    EntityId_t m_EntityId;                      // the local endpoint it works for
    MessageProcessor* m_pMessageProcessor;      // not owned
    MessageTransmitter* m_pMessageTransmitter;  // not owned
    uint32_t m_uiDomainId;                      // log key given with the topic name
    mutable std::mutex m_TimeMutex;             // leaf; guards the two times
};
