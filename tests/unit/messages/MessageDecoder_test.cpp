// Decoder walks over hand-built datagrams, delivered to recording endpoints that
// stand in a real Participant. The Participant is never given its network
// (initParticipant is not called) and its transmitter is a stub: no socket opens.
#include "messages/MessageProcessor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "QosPolicy.h"
#include "discovery/Discovery.h"
#include "log/LogObserver.h"
#include "messages/MessageTransmitter.h"
#include "messages/ReceiveBuffer.h"
#include "rtps/Participant.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"

namespace {

typedef std::vector<octet> Octets;

const GuidPrefix kLocal = {{0x0A, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}};
const GuidPrefix kRemote = {{0x0A, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00}};
const GuidPrefix kStranger = {{0x0A, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00}};
const EntityId_t kRemoteWriter = {{0x00, 0x04, 0x01}, 0x03};
const EntityId_t kUserReader = {{0x00, 0x09, 0x01}, 0x04};
const EntityId_t kLocalWriter = {{0x00, 0x04, 0x07}, 0x03};
const EntityId_t kBestEffortWriter = {{0x00, 0x04, 0x08}, 0x03};

// ------------------------------------------------------------ datagram building
// Fields in the byte order of the E flag; parameter ids and lengths always
// little-endian, as the decoder never swaps them.
struct Body {
    explicit Body(bool bLittle = true) : little(bLittle) {}
    Body& U8(unsigned v) { bytes.push_back(octet(v)); return *this; }
    Body& U16(unsigned v) { return little ? U8(v & 0xFF).U8(v >> 8 & 0xFF) : U8(v >> 8 & 0xFF).U8(v & 0xFF); }
    Body& U32(uint32_t v) { return little ? U16(v & 0xFFFF).U16(v >> 16) : U16(v >> 16).U16(v & 0xFFFF); }
    Body& Id(const EntityId_t& id) { return U8(id.entityKey[0]).U8(id.entityKey[1]).U8(id.entityKey[2]).U8(id.entityKind); }
    Body& Seq(uint32_t low, uint32_t high = 0) { return U32(high).U32(low); }
    Body& Raw(const Octets& v) { bytes.insert(bytes.end(), v.begin(), v.end()); return *this; }
    Body& Param(uint16_t id, const Octets& value) {
        U8(id & 0xFF).U8(id >> 8).U8(value.size() & 0xFF).U8(value.size() >> 8);
        return Raw(value);
    }
    bool little;
    Octets bytes;
};

struct Datagram {
    explicit Datagram(const GuidPrefix& prefix = kRemote) {
        bytes = {'R', 'T', 'P', 'S', 2, 2, 8, 8};
        bytes.insert(bytes.end(), prefix.value, prefix.value + 12);
    }
    // octetsToNextHeader is the body's size unless given.
    Datagram& Sub(octet kind, octet flags, const Body& body, int iLength = -1) {
        const unsigned uLength = iLength < 0 ? unsigned(body.bytes.size()) : unsigned(iLength);
        Body head((flags & 1) != 0);
        head.U8(kind).U8(flags).U16(uLength);
        bytes.insert(bytes.end(), head.bytes.begin(), head.bytes.end());
        bytes.insert(bytes.end(), body.bytes.begin(), body.bytes.end());
        return *this;
    }
    Datagram& Data(const EntityId_t& writer, uint32_t sn, const Octets& payload, const Body& qos = Body(),
                   bool bLittle = true) {
        Body b(bLittle);
        b.U16(0).U16(qos.bytes.empty() ? 0 : 16).Id(ENTITYID_UNKNOWN).Id(writer).Seq(sn).Raw(qos.bytes).Raw(payload);
        return Sub(DATA, octet((bLittle ? 1 : 0) | (qos.bytes.empty() ? 0 : 2) | (payload.empty() ? 0 : 4)), b);
    }
    Datagram& DataFrag(const EntityId_t& writer, uint32_t sn, uint32_t fragNum, uint32_t sampleSize,
                       const Octets& fragment, const Body& qos = Body()) {
        Body b;
        b.U16(0).U16(qos.bytes.empty() ? 0 : 16).Id(ENTITYID_UNKNOWN).Id(writer).Seq(sn).Raw(qos.bytes);
        b.U32(fragNum).U16(1).U16(FRAGMENT_SIZE).U32(sampleSize).Raw(fragment);
        return Sub(DATA_FRAG, octet(1 | (qos.bytes.empty() ? 0 : 2)), b);
    }
    Datagram& Heartbeat(const EntityId_t& writer, uint32_t first, uint32_t last, uint32_t count, bool bLittle = true) {
        Body b(bLittle);
        b.Id(ENTITYID_UNKNOWN).Id(writer).Seq(first).Seq(last).U32(count);
        return Sub(HEARTBEAT, bLittle ? 1 : 0, b);
    }
    // Bitmap of numBits rounded up to words, then the count, as the encoder lays it out.
    Datagram& AckNack(const EntityId_t& writer, uint32_t base, uint32_t numBits, uint32_t count) {
        Body b;
        b.Id(kUserReader).Id(writer).Seq(base).U32(numBits);
        for (uint32_t i = 0; i < (numBits + 31) / 32; ++i) b.U32(0xA0000000u + i);
        b.U32(count);
        return Sub(ACKNACK, 1, b);
    }
    Datagram& NackFrag(const EntityId_t& writer, uint32_t sn, uint32_t base, uint32_t numBits) {
        Body b;
        b.Id(kUserReader).Id(writer).Seq(sn).U32(base).U32(numBits);
        for (uint32_t i = 0; i < (numBits + 31) / 32; ++i) b.U32(0x80000000u);
        b.U32(base);
        return Sub(NACK_FRAG, 3, b);
    }
    Datagram& Gap(const EntityId_t& writer, uint32_t start) {
        Body b;
        b.Id(ENTITYID_UNKNOWN).Id(writer).Seq(start).Seq(start + 1).U32(0);
        return Sub(GAP, 1, b);
    }
    Datagram& InfoTs(int32_t sec, uint32_t fraction) { return Sub(INFO_TS, 1, Body().U32(uint32_t(sec)).U32(fraction)); }
    Datagram& InfoDst(const GuidPrefix& prefix) {
        return Sub(INFO_DST, 1, Body().Raw(Octets(prefix.value, prefix.value + 12)));
    }
    Octets bytes;
};

// Unknown submessages (PAD) of 0xFF octets up to the given datagram size.
void FillTo(Datagram& d, size_t uiSize) {
    while (uiSize - d.bytes.size() > 4 + 60000) d.Sub(0x01, 1, Body().Raw(Octets(60000, 0xFF)));
    d.Sub(0x01, 1, Body().Raw(Octets(uiSize - d.bytes.size() - 4, 0xFF)));
}

// ------------------------------------------------------------ recording endpoints
struct DataCall {
    EntityId_t writerId;
    uint32_t sn;
    std::vector<Parameter> qos;
    bool hasData;
    Octets payload;
    uint32_t length;
    Time_t timestamp;
    GuidPrefix source;
    dataFrag fragment;
};

class RecordingReader : public StatefulReader {
public:
    explicit RecordingReader(const EntityId_t& id) : StatefulReader(GUID_t(kLocal, id), DataReaderQos(), nullptr) {}
    int DataMessageReceive(const MessageReceiver& r, const DataSubMessage& m, const std::list<Parameter>& qos,
                           const octet* pData, uint32_t uiLength) override {
        data.push_back(Record(r, m, qos, pData, uiLength, dataFrag()));
        ++dataCount;
        return 0;
    }
    int DataFragMessageReceive(const MessageReceiver& r, const DataFragSubMessage& m, const dataFrag& f,
                               const std::list<Parameter>& qos, const octet* pData, uint32_t uiLength) override {
        frags.push_back(Record(r, m, qos, pData, uiLength, f));
        return 0;
    }
    int HeartBeatMessageReceive(const MessageReceiver&, const heartBeatSubMessage& m) override {
        heartbeats.push_back(m);
        return 0;
    }
    int GapMessageReceive(const MessageReceiver&, const stGapSubMessage&) override {
        ++gaps;
        return 0;
    }
    std::vector<DataCall> data, frags;
    std::atomic<int> dataCount{0};  // for a look from another thread
    std::vector<heartBeatSubMessage> heartbeats;
    int gaps = 0;

private:
    static DataCall Record(const MessageReceiver& r, const DataSubMessage& m, const std::list<Parameter>& qos,
                           const octet* pData, uint32_t uiLength, const dataFrag& f) {
        DataCall c{m.writerId, m.writerSN.low, {qos.begin(), qos.end()}, pData != nullptr, {}, uiLength,
                   r.timestamp, r.sourceGuidPrefix, f};
        if (pData != nullptr) c.payload.assign(pData, pData + uiLength);
        return c;
    }
};

class RecordingWriter : public StatefulWriter {
public:
    explicit RecordingWriter(const EntityId_t& id) : StatefulWriter(GUID_t(kLocal, id), DataWriterQos(), nullptr) {}
    int AckNackMessageReceive(const MessageReceiver&, const ackMessage& m) override {
        acks.push_back(m);
        return 0;
    }
    int NackFragMessageReceive(const MessageReceiver&, const NackFragMessage& m) override {
        nackFrags.push_back(m);
        return 0;
    }
    std::vector<ackMessage> acks;
    std::vector<NackFragMessage> nackFrags;
};

class NullTransmitter : public MessageTransmitter {
public:
    explicit NullTransmitter(ReceiveBuffer* pBuffer) : MessageTransmitter(pBuffer) {}
    int SendAddrAdd(Locator_t) override { return 0; }
    int MessageSend(const std::list<Locator_t>&, const std::list<Locator_t>&, const octet*, uint32_t) override { return 0; }
    int MessageSend(Locator_t, Locator_t, const octet*, uint32_t) override { return 0; }
    int MessageSend(const Locator_t*, const Locator_t*, const octet*, uint32_t) override { return 0; }
    int ReceiveMessage() override { return 0; }
    int ReceiveAddrAdd(Locator_t) override { return 0; }
    int ReceiveAddrRemove(Locator_t) override { return 0; }
};
MessageTransmitter* MakeNullTransmitter(ReceiveBuffer* pBuffer, int) { return new NullTransmitter(pBuffer); }

struct LogLine {
    std::string text;
    int code;
};

class MessageProcessor_Decode : public ::testing::Test {
protected:
    MessageProcessor_Decode()
        : m_Discovery(nullptr), m_Participant(GUID_t(kLocal, ENTITYID_PARTICIPANT), nullptr, 77, nullptr, &MakeNullTransmitter) {
        m_Participant.setDiscovery(&m_Discovery);
        m_pSpdp = AddReader(ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER);
        m_pPub = AddReader(ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER);
        m_pSub = AddReader(ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER);
        m_pP2p = AddReader(ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_READER);
        m_pUser = AddReader(kUserReader);
        m_Discovery.addWriterReaderPair(GUID_t(kRemote, kRemoteWriter), kUserReader);
        DataWriterQos reliable;
        reliable.reliability.kind = RELIABLE_RELIABILITY_QOS;
        Endpoint* pReal = m_Participant.createWriter(reliable, kLocalWriter);
        m_pWriter = new RecordingWriter(kLocalWriter);
        Substitute(pReal, m_pWriter);
        DataWriterQos bestEffort;
        bestEffort.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
        m_pBestEffort = m_Participant.createWriter(bestEffort, kBestEffortWriter);
        SetLogObserver(&MessageProcessor_Decode::Observe, this);
    }
    ~MessageProcessor_Decode() override { SetLogObserver(nullptr, nullptr); }

    // The participant's own reader, swapped for a recording one through the
    // registry's borrow: the participant owns and deletes the stand-in.
    RecordingReader* AddReader(const EntityId_t& id) {
        Endpoint* pReal = m_Participant.createReader(DataReaderQos(), id);
        RecordingReader* pStandIn = new RecordingReader(id);
        Substitute(pReal, pStandIn);
        return pStandIn;
    }
    void Substitute(Endpoint* pReal, Endpoint* pStandIn) {
        ASSERT_EQ(m_Participant.takeEndpoint(pReal->getEntityId()), pReal);
        m_Participant.returnEndpoint(pStandIn);
        delete pReal;
    }

    int Run(const Datagram& d) { return Processor().InterpretDatagram(d.bytes.data(), uint32_t(d.bytes.size())); }
    MessageProcessor& Processor() { return *m_Participant.getMessageProcessor(); }

    // True when the endpoint is in the registry. A take that spins on a borrowed
    // endpoint is ended by giving the endpoint back, so this never hangs.
    bool IsAvailable(Endpoint* pEndpoint) {
        std::atomic<Endpoint*> taken{nullptr};
        std::thread taker([&] { taken = m_Participant.takeEndpoint(pEndpoint->getEntityId()); });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
        while (taken == nullptr && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const bool bAvailable = taken != nullptr;
        if (!bAvailable) m_Participant.returnEndpoint(pEndpoint);
        taker.join();
        m_Participant.returnEndpoint(pEndpoint);
        return bAvailable;
    }

    int CountLog(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_LogMutex);
        int n = 0;
        for (const LogLine& l : m_Log) n += l.text == text ? 1 : 0;
        return n;
    }
    std::vector<LogLine> Log() {
        std::lock_guard<std::mutex> lock(m_LogMutex);
        return m_Log;
    }
    static void Observe(void* pContext, int, const char* text, size_t length, int code) {
        MessageProcessor_Decode* self = static_cast<MessageProcessor_Decode*>(pContext);
        std::lock_guard<std::mutex> lock(self->m_LogMutex);
        self->m_Log.push_back(LogLine{std::string(text, length), code});
    }

    Discovery m_Discovery;
    Participant m_Participant;
    RecordingReader *m_pSpdp, *m_pPub, *m_pSub, *m_pP2p, *m_pUser;
    RecordingWriter* m_pWriter;
    Endpoint* m_pBestEffort;
    std::mutex m_LogMutex;
    std::vector<LogLine> m_Log;
};

const char* const kDataNoReader = "[MessageProcessor::InterpretDataMessage] pReader = NULL";
const char* const kNoMatch = "[Participant::lookupMatchedReader] pReader = ENTITYID_UNKNOW";

}  // namespace

// ------------------------------------------------------------ routing

TEST_F(MessageProcessor_Decode, DataOfABuiltinWriterGoesToItsBuiltinReaderWhateverTheReaderIdSays) {
    const struct {
        EntityId_t writer;
        RecordingReader* reader;
    } routes[] = {{ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, m_pSpdp},
                  {ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER, m_pPub},
                  {ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER, m_pSub},
                  {ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER, m_pP2p}};
    uint32_t sn = 1;
    for (const auto& route : routes) {
        // From a participant that discovery has never heard of: no matching is asked.
        EXPECT_EQ(Run(Datagram(kStranger).Data(route.writer, sn, {1, 2, 3})), MessageProcessor::INTERPRET_NO_HANDLER);
        ASSERT_EQ(route.reader->data.size(), 1u);
        const DataCall& call = route.reader->data[0];
        EXPECT_EQ(call.sn, sn);
        EXPECT_EQ(call.payload, (Octets{1, 2, 3}));
        EXPECT_EQ(0, std::memcmp(call.source.value, kStranger.value, 12));
        EXPECT_TRUE(IsAvailable(route.reader));
        ++sn;
    }
    EXPECT_TRUE(m_pUser->data.empty());
    EXPECT_EQ(CountLog(kNoMatch), 0);
}

TEST_F(MessageProcessor_Decode, DataOfAnyOtherWriterGoesToTheReaderDiscoveryMatched) {
    Run(Datagram().Data(kRemoteWriter, 9, {7, 7}));
    ASSERT_EQ(m_pUser->data.size(), 1u);
    EXPECT_EQ(m_pUser->data[0].sn, 9u);
    EXPECT_TRUE(IsAvailable(m_pUser));

    // Same writer id, other participant: a different writer, matched to nobody.
    Run(Datagram(kStranger).Data(kRemoteWriter, 10, {7}));
    EXPECT_EQ(m_pUser->data.size(), 1u);
    EXPECT_EQ(CountLog(kNoMatch), 1);
    EXPECT_EQ(CountLog(kDataNoReader), 1);
}

TEST_F(MessageProcessor_Decode, DataAfterAFailedLookupInTheSameDatagramIsStillInterpreted) {
    Run(Datagram().Data({{0, 0x44, 0x44}, 0x03}, 1, {1}).Data(kRemoteWriter, 2, {2}));
    EXPECT_EQ(CountLog(kDataNoReader), 1);
    ASSERT_EQ(m_pUser->data.size(), 1u);
    EXPECT_EQ(m_pUser->data[0].payload, Octets{2});
}

TEST_F(MessageProcessor_Decode, DataFragAlwaysGoesThroughMatchingEvenFromABuiltinWriter) {
    Run(Datagram().DataFrag(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, 4, 2, 70000, {5, 6, 7}));
    EXPECT_TRUE(m_pSpdp->frags.empty());
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretDataFragMessage] Seq = 4 FragmentStartingNum = 2 "
                       "FragmentsInSubmessage = 1 usFragmentSize = 64512 uiSampleSize = 70000"), 1);
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretDataFragMessage] pReader = NULL"), 1);

    m_Discovery.addWriterReaderPair(GUID_t(kRemote, ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER), kUserReader);
    Run(Datagram().DataFrag(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, 4, 2, 70000, {5, 6, 7}));
    ASSERT_EQ(m_pUser->frags.size(), 1u);
    const DataCall& call = m_pUser->frags[0];
    EXPECT_EQ(call.fragment.fragmentStartingNum, 2u);
    EXPECT_EQ(call.fragment.fragmentsInSubmessage, 1u);
    EXPECT_EQ(call.fragment.fragmentSize, FRAGMENT_SIZE);
    EXPECT_EQ(call.fragment.sampleSize, 70000u);
    EXPECT_EQ(call.payload, (Octets{5, 6, 7}));
    EXPECT_TRUE(IsAvailable(m_pUser));
}

TEST_F(MessageProcessor_Decode, HeartbeatGoesToTheSedpReadersOrThroughMatching) {
    Run(Datagram()
            .Heartbeat(ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER, 1, 3, 11)
            .Heartbeat(ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER, 2, 4, 12)
            .Heartbeat(kRemoteWriter, 5, 8, 13)
            // The participant writer has no table entry for heartbeats.
            .Heartbeat(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, 1, 1, 14));
    ASSERT_EQ(m_pPub->heartbeats.size(), 1u);
    ASSERT_EQ(m_pSub->heartbeats.size(), 1u);
    ASSERT_EQ(m_pUser->heartbeats.size(), 1u);
    EXPECT_TRUE(m_pSpdp->heartbeats.empty());
    EXPECT_EQ(m_pUser->heartbeats[0].firstSN.low, 5u);
    EXPECT_EQ(m_pUser->heartbeats[0].lastSN.low, 8u);
    EXPECT_EQ(m_pUser->heartbeats[0].count, 13u);
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretHeartbeatMessage] pReader = NULL"), 1);
    EXPECT_TRUE(IsAvailable(m_pPub));
    EXPECT_TRUE(IsAvailable(m_pUser));
}

TEST_F(MessageProcessor_Decode, InfoDstForAnotherParticipantDoesNotStopAHeartbeat) {
    Run(Datagram().InfoDst(kStranger).Heartbeat(kRemoteWriter, 1, 2, 3));
    EXPECT_EQ(m_pUser->heartbeats.size(), 1u);
}

TEST_F(MessageProcessor_Decode, AckNackAndNackFragGoToTheReliableWriterByWriterId) {
    // One bitmap word: the fixed 60-octet copy takes its count from offset 56,
    // which lies behind this 32-octet submessage, in the NACK_FRAG that follows.
    Datagram d;
    d.AckNack(kLocalWriter, 7, 3, 7).NackFrag(kLocalWriter, 9, 4, 1);
    Run(d);
    ASSERT_EQ(m_pWriter->acks.size(), 1u);
    const ackMessage& ack = m_pWriter->acks[0];
    EXPECT_EQ(ack.readerSNState.bitmapBase.low, 7u);
    EXPECT_EQ(ack.readerSNState.numBits, 3u);
    EXPECT_EQ(ack.readerSNState.bitmap[0], 0xA0000000u);
    EXPECT_TRUE(ack.readerId == kUserReader);
    uint32_t uiBehind;
    std::memcpy(&uiBehind, d.bytes.data() + 20 + 56, 4);
    EXPECT_EQ(ack.count, uiBehind);

    ASSERT_EQ(m_pWriter->nackFrags.size(), 1u);
    EXPECT_EQ(m_pWriter->nackFrags[0].writerSN.low, 9u);
    EXPECT_EQ(m_pWriter->nackFrags[0].fragmentNumberState.bitmapBase, 4u);
    EXPECT_EQ(m_pWriter->nackFrags[0].fragmentNumberState.numBits, 1u);
    EXPECT_TRUE(IsAvailable(m_pWriter));
}

TEST_F(MessageProcessor_Decode, AckNackForAnUnknownWriterIsLoggedAndForABestEffortWriterKeepsItBorrowed) {
    Run(Datagram().AckNack({{0, 0x55, 0x55}, 0x03}, 1, 0, 1));
    EXPECT_EQ(CountLog("[Participant::takeEndpoint] Donot Exist"), 1);
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretAckNackMessage] pStatefulWriter = NULL"), 1);

    Run(Datagram().NackFrag(kBestEffortWriter, 1, 1, 1));
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretNackFragMessage] pStatefulWriter = NULL"), 1);
    EXPECT_FALSE(IsAvailable(m_pBestEffort));  // IsAvailable gives it back
}

TEST_F(MessageProcessor_Decode, GapFindsTheReaderButNeitherTellsNorReturnsIt) {
    Run(Datagram().Gap(ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER, 5).Data(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, 1, {1}));
    EXPECT_EQ(m_pPub->gaps, 0);
    EXPECT_FALSE(IsAvailable(m_pPub));
    // The walk went on behind the GAP.
    EXPECT_EQ(m_pSpdp->data.size(), 1u);

    Run(Datagram().Gap(kRemoteWriter, 5));
    EXPECT_FALSE(IsAvailable(m_pUser));
    EXPECT_EQ(m_pUser->gaps, 0);
}

// ------------------------------------------------------------ the walk

TEST_F(MessageProcessor_Decode, ADatagramOfZerosIsOneSubmessageOfKindZero) {
    const Octets zeros(40, 0);
    EXPECT_EQ(Processor().InterpretDatagram(zeros.data(), uint32_t(zeros.size())), MessageProcessor::INTERPRET_NO_HANDLER);
    EXPECT_TRUE(Log().empty());
}

TEST_F(MessageProcessor_Decode, AForeignProtocolIdIsInterpretedAllTheSame) {
    Datagram d;
    d.Data(kRemoteWriter, 1, {1});
    std::memcpy(d.bytes.data(), "XXXX", 4);
    d.bytes[4] = 9;
    d.bytes[6] = 1;
    Run(d);
    EXPECT_EQ(m_pUser->data.size(), 1u);
}

TEST_F(MessageProcessor_Decode, UnknownKindsAreSkippedByTheirLength) {
    Datagram d;
    d.Sub(0x01, 1, Body().U32(0xFFFFFFFF).U32(0x15011500))   // PAD holding bytes that look like DATA
        .Sub(0x0C, 1, Body().Raw(Octets(20, 0x16)))            // INFO_SRC
        .Sub(0x80, 0, Body().Raw(Octets(3, 0x07)))             // vendor kind, other byte order, odd length
        .Data(kRemoteWriter, 1, {1});
    EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_NO_HANDLER);
    ASSERT_EQ(m_pUser->data.size(), 1u);
}

TEST_F(MessageProcessor_Decode, AZeroLengthEndsTheWalkAfterItsOwnHandler) {
    EXPECT_EQ(Run(Datagram().Sub(0x01, 1, Body()).Data(kRemoteWriter, 1, {1})), MessageProcessor::INTERPRET_NO_HANDLER);
    EXPECT_TRUE(m_pUser->data.empty());

    // A HEARTBEAT claiming length 0 is still handled (its fields read as they stand).
    Datagram d;
    d.Heartbeat(kRemoteWriter, 1, 2, 3);
    d.bytes[22] = d.bytes[23] = 0;
    d.Data(kRemoteWriter, 1, {1});
    EXPECT_EQ(Run(d), 0);
    EXPECT_EQ(m_pUser->heartbeats.size(), 1u);
    EXPECT_TRUE(m_pUser->data.empty());
}

TEST_F(MessageProcessor_Decode, OtherByteOrderSwapsTheFieldsAndTheWalkLength) {
    Run(Datagram().Heartbeat(kRemoteWriter, 0x01020304, 0x01020305, 0x0A0B0C0D, false).Data(kRemoteWriter, 2, {2}));
    ASSERT_EQ(m_pUser->heartbeats.size(), 1u);
    EXPECT_EQ(m_pUser->heartbeats[0].firstSN.low, 0x01020304u);
    EXPECT_EQ(m_pUser->heartbeats[0].lastSN.low, 0x01020305u);
    EXPECT_EQ(m_pUser->heartbeats[0].count, 0x0A0B0C0Du);
    EXPECT_EQ(m_pUser->heartbeats[0].header.octetsToNextHeader, 28u);
    ASSERT_EQ(m_pUser->data.size(), 1u);  // found behind a swapped length
    EXPECT_EQ(m_pUser->data[0].sn, 2u);
}

TEST_F(MessageProcessor_Decode, OtherByteOrderDataGetsItsLengthFromTheUnswappedField) {
    Run(Datagram().Data(kRemoteWriter, 0x0102, {9, 9, 9, 9}, Body(), false).Data(kRemoteWriter, 3, {3}));
    ASSERT_EQ(m_pUser->data.size(), 2u);
    EXPECT_EQ(m_pUser->data[0].sn, 0x0102u);
    // octetsToNextHeader 24 arrives as 00 18 and reads 0x1800 before the swap.
    EXPECT_EQ(m_pUser->data[0].length, 0x1800u - 20);
    EXPECT_EQ(Octets(m_pUser->data[0].payload.begin(), m_pUser->data[0].payload.begin() + 4), (Octets{9, 9, 9, 9}));
    EXPECT_EQ(m_pUser->data[1].sn, 3u);
}

TEST_F(MessageProcessor_Decode, InlineQosIsReadUpToTheSentinelAndTakenOffThePayload) {
    Body qos;
    qos.Param(112, Octets(16, 0x11)).Param(113, {0, 0, 0, 3}).Param(1, {});
    Run(Datagram().Data(kRemoteWriter, 1, {0xAB, 0xCD}, qos));
    ASSERT_EQ(m_pUser->data.size(), 1u);
    const DataCall& call = m_pUser->data[0];
    ASSERT_EQ(call.qos.size(), 2u);
    EXPECT_EQ(call.qos[0].parameterId, 112);
    EXPECT_EQ(call.qos[0].length, 16);
    EXPECT_EQ(call.qos[1].parameterId, 113);
    EXPECT_EQ(call.qos[1].value[3], 3);
    EXPECT_EQ(call.payload, (Octets{0xAB, 0xCD}));
}

TEST_F(MessageProcessor_Decode, ASentinelInFirstPlaceIsAnItemAndTheListRunsToTheNextSentinel) {
    Body qos;
    qos.Param(1, {}).Param(5, {1, 2, 3, 4}).Param(1, {});
    Run(Datagram().Data(kRemoteWriter, 1, {0xEE}, qos));
    ASSERT_EQ(m_pUser->data.size(), 1u);
    ASSERT_EQ(m_pUser->data[0].qos.size(), 2u);
    EXPECT_EQ(m_pUser->data[0].qos[0].parameterId, 1);
    EXPECT_EQ(m_pUser->data[0].qos[1].parameterId, 5);
    EXPECT_EQ(m_pUser->data[0].payload, Octets{0xEE});
}

TEST_F(MessageProcessor_Decode, DataWithoutPayloadFlagPassesNoPointerAndTheComputedLength) {
    Datagram d;
    d.Data(kRemoteWriter, 1, {1, 2, 3, 4});
    d.bytes[21] = 0x01;  // clear 0x04
    Run(d);
    ASSERT_EQ(m_pUser->data.size(), 1u);
    EXPECT_FALSE(m_pUser->data[0].hasData);
    EXPECT_EQ(m_pUser->data[0].length, 4u);
}

TEST_F(MessageProcessor_Decode, InfoTsSetsTheTimestampForTheRestOfTheDatagramOnly) {
    Run(Datagram().Data(kRemoteWriter, 1, {1}).InfoTs(100, 0x80000000u).Data(kRemoteWriter, 2, {2}).Data(kRemoteWriter, 3, {3}));
    Run(Datagram().Data(kRemoteWriter, 4, {4}));
    ASSERT_EQ(m_pUser->data.size(), 4u);
    EXPECT_EQ(m_pUser->data[0].timestamp, Time_t(0, 0));
    EXPECT_EQ(m_pUser->data[1].timestamp, Time_t(100, 0x80000000u));
    EXPECT_EQ(m_pUser->data[2].timestamp, Time_t(100, 0x80000000u));
    EXPECT_EQ(m_pUser->data[3].timestamp, Time_t(0, 0));
}

// ------------------------------------------------------------ bounds

TEST_F(MessageProcessor_Decode, AShortDatagramIsReadOnIntoTheZerosBehindIt) {
    Datagram d;
    d.Data(kRemoteWriter, 1, {1, 2});
    d.bytes[22] = 40;  // claims 20 more octets than it carries
    EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_NO_HANDLER);
    ASSERT_EQ(m_pUser->data.size(), 1u);
    Octets expected(20, 0);
    expected[0] = 1;
    expected[1] = 2;
    EXPECT_EQ(m_pUser->data[0].payload, expected);
}

TEST_F(MessageProcessor_Decode, ASubmessagePastTheBufferStopsTheWalkWithoutItsHandler) {
    Datagram d;
    d.Data(kRemoteWriter, 1, {1});
    FillTo(d, MessageProcessor::MESSAGE_BUFFER_SIZE - 8);
    d.Sub(DATA, 5, Body().U32(0), 0xFFFF);  // its last 4 octets end the buffer; it claims 65535
    EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_CUT);
    EXPECT_EQ(m_pUser->data.size(), 1u);
    EXPECT_EQ(CountLog(kNoMatch), 0);
    EXPECT_EQ(CountLog(kDataNoReader), 0);
}

TEST_F(MessageProcessor_Decode, ALongDatagramIsCutAtTheBufferAndFixedRecordsReadZerosBeyond) {
    Datagram d;
    FillTo(d, MessageProcessor::MESSAGE_BUFFER_SIZE - 32);
    d.AckNack(kLocalWriter, 5, 32, 0x12345678);  // 32 octets: ends with the buffer
    d.bytes.resize(d.bytes.size() + 100, 0xEE);   // never seen
    EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_NO_HANDLER);
    ASSERT_EQ(m_pWriter->acks.size(), 1u);
    const ackMessage& ack = m_pWriter->acks[0];
    EXPECT_EQ(ack.readerSNState.bitmapBase.low, 5u);
    EXPECT_EQ(ack.readerSNState.bitmap[1], 0x12345678u);  // the count, where a full bitmap would be
    EXPECT_EQ(ack.readerSNState.bitmap[2], 0u);
    EXPECT_EQ(ack.count, 0u);
}

TEST_F(MessageProcessor_Decode, MalformedDataIsDroppedAndEndsTheWalk) {
    Body noSentinel;
    noSentinel.Param(112, Octets(8, 1));
    const Datagram cases[] = {
        Datagram().Data(kRemoteWriter, 1, {1}, noSentinel).Data(kRemoteWriter, 2, {2}),
        Datagram().Sub(DATA, 5, Body().Raw(Octets(16, 0)), 16).Data(kRemoteWriter, 2, {2}),    // shorter than its front
        Datagram().Sub(DATA_FRAG, 1, Body().U16(0).U16(0).Id(ENTITYID_UNKNOWN).Id(kRemoteWriter).Seq(1).U32(1))
            .Data(kRemoteWriter, 2, {2}),                                                         // no room for fragment fields
    };
    for (const Datagram& d : cases) {
        EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_CUT);
    }
    EXPECT_TRUE(m_pUser->data.empty());
    EXPECT_TRUE(m_pUser->frags.empty());
    EXPECT_TRUE(IsAvailable(m_pUser));
    EXPECT_EQ(CountLog(kDataNoReader), 0);
}

TEST_F(MessageProcessor_Decode, AParameterLongerThanTheRecordKeepsItsFirstOctetsAndTheListStaysInStep) {
    Octets big(300);
    for (size_t i = 0; i < big.size(); ++i) big[i] = octet(i);
    Body qos;
    qos.Param(44, big).Param(1, {});
    Run(Datagram().Data(kRemoteWriter, 1, {0x5A}, qos));
    ASSERT_EQ(m_pUser->data.size(), 1u);
    const DataCall& call = m_pUser->data[0];
    ASSERT_EQ(call.qos.size(), 1u);
    EXPECT_EQ(call.qos[0].length, PARAMETER_VALUE_MAX);
    EXPECT_EQ(call.qos[0].value[PARAMETER_VALUE_MAX - 1], octet(PARAMETER_VALUE_MAX - 1));
    EXPECT_EQ(call.payload, Octets{0x5A});
}

// ------------------------------------------------------------ the ring and the thread

TEST_F(MessageProcessor_Decode, TheProcessThreadDecodesFromTheRingAndStopsWithItsLines) {
    Datagram d;
    d.Data(kRemoteWriter, 1, {1});
    ASSERT_EQ(m_Participant.getReceiveBuffer()->Write(d.bytes.data(), uint32_t(d.bytes.size())), 0);
    ::testing::internal::CaptureStdout();
    std::thread loop(&MessageProcessor::ProcessRun, &Processor());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (m_pUser->dataCount == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    Processor().Stop();
    loop.join();  // the ring's wait ends within a second
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Stop Process Thread .. \n");
    EXPECT_TRUE(Processor().IsStopped());
    EXPECT_EQ(m_pUser->dataCount, 1);
    std::vector<int> codes;
    for (const LogLine& l : Log())
        if (l.text == "Stop Process Thread Sucess") codes.push_back(l.code);
    EXPECT_EQ(codes, (std::vector<int>{DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO}));
}

TEST_F(MessageProcessor_Decode, InterpretMessageReportsAnEmptyRingAfterItsWait) {
    std::vector<octet> buffer(MessageProcessor::MESSAGE_BUFFER_SIZE, 0xFF);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Processor().InterpretMessage(buffer.data()), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    EXPECT_EQ(buffer[100], 0);  // cleared before the read
}
