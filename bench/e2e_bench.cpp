// End-to-end figures of the best-effort path between two processes on loopback,
// each next to a plain UDP socket pair doing the same work in the same run:
// throughput (64 B and 64512 B samples, counted where they arrive) and round
// trip latency (ping-pong over two topics). The second process is this
// program again, started with --role; the two talk over pipes.
//
//   scripts/netns-run build/release/bench/bench_e2e [--samples64 N] [--samples64k N] [--roundtrips N] [--runs
//   N]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DataReader.h"
#include "DataWriter.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "LineChannel.h"
#include "ManualMatch.h"
#include "PeerProcess.h"
#include "Publisher.h"
#include "Subscriber.h"
#include "TakeEach.h"
#include "Topic.h"

namespace {

typedef std::chrono::steady_clock Clock;

FILE* g_pOut = stdout;  // the figures; the library's console lines go elsewhere

const int kSetUpMs = 10000;
// A sink that has seen data and then nothing for this long has seen all it will.
const int kIdleMs = 300;
const int kRunMs = 60000;  // bound of any one measurement
const int kRoundTripTimeoutMs = 1000;
const int kSocketBuffer = 0x600000;  // as the library's receive sockets ask for
const int kTakeCallsMax = 64;
const int kWarmUpRoundTrips = 200;

double Seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

// ------------------------------------------------------------------ DDS side

// One participant with at most one writer and one reader, each on its own topic.
class DdsEnd {
public:
    DdsEnd(int iDomain, const std::string& strWriteTopic, const std::string& strReadTopic,
           DataReaderListener* pListener) {
        m_pFactory = DomainParticipantFactory::get_instance();
        m_pParticipant = m_pFactory->create_participant(iDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        if (m_pParticipant == nullptr) return;
        m_pParticipant->register_type("BenchBytes");
        if (!strWriteTopic.empty()) {
            Topic* pTopic =
                m_pParticipant->create_topic(strWriteTopic, "BenchBytes", TOPIC_QOS_DEFAULT, nullptr, 0);
            Publisher* pPublisher = m_pParticipant->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
            DataWriterQos qos;
            qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
            if (pPublisher != nullptr) m_pWriter = pPublisher->create_datawriter(pTopic, qos, nullptr, 0);
        }
        if (!strReadTopic.empty()) {
            Topic* pTopic =
                m_pParticipant->create_topic(strReadTopic, "BenchBytes", TOPIC_QOS_DEFAULT, nullptr, 0);
            Subscriber* pSubscriber = m_pParticipant->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
            DataReaderQos qos;
            qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
            if (pSubscriber != nullptr) m_pReader = pSubscriber->create_datareader(pTopic, qos, pListener, 0);
        }
    }
    ~DdsEnd() {
        if (m_pParticipant != nullptr) m_pFactory->delete_participant(m_pParticipant);
    }

    bool Ok(bool bWriter, bool bReader) const {
        return m_pParticipant != nullptr && (!bWriter || m_pWriter != nullptr) &&
               (!bReader || m_pReader != nullptr);
    }

    // Sends this end's line, connects to the other end's, and (bWaitReady) waits
    // for the other end to report its reader connected; sends READY itself.
    bool Connect(LineChannel& channel, bool bWaitReady) {
        ManualMatchPeer self, remote;
        std::string strLine;
        if (!ManualMatch::Describe(m_pParticipant, m_pWriter, m_pReader, &self)) return false;
        channel.Send("LINE " + ManualMatch::Format(self));
        if (!channel.ReceiveTagged("LINE ", &strLine, kSetUpMs) || !ManualMatch::Parse(strLine, &remote))
            return false;
        if (m_pWriter != nullptr && ManualMatch::ConnectWriter(m_pWriter, remote) != 0) return false;
        if (m_pReader != nullptr && remote.writerId != ENTITYID_UNKNOWN &&
            ManualMatch::ConnectReader(m_pReader, remote) != 0)
            return false;
        channel.Send("READY");
        return !bWaitReady || channel.ReceiveTagged("READY", &strLine, kSetUpMs);
    }

    DataWriter* writer() const { return m_pWriter; }

private:
    DomainParticipantFactory* m_pFactory = nullptr;
    DomainParticipant* m_pParticipant = nullptr;
    DataWriter* m_pWriter = nullptr;
    DataReader* m_pReader = nullptr;
};

// Takes everything on the process thread; counts, or hands each sample to a callback.
class TakingListener : public DataReaderListener {
public:
    std::atomic<uint64_t> m_Count{0};
    std::atomic<int64_t> m_FirstNs{0};
    std::atomic<int64_t> m_LastNs{0};
    DataWriter* m_pEchoWriter = nullptr;  // set: write every sample back
    std::mutex m_Mutex;
    std::condition_variable m_Arrived;

    void on_data_available(DataReader* pReader) override {
        TakeEach(
            pReader,
            [this](UserData& value) {
                if (m_pEchoWriter != nullptr)
                    m_pEchoWriter->write(reinterpret_cast<const char*>(value.data), value.length, HANDLE_NIL);
                std::free(value.data);
                const int64_t ns = Clock::now().time_since_epoch().count();
                int64_t zero = 0;
                m_FirstNs.compare_exchange_strong(zero, ns);
                m_LastNs.store(ns);
                {
                    std::lock_guard<std::mutex> lock(m_Mutex);
                    m_Count.fetch_add(1);
                }
                m_Arrived.notify_all();
            },
            kTakeCallsMax);
    }

    // Waits until the count passes uiAbove; false after iTimeoutMs.
    bool WaitAbove(uint64_t uiAbove, int iTimeoutMs) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Arrived.wait_for(lock, std::chrono::milliseconds(iTimeoutMs),
                                  [&] { return m_Count.load() > uiAbove; });
    }
};

// Waits until uiExpected have come, or the flow has stopped for kIdleMs after
// starting, or kRunMs have passed.
template <class CountFn>
void WaitForFlowEnd(uint64_t uiExpected, CountFn count) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kRunMs);
    uint64_t uiSeen = count();
    auto lastChange = Clock::now();
    while (Clock::now() < deadline && uiSeen < uiExpected) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const uint64_t uiNow = count();
        if (uiNow != uiSeen) {
            uiSeen = uiNow;
            lastChange = Clock::now();
        } else if (uiSeen > 0 && Clock::now() - lastChange > std::chrono::milliseconds(kIdleMs)) {
            break;
        }
    }
}

// ------------------------------------------------------------------ UDP side

int OpenUdp(uint16_t* pPort) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) return -1;
    int iSize = kSocketBuffer;
    setsockopt(iSocket, SOL_SOCKET, SO_RCVBUF, &iSize, sizeof(iSize));
    sockaddr_in address;
    std::memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        getsockname(iSocket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(iSocket);
        return -1;
    }
    *pPort = ntohs(address.sin_port);
    return iSocket;
}

sockaddr_in Loopback(uint16_t usPort) {
    sockaddr_in to;
    std::memset(&to, 0, sizeof(to));
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(usPort);
    return to;
}

// ------------------------------------------------------------------ the second process

struct RoleArgs {
    std::string role;
    int domain = 0;
    uint32_t size = 64;
    uint64_t count = 0;
};

int RunRole(const RoleArgs& args) {
    LineChannel channel(PeerProcess::CHILD_READ_FD, PeerProcess::CHILD_WRITE_FD);
    std::string strLine;
    if (args.role == "dds-sink" || args.role == "dds-echo") {
        const bool bEcho = args.role == "dds-echo";
        TakingListener listener;
        DdsEnd end(args.domain, bEcho ? "pong" : "", "ping", &listener);
        if (!end.Ok(bEcho, true)) return 2;
        listener.m_pEchoWriter = end.writer();
        if (!end.Connect(channel, false)) return 2;
        if (bEcho) return channel.ReceiveTagged("QUIT", &strLine, kRunMs) ? 0 : 3;
        WaitForFlowEnd(args.count, [&] { return listener.m_Count.load(); });
        char sz[128];
        std::snprintf(sz, sizeof(sz), "RESULT %llu %.9f", (unsigned long long)listener.m_Count.load(),
                      (listener.m_LastNs.load() - listener.m_FirstNs.load()) * 1e-9);
        channel.Send(sz);
        return channel.ReceiveTagged("QUIT", &strLine, kRunMs) ? 0 : 3;
    }
    if (args.role == "udp-sink" || args.role == "udp-echo") {
        uint16_t usPort = 0;
        const int iSocket = OpenUdp(&usPort);
        if (iSocket < 0) return 2;
        channel.Send("PORT " + std::to_string(usPort));
        std::vector<char> buffer(65536);
        uint64_t uiCount = 0;
        Clock::time_point first, last;
        const auto deadline = Clock::now() + std::chrono::milliseconds(kRunMs);
        while (Clock::now() < deadline) {
            pollfd fd = {iSocket, POLLIN, 0};
            if (poll(&fd, 1, 50) <= 0) {
                if (args.role == "udp-sink" && uiCount > 0 &&
                    Clock::now() - last > std::chrono::milliseconds(kIdleMs))
                    break;
                if (args.role == "udp-echo" && channel.Receive(&strLine, 0) && strLine == "QUIT") break;
                continue;
            }
            sockaddr_in from;
            socklen_t fromLength = sizeof(from);
            const ssize_t iRead = recvfrom(iSocket, buffer.data(), buffer.size(), 0,
                                           reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (iRead < 0) continue;
            last = Clock::now();
            if (uiCount++ == 0) first = last;
            if (args.role == "udp-echo")
                sendto(iSocket, buffer.data(), size_t(iRead), 0, reinterpret_cast<sockaddr*>(&from),
                       fromLength);
            else if (uiCount >= args.count)
                break;
        }
        close(iSocket);
        if (args.role == "udp-echo") return 0;
        char sz[128];
        std::snprintf(sz, sizeof(sz), "RESULT %llu %.9f", (unsigned long long)uiCount, Seconds(last - first));
        channel.Send(sz);
        return channel.ReceiveTagged("QUIT", &strLine, kRunMs) ? 0 : 3;
    }
    return 2;
}

// ------------------------------------------------------------------ measurements

struct Throughput {
    uint64_t sent = 0;
    uint64_t received = 0;
    double sendSeconds = 0;
    double receiveSeconds = 0;  // first to last arrival
    bool ok = false;
    double rate() const { return receiveSeconds > 0 ? double(received - 1) / receiveSeconds : 0; }
};

struct Latency {
    std::vector<double> us;  // one per answered round trip
    uint64_t lost = 0;
    bool ok = false;
    double percentile(double p) const {
        if (us.empty()) return 0;
        std::vector<double> sorted = us;
        std::sort(sorted.begin(), sorted.end());
        const size_t i = std::min(sorted.size() - 1, size_t(p * double(sorted.size() - 1) + 0.5));
        return sorted[i];
    }
};

bool StartPeer(PeerProcess& peer, const std::string& strRole, int iDomain, uint32_t uiSize,
               uint64_t uiCount) {
    std::string strWhy;
    if (peer.Start("/proc/self/exe",
                   {"--role", strRole, "--domain", std::to_string(iDomain), "--size", std::to_string(uiSize),
                    "--count", std::to_string(uiCount)},
                   &strWhy))
        return true;
    std::fprintf(stderr, "bench_e2e: %s\n", strWhy.c_str());
    return false;
}

bool ReadResult(PeerProcess& peer, Throughput* pOut) {
    std::string strRest;
    unsigned long long received = 0;
    if (!peer.channel().ReceiveTagged("RESULT ", &strRest, kRunMs + kSetUpMs) ||
        std::sscanf(strRest.c_str(), "%llu %lf", &received, &pOut->receiveSeconds) != 2)
        return false;
    pOut->received = received;
    peer.channel().Send("QUIT");
    return peer.Wait(kSetUpMs) == 0;
}

Throughput DdsThroughput(int iDomain, uint32_t uiSize, uint64_t uiCount) {
    Throughput result;
    PeerProcess peer;
    if (!StartPeer(peer, "dds-sink", iDomain, uiSize, uiCount)) return result;
    {
        DdsEnd end(iDomain, "ping", "", nullptr);
        if (!end.Ok(true, false) || !end.Connect(peer.channel(), true)) return result;
        const std::vector<char> sample(uiSize, 'x');
        const auto start = Clock::now();
        for (uint64_t i = 0; i < uiCount; ++i)
            if (end.writer()->write(sample.data(), uiSize, HANDLE_NIL) == 0) ++result.sent;
        result.sendSeconds = Seconds(Clock::now() - start);
        result.ok = ReadResult(peer, &result);
    }
    return result;
}

Throughput UdpThroughput(uint32_t uiSize, uint64_t uiCount) {
    Throughput result;
    PeerProcess peer;
    std::string strRest;
    if (!StartPeer(peer, "udp-sink", 0, uiSize, uiCount) ||
        !peer.channel().ReceiveTagged("PORT ", &strRest, kSetUpMs))
        return result;
    uint16_t usOwn = 0;
    const int iSocket = OpenUdp(&usOwn);
    if (iSocket < 0) return result;
    const sockaddr_in to = Loopback(uint16_t(std::atoi(strRest.c_str())));
    const std::vector<char> sample(uiSize, 'x');
    const auto start = Clock::now();
    for (uint64_t i = 0; i < uiCount; ++i)
        if (sendto(iSocket, sample.data(), uiSize, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) >=
            0)
            ++result.sent;
    result.sendSeconds = Seconds(Clock::now() - start);
    close(iSocket);
    result.ok = ReadResult(peer, &result);
    return result;
}

Latency DdsLatency(int iDomain, uint32_t uiSize, uint64_t uiRoundTrips) {
    Latency result;
    PeerProcess peer;
    if (!StartPeer(peer, "dds-echo", iDomain, uiSize, 0)) return result;
    {
        TakingListener listener;
        DdsEnd end(iDomain, "ping", "pong", &listener);
        if (!end.Ok(true, true) || !end.Connect(peer.channel(), true)) return result;
        const std::vector<char> sample(uiSize, 'p');
        for (uint64_t i = 0; i < kWarmUpRoundTrips + uiRoundTrips; ++i) {
            const uint64_t uiBefore = listener.m_Count.load();
            const auto start = Clock::now();
            end.writer()->write(sample.data(), uiSize, HANDLE_NIL);
            const bool bAnswered = listener.WaitAbove(uiBefore, kRoundTripTimeoutMs);
            const double us = Seconds(Clock::now() - start) * 1e6;
            if (i < kWarmUpRoundTrips) continue;
            if (bAnswered)
                result.us.push_back(us);
            else
                ++result.lost;
        }
        peer.channel().Send("QUIT");
        result.ok = peer.Wait(kSetUpMs) == 0;
    }
    return result;
}

Latency UdpLatency(uint32_t uiSize, uint64_t uiRoundTrips) {
    Latency result;
    PeerProcess peer;
    std::string strRest;
    if (!StartPeer(peer, "udp-echo", 0, uiSize, 0) ||
        !peer.channel().ReceiveTagged("PORT ", &strRest, kSetUpMs))
        return result;
    uint16_t usOwn = 0;
    const int iSocket = OpenUdp(&usOwn);
    if (iSocket < 0) return result;
    const sockaddr_in to = Loopback(uint16_t(std::atoi(strRest.c_str())));
    std::vector<char> sample(uiSize, 'p'), answer(65536);
    for (uint64_t i = 0; i < kWarmUpRoundTrips + uiRoundTrips; ++i) {
        const auto start = Clock::now();
        sendto(iSocket, sample.data(), uiSize, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        pollfd fd = {iSocket, POLLIN, 0};
        const bool bAnswered =
            poll(&fd, 1, kRoundTripTimeoutMs) > 0 && recv(iSocket, answer.data(), answer.size(), 0) >= 0;
        const double us = Seconds(Clock::now() - start) * 1e6;
        if (i < kWarmUpRoundTrips) continue;
        if (bAnswered)
            result.us.push_back(us);
        else
            ++result.lost;
    }
    close(iSocket);
    peer.channel().Send("QUIT");
    result.ok = peer.Wait(kSetUpMs) == 0;
    return result;
}

// Median of the values (0 for none).
double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Runs of one size: the median received rate, its spread and what was lost.
struct ThroughputSummary {
    double rate = 0, lowest = 0, highest = 0, lossPercent = 0;
    bool ok = true;
};

ThroughputSummary Summarise(const std::vector<Throughput>& runs) {
    ThroughputSummary summary;
    std::vector<double> rates, losses;
    for (const Throughput& run : runs) {
        rates.push_back(run.rate());
        losses.push_back(run.sent > 0
                             ? 100.0 * double(run.sent - std::min(run.sent, run.received)) / double(run.sent)
                             : 100.0);
        summary.ok = summary.ok && run.ok;
    }
    summary.rate = Median(rates);
    summary.lowest = rates.empty() ? 0 : *std::min_element(rates.begin(), rates.end());
    summary.highest = rates.empty() ? 0 : *std::max_element(rates.begin(), rates.end());
    summary.lossPercent = Median(losses);
    return summary;
}

void PrintThroughput(uint32_t uiSize, uint64_t uiCount, const std::vector<Throughput>& dds,
                     const std::vector<Throughput>& udp) {
    const ThroughputSummary d = Summarise(dds), u = Summarise(udp);
    std::fprintf(g_pOut, "throughput %u B x %llu, median of %zu runs (range), received where they arrive\n",
                 uiSize, (unsigned long long)uiCount, dds.size());
    std::fprintf(g_pOut, "  morvodds %9.0f samples/s %8.1f MB/s (%.0f..%.0f/s), %4.1f%% lost\n", d.rate,
                 d.rate * uiSize / 1e6, d.lowest, d.highest, d.lossPercent);
    std::fprintf(g_pOut, "  UDP      %9.0f samples/s %8.1f MB/s (%.0f..%.0f/s), %4.1f%% lost\n", u.rate,
                 u.rate * uiSize / 1e6, u.lowest, u.highest, u.lossPercent);
    std::fprintf(g_pOut, "  ratio morvodds/UDP %.2f%s\n", u.rate > 0 ? d.rate / u.rate : 0.0,
                 d.ok && u.ok ? "" : "  (a run FAILED)");
}

void PrintLatency(uint32_t uiSize, const Latency& dds, const Latency& udp, size_t uiRuns) {
    std::fprintf(g_pOut, "round trip %u B, %zu runs pooled\n", uiSize, uiRuns);
    std::fprintf(g_pOut, "  morvodds median %7.1f us  p99 %7.1f us (%zu answered, %llu lost)\n",
                 dds.percentile(0.5), dds.percentile(0.99), dds.us.size(), (unsigned long long)dds.lost);
    std::fprintf(g_pOut, "  UDP      median %7.1f us  p99 %7.1f us (%zu answered, %llu lost)\n",
                 udp.percentile(0.5), udp.percentile(0.99), udp.us.size(), (unsigned long long)udp.lost);
    std::fprintf(g_pOut, "  ratio morvodds/UDP median %.2f  p99 %.2f%s\n",
                 udp.percentile(0.5) > 0 ? dds.percentile(0.5) / udp.percentile(0.5) : 0.0,
                 udp.percentile(0.99) > 0 ? dds.percentile(0.99) / udp.percentile(0.99) : 0.0,
                 dds.ok && udp.ok ? "" : "  (a run FAILED)");
}

}  // namespace

int main(int argc, char** argv) {
    RoleArgs role;
    uint64_t uiSamples64 = 200000, uiSamples64k = 5000, uiRoundTrips = 2000, uiRuns = 3;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string strKey = argv[i];
        const char* szValue = argv[i + 1];
        if (strKey == "--role")
            role.role = szValue;
        else if (strKey == "--domain")
            role.domain = std::atoi(szValue);
        else if (strKey == "--size")
            role.size = uint32_t(std::strtoul(szValue, nullptr, 10));
        else if (strKey == "--count")
            role.count = std::strtoull(szValue, nullptr, 10);
        else if (strKey == "--samples64")
            uiSamples64 = std::strtoull(szValue, nullptr, 10);
        else if (strKey == "--samples64k")
            uiSamples64k = std::strtoull(szValue, nullptr, 10);
        else if (strKey == "--roundtrips")
            uiRoundTrips = std::strtoull(szValue, nullptr, 10);
        else if (strKey == "--runs")
            uiRuns = std::max<uint64_t>(1, std::strtoull(szValue, nullptr, 10));
        else {
            std::fprintf(stderr,
                         "usage: bench_e2e [--samples64 N] [--samples64k N] [--roundtrips N] [--runs N]\n");
            return 2;
        }
    }
    if (!role.role.empty()) return RunRole(role);

    // Sockets only inside the namespace that scripts/netns-run makes.
    const char* szNetns = std::getenv("MORVODDS_NETNS");
    if (szNetns == nullptr || std::strcmp(szNetns, "1") != 0) {
        std::fprintf(stderr, "bench_e2e opens sockets: run it as scripts/netns-run %s\n", argv[0]);
        return 2;
    }
    const int iDomain = 1 + int(getpid() % 200);
    cpu_set_t cpus;
    const int iCpus = sched_getaffinity(0, sizeof(cpus), &cpus) == 0 ? CPU_COUNT(&cpus) : 0;
    // The library writes console lines of its own (adapters, thread stops), in
    // this process and in the second: they go to /dev/null, the figures to stdout.
    std::fflush(stdout);
    const int iResults = dup(1);
    const int iNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (iResults < 0 || iNull < 0 || dup2(iNull, 1) < 0) return 2;
    close(iNull);
    g_pOut = fdopen(iResults, "w");
    if (g_pOut == nullptr) return 2;

    std::fprintf(g_pOut,
                 "bench_e2e: best effort between two processes on loopback, domain %d, %d CPU(s) allowed\n",
                 iDomain, iCpus);
    std::fflush(g_pOut);

    bool bOk = true;
    const uint32_t auiSizes[] = {64, 64512};
    const uint64_t auiCounts[] = {uiSamples64, uiSamples64k};
    for (int i = 0; i < 2; ++i) {
        if (auiCounts[i] == 0) continue;  // that size not asked for
        // Interleaved, so that whatever else the machine does weighs on both alike.
        std::vector<Throughput> dds, udp;
        for (uint64_t r = 0; r < uiRuns; ++r) {
            dds.push_back(DdsThroughput(iDomain, auiSizes[i], auiCounts[i]));
            udp.push_back(UdpThroughput(auiSizes[i], auiCounts[i]));
            bOk = bOk && dds.back().ok && udp.back().ok;
        }
        PrintThroughput(auiSizes[i], auiCounts[i], dds, udp);
        std::fflush(g_pOut);
    }
    if (uiRoundTrips != 0) {
        Latency dds, udp;
        dds.ok = udp.ok = true;
        for (uint64_t r = 0; r < uiRuns; ++r) {
            const Latency d = DdsLatency(iDomain, 64, uiRoundTrips);
            const Latency u = UdpLatency(64, uiRoundTrips);
            dds.us.insert(dds.us.end(), d.us.begin(), d.us.end());
            udp.us.insert(udp.us.end(), u.us.begin(), u.us.end());
            dds.lost += d.lost;
            udp.lost += u.lost;
            dds.ok = dds.ok && d.ok;
            udp.ok = udp.ok && u.ok;
        }
        PrintLatency(64, dds, udp, size_t(uiRuns));
        bOk = bOk && dds.ok && udp.ok;
    }
    std::fclose(g_pOut);
    return bOk ? 0 : 1;
}
