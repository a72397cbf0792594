// UDP transport over the loopback of a private network namespace: unicast and
// multicast delivery into the ring, the local shortcut, socket bookkeeping,
// the watched-socket cap, the draining of a burst and the receive thread's stop
// protocol with its wake. Then a real participant on it: its three ports, its
// default group, its threads, and what a create/delete cycle leaves behind.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "DDSLogManagementFactory.h"
#include "DataSendRig.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "NetnsGuard.h"
#include "Publisher.h"
#include "Subscriber.h"
#include "Topic.h"
#include "core/Thread.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitterUDP.h"
#include "messages/ReceiveBuffer.h"
#include "requests/ImmeditRequestScheduler.h"

namespace {
using Clock = std::chrono::steady_clock;
typedef std::vector<std::vector<octet>> Records;

long long ElapsedMs(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

const auto Lo = [](uint32_t uiPort, uint8_t d = 1) { return UdpLocator(127, 0, 0, d, uiPort); };
const Locator_t kSource = Lo(0);
const std::string kUdp = "[MessageTransmitterUDP::";
const std::string kReceiveLog = kUdp + "ReceiveMessage]";

// Octets that differ with the seed, which leads them.
std::vector<octet> Payload(size_t uiLength, uint32_t uiSeed) {
    std::vector<octet> data(uiLength);
    for (size_t i = 0; i < uiLength; ++i) data[i] = static_cast<octet>(uiSeed ^ (i * 13));
    std::memcpy(data.data(), &uiSeed, std::min<size_t>(4, uiLength));
    return data;
}

// Up to uiCount records. An empty ring is given at most iWaits of its one-second waits in all.
Records Read(ReceiveBuffer& ring, size_t uiCount, int iWaits = 3) {
    Records records;
    std::vector<octet> buffer(65536);
    while (records.size() < uiCount &&
           (iWaits > 0 || (iWaits == 0 && ring.GetAvailableLength() != ring.GetLength()))) {
        uint32_t uiLength = 0;
        if (ring.Read(buffer.data(), uiLength) == 0)
            records.emplace_back(buffer.begin(), buffer.begin() + uiLength);
        else
            --iWaits;
    }
    return records;
}

// Log entries whose text starts with prefix.
std::vector<LogEntry> Logged(LogRecorder& log, const std::string& prefix) {
    std::vector<LogEntry> found;
    for (const LogEntry& e : log.Entries())
        if (e.text.compare(0, prefix.size(), prefix) == 0) found.push_back(e);
    return found;
}

// A ring and its transport; Start runs TransmitRun on a wrapper thread, as the
// participant does, and the node stops it by the flag protocol when it goes.
struct Node {
    explicit Node(uint32_t uiRingSize = 1 << 20) : ring(uiRingSize), transmitter(&ring) {}
    ~Node() { Stop(); }
    bool Start() {
        return bStarted = thread.Start(&MessageTransmitter::TransmitRun,
                                       static_cast<MessageTransmitter*>(&transmitter), 0, "0_RECV") == 0;
    }
    // Clears the run flag (with bWake, by RequestStop, which also wakes the wait)
    // and polls the stopped flag, bounded. Returns the time it took.
    long long Stop(bool bWake = false) {
        if (!bStarted) return 0;
        bStarted = false;
        const Clock::time_point start = Clock::now();
        bWake ? transmitter.RequestStop() : transmitter.SetRunFlag(false);
        // A thread that does not stop ends the run: the transmitter must outlive it.
        if (!WaitFor([this] { return transmitter.GetStoppedFlag() != 0; }, 5000, 10)) std::abort();
        return ElapsedMs(start);
    }
    // Sends each datagram from kSource.
    void Send(const Locator_t& destination, const Records& datagrams) {
        for (const std::vector<octet>& d : datagrams)
            ASSERT_EQ(0, transmitter.MessageSend(kSource, destination, d.data(), uint32_t(d.size())));
    }
    ReceiveBuffer ring;
    MessageTransmitterUDP transmitter;
    Thread thread;
    bool bStarted = false;
};

// Entries of a /proc directory, "." and ".." left out.
std::vector<std::string> ListDir(const std::string& strPath) {
    std::vector<std::string> entries;
    DIR* pDir = opendir(strPath.c_str());
    while (dirent* pEntry = pDir ? readdir(pDir) : nullptr)
        if (pEntry->d_name[0] != '.') entries.push_back(pEntry->d_name);
    if (pDir) closedir(pDir);
    return entries;
}

bool HasThread(const std::string& strName) {
    for (const std::string& strTask : ListDir("/proc/self/task")) {
        std::ifstream comm("/proc/self/task/" + strTask + "/comm");
        std::string strComm;
        if (std::getline(comm, strComm) && strComm == strName) return true;
    }
    return false;
}

const int kDomain = 3;
std::unique_ptr<Participant> MakeParticipant(DomainParticipantQos& qos, uint32_t uiParticipantId) {
    std::unique_ptr<Participant> p(
        new Participant(ParticipantGuid(kDomain, uiParticipantId), nullptr, kDomain, &qos));
    EXPECT_EQ(p->initParticipant(), 0);
    return p;
}

struct Udp : ::testing::Test {
    void SetUp() override {
        MORVODDS_REQUIRE_PRIVATE_NETNS();
        ASSERT_EQ(0, sender.transmitter.SendAddrAdd(kSource));
    }
    LogRecorder log;
    Node sender;
    Node receiver;
};
}  // namespace

TEST_F(Udp, DatagramsArriveIntactFromEverySourceToEveryDestination) {
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(Lo(17011)));
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(Lo(17012)));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(Lo(0, 2)));
    ASSERT_TRUE(receiver.Start());
    // A small message and one of the largest a DATA_FRAG message makes.
    const Records sizes = {Payload(100, 1), Payload(64512 + 60, 2)};
    sender.Send(Lo(17011), sizes);
    EXPECT_EQ(sizes, Read(receiver.ring, 2));

    // The middle source was never added: its pairs fail, the others still go.
    const std::list<Locator_t> sources = {kSource, UdpLocator(10, 1, 2, 3, 0), Lo(0, 2)},
                               to = {Lo(17011), Lo(17012)};
    const std::vector<octet> payload = Payload(300, 3);
    EXPECT_EQ(0, sender.transmitter.MessageSend(sources, to, payload.data(), 300));
    EXPECT_EQ(Records(4, payload), Read(receiver.ring, 5, 1));
    EXPECT_EQ(2u, Logged(log, "[MessageTransmitterUDP::MessageSend] and Errorno = ").size());
}

TEST_F(Udp, OneSocketPerAddressAndPortAndBadAddressesAreRefused) {
    MessageTransmitterUDP& t = sender.transmitter;  // already sending from kSource
    EXPECT_EQ(0, t.SendAddrAdd(Lo(4711)));          // the port plays no part
    EXPECT_EQ(1u, t.GetSendSocketCount());
    EXPECT_GE(t.GetSendSocket(htonl(kSource.GetIPv4())), 0);
    // Unicast and multicast on one port share its socket; the newest is the highest.
    for (const Locator_t& locator : {Lo(17040), Lo(17040), UdpLocator(239, 255, 0, 1, 17040), Lo(17041)})
        ASSERT_EQ(0, t.ReceiveAddrAdd(locator));
    EXPECT_EQ(2u, t.GetReceiveSocketCount());
    EXPECT_GE(t.GetReceiveSocket(17040), 0);
    EXPECT_EQ(t.GetReceiveSocket(17041), t.GetHighestSocket());
    // A send address that is not local is refused.
    EXPECT_EQ(1, t.SendAddrAdd(UdpLocator(10, 1, 2, 3, 0)));
    EXPECT_EQ(1u, t.GetSendSocketCount());
    EXPECT_EQ(1, log.Count(kUdp + "SendAddrAdd] bind Error and error = " + std::to_string(EADDRNOTAVAIL)));
    // Sending from an unknown address fails with 51 and leaves it registered
    // without a socket, so a later SendAddrAdd counts it as known and opens nothing.
    const Locator_t unknown = Lo(0, 9), destination = Lo(17015);
    const std::vector<octet> data = Payload(10, 2);
    EXPECT_EQ(51, t.MessageSend(unknown, destination, data.data(), 10));
    char szExpected[200];
    snprintf(szExpected, sizeof(szExpected), "MessageSend] and Errorno = %d and SrcAdd:%d.%d dst:%X.%d",
             EBADF, int(htonl(unknown.GetIPv4())), 0, htonl(kSource.GetIPv4()), 17015);
    EXPECT_EQ(1, log.Count(kUdp + szExpected));
    EXPECT_EQ(2u, t.GetSendSocketCount());
    EXPECT_EQ(0, t.SendAddrAdd(unknown));
    EXPECT_EQ(-1, t.GetSendSocket(htonl(unknown.GetIPv4())));
    EXPECT_EQ(51, t.MessageSend(&unknown, &destination, data.data(), 10));
}

TEST_F(Udp, GroupReachesTwoReceiversOnOnePortAndLeavingIsANoOp) {
    Node second;
    const Locator_t group = UdpLocator(239, 255, 0, 1, 17020);
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(group));
    ASSERT_EQ(0, second.transmitter.ReceiveAddrAdd(group));
    ASSERT_TRUE(receiver.Start() && second.Start());
    const Records payload = {Payload(1200, 3)};
    for (int iRound = 0; iRound < 2; ++iRound) {  // leaving the group is a no-op that succeeds
        sender.Send(group, payload);
        EXPECT_EQ(payload, Read(receiver.ring, 1));
        EXPECT_EQ(payload, Read(second.ring, 1));
        EXPECT_EQ(0, receiver.transmitter.ReceiveAddrRemove(group));
    }
    EXPECT_EQ(1u, receiver.transmitter.GetReceiveSocketCount());
}

TEST_F(Udp, MembershipErrorsKeepTheSocket) {
    MessageTransmitterUDP& t = receiver.transmitter;
    ASSERT_EQ(0, t.ReceiveAddrAdd(Lo(17021)));
    const int iSocket = t.GetReceiveSocket(17021);
    ASSERT_GE(iSocket, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, t.ReceiveAddrRemove(Lo(17021)));
    EXPECT_EQ(1u, Logged(log, kUdp + "dropMemberShip] IP_DROP_MEMBERSHIP Error and errno = ").size());
    EXPECT_EQ(1, log.Count(kUdp + "ReceiveAddrRemove] dropMemberShip Error and Ret = 1"));
    // A port without a socket fails the same way and gains no entry.
    EXPECT_EQ(1, t.ReceiveAddrRemove(Lo(17022)));
    // Top three bits set but no group: the join is refused.
    EXPECT_EQ(52, t.ReceiveAddrAdd(UdpLocator(255, 255, 255, 255, 17023)));
    fflush(stdout);
    const std::string strConsole = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, strConsole.find("Add membership err \n"));
    EXPECT_NE(std::string::npos, strConsole.find("Err "));
    EXPECT_EQ(1u, Logged(log, kUdp + "addMemberShip] IP_ADD_MEMBERSHIP  Error and errno = ").size());
    EXPECT_EQ(1u, Logged(log, kUdp + "ReceiveAddrAdd] addMemberShip Error and Ret = ").size());
    EXPECT_EQ(0, log.Count(kUdp + "ReceiveAddrAdd] addMemberShip Error and Ret = 52"));
    EXPECT_EQ(iSocket, t.GetReceiveSocket(17021));
    EXPECT_EQ(2u, t.GetReceiveSocketCount());
}

TEST_F(Udp, OwnDestinationGoesThroughTheRingOnlyAndAFullRingDropsIt) {
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(Lo(17030)));
    const Records payload = {Payload(500, 4)};
    // No send socket exists: the shortcut comes before any socket is needed.
    receiver.Send(Lo(17030), payload);
    EXPECT_EQ(0u, receiver.transmitter.GetSendSocketCount());
    EXPECT_EQ(payload, Read(receiver.ring, 1));
    EXPECT_EQ(58, receiver.transmitter.ReceiveMessage());  // nothing reached the socket
    // Same address, a port not listened on: not local, and without a send socket it fails.
    EXPECT_EQ(51, receiver.transmitter.MessageSend(kSource, Lo(17031), payload[0].data(), 500));

    Node small(64);
    small.ring.SetDomainId(3);
    ASSERT_EQ(0, small.transmitter.ReceiveAddrAdd(Lo(17032)));
    small.Send(Lo(17032), {Payload(100, 4)});
    const std::vector<LogEntry> full =
        Logged(log, "[ReceiveBuffer::Write] uiAvailableLength = 64 and uiLength = 100");
    ASSERT_EQ(1u, full.size());
    EXPECT_EQ(3, full[0].key);
    EXPECT_EQ(64u, small.ring.GetAvailableLength());
}

// Passes of the receive loop run on the test thread. After the datagrams are sent and
// queued at the sockets, each row's passes give these results and records, in this order.
TEST_F(Udp, ReceivePassesWatch64SocketsDrainEachUpToItsBoundAndEndAtAWake) {
    const uint32_t uiBound = MessageTransmitterUDP::MAX_DATAGRAMS_PER_SOCKET;
    Records burst, lone = {Payload(16, 9)}, never = {Payload(40, 6)};
    for (uint32_t i = 0; i < uiBound + 44; ++i) burst.push_back(Payload(16, i));
    Records first(burst.begin(), burst.begin() + uiBound), rest(burst.begin() + uiBound, burst.end());
    first.push_back(lone[0]);
    struct Pass {  // a pass after a wake takes at most 200 ms
        bool bWakeFirst;
        int iResult;
        Records records;
        long long llMinMs;
    };
    struct Row {
        const char* szName;
        uint32_t uiPorts;                                 // receive ports from 17100
        std::vector<std::pair<uint32_t, Records>> sends;  // port, datagrams
        std::vector<Pass> passes;
    };
    const std::vector<Row> rows = {
        // Only the first 64 sockets in port order are watched: the 65th holds a datagram
        // that is never read, and that is no error. The wake is watched beside the 64.
        {"cap",
         65,
         {{17164, never}, {17163, lone}},
         {{false, 0, lone, 0}, {false, 58, {}, 0}, {true, 58, {}, 0}}},
        // A wake ends one wait at once and is spent by it; a datagram waiting at the wake is still read.
        {"wake", 1, {}, {{true, 58, {}, 0}, {false, 58, {}, 950}}},
        {"wake with a datagram", 1, {{17100, lone}}, {{true, 0, lone, 0}}},
        // Without receive sockets a pass sleeps 10 ms and gives 100, wake or not.
        {"no socket", 0, {}, {{true, 100, {}, 9}, {false, 100, {}, 9}}},
        // More than one pass can take from the busy socket, yet few enough for a receive
        // queue of the system's default size: the bound first, then the other socket's turn.
        {"burst", 2, {{17100, burst}, {17101, lone}}, {{false, 0, first, 0}, {false, 0, rest, 0}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.szName);
        Node node;
        for (uint32_t uiPort = 17100; uiPort < 17100 + row.uiPorts; ++uiPort)
            ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(Lo(uiPort)));
        for (const auto& send : row.sends) sender.Send(Lo(send.first), send.second);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // all queued at the sockets
        for (const Pass& pass : row.passes) {
            if (pass.bWakeFirst) {
                node.transmitter.RequestStop();
                EXPECT_EQ(0, node.transmitter.GetRunFlag());
                EXPECT_EQ(0, node.transmitter.GetStoppedFlag());  // only the loop sets that
            }
            const Clock::time_point start = Clock::now();
            EXPECT_EQ(pass.iResult, node.transmitter.ReceiveMessage());
            const long long llMs = ElapsedMs(start);
            EXPECT_TRUE(llMs >= pass.llMinMs && (!pass.bWakeFirst || llMs <= 200)) << llMs << " ms";
            EXPECT_EQ(pass.records, Read(node.ring, 100000, 0));
        }
    }
    EXPECT_EQ(2, log.Count("[MessageTransmitterUDP::ReceiveMessage] m_ReceiveSocket.Size() = 0"));
    EXPECT_EQ(2u, Logged(log, kReceiveLog).size());
}

TEST_F(Udp, ThreadStopsWithinItsLimitWithTheFixedLines) {
    // By the flag the loop ends at its next one-second wait (10 ms without
    // sockets); RequestStop wakes the wait at once.
    struct Row {
        bool bSocket, bWake;
        long long llLimitMs;
    };
    for (const Row& row : {Row{true, false, 1300}, Row{false, false, 300}, Row{true, true, 200}}) {
        SCOPED_TRACE(testing::Message() << "socket " << row.bSocket << " wake " << row.bWake);
        LogRecorder rowLog;
        Node node;
        node.transmitter.SetLogKey(0x20005);
        ASSERT_EQ(0, row.bSocket ? node.transmitter.ReceiveAddrAdd(Lo(17050)) : 0);
        EXPECT_EQ(1, node.transmitter.GetRunFlag());
        testing::internal::CaptureStdout();
        const bool bStarted = node.Start();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // inside a wait by now
        const long long llStopMs = node.Stop(row.bWake);
        fflush(stdout);
        EXPECT_EQ("Create TransmitRun \nStop Recv Thread .. \n", testing::internal::GetCapturedStdout());
        ASSERT_TRUE(bStarted);
        EXPECT_LE(llStopMs, row.llLimitMs);
        EXPECT_EQ(1, node.transmitter.GetStoppedFlag());
        std::vector<int> codes;  // -1 for an entry under another key
        for (const LogEntry& e : Logged(rowLog, "Stop Recv Thread Sucess"))
            codes.push_back(e.key == 0x20005 ? e.code : -1);
        EXPECT_EQ((std::vector<int>{DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO}), codes);
        EXPECT_EQ(0u, row.bSocket ? Logged(rowLog, kReceiveLog).size() : 0u);
    }
}

TEST_F(Udp, ParticipantReceivesOnItsThreePortsAndTheDefaultGroup) {
    DomainParticipantQos qos;
    auto pParticipant = MakeParticipant(qos, 5);
    ASSERT_EQ(qos.multicast_peer_list.length, 1u);
    EXPECT_EQ(qos.multicast_peer_list[0], "239.255.0.1");
    ReceiveBuffer& ring = *pParticipant->getReceiveBuffer();
    const uint32_t uiBase = 7400 + 250 * kDomain;
    for (const Locator_t& to :
         {Lo(uiBase), Lo(uiBase + 10 + 2 * 5), Lo(uiBase + 11 + 2 * 5), UdpLocator(239, 255, 0, 1, uiBase)}) {
        const Records payload = {Payload(20, to.port ^ to.GetIPv4())};
        sender.Send(to, payload);
        // Receive passes on this thread: no receive thread is started.
        for (int iPass = 0; iPass < 5 && ring.GetAvailableLength() == ring.GetLength(); ++iPass)
            pParticipant->getMessageTransmitter()->ReceiveMessage();
        EXPECT_EQ(payload, Read(ring, 1, 0)) << to.port;
    }
    // The namespace's only adapter is loopback, so it names the participant.
    const octet aLoopback[4] = {127, 0, 0, 1};
    EXPECT_EQ(0, std::memcmp(pParticipant->getGuidPrefix().value, aLoopback, 4));
}

TEST_F(Udp, ParticipantThreadsStartAndStopInOrderWithinMilliseconds) {
    DomainParticipantQos qos;
    Clock::time_point start = Clock::now();
    std::unique_ptr<Participant> pParticipant = MakeParticipant(qos, 45);
    ASSERT_EQ(pParticipant->startThreads(), 0);
    const long long llCreateMs = ElapsedMs(start);
    EXPECT_TRUE(HasThread("3_SEND") && HasThread("3_RECV") && HasThread("3_DIST"));
    // Let all three loops settle into their one-second waits: each stop must wake its own.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    start = Clock::now();
    // The owner's order: receive, process, send; the destructor does the rest.
    EXPECT_EQ(pParticipant->stopRecvThread(), 0);
    EXPECT_EQ(pParticipant->getMessageTransmitter()->GetStoppedFlag(), 1);
    EXPECT_EQ(pParticipant->stopDistThread(), 0);
    EXPECT_TRUE(pParticipant->getMessageProcessor()->IsStopped());
    EXPECT_EQ(pParticipant->stopSendThread(), 0);
    EXPECT_EQ(pParticipant->getImmeditRequestScheduler()->GetStoppedFlag(), 1);
    pParticipant.reset();
    const long long llDeleteMs = ElapsedMs(start);
    EXPECT_LT(llDeleteMs, TimeBudgetMs(200));
    EXPECT_LT(llCreateMs + llDeleteMs, TimeBudgetMs(300))
        << "create " << llCreateMs << " ms, delete " << llDeleteMs;
    EXPECT_TRUE(
        WaitFor([] { return !HasThread("3_SEND") && !HasThread("3_RECV") && !HasThread("3_DIST"); }, 5000));
}

// The public road: participants with a writer and a reader, each with a deadline timer,
// created and deleted through the factory, leave no thread (timers included) or socket.
TEST_F(Udp, FiftyFactoryParticipantsWithEntitiesLeaveNothingBehind) {
    DomainParticipantFactory* pFactory = DomainParticipantFactory::get_instance();
    auto cycle = [pFactory] {
        DomainParticipant* p = pFactory->create_participant(9, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(p, nullptr);
        p->register_type("Blob");
        Topic* pTopic = p->create_topic("Cycle", "Blob", TOPIC_QOS_DEFAULT, nullptr, 0);
        DataWriterQos writerQos;
        DataReaderQos readerQos;
        writerQos.deadline.period = readerQos.deadline.period = Duration_t(0, 100);
        Publisher* pPub = p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
        Subscriber* pSub = p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
        ASSERT_TRUE(pTopic != nullptr && pPub != nullptr && pSub != nullptr);
        EXPECT_NE(pPub->create_datawriter(pTopic, writerQos, nullptr, 0), nullptr);
        EXPECT_NE(pSub->create_datareader(pTopic, readerQos, nullptr, 0), nullptr);
        EXPECT_EQ(pFactory->delete_participant(p), RETCODE_OK);
    };
    cycle();  // lets process-wide helpers start first
    const size_t uiThreadsBefore = ListDir("/proc/self/task").size();
    const size_t uiFdsBefore = ListDir("/proc/self/fd").size();
    for (int i = 0; i < 50; ++i) cycle();
    EXPECT_TRUE(WaitFor([&] { return ListDir("/proc/self/task").size() == uiThreadsBefore; }, 5000))
        << ListDir("/proc/self/task").size() << " threads, " << uiThreadsBefore << " before";
    EXPECT_EQ(ListDir("/proc/self/fd").size(), uiFdsBefore);
    EXPECT_EQ(pFactory->lookup_participant(9), nullptr);
}
