// Best-effort samples between two processes in one private network namespace,
// connected by hand: this process publishes, integration_peer subscribes and
// reports every sample it takes. The second case drops one DATA_FRAG datagram
// with nftables on the way in.
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DataReader.h"
#include "DataWriter.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "ManualMatch.h"
#include "NetnsGuard.h"
#include "PeerProcess.h"
#include "Publisher.h"
#include "Subscriber.h"
#include "Topic.h"
#include "TwoProcessSamples.h"

namespace {

const int kWaitMs = 10000;
const int kGapMs = 5;
const uint32_t kFragmentSize = 64512;

using two_process::Report;

// The publishing side of the pair, with the peer process it talks to.
class TwoProcess : public ::testing::Test {
protected:
    void SetUp() override {
        // Unique per test process, so that parallel runs never share ports.
        m_iDomain = 1 + int(getpid() % 200);
        m_strTopic = "TwoProcess_" + std::to_string(getpid());
        m_pFactory = DomainParticipantFactory::get_instance();
        m_pParticipant = m_pFactory->create_participant(m_iDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(m_pParticipant, nullptr);
        m_pParticipant->register_type("TwoProcessBytes");
        Topic* pTopic =
            m_pParticipant->create_topic(m_strTopic, "TwoProcessBytes", TOPIC_QOS_DEFAULT, nullptr, 0);
        Publisher* pPublisher = m_pParticipant->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(pPublisher, nullptr);
        DataWriterQos qos;
        qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
        m_pWriter = pPublisher->create_datawriter(pTopic, qos, nullptr, 0);
        ASSERT_NE(m_pWriter, nullptr);
    }

    void TearDown() override {
        if (m_Peer.pid() > 0) {
            m_Peer.channel().Send(two_process::kQuit);
            EXPECT_EQ(m_Peer.Wait(kWaitMs), 0) << "the peer did not end cleanly";
        }
        if (m_pParticipant != nullptr) m_pFactory->delete_participant(m_pParticipant);
    }

    // Starts the peer and connects both ways; the peer's reader is connected on return.
    void Connect() {
        std::string strWhy;
        ASSERT_TRUE(m_Peer.Start(MORVODDS_INTEGRATION_PEER,
                                 {"--domain", std::to_string(m_iDomain), "--topic", m_strTopic}, &strWhy))
            << strWhy;
        std::string strLine;
        ASSERT_TRUE(Expect(two_process::kLine, &strLine));
        ASSERT_TRUE(ManualMatch::Parse(strLine, &m_Remote)) << strLine;
        ASSERT_NE(m_Remote.readerId, ENTITYID_UNKNOWN);
        ASSERT_EQ(ManualMatch::ConnectWriter(m_pWriter, m_Remote), 0);

        ManualMatchPeer self;
        ASSERT_TRUE(ManualMatch::Describe(m_pParticipant, m_pWriter, nullptr, &self));
        ASSERT_TRUE(m_Peer.channel().Send(two_process::kLine + ManualMatch::Format(self)));
        ASSERT_TRUE(Expect(two_process::kReady, &strLine)) << "the peer did not connect its reader";
    }

    // The rest of the peer's next line tagged strTag. A FAIL line ends the wait
    // with the peer's reason; other lines are skipped.
    ::testing::AssertionResult Expect(const std::string& strTag, std::string* pRest) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        std::string strLine;
        while (m_Peer.channel().Receive(&strLine, LeftMs(deadline))) {
            if (strLine.compare(0, std::strlen(two_process::kFail), two_process::kFail) == 0)
                return ::testing::AssertionFailure() << "the peer failed: " << strLine;
            if (strLine.compare(0, strTag.size(), strTag) == 0) {
                *pRest = strLine.substr(strTag.size());
                return ::testing::AssertionSuccess();
            }
        }
        return ::testing::AssertionFailure()
               << "no \"" << strTag << "\" line from the peer within " << kWaitMs << " ms";
    }

    static int LeftMs(std::chrono::steady_clock::time_point deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        return left.count() > 0 ? int(left.count()) : 0;
    }

    void WriteAll(const std::vector<uint32_t>& lengths) {
        for (uint32_t i = 0; i < lengths.size(); ++i) {
            const std::vector<char> sample = two_process::MakeSample(i, lengths[i]);
            ASSERT_EQ(m_pWriter->write(sample.data(), uint32_t(sample.size()), HANDLE_NIL), 0)
                << "sample " << i;
            // Best effort has no flow control: a short gap keeps the receiving
            // socket from overflowing when parallel tests starve the peer.
            std::this_thread::sleep_for(std::chrono::milliseconds(kGapMs));
        }
    }

    // The peer's reports, in order of arrival, until sample uiLast is reported
    // or the wait runs out.
    std::vector<Report> CollectUntil(uint32_t uiLast) {
        std::vector<Report> reports;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        std::string strRest;
        while (std::chrono::steady_clock::now() < deadline) {
            if (!m_Peer.channel().ReceiveTagged(two_process::kSample, &strRest, LeftMs(deadline))) break;
            Report report;
            EXPECT_TRUE(two_process::ParseReport(strRest, &report)) << strRest;
            reports.push_back(report);
            if (report.index == uiLast) break;
        }
        return reports;
    }

    int m_iDomain = 0;
    std::string m_strTopic;
    DomainParticipantFactory* m_pFactory = nullptr;
    DomainParticipant* m_pParticipant = nullptr;
    DataWriter* m_pWriter = nullptr;
    PeerProcess m_Peer;
    ManualMatchPeer m_Remote;
};

std::string Describe(const std::vector<Report>& reports) {
    std::string s;
    for (const Report& report : reports) s += "[" + two_process::FormatReport(report) + "] ";
    return s;
}

// ---------------------------------------------------------------- the connection line

ManualMatchPeer SamplePeer() {
    ManualMatchPeer peer;
    for (int i = 0; i < 12; ++i) peer.prefix.value[i] = octet(0xA0 + i);
    peer.domainId = 42;
    peer.participantId = 14999;
    peer.address = 0x7F000001;
    peer.userUnicastPort = 65535;
    peer.writerId = EntityId_t{{0x2A, 0x04, 0x01}, 0x03};
    peer.readerId = ENTITYID_UNKNOWN;
    return peer;
}

TEST(ManualMatch, LineRoundTrips) {
    const ManualMatchPeer peer = SamplePeer();
    const std::string strLine = ManualMatch::Format(peer);
    EXPECT_EQ(strLine,
              "morvodds-peer prefix=a0a1a2a3a4a5a6a7a8a9aaab domain=42 participant=14999 address=127.0.0.1 "
              "port=65535 writer=2a040103 reader=00000000");
    ManualMatchPeer parsed;
    ASSERT_TRUE(ManualMatch::Parse(strLine + " \r", &parsed));
    EXPECT_EQ(parsed.writerGuid(), peer.writerGuid());
    EXPECT_EQ(parsed.readerId, ENTITYID_UNKNOWN);
    EXPECT_EQ(parsed.domainId, 42);
    EXPECT_EQ(parsed.participantId, 14999u);
    const Locator_t locator = parsed.userUnicastLocator();
    EXPECT_EQ(locator.kind, LOCATOR_KIND_UDPv4);
    EXPECT_EQ(locator.port, 65535u);
    EXPECT_EQ(locator.GetIPv4(), 0x7F000001u);
}

TEST(ManualMatch, ParseRefusesMalformedLines) {
    const std::string strGood = ManualMatch::Format(SamplePeer());
    auto replaced = [&](const std::string& strFrom, const std::string& strTo) {
        std::string s = strGood;
        s.replace(s.find(strFrom), strFrom.size(), strTo);
        return s;
    };
    const std::vector<std::string> bad = {
        "",
        "peer " + strGood.substr(strGood.find(' ') + 1),       // wrong tag
        replaced(" reader=00000000", ""),                      // a field missing
        strGood + " reader=00000000",                          // a field twice
        strGood + " extra=1",                                  // an unknown field
        replaced("prefix=a0a1", "prefix=a0a"),                 // short prefix
        replaced("writer=2a040103", "writer=2a04010g"),        // not hex
        replaced("port=65535", "port=65536"),                  // not a UDP port
        replaced("address=127.0.0.1", "address=127.0.0.256"),  // not an address
        replaced("address=127.0.0.1", "address=127.0.1"),      // three parts
        replaced("domain=42", "domain=-1"),                    // not a plain number
        replaced("domain=42", "domain="),                      // empty value
    };
    for (const std::string& strLine : bad) {
        ManualMatchPeer parsed = SamplePeer();
        EXPECT_FALSE(ManualMatch::Parse(strLine, &parsed)) << strLine;
    }
}

// What the helper connects, and what it refuses, inside one process.
TEST(ManualMatch, ConnectsOnlyWhatItCan) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    DomainParticipantFactory* pFactory = DomainParticipantFactory::get_instance();
    DomainParticipant* pParticipant =
        pFactory->create_participant(1 + int(getpid() % 200), PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pParticipant, nullptr);
    pParticipant->register_type("T");
    Topic* pTopic = pParticipant->create_topic("ManualMatch", "T", TOPIC_QOS_DEFAULT, nullptr, 0);
    Publisher* pPublisher = pParticipant->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    Subscriber* pSubscriber = pParticipant->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    DataWriterQos reliable;
    reliable.reliability.kind = RELIABLE_RELIABILITY_QOS;
    DataWriter* pReliable = pPublisher->create_datawriter(pTopic, reliable, nullptr, 0);
    DataReader* pReader = pSubscriber->create_datareader(pTopic, DataReaderQos(), nullptr, 0);
    ASSERT_NE(pReliable, nullptr);
    ASSERT_NE(pReader, nullptr);

    ManualMatchPeer self;
    ASSERT_TRUE(ManualMatch::Describe(pParticipant, pReliable, pReader, &self));
    EXPECT_EQ(self.writerGuid(), pReliable->getGuid());
    EXPECT_EQ(self.readerGuid(), pReader->getGuid());
    EXPECT_EQ(self.address, 0x7F000001u);  // loopback is the namespace's only adapter
    EXPECT_EQ(self.userUnicastPort,
              (7411u + 250u * uint32_t(self.domainId) + 2u * self.participantId) & 0xFFFFu);

    // Only best-effort writers take a reader locator.
    EXPECT_EQ(ManualMatch::ConnectWriter(pReliable, self), 1);
    EXPECT_EQ(ManualMatch::ConnectWriter(nullptr, self), 1);
    // A writer is matched once; a line without a writer matches nothing.
    EXPECT_EQ(ManualMatch::ConnectReader(pReader, self), 0);
    EXPECT_EQ(ManualMatch::ConnectReader(pReader, self), 1);
    ManualMatchPeer noWriter = self;
    noWriter.writerId = ENTITYID_UNKNOWN;
    EXPECT_EQ(ManualMatch::ConnectReader(pReader, noWriter), 1);
    EXPECT_EQ(ManualMatch::ConnectReader(nullptr, self), 1);
    EXPECT_EQ(pFactory->delete_participant(pParticipant), RETCODE_OK);
}

// ---------------------------------------------------------------- two processes

TEST_F(TwoProcess, SamplesCrossIntactAndInOrder) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    ASSERT_NO_FATAL_FAILURE(Connect());
    // Around each limit: the largest DATA, the smallest and a three-fragment
    // DATA_FRAG, a megabyte, and small ones between large ones.
    const std::vector<uint32_t> lengths = {16,     64511, 64512, 64513,  16, 1048576, 8,
                                           200000, 65000, 1000,  129025, 16, 300001};
    ASSERT_NO_FATAL_FAILURE(WriteAll(lengths));

    const std::vector<Report> reports = CollectUntil(uint32_t(lengths.size() - 1));
    ASSERT_EQ(reports.size(), lengths.size()) << Describe(reports);
    for (uint32_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i].index, i) << "out of order: " << Describe(reports);
        EXPECT_EQ(reports[i].length, lengths[i]) << "sample " << i;
        EXPECT_EQ(reports[i].firstBad, -1) << "sample " << i << " of " << lengths[i] << " octets";
    }
}

TEST_F(TwoProcess, ExactMultipleOfFragmentSizeLosesItsLastStretch) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    ASSERT_NO_FATAL_FAILURE(Connect());
    // Two fragments of 64512 and 0 octets: the second half never leaves the
    // writer, and the reader completes the sample on the empty fragment.
    const std::vector<uint32_t> lengths = {2 * kFragmentSize, 16};
    ASSERT_NO_FATAL_FAILURE(WriteAll(lengths));

    const std::vector<Report> reports = CollectUntil(1);
    ASSERT_EQ(reports.size(), 2u) << Describe(reports);
    EXPECT_EQ(reports[0].index, 0u);
    EXPECT_EQ(reports[0].length, 2 * kFragmentSize);
    EXPECT_EQ(reports[0].firstBad, int64_t(kFragmentSize));
    EXPECT_EQ(reports[1].firstBad, -1);
}

// An nftables table of this process in the test's namespace, dropping on input.
class DropRule {
public:
    DropRule() : m_strTable("morvodds_drop_" + std::to_string(getpid())) {}
    ~DropRule() { Run("nft delete table ip " + m_strTable + " 2>/dev/null"); }

    // Drops every DATA_FRAG datagram to the port whose fragment number and
    // sample size are the given ones. Payload offsets count from the UDP
    // header: submessage id at 8 + 32, fragment number at 8 + 56, sample size
    // at 8 + 64; the two numbers are little-endian on the wire.
    bool Install(uint32_t uiPort, uint32_t uiFragment, uint32_t uiSampleSize) {
        char szRule[400];
        std::snprintf(szRule, sizeof(szRule),
                      "nft add rule ip %s in udp dport %u @th,320,8 0x16 @th,512,32 0x%08x @th,576,32 0x%08x "
                      "counter drop",
                      m_strTable.c_str(), uiPort, Swap(uiFragment), Swap(uiSampleSize));
        return Run("nft add table ip " + m_strTable) &&
               Run("nft add chain ip " + m_strTable + " in '{ type filter hook input priority 0; }'") &&
               Run(szRule);
    }

    // Datagrams the rule has dropped, or -1 when the counter cannot be read.
    long Dropped() {
        FILE* pPipe = popen(("nft list chain ip " + m_strTable + " in 2>/dev/null").c_str(), "r");
        if (pPipe == nullptr) return -1;
        long lPackets = -1;
        char szLine[512];
        while (std::fgets(szLine, sizeof(szLine), pPipe) != nullptr) {
            const char* pCounter = std::strstr(szLine, "counter packets ");
            if (pCounter != nullptr) lPackets = std::atol(pCounter + std::strlen("counter packets "));
        }
        pclose(pPipe);
        return lPackets;
    }

private:
    static uint32_t Swap(uint32_t v) { return __builtin_bswap32(v); }
    static bool Run(const std::string& strCommand) { return std::system(strCommand.c_str()) == 0; }

    std::string m_strTable;
};

TEST_F(TwoProcess, LostFragmentLosesOnlyItsSample) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    if (std::system("nft --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "nft is not installed";
    ASSERT_NO_FATAL_FAILURE(Connect());
    // Sample 1 alone has this size; its second fragment is dropped on the way in.
    const uint32_t kDroppedLength = 200000;
    DropRule rule;
    ASSERT_TRUE(rule.Install(m_Remote.userUnicastPort, 2, kDroppedLength));

    const std::vector<uint32_t> lengths = {16, kDroppedLength, 64513, 300001, 16};
    ASSERT_NO_FATAL_FAILURE(WriteAll(lengths));
    const std::vector<Report> reports = CollectUntil(uint32_t(lengths.size() - 1));

    EXPECT_EQ(rule.Dropped(), 1) << "the rule must catch exactly one datagram";
    // A best-effort sample with a hole is never delivered, and the samples after
    // it are not held back by the one under reassembly.
    const std::vector<uint32_t> expected = {0, 2, 3, 4};
    ASSERT_EQ(reports.size(), expected.size()) << Describe(reports);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(reports[i].index, expected[i]) << Describe(reports);
        EXPECT_EQ(reports[i].length, lengths[expected[i]]);
        EXPECT_EQ(reports[i].firstBad, -1) << "sample " << expected[i];
    }
}

}  // namespace
