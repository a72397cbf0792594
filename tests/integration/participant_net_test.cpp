// A real participant on the UDP transport, inside a private network namespace: its three
// ports, its default group, its threads, and what a create/delete cycle leaves behind.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "NetnsGuard.h"
#include "Publisher.h"
#include "Subscriber.h"
#include "Topic.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitterUDP.h"
#include "messages/ReceiveBuffer.h"
#include "requests/ImmeditRequestScheduler.h"
#include "rtps/Participant.h"

namespace {
// Entries of a /proc directory, "." and ".." left out.
std::vector<std::string> ListDir(const char* szPath) {
    std::vector<std::string> entries;
    DIR* pDir = opendir(szPath);
    if (pDir == nullptr) return entries;
    while (dirent* pEntry = readdir(pDir))
        if (pEntry->d_name[0] != '.') entries.push_back(pEntry->d_name);
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

bool SendDatagram(const char* szAddress, unsigned uiPort, const std::string& strPayload) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM, 0);
    if (iSocket < 0) return false;
    sockaddr_in to{};
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
    GUID_t guid = GUID_UNKNOWN;
    std::memcpy(&guid.guidPrefix.value[4], &kDomain, 4);
    std::memcpy(&guid.guidPrefix.value[8], &uiParticipantId, 4);
    guid.entityId = ENTITYID_PARTICIPANT;
    std::unique_ptr<Participant> pParticipant(new Participant(guid, nullptr, kDomain, &qos));
    EXPECT_EQ(pParticipant->initParticipant(), 0);
    return pParticipant;
}

bool NoParticipantThreads() {
    return !HasThread("3_SEND") && !HasThread("3_RECV") && !HasThread("3_DIST");
}

TEST(ParticipantNet, ThreePortsAndTheDefaultGroupReceive) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    DomainParticipantQos qos;
    auto pParticipant = MakeParticipant(qos, kParticipantId);
    const unsigned auiPorts[] = {7400 + 250 * kDomain, 7410 + 250 * kDomain + 2 * kParticipantId,
                                 7411 + 250 * kDomain + 2 * kParticipantId};
    for (unsigned uiPort : auiPorts) {
        const std::string strPayload = "to port " + std::to_string(uiPort);
        ASSERT_TRUE(SendDatagram("127.0.0.1", uiPort, strPayload));
        EXPECT_EQ(ReceiveOne(*pParticipant), strPayload);
    }
    ASSERT_EQ(qos.multicast_peer_list.length, 1u);
    EXPECT_EQ(qos.multicast_peer_list[0], "239.255.0.1");
    ASSERT_TRUE(SendDatagram("239.255.0.1", 7400 + 250 * kDomain, "to the group"));
    EXPECT_EQ(ReceiveOne(*pParticipant), "to the group");
    // The namespace's only adapter is loopback, so it names the participant.
    const octet aLoopback[4] = {127, 0, 0, 1};
    EXPECT_EQ(0, std::memcmp(pParticipant->getGuidPrefix().value, aLoopback, 4));
}

TEST(ParticipantNet, ThreadsStartAndStopInOrderWithinMilliseconds) {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
    using Clock = std::chrono::steady_clock;
    auto msSince = [](Clock::time_point start) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    };
    DomainParticipantQos qos;
    Clock::time_point start = Clock::now();
    std::unique_ptr<Participant> pParticipant = MakeParticipant(qos, kParticipantId + 40);
    ASSERT_EQ(pParticipant->startThreads(), 0);
    const long long llCreateMs = msSince(start);
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
    const long long llDeleteMs = msSince(start);
    EXPECT_LT(llDeleteMs, TimeBudgetMs(200));
    EXPECT_LT(llCreateMs + llDeleteMs, TimeBudgetMs(300))
        << "create " << llCreateMs << " ms, delete " << llDeleteMs << " ms";
    EXPECT_TRUE(WaitFor(NoParticipantThreads, 5000));
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
        DataReaderQos readerQos;
        writerQos.deadline.period = readerQos.deadline.period = Duration_t(0, 100);
        Publisher* pPub = p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
        Subscriber* pSub = p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
        ASSERT_TRUE(pPub != nullptr && pSub != nullptr);
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
