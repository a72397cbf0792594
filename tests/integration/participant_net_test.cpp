// A real participant on the UDP transport, inside a private network namespace: its three
// ports, its default group, its threads, and what a create/delete cycle leaves behind.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "DataReader.h"
#include "DataWriter.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "NetnsGuard.h"
#include "Publisher.h"
#include "Subscriber.h"
#include "Topic.h"
#include "QosPolicy.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitterUDP.h"
#include "messages/ReceiveBuffer.h"
#include "requests/ImmeditRequestScheduler.h"
#include "rtps/Participant.h"

namespace {
GUID_t MakeGuid(int iDomain, uint32_t uiParticipantId) {
    GUID_t guid = GUID_UNKNOWN;
    std::memcpy(&guid.guidPrefix.value[4], &iDomain, 4);
    std::memcpy(&guid.guidPrefix.value[8], &uiParticipantId, 4);
    guid.entityId = ENTITYID_PARTICIPANT;
    return guid;
}

// Entries of a /proc directory, "." and ".." left out.
std::vector<std::string> ListDir(const char* szPath) {
    std::vector<std::string> entries;
    DIR* pDir = opendir(szPath);
    if (pDir == nullptr) return entries;
    while (dirent* pEntry = readdir(pDir)) {
        if (pEntry->d_name[0] != '.') entries.push_back(pEntry->d_name);
    }
    closedir(pDir);
    return entries;
}

size_t ThreadCount() {
    return ListDir("/proc/self/task").size();
}

size_t FdCount() {
    return ListDir("/proc/self/fd").size();
}

bool HasThread(const std::string& strName) {
    for (const std::string& strTask : ListDir("/proc/self/task")) {
        std::ifstream comm("/proc/self/task/" + strTask + "/comm");
        std::string strComm;
        if (std::getline(comm, strComm) && strComm == strName) return true;
    }
    return false;
}

// Local UDP ports bound in this namespace, from /proc/net/udp.
std::vector<unsigned> BoundUdpPorts() {
    std::vector<unsigned> ports;
    std::ifstream table("/proc/net/udp");
    std::string strLine;
    std::getline(table, strLine);  // header
    while (std::getline(table, strLine)) {
        std::istringstream fields(strLine);
        std::string strSlot, strLocal;
        fields >> strSlot >> strLocal;
        const size_t uiColon = strLocal.find(':');
        if (uiColon != std::string::npos)
            ports.push_back(unsigned(std::stoul(strLocal.substr(uiColon + 1), nullptr, 16)));
    }
    return ports;
}

bool SendDatagram(const char* szAddress, unsigned uiPort, const std::string& strPayload) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM, 0);
    if (iSocket < 0) return false;
    sockaddr_in to;
    std::memset(&to, 0, sizeof(to));
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(uiPort));
    to.sin_addr.s_addr = inet_addr(szAddress);
    const ssize_t iSent = sendto(iSocket, strPayload.data(), strPayload.size(), 0,
                                 reinterpret_cast<sockaddr*>(&to), sizeof(to));
    close(iSocket);
    return iSent == ssize_t(strPayload.size());
}

// Runs receive passes on this thread (no receive thread is started) until the ring holds
// a record, then reads it. Empty when nothing came within the passes.
std::string ReceiveOne(Participant& participant) {
    ReceiveBuffer* pRing = participant.getReceiveBuffer();
    for (int iPass = 0; iPass < 5 && pRing->GetAvailableLength() == pRing->GetLength(); ++iPass)
        participant.getMessageTransmitter()->ReceiveMessage();
    std::vector<octet> buffer(ReceiveBuffer::READ_DESTINATION_SIZE);
    uint32_t uiLength = 0;
    if (pRing->Read(buffer.data(), uiLength, uint32_t(buffer.size())) != 0) return std::string();
    return std::string(reinterpret_cast<const char*>(buffer.data()), uiLength);
}

const int kDomain = 3;
const uint32_t kParticipantId = 5;

std::unique_ptr<Participant> MakeParticipant(DomainParticipantQos& qos, uint32_t uiParticipantId) {
    std::unique_ptr<Participant> pParticipant(
        new Participant(MakeGuid(kDomain, uiParticipantId), nullptr, kDomain, &qos));
    EXPECT_EQ(pParticipant->initParticipant(), 0);
    return pParticipant;
}

TEST(ParticipantNet, ThreePortsBoundAndReceiving) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    DomainParticipantQos qos;
    auto pParticipant = MakeParticipant(qos, kParticipantId);
    const unsigned auiPorts[] = {7400 + 250 * kDomain, 7410 + 250 * kDomain + 2 * kParticipantId,
                                 7411 + 250 * kDomain + 2 * kParticipantId};
    const std::vector<unsigned> bound = BoundUdpPorts();
    for (unsigned uiPort : auiPorts) {
        EXPECT_NE(std::find(bound.begin(), bound.end(), uiPort), bound.end()) << uiPort;
        const std::string strPayload = "to port " + std::to_string(uiPort);
        ASSERT_TRUE(SendDatagram("127.0.0.1", uiPort, strPayload));
        EXPECT_EQ(ReceiveOne(*pParticipant), strPayload);
    }
    // The namespace's only adapter is loopback, so it names the participant.
    const octet aLoopback[4] = {127, 0, 0, 1};
    EXPECT_EQ(0, std::memcmp(pParticipant->getGuidPrefix().value, aLoopback, 4));
}

TEST(ParticipantNet, JoinedDefaultGroup) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    DomainParticipantQos qos;
    auto pParticipant = MakeParticipant(qos, kParticipantId);
    ASSERT_EQ(qos.multicast_peer_list.length, 1u);
    EXPECT_EQ(qos.multicast_peer_list[0], "239.255.0.1");
    ASSERT_TRUE(SendDatagram("239.255.0.1", 7400 + 250 * kDomain, "to the group"));
    EXPECT_EQ(ReceiveOne(*pParticipant), "to the group");
}

TEST(ParticipantNet, ThreadsStopInOrder) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    DomainParticipantQos qos;
    auto pParticipant = MakeParticipant(qos, kParticipantId);
    ASSERT_EQ(pParticipant->startThreads(), 0);
    EXPECT_TRUE(HasThread("3_SEND"));
    EXPECT_TRUE(HasThread("3_RECV"));
    EXPECT_TRUE(HasThread("3_DIST"));

    EXPECT_EQ(pParticipant->stopRecvThread(), 0);
    EXPECT_EQ(pParticipant->getMessageTransmitter()->GetStoppedFlag(), 1);
    EXPECT_EQ(pParticipant->stopDistThread(), 0);
    EXPECT_TRUE(pParticipant->getMessageProcessor()->IsStopped());
    EXPECT_EQ(pParticipant->stopSendThread(), 0);
    EXPECT_EQ(pParticipant->getImmeditRequestScheduler()->GetStoppedFlag(), 1);
    EXPECT_TRUE(
        WaitFor([] { return !HasThread("3_SEND") && !HasThread("3_RECV") && !HasThread("3_DIST"); }, 5000));
}

TEST(ParticipantNet, CreateAndDeleteTakeMillisecondsNotSeconds) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    using Clock = std::chrono::steady_clock;
    auto msSince = [](Clock::time_point start) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    };
    DomainParticipantQos qos;
    Clock::time_point start = Clock::now();
    std::unique_ptr<Participant> pParticipant(
        new Participant(MakeGuid(kDomain, kParticipantId + 40), nullptr, kDomain, &qos));
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    ASSERT_EQ(pParticipant->startThreads(), 0);
    const long long llCreateMs = msSince(start);
    // Let all three loops settle into their one-second waits: each stop must wake its own.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    start = Clock::now();
    // The owner's order: receive, process, send; the destructor does the rest.
    EXPECT_EQ(pParticipant->stopRecvThread(), 0);
    EXPECT_EQ(pParticipant->stopDistThread(), 0);
    EXPECT_EQ(pParticipant->stopSendThread(), 0);
    pParticipant.reset();
    const long long llDeleteMs = msSince(start);
    EXPECT_LT(llDeleteMs, 200);
    EXPECT_LT(llCreateMs + llDeleteMs, 300)
        << "create " << llCreateMs << " ms, delete " << llDeleteMs << " ms";
}

void RunAndDelete(uint32_t uiParticipantId) {
    DomainParticipantQos qos;
    auto pParticipant = MakeParticipant(qos, uiParticipantId);
    ASSERT_EQ(pParticipant->startThreads(), 0);
    // All three flags first, so the three loops wind down together; the stop calls
    // then find them ended or ending.
    pParticipant->getMessageTransmitter()->SetRunFlag(false);
    pParticipant->getMessageProcessor()->Stop();
    pParticipant->getImmeditRequestScheduler()->SetRunFlag(false);
    EXPECT_EQ(pParticipant->stopRecvThread(), 0);
    EXPECT_EQ(pParticipant->stopDistThread(), 0);
    EXPECT_EQ(pParticipant->stopSendThread(), 0);
}

TEST(ParticipantNet, CreateDeleteCycleLeavesNothing) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    // A first cycle lets process-wide helpers start (a sanitizer's own thread, say), so
    // that the counts compare cycles only.
    RunAndDelete(kParticipantId);
    ASSERT_TRUE(
        WaitFor([] { return !HasThread("3_SEND") && !HasThread("3_RECV") && !HasThread("3_DIST"); }, 5000));
    const size_t uiThreadsBefore = ThreadCount();
    const size_t uiFdsBefore = FdCount();
    for (uint32_t i = 1; i <= 20; ++i) RunAndDelete(kParticipantId + i);
    // The threads are detached and end just after raising their stopped flags.
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == uiThreadsBefore; }, 5000))
        << ThreadCount() << " threads, " << uiThreadsBefore << " before";
    EXPECT_EQ(FdCount(), uiFdsBefore);
}

// The public road: participants with a writer and a reader, each with a deadline timer,
// created and deleted through the factory, leave no thread (timers included) or socket.
TEST(ParticipantNet, FiftyFactoryParticipantsWithEntitiesLeaveNothingBehind) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    DomainParticipantFactory* pFactory = DomainParticipantFactory::get_instance();
    auto cycle = [pFactory] {
        DomainParticipant* p = pFactory->create_participant(9, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(p, nullptr);
        p->register_type("Blob");
        Topic* pTopic = p->create_topic("Cycle", "Blob", TOPIC_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(pTopic, nullptr);
        DataWriterQos writerQos;
        writerQos.deadline.period = Duration_t(0, 100);
        DataReaderQos readerQos;
        readerQos.deadline.period = Duration_t(0, 100);
        Publisher* pPub = p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
        Subscriber* pSub = p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(pPub, nullptr);
        ASSERT_NE(pSub, nullptr);
        EXPECT_NE(pPub->create_datawriter(pTopic, writerQos, nullptr, 0), nullptr);
        EXPECT_NE(pSub->create_datareader(pTopic, readerQos, nullptr, 0), nullptr);
        EXPECT_EQ(pFactory->delete_participant(p), RETCODE_OK);
    };
    cycle();  // lets process-wide helpers start first
    const size_t uiThreadsBefore = ThreadCount();
    const size_t uiFdsBefore = FdCount();
    for (int i = 0; i < 50; ++i) cycle();
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == uiThreadsBefore; }, 5000))
        << ThreadCount() << " threads, " << uiThreadsBefore << " before";
    EXPECT_EQ(FdCount(), uiFdsBefore);
    EXPECT_EQ(pFactory->lookup_participant(9), nullptr);
}
}  // namespace
