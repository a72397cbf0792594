// Decoder walks over hand-built datagrams, delivered to recording endpoints that
// stand in a real Participant. The Participant is never given its network
// (initParticipant is not called) and its transmitter is a stub: no socket opens.
#include "messages/MessageProcessor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "DataSendRig.h"
#include "DatagramBuilder.h"
#include "QosPolicy.h"
#include "discovery/Discovery.h"
#include "messages/ReceiveBuffer.h"
#include "rtps/Participant.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"

namespace {

const GuidPrefix kLocal = {{0x0A, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}};
const GuidPrefix kRemote = {{0x0A, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00}};
const GuidPrefix kStranger = {{0x0A, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00}};
const EntityId_t kRemoteWriter = {{0x00, 0x04, 0x01}, 0x03};
const EntityId_t kUserReader = {{0x00, 0x09, 0x01}, 0x04};
const EntityId_t kLocalWriter = {{0x00, 0x04, 0x07}, 0x03};
const EntityId_t kBestEffortWriter = {{0x00, 0x04, 0x08}, 0x03};

// ------------------------------------------------------------ recording endpoints
struct DataCall {
    uint32_t sn;
    std::vector<Parameter> qos;
    Octets payload;
    uint32_t length;
    Time_t timestamp;
    GuidPrefix source;
    dataFrag fragment;
};
typedef std::vector<uint32_t> Sns;

Sns SnsOf(const std::vector<DataCall>& calls) {
    Sns sns;
    for (const DataCall& c : calls) sns.push_back(c.sn);
    return sns;
}

class RecordingReader : public StatefulReader {
public:
    explicit RecordingReader(const EntityId_t& id)
        : StatefulReader(GUID_t(kLocal, id), DataReaderQos(), nullptr) {}
    int DataMessageReceive(const MessageReceiver& r, const DataSubMessage& m, const std::list<Parameter>& qos,
                           const octet* pData, uint32_t uiLength) override {
        data.push_back(Record(r, m, qos, pData, uiLength, dataFrag()));
        return ++dataCount, 0;
    }
    int DataFragMessageReceive(const MessageReceiver& r, const DataFragSubMessage& m, const dataFrag& f,
                               const std::list<Parameter>& qos, const octet* pData,
                               uint32_t uiLength) override {
        return frags.push_back(Record(r, m, qos, pData, uiLength, f)), 0;
    }
    int HeartBeatMessageReceive(const MessageReceiver&, const heartBeatSubMessage& m) override {
        return heartbeats.push_back(m), 0;
    }
    int GapMessageReceive(const MessageReceiver&, const stGapSubMessage&) override { return ++gaps, 0; }
    static DataCall Record(const MessageReceiver& r, const DataSubMessage& m, const std::list<Parameter>& qos,
                           const octet* pData, uint32_t uiLength, const dataFrag& f) {
        return DataCall{m.writerSN.low,
                        {qos.begin(), qos.end()},
                        pData ? Octets(pData, pData + uiLength) : Octets(),
                        uiLength,
                        r.timestamp,
                        r.sourceGuidPrefix,
                        f};
    }
    std::vector<DataCall> data, frags;
    std::atomic<int> dataCount{0};  // for a look from another thread
    std::vector<heartBeatSubMessage> heartbeats;
    int gaps = 0;
};

class RecordingWriter : public StatefulWriter {
public:
    explicit RecordingWriter(const EntityId_t& id)
        : StatefulWriter(GUID_t(kLocal, id), DataWriterQos(), nullptr) {}
    int AckNackMessageReceive(const MessageReceiver&, const ackMessage& m) override {
        return acks.push_back(m), 0;
    }
    int NackFragMessageReceive(const MessageReceiver&, const NackFragMessage& m) override {
        return nackFrags.push_back(m), 0;
    }
    std::vector<ackMessage> acks;
    std::vector<NackFragMessage> nackFrags;
};

class MessageProcessor_Decode : public ::testing::Test {
protected:
    MessageProcessor_Decode()
        : m_Discovery(nullptr),
          m_Participant(GUID_t(kLocal, ENTITYID_PARTICIPANT), nullptr, 77, nullptr,
                        &CapturingTransmitter::Make) {
        m_Participant.setDiscovery(&m_Discovery);
        m_pSpdp = Substitute(ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER);
        m_pPub = Substitute(ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER);
        m_pSub = Substitute(ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER);
        m_pP2p = Substitute(ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_READER);
        m_pUser = Substitute(kUserReader);
        m_Discovery.addWriterReaderPair(GUID_t(kRemote, kRemoteWriter), kUserReader);
        DataWriterQos qos;
        qos.reliability.kind = RELIABLE_RELIABILITY_QOS;
        m_pWriter = Substitute<RecordingWriter>(kLocalWriter, m_Participant.createWriter(qos, kLocalWriter));
        qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
        m_pBestEffort = m_Participant.createWriter(qos, kBestEffortWriter);
    }

    // The participant's own endpoint, swapped for a recording one through the
    // registry's borrow: the participant owns and deletes the stand-in.
    template <class T = RecordingReader>
    T* Substitute(const EntityId_t& id, Endpoint* pReal = nullptr) {
        if (pReal == nullptr) pReal = m_Participant.createReader(DataReaderQos(), id);
        T* pStandIn = new T(id);
        EXPECT_EQ(m_Participant.takeEndpoint(id), pReal);
        m_Participant.returnEndpoint(pStandIn);
        delete pReal;
        return pStandIn;
    }

    int Run(const Datagram& d) {
        return Processor().InterpretDatagram(d.bytes.data(), uint32_t(d.bytes.size()));
    }
    MessageProcessor& Processor() { return *m_Participant.getMessageProcessor(); }

    // True when the endpoint can be borrowed at once: nobody holds it or left it taken.
    bool IsAvailable(Endpoint* pEndpoint) {
        Endpoint* pTaken = m_Participant.tryTakeEndpoint(pEndpoint->getEntityId());
        if (pTaken != nullptr) m_Participant.returnEndpoint(pTaken);
        return pTaken != nullptr;
    }

    int CountLog(const std::string& text) { return m_Log.Count(text); }

    Discovery m_Discovery;
    Participant m_Participant;
    RecordingReader *m_pSpdp, *m_pPub, *m_pSub, *m_pP2p, *m_pUser;
    RecordingWriter* m_pWriter;
    Endpoint* m_pBestEffort;
    LogRecorder m_Log;
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
    for (const auto& route : routes) {
        // From a participant that discovery has never heard of: no matching is asked.
        EXPECT_EQ(Run(Datagram(kStranger).Data(route.writer, 5, {1, 2, 3})),
                  MessageProcessor::INTERPRET_NO_HANDLER);
        ASSERT_EQ(route.reader->data.size(), 1u);
        EXPECT_EQ(route.reader->data[0].payload, (Octets{1, 2, 3}));
        EXPECT_EQ(0, std::memcmp(route.reader->data[0].source.value, kStranger.value, 12));
        EXPECT_TRUE(IsAvailable(route.reader));
    }
    EXPECT_TRUE(m_pUser->data.empty());
    EXPECT_EQ(CountLog(kNoMatch), 0);
}

TEST_F(MessageProcessor_Decode, DataOfAnyOtherWriterGoesToTheReaderDiscoveryMatched) {
    // An unknown writer first: the walk goes on to the matched one behind it.
    Run(Datagram(kRemote).Data({{0, 0x44, 0x44}, 0x03}, 1, {1}).Data(kRemoteWriter, 9, {7, 7}));
    // Same writer id, other participant: a different writer, matched to nobody.
    Run(Datagram(kStranger).Data(kRemoteWriter, 10, {7}));
    EXPECT_EQ(SnsOf(m_pUser->data), Sns{9});
    EXPECT_TRUE(IsAvailable(m_pUser));
    EXPECT_EQ(CountLog(kNoMatch), 2);
    EXPECT_EQ(CountLog(kDataNoReader), 2);
}

TEST_F(MessageProcessor_Decode, DataFragAlwaysGoesThroughMatchingEvenFromABuiltinWriter) {
    const Datagram d =
        Datagram(kRemote).DataFrag(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, 4, 2, 70000, {5, 6, 7});
    Run(d);
    EXPECT_TRUE(m_pSpdp->frags.empty());
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretDataFragMessage] Seq = 4 FragmentStartingNum = 2 "
                       "FragmentsInSubmessage = 1 usFragmentSize = 64512 uiSampleSize = 70000"),
              1);
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretDataFragMessage] pReader = NULL"), 1);

    m_Discovery.addWriterReaderPair(GUID_t(kRemote, ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER), kUserReader);
    Run(d);
    ASSERT_EQ(m_pUser->frags.size(), 1u);
    EXPECT_EQ(m_pUser->frags[0].fragment.fragmentStartingNum, 2u);
    EXPECT_EQ(m_pUser->frags[0].fragment.sampleSize, 70000u);
    EXPECT_EQ(m_pUser->frags[0].payload, (Octets{5, 6, 7}));
    EXPECT_TRUE(IsAvailable(m_pUser));
}

TEST_F(MessageProcessor_Decode, HeartbeatGoesToTheSedpReadersOrThroughMatching) {
    Run(Datagram(kRemote)
            .Sub(INFO_DST, 1,
                 Body().Raw(Octets(kStranger.value, kStranger.value + 12)))  // for another: stops nothing
            .Heartbeat(ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER, 1, 3, 11)
            .Heartbeat(ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER, 2, 4, 12)
            .Heartbeat(kRemoteWriter, 5, 8, 13)
            .Heartbeat(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, 1, 1, 14));  // no table entry for heartbeats
    EXPECT_EQ(m_pPub->heartbeats.size() + m_pSub->heartbeats.size(), 2u);
    EXPECT_TRUE(m_pSpdp->heartbeats.empty());
    ASSERT_EQ(m_pUser->heartbeats.size(), 1u);
    const heartBeatSubMessage& hb = m_pUser->heartbeats[0];
    EXPECT_EQ(Sns({hb.firstSN.low, hb.lastSN.low, hb.count}), (Sns{5, 8, 13}));
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretHeartbeatMessage] pReader = NULL"), 1);
    EXPECT_TRUE(IsAvailable(m_pPub));
    EXPECT_TRUE(IsAvailable(m_pUser));
}

TEST_F(MessageProcessor_Decode, AckNackAndNackFragGoToTheReliableWriterByWriterId) {
    Run(Datagram(kRemote).AckNack(kLocalWriter, 7, 3, 7).NackFrag(kLocalWriter, 9, 4, 1));
    ASSERT_EQ(m_pWriter->acks.size(), 1u);
    const ackMessage& ack = m_pWriter->acks[0];
    EXPECT_TRUE(ack.readerId == kUserReader);
    EXPECT_EQ(Sns({ack.readerSNState.bitmapBase.low, ack.readerSNState.numBits, ack.readerSNState.bitmap[0]}),
              (Sns{7, 3, 0xA0000000u}));
    ASSERT_EQ(m_pWriter->nackFrags.size(), 1u);
    const NackFragMessage& nack = m_pWriter->nackFrags[0];
    EXPECT_EQ(Sns({nack.writerSN.low, nack.fragmentNumberState.bitmapBase, nack.fragmentNumberState.numBits}),
              (Sns{9, 4, 1}));
    EXPECT_TRUE(IsAvailable(m_pWriter));
}

// Behaviour this system has always shown on the wire: some look-ups borrow the
// endpoint and never give it back.
TEST_F(MessageProcessor_Decode, GapAndNackFragForABestEffortWriterKeepTheEndpointBorrowed) {
    Run(Datagram(kRemote).AckNack({{0, 0x55, 0x55}, 0x03}, 1, 0, 1));
    EXPECT_EQ(CountLog("[Participant::takeEndpoint] Donot Exist"), 1);
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretAckNackMessage] pStatefulWriter = NULL"), 1);

    Run(Datagram(kRemote).NackFrag(kBestEffortWriter, 1, 1, 1));
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretNackFragMessage] pStatefulWriter = NULL"), 1);
    EXPECT_FALSE(IsAvailable(m_pBestEffort));  // IsAvailable gives it back

    Run(Datagram(kRemote)
            .Gap(ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER, 5)
            .Data(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, 1, {1}));
    EXPECT_FALSE(IsAvailable(m_pPub));
    EXPECT_EQ(m_pSpdp->data.size(), 1u);  // the walk went on behind the GAP
    Run(Datagram(kRemote).Gap(kRemoteWriter, 5));
    EXPECT_FALSE(IsAvailable(m_pUser));
    EXPECT_EQ(m_pPub->gaps + m_pUser->gaps, 0);  // and never told

    // What follows for a kept endpoint is refused at once, and the walk goes on.
    const size_t uiSpdp = m_pSpdp->data.size();
    Run(Datagram(kRemote)
            .Data(kRemoteWriter, 6, {1})
            .NackFrag(kBestEffortWriter, 1, 1, 1)
            .Data(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, 2, {2}));
    EXPECT_EQ(CountLog("[Participant::takeEndpoint] Kept Taken and refused"), 2);
    EXPECT_EQ(CountLog("[MessageProcessor::InterpretDataMessage] pReader = NULL"), 1);
    EXPECT_TRUE(m_pUser->data.empty());
    EXPECT_EQ(m_pSpdp->data.size(), uiSpdp + 1);
}

// ------------------------------------------------------------ the walk

TEST_F(MessageProcessor_Decode, UnknownKindsAreSkippedByTheirLengthAndZeroEndsTheWalk) {
    Datagram d(kRemote);
    d.Sub(0x01, 1, Body().U32(0xFFFFFFFF).U32(0x15011500))  // PAD holding bytes that look like DATA
        .Sub(0x0C, 1, Body().Raw(Octets(20, 0x16)))         // INFO_SRC
        .Sub(0x80, 0, Body().Raw(Octets(3, 0x07)))          // vendor kind, other byte order, odd length
        .Data(kRemoteWriter, 1, {1});
    EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_NO_HANDLER);
    EXPECT_EQ(Run(Datagram(kRemote).Sub(0x01, 1, Body()).Data(kRemoteWriter, 2, {1})),
              MessageProcessor::INTERPRET_NO_HANDLER);
    EXPECT_EQ(SnsOf(m_pUser->data), Sns{1});
}

TEST_F(MessageProcessor_Decode, OtherByteOrderSwapsTheFieldsButDataLengthIsReadUnswapped) {
    Run(Datagram(kRemote)
            .Heartbeat(kRemoteWriter, 0x01020304, 0x01020305, 0x0A0B0C0D, false)
            .Data(kRemoteWriter, 0x0102, {9, 9, 9, 9}, Body(), false)
            .Data(kRemoteWriter, 3, {3}));
    ASSERT_EQ(m_pUser->heartbeats.size(), 1u);
    const heartBeatSubMessage& hb = m_pUser->heartbeats[0];
    EXPECT_EQ(Sns({hb.firstSN.low, hb.lastSN.low, hb.count, hb.header.octetsToNextHeader}),
              (Sns{0x01020304u, 0x01020305u, 0x0A0B0C0Du, 28}));
    EXPECT_EQ(SnsOf(m_pUser->data), (Sns{0x0102, 3}));  // both found behind swapped lengths
    // octetsToNextHeader 24 arrives as 00 18 and reads 0x1800 before the swap.
    EXPECT_EQ(m_pUser->data[0].length, 0x1800u - 20);
    EXPECT_EQ(Octets(m_pUser->data[0].payload.begin(), m_pUser->data[0].payload.begin() + 4),
              (Octets{9, 9, 9, 9}));
}

TEST_F(MessageProcessor_Decode, InlineQosIsReadUpToTheSentinelAndTakenOffThePayload) {
    Body qos, first;
    qos.Param(112, Octets(16, 0x11)).Param(113, {0, 0, 0, 3}).Param(1, {});
    first.Param(1, {}).Param(5, {1, 2, 3, 4}).Param(1, {});  // a leading sentinel is an item
    Run(Datagram(kRemote).Data(kRemoteWriter, 1, {0xAB, 0xCD}, qos).Data(kRemoteWriter, 2, {0xEE}, first));
    ASSERT_EQ(m_pUser->data.size(), 2u);
    const DataCall& call = m_pUser->data[0];
    ASSERT_EQ(call.qos.size(), 2u);
    EXPECT_EQ(Sns({call.qos[0].parameterId, uint32_t(call.qos[0].length), call.qos[1].parameterId,
                   call.qos[1].value[3]}),
              (Sns{112, 16, 113, 3}));
    EXPECT_EQ(call.payload, (Octets{0xAB, 0xCD}));
    ASSERT_EQ(m_pUser->data[1].qos.size(), 2u);
    EXPECT_EQ(m_pUser->data[1].qos[1].parameterId, 5);
    EXPECT_EQ(m_pUser->data[1].payload, Octets{0xEE});
}

TEST_F(MessageProcessor_Decode, InfoTsSetsTheTimestampForTheRestOfTheDatagramOnly) {
    Run(Datagram(kRemote)
            .Data(kRemoteWriter, 1, {1})
            .Sub(INFO_TS, 1, Body().U32(100).U32(0x80000000u))
            .Data(kRemoteWriter, 2, {2}));
    Run(Datagram(kRemote).Data(kRemoteWriter, 3, {3}));
    ASSERT_EQ(m_pUser->data.size(), 3u);
    EXPECT_EQ(m_pUser->data[0].timestamp, Time_t(0, 0));
    EXPECT_EQ(m_pUser->data[1].timestamp, Time_t(100, 0x80000000u));
    EXPECT_EQ(m_pUser->data[2].timestamp, Time_t(0, 0));
}

// ------------------------------------------------------------ bounds

TEST_F(MessageProcessor_Decode, AShortDatagramIsReadOnIntoTheZerosBehindIt) {
    Datagram d(kRemote);
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
    Datagram d(kRemote);
    d.Data(kRemoteWriter, 1, {1});
    FillTo(d, MessageProcessor::MESSAGE_BUFFER_SIZE - 8);
    d.Sub(0x01, 1, Body().U32(0), 8);  // its last 4 octets end the buffer; it claims 4 more
    EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_CUT);
    EXPECT_EQ(m_pUser->data.size(), 1u);
}

TEST_F(MessageProcessor_Decode, ALongDatagramIsCutAtTheBufferAndFixedRecordsReadZerosBeyond) {
    Datagram d(kRemote);
    FillTo(d, MessageProcessor::MESSAGE_BUFFER_SIZE - 32);
    d.AckNack(kLocalWriter, 5, 32, 0x12345678);  // 32 octets: ends with the buffer
    d.bytes.resize(d.bytes.size() + 100, 0xEE);  // never seen
    EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_NO_HANDLER);
    ASSERT_EQ(m_pWriter->acks.size(), 1u);
    const ackMessage& ack = m_pWriter->acks[0];
    // The count stands where a full bitmap would go on; behind it only zeros.
    const WireSequenceNumberSet& set = ack.readerSNState;
    EXPECT_EQ(Sns({set.bitmapBase.low, set.bitmap[1], set.bitmap[2], ack.count}),
              (Sns{5, 0x12345678u, 0, 0}));
}

TEST_F(MessageProcessor_Decode, MalformedDataIsDroppedAndEndsTheWalk) {
    Body noSentinel;
    noSentinel.Param(112, Octets(8, 1));
    const Datagram cases[] = {
        Datagram(kRemote).Data(kRemoteWriter, 1, {1}, noSentinel).Data(kRemoteWriter, 2, {2}),
        Datagram(kRemote)
            .Sub(DATA, 5, Body().Raw(Octets(16, 0)), 16)
            .Data(kRemoteWriter, 2, {2}),  // shorter than its front
        Datagram(kRemote)                  // no room for the fragment fields
            .Sub(DATA_FRAG, 1, Body().U16(0).U16(0).Id(ENTITYID_UNKNOWN).Id(kRemoteWriter).Seq(1).U32(1))
            .Data(kRemoteWriter, 2, {2}),
    };
    for (const Datagram& d : cases) EXPECT_EQ(Run(d), MessageProcessor::INTERPRET_CUT);
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
    Run(Datagram(kRemote).Data(kRemoteWriter, 1, {0x5A}, qos));
    ASSERT_EQ(m_pUser->data.size(), 1u);
    ASSERT_EQ(m_pUser->data[0].qos.size(), 1u);
    EXPECT_EQ(m_pUser->data[0].qos[0].length, PARAMETER_VALUE_MAX);
    EXPECT_EQ(m_pUser->data[0].qos[0].value[PARAMETER_VALUE_MAX - 1], octet(PARAMETER_VALUE_MAX - 1));
    EXPECT_EQ(m_pUser->data[0].payload, Octets{0x5A});
}

// ------------------------------------------------------------ the ring and the thread

TEST_F(MessageProcessor_Decode, TheProcessThreadDecodesFromTheRingAndStopsWithItsLines) {
    Datagram d(kRemote);
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
    for (const LogEntry& entry : m_Log.Entries())
        if (entry.text == "Stop Process Thread Sucess") codes.push_back(entry.code);
    EXPECT_EQ(codes, (std::vector<int>{DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO}));

    // With the ring empty, a read reports so after the ring's wait, the buffer cleared first.
    std::vector<octet> buffer(MessageProcessor::MESSAGE_BUFFER_SIZE, 0xFF);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Processor().InterpretMessage(buffer.data()), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    EXPECT_EQ(buffer[100], 0);
}

// ------------------------------------------------------------ the buffer between datagrams

namespace {
// Two DATA in one datagram, the first as long as the short datagram's only one:
// a short datagram read over the long one's bytes would walk on into sn 99.
Datagram LongPair() {
    return Datagram(kRemote).Data(kRemoteWriter, 1, {1}).Data(kRemoteWriter, 99, {9});
}
Datagram Short() {
    return Datagram(kRemote).Data(kRemoteWriter, 2, {2});
}

bool ZeroFrom(const std::vector<octet>& buffer, size_t uiFrom) {
    for (size_t i = uiFrom; i < buffer.size(); ++i)
        if (buffer[i] != 0) return false;
    return true;
}
}  // namespace

TEST_F(MessageProcessor_Decode, ADatagramAfterALongerOneSeesNoneOfItsBytes) {
    ReceiveBuffer& ring = *m_Participant.getReceiveBuffer();
    const Datagram longer = LongPair(), shorter = Short();
    ASSERT_EQ(shorter.bytes.size() * 2 - 20, longer.bytes.size());
    // The loop's form, as the process thread keeps its buffer and mark.
    std::vector<octet> buffer(MessageProcessor::MESSAGE_BUFFER_SIZE, 0);
    uint32_t uiUsed = 0;
    for (const Datagram* d : {&longer, &shorter, &shorter}) {
        ASSERT_EQ(ring.Write(d->bytes.data(), uint32_t(d->bytes.size())), 0);
        ASSERT_EQ(Processor().InterpretMessage(buffer.data(), uiUsed), 0);
        EXPECT_EQ(uiUsed, d->bytes.size());
        EXPECT_TRUE(ZeroFrom(buffer, d->bytes.size()));
    }
    EXPECT_EQ(SnsOf(m_pUser->data), (Sns{1, 99, 2, 2}));

    // A record longer than the buffer is cut there: the mark stops at the end,
    // and what follows is still read alone.
    Datagram huge = LongPair();
    FillTo(huge, MessageProcessor::MESSAGE_BUFFER_SIZE + 5000);
    ASSERT_EQ(ring.Write(huge.bytes.data(), uint32_t(huge.bytes.size())), 0);
    EXPECT_EQ(Processor().InterpretMessage(buffer.data(), uiUsed), 0);
    EXPECT_EQ(uiUsed, MessageProcessor::MESSAGE_BUFFER_SIZE);
    ASSERT_EQ(ring.Write(shorter.bytes.data(), uint32_t(shorter.bytes.size())), 0);
    EXPECT_EQ(Processor().InterpretMessage(buffer.data(), uiUsed), 0);
    EXPECT_TRUE(ZeroFrom(buffer, shorter.bytes.size()));
    EXPECT_EQ(SnsOf(m_pUser->data), (Sns{1, 99, 2, 2, 1, 99, 2}));

    // An empty ring leaves the buffer all zeros.
    ring.Wake();
    EXPECT_EQ(Processor().InterpretMessage(buffer.data(), uiUsed), 1);
    EXPECT_EQ(uiUsed, 0u);
    EXPECT_TRUE(ZeroFrom(buffer, 0));
}

TEST_F(MessageProcessor_Decode, TheOneBufferFormsClearAllThatTheCallerMayHaveLeft) {
    // A caller's buffer holding a longer datagram: the plain form knows nothing
    // of it and clears everything behind the new one.
    const Datagram longer = LongPair(), shorter = Short();
    std::vector<octet> buffer(MessageProcessor::MESSAGE_BUFFER_SIZE, 0xFF);
    std::copy(longer.bytes.begin(), longer.bytes.end(), buffer.begin());
    ASSERT_EQ(m_Participant.getReceiveBuffer()->Write(shorter.bytes.data(), uint32_t(shorter.bytes.size())),
              0);
    EXPECT_EQ(Processor().InterpretMessage(buffer.data()), 0);
    EXPECT_TRUE(ZeroFrom(buffer, shorter.bytes.size()));
    // The test path copies into a buffer of its own each time.
    EXPECT_EQ(Run(longer), MessageProcessor::INTERPRET_NO_HANDLER);
    EXPECT_EQ(Run(shorter), MessageProcessor::INTERPRET_NO_HANDLER);
    EXPECT_EQ(SnsOf(m_pUser->data), (Sns{2, 1, 99, 2}));
}

TEST_F(MessageProcessor_Decode, TheProcessThreadReadsAShortDatagramAfterALongOneAlone) {
    ReceiveBuffer& ring = *m_Participant.getReceiveBuffer();
    const Datagram longer = LongPair(), shorter = Short();
    ASSERT_EQ(ring.Write(longer.bytes.data(), uint32_t(longer.bytes.size())), 0);
    ASSERT_EQ(ring.Write(shorter.bytes.data(), uint32_t(shorter.bytes.size())), 0);
    ::testing::internal::CaptureStdout();
    std::thread loop(&MessageProcessor::ProcessRun, &Processor());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (m_pUser->dataCount < 3 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // room for a wrong fourth
    Processor().RequestStop();
    loop.join();
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(SnsOf(m_pUser->data), (Sns{1, 99, 2}));
}
