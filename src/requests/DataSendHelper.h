// What the three data send requests share: borrowing the writer, the message
// front (header and INFO_TS), one DATA or a series of DATA_FRAG of fixed size,
// each handed to the transmitter, and the request log lines. Called by a
// request with the message lock held; takes no lock but the writer's borrow.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include "BasicTypes.h"
#include "messages/SubMessages.h"
#include "rtps/EndpointLoan.h"  // layer-ok: requests borrow their writer from the participant's registry

class CacheChange;
class MessageProcessor;
class MessageTransmitter;
class Writer;

class DataSendHelper {
public:
    // What leaves the host of one change, read from it once.
    struct Sample {
        const octet* pData;
        uint32_t uiDataLength;
        SequenceNumber_t sequenceNumber;
        Time_t sourceTimestamp;
        const std::list<Parameter>* pInlineQos;  // never null
    };

    enum FrontResult { FRONT_OK = 0, FRONT_HEADER_FAILED = 1, FRONT_INFOTS_FAILED = 2 };

    static Sample SampleOf(const CacheChange& change);
    // Frees the payload, then the record; nulls the pointer. Null is ignored.
    static void DeleteChange(CacheChange*& pChange);

    // Up to FRAGMENT_SIZE octets travel as one DATA.
    static bool IsSingleData(uint32_t uiDataLength) { return uiDataLength < FRAGMENT_SIZE + 1; }
    // (length - 1) / FRAGMENT_SIZE + 1; 0 for an empty sample.
    static uint32_t FragmentCount(uint32_t uiDataLength);
    // FRAGMENT_SIZE, except for the last fragment: the length modulo FRAGMENT_SIZE,
    // which is 0 for an exact multiple (that last stretch is never sent).
    static uint32_t FragmentLength(uint32_t uiDataLength, uint32_t uiIndex);

    // Existence through the processor's participant; false without one.
    static bool WriterExists(MessageProcessor* pProcessor, const EntityId_t& writerId);
    // Borrows the writer, waiting while another thread holds it. Empty when it has gone, was
    // left taken, or is not a writer (which is then given back at once).
    static EndpointLoan BorrowWriter(MessageProcessor* pProcessor, const EntityId_t& writerId);
    static std::list<Locator_t> SourcesOf(const Writer* pWriter);

    // Message header then INFO_TS with the sample's timestamp, from length 0.
    static FrontResult ComposeFront(MessageProcessor* pProcessor, uint32_t& uiMessageLen,
                                    const Sample& sample);
    // Appends the whole sample as one DATA; the buffer, or null on failure.
    static octet* AppendData(MessageProcessor* pProcessor, uint32_t& uiMessageLen, const Sample& sample,
                             Writer* pWriter);
    // One MessageSend of the buffer as it stands, from every source to every destination.
    static void Send(MessageProcessor* pProcessor, MessageTransmitter* pTransmitter,
                     const std::list<Locator_t>& sources, const std::list<Locator_t>& destinations,
                     uint32_t uiMessageLen);
    // One message per fragment, each rebuilt on the front of uiFrontLen octets,
    // in ascending order; afterSend gets each fragment number (from 1) once its
    // message has gone. 0, or 1 when the encoder failed (the series stops there).
    static int SendFragments(MessageProcessor* pProcessor, MessageTransmitter* pTransmitter,
                             uint32_t uiFrontLen, const Sample& sample, Writer* pWriter,
                             const std::list<Locator_t>& sources, const std::list<Locator_t>& destinations,
                             const std::function<void(uint32_t)>& afterSend);

    // Who sends, and under which key and topic its log lines go.
    struct Route {
        MessageProcessor* pProcessor;
        MessageTransmitter* pTransmitter;
        uint32_t uiLogKey;
        const char* szTopicName;
    };
    // The log texts of one send; each is given the topic name, then the
    // sequence number, then (per fragment) the fragment number. A null text is not logged.
    struct Texts {
        const char* szEncodeFailed;  // INFO, the encoder failed
        const char* szSent;          // WRITE when traced, after each message has gone
        const char* szSeriesDone;    // WRITE when traced, after the last fragment
    };

    // ComposeFront with the message lock held; on failure gives the lock back,
    // logs the matching text (INFO) and is false.
    static bool ComposeFrontOrFail(const Route& route, uint32_t& uiMessageLen, const Sample& sample,
                                   const char* szHeaderFailed, const char* szInfoTsFailed);
    // BorrowWriter when the id exists. A writer that is missing, or that accept
    // (when given) turns down, is given back, szFailed logged (INFO) and the loan is empty.
    static EndpointLoan BorrowWriterOrFail(const Route& route, const EntityId_t& writerId,
                                           const char* szFailed, bool (*accept)(const Writer*) = nullptr);
    // One DATA from the borrowed writer: AppendData, afterEncode(encoded) when given, then
    // on failure the writer back (when bGiveBack) and szEncodeFailed, 1; else the writer
    // back (when bGiveBack), Send, the szSent trace, 0.
    static int SendData(const Route& route, uint32_t uiMessageLen, const Sample& sample, EndpointLoan& writer,
                        bool bGiveBack, const std::list<Locator_t>& sources,
                        const std::list<Locator_t>& destinations, bool bTrace, const Texts& texts,
                        const std::function<void(bool)>& afterEncode = nullptr);
    // SendFragments with the szSent trace and afterSend after each; on failure
    // the writer back (when bGiveBack) and szEncodeFailed, 1; else the
    // szSeriesDone trace, the writer back (when bGiveBack), 0.
    static int SendFragmentSeries(const Route& route, uint32_t uiFrontLen, const Sample& sample,
                                  EndpointLoan& writer, bool bGiveBack, const std::list<Locator_t>& sources,
                                  const std::list<Locator_t>& destinations, bool bTrace, const Texts& texts,
                                  const std::function<void(uint32_t)>& afterSend = nullptr);

    // The domain's query topic test that guards the numbered send traces.
    static bool QueryTraceOn(uint32_t uiLogKey, const std::string& strTopicName);
    // Formats into a 200-character buffer and writes it under iCode.
    static void Log(uint32_t uiLogKey, int iCode, const char* szFormat, ...)
        __attribute__((format(printf, 3, 4)));
};
