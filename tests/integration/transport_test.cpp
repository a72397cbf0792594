// UDP transport over the loopback of a private network namespace: unicast and
// multicast delivery into the ring, the local shortcut, socket bookkeeping,
// the watched-socket cap, the draining of bursts and the receive thread's stop
// protocol with its wake.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "NetnsGuard.h"
#include "core/Thread.h"
#include "DDSLogManagementFactory.h"
#include "log/LogObserver.h"
#include "messages/MessageTransmitterUDP.h"
#include "messages/ReceiveBuffer.h"

namespace {
using Clock = std::chrono::steady_clock;

long long ElapsedMs(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

Locator_t MakeLocator(int a, int b, int c, int d, uint32_t uiPort) {
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

class LogCapture {
public:
    LogCapture() { SetLogObserver(&LogCapture::Observe, this); }
    ~LogCapture() { SetLogObserver(nullptr, nullptr); }

    int Count(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        int n = 0;
        for (const Entry& e : m_Entries) n += e.text == text ? 1 : 0;
        return n;
    }
    int CountPrefix(const std::string& prefix) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        int n = 0;
        for (const Entry& e : m_Entries) n += e.text.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
        return n;
    }
    std::vector<int> CodesOf(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        std::vector<int> codes;
        for (const Entry& e : m_Entries)
            if (e.text == text) codes.push_back(e.code);
        return codes;
    }
    std::vector<int> KeysOf(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        std::vector<int> keys;
        for (const Entry& e : m_Entries)
            if (e.text == text) keys.push_back(e.key);
        return keys;
    }

private:
    struct Entry {
        int key;
        int code;
        std::string text;
    };
    static void Observe(void* context, int key, const char* text, size_t length, int code) {
        LogCapture* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        self->m_Entries.push_back(Entry{key, code, std::string(text, length)});
    }
    std::mutex m_Mutex;
    std::vector<Entry> m_Entries;
};

// Runs TransmitRun on a wrapper thread, as the participant does, and stops it
// by the flag protocol when it goes out of scope.
class ReceiveThread {
public:
    explicit ReceiveThread(MessageTransmitter& transmitter) : m_Transmitter(transmitter) {
        m_Started = m_Thread.Start(&MessageTransmitter::TransmitRun,
                                   static_cast<MessageTransmitter*>(&transmitter), 0, "0_RECV") == 0;
    }
    ~ReceiveThread() { Stop(); }

    // Clears the run flag (with bWake, by RequestStop, which also wakes the wait)
    // and polls the stopped flag every 10 ms, bounded. Returns the time it took.
    long long Stop(bool bWake = false) {
        if (!m_Started || m_Stopped) return 0;
        Clock::time_point start = Clock::now();
        if (bWake)
            m_Transmitter.RequestStop();
        else
            m_Transmitter.SetRunFlag(false);
        while (m_Transmitter.GetStoppedFlag() == 0) {
            if (ElapsedMs(start) > 5000) {
                ADD_FAILURE() << "receive thread did not stop";
                // The transmitter must outlive the thread: never free it now.
                std::abort();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        m_Stopped = true;
        return ElapsedMs(start);
    }
    bool Started() const { return m_Started; }

private:
    MessageTransmitter& m_Transmitter;
    Thread m_Thread;
    bool m_Started = false;
    bool m_Stopped = false;
};

struct Node {
    explicit Node(uint32_t uiRingSize = 1 << 20) : ring(uiRingSize), transmitter(&ring) {}
    ReceiveBuffer ring;
    MessageTransmitterUDP transmitter;
};
}  // namespace

TEST(MessageTransmitterUDP_unicast, DatagramArrivesIntactInTheReceiversRing) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    Node sender;
    Node receiver;
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17001)));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(MakeLocator(127, 0, 0, 1, 0)));
    ReceiveThread thread(receiver.transmitter);
    ASSERT_TRUE(thread.Started());

    // A small message and one of the largest a DATA_FRAG message makes.
    for (size_t uiSize : {size_t(100), size_t(64512 + 60)}) {
        SCOPED_TRACE(uiSize);
        std::vector<octet> payload = Payload(uiSize, static_cast<octet>(uiSize));
        ASSERT_EQ(
            0, sender.transmitter.MessageSend(MakeLocator(127, 0, 0, 1, 0), MakeLocator(127, 0, 0, 1, 17001),
                                              payload.data(), static_cast<uint32_t>(uiSize)));
        std::vector<octet> received;
        ASSERT_TRUE(ReadRecord(receiver.ring, received));
        EXPECT_EQ(payload, received);
    }
}

TEST(MessageTransmitterUDP_unicast, ListsSendOnceFromEverySourceToEveryDestination) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node sender;
    Node receiver;
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17011)));
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17012)));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(MakeLocator(127, 0, 0, 1, 0)));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(MakeLocator(127, 0, 0, 2, 0)));
    ReceiveThread thread(receiver.transmitter);

    // The third source was never added: its pairs fail, the others still go.
    std::list<Locator_t> sources = {MakeLocator(127, 0, 0, 1, 0), MakeLocator(10, 1, 2, 3, 0),
                                    MakeLocator(127, 0, 0, 2, 0)};
    std::list<Locator_t> destinations = {MakeLocator(127, 0, 0, 1, 17011), MakeLocator(127, 0, 0, 1, 17012)};
    std::vector<octet> payload = Payload(300, 1);
    EXPECT_EQ(0, sender.transmitter.MessageSend(sources, destinations, payload.data(), 300));

    for (int i = 0; i < 4; ++i) {
        std::vector<octet> received;
        ASSERT_TRUE(ReadRecord(receiver.ring, received)) << "datagram " << i;
        EXPECT_EQ(payload, received);
    }
    EXPECT_EQ(2, log.CountPrefix("[MessageTransmitterUDP::MessageSend] and Errorno = "));
    uint32_t uiEmpty = 0;
    std::vector<octet> extra(65536);
    EXPECT_EQ(1, receiver.ring.Read(extra.data(), uiEmpty));
}

TEST(MessageTransmitterUDP_unicast, SendFromUnknownAddressFailsWith51) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node sender;
    Locator_t unknown = MakeLocator(127, 0, 0, 9, 0);
    std::vector<octet> payload = Payload(10, 2);
    EXPECT_EQ(51,
              sender.transmitter.MessageSend(unknown, MakeLocator(127, 0, 0, 1, 17015), payload.data(), 10));
    char szExpected[200];
    snprintf(szExpected, sizeof(szExpected),
             "[MessageTransmitterUDP::MessageSend] and Errorno = %d and SrcAdd:%d.%d dst:%X.%d", EBADF,
             static_cast<int>(NetworkOrder(unknown)), 0, NetworkOrder(MakeLocator(127, 0, 0, 1, 0)), 17015);
    EXPECT_EQ(1, log.Count(szExpected));

    // The failed send left the address registered without a socket, so a
    // later SendAddrAdd counts it as known and opens nothing.
    EXPECT_EQ(1u, sender.transmitter.GetSendSocketCount());
    EXPECT_EQ(0, sender.transmitter.SendAddrAdd(unknown));
    EXPECT_EQ(-1, sender.transmitter.GetSendSocket(NetworkOrder(unknown)));
    // The pointer form forwards to the pair.
    Locator_t destination = MakeLocator(127, 0, 0, 1, 17015);
    EXPECT_EQ(51, sender.transmitter.MessageSend(&unknown, &destination, payload.data(), 10));
}

TEST(MessageTransmitterUDP_multicast, GroupReachesTwoReceiversOnOnePort) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    Node sender;
    Node first;
    Node second;
    Locator_t group = MakeLocator(239, 255, 0, 1, 17020);
    ASSERT_EQ(0, first.transmitter.ReceiveAddrAdd(group));
    ASSERT_EQ(0, second.transmitter.ReceiveAddrAdd(group));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(MakeLocator(127, 0, 0, 1, 0)));
    ReceiveThread firstThread(first.transmitter);
    ReceiveThread secondThread(second.transmitter);

    std::vector<octet> payload = Payload(1200, 3);
    ASSERT_EQ(0, sender.transmitter.MessageSend(MakeLocator(127, 0, 0, 1, 0), group, payload.data(), 1200));
    std::vector<octet> received;
    ASSERT_TRUE(ReadRecord(first.ring, received));
    EXPECT_EQ(payload, received);
    ASSERT_TRUE(ReadRecord(second.ring, received));
    EXPECT_EQ(payload, received);

    // Leaving a group is a no-op that succeeds: both still receive.
    EXPECT_EQ(0, first.transmitter.ReceiveAddrRemove(group));
    EXPECT_EQ(1u, first.transmitter.GetReceiveSocketCount());
    ASSERT_EQ(0, sender.transmitter.MessageSend(MakeLocator(127, 0, 0, 1, 0), group, payload.data(), 1200));
    ASSERT_TRUE(ReadRecord(first.ring, received));
    EXPECT_EQ(payload, received);
    ASSERT_TRUE(ReadRecord(second.ring, received));
}

TEST(MessageTransmitterUDP_multicast, UnicastRemoveFailsAndKeepsTheSocket) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node;
    Locator_t unicast = MakeLocator(127, 0, 0, 1, 17021);
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(unicast));
    int iSocket = node.transmitter.GetReceiveSocket(17021);
    ASSERT_GE(iSocket, 0);

    testing::internal::CaptureStdout();
    EXPECT_EQ(1, node.transmitter.ReceiveAddrRemove(unicast));
    fflush(stdout);
    std::string strConsole = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, strConsole.find("Add membership err \n"));
    EXPECT_EQ(
        1, log.CountPrefix("[MessageTransmitterUDP::dropMemberShip] IP_DROP_MEMBERSHIP Error and errno = "));
    EXPECT_EQ(1, log.Count("[MessageTransmitterUDP::ReceiveAddrRemove] dropMemberShip Error and Ret = 1"));
    EXPECT_EQ(iSocket, node.transmitter.GetReceiveSocket(17021));

    // A port without a socket fails the same way and gains no entry.
    EXPECT_EQ(1, node.transmitter.ReceiveAddrRemove(MakeLocator(127, 0, 0, 1, 17022)));
    EXPECT_EQ(1u, node.transmitter.GetReceiveSocketCount());
}

TEST(MessageTransmitterUDP_multicast, FailedJoinReports52AndKeepsTheSocket) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node;
    // Top three bits set but no group: the join is refused.
    testing::internal::CaptureStdout();
    EXPECT_EQ(52, node.transmitter.ReceiveAddrAdd(MakeLocator(255, 255, 255, 255, 17023)));
    fflush(stdout);
    std::string strConsole = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, strConsole.find("Err "));
    EXPECT_EQ(
        1, log.CountPrefix("[MessageTransmitterUDP::addMemberShip] IP_ADD_MEMBERSHIP  Error and errno = "));
    EXPECT_EQ(1, log.CountPrefix("[MessageTransmitterUDP::ReceiveAddrAdd] addMemberShip Error and Ret = "));
    EXPECT_EQ(0, log.Count("[MessageTransmitterUDP::ReceiveAddrAdd] addMemberShip Error and Ret = 52"));
    EXPECT_EQ(1u, node.transmitter.GetReceiveSocketCount());
}

TEST(MessageTransmitterUDP_local, OwnDestinationGoesThroughTheRingOnly) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    Node node;
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17030)));
    std::vector<octet> payload = Payload(500, 4);
    // No send socket exists: the shortcut comes before any socket is needed.
    EXPECT_EQ(0, node.transmitter.MessageSend(MakeLocator(127, 0, 0, 1, 0), MakeLocator(127, 0, 0, 1, 17030),
                                              payload.data(), 500));
    EXPECT_EQ(0u, node.transmitter.GetSendSocketCount());
    std::vector<octet> received;
    ASSERT_TRUE(ReadRecord(node.ring, received));
    EXPECT_EQ(payload, received);
    // Nothing reached the receive socket.
    EXPECT_EQ(58, node.transmitter.ReceiveMessage());

    // Same address but a port that this transmitter does not listen on: that
    // is not local, and without a send socket it fails.
    EXPECT_EQ(51, node.transmitter.MessageSend(MakeLocator(127, 0, 0, 1, 0), MakeLocator(127, 0, 0, 1, 17031),
                                               payload.data(), 500));
}

TEST(MessageTransmitterUDP_local, FullRingDropsTheMessageAndStillReturns0) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node(64);
    node.ring.SetDomainId(3);
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17032)));
    std::vector<octet> payload = Payload(100, 5);
    EXPECT_EQ(0, node.transmitter.MessageSend(MakeLocator(127, 0, 0, 1, 0), MakeLocator(127, 0, 0, 1, 17032),
                                              payload.data(), 100));
    EXPECT_EQ(1, log.Count("[ReceiveBuffer::Write] uiAvailableLength = 64 and uiLength = 100"));
    EXPECT_EQ(std::vector<int>{3},
              log.KeysOf("[ReceiveBuffer::Write] uiAvailableLength = 64 and uiLength = 100"));
    EXPECT_EQ(64u, node.ring.GetAvailableLength());
    EXPECT_EQ(58, node.transmitter.ReceiveMessage());
}

TEST(MessageTransmitterUDP_sockets, OneSocketPerAddressAndPerPort) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    Node node;
    Locator_t local = MakeLocator(127, 0, 0, 1, 0);
    ASSERT_EQ(0, node.transmitter.SendAddrAdd(local));
    int iSendSocket = node.transmitter.GetSendSocket(NetworkOrder(local));
    ASSERT_GE(iSendSocket, 0);
    local.port = 4711;  // the port plays no part for a send socket
    EXPECT_EQ(0, node.transmitter.SendAddrAdd(local));
    EXPECT_EQ(1u, node.transmitter.GetSendSocketCount());
    EXPECT_EQ(iSendSocket, node.transmitter.GetSendSocket(NetworkOrder(local)));

    // Unicast and multicast on one port share its socket.
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17040)));
    int iReceiveSocket = node.transmitter.GetReceiveSocket(17040);
    ASSERT_GE(iReceiveSocket, 0);
    EXPECT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17040)));
    EXPECT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(239, 255, 0, 1, 17040)));
    EXPECT_EQ(1u, node.transmitter.GetReceiveSocketCount());
    EXPECT_EQ(iReceiveSocket, node.transmitter.GetReceiveSocket(17040));
    EXPECT_EQ(iReceiveSocket, node.transmitter.GetHighestSocket());

    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17041)));
    EXPECT_EQ(2u, node.transmitter.GetReceiveSocketCount());
    EXPECT_EQ(node.transmitter.GetReceiveSocket(17041), node.transmitter.GetHighestSocket());
}

TEST(MessageTransmitterUDP_sockets, SendAddressThatIsNotLocalIsRefused) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node;
    EXPECT_EQ(1, node.transmitter.SendAddrAdd(MakeLocator(10, 1, 2, 3, 0)));
    EXPECT_EQ(0u, node.transmitter.GetSendSocketCount());
    char szExpected[200];
    snprintf(szExpected, sizeof(szExpected), "[MessageTransmitterUDP::SendAddrAdd] bind Error and error = %d",
             EADDRNOTAVAIL);
    EXPECT_EQ(1, log.Count(szExpected));
}

TEST(MessageTransmitterUDP_receive, NoSocketGives100) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node;
    Clock::time_point start = Clock::now();
    EXPECT_EQ(100, node.transmitter.ReceiveMessage());
    EXPECT_GE(ElapsedMs(start), 9);
    EXPECT_EQ(1, log.Count("[MessageTransmitterUDP::ReceiveMessage] m_ReceiveSocket.Size() = 0"));
}

TEST(MessageTransmitterUDP_receive, OnlyTheFirst64SocketsInPortOrderAreWatched) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node sender;
    Node receiver;
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(MakeLocator(127, 0, 0, 1, 0)));
    for (uint32_t uiPort = 17100; uiPort < 17165; ++uiPort)
        ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, uiPort)));
    ASSERT_EQ(65u, receiver.transmitter.GetReceiveSocketCount());

    std::vector<octet> last = Payload(40, 6);
    std::vector<octet> sixtyFourth = Payload(41, 7);
    Locator_t source = MakeLocator(127, 0, 0, 1, 0);
    ASSERT_EQ(0, sender.transmitter.MessageSend(source, MakeLocator(127, 0, 0, 1, 17164), last.data(), 40));
    ASSERT_EQ(
        0, sender.transmitter.MessageSend(source, MakeLocator(127, 0, 0, 1, 17163), sixtyFourth.data(), 41));

    EXPECT_EQ(0, receiver.transmitter.ReceiveMessage());
    std::vector<octet> received;
    ASSERT_TRUE(ReadRecord(receiver.ring, received));
    EXPECT_EQ(sixtyFourth, received);
    // The 65th socket holds a datagram that is never read, and that is no error.
    EXPECT_EQ(58, receiver.transmitter.ReceiveMessage());
    EXPECT_EQ(receiver.ring.GetLength(), receiver.ring.GetAvailableLength());
    EXPECT_EQ(0, log.CountPrefix("[MessageTransmitterUDP::ReceiveMessage]"));

    // The stop's wake is watched beside the 64, not in place of one: it ends the
    // wait and the 65th socket still stays unread.
    receiver.transmitter.RequestStop();
    Clock::time_point start = Clock::now();
    EXPECT_EQ(58, receiver.transmitter.ReceiveMessage());
    EXPECT_LT(ElapsedMs(start), 200);
    EXPECT_EQ(receiver.ring.GetLength(), receiver.ring.GetAvailableLength());
    EXPECT_EQ(0, log.CountPrefix("[MessageTransmitterUDP::ReceiveMessage]"));
}

TEST(MessageTransmitterUDP_receive, WakeEndsOneWaitLikeATimeoutAndIsSpent) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node;
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17060)));
    node.transmitter.RequestStop();
    EXPECT_EQ(0, node.transmitter.GetRunFlag());
    EXPECT_EQ(0, node.transmitter.GetStoppedFlag());  // only the loop sets that
    Clock::time_point start = Clock::now();
    EXPECT_EQ(58, node.transmitter.ReceiveMessage());
    EXPECT_LT(ElapsedMs(start), 200);
    // Drained by that pass: the next one waits its full second again.
    start = Clock::now();
    EXPECT_EQ(58, node.transmitter.ReceiveMessage());
    EXPECT_GE(ElapsedMs(start), 950);
    EXPECT_EQ(0, log.CountPrefix("[MessageTransmitterUDP::ReceiveMessage]"));
}

TEST(MessageTransmitterUDP_receive, DatagramWaitingAtTheWakeIsStillRead) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    Node sender;
    Node receiver;
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17061)));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(MakeLocator(127, 0, 0, 1, 0)));
    std::vector<octet> payload = Payload(77, 8);
    ASSERT_EQ(0, sender.transmitter.MessageSend(MakeLocator(127, 0, 0, 1, 0),
                                                MakeLocator(127, 0, 0, 1, 17061), payload.data(), 77));
    receiver.transmitter.RequestStop();
    EXPECT_EQ(0, receiver.transmitter.ReceiveMessage());
    std::vector<octet> received;
    ASSERT_TRUE(ReadRecord(receiver.ring, received));
    EXPECT_EQ(payload, received);
}

TEST(MessageTransmitterUDP_receive, NoSocketPathIsUnchangedByAWake) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node;
    node.transmitter.RequestStop();
    Clock::time_point start = Clock::now();
    EXPECT_EQ(100, node.transmitter.ReceiveMessage());
    EXPECT_GE(ElapsedMs(start), 9);
    EXPECT_EQ(1, log.Count("[MessageTransmitterUDP::ReceiveMessage] m_ReceiveSocket.Size() = 0"));
}

TEST(MessageTransmitterUDP_thread, StopsWithinTheOneSecondWait) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node;
    node.transmitter.SetLogKey(0x20005);
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17050)));
    EXPECT_EQ(1, node.transmitter.GetRunFlag());
    EXPECT_EQ(0, node.transmitter.GetStoppedFlag());

    testing::internal::CaptureStdout();
    long long llStopMs = -1;
    {
        ReceiveThread thread(node.transmitter);
        ASSERT_TRUE(thread.Started());
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // inside a wait by now
        llStopMs = thread.Stop();
    }
    fflush(stdout);
    std::string strConsole = testing::internal::GetCapturedStdout();

    EXPECT_GE(llStopMs, 0);
    EXPECT_LE(llStopMs, 1300);
    EXPECT_EQ(1, node.transmitter.GetStoppedFlag());
    EXPECT_NE(std::string::npos, strConsole.find("Create TransmitRun \n"));
    EXPECT_NE(std::string::npos, strConsole.find("Stop Recv Thread .. \n"));
    EXPECT_EQ(4, log.Count("Stop Recv Thread Sucess"));
    for (int iKey : log.KeysOf("Stop Recv Thread Sucess")) EXPECT_EQ(0x20005, iKey);
}

TEST(MessageTransmitterUDP_thread, StopsQuicklyWithoutSockets) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    Node node;
    ReceiveThread thread(node.transmitter);
    ASSERT_TRUE(thread.Started());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    long long llStopMs = thread.Stop();
    EXPECT_GE(llStopMs, 0);
    EXPECT_LE(llStopMs, 300);
}

TEST(MessageTransmitterUDP_thread, RequestStopEndsTheWaitWithinMilliseconds) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node node;
    node.transmitter.SetLogKey(0x20006);
    ASSERT_EQ(0, node.transmitter.ReceiveAddrAdd(MakeLocator(127, 0, 0, 1, 17051)));

    testing::internal::CaptureStdout();
    long long llStopMs = -1;
    {
        ReceiveThread thread(node.transmitter);
        ASSERT_TRUE(thread.Started());
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // inside a wait by now
        llStopMs = thread.Stop(true);
    }
    fflush(stdout);
    std::string strConsole = testing::internal::GetCapturedStdout();

    EXPECT_GE(llStopMs, 0);
    EXPECT_LT(llStopMs, 200);
    EXPECT_EQ(1, node.transmitter.GetStoppedFlag());
    // The same lines as a stop by the flag alone, and nothing else.
    EXPECT_EQ("Create TransmitRun \nStop Recv Thread .. \n", strConsole);
    EXPECT_EQ((std::vector<int>{DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO}),
              log.CodesOf("Stop Recv Thread Sucess"));
    EXPECT_EQ(0, log.CountPrefix("[MessageTransmitterUDP::ReceiveMessage]"));
}

// ------------------------------------------------------------ draining bursts

namespace {
// A datagram that names its socket and its place in the burst.
std::vector<octet> Numbered(char cTag, uint32_t uiIndex) {
    std::vector<octet> data(16, static_cast<octet>(cTag));
    std::memcpy(data.data(), &uiIndex, sizeof(uiIndex));
    return data;
}

// Every record the ring holds now, without waiting for more.
std::vector<std::vector<octet>> TakeAll(ReceiveBuffer& ring) {
    std::vector<std::vector<octet>> records;
    while (ring.GetAvailableLength() != ring.GetLength() && records.size() < 100000) {
        std::vector<octet> record;
        if (!ReadRecord(ring, record)) break;
        records.push_back(record);
    }
    return records;
}
}  // namespace

TEST(MessageTransmitterUDP_receive, APassDrainsEachReadySocketUpToItsBoundInArrivalOrder) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node sender;
    Node receiver;
    const Locator_t source = MakeLocator(127, 0, 0, 1, 0);
    const Locator_t busy = MakeLocator(127, 0, 0, 1, 17070);
    const Locator_t quiet = MakeLocator(127, 0, 0, 1, 17071);
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(busy));
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(quiet));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(source));

    // More than one pass can take from the busy socket, yet few enough for a
    // receive queue of the system's default size.
    const uint32_t uiBound = MessageTransmitterUDP::MAX_DATAGRAMS_PER_SOCKET;
    const uint32_t uiBurst = uiBound + 44;
    for (uint32_t i = 0; i < uiBurst; ++i) {
        std::vector<octet> data = Numbered('A', i);
        ASSERT_EQ(0, sender.transmitter.MessageSend(source, busy, data.data(), uint32_t(data.size())));
    }
    std::vector<octet> lone = Numbered('B', 0);
    ASSERT_EQ(0, sender.transmitter.MessageSend(source, quiet, lone.data(), uint32_t(lone.size())));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // all queued at the sockets

    // First pass: the bound from the busy socket, then the other socket's turn.
    EXPECT_EQ(0, receiver.transmitter.ReceiveMessage());
    std::vector<std::vector<octet>> records = TakeAll(receiver.ring);
    ASSERT_EQ(size_t(uiBound) + 1, records.size());
    for (uint32_t i = 0; i < uiBound; ++i) ASSERT_EQ(Numbered('A', i), records[i]) << "record " << i;
    EXPECT_EQ(lone, records[uiBound]);

    // Second pass: the rest of the burst, in order, and an empty queue behind it
    // is no error.
    EXPECT_EQ(0, receiver.transmitter.ReceiveMessage());
    records = TakeAll(receiver.ring);
    ASSERT_EQ(size_t(uiBurst - uiBound), records.size());
    for (uint32_t i = 0; i < records.size(); ++i)
        ASSERT_EQ(Numbered('A', uiBound + i), records[i]) << "record " << i;

    receiver.transmitter.RequestStop();  // the next wait ends at once
    EXPECT_EQ(58, receiver.transmitter.ReceiveMessage());
    EXPECT_EQ(0, log.CountPrefix("[MessageTransmitterUDP::ReceiveMessage]"));
}

TEST(MessageTransmitterUDP_thread, ABurstSentBackToBackReachesTheRingWhole) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    LogCapture log;
    Node sender;
    Node receiver;
    const Locator_t source = MakeLocator(127, 0, 0, 1, 0);
    const Locator_t destination = MakeLocator(127, 0, 0, 1, 17072);
    ASSERT_EQ(0, receiver.transmitter.ReceiveAddrAdd(destination));
    ASSERT_EQ(0, sender.transmitter.SendAddrAdd(source));
    // With one CPU the sender may keep it for the whole burst, so that only the
    // socket's queue stands between the burst and a loss, whatever the receive
    // thread does; the system's cap on that queue (rmem_max) decides then.
    int iQueue = 0;
    socklen_t queueLength = sizeof(iQueue);
    ASSERT_EQ(0, getsockopt(receiver.transmitter.GetReceiveSocket(17072), SOL_SOCKET, SO_RCVBUF, &iQueue,
                            &queueLength));
    cpu_set_t cpus;
    const bool bOneCpu = sched_getaffinity(0, sizeof(cpus), &cpus) == 0 && CPU_COUNT(&cpus) < 2;
    if (bOneCpu && iQueue < (4 << 20))
        GTEST_SKIP() << "one CPU and a receive queue of " << iQueue << " bytes";
    ReceiveThread thread(receiver.transmitter);
    ASSERT_TRUE(thread.Started());

    const uint32_t uiBurst = 2000;
    for (uint32_t i = 0; i < uiBurst; ++i) {
        std::vector<octet> data = Numbered('C', i);
        ASSERT_EQ(0, sender.transmitter.MessageSend(source, destination, data.data(), uint32_t(data.size())));
    }
    // Every datagram once, in the order sent; a missing one fails after the
    // ring's waits rather than hanging.
    for (uint32_t i = 0; i < uiBurst; ++i) {
        std::vector<octet> record;
        ASSERT_TRUE(ReadRecord(receiver.ring, record)) << "datagram " << i << " never arrived";
        ASSERT_EQ(Numbered('C', i), record) << "datagram " << i;
    }
    EXPECT_EQ(receiver.ring.GetLength(), receiver.ring.GetAvailableLength());
    thread.Stop(true);
    EXPECT_EQ(0, log.CountPrefix("[MessageTransmitterUDP::ReceiveMessage]"));
    EXPECT_EQ(0, log.CountPrefix("[ReceiveBuffer::Write]"));
}
