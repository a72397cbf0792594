// The one class that knows the wire format: composes outgoing messages in one
// growing buffer (Encapsulate*, called by requests on the send and timer threads
// with the message lock held) and decodes datagrams on the process thread.
// The encoder takes no lock itself; the decoder never takes the message lock.
#ifndef MORVODDS_MESSAGES_MESSAGEPROCESSOR_H
#define MORVODDS_MESSAGES_MESSAGEPROCESSOR_H

#include <atomic>
#include <cstdint>
#include <list>

#include "BasicTypes.h"
#include "core/Mutex.h"
#include "messages/SubMessages.h"

class Participant;
class ReceiveBuffer;
class Writer;

// ---------------------------------------------------------------- processor
class MessageProcessor {
public:
    // prefix is what the message header carries; the owner may be null when only
    // the encoder is used.
    MessageProcessor(Participant* pOwner, ReceiveBuffer* pReceiveBuffer, const GuidPrefix& prefix,
                     int iLogKey);
    virtual ~MessageProcessor();

    MessageProcessor(const MessageProcessor&) = delete;
    MessageProcessor& operator=(const MessageProcessor&) = delete;

    // ------------------------------------------------ message lock
    // Held by a request from EncapsulateMessageHeader to the last MessageSend.
    int lockMessage();
    int unlockMessage();

    // ------------------------------------------------ encoder (message lock held)
    // Each appends at uiMessageLen, advances it, and returns the buffer, or null
    // when the buffer could not grow. A call may move the buffer: take it for
    // sending from getEncapsulateMessage after the last append.
    octet* EncapsulateMessageHeader(uint32_t& uiMessageLen);
    octet* EncapsulateINFODSTMessage(uint32_t& uiMessageLen, const GuidPrefix& dstPrefix);
    octet* EncapsulateINFOTSMessage(uint32_t& uiMessageLen, const Time_t& timestamp);

    // The Writer* forms only read the writer's entity id and are defined in the rtps
    // layer, which forwards to the EntityId_t forms below; this keeps messages free of rtps.
    octet* EncapsulateDATAMessage(uint32_t& uiMessageLen, const octet* pData, uint32_t uiDataLen,
                                  const SequenceNumber_t& writerSN, const std::list<Parameter>& inlineQos,
                                  Writer* pWriter);
    octet* EncapsulateDATAFragMessage(uint32_t& uiMessageLen, const octet* pFragment, uint32_t uiFragmentLen,
                                      uint32_t uiFragmentNum, uint32_t uiSampleSize,
                                      const SequenceNumber_t& writerSN, const std::list<Parameter>& inlineQos,
                                      Writer* pWriter);
    octet* EncapsulateDATAMessage(uint32_t& uiMessageLen, const octet* pData, uint32_t uiDataLen,
                                  const SequenceNumber_t& writerSN, const std::list<Parameter>& inlineQos,
                                  const EntityId_t& writerId);
    // uiFragmentNum counts from 1.
    octet* EncapsulateDATAFragMessage(uint32_t& uiMessageLen, const octet* pFragment, uint32_t uiFragmentLen,
                                      uint32_t uiFragmentNum, uint32_t uiSampleSize,
                                      const SequenceNumber_t& writerSN, const std::list<Parameter>& inlineQos,
                                      const EntityId_t& writerId);

    octet* EncapsulateHeartBeatMessage(uint32_t& uiMessageLen, const EntityId_t& writerId,
                                       const SequenceNumber_t& firstSN, const SequenceNumber_t& lastSN,
                                       int32_t iCount);
    octet* EncapsulateAckNackMessage(uint32_t& uiMessageLen, const EntityId_t& writerId,
                                     const EntityId_t& readerId, const SequenceNumberSet& readerSNState);
    octet* EncapsulateGapMessage(uint32_t& uiMessageLen, const EntityId_t& writerId,
                                 const EntityId_t& readerId, const SequenceNumber_t& gapStart,
                                 const SequenceNumberSet& gapList);
    // Forces word 0 of the caller's set to 0x80000000 when it has bits.
    octet* EncapsulateNackFragMessage(uint32_t& uiMessageLen, const EntityId_t& writerId,
                                      const EntityId_t& readerId, const SequenceNumber_t& writerSN,
                                      FragmentNumberSet& fragmentNumberState);

    // Overwrite the readerId of the last HEARTBEAT/GAP or DATA/DATA_FRAG.
    octet* modifyHeartBeatReaderId(const EntityId_t& readerId);
    octet* modifyDataReaderId(const EntityId_t& readerId);

    octet* getEncapsulateMessage() const { return m_pEncapsulateMessage; }
    uint32_t getEncapsulateMessageSize() const { return m_uiEncapsulateMessageSize; }
    uint32_t getDstGuidPrefixPos() const { return m_uiDstGuidPrefixPos; }
    uint32_t getDataReaderIdPos() const { return m_uiDataReaderIdPos; }
    uint32_t getHeartBeatReaderIdPos() const { return m_uiHeartBeatReaderIdPos; }
    uint32_t getLocalEndianness() const { return m_uiLocalEndianness; }

    // The participant writes its address into the prefix after this object exists,
    // and hands the final prefix over here.
    void setGuidPrefix(const GuidPrefix& prefix) { m_GuidPrefix = prefix; }
    const GuidPrefix& getGuidPrefix() const { return m_GuidPrefix; }
    int getLogKey() const { return m_iLogKey; }
    Participant* getOwner() const { return m_pOwner; }
    ReceiveBuffer* getReceiveBuffer() const { return m_pReceiveBuffer; }

    // Largest capacity the buffer may double to; growth beyond it fails as an
    // allocation would. Lets tests reach the failure path.
    void setEncapsulateMessageLimit(uint32_t uiLimit) { m_uiEncapsulateMessageLimit = uiLimit; }

    // ------------------------------------------------ process thread control
    bool IsRunning() const { return m_bRun.load() != 0; }
    void Stop() { m_bRun.store(0); }
    // Stop() and a wake of the ring's wait, so a stop takes milliseconds, not a
    // second. The owner then polls IsStopped as before.
    void RequestStop();
    bool IsStopped() const { return m_bStopped.load() != 0; }

    // ------------------------------------------------ decoder (process thread)
    // The decoder reads datagrams in a zeroed buffer of this size; the zeros behind
    // a datagram end the submessage walk.
    static constexpr uint32_t MESSAGE_BUFFER_SIZE = 65536;
    // Walk result when the last submessage had no handler (the zeros behind the
    // datagram read as one of kind 0).
    static constexpr int INTERPRET_NO_HANDLER = 29;
    // Handler and walk result when a submessage runs past the buffer or its own
    // length: nothing is delivered and the walk stops.
    static constexpr int INTERPRET_CUT = 2;

    // Thread entry; the argument is the processor. Returns 0.
    static unsigned int ProcessRun(void* pParam);
    // pBuffer holds MESSAGE_BUFFER_SIZE bytes. 0, or 1 when nothing could be read.
    // On return the buffer holds the datagram (cut at its end) and zeros behind it.
    int InterpretMessage(octet* pBuffer);
    // The loop's form, for a buffer that stays with the caller between calls and
    // is not written by it: uiUsed tells how many leading bytes may be non-zero
    // (MESSAGE_BUFFER_SIZE when unknown, 0 for a zeroed buffer), and only those
    // are cleared; on return it tells the same of this call's datagram.
    int InterpretMessage(octet* pBuffer, uint32_t& uiUsed);
    // Runs the same walk on a datagram given by the caller instead of the receive
    // ring (tests, fuzzing): copies it into a zeroed buffer of MESSAGE_BUFFER_SIZE
    // (a longer one is cut there, as the ring cuts it) and returns the walk's result.
    int InterpretDatagram(const octet* pData, uint32_t uiLength);

    // pMessage must have 20 bytes. Returns 0.
    int InterpretMessageHeader(octet*& pMessage, MessageReceiver& receiver);
    // pBufferEnd is one past the decode buffer; nothing at or behind it is read.
    // Result of the last handler, INTERPRET_NO_HANDLER or INTERPRET_CUT.
    int InterpretSubMessage(octet*& pMessage, MessageReceiver& receiver, const octet* pBufferEnd);
    // Handlers: header is the walk's copy (length already in host order) and
    // pSubMessage + 4 + header.octetsToNextHeader must not pass pBufferEnd.
    // 0, 1 when no endpoint was found, INTERPRET_CUT when the submessage is cut.
    int InterpretAckNackMessage(octet* pSubMessage, const subMessageHeader& header, MessageReceiver& receiver,
                                const octet* pBufferEnd);
    int InterpretHeartbeatMessage(octet* pSubMessage, const subMessageHeader& header,
                                  MessageReceiver& receiver, const octet* pBufferEnd);
    int InterpretGapMessage(octet* pSubMessage, const subMessageHeader& header, MessageReceiver& receiver,
                            const octet* pBufferEnd);
    int InterpretInfoTSMessage(octet* pSubMessage, const subMessageHeader& header, MessageReceiver& receiver,
                               const octet* pBufferEnd);
    int InterpretInfoDstMessage(octet* pSubMessage, const subMessageHeader& header, MessageReceiver& receiver,
                                const octet* pBufferEnd);
    int InterpretNackFragMessage(octet* pSubMessage, const subMessageHeader& header,
                                 MessageReceiver& receiver, const octet* pBufferEnd);
    int InterpretDataMessage(octet* pSubMessage, const subMessageHeader& header, MessageReceiver& receiver,
                             const octet* pBufferEnd);
    int InterpretDataFragMessage(octet* pSubMessage, const subMessageHeader& header,
                                 MessageReceiver& receiver, const octet* pBufferEnd);
    // Reads parameters up to and including the sentinel; pEnd bounds the reads.
    // 0, or INTERPRET_CUT when the list runs past pEnd (pMessage then stays <= pEnd).
    int InterpretInlineQoS(octet*& pMessage, const octet* pEnd, std::list<Parameter>& inlineQos);

private:
    // 0 on success; 1 when the larger array could not be had (the buffer is then null).
    int DoubleEncapsulateMessageSize();
    // Doubles until uiNeeded bytes fit; 0 on success, 1 on failure (nothing logged).
    int EnsureCapacity(uint64_t uiNeeded);
    // Appends the inline parameters at uiPos; 0, or 1 when growing failed.
    int AppendInlineQos(uint32_t& uiPos, const std::list<Parameter>& inlineQos);
    bool TraceOn() const;
    void LogText(const char* pText, int iCode);
    // Steps 3 to 5 of InterpretMessage, shared by the ring and InterpretDatagram.
    // pBuffer holds MESSAGE_BUFFER_SIZE bytes. Returns the walk's result.
    int InterpretBuffer(octet* pBuffer, uint32_t uiMessageLen);

    std::atomic<uint8_t> m_bRun;
    std::atomic<uint8_t> m_bStopped;
    Participant* m_pOwner;            // not owned
    ReceiveBuffer* m_pReceiveBuffer;  // not owned
    Mutex m_MessageMutex;
    octet* m_pEncapsulateMessage;
    uint32_t m_uiEncapsulateMessageSize;
    uint32_t m_uiEncapsulateDirty;  // octets from 0 that may be non-zero since the last clear
    uint32_t m_uiLocalEndianness;
    uint32_t m_uiDstGuidPrefixPos;  // recorded, read by nothing
    uint32_t m_uiDataReaderIdPos;
    uint32_t m_uiHeartBeatReaderIdPos;
    GuidPrefix m_GuidPrefix;
    int m_iLogKey;
    uint32_t m_uiEncapsulateMessageLimit;
};

#endif
