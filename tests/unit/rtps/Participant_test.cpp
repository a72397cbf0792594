#include "rtps/Participant.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DataSendRig.h"
#include "NetnsGuard.h"
#include "core/NetCard.h"
#include "discovery/Discovery.h"
#include "messages/MessageProcessor.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"
#include "rtps/StatelessWriter.h"

namespace {
uint32_t Ip(const std::string& strAddress) {
    return strAddress.empty() ? 0 : ntohl(inet_addr(strAddress.c_str()));
}

Locator_t Loc(const std::string& strAddress, uint32_t uiPort) {
    Locator_t locator;
    locator.kind = LOCATOR_KIND_UDPv4;
    locator.port = uiPort;
    locator.SetIPv4(Ip(strAddress));
    return locator;
}

EntityId_t Id(octet a, octet b, octet c, octet d) {
    return EntityId_t{{a, b, c}, d};
}

DataWriterQos WriterQos(ReliabilityQosPolicyKind kind) {
    DataWriterQos qos;
    qos.reliability.kind = kind;
    return qos;
}

std::vector<std::string> Strings(const StringSeq& seq) {
    std::vector<std::string> out;
    for (uint32_t i = 0; i < seq.length; ++i) out.push_back(seq[i]);
    return out;
}

// The adapters that the network set-up sees: one per address.
std::vector<std::string> g_Cards;
int FakeCards(std::vector<netCard>& out) {
    for (const std::string& strAddress : g_Cards)
        out.push_back(netCard{"card " + strAddress, {strAddress}, {Ip(strAddress)}});
    return 0;
}

class Participant_net : public ::testing::Test {
protected:
    void SetUp() override {
        g_Cards = {"10.0.0.5"};
        SetNetCardSource(&FakeCards);
    }
    void TearDown() override { SetNetCardSource(nullptr); }
};

// ------------------------------------------------------------------ entity keys

TEST(Participant_keys, AllotsKeysByDomainAndCounterAndChoosesTheWriterClass) {
    DataSendRig rig(3, 5);
    Participant& p = rig.participant();
    EXPECT_EQ(
        std::vector<uint32_t>({2, 2, 8, 8, 63, 8150, 8170, 8171}),
        std::vector<uint32_t>({p.getProtocolVersion()[0], p.getProtocolVersion()[1], p.getVendorId()[0],
                               p.getVendorId()[1], p.getBuiltinEndpoints(), p.getDiscoveryMulticastPort(),
                               p.getDiscoveryUnicastPort(), p.getUserUnicastPort()}));

    // Known ids bypass the counters.
    EXPECT_EQ(p.createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER)
                  ->getEntityId(),
              ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER);
    EXPECT_EQ(p.createReader(DataReaderQos(), ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER)->getEntityId(),
              ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER);
    Writer* pWriter = p.createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    ASSERT_NE(nullptr, dynamic_cast<StatefulWriter*>(pWriter));
    EXPECT_EQ(pWriter->getEntityId(), Id(0x03, 0x04, 0x01, 0x03));
    EXPECT_EQ(0, std::memcmp(pWriter->getGUID().guidPrefix.value, p.getGuidPrefix().value, 12));
    EXPECT_EQ(p.createReader(DataReaderQos(), ENTITYID_UNKNOWN)->getEntityId(), Id(0x03, 0x09, 0x01, 0x04));
    pWriter = p.createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    ASSERT_NE(nullptr, dynamic_cast<StatelessWriter*>(pWriter));
    EXPECT_EQ(pWriter->getEntityId(), Id(0x03, 0x04, 0x02, 0x03));

    // The third octet carries into the second after 255.
    for (int i = 3; i <= 255; ++i)
        pWriter = p.createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    EXPECT_EQ(pWriter->getEntityId(), Id(0x03, 0x04, 0xFF, 0x03));
    EXPECT_EQ(p.createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN)->getEntityId(),
              Id(0x03, 0x05, 0x00, 0x03));
    EXPECT_EQ(p.createWriter(WriterQos(ReliabilityQosPolicyKind(3)), ENTITYID_UNKNOWN), nullptr);

    // Domain 256 allots as domain 0: only the low octet goes into the key.
    DataSendRig wide(256);
    EXPECT_EQ(
        wide.participant().createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN)->getEntityId(),
        Id(0x00, 0x04, 0x01, 0x03));
    EXPECT_EQ(wide.participant().createReader(DataReaderQos(), ENTITYID_UNKNOWN)->getEntityId(),
              Id(0x00, 0x09, 0x01, 0x04));
}

TEST_F(Participant_net, ReaderTakesLocatorsAndJoinsItsGroups) {
    DataSendRig rig(2);
    ASSERT_EQ(rig.participant().initParticipant(), 0);
    const size_t uiJoinsBefore = rig.transmitter().m_ReceiveAddrs.size();
    DataReaderQos qos;
    TransportMulticastSetting setting;
    setting.receive_address = "239.1.2.3";
    setting.receive_port = 9000;
    qos.multicast.value.push_back(setting);
    StatefulReader* pReader = rig.participant().createReader(qos, ENTITYID_UNKNOWN);
    ASSERT_NE(pReader, nullptr);
    EXPECT_EQ(pReader->getUnicastLocatorList(), rig.participant().getDefaultUnicastLocatorList());
    ASSERT_EQ(rig.transmitter().m_ReceiveAddrs.size(), uiJoinsBefore + 1);
    EXPECT_EQ(rig.transmitter().m_ReceiveAddrs.back(), Loc("239.1.2.3", 9000));
}

// ------------------------------------------------------------------ network set-up

struct NetCase {
    const char* szName;
    int iDomain;
    std::vector<std::string> cards;
    const char* szLocal;
    std::vector<std::string> peers, groups;  // peer_list, multicast_peer_list as given
    std::string guidAddress;
    std::vector<std::string> unicast;
    std::vector<std::string> peersOut, groupsOut;
    std::vector<std::string> defaultGroups;  // default multicast locators
    std::vector<std::string> groupJoins;     // receive joins before the three port joins
    std::string portAddress;                 // "" : the port joins carry no address
};

TEST_F(Participant_net, NetworkSetUpFillsLocatorsListsAndJoins) {
    // clang-format off
    const NetCase aCases[] = {
        {"one adapter, default group", 1, {"10.0.0.5"}, "", {}, {}, "10.0.0.5", {"10.0.0.5"},
         {"239.255.0.1"}, {"239.255.0.1"}, {"239.255.0.1"}, {"239.255.0.1"}, "239.255.0.1"},
        // The loopback entry becomes the first adapter's address, not the GUID's.
        {"two adapters, loopback", 0, {"10.0.0.5", "192.168.3.4"}, "", {"127.0.0.1"}, {}, "192.168.3.4",
         {"10.0.0.5", "192.168.3.4"}, {"10.0.0.5"}, {}, {}, {}, ""},
        {"configured address", 0, {"10.0.0.5", "192.168.3.4"}, "172.16.0.9", {"127.0.0.1", "239.7.7.7"}, {},
         "172.16.0.9", {"172.16.0.9"}, {"172.16.0.9", "239.7.7.7"}, {"239.7.7.7"}, {"239.7.7.7"},
         {"239.7.7.7"}, "239.7.7.7"},
        {"unicast seed", 0, {"10.0.0.5"}, "", {"192.168.7.7"}, {}, "10.0.0.5", {"10.0.0.5"},
         {"192.168.7.7", "10.0.0.5"}, {}, {}, {}, ""},
        {"unicast seed beside a group", 0, {"10.0.0.5"}, "", {"192.168.7.7", "239.1.1.1"}, {}, "10.0.0.5",
         {"10.0.0.5"}, {"192.168.7.7", "239.1.1.1"}, {"239.1.1.1"}, {"239.1.1.1"}, {"239.1.1.1"}, "239.1.1.1"},
        // Receive list entries join (non-groups skipped); the last group stays in the locator.
        {"receive list", 0, {"10.0.0.5"}, "", {"192.168.7.7"}, {"239.9.9.9", "10.1.1.1"}, "10.0.0.5",
         {"10.0.0.5"}, {"192.168.7.7", "10.0.0.5"}, {"239.9.9.9", "10.1.1.1"}, {}, {"239.9.9.9"}, "239.9.9.9"},
    };
    // clang-format on
    for (const NetCase& c : aCases) {
        SCOPED_TRACE(c.szName);
        g_Cards = c.cards;
        DomainParticipantQos qos;
        qos.local_address = c.szLocal;
        for (const std::string& s : c.peers) qos.peer_list.push_back(s);
        for (const std::string& s : c.groups) qos.multicast_peer_list.push_back(s);
        DataSendRig rig(c.iDomain, 7, &qos);
        Participant& p = rig.participant();
        ASSERT_EQ(p.initParticipant(), 0);

        const uint32_t uiMulticastPort = 7400 + 250 * c.iDomain;
        std::list<Locator_t> unicast, defaultGroups;
        for (const std::string& s : c.unicast) unicast.push_back(Loc(s, 0));
        for (const std::string& s : c.defaultGroups) defaultGroups.push_back(Loc(s, uiMulticastPort));
        std::vector<Locator_t> joins;
        for (const std::string& s : c.groupJoins) joins.push_back(Loc(s, uiMulticastPort));
        for (uint32_t uiPort : {uiMulticastPort, uiMulticastPort + 10 + 14, uiMulticastPort + 11 + 14})
            joins.push_back(Loc(c.portAddress, uiPort));

        EXPECT_EQ(p.getDefaultUnicastLocatorList(), unicast);
        EXPECT_EQ(rig.transmitter().m_SendAddrs, std::vector<Locator_t>(unicast.begin(), unicast.end()));
        const Locator_t guidAddress = Loc(c.guidAddress, 0);
        EXPECT_EQ(0, std::memcmp(&guidAddress.address[12], p.getGuidPrefix().value, 4));
        EXPECT_EQ(0,
                  std::memcmp(p.getMessageProcessor()->getGuidPrefix().value, p.getGuidPrefix().value, 12));
        EXPECT_EQ(Strings(qos.peer_list), c.peersOut);
        EXPECT_EQ(Strings(qos.multicast_peer_list), c.groupsOut);
        EXPECT_EQ(p.getDefaultMulticastLocatorList(), defaultGroups);
        EXPECT_EQ(rig.transmitter().m_ReceiveAddrs, joins);
    }

    // Without a QoS record the default group is joined all the same.
    g_Cards = {"10.0.0.5"};
    DataSendRig bare(0, 7);
    ASSERT_EQ(bare.participant().initParticipant(), 0);
    EXPECT_EQ(bare.participant().getDefaultMulticastLocatorList().size(), 1u);
    EXPECT_EQ(bare.transmitter().m_ReceiveAddrs.back(), Loc("239.255.0.1", 7425));
}

TEST_F(Participant_net, NoAdapterFailsWithBothLines) {
    g_Cards.clear();
    LogRecorder log;
    DomainParticipantQos qos;
    DataSendRig rig(0, 7, &qos);
    EXPECT_EQ(rig.participant().initParticipant(), 1);
    EXPECT_EQ(log.Count("[Participant::initLoaclNet] 0 == NetCardAddressMap.size()"), 1);
    EXPECT_EQ(log.Count("[Participant::initParticipant] initLoaclNet Error and ret = 1"), 1);
    EXPECT_TRUE(rig.transmitter().m_ReceiveAddrs.empty());
    EXPECT_EQ(qos.peer_list.length, 0u);  // not written back
}

TEST(Participant_address, ParsesAsInetAddrAndTestsMulticastByTheFirstOctet) {
    const char* aszCases[] = {
        "239.255.0.1", "10.0.0.5",   "0.0.0.0",    "255.255.255.255", "10.1",         "10.1.2",
        "167772165",   "0x7f.1",     "010.0.0.1",  "0xA.0xb.0.1",     "1.2.3.4 rest", "1.2.3.256",
        "1.2.3.4.5",   "",           "abc",        "1.2.3.4x",        "08.1.1.1",     "1..2.3",
        "0x",          "4294967296", "1.16777216", " 1.2.3.4"};
    for (const char* szCase : aszCases)
        EXPECT_EQ(Participant::ParseAddress(szCase), ntohl(inet_addr(szCase))) << '"' << szCase << '"';

    EXPECT_TRUE(Participant::IsMulticastAddress(Participant::ParseAddress("224.0.0.1")));
    EXPECT_FALSE(Participant::IsMulticastAddress(Participant::ParseAddress("223.255.255.255")));
    EXPECT_FALSE(Participant::IsMulticastAddress(0));
    // A failed parse reads as 255.255.255.255 and so passes the test, as it always did.
    EXPECT_TRUE(Participant::IsMulticastAddress(Participant::ParseAddress("not an address")));
}

// ------------------------------------------------------------------ borrowing

// Runs fnAction on a thread that must wait while pEndpoint is lent out and end once the
// lender gives it back. False (participant abandoned) if it never ends.
bool WaitsUntilReturned(DataSendRig& rig, Endpoint* pEndpoint, std::function<void()> fnAction) {
    auto pDone = std::make_shared<std::atomic<bool>>(false);
    std::thread worker([pDone, fnAction] {
        fnAction();
        *pDone = true;
    });
    EXPECT_TRUE(HoldsFor([&] { return !pDone->load(); }, 100));
    EXPECT_TRUE(rig.participant().isEndpointExist(pEndpoint->getEntityId()));  // borrowed still counts
    rig.participant().returnEndpoint(pEndpoint);
    if (!WaitFor([&] { return pDone->load(); }, 5000)) {
        worker.detach();  // it would touch freed memory: leave it and the participant behind
        rig.Abandon();
        return false;
    }
    worker.join();
    return true;
}

TEST(Participant_borrow, OtherThreadsWaitForTheBorrowerAndDeletesToo) {
    DataSendRig rig(1);
    Participant& p = rig.participant();
    Writer* pWriter = p.createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    StatefulReader* pReader = p.createReader(DataReaderQos(), ENTITYID_UNKNOWN);
    for (Endpoint* pEndpoint : {static_cast<Endpoint*>(pWriter), static_cast<Endpoint*>(pReader)}) {
        const EntityId_t id = pEndpoint->getEntityId();
        ASSERT_EQ(p.takeEndpoint(id), pEndpoint);
        EXPECT_EQ(p.tryTakeEndpoint(id), nullptr);  // a walk passes it over
        auto pTaken = std::make_shared<std::atomic<Endpoint*>>(nullptr);
        ASSERT_TRUE(WaitsUntilReturned(rig, pEndpoint, [&p, id, pTaken] {
            *pTaken = p.takeEndpoint(id);
            if (*pTaken != nullptr) p.returnEndpoint(*pTaken);
        }));
        EXPECT_EQ(pTaken->load(), pEndpoint);
        ASSERT_EQ(p.takeEndpoint(id), pEndpoint);
        ASSERT_TRUE(WaitsUntilReturned(rig, pEndpoint, [&p, pEndpoint, pWriter] {
            if (pEndpoint == pWriter)
                p.deleteWriter(pEndpoint);
            else
                p.deleteReader(pEndpoint);
        }));
        EXPECT_FALSE(p.isEndpointExist(id));
    }
}

// The borrows that waiting could never satisfy are refused at once, each with its line.
TEST(Participant_borrow, BorrowsThatWouldWaitForEverAreRefusedAndLogged) {
    LogRecorder log;
    DataSendRig rig(1);
    Participant& p = rig.participant();
    Writer* pWriter = p.createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    const EntityId_t id = pWriter->getEntityId();

    ASSERT_EQ(p.takeEndpoint(id), pWriter);
    EXPECT_EQ(p.takeEndpoint(id), nullptr);  // the same thread again
    EXPECT_EQ(log.Count("[Participant::takeEndpoint] Borrowed Twice by one thread and refused"), 1);

    p.keepEndpointTaken(pWriter);
    for (int i = 0; i < 2; ++i) {
        std::atomic<Endpoint*> taken{pWriter};
        std::thread other([&] { taken = p.takeEndpoint(id); });
        other.join();
        EXPECT_EQ(taken.load(), nullptr);
    }
    EXPECT_EQ(log.Count("[Participant::takeEndpoint] Kept Taken and refused"), 2);
    EXPECT_TRUE(p.isEndpointExist(id));
    EXPECT_FALSE(rig.WriterIsFree(id));

    // Giving it back ends the keep; a kept endpoint is deleted without waiting.
    EXPECT_EQ(p.returnEndpoint(pWriter), 0);
    EXPECT_TRUE(rig.WriterIsFree(id));
    ASSERT_EQ(p.takeEndpoint(id), pWriter);
    p.keepEndpointTaken(pWriter);
    p.deleteWriter(pWriter);
    EXPECT_FALSE(p.isEndpointExist(id));
}

TEST(Participant_borrow, ALongWaitIsLoggedOnce) {
    LogRecorder log;
    DataSendRig rig(1);
    Participant& p = rig.participant();
    Writer* pWriter = p.createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    ASSERT_EQ(p.takeEndpoint(pWriter->getEntityId()), pWriter);
    std::thread waiter([&] { p.returnEndpoint(p.takeEndpoint(pWriter->getEntityId())); });
    EXPECT_TRUE(WaitFor(
        [&] { return log.Count("[Participant::takeEndpoint] Waited 1000 ms for a borrowed endpoint") == 1; },
        5000));
    p.returnEndpoint(pWriter);
    waiter.join();
    EXPECT_EQ(log.Count("[Participant::takeEndpoint] Waited 1000 ms for a borrowed endpoint"), 1);
}

TEST(Participant_borrow, UnknownIdsAreRefusedWithTheirLogs) {
    LogRecorder log;
    DataSendRig rig(1);
    Participant& p = rig.participant();
    EXPECT_FALSE(p.isEndpointExist(Id(1, 4, 1, 3)));
    EXPECT_EQ(p.takeEndpoint(Id(1, 4, 1, 3)), nullptr);
    EXPECT_EQ(log.Count("[Participant::takeEndpoint] Donot Exist"), 1);

    GUID_t strayGuid = ParticipantGuid(1, 7);
    strayGuid.entityId = Id(1, 4, 9, 3);
    StatelessWriter stray(strayGuid, WriterQos(BEST_EFFORT_RELIABILITY_QOS), nullptr);
    EXPECT_EQ(p.returnEndpoint(&stray), 1);
    EXPECT_EQ(log.Count("[Participant::returnEndpoint] m_EndpointMap.count error"), 1);
    EXPECT_FALSE(p.isEndpointExist(strayGuid.entityId));

    // Deleting an endpoint the participant does not hold leaves it alive.
    strayGuid.entityId = Id(1, 9, 9, 4);
    StatefulReader strayReader(strayGuid, DataReaderQos(), nullptr);
    EXPECT_EQ(p.deleteReader(&strayReader), 0);
    EXPECT_EQ(p.deleteWriter(&strayReader), 0);
    EXPECT_EQ(strayReader.getEntityId(), strayGuid.entityId);
}

// ------------------------------------------------------------------ matched reader

TEST(Participant_borrow, LookupMatchedReaderLendsTheLastMatch) {
    LogRecorder log;
    DataSendRig rig(1);
    Participant& p = rig.participant();
    GUID_t remote = ParticipantGuid(1, 99);
    remote.entityId = Id(1, 4, 1, 3);
    EXPECT_EQ(p.lookupMatchedReader(remote), nullptr);  // no Discovery yet
    Discovery discovery(nullptr);
    p.setDiscovery(&discovery);
    EXPECT_EQ(p.lookupMatchedReader(remote), nullptr);
    EXPECT_EQ(log.Count("[Participant::lookupMatchedReader] pReader = ENTITYID_UNKNOW"), 2);

    discovery.addWriterReaderPair(remote, Id(1, 9, 1, 4));
    EXPECT_EQ(p.lookupMatchedReader(remote), nullptr);  // matched, but no such reader
    EXPECT_EQ(log.Count("[Participant::lookupMatchedReader] Donot Exist"), 1);

    p.createReader(DataReaderQos(), ENTITYID_UNKNOWN);
    StatefulReader* pSecond = p.createReader(DataReaderQos(), ENTITYID_UNKNOWN);
    discovery.addWriterReaderPair(remote, pSecond->getEntityId());  // the last match wins
    StatefulReader* pReader = p.lookupMatchedReader(remote);
    EXPECT_EQ(pReader, pSecond);
    EXPECT_EQ(p.returnEndpoint(pReader), 0);

    EXPECT_EQ(discovery.removeWriterReaderPair(remote), 0);
    EXPECT_EQ(discovery.removeWriterReaderPair(remote), 1);
    EntityId_t out = Id(9, 9, 9, 9);
    discovery.getLocalReaderOfWriter(out, remote);
    EXPECT_EQ(out, ENTITYID_UNKNOWN);
}

// ------------------------------------------------------------------ walks and threads

TEST(Participant_walks, LivelinessWalksSkipBuiltinAndBorrowedEndpoints) {
    DataSendRig rig(1);
    Participant& p = rig.participant();
    DataWriterQos qos = WriterQos(RELIABLE_RELIABILITY_QOS);
    qos.liveliness.lease_duration = Duration_t(1, 0);
    Writer* pBuiltin = p.createWriter(qos, ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER);
    Writer* pUser = p.createWriter(qos, ENTITYID_UNKNOWN);
    Writer* pBorrowed = p.createWriter(qos, ENTITYID_UNKNOWN);
    p.createReader(DataReaderQos(), ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER);
    StatefulReader* pReader = p.createReader(DataReaderQos(), ENTITYID_UNKNOWN);
    ASSERT_EQ(p.takeEndpoint(pBorrowed->getEntityId()), pBorrowed);
    ASSERT_EQ(p.takeEndpoint(pReader->getEntityId()), pReader);

    EXPECT_EQ(p.assertWriterLiveliness(AUTOMATIC_LIVELINESS_QOS), 0);
    EXPECT_EQ(pBuiltin->getLivelinessActive(), 0);
    EXPECT_EQ(pUser->getLivelinessActive(), 1);
    EXPECT_EQ(pBorrowed->getLivelinessActive(), 0);

    pBuiltin->assertLiveliness(AUTOMATIC_LIVELINESS_QOS);
    Time_t later = pUser->getLastLivelinessTime();
    later.sec += 100;
    EXPECT_EQ(p.checkWriterLiveliness(later), 0);
    EXPECT_EQ(pBuiltin->getLivelinessActive(), 1);
    EXPECT_EQ(pUser->getLivelinessActive(), 0);

    // The reader walks pass the borrowed reader instead of waiting for it.
    EXPECT_EQ(p.checkReaderLiveliness(Time_t(5, 0)), 0);
    EXPECT_EQ(p.assertReaderLiveliness(ParticipantGuid(1, 3), Time_t(5, 0), 0), 0);
    EXPECT_EQ(p.returnEndpoint(pReader), 0);
    EXPECT_EQ(p.returnEndpoint(pBorrowed), 0);
}

bool HasThread(const std::string& strName) {
    bool bFound = false;
    if (DIR* pDir = opendir("/proc/self/task")) {
        while (dirent* pEntry = readdir(pDir)) {
            std::ifstream comm(std::string("/proc/self/task/") + pEntry->d_name + "/comm");
            std::string strThread;
            bFound = bFound || (std::getline(comm, strThread) && strThread == strName);
        }
        closedir(pDir);
    }
    return bFound;
}

TEST(Participant_walks, ThreadsStartNamedAndStop) {
    DataSendRig rig(42);
    Participant& p = rig.participant();
    ASSERT_EQ(p.startThreads(), 0);
    for (const char* szName : {"42_SEND", "42_RECV", "42_DIST"}) EXPECT_TRUE(HasThread(szName)) << szName;
    EXPECT_EQ(p.stopRecvThread(), 0);
    EXPECT_EQ(p.getMessageTransmitter()->GetStoppedFlag(), 1);
    EXPECT_EQ(p.stopDistThread(), 0);
    EXPECT_TRUE(p.getMessageProcessor()->IsStopped());
    EXPECT_EQ(p.stopSendThread(), 0);
    EXPECT_TRUE(WaitFor(
        [] { return !HasThread("42_SEND") && !HasThread("42_RECV") && !HasThread("42_DIST"); }, 5000));
    // A second stop has nothing left to wait for.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(p.stopRecvThread() + p.stopDistThread() + p.stopSendThread(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}
}  // namespace
