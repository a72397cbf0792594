// UDP transport over the loopback of a private network namespace: unicast and
// multicast delivery into the ring, the local shortcut, socket bookkeeping,
// the watched-socket cap, the draining of a burst and the receive thread's stop
// protocol with its wake.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "DataSendRig.h"
#include "NetnsGuard.h"
#include "core/Thread.h"
#include "DDSLogManagementFactory.h"
#include "messages/MessageTransmitterUDP.h"
#include "messages/ReceiveBuffer.h"

namespace {
using Clock = std::chrono::steady_clock;

long long ElapsedMs(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

Locator_t Loc(int a, int b, int c, int d, uint32_t uiPort) {
    Locator_t locator;
    locator.kind = LOCATOR_KIND_UDPv4;
    locator.port = uiPort;
    locator.SetIPv4((uint32_t(a) << 24) | (uint32_t(b) << 16) | (uint32_t(c) << 8) | uint32_t(d));
    return locator;
}

uint32_t NetworkOrder(const Locator_t& locator) {
    uint32_t uiAddress = 0;
    std::memcpy(&uiAddress, &locator.address[12], 4);
    return uiAddress;
}

std::vector<octet> Payload(size_t uiLength, octet seed) {
    std::vector<octet> data(uiLength);
    for (size_t i = 0; i < uiLength; ++i) data[i] = static_cast<octet>(seed ^ (i * 13));
    return data;
}

// A datagram that names its place in a burst.
std::vector<octet> Numbered(uint32_t uiIndex) {
    std::vector<octet> data(16, 'N');
    std::memcpy(data.data(), &uiIndex, sizeof(uiIndex));
    return data;
}

// Reads one record, giving the ring up to three of its one-second waits.
bool ReadRecord(ReceiveBuffer& ring, std::vector<octet>& out) {
    out.assign(65536, 0);
    for (int i = 0; i < 3; ++i) {
        uint32_t uiLength = 0;
        if (ring.Read(out.data(), uiLength) == 0) {
            out.resize(uiLength);
            return true;
        }
    }
    return false;
}

// Expects the ring's next record, within those waits, to be data.
void ExpectNext(ReceiveBuffer& ring, const std::vector<octet>& data) {
    std::vector<octet> record;
    ASSERT_TRUE(ReadRecord(ring, record));
    EXPECT_EQ(data, record);
}

// Every record the ring holds now, without waiting for more.
std::vector<std::vector<octet>> TakeAll(ReceiveBuffer& ring) {
    std::vector<std::vector<octet>> records;
    std::vector<octet> record;
    while (ring.GetAvailableLength() != ring.GetLength() && records.size() < 100000 &&
           ReadRecord(ring, record))
        records.push_back(record);
    return records;
}

// Log entries whose text starts with prefix.
std::vector<LogEntry> Starting(LogRecorder& log, const std::string& prefix) {
    std::vector<LogEntry> found;
    for (const LogEntry& e : log.Entries())
        if (e.text.compare(0, prefix.size(), prefix) == 0) found.push_back(e);
    return found;
}
int CountPrefix(LogRecorder& log, const std::string& prefix) {
    return int(Starting(log, prefix).size());
}

const char kReceiveLog[] = "[MessageTransmitterUDP::ReceiveMessage]";

// A ring and its transport; Start runs TransmitRun on a wrapper thread, as the
// participant does, and the node stops it by the flag protocol when it goes.
struct Node {
    explicit Node(uint32_t uiRingSize = 1 << 20) : ring(uiRingSize), transmitter(&ring) {}
    ~Node() { Stop(); }
    bool Start() {
        return m_bStarted = thread.Start(&MessageTransmitter::TransmitRun,
                                         static_cast<MessageTransmitter*>(&transmitter), 0, "0_RECV") == 0;
    }
    // Clears the run flag (with bWake, by RequestStop, which also wakes the wait)
    // and polls the stopped flag, bounded. Returns the time it took.
    long long Stop(bool bWake = false) {
        if (!m_bStarted) return 0;
        m_bStarted = false;
        Clock::time_point start = Clock::now();
        if (bWake)
            transmitter.RequestStop();
        else
            transmitter.SetRunFlag(false);
        if (!WaitFor([this] { return transmitter.GetStoppedFlag() != 0; }, 5000, 10)) {
            ADD_FAILURE() << "receive thread did not stop";
            std::abort();  // the transmitter must outlive the thread: never free it now
        }
        return ElapsedMs(start);
    }
    ReceiveBuffer ring;
    MessageTransmitterUDP transmitter;
    Thread thread;
    bool m_bStarted = false;
};

const Locator_t kSource = Loc(127, 0, 0, 1, 0);
}  // namespace

TEST(MessageTransmitterUDP_unicast, DatagramsArriveIntactFromEverySourceToEveryDestination) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogRecorder log;
    Node sender;
    Node receiver;
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(Loc(127, 0, 0, 1, 17011)));
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(Loc(127, 0, 0, 1, 17012)));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(kSource));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(Loc(127, 0, 0, 2, 0)));
    ASSERT_TRUE(receiver.Start());

    // A small message and one of the largest a DATA_FRAG message makes.
    for (size_t uiSize : {size_t(100), size_t(64512 + 60)}) {
        SCOPED_TRACE(uiSize);
        std::vector<octet> payload = Payload(uiSize, static_cast<octet>(uiSize));
        ASSERT_EQ(0, sender.transmitter.MessageSend(kSource, Loc(127, 0, 0, 1, 17011), payload.data(),
                                                    static_cast<uint32_t>(uiSize)));
        ExpectNext(receiver.ring, payload);
    }

    // The middle source was never added: its pairs fail, the others still go.
    std::list<Locator_t> sources = {kSource, Loc(10, 1, 2, 3, 0), Loc(127, 0, 0, 2, 0)};
    std::list<Locator_t> destinations = {Loc(127, 0, 0, 1, 17011), Loc(127, 0, 0, 1, 17012)};
    std::vector<octet> payload = Payload(300, 1);
    EXPECT_EQ(0, sender.transmitter.MessageSend(sources, destinations, payload.data(), 300));
    for (int i = 0; i < 4; ++i) ExpectNext(receiver.ring, payload);
    EXPECT_EQ(2, CountPrefix(log, "[MessageTransmitterUDP::MessageSend] and Errorno = "));
    uint32_t uiEmpty = 0;
    std::vector<octet> extra(65536);
    EXPECT_EQ(1, receiver.ring.Read(extra.data(), uiEmpty));
}

TEST(MessageTransmitterUDP_sockets, OneSocketPerAddressAndPortAndBadAddressesAreRefused) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogRecorder log;
    Node node;
    ASSERT_EQ(0, node.transmitter.SendAddrAdd(kSource));
    EXPECT_EQ(0, node.transmitter.SendAddrAdd(Loc(127, 0, 0, 1, 4711)));  // the port plays no part
    EXPECT_EQ(1u, node.transmitter.GetSendSocketCount());
    EXPECT_GE(node.transmitter.GetSendSocket(NetworkOrder(kSource)), 0);

    // Unicast and multicast on one port share its socket.
    for (const Locator_t& locator :
         {Loc(127, 0, 0, 1, 17040), Loc(127, 0, 0, 1, 17040), Loc(239, 255, 0, 1, 17040)})
        ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(locator));
    EXPECT_EQ(1u, node.transmitter.GetReceiveSocketCount());
    EXPECT_GE(node.transmitter.GetReceiveSocket(17040), 0);
    EXPECT_EQ(node.transmitter.GetReceiveSocket(17040), node.transmitter.GetHighestSocket());
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(Loc(127, 0, 0, 1, 17041)));
    EXPECT_EQ(2u, node.transmitter.GetReceiveSocketCount());
    EXPECT_EQ(node.transmitter.GetReceiveSocket(17041), node.transmitter.GetHighestSocket());

    // A send address that is not local is refused.
    char szExpected[200];
    EXPECT_EQ(1, node.transmitter.SendAddrAdd(Loc(10, 1, 2, 3, 0)));
    EXPECT_EQ(1u, node.transmitter.GetSendSocketCount());
    snprintf(szExpected, sizeof(szExpected), "[MessageTransmitterUDP::SendAddrAdd] bind Error and error = %d",
             EADDRNOTAVAIL);
    EXPECT_EQ(1, log.Count(szExpected));

    // Sending from an unknown address fails with 51 and leaves it registered
    // without a socket, so a later SendAddrAdd counts it as known and opens nothing.
    Locator_t unknown = Loc(127, 0, 0, 9, 0);
    Locator_t destination = Loc(127, 0, 0, 1, 17015);
    std::vector<octet> payload = Payload(10, 2);
    EXPECT_EQ(51, node.transmitter.MessageSend(unknown, destination, payload.data(), 10));
    snprintf(szExpected, sizeof(szExpected),
             "[MessageTransmitterUDP::MessageSend] and Errorno = %d and SrcAdd:%d.%d dst:%X.%d", EBADF,
             static_cast<int>(NetworkOrder(unknown)), 0, NetworkOrder(kSource), 17015);
    EXPECT_EQ(1, log.Count(szExpected));
    EXPECT_EQ(2u, node.transmitter.GetSendSocketCount());
    EXPECT_EQ(0, node.transmitter.SendAddrAdd(unknown));
    EXPECT_EQ(-1, node.transmitter.GetSendSocket(NetworkOrder(unknown)));
    EXPECT_EQ(51, node.transmitter.MessageSend(&unknown, &destination, payload.data(), 10));
}

TEST(MessageTransmitterUDP_multicast, GroupReachesTwoReceiversOnOnePortAndLeavingIsANoOp) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    Node sender;
    Node first;
    Node second;
    Locator_t group = Loc(239, 255, 0, 1, 17020);
    ASSERT_EQ(0, first.transmitter.ReceiveAddrAdd(group));
    ASSERT_EQ(0, second.transmitter.ReceiveAddrAdd(group));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(kSource));
    ASSERT_TRUE(first.Start());
    ASSERT_TRUE(second.Start());

    std::vector<octet> payload = Payload(1200, 3);
    for (int iRound = 0; iRound < 2; ++iRound) {  // leaving the group is a no-op that succeeds
        ASSERT_EQ(0, sender.transmitter.MessageSend(kSource, group, payload.data(), 1200));
        ExpectNext(first.ring, payload);
        ExpectNext(second.ring, payload);
        EXPECT_EQ(0, first.transmitter.ReceiveAddrRemove(group));
    }
    EXPECT_EQ(1u, first.transmitter.GetReceiveSocketCount());
}

TEST(MessageTransmitterUDP_multicast, MembershipErrorsKeepTheSocket) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogRecorder log;
    Node node;
    Locator_t unicast = Loc(127, 0, 0, 1, 17021);
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(unicast));
    int iSocket = node.transmitter.GetReceiveSocket(17021);
    ASSERT_GE(iSocket, 0);

    testing::internal::CaptureStdout();
    EXPECT_EQ(1, node.transmitter.ReceiveAddrRemove(unicast));
    EXPECT_EQ(
        1, CountPrefix(log, "[MessageTransmitterUDP::dropMemberShip] IP_DROP_MEMBERSHIP Error and errno = "));
    EXPECT_EQ(1, log.Count("[MessageTransmitterUDP::ReceiveAddrRemove] dropMemberShip Error and Ret = 1"));
    // A port without a socket fails the same way and gains no entry.
    EXPECT_EQ(1, node.transmitter.ReceiveAddrRemove(Loc(127, 0, 0, 1, 17022)));
    // Top three bits set but no group: the join is refused.
    EXPECT_EQ(52, node.transmitter.ReceiveAddrAdd(Loc(255, 255, 255, 255, 17023)));
    fflush(stdout);
    std::string strConsole = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, strConsole.find("Add membership err \n"));
    EXPECT_NE(std::string::npos, strConsole.find("Err "));
    EXPECT_EQ(
        1, CountPrefix(log, "[MessageTransmitterUDP::addMemberShip] IP_ADD_MEMBERSHIP  Error and errno = "));
    EXPECT_EQ(1, CountPrefix(log, "[MessageTransmitterUDP::ReceiveAddrAdd] addMemberShip Error and Ret = "));
    EXPECT_EQ(0, log.Count("[MessageTransmitterUDP::ReceiveAddrAdd] addMemberShip Error and Ret = 52"));
    EXPECT_EQ(iSocket, node.transmitter.GetReceiveSocket(17021));
    EXPECT_EQ(2u, node.transmitter.GetReceiveSocketCount());
}

TEST(MessageTransmitterUDP_local, OwnDestinationGoesThroughTheRingOnlyAndAFullRingDropsIt) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogRecorder log;
    Node node;
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(Loc(127, 0, 0, 1, 17030)));
    std::vector<octet> payload = Payload(500, 4);
    // No send socket exists: the shortcut comes before any socket is needed.
    EXPECT_EQ(0, node.transmitter.MessageSend(kSource, Loc(127, 0, 0, 1, 17030), payload.data(), 500));
    EXPECT_EQ(0u, node.transmitter.GetSendSocketCount());
    ExpectNext(node.ring, payload);
    EXPECT_EQ(58, node.transmitter.ReceiveMessage());  // nothing reached the socket
    // Same address, a port not listened on: not local, and without a send socket it fails.
    EXPECT_EQ(51, node.transmitter.MessageSend(kSource, Loc(127, 0, 0, 1, 17031), payload.data(), 500));

    Node small(64);
    small.ring.SetDomainId(3);
    ASSERT_EQ(0, small.transmitter.ReceiveAddrAdd(Loc(127, 0, 0, 1, 17032)));
    EXPECT_EQ(0, small.transmitter.MessageSend(kSource, Loc(127, 0, 0, 1, 17032), payload.data(), 100));
    std::vector<LogEntry> full =
        Starting(log, "[ReceiveBuffer::Write] uiAvailableLength = 64 and uiLength = 100");
    ASSERT_EQ(1u, full.size());
    EXPECT_EQ(3, full[0].key);
    EXPECT_EQ(64u, small.ring.GetAvailableLength());
}

TEST(MessageTransmitterUDP_receive, OnlyTheFirst64SocketsInPortOrderAreWatched) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogRecorder log;
    Node sender;
    Node receiver;
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(kSource));
    for (uint32_t uiPort = 17100; uiPort < 17165; ++uiPort)
        ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(Loc(127, 0, 0, 1, uiPort)));
    ASSERT_EQ(65u, receiver.transmitter.GetReceiveSocketCount());

    std::vector<octet> last = Payload(40, 6);
    std::vector<octet> sixtyFourth = Payload(41, 7);
    ASSERT_EQ(0, sender.transmitter.MessageSend(kSource, Loc(127, 0, 0, 1, 17164), last.data(), 40));
    ASSERT_EQ(0, sender.transmitter.MessageSend(kSource, Loc(127, 0, 0, 1, 17163), sixtyFourth.data(), 41));

    EXPECT_EQ(0, receiver.transmitter.ReceiveMessage());
    ExpectNext(receiver.ring, sixtyFourth);
    // The 65th socket holds a datagram that is never read, and that is no error.
    EXPECT_EQ(58, receiver.transmitter.ReceiveMessage());
    // The stop's wake is watched beside the 64, not in place of one.
    receiver.transmitter.RequestStop();
    Clock::time_point start = Clock::now();
    EXPECT_EQ(58, receiver.transmitter.ReceiveMessage());
    EXPECT_LT(ElapsedMs(start), 200);
    EXPECT_EQ(receiver.ring.GetLength(), receiver.ring.GetAvailableLength());
    EXPECT_EQ(0, CountPrefix(log, kReceiveLog));
}

TEST(MessageTransmitterUDP_receive, WakeEndsOneWaitAndADatagramWaitingAtItIsStillRead) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogRecorder log;
    Node sender;
    Node node;
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(Loc(127, 0, 0, 1, 17060)));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(kSource));
    node.transmitter.RequestStop();
    EXPECT_EQ(0, node.transmitter.GetRunFlag());
    EXPECT_EQ(0, node.transmitter.GetStoppedFlag());  // only the loop sets that
    Clock::time_point start = Clock::now();
    EXPECT_EQ(58, node.transmitter.ReceiveMessage());
    EXPECT_LT(ElapsedMs(start), 200);
    // Spent by that pass: the next one waits its full second again.
    start = Clock::now();
    EXPECT_EQ(58, node.transmitter.ReceiveMessage());
    EXPECT_GE(ElapsedMs(start), 950);

    std::vector<octet> payload = Payload(77, 8);
    ASSERT_EQ(0, sender.transmitter.MessageSend(kSource, Loc(127, 0, 0, 1, 17060), payload.data(), 77));
    node.transmitter.RequestStop();
    EXPECT_EQ(0, node.transmitter.ReceiveMessage());
    ExpectNext(node.ring, payload);
    EXPECT_EQ(0, CountPrefix(log, kReceiveLog));

    // Without receive sockets a pass sleeps 10 ms and gives 100, wake or not.
    sender.transmitter.RequestStop();
    start = Clock::now();
    EXPECT_EQ(100, sender.transmitter.ReceiveMessage());
    EXPECT_GE(ElapsedMs(start), 9);
    EXPECT_EQ(1, log.Count("[MessageTransmitterUDP::ReceiveMessage] m_ReceiveSocket.Size() = 0"));
}

TEST(MessageTransmitterUDP_receive, APassDrainsEachReadySocketUpToItsBoundInArrivalOrder) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogRecorder log;
    Node sender;
    Node receiver;
    const Locator_t busy = Loc(127, 0, 0, 1, 17070);
    const Locator_t quiet = Loc(127, 0, 0, 1, 17071);
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(busy));
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(quiet));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(kSource));

    // More than one pass can take from the busy socket, yet few enough for a
    // receive queue of the system's default size.
    const uint32_t uiBound = MessageTransmitterUDP::MAX_DATAGRAMS_PER_SOCKET;
    const uint32_t uiBurst = uiBound + 44;
    for (uint32_t i = 0; i < uiBurst; ++i) {
        std::vector<octet> data = Numbered(i);
        ASSERT_EQ(0, sender.transmitter.MessageSend(kSource, busy, data.data(), uint32_t(data.size())));
    }
    std::vector<octet> lone = Payload(16, 9);
    ASSERT_EQ(0, sender.transmitter.MessageSend(kSource, quiet, lone.data(), uint32_t(lone.size())));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // all queued at the sockets

    // First pass: the bound from the busy socket, then the other socket's turn.
    EXPECT_EQ(0, receiver.transmitter.ReceiveMessage());
    std::vector<std::vector<octet>> records = TakeAll(receiver.ring);
    ASSERT_EQ(size_t(uiBound) + 1, records.size());
    for (uint32_t i = 0; i < uiBound; ++i) ASSERT_EQ(Numbered(i), records[i]) << "record " << i;
    EXPECT_EQ(lone, records[uiBound]);
    // Second pass: the rest of the burst, in order.
    EXPECT_EQ(0, receiver.transmitter.ReceiveMessage());
    records = TakeAll(receiver.ring);
    ASSERT_EQ(size_t(uiBurst - uiBound), records.size());
    for (uint32_t i = 0; i < records.size(); ++i)
        ASSERT_EQ(Numbered(uiBound + i), records[i]) << "record " << i;
    EXPECT_EQ(0, CountPrefix(log, kReceiveLog));
}

TEST(MessageTransmitterUDP_thread, StopsWithinItsLimitWithTheFixedLines) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    // By the flag the loop ends at its next one-second wait (10 ms without
    // sockets); RequestStop wakes the wait at once.
    struct Row {
        bool bSocket, bWake;
        long long llLimitMs;
    };
    for (const Row& row : {Row{true, false, 1300}, Row{false, false, 300}, Row{true, true, 200}}) {
        SCOPED_TRACE(testing::Message() << "socket " << row.bSocket << " wake " << row.bWake);
        LogRecorder log;
        Node node;
        node.transmitter.SetLogKey(0x20005);
        ASSERT_EQ(0, row.bSocket ? node.transmitter.ReceiveAddrAdd(Loc(127, 0, 0, 1, 17050)) : 0);
        EXPECT_EQ(1, node.transmitter.GetRunFlag());
        testing::internal::CaptureStdout();
        const bool bStarted = node.Start();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // inside a wait by now
        const long long llStopMs = node.Stop(row.bWake);
        fflush(stdout);
        std::string strConsole = testing::internal::GetCapturedStdout();
        ASSERT_TRUE(bStarted);
        EXPECT_LE(llStopMs, row.llLimitMs);
        EXPECT_EQ(1, node.transmitter.GetStoppedFlag());
        EXPECT_EQ("Create TransmitRun \nStop Recv Thread .. \n", strConsole);
        std::vector<int> codes;
        for (const LogEntry& e : Starting(log, "Stop Recv Thread Sucess")) {
            codes.push_back(e.code);
            EXPECT_EQ(0x20005, e.key);
        }
        EXPECT_EQ((std::vector<int>{DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO}), codes);
        EXPECT_EQ(0, row.bSocket ? CountPrefix(log, kReceiveLog) : 0);
    }
}
