// Hostile datagrams and awkward teardown against live participants: what one datagram
// may leave taken, how much work and memory wire values can cost, and deletion while
// requests, listeners and timers are busy. Two participants of one process on the in-process
// network, connected by hand; hostile datagrams enter the receiving participant's ring as if
// from the network.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "DataReader.h"
#include "DataWriter.h"
#include "DatagramBuilder.h"
#include "DomainParticipantFactory.h"
#include "FakeNetwork.h"
#include "ManualMatch.h"
#include "NetnsGuard.h"
#include "Publisher.h"
#include "Subscriber.h"
#include "TakeEach.h"
#include "Topic.h"
#include "dcps/DomainParticipantImpl.h"
#include "messages/ReceiveBuffer.h"
#include "rtps/Participant.h"  // and the standard headers it brings

namespace {

typedef std::chrono::steady_clock Clock;
const int kWaitMs = 5000;
const EntityId_t kForged = {{0x00, 0x07, 0x77}, 0x03};

long PeakRssKiB() {
    rusage usage{};
    return getrusage(RUSAGE_SELF, &usage) == 0 ? usage.ru_maxrss : 0;
}

// Counts what a reader takes, optionally running a step on the process thread first; as a
// writer's listener, counts missed deadlines and takes its time over each.
struct Counting : DomainParticipantListener {
    void on_data_available(DataReader* reader) override {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const std::function<void()> fnStep = m_fnOnData;
        lock.unlock();
        if (fnStep) fnStep();
        TakeEach(reader, [this](UserData& value) {
            free(value.data);
            ++count;
        });
    }
    void on_offered_deadline_missed(DataWriter*, const OfferedDeadlineMissedStatus&) override {
        ++count;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    void OnData(std::function<void()> fnStep) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_fnOnData = std::move(fnStep);
    }
    std::atomic<int> count{0};
    std::mutex m_Mutex;  // the step is set by the test while the process thread may call
    std::function<void()> m_fnOnData;
};

// Participant A publishes on "one", "two" and "three"; B reads all three (the third
// reliably, with a second, forged writer matched too) and has a writer of its own that
// sends to its reader "two".
struct Robustness : ::testing::Test {
    void SetUp() override {
        FakeNetwork::Install();
        const int iDomain = 1 + int(getpid() % 200);
        m_pA = Factory()->create_participant(iDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        m_pB = Factory()->create_participant(iDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        ASSERT_TRUE(m_pA != nullptr && m_pB != nullptr);
        Subscriber* pSubB = m_pB->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
        for (int i = 0; i < 3; ++i) {
            DataReaderQos qos;
            if (i == 2) qos.reliability.kind = RELIABLE_RELIABILITY_QOS;
            m_apReaders[i] = pSubB->create_datareader(Topic_(m_pB, i), qos, &m_aCounts[i], STATUS_MASK_ALL);
            m_apWriters[i] = m_apReaders[i] ? Connected(m_pA, DataWriterQos(), i) : nullptr;
            ASSERT_NE(m_apWriters[i], nullptr);
        }
        m_pWriterB = Connected(m_pB, DataWriterQos(), 1);
        ManualMatchPeer a, b;
        ASSERT_TRUE(m_pWriterB && ManualMatch::Describe(m_pA, m_apWriters[0], nullptr, &a) &&
                    ManualMatch::Describe(m_pB, m_pWriterB, m_apReaders[0], &b));
        m_Prefix = a.prefix;
        m_WriterOneId = a.writerId;
        m_ReaderOneId = b.readerId;
        m_WriterBId = b.writerId;
        // The forged writer: a second writer of A's, known only to reader "three".
        a.writerId = kForged;
        ASSERT_EQ(ManualMatch::ConnectReader(m_apReaders[2], a), 0);
    }

    void TearDown() override {
        DeleteParticipant(m_pB);
        DeleteParticipant(m_pA);
        FakeNetwork::Uninstall();
    }

    void DeleteParticipant(DomainParticipant*& p) {
        if (p == nullptr) return;
        const auto start = Clock::now();
        EXPECT_EQ(Factory()->delete_participant(p), RETCODE_OK);
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(2)) << "delete_participant took too long";
        p = nullptr;
    }

    static DomainParticipantFactory* Factory() { return DomainParticipantFactory::get_instance(); }
    Topic* Topic_(DomainParticipant* p, int i) {
        p->register_type("Bytes");
        const std::string strName = "Robust" + std::to_string(i) + "_" + std::to_string(getpid());
        return p->create_topic(strName, "Bytes", TOPIC_QOS_DEFAULT, nullptr, 0);
    }

    // A writer of participant p on topic i, in a publisher of its own, that sends to B's
    // reader i; with bBothWays that reader also takes its data.
    DataWriter* Connected(DomainParticipant* p, const DataWriterQos& qos, int i, bool bBothWays = true) {
        DataWriter* pWriter = p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0)
                                  ->create_datawriter(Topic_(p, i), qos, nullptr, 0);
        ManualMatchPeer w, r;
        const bool bOk = pWriter != nullptr && ManualMatch::Describe(p, pWriter, nullptr, &w) &&
                         ManualMatch::Describe(m_pB, nullptr, m_apReaders[i], &r) &&
                         ManualMatch::ConnectWriter(pWriter, r) == 0 &&
                         (!bBothWays || ManualMatch::ConnectReader(m_apReaders[i], w) == 0);
        return bOk ? pWriter : nullptr;
    }

    // Puts a datagram into B's ring, as the receive thread does.
    void Inject(const Datagram& d) {
        ReceiveBuffer* pRing = m_pB->getImpl()->getRtpsParticipant()->getReceiveBuffer();
        ASSERT_EQ(pRing->Write(d.bytes.data(), uint32_t(d.bytes.size())), 0);
    }

    // Writes one sample on the writer and waits until reader i has one more.
    bool Delivers(int i, DataWriter* pWriter = nullptr, int iWaitMs = kWaitMs) {
        const int iBefore = m_aCounts[i].count;
        const char sample[] = "sample";
        EXPECT_EQ((pWriter ? pWriter : m_apWriters[i])->write(sample, sizeof(sample), HANDLE_NIL),
                  RETCODE_OK);
        return WaitFor([&] { return m_aCounts[i].count > iBefore; }, iWaitMs);
    }

    // Lets the process thread drain the ring: a sample on "two" queued behind it arrives.
    bool Drained() { return Delivers(1); }

    DomainParticipant* m_pA = nullptr;
    DomainParticipant* m_pB = nullptr;
    DataWriter* m_apWriters[3] = {};
    DataReader* m_apReaders[3] = {};
    Counting m_aCounts[3];
    GuidPrefix m_Prefix = {};
    EntityId_t m_WriterOneId, m_ReaderOneId, m_WriterBId, m_Forged = kForged;
    DataWriter* m_pWriterB = nullptr;
};

// The network's rules act on the datagrams they match and on no others.
TEST_F(Robustness, NetworkRulesDropDuplicateAndDelayWhatTheyMatch) {
    const struct {
        FakeNetwork::Action action;
        int iKind, iExpected;  // samples reader "one" gets for one written
    } cases[] = {{FakeNetwork::DROP, DATA, 0},
                 {FakeNetwork::DROP, HEARTBEAT, 1},
                 {FakeNetwork::DUPLICATE, DATA, 2},
                 {FakeNetwork::DELAY, DATA, 1},
                 {FakeNetwork::REORDER, DATA, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(int(c.action));
        FakeNetwork::Rule rule;
        rule.action = c.action;
        rule.iKind = c.iKind;
        rule.iTimes = 1;
        FakeNetwork::AddRule(rule);
        const int iBefore = m_aCounts[0].count;
        Delivers(0, nullptr, 0);
        EXPECT_TRUE(Drained());
        FakeNetwork::Flush();
        WaitFor([&] { return m_aCounts[0].count - iBefore >= c.iExpected; }, kWaitMs);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(m_aCounts[0].count - iBefore, c.iExpected);
        FakeNetwork::ClearRules();
    }
}

// One datagram of about 55 octets used to stop every reader and hang delete_participant.
// The endpoint it names stays out of the table as designed; nothing waits for it.
TEST_F(Robustness, ADatagramThatKeepsAnEndpointStopsOnlyThatEndpoint) {
    struct Case {
        const char* szName;
        octet kind;
        EntityId_t Robustness::*id;
        bool bReaderOneKept, bWriterBKept;
    };
    const Case cases[] = {
        {"GAP for reader one's writer", GAP, &Robustness::m_WriterOneId, true, false},
        {"ACKNACK naming reader one", ACKNACK, &Robustness::m_ReaderOneId, true, false},
        {"ACKNACK naming a best-effort writer", ACKNACK, &Robustness::m_WriterBId, false, true},
        {"NACK_FRAG naming a best-effort writer", NACK_FRAG, &Robustness::m_WriterBId, false, true},
        {"NACK_FRAG naming an unknown id", NACK_FRAG, &Robustness::m_Forged, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.szName);
        if (&c != cases) {
            TearDown();
            SetUp();
        }
        Datagram d(m_Prefix);
        const EntityId_t id = this->*c.id;
        const Datagram& hostile = c.kind == GAP       ? d.Gap(id, 5)
                                  : c.kind == ACKNACK ? d.AckNack(id, 1, 0, 1)
                                                      : d.NackFrag(id, 1, 1, 1);
        ASSERT_TRUE(Delivers(0));
        Inject(hostile);
        Inject(hostile);  // a second one meets the kept endpoint
        EXPECT_TRUE(Drained());
        EXPECT_TRUE(Delivers(2));
        EXPECT_EQ(Delivers(0, nullptr, c.bReaderOneKept ? 300 : kWaitMs), !c.bReaderOneKept);
        // A kept writer's sends are refused (and logged) instead of waiting for it.
        EXPECT_EQ(Delivers(1, m_pWriterB, 500), !c.bWriterBKept);
    }
}

// Wire values must not buy unbounded work or memory; the reader then takes the next
// valid sample. All of these come from the forged writer matched with reader "three".
TEST_F(Robustness, HostileValuesAreBoundedAndTheReaderGoesOn) {
    const EntityId_t w = kForged;
    const auto D = [this] { return Datagram(m_Prefix); };
    std::vector<std::pair<const char*, std::vector<Datagram>>> cases = {
        {"heartbeat over 2*10^7 numbers", {D().Heartbeat(w, 1, 20000000, 1)}},
        {"zero-length heartbeat over garbage", {D().Sub(HEARTBEAT, 1, Body().Raw(Octets(40, 0xEE)), 0)}},
        {"fragment of a 4 GiB sample", {D().DataFrag(w, 1, 1, 0xFFFFFFFFu, Octets(1000, 1))}},
        {"fragment of an empty sample", {D().DataFrag(w, 1, 1, 0, Octets(10, 1))}},
        {"fragment numbers 0 and 2^32-1",
         {D().DataFrag(w, 2, 0, 200000, Octets(100, 1)).DataFrag(w, 2, 0xFFFFFFFFu, 200000, Octets(100, 1))}},
        {"fragment number far above the highest", {D().DataFrag(w, 3, 66000, 0xFFFFFFFFu, Octets(1000, 1))}},
        {"fragment size 0", {D().DataFrag(w, 4, 1, 200000, Octets(100, 1), 0)}},
        {"submessage longer than the datagram", {D().Sub(DATA_FRAG, 1, Body().Raw(Octets(40, 3)), 60000)}},
        {"10,000 unfinished samples", {}},
    };
    for (uint32_t sn = 10; sn < 10010; ++sn)
        cases.back().second.push_back(D().DataFrag(w, sn, 1, 4 * FRAGMENT_SIZE, Octets(1024, 7)));

    const long lRssStart = PeakRssKiB();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        const auto start = Clock::now();
        for (const Datagram& datagram : c.second) Inject(datagram);
        EXPECT_TRUE(Drained());
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
        EXPECT_TRUE(Delivers(2));
        EXPECT_LT(PeakRssKiB() - lRssStart, 256 * 1024) << "resident memory grew by more than 256 MiB";
    }
}

// Deleting a writer, its publisher or a whole participant while thousands of its sends
// wait on the send thread: the queued requests find their writer gone and end quietly.
TEST_F(Robustness, DeletionWhileTenThousandAsynchronousSendsAreQueued) {
    for (const std::string strWhat : {"writer", "publisher", "participant"}) {
        SCOPED_TRACE(strWhat);
        DataWriterQos qos;
        qos.publish_mode.kind = ASYNCHRONOUS_PUBLISH_MODE_QOS;
        DataWriter* pWriter = Connected(m_pA, qos, 1, false);
        ASSERT_NE(pWriter, nullptr);
        const std::vector<char> sample(256, 's');
        for (int i = 0; i < 10000; ++i) pWriter->write(sample.data(), unsigned(sample.size()), HANDLE_NIL);
        Publisher* pPublisher = pWriter->get_publisher();
        if (strWhat == "participant")
            DeleteParticipant(m_pA);
        else
            EXPECT_EQ(strWhat == "writer" ? pPublisher->delete_datawriter(pWriter)
                                          : m_pA->delete_publisher(pPublisher),
                      RETCODE_OK);
    }
}

// Deleting a participant while its listener runs, or while its deadline timer fires
// (those first fire after two seconds).
TEST_F(Robustness, ParticipantDeletedWhileAListenerRunsOrATimerFires) {
    std::atomic<bool> bInside{false};
    m_aCounts[1].OnData([&] {
        bInside = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    });
    Delivers(1, nullptr, 0);
    ASSERT_TRUE(WaitFor([&] { return bInside.load(); }, kWaitMs));
    DeleteParticipant(m_pB);

    Counting listener;
    DataWriterQos qos;
    qos.deadline.period = Duration_t(0, 10000000);
    Publisher* pPublisher = m_pA->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pPublisher->create_datawriter(Topic_(m_pA, 0), qos, &listener, STATUS_MASK_ALL), nullptr);
    ASSERT_TRUE(WaitFor([&] { return listener.count > 0; }, kWaitMs));
    DeleteParticipant(m_pA);
}

// A listener that writes on another writer from the process thread, while that thread
// holds the reader: the writer is another endpoint and the send goes through.
TEST_F(Robustness, AListenerWritesOnAnotherWriter) {
    m_aCounts[0].OnData([&] { EXPECT_EQ(m_pWriterB->write("forwarded", 10, HANDLE_NIL), RETCODE_OK); });
    const int iBefore = m_aCounts[1].count;
    ASSERT_TRUE(Delivers(0));
    EXPECT_TRUE(WaitFor([&] { return m_aCounts[1].count > iBefore; }, kWaitMs));
}

}  // namespace
