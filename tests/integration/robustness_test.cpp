// Hostile datagrams and awkward teardown against live participants: what one datagram
// may leave taken, how much work and memory wire values can cost, and deletion while
// requests, listeners and timers are busy. Two participants of one process on the in-process
// network, connected by hand; hostile datagrams enter the receiving participant's ring as if
// from the network.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DataReader.h"
#include "DataWriter.h"
#include "DatagramBuilder.h"
#include "DomainParticipant.h"
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
#include "rtps/Participant.h"

namespace {

typedef std::chrono::steady_clock Clock;

const int kWaitMs = 5000;

long RssKiB() {
    std::ifstream status("/proc/self/status");
    std::string strLine;
    while (std::getline(status, strLine))
        if (strLine.compare(0, 6, "VmRSS:") == 0) return std::stol(strLine.substr(6));
    return 0;
}

// Counts what a reader takes; optionally runs a step on the process thread first.
class CountingReader : public DataReaderListener {
public:
    void on_data_available(DataReader* reader) override {
        std::function<void()> fnStep;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            fnStep = m_fnOnData;
        }
        if (fnStep) fnStep();
        TakeEach(reader, [this](UserData& value) {
            free(value.data);
            ++count;
        });
    }
    void OnData(std::function<void()> fnStep) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_fnOnData = std::move(fnStep);
    }
    std::atomic<int> count{0};

private:
    std::mutex m_Mutex;  // the step is set by the test while the process thread may call
    std::function<void()> m_fnOnData;
};

class SlowDeadline : public DataWriterListener {
public:
    void on_offered_deadline_missed(DataWriter*, const OfferedDeadlineMissedStatus&) override {
        ++calls;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::atomic<int> calls{0};
};

// Participant A publishes on "one", "two" and "three"; B reads all three (the third
// reliably, with a second, forged writer matched too) and has a writer of its own.
class Robustness : public ::testing::Test {
protected:
    void SetUp() override {
        FakeNetwork::Install();
        m_pFactory = DomainParticipantFactory::get_instance();
        const int iDomain = 1 + int(getpid() % 200);
        m_pA = m_pFactory->create_participant(iDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        m_pB = m_pFactory->create_participant(iDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        ASSERT_TRUE(m_pA != nullptr && m_pB != nullptr);
        Publisher* pPubA = Publisher_(m_pA);
        Publisher* pPubB = Publisher_(m_pB);
        Subscriber* pSubB = m_pB->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
        for (int i = 0; i < 3; ++i) {
            m_apWriters[i] = pPubA->create_datawriter(Topic_(m_pA, i), DataWriterQos(), nullptr, 0);
            DataReaderQos qos;
            if (i == 2) qos.reliability.kind = RELIABLE_RELIABILITY_QOS;
            m_apReaders[i] = pSubB->create_datareader(Topic_(m_pB, i), qos, &m_aCounts[i], STATUS_MASK_ALL);
            ASSERT_TRUE(m_apWriters[i] != nullptr && m_apReaders[i] != nullptr);
            ManualMatchPeer a, b;
            ASSERT_TRUE(ManualMatch::Describe(m_pA, m_apWriters[i], nullptr, &a));
            ASSERT_TRUE(ManualMatch::Describe(m_pB, nullptr, m_apReaders[i], &b));
            ASSERT_EQ(ManualMatch::ConnectWriter(m_apWriters[i], b), 0);
            ASSERT_EQ(ManualMatch::ConnectReader(m_apReaders[i], a), 0);
            m_aWriterIds[i] = a.writerId;
            m_aReaderIds[i] = b.readerId;
            m_Prefix = a.prefix;
        }
        // The forged writer: a second writer of A's, known only to reader "three".
        ManualMatchPeer forged;
        ASSERT_TRUE(ManualMatch::Describe(m_pA, m_apWriters[2], nullptr, &forged));
        forged.writerId = kForged;
        ASSERT_EQ(ManualMatch::ConnectReader(m_apReaders[2], forged), 0);
        // B's own writer, sending to B's reader "two".
        m_pWriterB = pPubB->create_datawriter(Topic_(m_pB, 3), DataWriterQos(), nullptr, 0);
        ASSERT_NE(m_pWriterB, nullptr);
        ManualMatchPeer b;
        ASSERT_TRUE(ManualMatch::Describe(m_pB, m_pWriterB, m_apReaders[1], &b));
        ASSERT_EQ(ManualMatch::ConnectWriter(m_pWriterB, b), 0);
        ASSERT_EQ(ManualMatch::ConnectReader(m_apReaders[1], b), 0);
        m_WriterBId = b.writerId;
    }

    void TearDown() override {
        DeleteParticipant(m_pB);
        DeleteParticipant(m_pA);
        FakeNetwork::Uninstall();
    }

    void DeleteParticipant(DomainParticipant*& p) {
        if (p == nullptr) return;
        const auto start = Clock::now();
        EXPECT_EQ(m_pFactory->delete_participant(p), RETCODE_OK);
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(2)) << "delete_participant took too long";
        p = nullptr;
    }

    Publisher* Publisher_(DomainParticipant* p) {
        return p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    }
    Topic* Topic_(DomainParticipant* p, int i) {
        p->register_type("Bytes");
        const std::string strName = "Robust" + std::to_string(i) + "_" + std::to_string(getpid());
        return p->create_topic(strName, "Bytes", TOPIC_QOS_DEFAULT, nullptr, 0);
    }

    // Puts a datagram into B's ring, as the receive thread does.
    void Inject(const Datagram& d) {
        ReceiveBuffer* pRing = m_pB->getImpl()->getRtpsParticipant()->getReceiveBuffer();
        ASSERT_EQ(pRing->Write(d.bytes.data(), uint32_t(d.bytes.size())), 0);
    }

    // Writes one sample on writer i and waits until reader i has one more.
    bool Delivers(int i, int iWaitMs = kWaitMs) {
        const int iBefore = m_aCounts[i].count;
        const char sample[] = "sample";
        m_apWriters[i]->write(sample, sizeof(sample), HANDLE_NIL);
        return WaitFor([&] { return m_aCounts[i].count > iBefore; }, iWaitMs);
    }

    // Lets the process thread drain the ring: a sample on "two" queued behind it arrives.
    bool Drained() { return Delivers(1); }

    // B's own writer reaches B's reader "two".
    bool WriterBDelivers() {
        const int iBefore = m_aCounts[1].count;
        const char sample[] = "from B";
        EXPECT_EQ(m_pWriterB->write(sample, sizeof(sample), HANDLE_NIL), RETCODE_OK);
        return WaitFor([&] { return m_aCounts[1].count > iBefore; }, 500);
    }

    static constexpr EntityId_t kForged = {{0x00, 0x07, 0x77}, 0x03};
    DomainParticipantFactory* m_pFactory = nullptr;
    DomainParticipant* m_pA = nullptr;
    DomainParticipant* m_pB = nullptr;
    DataWriter* m_apWriters[3] = {};
    DataReader* m_apReaders[3] = {};
    CountingReader m_aCounts[3];
    EntityId_t m_aWriterIds[3] = {};
    EntityId_t m_aReaderIds[3] = {};
    GuidPrefix m_Prefix = {};
    DataWriter* m_pWriterB = nullptr;
    EntityId_t m_WriterBId = ENTITYID_UNKNOWN;
};
constexpr EntityId_t Robustness::kForged;

// One datagram of about 55 octets used to stop every reader and hang delete_participant.
// The endpoint it names stays out of the table as designed; nothing waits for it.
TEST_F(Robustness, ADatagramThatKeepsAnEndpointStopsOnlyThatEndpoint) {
    struct Case {
        const char* szName;
        std::function<Datagram()> make;
        bool bReaderOneKept;
        bool bWriterBKept;
    };
    const std::vector<Case> cases = {
        {"GAP for reader one's writer", [&] { return Datagram(m_Prefix).Gap(m_aWriterIds[0], 5); }, true,
         false},
        {"ACKNACK naming reader one", [&] { return Datagram(m_Prefix).AckNack(m_aReaderIds[0], 1, 0, 1); },
         true, false},
        {"ACKNACK naming a best-effort writer",
         [&] { return Datagram(m_Prefix).AckNack(m_WriterBId, 1, 0, 1); }, false, true},
        {"NACK_FRAG naming a best-effort writer",
         [&] { return Datagram(m_Prefix).NackFrag(m_WriterBId, 1, 1, 1); }, false, true},
        {"NACK_FRAG naming an unknown id", [&] { return Datagram(m_Prefix).NackFrag(kForged, 1, 1, 1); },
         false, false},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].szName);
        if (i != 0) {
            TearDown();
            SetUp();
        }
        ASSERT_TRUE(Delivers(0));
        Inject(cases[i].make());
        Inject(cases[i].make());  // a second one meets the kept endpoint
        EXPECT_TRUE(Drained());
        EXPECT_TRUE(Delivers(2));
        EXPECT_EQ(Delivers(0, cases[i].bReaderOneKept ? 300 : kWaitMs), !cases[i].bReaderOneKept);
        // A kept writer's sends are refused (and logged) instead of waiting for it.
        EXPECT_EQ(WriterBDelivers(), !cases[i].bWriterBKept);
    }
}

// The network itself: its rules act on the datagrams they match and on no others.
TEST_F(Robustness, NetworkRulesDropDuplicateAndDelayWhatTheyMatch) {
    struct Case {
        FakeNetwork::Action action;
        int iKind;
        int iExpected;  // samples reader "one" gets for one written
    };
    const Case cases[] = {{FakeNetwork::DROP, DATA, 0},
                          {FakeNetwork::DROP, HEARTBEAT, 1},
                          {FakeNetwork::DUPLICATE, DATA, 2},
                          {FakeNetwork::DELAY, DATA, 1},
                          {FakeNetwork::REORDER, DATA, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(int(c.action));
        FakeNetwork::Rule rule;
        rule.action = c.action;
        rule.iKind = c.iKind;
        rule.iTimes = 1;
        FakeNetwork::AddRule(rule);
        const int iBefore = m_aCounts[0].count;
        const char sample[] = "ruled";
        m_apWriters[0]->write(sample, sizeof(sample), HANDLE_NIL);
        EXPECT_TRUE(Drained());
        FakeNetwork::Flush();
        EXPECT_TRUE(WaitFor([&] { return m_aCounts[0].count - iBefore >= c.iExpected; }, kWaitMs));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(m_aCounts[0].count - iBefore, c.iExpected);
        FakeNetwork::ClearRules();
    }
}

// Wire values must not buy unbounded work or memory; the reader then takes the next
// valid sample. All of these come from the forged writer matched with reader "three".
TEST_F(Robustness, HostileValuesAreBoundedAndTheReaderGoesOn) {
    const EntityId_t w = kForged;
    struct Case {
        const char* szName;
        std::vector<Datagram> datagrams;
    };
    std::vector<Case> cases = {
        {"heartbeat over 2*10^7 numbers", {Datagram(m_Prefix).Heartbeat(w, 1, 20000000, 1)}},
        {"zero-length heartbeat over garbage",
         {Datagram(m_Prefix).Sub(HEARTBEAT, 1, Body().Raw(Octets(40, 0xEE)), 0)}},
        {"fragment of a 4 GiB sample", {Datagram(m_Prefix).DataFrag(w, 1, 1, 0xFFFFFFFFu, Octets(1000, 1))}},
        {"fragment of an empty sample", {Datagram(m_Prefix).DataFrag(w, 1, 1, 0, Octets(10, 1))}},
        {"fragment numbers 0 and 2^32-1",
         {Datagram(m_Prefix)
              .DataFrag(w, 2, 0, 200000, Octets(100, 1))
              .DataFrag(w, 2, 0xFFFFFFFFu, 200000, Octets(100, 1))}},
        {"fragment number far above the highest",
         {Datagram(m_Prefix).DataFrag(w, 3, 66000, 0xFFFFFFFFu, Octets(1000, 1))}},
        {"fragment size 0", {Datagram(m_Prefix).DataFrag(w, 4, 1, 200000, Octets(100, 1), 0)}},
        {"submessage longer than the datagram",
         {Datagram(m_Prefix).Sub(DATA_FRAG, 1, Body().Raw(Octets(40, 3)), 60000)}},
    };
    Case unfinished{"10,000 unfinished samples", {}};
    for (uint32_t sn = 10; sn < 10010; ++sn)
        unfinished.datagrams.push_back(
            Datagram(m_Prefix).DataFrag(w, sn, 1, 4 * FRAGMENT_SIZE, Octets(1024, 7)));
    cases.push_back(unfinished);

    const long lRssStart = RssKiB();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.szName);
        const auto start = Clock::now();
        for (const Datagram& d : c.datagrams) Inject(d);
        EXPECT_TRUE(Drained());
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
        EXPECT_TRUE(Delivers(2));
        EXPECT_LT(RssKiB() - lRssStart, 256 * 1024) << "resident memory grew by more than 256 MiB";
    }
}

// Deleting a writer, its publisher or a whole participant while thousands of its sends
// wait on the send thread: the queued requests find their writer gone and end quietly.
TEST_F(Robustness, DeletionWhileTenThousandAsynchronousSendsAreQueued) {
    for (const char* szWhat : {"writer", "publisher", "participant"}) {
        SCOPED_TRACE(szWhat);
        DataWriterQos qos;
        qos.publish_mode.kind = ASYNCHRONOUS_PUBLISH_MODE_QOS;
        Publisher* pPublisher = Publisher_(m_pA);
        DataWriter* pWriter = pPublisher->create_datawriter(Topic_(m_pA, 1), qos, nullptr, 0);
        ASSERT_NE(pWriter, nullptr);
        ManualMatchPeer b;
        ASSERT_TRUE(ManualMatch::Describe(m_pB, nullptr, m_apReaders[1], &b));
        ASSERT_EQ(ManualMatch::ConnectWriter(pWriter, b), 0);
        const std::vector<char> sample(256, 's');
        for (int i = 0; i < 10000; ++i) pWriter->write(sample.data(), unsigned(sample.size()), HANDLE_NIL);
        if (std::string(szWhat) == "writer")
            EXPECT_EQ(pPublisher->delete_datawriter(pWriter), RETCODE_OK);
        else if (std::string(szWhat) == "publisher")
            EXPECT_EQ(m_pA->delete_publisher(pPublisher), RETCODE_OK);
        else
            DeleteParticipant(m_pA);
        if (m_pA == nullptr) break;
    }
}

TEST_F(Robustness, ParticipantDeletedWhileAListenerRuns) {
    std::atomic<bool> bInside{false};
    m_aCounts[1].OnData([&] {
        bInside = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    });
    const char sample[] = "x";
    m_apWriters[1]->write(sample, sizeof(sample), HANDLE_NIL);
    ASSERT_TRUE(WaitFor([&] { return bInside.load(); }, kWaitMs));
    DeleteParticipant(m_pB);
}

TEST_F(Robustness, ParticipantDeletedWhileATimerFires) {
    SlowDeadline listener;
    DataWriterQos qos;
    qos.deadline.period = Duration_t(0, 10000000);
    DataWriter* pWriter =
        Publisher_(m_pA)->create_datawriter(Topic_(m_pA, 0), qos, &listener, STATUS_MASK_ALL);
    ASSERT_NE(pWriter, nullptr);
    // Deadline timers first fire after two seconds.
    ASSERT_TRUE(WaitFor([&] { return listener.calls > 0; }, kWaitMs));
    DeleteParticipant(m_pA);
}

// A listener that writes on another writer from the process thread, while that thread
// holds the reader: the writer is another endpoint and the send goes through.
TEST_F(Robustness, AListenerWritesOnAnotherWriter) {
    std::atomic<int> iForwarded{0};
    m_aCounts[0].OnData([&] {
        const char sample[] = "forwarded";
        if (m_pWriterB->write(sample, sizeof(sample), HANDLE_NIL) == RETCODE_OK) ++iForwarded;
    });
    const int iBefore = m_aCounts[1].count;
    ASSERT_TRUE(Delivers(0));
    EXPECT_EQ(iForwarded, 1);
    EXPECT_TRUE(WaitFor([&] { return m_aCounts[1].count > iBefore; }, kWaitMs));
}

}  // namespace
