// Wire tests of the message encoder. Every expected byte string below is
// written out by hand from the message layout (little-endian, E flag always
// set, no padding), never captured from the encoder.
#include "messages/MessageProcessor.h"

#include <gtest/gtest.h>

#include <functional>

#include "DataSendRig.h"

namespace {

typedef std::vector<uint8_t> Bytes;

const int kLogKey = 7;
// 10.11.12.13, domain 1, participant 42
const GuidPrefix kOwnPrefix = {{0x0A, 0x0B, 0x0C, 0x0D, 0x01, 0x00, 0x00, 0x00, 0x2A, 0x00, 0x00, 0x00}};
const GuidPrefix kDstPrefix = {{0xC0, 0xA8, 0x01, 0x02, 0x07, 0x00, 0x00, 0x00, 0x99, 0x00, 0x00, 0x00}};
const EntityId_t kWriter = {{0x00, 0x00, 0x12}, 0x03};
const EntityId_t kReader = {{0x00, 0x00, 0x12}, 0x07};
const Time_t kStamp(0x5F000001, 0x80000000u);
const SequenceNumber_t kOne(0, 1);

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& b : parts) all.insert(all.end(), b.begin(), b.end());
    return all;
}

// ------------------------------------------------------------ golden pieces
// "RTPS", version 2.2, vendor id; the prefix.
const Bytes kHeader = {0x52, 0x54, 0x50, 0x53, 0x02, 0x02, 0x08, 0x08, 0x0A, 0x0B,
                       0x0C, 0x0D, 0x01, 0x00, 0x00, 0x00, 0x2A, 0x00, 0x00, 0x00};
// INFO_DST, E, 12; the prefix.
const Bytes kInfoDst = {0x0E, 0x01, 0x0C, 0x00, 0xC0, 0xA8, 0x01, 0x02,
                        0x07, 0x00, 0x00, 0x00, 0x99, 0x00, 0x00, 0x00};
// INFO_TS, E, 8; seconds, fraction.
const Bytes kInfoTs = {0x09, 0x01, 0x08, 0x00, 0x01, 0x00, 0x00, 0x5F, 0x00, 0x00, 0x00, 0x80};
// readerId then writerId, as ACKNACK, GAP and NACK_FRAG carry them
const Bytes kReaderWriter = {0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12, 0x03};
// Status info 3 and the sentinel, as a dispose carries them.
const Bytes kInlineQos = {0x71, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x00};
const std::list<Parameter> kDisposeQos = {Parameter(113, 4, &kInlineQos[4]), Parameter(1, 0, nullptr)};

SequenceNumberSet SnSet(SequenceNumber_t base, uint32_t numBits, std::initializer_list<uint32_t> words = {}) {
    SequenceNumberSet s;
    s.bitmapBase = base;
    s.numBits = numBits;
    std::copy(words.begin(), words.end(), s.bitmap);
    return s;
}

class MessageProcessor_Encode : public ::testing::Test {
protected:
    MessageProcessor mp{nullptr, nullptr, kOwnPrefix, kLogKey};
    uint32_t len = 0;

    void SetUp() override { ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len)); }
    Bytes At(uint32_t off, size_t n) {
        return Bytes(mp.getEncapsulateMessage() + off, mp.getEncapsulateMessage() + off + n);
    }
    // The submessages appended since 'from'.
    Bytes Since(uint32_t from) { return At(from, len - from); }
};

}  // namespace

// ------------------------------------------------------------ HEARTBEAT, ACKNACK, GAP, NACK_FRAG
TEST_F(MessageProcessor_Encode, HeartbeatNeverFinalReaderIdZero) {
    ASSERT_NE(nullptr, mp.EncapsulateHeartBeatMessage(len, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER, kOne,
                                                      SequenceNumber_t(1, 0x105), 7));
    // HEARTBEAT, E only, 28; readerId (patched later), writerId; firstSN 0/1; lastSN 1/0x105; count.
    EXPECT_EQ(Since(20), (Bytes{0x07, 0x01, 0x1C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03,
                                0xC2, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00,
                                0x00, 0x00, 0x05, 0x01, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00}));
}

TEST_F(MessageProcessor_Encode, AckNackFlagBitmapAndCount) {
    // Each row: the set; ACKNACK, flags, length; base, numBits, bitmap words and count.
    const struct {
        SequenceNumberSet set;
        Bytes head, tail;  // around the reader and writer ids
    } rows[] = {
        // Base 1 with no bits: a pure acknowledgement without the 0x02 flag.
        {SnSet(kOne, 0),
         {0x06, 0x01, 0x18, 0x00},
         {0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}},
        // Only the low word of the base decides that nothing was received.
        {SnSet(SequenceNumber_t(1, 0), 0),
         {0x06, 0x03, 0x18, 0x00},
         {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}},
        // 32 bits are one word; the word beyond numBits is not sent.
        {SnSet(SequenceNumber_t(0, 5), 32, {0x12345678, 0x0BADF00D}),
         {0x06, 0x03, 0x1C, 0x00},
         {0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x20, 0x00,
          0x00, 0x00, 0x78, 0x56, 0x34, 0x12, 0x05, 0x00, 0x00, 0x00}},
        // 33 bits take two words; the count is the base's low word only.
        {SnSet(SequenceNumber_t(2, 7), 33, {0x12345678, 0x0BADF00D, 0x7EEEEEEE}),
         {0x06, 0x03, 0x20, 0x00},
         {0x02, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x21, 0x00, 0x00, 0x00,
          0x78, 0x56, 0x34, 0x12, 0x0D, 0xF0, 0xAD, 0x0B, 0x07, 0x00, 0x00, 0x00}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const uint32_t uiAt = len;
        ASSERT_NE(nullptr, mp.EncapsulateAckNackMessage(len, kWriter, kReader, row.set));
        EXPECT_EQ(Cat({row.head, kReaderWriter, row.tail}), Since(uiAt));
    }
}

TEST_F(MessageProcessor_Encode, GapWithBitmap) {
    ASSERT_NE(nullptr, mp.EncapsulateGapMessage(len, kWriter, kReader, SequenceNumber_t(0, 3),
                                                SnSet(SequenceNumber_t(0, 6), 3, {0xE0000000u})));
    // 0/3, 0/6, numBits 3, word 0
    const Bytes gap = {0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                       0x06, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xE0};
    EXPECT_EQ(Cat({{0x08, 0x01, 0x20, 0x00}, kReaderWriter, gap}), Since(20));
}

TEST_F(MessageProcessor_Encode, NackFragForcesFirstWordOnlyWhenBitsAreSet) {
    FragmentNumberSet s;
    s.bitmapBase = 1;
    s.numBits = 33;
    s.bitmap[0] = 0x40000000;  // the caller asked for fragment 2 only
    s.bitmap[1] = 0x80000000u;
    ASSERT_NE(nullptr, mp.EncapsulateNackFragMessage(len, kWriter, kReader, SequenceNumber_t(0, 9), s));
    const Bytes two = {
        // 0/9, base 1, numBits 33, word 0 forced, word 1, count
        0x00, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x21, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00, 0x80, 0x01, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(Cat({{0x12, 0x03, 0x24, 0x00}, kReaderWriter, two}), Since(20));
    EXPECT_EQ(0x80000000u, s.bitmap[0]);  // forced in the caller's set too

    s.numBits = 0;
    s.bitmap[0] = 0x1234;
    const uint32_t uiAt = len;
    ASSERT_NE(nullptr, mp.EncapsulateNackFragMessage(len, kWriter, kReader, SequenceNumber_t(0, 9), s));
    const Bytes none = {0x00, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00,
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00};  // count right behind numBits
    EXPECT_EQ(Cat({{0x12, 0x01, 0x1C, 0x00}, kReaderWriter, none}), Since(uiAt));
    EXPECT_EQ(0x1234u, s.bitmap[0]);
}

// ------------------------------------------------------------ DATA
// Plain DATA, large DATA and DATA_FRAG go through the encoder in the send request tests.
TEST_F(MessageProcessor_Encode, DataFlagsFollowInlineQosAndPayload) {
    const uint8_t payload[] = {0xDE, 0xAD, 0xBE, 0xEF};
    ASSERT_NE(nullptr,
              mp.EncapsulateDATAMessage(len, payload, 4, SequenceNumber_t(0, 2), kDisposeQos, kWriter));
    const uint32_t uiAt = len;
    ASSERT_NE(nullptr,
              mp.EncapsulateDATAMessage(len, nullptr, 0, SequenceNumber_t(0, 2), kDisposeQos, kWriter));
    // extraFlags, octetsToInlineQos 16, readerId, writerId, writerSN
    const Bytes front = {0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                         0x12, 0x03, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00};
    // E|Q|D with 20 + 12 + 4, then a dispose: E|Q with 20 + 12.
    EXPECT_EQ(Cat({{0x15, 0x07, 0x24, 0x00}, front, kInlineQos, Bytes(payload, payload + 4)}),
              At(20, uiAt - 20));
    EXPECT_EQ(Cat({{0x15, 0x03, 0x20, 0x00}, front, kInlineQos}), Since(uiAt));
}

// A parameter copies at most its 128-octet record from the caller; the encoder
// writes its full length, zero-filled behind the record.
TEST_F(MessageProcessor_Encode, OverlongParameterIsZeroFilledNotOverread) {
    const Bytes source(300, 0x5A);
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, nullptr, 0, kOne,
                                                 {Parameter(0x8001, 200, source.data())}, kWriter));
    EXPECT_EQ(44u + 4 + 200, len);
    EXPECT_EQ(Cat({{0x01, 0x80, 0xC8, 0x00}, Bytes(128, 0x5A), Bytes(72, 0)}), At(44, 204));
}

// ------------------------------------------------------------ positions and patches
TEST_F(MessageProcessor_Encode, DirectedDataMessageWithGapAndPatchedReader) {
    // The composition of a repair to one reader: INFO_DST, INFO_TS, GAP, DATA.
    ASSERT_NE(nullptr, mp.EncapsulateINFODSTMessage(len, kDstPrefix));
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, kStamp));
    ASSERT_NE(nullptr, mp.EncapsulateGapMessage(len, kWriter, ENTITYID_UNKNOWN, SequenceNumber_t(0, 3),
                                                SnSet(SequenceNumber_t(0, 6), 0)));
    const uint8_t hello[] = {'h', 'e', 'l', 'l', 'o'};
    ASSERT_NE(nullptr, mp.EncapsulateDATAMessage(len, hello, 5, SequenceNumber_t(0, 0x21), {}, kWriter));
    EXPECT_EQ(24u, mp.getDstGuidPrefixPos());
    EXPECT_EQ(52u, mp.getHeartBeatReaderIdPos());
    EXPECT_EQ(88u, mp.getDataReaderIdPos());
    ASSERT_NE(nullptr, mp.modifyHeartBeatReaderId(kReader));
    ASSERT_NE(nullptr, mp.modifyDataReaderId(kReader));
    // No padding: the next submessage starts right behind the odd-length DATA.
    ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, kStamp));

    // GAP, E, 28 (no bitmap words), the patched readerId, writerId, 0/3, 0/6, numBits 0
    const Bytes gap = {0x08, 0x01, 0x1C, 0x00, 0x00, 0x00, 0x12, 0x07, 0x00, 0x00, 0x12,
                       0x03, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00,
                       0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    // DATA, E|D, 25, no inline QoS; the patched readerId, writerId; 0/0x21; "hello"
    const Bytes data = {0x15, 0x05, 0x19, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                        0x12, 0x07, 0x00, 0x00, 0x12, 0x03, 0x00, 0x00, 0x00, 0x00,
                        0x21, 0x00, 0x00, 0x00, 0x68, 0x65, 0x6C, 0x6C, 0x6F};
    EXPECT_EQ(121u, len);
    EXPECT_EQ(Cat({kHeader, kInfoDst, kInfoTs, gap, data, kInfoTs}), At(0, len));

    // A new header clears the whole buffer and forgets the positions.
    ASSERT_NE(nullptr, mp.EncapsulateHeartBeatMessage(len, kWriter, kOne, kOne, 1));
    EXPECT_EQ(125u, mp.getHeartBeatReaderIdPos());
    ASSERT_NE(nullptr, mp.EncapsulateMessageHeader(len));
    EXPECT_EQ(20u, len);
    const uint32_t uiSize = mp.getEncapsulateMessageSize();
    EXPECT_EQ(Cat({kHeader, Bytes(uiSize - 20, 0)}), At(0, uiSize));
    EXPECT_EQ(0u, mp.getDstGuidPrefixPos() + mp.getDataReaderIdPos() + mp.getHeartBeatReaderIdPos());
}

// ------------------------------------------------------------ growth
TEST_F(MessageProcessor_Encode, ReserveThatExactlyFitsDoesNotGrow) {
    // INFO_TS takes 12 octets: at 2036 it ends the 2048-octet buffer, at 2037 the buffer doubles.
    for (const auto& [uiStart, uiSize] : {std::pair{2036u, 2048u}, {2037u, 4096u}}) {
        len = uiStart;
        ASSERT_NE(nullptr, mp.EncapsulateINFOTSMessage(len, Time_t(1, 2)));
        EXPECT_EQ(uiSize, mp.getEncapsulateMessageSize());
    }
}

// Every append names itself when the buffer cannot grow; the message is lost,
// every later append fails, and the next header starts afresh.
TEST_F(MessageProcessor_Encode, FailedGrowthLogsPerOperationAndHeaderRecovers) {
#define APPEND(call) [&](MessageProcessor& m, uint32_t& l) { return m.call; }
    const Bytes big(3000, 0x33);
    const std::list<Parameter> one = {Parameter(0x8001, 4, big.data())};
    FragmentNumberSet fn;
    const struct {
        uint32_t start;  // uiMessageLen at the call
        std::function<octet*(MessageProcessor&, uint32_t&)> append;
        const char* text;
    } rows[] = {
        {2040, APPEND(EncapsulateINFOTSMessage(l, kStamp)),
         "[MessageProcessor::EncapsulateINFOTSMessage] DoubleEncapsulateMessageSize Error"},
        {2040, APPEND(EncapsulateINFODSTMessage(l, kDstPrefix)),
         "[MessageProcessor::EncapsulateINFODSTMessage] DoubleEncapsulateMessageSize Error"},
        {2020, APPEND(EncapsulateHeartBeatMessage(l, kWriter, kOne, kOne, 1)),
         "[DataWriterImpl::write] MessageProcessor::EncapsulateHeartBeatMessage Error"},
        {2000, APPEND(EncapsulateGapMessage(l, kWriter, kReader, kOne, SnSet(kOne, 1))),
         "[DataWriterImpl::write] MessageProcessor::EncapsulateHeartBeatMessage Error"},
        {2000, APPEND(EncapsulateAckNackMessage(l, kWriter, kReader, SnSet(kOne, 1))),
         "[MessageProcessor::EncapsulateAckNackMessage] DoubleEncapsulateMessageSize Error"},
        {2000, APPEND(EncapsulateNackFragMessage(l, kWriter, kReader, kOne, fn)),
         "[MessageProcessor::EncapsulateNackFragMessage] DoubleEncapsulateMessageSize error"},
        {2040, APPEND(EncapsulateDATAMessage(l, nullptr, 0, kOne, {}, kWriter)),
         "[MessageProcessor::EncapsulateDATAMessage] DoubleEncapsulateMessageSize Error"},
        // The front exactly fits; the parameter's slack of 134 does not.
        {2024, APPEND(EncapsulateDATAMessage(l, nullptr, 0, kOne, one, kWriter)),
         "[MessageProcessor::EncapsulateDATAMessage]  DoubleEncapsulateMessageSize [1] Error"},
        {20, APPEND(EncapsulateDATAMessage(l, big.data(), 3000, kOne, {}, kWriter)),
         "[MessageProcessor::EncapsulateDATAMessage]  DoubleEncapsulateMessageSize [2] error"},
        {2020, APPEND(EncapsulateDATAFragMessage(l, nullptr, 0, 1, 0, kOne, {}, kWriter)),
         "[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [1] Error"},
        {2012, APPEND(EncapsulateDATAFragMessage(l, nullptr, 0, 1, 0, kOne, one, kWriter)),
         "[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [2] Error"},
        {20, APPEND(EncapsulateDATAFragMessage(l, big.data(), 3000, 1, 3000, kOne, {}, kWriter)),
         "[MessageProcessor::EncapsulateDATAFragMessage]  DoubleEncapsulateMessageSize [3] Error"},
    };
#undef APPEND
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        LogRecorder rowLog;
        MessageProcessor fresh(nullptr, nullptr, kOwnPrefix, kLogKey);
        fresh.setEncapsulateMessageLimit(2048);
        ASSERT_NE(nullptr, fresh.EncapsulateMessageHeader(len));
        len = row.start;
        EXPECT_EQ(nullptr, row.append(fresh, len));
        const std::vector<LogEntry> entries = rowLog.Entries();
        ASSERT_EQ(2u, entries.size());
        EXPECT_EQ("[MessageProcessor::DoubleEncapsulateMessageSize] m_pEncapsulateMessage = NULL",
                  entries[0].text);
        EXPECT_EQ(row.text, entries[1].text);
        EXPECT_EQ(kLogKey, entries[1].key);

        EXPECT_EQ(nullptr, fresh.getEncapsulateMessage());
        EXPECT_EQ(nullptr, fresh.EncapsulateINFOTSMessage(len, kStamp));
        EXPECT_EQ(nullptr, fresh.modifyDataReaderId(kReader));
        ASSERT_NE(nullptr, fresh.EncapsulateMessageHeader(len));
        EXPECT_EQ(2048u, fresh.getEncapsulateMessageSize());
        EXPECT_EQ(kHeader, Bytes(fresh.getEncapsulateMessage(), fresh.getEncapsulateMessage() + 20));
    }
}
