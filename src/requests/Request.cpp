#include "requests/Request.h"

const char* const REQUEST_TYPE_HEARTBEAT = "HeartBeat";
const char* const REQUEST_TYPE_DATA = "Data";
const char* const REQUEST_TYPE_DATA_L = "Data_L";
const char* const REQUEST_TYPE_DATA_READER_PROXY = "DataMessageWithReaderProxy";
const char* const REQUEST_TYPE_FRAG_REPAIR = "FragRepair";
const char* const REQUEST_TYPE_ACKNACK = "Acknack";

Request::Request(const char* szTypeName, const EntityId_t& entityId, MessageProcessor* pMessageProcessor,
                 MessageTransmitter* pMessageTransmitter, const Time_t& startTime, const Time_t& nextTime)
    : m_StartTime(startTime),
      m_NextTime(nextTime),
      m_strTypeName(szTypeName != nullptr ? szTypeName : ""),
      m_uiPriority(0),
      m_uiReserved(0),
      m_strTopicName(),
      m_pTopicName(&m_strTopicName),
      m_EntityId(entityId),
      m_pMessageProcessor(pMessageProcessor),
      m_pMessageTransmitter(pMessageTransmitter),
      m_uiDomainId(0) {}

Request::~Request() {}

int Request::setTopicName(uint32_t uiDomainId, const std::string& strTopicName) {
    m_uiDomainId = uiDomainId;
    m_strTopicName = strTopicName;
    m_pTopicName = &m_strTopicName;
    return 0;
}

void Request::setTopicNameView(uint32_t uiDomainId, const std::string& strTopicName) {
    m_uiDomainId = uiDomainId;
    m_pTopicName = &strTopicName;
}

Time_t Request::getStartTime() const {
    std::lock_guard<std::mutex> lock(m_TimeMutex);
    return m_StartTime;
}

void Request::setStartTime(const Time_t& startTime) {
    std::lock_guard<std::mutex> lock(m_TimeMutex);
    m_StartTime = startTime;
}

Time_t Request::getNextTime() const {
    std::lock_guard<std::mutex> lock(m_TimeMutex);
    return m_NextTime;
}

void Request::setNextTime(const Time_t& nextTime) {
    std::lock_guard<std::mutex> lock(m_TimeMutex);
    m_NextTime = nextTime;
}
