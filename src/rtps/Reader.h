// Abstract protocol reader: its delivery cache, QoS copy and the participant's
// schedulers. The receive operations run on the process thread with the reader
// borrowed from the Participant's endpoint map; no lock of its own.
#pragma once

#include <cstdint>
#include <list>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "messages/SubMessages.h"
#include "rtps/Endpoint.h"

class HistoryCache;
class RequestScheduler;
class ReaderDataSink;

class Reader : public Endpoint {
public:
    // pSchedulers: element 0 the immediate, element 1 the periodic scheduler
    // (may be null, giving no schedulers).
    Reader(const GUID_t& guidValue, const DataReaderQos& attributes, RequestScheduler* const* pSchedulers);
    // The delivery cache belongs to the DataReaderImpl.
    ~Reader() override;

    int getEndpointDuration(Time_t& duration) override;

    // Results: 0 handled or ignored, 1 refused. Payload pointers are valid only
    // during the call.
    virtual int DataMessageReceive(const MessageReceiver& receiver, const DataSubMessage& message,
                                   const std::list<Parameter>& inlineQos, const octet* pData,
                                   uint32_t uiLength) = 0;
    virtual int DataFragMessageReceive(const MessageReceiver& receiver, const DataFragSubMessage& message,
                                       const dataFrag& fragment, const std::list<Parameter>& inlineQos,
                                       const octet* pData, uint32_t uiLength) = 0;
    virtual int HeartBeatMessageReceive(const MessageReceiver& receiver,
                                        const heartBeatSubMessage& message) = 0;
    virtual int GapMessageReceive(const MessageReceiver& receiver, const stGapSubMessage& message) = 0;
    // Last step of Participant::createReader. Returns 0.
    virtual int afterCreate();

    // The layer above (the DataReaderImpl) through its narrow sink interface.
    void setDataReader(ReaderDataSink* pDataReader) { m_DataReader = pDataReader; }
    ReaderDataSink* getDataReader() const { return m_DataReader; }
    // Sets the delivery cache.
    void setReaderCache(HistoryCache* pCache) { m_ReaderCache = pCache; }
    HistoryCache* getReaderCache() const { return m_ReaderCache; }
    const DataReaderQos& getQos() const { return m_Qos; }
    RequestScheduler* getScheduler(int iIndex) const;

protected:
    HistoryCache* m_ReaderCache;     // owned by the DataReaderImpl
    Time_t m_Duration;               // answered by getEndpointDuration
    SequenceNumber_t m_ReservedSeq;  // not read
    RequestScheduler* m_Schedulers[2];
    ReaderDataSink* m_DataReader;  // not owned; the layer above
    SequenceNumber_t m_LastSeq;
    DataReaderQos m_Qos;
};
