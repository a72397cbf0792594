// Fixed wire records of the RTPS messages this system writes and reads, laid
// over the bytes exactly (packed, little-endian image), and the per-datagram
// receive state. Used by the encoder, the decoder and the endpoint receive paths.
#ifndef MORVODDS_MESSAGES_SUBMESSAGES_H
#define MORVODDS_MESSAGES_SUBMESSAGES_H

#include <cstdint>
#include <list>

#include "BasicTypes.h"

// Submessage kinds.
const uint8_t ACKNACK = 0x06;
const uint8_t HEARTBEAT = 0x07;
const uint8_t GAP = 0x08;
const uint8_t INFO_TS = 0x09;
const uint8_t INFO_DST = 0x0E;
const uint8_t NACK_FRAG = 0x12;
const uint8_t DATA = 0x15;
const uint8_t DATA_FRAG = 0x16;

// The fragment size and the largest sample that travels as one DATA.
const uint32_t FRAGMENT_SIZE = 64512;

#pragma pack(push, 1)

// Sequence number as it stands on the wire: high word, then low word.
struct WireSequenceNumber {
    int32_t high;
    uint32_t low;
};

struct WireSequenceNumberSet {
    WireSequenceNumber bitmapBase;
    uint32_t numBits;
    uint32_t bitmap[8];
};

struct WireFragmentNumberSet {
    uint32_t bitmapBase;
    uint32_t numBits;
    uint32_t bitmap[8];
};

struct Header {
    char protocol[4];
    octet version[2];
    octet vendorId[2];
    GuidPrefix guidPrefix;
};

struct subMessageHeader {
    uint8_t submessageId;
    uint8_t flags;
    uint16_t octetsToNextHeader;
};

struct InfoTs {
    subMessageHeader header;
    int32_t seconds;
    uint32_t fraction;
};
typedef InfoTs InfoSubmessage;

struct InfoDstSubmessage {
    subMessageHeader header;
    GuidPrefix guidPrefix;
};

// Fixed front of DATA and DATA_FRAG.
struct DataSubMessage {
    subMessageHeader header;
    uint16_t extraFlags;
    uint16_t octetsToInlineQos;
    EntityId_t readerId;
    EntityId_t writerId;
    WireSequenceNumber writerSN;
};
typedef DataSubMessage DataFragSubMessage;

// Fragment fields of DATA_FRAG, behind the inline QoS.
struct dataFrag {
    uint32_t fragmentStartingNum;
    uint16_t fragmentsInSubmessage;
    uint16_t fragmentSize;
    uint32_t sampleSize;
};

struct heartBeatSubMessage {
    subMessageHeader header;
    EntityId_t readerId;
    EntityId_t writerId;
    WireSequenceNumber firstSN;
    WireSequenceNumber lastSN;
    uint32_t count;
};

// ACKNACK with a full 256-bit bitmap; shorter ones put the count right behind the bitmap.
struct ackMessage {
    subMessageHeader header;
    EntityId_t readerId;
    EntityId_t writerId;
    WireSequenceNumberSet readerSNState;
    uint32_t count;
};

struct NackFragMessage {
    subMessageHeader header;
    EntityId_t readerId;
    EntityId_t writerId;
    WireSequenceNumber writerSN;
    WireFragmentNumberSet fragmentNumberState;
    uint32_t count;
};

struct stGapSubMessage {
    subMessageHeader header;
    EntityId_t readerId;
    EntityId_t writerId;
    WireSequenceNumber gapStart;
    WireSequenceNumberSet gapList;
};

#pragma pack(pop)

static_assert(sizeof(Header) == 20, "message header is 20 bytes");
static_assert(sizeof(subMessageHeader) == 4, "submessage header is 4 bytes");
static_assert(sizeof(InfoTs) == 12, "INFO_TS is 12 bytes");
static_assert(sizeof(InfoDstSubmessage) == 16, "INFO_DST is 16 bytes");
static_assert(sizeof(DataSubMessage) == 24, "DATA front is 24 bytes");
static_assert(sizeof(dataFrag) == 12, "fragment fields are 12 bytes");
static_assert(sizeof(heartBeatSubMessage) == 32, "HEARTBEAT is 32 bytes");
static_assert(sizeof(ackMessage) == 60, "full ACKNACK is 60 bytes");
static_assert(sizeof(NackFragMessage) == 64, "full NACK_FRAG is 64 bytes");
static_assert(sizeof(stGapSubMessage) == 64, "full GAP is 64 bytes");

inline SequenceNumber_t FromWire(const WireSequenceNumber& w) {
    return SequenceNumber_t(w.high, w.low);
}
inline WireSequenceNumber ToWire(const SequenceNumber_t& s) {
    WireSequenceNumber w;
    w.high = s.high;
    w.low = s.low;
    return w;
}

// State carried from submessage to submessage of one datagram, on the process thread.
struct MessageReceiver {
    octet sourceVersion[2];
    octet sourceVendorId[2];
    GuidPrefix sourceGuidPrefix;
    GuidPrefix destGuidPrefix;  // never filled
    std::list<Locator_t> unicastReplyLocatorList;
    std::list<Locator_t> multicastReplyLocatorList;
    int32_t haveTimestamp;
    Time_t timestamp;

    MessageReceiver() : haveTimestamp(0) {
        sourceVersion[0] = sourceVersion[1] = 0;
        sourceVendorId[0] = sourceVendorId[1] = 0;
        std::memset(&sourceGuidPrefix, 0, sizeof(sourceGuidPrefix));
        std::memset(&destGuidPrefix, 0, sizeof(destGuidPrefix));
    }
};

#endif
