// Wire tests of the message encoder. Every expected byte string below is
// written out by hand from the message layout (little-endian, E flag always
// set, no padding), never captured from the encoder.
#include "messages/MessageProcessor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "log/LogObserver.h"

namespace {

typedef std::vector<uint8_t> Bytes;

const int kLogKey = 7;

// 10.11.12.13, domain 1, participant 42
GuidPrefix OwnPrefix() {
    GuidPrefix p = {{0x0A, 0x0B, 0x0C, 0x0D, 0x01, 0x00, 0x00, 0x00, 0x2A, 0x00, 0x00, 0x00}};
    return p;
}
GuidPrefix DstPrefix() {
    GuidPrefix p = {{0xC0, 0xA8, 0x01, 0x02, 0x07, 0x00, 0x00, 0x00, 0x99, 0x00, 0x00, 0x00}};
    return p;
}
const EntityId_t kWriter = {{0x00, 0x00, 0x12}, 0x03};
const EntityId_t kReader = {{0x00, 0x00, 0x12}, 0x07};

std::string Hex(const uint8_t* p, size_t n) {
    std::string s;
    char sz[4];
    for (size_t i = 0; i < n; ++i) {
        snprintf(sz, sizeof(sz), "%02X", p[i]);
        if (i) s += (i % 16 == 0) ? "\n" : " ";
        s += sz;
    }
    return s;
}
std::string Hex(const Bytes& b) { return Hex(b.data(), b.size()); }

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& b : parts) all.insert(all.end(), b.begin(), b.end());
    return all;
}

// ------------------------------------------------------------ golden pieces
const Bytes kHeader = {
    0x52, 0x54, 0x50, 0x53,                          // "RTPS"
    0x02, 0x02,                                      // version 2.2
    0x08, 0x08,                                      // vendor id
    0x0A, 0x0B, 0x0C, 0x0D, 0x01, 0x00, 0x00, 0x00,  // guidPrefix
    0x2A, 0x00, 0x00, 0x00,
};

const Bytes kInfoDst = {
    0x0E, 0x01, 0x0C, 0x00,                          // INFO_DST, E, 12
    0xC0, 0xA8, 0x01, 0x02, 0x07, 0x00, 0x00, 0x00,  // destination prefix
    0x99, 0x00, 0x00, 0x00,
};

// Time_t(0x5F000001, 0x80000000)
const Bytes kInfoTs = {
    0x09, 0x01, 0x08, 0x00,  // INFO_TS, E, 8
    0x01, 0x00, 0x00, 0x5F,  // seconds
    0x00, 0x00, 0x00, 0x80,  // fraction
};

// payload "hello", writerSN 0x21
const Bytes kDataHello = {
    0x15, 0x05, 0x19, 0x00,  // DATA, E|D, 25
    0x00, 0x00,              // extraFlags
    0x00, 0x00,              // octetsToInlineQos: no inline QoS
    0x00, 0x00, 0x00, 0x00,  // readerId
    0x00, 0x00, 0x12, 0x03,  // writerId
    0x00, 0x00, 0x00, 0x00,  // writerSN high
    0x21, 0x00, 0x00, 0x00,  // writerSN low
    0x68, 0x65, 0x6C, 0x6C, 0x6F,
};

// The withdrawal list: key hash (GUID), status info 3, sentinel.
const Bytes kInlineQos = {
    0x70, 0x00, 0x10, 0x00,                          // id 112, length 16
    0x0A, 0x0B, 0x0C, 0x0D, 0x01, 0x00, 0x00, 0x00,  // GUID
    0x2A, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x03,
    0x71, 0x00, 0x04, 0x00,                          // id 113, length 4
    0x00, 0x00, 0x00, 0x03,
    0x01, 0x00, 0x00, 0x00,                          // sentinel
};

std::list<Parameter> WithdrawalList() {
    const uint8_t guid[16] = {0x0A, 0x0B, 0x0C, 0x0D, 0x01, 0x00, 0x00, 0x00,
                              0x2A, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x03};
    const uint8_t status[4] = {0x00, 0x00, 0x00, 0x03};
    std::list<Parameter> l;
    l.push_back(Parameter(112, 16, guid));
    l.push_back(Parameter(113, 4, status));
    l.push_back(Parameter(1, 0, nullptr));
    return l;
}

SequenceNumberSet SnSet(SequenceNumber_t base, uint32_t numBits) {
    SequenceNumberSet s;
    s.bitmapBase = base;
    s.numBits = numBits;
    return s;
}

class MessageProcessor_Encode : public ::testing::Test {
protected:
    MessageProcessor mp{nullptr, nullptr, OwnPrefix(), kLogKey};
    uint32_t len = 0;

    void SetUp() override { ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len)); }
    std::string At(uint32_t off, size_t n) { return Hex(mp.getEncapsulateMessage() + off, n); }
    // The submessage just appended, starting at 'from'.
    std::string Since(uint32_t from) { return At(from, len - from); }
};

}  // namespace

// ------------------------------------------------------------ header and info
TEST_F(MessageProcessor_Encode, HeaderCarriesOwnPrefix) {
    EXPECT_EQ(20u, len);
    EXPECT_EQ(Hex(kHeader), At(0, 20));
}

TEST_F(MessageProcessor_Encode, HeaderWritesAtZeroAndClearsWholeBuffer) {
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(0x5F000001, 0x80000000u)));
    std::vector<uint8_t> payload(300, 0xAB);
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, payload.data(), 300, SequenceNumber_t(0, 1),
                                                 std::list<Parameter>(), kWriter));
    len = 999;
    ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len));
    EXPECT_EQ(20u, len);
    EXPECT_EQ(Hex(kHeader), At(0, 20));
    const uint8_t* p = mp.getEncapsulateMessage();
    uint32_t uiNonZero = 0;
    for (uint32_t i = 20; i < mp.getEncapsulateMessageSize(); ++i) uiNonZero += p[i] != 0;
    EXPECT_EQ(0u, uiNonZero);
}

TEST_F(MessageProcessor_Encode, InfoDstAndInfoTs) {
    ASSERT_NE(nullptr, mp.EncapsulateINFODSTMessage(len, DstPrefix()));
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(0x5F000001, 0x80000000u)));
    EXPECT_EQ(48u, len);
    EXPECT_EQ(Hex(Cat({kHeader, kInfoDst, kInfoTs})), At(0, 48));
}

// ------------------------------------------------------------ HEARTBEAT
TEST_F(MessageProcessor_Encode, HeartbeatNeverFinalReaderIdZero) {
    ASSERT_NE(nullptr, mp.EncapsulateHeartBeatMessage(len, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER,
                                                      SequenceNumber_t(0, 1), SequenceNumber_t(1, 0x105), 7));
    const Bytes hb = {
        0x07, 0x01, 0x1C, 0x00,  // HEARTBEAT, E only, 28
        0x00, 0x00, 0x00, 0x00,  // readerId, patched later
        0x00, 0x00, 0x03, 0xC2,  // writerId
        0x00, 0x00, 0x00, 0x00,  // firstSN 0/1
        0x01, 0x00, 0x00, 0x00,
        0x01, 0x00, 0x00, 0x00,  // lastSN 1/0x105
        0x05, 0x01, 0x00, 0x00,
        0x07, 0x00, 0x00, 0x00,  // count
    };
    EXPECT_EQ(52u, len);
    EXPECT_EQ(Hex(hb), Since(20));
}

// ------------------------------------------------------------ ACKNACK
TEST_F(MessageProcessor_Encode, AckNackNothingMissing) {
    // Base 1 with no bits: a pure acknowledgement, no Final-like flag.
    ASSERT_NE(nullptr, mp.EncapsulateAckNackMessage(len, kWriter, kReader, SnSet(SequenceNumber_t(0, 1), 0)));
    const Bytes ack = {
        0x06, 0x01, 0x18, 0x00,  // ACKNACK, E, 24
        0x00, 0x00, 0x12, 0x07,  // readerId first
        0x00, 0x00, 0x12, 0x03,  // writerId
        0x00, 0x00, 0x00, 0x00,  // bitmapBase 0/1
        0x01, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00,  // numBits 0, no bitmap
        0x01, 0x00, 0x00, 0x00,  // count = base low word
    };
    EXPECT_EQ(Hex(ack), Since(20));
}

TEST_F(MessageProcessor_Encode, AckNackBaseZeroIsPreemptive) {
    ASSERT_NE(nullptr, mp.EncapsulateAckNackMessage(len, kWriter, kReader, SnSet(SequenceNumber_t(0, 0), 0)));
    const Bytes ack = {
        0x06, 0x03, 0x18, 0x00,  // flag 0x02 because the base is 0
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // base 0/0
        0x00, 0x00, 0x00, 0x00,                          // numBits 0
        0x00, 0x00, 0x00, 0x00,                          // count 0
    };
    EXPECT_EQ(Hex(ack), Since(20));

    // Only the low word decides: base 1/0 counts as zero too.
    uint32_t uiAt = len;
    ASSERT_NE(nullptr, mp.EncapsulateAckNackMessage(len, kWriter, kReader, SnSet(SequenceNumber_t(1, 0), 0)));
    EXPECT_EQ(0x03, mp.getEncapsulateMessage()[uiAt + 1]);
}

TEST_F(MessageProcessor_Encode, AckNackOneBitOneWord) {
    SequenceNumberSet s = SnSet(SequenceNumber_t(0, 5), 1);
    s.bitmap[0] = 0x80000000u;
    s.bitmap[1] = 0x0BADF00D;  // beyond numBits: not sent
    ASSERT_NE(nullptr, mp.EncapsulateAckNackMessage(len, kWriter, kReader, s));
    const Bytes ack = {
        0x06, 0x03, 0x1C, 0x00,  // E + something missing, 28
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,  // base 0/5
        0x01, 0x00, 0x00, 0x00,                          // numBits 1
        0x00, 0x00, 0x00, 0x80,                          // word 0
        0x05, 0x00, 0x00, 0x00,                          // count
    };
    EXPECT_EQ(Hex(ack), Since(20));
}

TEST_F(MessageProcessor_Encode, AckNack32BitsStillOneWord) {
    SequenceNumberSet s = SnSet(SequenceNumber_t(0, 5), 32);
    s.bitmap[0] = 0x12345678;
    s.bitmap[1] = 0x0BADF00D;
    ASSERT_NE(nullptr, mp.EncapsulateAckNackMessage(len, kWriter, kReader, s));
    const Bytes ack = {
        0x06, 0x03, 0x1C, 0x00,
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,
        0x20, 0x00, 0x00, 0x00,  // numBits 32
        0x78, 0x56, 0x34, 0x12,  // word 0
        0x05, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(Hex(ack), Since(20));
}

TEST_F(MessageProcessor_Encode, AckNack33BitsTwoWordsCountIsLowWord) {
    SequenceNumberSet s = SnSet(SequenceNumber_t(2, 7), 33);
    s.bitmap[0] = 0x12345678;
    s.bitmap[1] = 0x0BADF00D;
    s.bitmap[2] = 0x7EEEEEEE;
    ASSERT_NE(nullptr, mp.EncapsulateAckNackMessage(len, kWriter, kReader, s));
    const Bytes ack = {
        0x06, 0x03, 0x20, 0x00,  // 24 + 8
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x02, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00,  // base 2/7
        0x21, 0x00, 0x00, 0x00,                          // numBits 33
        0x78, 0x56, 0x34, 0x12,                          // word 0
        0x0D, 0xF0, 0xAD, 0x0B,                          // word 1
        0x07, 0x00, 0x00, 0x00,                          // count: low word only
    };
    EXPECT_EQ(Hex(ack), Since(20));
}

TEST_F(MessageProcessor_Encode, AckNack256BitsFullBitmap) {
    SequenceNumberSet s = SnSet(SequenceNumber_t(0, 0x10), 256);
    for (int i = 0; i < 8; ++i) s.bitmap[i] = 0x11111111u * uint32_t(i + 1);
    ASSERT_NE(nullptr, mp.EncapsulateAckNackMessage(len, kWriter, kReader, s));
    const Bytes ack = {
        0x06, 0x03, 0x38, 0x00,  // 24 + 32 = 56
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,
        0x00, 0x01, 0x00, 0x00,  // numBits 256
        0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x22, 0x22,
        0x33, 0x33, 0x33, 0x33, 0x44, 0x44, 0x44, 0x44,
        0x55, 0x55, 0x55, 0x55, 0x66, 0x66, 0x66, 0x66,
        0x77, 0x77, 0x77, 0x77, 0x88, 0x88, 0x88, 0x88,
        0x10, 0x00, 0x00, 0x00,  // count
    };
    EXPECT_EQ(60u, len - 20);
    EXPECT_EQ(Hex(ack), Since(20));
}

// ------------------------------------------------------------ GAP
TEST_F(MessageProcessor_Encode, GapWithAndWithoutBitmap) {
    SequenceNumberSet gapList = SnSet(SequenceNumber_t(0, 6), 3);
    gapList.bitmap[0] = 0xE0000000u;
    ASSERT_NE(nullptr, mp.EncapsulateGapMessage(len, kWriter, kReader, SequenceNumber_t(0, 3), gapList));
    const Bytes gap = {
        0x08, 0x01, 0x20, 0x00,  // GAP, E, 28 + 4
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,  // gapStart 0/3
        0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,  // gapList base 0/6
        0x03, 0x00, 0x00, 0x00,                          // numBits 3
        0x00, 0x00, 0x00, 0xE0,                          // word 0
    };
    EXPECT_EQ(Hex(gap), Since(20));

    uint32_t uiAt = len;
    ASSERT_NE(nullptr, mp.EncapsulateGapMessage(len, kWriter, kReader, SequenceNumber_t(0, 3),
                                                SnSet(SequenceNumber_t(0, 6), 0)));
    const Bytes gap0 = {
        0x08, 0x01, 0x1C, 0x00,  // 28, no bitmap
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(Hex(gap0), Since(uiAt));
}

// ------------------------------------------------------------ NACK_FRAG
TEST_F(MessageProcessor_Encode, NackFragForcesFirstWordInCallersSet) {
    FragmentNumberSet s;
    s.bitmapBase = 3;
    s.numBits = 2;
    s.bitmap[0] = 0x40000000;  // caller asked for fragment 4 only
    ASSERT_NE(nullptr, mp.EncapsulateNackFragMessage(len, kWriter, kReader, SequenceNumber_t(0, 9), s));
    const Bytes nack = {
        0x12, 0x03, 0x20, 0x00,  // NACK_FRAG, E|0x02, 28 + 4
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00,  // writerSN 0/9
        0x03, 0x00, 0x00, 0x00,                          // base 3
        0x02, 0x00, 0x00, 0x00,                          // numBits 2
        0x00, 0x00, 0x00, 0x80,                          // word 0 forced
        0x03, 0x00, 0x00, 0x00,                          // count = base
    };
    EXPECT_EQ(Hex(nack), Since(20));
    EXPECT_EQ(0x80000000u, s.bitmap[0]);
}

TEST_F(MessageProcessor_Encode, NackFragTwoWordsKeepsSecond) {
    FragmentNumberSet s;
    s.bitmapBase = 1;
    s.numBits = 33;
    s.bitmap[0] = 0;
    s.bitmap[1] = 0x80000000u;
    ASSERT_NE(nullptr, mp.EncapsulateNackFragMessage(len, kWriter, kReader, SequenceNumber_t(0, 9), s));
    const Bytes nack = {
        0x12, 0x03, 0x24, 0x00,  // 28 + 8
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00,
        0x01, 0x00, 0x00, 0x00, 0x21, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x80,  // word 0 forced
        0x00, 0x00, 0x00, 0x80,  // word 1 as given
        0x01, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(Hex(nack), Since(20));
}

TEST_F(MessageProcessor_Encode, NackFragEmptySetHasNoBitmapNoForcing) {
    FragmentNumberSet s;
    s.bitmapBase = 3;
    s.numBits = 0;
    s.bitmap[0] = 0x1234;
    ASSERT_NE(nullptr, mp.EncapsulateNackFragMessage(len, kWriter, kReader, SequenceNumber_t(0, 9), s));
    const Bytes nack = {
        0x12, 0x01, 0x1C, 0x00,  // E only, 28
        0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00,
        0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x03, 0x00, 0x00, 0x00,  // count straight behind numBits
    };
    EXPECT_EQ(Hex(nack), Since(20));
    EXPECT_EQ(0x1234u, s.bitmap[0]);
}

// ------------------------------------------------------------ DATA
TEST_F(MessageProcessor_Encode, DataWithPayload) {
    const uint8_t hello[] = {'h', 'e', 'l', 'l', 'o'};
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, hello, 5, SequenceNumber_t(0, 0x21), std::list<Parameter>(),
                                                 kWriter));
    EXPECT_EQ(49u, len);
    EXPECT_EQ(Hex(kDataHello), Since(20));
}

TEST_F(MessageProcessor_Encode, DataEmptyPayloadHasNoDataFlag) {
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, nullptr, 0, SequenceNumber_t(0, 1), std::list<Parameter>(),
                                                 kWriter));
    const Bytes data = {
        0x15, 0x01, 0x14, 0x00,  // E only, 20
        0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(Hex(data), Since(20));
}

TEST_F(MessageProcessor_Encode, DataWithThreeInlineParameters) {
    const uint8_t payload[] = {0xDE, 0xAD, 0xBE, 0xEF};
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, payload, 4, SequenceNumber_t(0, 2), WithdrawalList(), kWriter));
    const Bytes front = {
        0x15, 0x07, 0x38, 0x00,  // E|Q|D, 20 + 32 + 4
        0x00, 0x00,
        0x10, 0x00,              // octetsToInlineQos 16
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(Hex(Cat({front, kInlineQos, Bytes{0xDE, 0xAD, 0xBE, 0xEF}})), Since(20));
}

TEST_F(MessageProcessor_Encode, DataDisposeWithoutPayload) {
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, nullptr, 0, SequenceNumber_t(0, 2), WithdrawalList(), kWriter));
    const Bytes front = {
        0x15, 0x03, 0x34, 0x00,  // E|Q, 20 + 32
        0x00, 0x00, 0x10, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(Hex(Cat({front, kInlineQos})), Since(20));
}

TEST_F(MessageProcessor_Encode, OverlongParameterIsZeroFilledNotOverread) {
    std::list<Parameter> l;
    Parameter big(0x8001, 200, nullptr);
    for (int i = 0; i < PARAMETER_VALUE_MAX; ++i) big.value[i] = 0x5A;
    l.push_back(big);
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, nullptr, 0, SequenceNumber_t(0, 1), l, kWriter));
    const uint8_t* p = mp.getEncapsulateMessage() + 44;
    EXPECT_EQ("01 80 C8 00", Hex(p, 4));
    EXPECT_EQ(0x5A, p[4 + 127]);
    EXPECT_EQ(0x00, p[4 + 128]);
    EXPECT_EQ(44u + 4 + 200, len);
}

TEST_F(MessageProcessor_Encode, NoPaddingAfterOddLength) {
    const uint8_t hello[] = {'h', 'e', 'l', 'l', 'o'};
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, hello, 5, SequenceNumber_t(0, 0x21), std::list<Parameter>(),
                                                 kWriter));
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(0x5F000001, 0x80000000u)));
    EXPECT_EQ(61u, len);
    EXPECT_EQ(Hex(Cat({kHeader, kDataHello, kInfoTs})), At(0, 61));
}

// ------------------------------------------------------------ DATA_FRAG
TEST_F(MessageProcessor_Encode, DataFragWithoutParameters) {
    const uint8_t frag[] = {0xAA, 0xBB, 0xCC};
    ASSERT_NE(nullptr, mp.EncapsulateDATAFragMessage(len, frag, 3, 2, 64515, SequenceNumber_t(0, 7),
                                                     std::list<Parameter>(), kWriter));
    const Bytes df = {
        0x16, 0x01, 0x23, 0x00,  // DATA_FRAG, E, 20 + 12 + 3
        0x00, 0x00, 0x00, 0x00,  // extraFlags, octetsToInlineQos 0
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00,
        0x02, 0x00, 0x00, 0x00,  // fragmentStartingNum 2
        0x01, 0x00,              // fragmentsInSubmessage
        0x00, 0xFC,              // fragmentSize 64512, even for a short fragment
        0x03, 0xFC, 0x00, 0x00,  // sampleSize 64515
        0xAA, 0xBB, 0xCC,
    };
    EXPECT_EQ(Hex(df), Since(20));
}

TEST_F(MessageProcessor_Encode, DataFragParametersStandBeforeFragmentFields) {
    const uint8_t frag[] = {0x11, 0x22};
    ASSERT_NE(nullptr, mp.EncapsulateDATAFragMessage(len, frag, 2, 1, 70000, SequenceNumber_t(0, 7), WithdrawalList(),
                                                     kWriter));
    const Bytes front = {
        0x16, 0x03, 0x42, 0x00,  // E|Q, 20 + 32 + 12 + 2
        0x00, 0x00, 0x10, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00,
    };
    const Bytes tail = {
        0x01, 0x00, 0x00, 0x00,  // fragmentStartingNum 1
        0x01, 0x00, 0x00, 0xFC,
        0x70, 0x11, 0x01, 0x00,  // sampleSize 70000
        0x11, 0x22,
    };
    EXPECT_EQ(Hex(Cat({front, kInlineQos, tail})), Since(20));
}

TEST_F(MessageProcessor_Encode, FragmentSeriesRestartsBehindInfoTs) {
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(0x5F000001, 0x80000000u)));
    const uint32_t uiFront = len;
    std::vector<uint8_t> first(100, 0xEE);
    ASSERT_NE(nullptr, mp.EncapsulateDATAFragMessage(len, first.data(), 100, 1, 102, SequenceNumber_t(0, 4),
                                                     std::list<Parameter>(), kWriter));
    len = uiFront;
    const uint8_t last[] = {0x01, 0x02};
    ASSERT_NE(nullptr, mp.EncapsulateDATAFragMessage(len, last, 2, 2, 102, SequenceNumber_t(0, 4),
                                                     std::list<Parameter>(), kWriter));
    const Bytes df = {
        0x16, 0x01, 0x22, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00,
        0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0xFC,
        0x66, 0x00, 0x00, 0x00,  // sampleSize 102
        0x01, 0x02,
    };
    EXPECT_EQ(70u, len);
    EXPECT_EQ(Hex(Cat({kHeader, kInfoTs, df})), At(0, 70));
}

// ------------------------------------------------------------ positions and patches
TEST_F(MessageProcessor_Encode, DirectedDataMessageWithGapAndPatchedReader) {
    // The composition of a repair to one reader: INFO_DST, INFO_TS, GAP, DATA.
    ASSERT_NE(nullptr, mp.EncapsulateINFODSTMessage(len, DstPrefix()));
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(0x5F000001, 0x80000000u)));
    ASSERT_NE(nullptr, mp.EncapsulateGapMessage(len, kWriter, ENTITYID_UNKNOWN, SequenceNumber_t(0, 3),
                                                SnSet(SequenceNumber_t(0, 6), 0)));
    const uint8_t hello[] = {'h', 'e', 'l', 'l', 'o'};
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, hello, 5, SequenceNumber_t(0, 0x21), std::list<Parameter>(),
                                                 kWriter));
    EXPECT_EQ(24u, mp.getDstGuidPrefixPos());
    EXPECT_EQ(52u, mp.getHeartBeatReaderIdPos());
    EXPECT_EQ(88u, mp.getDataReaderIdPos());
    ASSERT_NE(nullptr, mp.modifyHeartBeatReaderId(kReader));
    ASSERT_NE(nullptr, mp.modifyDataReaderId(kReader));

    const Bytes gap = {
        0x08, 0x01, 0x1C, 0x00,
        0x00, 0x00, 0x12, 0x07,  // patched readerId
        0x00, 0x00, 0x12, 0x03,
        0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00,
    };
    Bytes data = kDataHello;
    data[8] = 0x00, data[9] = 0x00, data[10] = 0x12, data[11] = 0x07;  // patched readerId
    EXPECT_EQ(109u, len);
    EXPECT_EQ(Hex(Cat({kHeader, kInfoDst, kInfoTs, gap, data})), At(0, len));
}

TEST_F(MessageProcessor_Encode, HeartbeatPatchedForOneProxy) {
    ASSERT_NE(nullptr, mp.EncapsulateINFODSTMessage(len, DstPrefix()));
    ASSERT_NE(nullptr, mp.EncapsulateHeartBeatMessage(len, kWriter, SequenceNumber_t(0, 1), SequenceNumber_t(0, 1), 1));
    EXPECT_EQ(40u, mp.getHeartBeatReaderIdPos());
    ASSERT_NE(nullptr, mp.modifyHeartBeatReaderId(kReader));
    EXPECT_EQ("00 00 12 07 00 00 12 03", At(40, 8));
}

TEST_F(MessageProcessor_Encode, NewHeaderResetsPositions) {
    ASSERT_NE(nullptr, mp.EncapsulateINFODSTMessage(len, DstPrefix()));
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, nullptr, 0, SequenceNumber_t(0, 1), std::list<Parameter>(),
                                                 kWriter));
    ASSERT_NE(nullptr, mp.EncapsulateHeartBeatMessage(len, kWriter, SequenceNumber_t(0, 1), SequenceNumber_t(0, 1), 1));
    ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len));
    EXPECT_EQ(0u, mp.getDstGuidPrefixPos());
    EXPECT_EQ(0u, mp.getDataReaderIdPos());
    EXPECT_EQ(0u, mp.getHeartBeatReaderIdPos());
    // A patch before any DATA lands on the protocol id; callers never do this.
    ASSERT_NE(nullptr, mp.modifyDataReaderId(kReader));
    EXPECT_EQ("00 00 12 07 02 02 08 08", At(0, 8));
}

// ------------------------------------------------------------ growth
namespace {

struct LogCapture {
    std::vector<std::string> texts;
    std::vector<int> codes;
    std::vector<int> keys;
    static void Observe(void* ctx, int key, const char* text, size_t length, int code) {
        LogCapture* self = static_cast<LogCapture*>(ctx);
        self->texts.push_back(std::string(text, length));
        self->codes.push_back(code);
        self->keys.push_back(key);
    }
};

class MessageProcessor_Growth : public ::testing::Test {
protected:
    MessageProcessor mp{nullptr, nullptr, OwnPrefix(), kLogKey};
    uint32_t len = 0;
    LogCapture log;

    void SetUp() override {
        SetLogObserver(&LogCapture::Observe, &log);
        ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len));
    }
    void TearDown() override { SetLogObserver(nullptr, nullptr); }
};

std::vector<uint8_t> Pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = uint8_t(i * 7 + 1);
    return v;
}

}  // namespace

TEST_F(MessageProcessor_Growth, StartsAt2048) { EXPECT_EQ(2048u, mp.getEncapsulateMessageSize()); }

TEST_F(MessageProcessor_Growth, PayloadPastCapacityDoublesAndKeepsFront) {
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(0x5F000001, 0x80000000u)));
    std::vector<uint8_t> payload = Pattern(3000);
    octet* pResult = mp.EncapsulateDATAMessage(len, payload.data(), 3000, SequenceNumber_t(0, 1),
                                               std::list<Parameter>(), kWriter);
    ASSERT_NE(nullptr, pResult);
    EXPECT_EQ(pResult, mp.getEncapsulateMessage());
    EXPECT_EQ(4096u, mp.getEncapsulateMessageSize());
    EXPECT_EQ(32u + 24 + 3000, len);
    const uint8_t* p = mp.getEncapsulateMessage();
    EXPECT_EQ(Hex(Cat({kHeader, kInfoTs})), Hex(p, 32));
    EXPECT_EQ("15 05 CC 0B", Hex(p + 32, 4));  // octetsToNextHeader 3020
    EXPECT_EQ(Hex(payload), Hex(p + 56, 3000));
    EXPECT_TRUE(log.texts.empty());
}

TEST_F(MessageProcessor_Growth, LargestSingleDataFitsWithDirectedFront) {
    ASSERT_NE(nullptr, mp.EncapsulateINFODSTMessage(len, DstPrefix()));
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(0x5F000001, 0x80000000u)));
    std::vector<uint8_t> payload = Pattern(64512);
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, payload.data(), 64512, SequenceNumber_t(0, 1),
                                                 std::list<Parameter>(), kWriter));
    EXPECT_EQ(65536u, mp.getEncapsulateMessageSize());  // five doublings
    EXPECT_EQ(20u + 16 + 12 + 24 + 64512, len);
    const uint8_t* p = mp.getEncapsulateMessage();
    EXPECT_EQ(Hex(Cat({kHeader, kInfoDst, kInfoTs})), Hex(p, 48));
    EXPECT_EQ("15 05 14 FC", Hex(p + 48, 4));  // 64532
    EXPECT_EQ(Hex(payload), Hex(p + 72, 64512));

    // The buffer never shrinks; a new header clears all of it.
    ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len));
    EXPECT_EQ(65536u, mp.getEncapsulateMessageSize());
    EXPECT_EQ(0, mp.getEncapsulateMessage()[72]);
}

TEST_F(MessageProcessor_Growth, ReserveThatExactlyFitsDoesNotGrow) {
    len = 2048 - 12;
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(1, 2)));
    EXPECT_EQ(2048u, mp.getEncapsulateMessageSize());
    len = 2048 - 11;
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(1, 2)));
    EXPECT_EQ(4096u, mp.getEncapsulateMessageSize());
}

TEST_F(MessageProcessor_Growth, FailedGrowthDropsBufferAndHeaderRecovers) {
    mp.setEncapsulateMessageLimit(2048);
    std::vector<uint8_t> payload = Pattern(3000);
    EXPECT_EQ(nullptr, mp.EncapsulateDATAMessage(len, payload.data(), 3000, SequenceNumber_t(0, 1),
                                                 std::list<Parameter>(), kWriter));
    EXPECT_EQ(nullptr, mp.getEncapsulateMessage());
    ASSERT_EQ(2u, log.texts.size());
    EXPECT_EQ("[MessageProcessor::DoubleEncapsulateMessageSize] m_pEncapsulateMessage = NULL", log.texts[0]);
    EXPECT_EQ("[MessageProcessor::EncapsulateDATAMessage]  DoubleEncapsulateMessageSize [2] error", log.texts[1]);
    EXPECT_EQ(DDSLOG_INFO, log.codes[1]);
    EXPECT_EQ(kLogKey, log.keys[1]);

    // Without a buffer every append fails; the next message starts afresh.
    EXPECT_EQ(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(1, 2)));
    EXPECT_EQ(nullptr, mp.modifyDataReaderId(kReader));
    ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len));
    EXPECT_EQ(2048u, mp.getEncapsulateMessageSize());
    EXPECT_EQ(Hex(kHeader), Hex(mp.getEncapsulateMessage(), 20));
}

namespace {
enum class Op { InfoTs, InfoDst, Heartbeat, Gap, AckNack, NackFrag, Data, DataFrag };

struct FailureCase {
    const char* name;
    Op op;
    uint32_t start;      // uiMessageLen at the call
    bool withParameter;  // one 4-byte inline parameter
    uint32_t payload;    // payload or fragment length
    const char* text;
};

const FailureCase kFailures[] = {
    {"InfoTs", Op::InfoTs, 2040, false, 0,
     "[MessageProcessor::EncapsulateINFOTSMessage] DoubleEncapsulateMessageSize Error"},
    {"InfoDst", Op::InfoDst, 2040, false, 0,
     "[MessageProcessor::EncapsulateINFODSTMessage] DoubleEncapsulateMessageSize Error"},
    {"Heartbeat", Op::Heartbeat, 2020, false, 0,
     "[DataWriterImpl::write] MessageProcessor::EncapsulateHeartBeatMessage Error"},
    {"Gap", Op::Gap, 2000, false, 0, "[DataWriterImpl::write] MessageProcessor::EncapsulateHeartBeatMessage Error"},
    {"AckNack", Op::AckNack, 2000, false, 0,
     "[MessageProcessor::EncapsulateAckNackMessage] DoubleEncapsulateMessageSize Error"},
    {"NackFrag", Op::NackFrag, 2000, false, 0,
     "[MessageProcessor::EncapsulateNackFragMessage] DoubleEncapsulateMessageSize error"},
    {"DataFront", Op::Data, 2040, false, 0,
     "[MessageProcessor::EncapsulateDATAMessage] DoubleEncapsulateMessageSize Error"},
    // The front exactly fits; the parameter's slack of 134 does not.
    {"DataParameter", Op::Data, 2024, true, 0,
     "[MessageProcessor::EncapsulateDATAMessage]  DoubleEncapsulateMessageSize [1] Error"},
    {"DataPayload", Op::Data, 20, false, 3000,
     "[MessageProcessor::EncapsulateDATAMessage]  DoubleEncapsulateMessageSize [2] error"},
    {"DataFragFront", Op::DataFrag, 2020, false, 0,
     "[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [1] Error"},
    {"DataFragParameter", Op::DataFrag, 2012, true, 0,
     "[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [2] Error"},
    {"DataFragPayload", Op::DataFrag, 20, false, 3000,
     "[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [3] Error"},
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class MessageProcessor_GrowthFailure : public ::testing::TestWithParam<FailureCase> {};
}  // namespace

TEST_P(MessageProcessor_GrowthFailure, LogsItsOwnTextAndReturnsNull) {
    const FailureCase& c = GetParam();
    LogCapture log;
    SetLogObserver(&LogCapture::Observe, &log);
    MessageProcessor mp(nullptr, nullptr, OwnPrefix(), kLogKey);
    mp.setEncapsulateMessageLimit(2048);
    uint32_t len = 0;
    ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len));
    len = c.start;
    std::list<Parameter> qos;
    const uint8_t four[4] = {1, 2, 3, 4};
    if (c.withParameter) qos.push_back(Parameter(0x8001, 4, four));
    std::vector<uint8_t> payload(c.payload, 0x33);
    SequenceNumberSet sn = SnSet(SequenceNumber_t(0, 1), 1);
    FragmentNumberSet fn;
    octet* pResult = reinterpret_cast<octet*>(1);
    switch (c.op) {
        case Op::InfoTs: pResult = mp.EncapsulateINFOTSMessage(len, Time_t(1, 2)); break;
        case Op::InfoDst: pResult = mp.EncapsulateINFODSTMessage(len, DstPrefix()); break;
        case Op::Heartbeat:
            pResult = mp.EncapsulateHeartBeatMessage(len, kWriter, SequenceNumber_t(0, 1), SequenceNumber_t(0, 1), 1);
            break;
        case Op::Gap: pResult = mp.EncapsulateGapMessage(len, kWriter, kReader, SequenceNumber_t(0, 1), sn); break;
        case Op::AckNack: pResult = mp.EncapsulateAckNackMessage(len, kWriter, kReader, sn); break;
        case Op::NackFrag:
            pResult = mp.EncapsulateNackFragMessage(len, kWriter, kReader, SequenceNumber_t(0, 1), fn);
            break;
        case Op::Data:
            pResult = mp.EncapsulateDATAMessage(len, payload.data(), c.payload, SequenceNumber_t(0, 1), qos, kWriter);
            break;
        case Op::DataFrag:
            pResult = mp.EncapsulateDATAFragMessage(len, payload.data(), c.payload, 1, c.payload,
                                                    SequenceNumber_t(0, 1), qos, kWriter);
            break;
    }
    SetLogObserver(nullptr, nullptr);
    EXPECT_EQ(nullptr, pResult);
    ASSERT_EQ(2u, log.texts.size());
    EXPECT_EQ("[MessageProcessor::DoubleEncapsulateMessageSize] m_pEncapsulateMessage = NULL", log.texts[0]);
    EXPECT_EQ(c.text, log.texts[1]);
    EXPECT_EQ(DDSLOG_INFO, log.codes[1]);
}

INSTANTIATE_TEST_SUITE_P(EveryOperation, MessageProcessor_GrowthFailure, ::testing::ValuesIn(kFailures),
                         [](const ::testing::TestParamInfo<FailureCase>& caseInfo) {
                             return std::string(caseInfo.param.name);
                         });

// ------------------------------------------------------------ lock and flags
TEST(MessageProcessor, MessageLockIsRecursiveAndExclusive) {
    MessageProcessor mp(nullptr, nullptr, OwnPrefix(), kLogKey);
    EXPECT_EQ(0, mp.lockMessage());
    EXPECT_EQ(0, mp.lockMessage());
    std::atomic<bool> bTaken(false);
    std::thread other([&] {
        mp.lockMessage();
        bTaken = true;
        mp.unlockMessage();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    mp.unlockMessage();
    EXPECT_FALSE(bTaken.load());  // still held once
    mp.unlockMessage();
    other.join();
    EXPECT_TRUE(bTaken.load());
}

TEST(MessageProcessor, RunFlagsAndEndianness) {
    MessageProcessor mp(nullptr, nullptr, OwnPrefix(), kLogKey);
    EXPECT_TRUE(mp.IsRunning());
    EXPECT_FALSE(mp.IsStopped());
    mp.Stop();
    EXPECT_FALSE(mp.IsRunning());
    const uint16_t one = 1;
    EXPECT_EQ(*reinterpret_cast<const uint8_t*>(&one) == 1 ? 1u : 0u, mp.getLocalEndianness());
}
