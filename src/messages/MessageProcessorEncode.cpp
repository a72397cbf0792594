// The encoding face of MessageProcessor. Every field is written as its
// little-endian image byte by byte, so the output does not depend on the host.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "DDSLogManagementFactory.h"
#include "messages/MessageProcessor.h"

namespace {
const octet FLAG_E = 0x01;
const octet FLAG_2 = 0x02;  // inline QoS (DATA), Final-like (ACKNACK, NACK_FRAG)
const octet FLAG_DATA = 0x04;
const uint16_t INLINE_QOS_OFFSET = 16;
// Slack demanded before each inline parameter beyond its value bytes.
const uint32_t PARAMETER_RESERVE = 134;

void PutU16(octet* p, uint16_t v) {
    p[0] = octet(v);
    p[1] = octet(v >> 8);
}

void PutU32(octet* p, uint32_t v) {
    p[0] = octet(v);
    p[1] = octet(v >> 8);
    p[2] = octet(v >> 16);
    p[3] = octet(v >> 24);
}

void PutSeq(octet* p, const SequenceNumber_t& sn) {
    PutU32(p, uint32_t(sn.high));
    PutU32(p + 4, sn.low);
}

void PutEntity(octet* p, const EntityId_t& id) {
    p[0] = id.entityKey[0];
    p[1] = id.entityKey[1];
    p[2] = id.entityKey[2];
    p[3] = id.entityKind;
}

void PutSubHeader(octet* p, octet kind, octet flags, uint16_t octetsToNextHeader) {
    p[0] = kind;
    p[1] = flags;
    PutU16(p + 2, octetsToNextHeader);
}

// Bytes of bitmap behind numBits; a set never holds more than eight words.
uint32_t BitmapBytes(uint32_t numBits) {
    if (numBits == 0) return 0;
    uint32_t uiWords = (numBits - 1) / 32 + 1;
    return (uiWords > 8 ? 8 : uiWords) * 4;
}

void PutBitmap(octet* p, const uint32_t* pBitmap, uint32_t uiBytes) {
    for (uint32_t i = 0; i < uiBytes / 4; ++i) PutU32(p + 4 * i, pBitmap[i]);
}

// Fixed front shared by DATA and DATA_FRAG; octetsToNextHeader comes last.
void PutDataFront(octet* p, octet kind, octet flags, bool bInlineQos, const EntityId_t& writerId,
                  const SequenceNumber_t& writerSN) {
    PutSubHeader(p, kind, flags, 0);
    PutU16(p + 4, 0);  // extraFlags
    PutU16(p + 6, bInlineQos ? INLINE_QOS_OFFSET : 0);
    PutEntity(p + 8, ENTITYID_UNKNOWN);  // readerId, patched later where needed
    PutEntity(p + 12, writerId);
    PutSeq(p + 16, writerSN);
}
}  // namespace

bool MessageProcessor::TraceOn() const {
    DDSLogManagementFactory* pFactory = DDSLogManagementFactory::GetInstance();
    return pFactory != nullptr && pFactory->GetUseDDSLogFlag(m_iLogKey);
}

int MessageProcessor::DoubleEncapsulateMessageSize() {
    octet* pOld = m_pEncapsulateMessage;
    uint64_t uiNewSize = uint64_t(m_uiEncapsulateMessageSize) * 2;
    octet* pNew = nullptr;
    if (uiNewSize <= m_uiEncapsulateMessageLimit) pNew = new (std::nothrow) octet[uiNewSize];
    if (pNew == nullptr) {
        // The message under construction is lost either way; the next header
        // allocates a fresh buffer of the current capacity.
        delete[] pOld;
        m_pEncapsulateMessage = nullptr;
        LogText("[MessageProcessor::DoubleEncapsulateMessageSize] m_pEncapsulateMessage = NULL", DDSLOG_INFO);
        return 1;
    }
    std::memset(pNew, 0, size_t(uiNewSize));
    if (pOld != nullptr) std::memcpy(pNew, pOld, m_uiEncapsulateMessageSize);
    m_uiEncapsulateMessageSize = uint32_t(uiNewSize);
    m_pEncapsulateMessage = pNew;
    delete[] pOld;
    return 0;
}

int MessageProcessor::EnsureCapacity(uint64_t uiNeeded) {
    if (m_pEncapsulateMessage == nullptr) return 1;
    while (uiNeeded > m_uiEncapsulateMessageSize) {
        if (DoubleEncapsulateMessageSize() != 0) return 1;
    }
    // Every write goes below a size asked for here: what the next header must clear.
    if (uiNeeded > m_uiEncapsulateDirty) m_uiEncapsulateDirty = uint32_t(uiNeeded);
    return 0;
}

octet* MessageProcessor::EncapsulateMessageHeader(uint32_t& uiMessageLen) {
    if (m_pEncapsulateMessage == nullptr) {
        m_pEncapsulateMessage = new (std::nothrow) octet[m_uiEncapsulateMessageSize];
        if (m_pEncapsulateMessage == nullptr) return nullptr;
        m_uiEncapsulateDirty = m_uiEncapsulateMessageSize;
    }
    // The buffer reads as zeros behind what a message writes. Only what the messages since
    // the last clear may have written is cleared: a whole 64 KiB or more per sample cost
    // more than composing a small one.
    std::memset(m_pEncapsulateMessage, 0, std::min(m_uiEncapsulateDirty, m_uiEncapsulateMessageSize));
    m_uiEncapsulateDirty = 20;
    octet* p = m_pEncapsulateMessage;
    std::memcpy(p, "RTPS", 4);
    p[4] = 2;  // version 2.2
    p[5] = 2;
    p[6] = 8;  // vendor id
    p[7] = 8;
    std::memcpy(p + 8, m_GuidPrefix.value, 12);
    uiMessageLen = 20;
    m_uiDstGuidPrefixPos = 0;
    m_uiDataReaderIdPos = 0;
    m_uiHeartBeatReaderIdPos = 0;
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::EncapsulateINFODSTMessage(uint32_t& uiMessageLen, const GuidPrefix& dstPrefix) {
    if (EnsureCapacity(uint64_t(uiMessageLen) + 16) != 0) {
        LogText("[MessageProcessor::EncapsulateINFODSTMessage] DoubleEncapsulateMessageSize Error",
                DDSLOG_INFO);
        return nullptr;
    }
    octet* p = m_pEncapsulateMessage + uiMessageLen;
    PutSubHeader(p, INFO_DST, FLAG_E, 12);
    std::memcpy(p + 4, dstPrefix.value, 12);
    m_uiDstGuidPrefixPos = uiMessageLen + 4;
    uiMessageLen += 16;
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::EncapsulateINFOTSMessage(uint32_t& uiMessageLen, const Time_t& timestamp) {
    if (EnsureCapacity(uint64_t(uiMessageLen) + 12) != 0) {
        LogText("[MessageProcessor::EncapsulateINFOTSMessage] DoubleEncapsulateMessageSize Error",
                DDSLOG_INFO);
        return nullptr;
    }
    octet* p = m_pEncapsulateMessage + uiMessageLen;
    PutSubHeader(p, INFO_TS, FLAG_E, 8);
    PutU32(p + 4, uint32_t(timestamp.sec));
    PutU32(p + 8, timestamp.nanosec);
    uiMessageLen += 12;
    return m_pEncapsulateMessage;
}

int MessageProcessor::AppendInlineQos(uint32_t& uiPos, const std::list<Parameter>& inlineQos) {
    for (const Parameter& param : inlineQos) {
        // The wire length is the 16-bit image of the record's length; bytes beyond
        // the record's value array go out as zeros rather than read past it.
        uint16_t usLength = uint16_t(param.length);
        if (EnsureCapacity(uint64_t(uiPos) + usLength + PARAMETER_RESERVE) != 0) return 1;
        octet* p = m_pEncapsulateMessage + uiPos;
        PutU16(p, param.parameterId);
        PutU16(p + 2, usLength);
        uint32_t uiCopy = usLength > PARAMETER_VALUE_MAX ? PARAMETER_VALUE_MAX : usLength;
        std::memcpy(p + 4, param.value, uiCopy);
        if (usLength > uiCopy) std::memset(p + 4 + uiCopy, 0, usLength - uiCopy);
        uiPos += 4 + usLength;
    }
    return 0;
}

octet* MessageProcessor::EncapsulateDATAMessage(uint32_t& uiMessageLen, const octet* pData,
                                                uint32_t uiDataLen, const SequenceNumber_t& writerSN,
                                                const std::list<Parameter>& inlineQos,
                                                const EntityId_t& writerId) {
    if (EnsureCapacity(uint64_t(uiMessageLen) + 24) != 0) {
        LogText("[MessageProcessor::EncapsulateDATAMessage] DoubleEncapsulateMessageSize Error", DDSLOG_INFO);
        return nullptr;
    }
    if (TraceOn()) {
        char szText[200];
        snprintf(szText, sizeof(szText), "[MessageProcessor::EncapsulateDATAMessage] Data  Seq = %d ",
                 int(writerSN.low));
        LogText(szText, DDSLOG_WRITE);
    }
    const bool bInlineQos = !inlineQos.empty();
    octet flags = FLAG_E;
    if (bInlineQos) flags |= FLAG_2;
    if (uiDataLen != 0) flags |= FLAG_DATA;

    const uint32_t uiStart = uiMessageLen;
    PutDataFront(m_pEncapsulateMessage + uiStart, DATA, flags, bInlineQos, writerId, writerSN);
    m_uiDataReaderIdPos = uiStart + 8;
    uint32_t uiPos = uiStart + 24;

    if (AppendInlineQos(uiPos, inlineQos) != 0) {
        LogText("[MessageProcessor::EncapsulateDATAMessage]  DoubleEncapsulateMessageSize [1] Error",
                DDSLOG_INFO);
        return nullptr;
    }
    if (EnsureCapacity(uint64_t(uiPos) + uiDataLen) != 0) {
        LogText("[MessageProcessor::EncapsulateDATAMessage]  DoubleEncapsulateMessageSize [2] error",
                DDSLOG_INFO);
        return nullptr;
    }
    if (uiDataLen != 0) {
        if (pData != nullptr)
            std::memcpy(m_pEncapsulateMessage + uiPos, pData, uiDataLen);
        else
            std::memset(m_pEncapsulateMessage + uiPos, 0, uiDataLen);
    }
    uiPos += uiDataLen;
    PutU16(m_pEncapsulateMessage + uiStart + 2, uint16_t(uiPos - uiStart - 4));
    uiMessageLen = uiPos;
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::EncapsulateDATAFragMessage(uint32_t& uiMessageLen, const octet* pFragment,
                                                    uint32_t uiFragmentLen, uint32_t uiFragmentNum,
                                                    uint32_t uiSampleSize, const SequenceNumber_t& writerSN,
                                                    const std::list<Parameter>& inlineQos,
                                                    const EntityId_t& writerId) {
    if (EnsureCapacity(uint64_t(uiMessageLen) + 36) != 0) {
        LogText("[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [1] Error",
                DDSLOG_INFO);
        return nullptr;
    }
    if (TraceOn()) {
        char szText[200];
        snprintf(
            szText, sizeof(szText),
            "[MessageProcessor::EncapsulateDATAFragMessage] DataFrag   Seq = %d FragmentStartingNum = %d",
            int(writerSN.low), int(uiFragmentNum));
        LogText(szText, DDSLOG_WRITE);
    }
    const bool bInlineQos = !inlineQos.empty();
    // No data flag here: the fragment fields always announce the bytes.
    octet flags = FLAG_E;
    if (bInlineQos) flags |= FLAG_2;

    const uint32_t uiStart = uiMessageLen;
    PutDataFront(m_pEncapsulateMessage + uiStart, DATA_FRAG, flags, bInlineQos, writerId, writerSN);
    m_uiDataReaderIdPos = uiStart + 8;
    uint32_t uiPos = uiStart + 24;

    // The inline QoS stands before the fragment fields, so that an offset of 16
    // finds it in both DATA and DATA_FRAG; the decoder reads it in this order.
    if (AppendInlineQos(uiPos, inlineQos) != 0) {
        LogText("[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [2] Error",
                DDSLOG_INFO);
        return nullptr;
    }
    // Room for these 12 bytes is left by the front reserve or by the parameter slack.
    octet* p = m_pEncapsulateMessage + uiPos;
    PutU32(p, uiFragmentNum);
    PutU16(p + 4, 1);                        // fragmentsInSubmessage
    PutU16(p + 6, uint16_t(FRAGMENT_SIZE));  // constant, also for the last fragment
    PutU32(p + 8, uiSampleSize);
    uiPos += 12;

    if (EnsureCapacity(uint64_t(uiPos) + uiFragmentLen) != 0) {
        LogText("[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [3] Error",
                DDSLOG_INFO);
        return nullptr;
    }
    if (uiFragmentLen != 0) {
        if (pFragment != nullptr)
            std::memcpy(m_pEncapsulateMessage + uiPos, pFragment, uiFragmentLen);
        else
            std::memset(m_pEncapsulateMessage + uiPos, 0, uiFragmentLen);
    }
    uiPos += uiFragmentLen;
    PutU16(m_pEncapsulateMessage + uiStart + 2, uint16_t(uiPos - uiStart - 4));
    uiMessageLen = uiPos;
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::EncapsulateHeartBeatMessage(uint32_t& uiMessageLen, const EntityId_t& writerId,
                                                     const SequenceNumber_t& firstSN,
                                                     const SequenceNumber_t& lastSN, int32_t iCount) {
    if (EnsureCapacity(uint64_t(uiMessageLen) + 32) != 0) {
        LogText("[DataWriterImpl::write] MessageProcessor::EncapsulateHeartBeatMessage Error", DDSLOG_INFO);
        return nullptr;
    }
    if (TraceOn()) {
        char szText[200];
        snprintf(
            szText, sizeof(szText),
            "[MessageProcessor::EncapsulateHeartBeatMessage] HB [2]  Count = %d FirstSN = %d LastSN = %d",
            int(iCount), int(firstSN.low), int(lastSN.low));
        LogText(szText, DDSLOG_WRITE);
    }
    octet* p = m_pEncapsulateMessage + uiMessageLen;
    // Neither Final nor Liveliness: every heartbeat asks for an answer.
    PutSubHeader(p, HEARTBEAT, FLAG_E, 28);
    PutEntity(p + 4, ENTITYID_UNKNOWN);
    PutEntity(p + 8, writerId);
    PutSeq(p + 12, firstSN);
    PutSeq(p + 20, lastSN);
    PutU32(p + 28, uint32_t(iCount));
    m_uiHeartBeatReaderIdPos = uiMessageLen + 4;
    uiMessageLen += 32;
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::EncapsulateAckNackMessage(uint32_t& uiMessageLen, const EntityId_t& writerId,
                                                   const EntityId_t& readerId,
                                                   const SequenceNumberSet& readerSNState) {
    if (EnsureCapacity(uint64_t(uiMessageLen) + 60) != 0) {
        LogText("[MessageProcessor::EncapsulateAckNackMessage] DoubleEncapsulateMessageSize Error",
                DDSLOG_INFO);
        return nullptr;
    }
    if (TraceOn()) {
        char szText[200];
        snprintf(szText, sizeof(szText),
                 "[MessageProcessor::EncapsulateAckNackMessage] SendAckNack [2]  BitmapBase = %d numBit = %d",
                 int(readerSNState.bitmapBase.low), int(readerSNState.numBits));
        LogText(szText, DDSLOG_WRITE);
    }
    const uint32_t uiBitmap = BitmapBytes(readerSNState.numBits);
    // Set when something is missing or nothing was ever received; the writer
    // answers such an ACKNACK with a heartbeat.
    octet flags = FLAG_E;
    if (readerSNState.numBits != 0 || readerSNState.bitmapBase.low == 0) flags |= FLAG_2;

    const uint32_t uiStart = uiMessageLen;
    octet* p = m_pEncapsulateMessage + uiStart;
    PutSubHeader(p, ACKNACK, flags, 0);
    PutEntity(p + 4, readerId);
    PutEntity(p + 8, writerId);
    PutSeq(p + 12, readerSNState.bitmapBase);
    PutU32(p + 20, readerSNState.numBits);
    PutBitmap(p + 24, readerSNState.bitmap, uiBitmap);
    // The count is the base's low word, not a running counter.
    PutU32(p + 24 + uiBitmap, readerSNState.bitmapBase.low);
    PutU16(p + 2, uint16_t(24 + uiBitmap));
    uiMessageLen = uiStart + 28 + uiBitmap;
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::EncapsulateGapMessage(uint32_t& uiMessageLen, const EntityId_t& writerId,
                                               const EntityId_t& readerId, const SequenceNumber_t& gapStart,
                                               const SequenceNumberSet& gapList) {
    if (EnsureCapacity(uint64_t(uiMessageLen) + 64) != 0) {
        LogText("[DataWriterImpl::write] MessageProcessor::EncapsulateHeartBeatMessage Error", DDSLOG_INFO);
        return nullptr;
    }
    if (TraceOn()) {
        char szText[200];
        snprintf(szText, sizeof(szText),
                 "[MessageProcessor::EncapsulateGapMessage] GAP [2]  stGapStar = %d stGapList = %d  num = %d",
                 int(gapStart.low), int(gapList.bitmapBase.low), int(gapList.numBits));
        LogText(szText, DDSLOG_WRITE);
    }
    const uint32_t uiBitmap = BitmapBytes(gapList.numBits);
    const uint32_t uiStart = uiMessageLen;
    octet* p = m_pEncapsulateMessage + uiStart;
    PutSubHeader(p, GAP, FLAG_E, 0);
    PutEntity(p + 4, readerId);
    PutEntity(p + 8, writerId);
    PutSeq(p + 12, gapStart);
    PutSeq(p + 20, gapList.bitmapBase);
    PutU32(p + 28, gapList.numBits);
    PutBitmap(p + 32, gapList.bitmap, uiBitmap);
    PutU16(p + 2, uint16_t(28 + uiBitmap));
    m_uiHeartBeatReaderIdPos = uiStart + 4;
    uiMessageLen = uiStart + 32 + uiBitmap;
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::EncapsulateNackFragMessage(uint32_t& uiMessageLen, const EntityId_t& writerId,
                                                    const EntityId_t& readerId,
                                                    const SequenceNumber_t& writerSN,
                                                    FragmentNumberSet& fragmentNumberState) {
    if (EnsureCapacity(uint64_t(uiMessageLen) + 64) != 0) {
        LogText("[MessageProcessor::EncapsulateNackFragMessage] DoubleEncapsulateMessageSize error",
                DDSLOG_INFO);
        return nullptr;
    }
    if (TraceOn()) {
        char szText[200];
        snprintf(szText, sizeof(szText),
                 "[MessageProcessor::EncapsulateNackFragMessage] SendNackFrag [2]  writerSN = %d numBit = %d",
                 int(writerSN.low), int(fragmentNumberState.numBits));
        LogText(szText, DDSLOG_WRITE);
    }
    const uint32_t uiBitmap = BitmapBytes(fragmentNumberState.numBits);
    octet flags = FLAG_E;
    if (fragmentNumberState.numBits != 0) {
        flags |= FLAG_2;
        // The fragment at the base is always requested, whatever the caller built.
        fragmentNumberState.bitmap[0] = 0x80000000u;
    }
    const uint32_t uiStart = uiMessageLen;
    octet* p = m_pEncapsulateMessage + uiStart;
    PutSubHeader(p, NACK_FRAG, flags, 0);
    PutEntity(p + 4, readerId);
    PutEntity(p + 8, writerId);
    PutSeq(p + 12, writerSN);
    PutU32(p + 20, fragmentNumberState.bitmapBase);
    PutU32(p + 24, fragmentNumberState.numBits);
    PutBitmap(p + 28, fragmentNumberState.bitmap, uiBitmap);
    // The count is the fragment base, not a running counter.
    PutU32(p + 28 + uiBitmap, fragmentNumberState.bitmapBase);
    PutU16(p + 2, uint16_t(28 + uiBitmap));
    uiMessageLen = uiStart + 32 + uiBitmap;
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::modifyHeartBeatReaderId(const EntityId_t& readerId) {
    if (m_pEncapsulateMessage == nullptr ||
        uint64_t(m_uiHeartBeatReaderIdPos) + 4 > m_uiEncapsulateMessageSize)
        return m_pEncapsulateMessage;
    PutEntity(m_pEncapsulateMessage + m_uiHeartBeatReaderIdPos, readerId);
    return m_pEncapsulateMessage;
}

octet* MessageProcessor::modifyDataReaderId(const EntityId_t& readerId) {
    if (m_pEncapsulateMessage == nullptr || uint64_t(m_uiDataReaderIdPos) + 4 > m_uiEncapsulateMessageSize)
        return m_pEncapsulateMessage;
    PutEntity(m_pEncapsulateMessage + m_uiDataReaderIdPos, readerId);
    return m_pEncapsulateMessage;
}
