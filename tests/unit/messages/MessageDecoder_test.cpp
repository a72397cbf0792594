// Decoder walks over hand-built datagrams, delivered to recording endpoints that
// stand in a real Participant. The Participant is never given its network
// (initParticipant is not called) and its transmitter is a stub: no socket opens.
// Each endpoint call is written down as one line of text, so that a case states
// everything a datagram caused: deliveries, log lines and endpoints left borrowed.
#include "messages/MessageProcessor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "DataSendRig.h"
#include "DatagramBuilder.h"
#include "NetnsGuard.h"
#include "discovery/Discovery.h"
#include "messages/ReceiveBuffer.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"

namespace {
typedef std::vector<std::string> Texts;

const GuidPrefix kLocal = {{0x0A, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}};
const GuidPrefix kRemote = {{0x0A, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00}};
const GuidPrefix kStranger = {{0x0A, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00}};
const EntityId_t kRemoteWriter = {{0x00, 0x04, 0x01}, 0x03}, kUserReader = {{0x00, 0x09, 0x01}, 0x04};
const EntityId_t kLocalWriter = {{0x00, 0x04, 0x07}, 0x03}, kBestEffortWriter = {{0x00, 0x04, 0x08}, 0x03};
const EntityId_t kSpdpWriter = ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER;
const EntityId_t kPubWriter = ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER;
const EntityId_t kSubWriter = ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER;
const int kCut = MessageProcessor::INTERPRET_CUT;
const char* const kDataNoReader = "[MessageProcessor::InterpretDataMessage] pReader = NULL";
const char* const kNoMatch = "[Participant::lookupMatchedReader] pReader = ENTITYID_UNKNOW";
const char* const kFragUnmatched =
    "[MessageProcessor::InterpretDataFragMessage] Seq = 4 FragmentStartingNum = 2 FragmentsInSubmessage = 1 "
    "usFragmentSize = 64512 uiSampleSize = 70000";
const char* const kKept = "[Participant::takeEndpoint] Kept Taken and refused";
const char* const kNackFragNoWriter = "[MessageProcessor::InterpretNackFragMessage] pStatefulWriter = NULL";

template <class... Args>
std::string Fmt(const char* szFormat, Args... args) {
    char sz[256];
    snprintf(sz, sizeof(sz), szFormat, args...);
    return sz;
}
std::string Hex(const octet* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += Fmt("%02X", p[i]);
    return s;
}

// "<kind> <sn> <payload>", each parameter as "q<id>/<length>=<first octets>..<last octet>",
// then the timestamp when one was given and the source when it is not kRemote.
std::string DataText(const std::string& strKind, const MessageReceiver& r, const DataSubMessage& m,
                     const std::list<Parameter>& qos, const octet* pData, uint32_t n) {
    std::string s =
        strKind + Fmt(" %u ", m.writerSN.low) + (n <= 24 ? Hex(pData, n) : Hex(pData, 4) + Fmt("+%u", n - 4));
    for (const Parameter& q : qos)
        s += Fmt(" q%u/%d=", q.parameterId, q.length) + Hex(q.value, std::min<int>(q.length, 4)) +
             (q.length > 4 ? ".." + Hex(&q.value[q.length - 1], 1) : "");
    if (r.timestamp != Time_t(0, 0)) s += Fmt(" ts %d.%08X", r.timestamp.sec, r.timestamp.nanosec);
    if (std::memcmp(r.sourceGuidPrefix.value, kRemote.value, 12) != 0)
        s += Fmt(" from %u", r.sourceGuidPrefix.value[3]);
    return s;
}

// What the recording endpoints were handed, one line per call, in order.
Texts g_Events;
int Note(const std::string& strEvent) {
    g_Events.push_back(strEvent);
    return 0;
}

class RecordingReader : public StatefulReader {
public:
    RecordingReader(const EntityId_t& id, const char* szName)
        : StatefulReader(GUID_t(kLocal, id), DataReaderQos(), nullptr), m_strName(szName) {}
    int DataMessageReceive(const MessageReceiver& r, const DataSubMessage& m, const std::list<Parameter>& qos,
                           const octet* pData, uint32_t uiLength) override {
        ++dataCount;
        return Note(DataText(m_strName + " DATA", r, m, qos, pData, uiLength));
    }
    int DataFragMessageReceive(const MessageReceiver& r, const DataFragSubMessage& m, const dataFrag& f,
                               const std::list<Parameter>& qos, const octet* pData,
                               uint32_t uiLength) override {
        return Note(DataText(m_strName + " FRAG", r, m, qos, pData, uiLength) +
                    Fmt(" #%u/%u", f.fragmentStartingNum, f.sampleSize));
    }
    int HeartBeatMessageReceive(const MessageReceiver&, const heartBeatSubMessage& m) override {
        return Note(m_strName + Fmt(" HB %u-%u #%u (%u)", m.firstSN.low, m.lastSN.low, m.count,
                                    m.header.octetsToNextHeader));
    }
    int GapMessageReceive(const MessageReceiver&, const stGapSubMessage&) override {
        return Note(m_strName + " GAP");
    }
    std::atomic<int> dataCount{0};  // for a look from another thread

private:
    std::string m_strName;
};

class RecordingWriter : public StatefulWriter {
public:
    RecordingWriter(const EntityId_t& id, const char*)
        : StatefulWriter(GUID_t(kLocal, id), DataWriterQos(), nullptr) {}
    // The whole fixed record: the bitmap words, then the count. A shorter bitmap
    // puts the count in the word behind it, so the count field reads what follows.
    int AckNackMessageReceive(const MessageReceiver&, const ackMessage& m) override {
        const WireSequenceNumberSet& set = m.readerSNState;
        std::string s = "writer ACKNACK " + Hex(&m.readerId.entityKey[0], 4) +
                        Fmt(" %u/%u", set.bitmapBase.low, set.numBits);
        for (uint32_t uiWord : set.bitmap) s += Fmt(" %X", uiWord);
        return Note(s + Fmt(" #%u", m.count));
    }
    int NackFragMessageReceive(const MessageReceiver&, const NackFragMessage& m) override {
        const WireFragmentNumberSet& set = m.fragmentNumberState;
        return Note(Fmt("writer NACKFRAG %u %u/%u", m.writerSN.low, set.bitmapBase, set.numBits));
    }
};

class MessageProcessor_Decode : public ::testing::Test {
protected:
    MessageProcessor_Decode()
        : m_Discovery(nullptr),
          m_Participant(GUID_t(kLocal, ENTITYID_PARTICIPANT), nullptr, 77, nullptr,
                        &CapturingTransmitter::Make) {
        g_Events.clear();
        m_Participant.setDiscovery(&m_Discovery);
        Substitute(ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER, "spdp");
        Substitute(ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER, "pub");
        Substitute(ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER, "sub");
        Substitute(ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_READER, "p2p");
        m_pUser = Substitute(kUserReader, "user");
        m_Discovery.addWriterReaderPair(GUID_t(kRemote, kRemoteWriter), kUserReader);
        m_Discovery.addWriterReaderPair(GUID_t(kStranger, kSpdpWriter), kUserReader);
        DataWriterQos qos;
        qos.reliability.kind = RELIABLE_RELIABILITY_QOS;
        Substitute<RecordingWriter>(kLocalWriter, "writer", m_Participant.createWriter(qos, kLocalWriter));
        qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
        m_Endpoints.emplace_back("besteffort", m_Participant.createWriter(qos, kBestEffortWriter));
    }

    // The participant's own endpoint, swapped for a recording one through the
    // registry's borrow: the participant owns and deletes the stand-in.
    template <class T = RecordingReader>
    T* Substitute(const EntityId_t& id, const char* szName, Endpoint* pReal = nullptr) {
        if (pReal == nullptr) pReal = m_Participant.createReader(DataReaderQos(), id);
        T* pStandIn = new T(id, szName);
        EXPECT_EQ(m_Participant.takeEndpoint(id), pReal);
        m_Participant.returnEndpoint(pStandIn);
        delete pReal;
        m_Endpoints.emplace_back(szName, pStandIn);
        return pStandIn;
    }

    static Datagram R() { return Datagram(kRemote); }
    static Datagram S() { return Datagram(kStranger); }
    int Run(const Datagram& d) {
        return Processor().InterpretDatagram(d.bytes.data(), uint32_t(d.bytes.size()));
    }
    int Put(const Datagram& d) { return Ring().Write(d.bytes.data(), uint32_t(d.bytes.size())); }
    MessageProcessor& Processor() { return *m_Participant.getMessageProcessor(); }
    ReceiveBuffer& Ring() { return *m_Participant.getReceiveBuffer(); }
    Texts Events() { return std::exchange(g_Events, Texts()); }  // and forgets them

    // The endpoints that cannot be borrowed at once: left taken by the decoder.
    std::string Kept() {
        std::string s;
        for (const auto& named : m_Endpoints) {
            Endpoint* pTaken = m_Participant.tryTakeEndpoint(named.second->getEntityId());
            if (pTaken != nullptr) m_Participant.returnEndpoint(pTaken);
            if (pTaken == nullptr) s += s.empty() ? named.first : " " + named.first;
        }
        return s;
    }

    std::vector<std::pair<std::string, Endpoint*>> m_Endpoints;
    Discovery m_Discovery;
    Participant m_Participant;
    RecordingReader* m_pUser;
};

}  // namespace

// Rows run in order on one participant, so that the endpoints the last rows
// leave taken stay taken for the rows behind them.
TEST_F(MessageProcessor_Decode, EachDatagramCausesExactlyItsDeliveriesLogLinesAndKeptEndpoints) {
    Body dispose, leading, noSentinel, big;
    dispose.Param(112, Octets(16, 0x11)).Param(113, {0, 0, 0, 3}).Param(1, {});
    leading.Param(1, {}).Param(5, {1, 2, 3, 4}).Param(1, {});  // a leading sentinel is an item
    noSentinel.Param(112, Octets(8, 1));
    Octets bigValue(300);
    for (size_t i = 0; i < bigValue.size(); ++i) bigValue[i] = octet(i);
    big.Param(44, bigValue).Param(1, {});  // longer than a parameter's record
    Datagram shortOne = R().Data(kRemoteWriter, 1, {1, 2});
    shortOne.bytes[22] = 40;  // claims 20 more octets than it carries: read on into the zeros
    Datagram pastTheBuffer = R().Data(kRemoteWriter, 1, {1});
    FillTo(pastTheBuffer, MessageProcessor::MESSAGE_BUFFER_SIZE - 8);
    pastTheBuffer.Sub(0x01, 1, Body().U32(0), 8);  // its last 4 octets end the buffer; it claims 4 more
    Datagram ackAtTheEnd = R();
    FillTo(ackAtTheEnd, MessageProcessor::MESSAGE_BUFFER_SIZE - 32);
    ackAtTheEnd.AckNack(kLocalWriter, 5, 32, 0x12345678);  // 32 octets: ends with the buffer
    ackAtTheEnd.bytes.resize(ackAtTheEnd.bytes.size() + 100, 0xEE);
    const Datagram fragCut =  // a DATA_FRAG too short for its fixed fields
        R().Sub(DATA_FRAG, 1, Body().U16(0).U16(0).Id(ENTITYID_UNKNOWN).Id(kRemoteWriter).Seq(1).U32(1));
    const struct {
        Datagram datagram;
        Texts events = {}, logs = {};
        std::string kept = "";
        int result = 0;
    } rows[] = {
        // A built-in writer's DATA goes to its built-in reader, whatever matching
        // or the reader id say, even from a participant discovery never heard of.
        {S().Data(kSpdpWriter, 5, {1, 2, 3}), {"spdp DATA 5 010203 from 3"}},
        {S().Data(kPubWriter, 5, {1}), {"pub DATA 5 01 from 3"}},
        {S().Data(kSubWriter, 5, {1}), {"sub DATA 5 01 from 3"}},
        {S().Data(ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER, 5, {1}), {"p2p DATA 5 01 from 3"}},
        // Any other goes to the reader discovery matched; the walk goes on behind an unknown one.
        {R().Data({{0, 0x44, 0x44}, 0x03}, 1, {1}).Data(kRemoteWriter, 9, {7, 7}),
         {"user DATA 9 0707"},
         {kNoMatch, kDataNoReader}},
        {S().Data(kRemoteWriter, 10, {7}), {}, {kNoMatch, kDataNoReader}},
        // DATA_FRAG always goes through matching, even from a built-in writer.
        {S().DataFrag(kSpdpWriter, 4, 2, 70000, {5, 6, 7}), {"user FRAG 4 050607 from 3 #2/70000"}},
        {R().DataFrag(kSpdpWriter, 4, 2, 70000, {5, 6, 7}),
         {},
         {kNoMatch, kFragUnmatched, "[MessageProcessor::InterpretDataFragMessage] pReader = NULL"}},
        // HEARTBEAT: the SEDP readers by table, others through matching, none for SPDP.
        // An INFO_DST for another participant stops nothing.
        {R().Sub(INFO_DST, 1, Body().Raw(Octets(kStranger.value, kStranger.value + 12)))
             .Heartbeat(kPubWriter, 1, 3, 11)
             .Heartbeat(kSubWriter, 2, 4, 12)
             .Heartbeat(kRemoteWriter, 5, 8, 13)
             .Heartbeat(kSpdpWriter, 1, 1, 14),
         {"pub HB 1-3 #11 (28)", "sub HB 2-4 #12 (28)", "user HB 5-8 #13 (28)"},
         {kNoMatch, "[MessageProcessor::InterpretHeartbeatMessage] pReader = NULL"}},
        {R().NackFrag(kLocalWriter, 9, 4, 1).AckNack(kLocalWriter, 7, 3, 7),
         {"writer NACKFRAG 9 4/1", "writer ACKNACK 00090104 7/3 A0000000 7 0 0 0 0 0 0 #0"}},
        // An ACKNACK that ends with the buffer reads zeros beyond it; the 0xEE behind are never seen.
        {ackAtTheEnd, {"writer ACKNACK 00090104 5/32 A0000000 12345678 0 0 0 0 0 0 #0"}},
        // Unknown kinds are skipped by their length, in either byte order; a zero length ends the walk.
        {R().Sub(0x01, 1, Body().U32(0xFFFFFFFF).U32(0x15011500))  // PAD holding bytes that look like DATA
             .Sub(0x0C, 1, Body().Raw(Octets(20, 0x16)))           // INFO_SRC
             .Sub(0x80, 0, Body().Raw(Octets(3, 0x07)))            // vendor kind, odd length
             .Data(kRemoteWriter, 1, {1}),
         {"user DATA 1 01"}},
        {R().Sub(0x01, 1, Body()).Data(kRemoteWriter, 2, {1})},
        // The other byte order swaps the fields, but the DATA length is read unswapped:
        // 24 arrives as 00 18 and reads 0x1800. Both are found behind swapped lengths.
        {R().Heartbeat(kRemoteWriter, 0x01020304, 0x01020305, 0x0A0B0C0D, false)
             .Data(kRemoteWriter, 0x0102, {9, 9, 9, 9}, Body(), false)
             .Data(kRemoteWriter, 3, {3}),
         {"user HB 16909060-16909061 #168496141 (28)", "user DATA 258 09090909+6120", "user DATA 3 03"}},
        // Inline QoS is read up to the sentinel and taken off the payload.
        {R().Data(kRemoteWriter, 1, {0xAB, 0xCD}, dispose).Data(kRemoteWriter, 2, {0xEE}, leading),
         {"user DATA 1 ABCD q112/16=11111111..11 q113/4=00000003", "user DATA 2 EE q1/0= q5/4=01020304"}},
        // A parameter longer than its record keeps its first octets; the list stays in step.
        {R().Data(kRemoteWriter, 1, {0x5A}, big), {"user DATA 1 5A q44/128=00010203..7F"}},
        // INFO_TS holds for the rest of its datagram only.
        {R().Data(kRemoteWriter, 1, {1})
             .Sub(INFO_TS, 1, Body().U32(100).U32(0x80000000u))
             .Data(kRemoteWriter, 2, {2}),
         {"user DATA 1 01", "user DATA 2 02 ts 100.80000000"}},
        {R().Data(kRemoteWriter, 3, {3}), {"user DATA 3 03"}},
        {shortOne, {"user DATA 1 0102000000000000000000000000000000000000"}},
        // Malformed submessages cut the walk: nothing of them is handled, nor anything behind.
        {pastTheBuffer, {"user DATA 1 01"}, {}, "", kCut},
        {R().Data(kRemoteWriter, 2, {2}, noSentinel).Data(kRemoteWriter, 3, {3}), {}, {}, "", kCut},
        {R().Sub(DATA, 5, Body().Raw(Octets(16, 0)), 16).Data(kRemoteWriter, 3, {3}), {}, {}, "", kCut},
        {Datagram(fragCut).Data(kRemoteWriter, 3, {3}), {}, {}, "", kCut},
        // Behaviour this system has always shown on the wire: some look-ups borrow
        // the endpoint and never give it back; GAPs are never passed on.
        {R().AckNack({{0, 0x55, 0x55}, 0x03}, 1, 0, 1),
         {},
         {"[Participant::takeEndpoint] Donot Exist",
          "[MessageProcessor::InterpretAckNackMessage] pStatefulWriter = NULL"}},
        {R().NackFrag(kBestEffortWriter, 1, 1, 1), {}, {kNackFragNoWriter}, "besteffort"},
        {R().Gap(kPubWriter, 5).Data(kSpdpWriter, 1, {1}), {"spdp DATA 1 01"}, {}, "pub besteffort"},
        {R().Gap(kRemoteWriter, 5), {}, {}, "pub user besteffort"},
        // What follows for a kept endpoint is refused at once, and the walk goes on.
        {R().Data(kRemoteWriter, 6, {1}).NackFrag(kBestEffortWriter, 1, 1, 1).Data(kSpdpWriter, 2, {2}),
         {"spdp DATA 2 02"},
         {kKept, kDataNoReader, kKept, kNackFragNoWriter},
         "pub user besteffort"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        LogRecorder log;
        EXPECT_EQ(Run(row.datagram), row.result ? row.result : int(MessageProcessor::INTERPRET_NO_HANDLER));
        EXPECT_EQ(Events(), row.events);
        EXPECT_EQ(log.Texts(), row.logs);
        EXPECT_EQ(Kept(), row.kept);
    }
}

// A stop wakes the ring's wait: the loop ends within milliseconds, with its lines.
TEST_F(MessageProcessor_Decode, TheProcessThreadDecodesFromTheRingAndAStopEndsItAtOnce) {
    ASSERT_EQ(Put(R().Data(kRemoteWriter, 1, {1})), 0);
    ::testing::internal::CaptureStdout();
    std::thread loop(&MessageProcessor::ProcessRun, &Processor());
    EXPECT_TRUE(WaitFor([&] { return m_pUser->dataCount == 1; }, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // inside the ring's wait
    LogRecorder log;
    const auto start = std::chrono::steady_clock::now();
    Processor().RequestStop();
    EXPECT_TRUE(WaitFor([&] { return Processor().IsStopped(); }, 3000, 1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    loop.join();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Stop Process Thread .. \n");
    EXPECT_FALSE(Processor().IsRunning());
    // Only the stop lines, one per level: the woken read logged nothing.
    EXPECT_EQ(log.Texts(), Texts(4, "Stop Process Thread Sucess"));
}

TEST_F(MessageProcessor_Decode, ADatagramAfterALongerOneSeesNoneOfItsBytes) {
    // Two DATA, the first as long as the short datagram's only one: a short
    // datagram read over the long one's bytes would walk on into sn 99.
    const Datagram longer = R().Data(kRemoteWriter, 1, {1}).Data(kRemoteWriter, 99, {9});
    const Datagram shorter = R().Data(kRemoteWriter, 2, {2});
    Datagram huge = longer;
    FillTo(huge, MessageProcessor::MESSAGE_BUFFER_SIZE + 5000);
    const Texts kLong = {"user DATA 1 01", "user DATA 99 09"}, kShort = {"user DATA 2 02"};
    std::vector<octet> buffer(MessageProcessor::MESSAGE_BUFFER_SIZE, 0);
    auto zerosFrom = [&](size_t uiFrom) {
        return std::all_of(buffer.begin() + uiFrom, buffer.end(), [](octet o) { return o == 0; });
    };
    // The loop's form keeps its buffer and mark. A record longer than the buffer
    // is cut there: the mark stops at the end, and what follows is still read alone.
    uint32_t uiUsed = 0;
    for (const Datagram* d : {&longer, &shorter, &shorter, const_cast<const Datagram*>(&huge), &shorter}) {
        ASSERT_EQ(Put(*d), 0);
        ASSERT_EQ(Processor().InterpretMessage(buffer.data(), uiUsed), 0);
        EXPECT_EQ(uiUsed, std::min<size_t>(d->bytes.size(), MessageProcessor::MESSAGE_BUFFER_SIZE));
        EXPECT_TRUE(zerosFrom(uiUsed));
        EXPECT_EQ(Events(), d == &shorter ? kShort : kLong);
    }
    // An empty ring leaves the buffer all zeros.
    Ring().Wake();
    EXPECT_EQ(Processor().InterpretMessage(buffer.data(), uiUsed), 1);
    EXPECT_EQ(uiUsed, 0u);
    EXPECT_TRUE(zerosFrom(0));

    // The test path copies into a buffer of its own.
    Run(longer);
    Run(shorter);
    EXPECT_EQ(Events(), (Texts{"user DATA 1 01", "user DATA 99 09", "user DATA 2 02"}));
}
