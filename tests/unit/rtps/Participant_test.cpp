#include "rtps/Participant.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "RtpsFixture.h"
#include "discovery/Discovery.h"
#include "messages/MessageProcessor.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"
#include "rtps/StatelessWriter.h"

namespace {
typedef std::vector<std::string> Strs;

uint32_t Ip(const std::string& strAddress) {
    return strAddress.empty() ? 0 : ntohl(inet_addr(strAddress.c_str()));
}

// "a.b.c.d:port" per locator, the form the cases are written in.
template <class Locators>
Strs Texts(const Locators& locators) {
    Strs out;
    for (const Locator_t& l : locators) {
        in_addr address{htonl(l.GetIPv4())};
        out.push_back(std::string(l.GetIPv4() ? inet_ntoa(address) : "") + ":" + std::to_string(l.port));
    }
    return out;
}

Strs Texts(const StringSeq& seq) {
    Strs out;
    for (uint32_t i = 0; i < seq.length; ++i) out.push_back(seq[i]);
    return out;
}

// The adapters that the network set-up sees: one per address.
Strs g_Cards;
int FakeCards(std::vector<netCard>& out) {
    for (const std::string& s : g_Cards) out.push_back(netCard{"card " + s, {s}, {Ip(s)}});
    return 0;
}

using Participant_net = RtpsTest;

// A participant of domain 1 that lends its endpoints out.
class Participant_borrow : public RtpsTest {
protected:
    Writer* NewWriter(ReliabilityQosPolicyKind kind = BEST_EFFORT) {
        return p.createWriter(WithReliability(kind), ENTITYID_UNKNOWN);
    }
    StatefulReader* NewReader() { return p.createReader(DataReaderQos(), ENTITYID_UNKNOWN); }
    // Runs fnAction on a thread that must wait while pEndpoint is lent out and end once the
    // lender gives it back. False (participant abandoned) if it never ends.
    bool WaitsUntilReturned(Endpoint* pEndpoint, std::function<void()> fnAction) {
        auto pDone = std::make_shared<std::atomic<bool>>(false);
        std::thread worker([pDone, fnAction] {
            fnAction();
            *pDone = true;
        });
        EXPECT_TRUE(HoldsFor([&] { return !pDone->load(); }, 100));
        EXPECT_TRUE(p.isEndpointExist(pEndpoint->getEntityId()));  // borrowed still counts
        p.returnEndpoint(pEndpoint);
        if (WaitFor([&] { return pDone->load(); }, 5000)) return worker.join(), true;
        worker.detach();  // it would touch freed memory: leave it and the participant behind
        m_Rig.Abandon();
        return false;
    }

    DataSendRig m_Rig{1};
    Participant& p = m_Rig.participant();
    LogRecorder m_Log;
};
}  // namespace

TEST(Participant_keys, AllotsKeysByDomainAndCounterAndChoosesTheWriterClass) {
    DataSendRig rig(3, 5), wide(256);
    Participant& p = rig.participant();
    auto writer = [](Participant& q, ReliabilityQosPolicyKind kind, const EntityId_t& id = ENTITYID_UNKNOWN) {
        return q.createWriter(WithReliability(kind), id);
    };
    auto readerId = [](Participant& q, const EntityId_t& id = ENTITYID_UNKNOWN) {
        return q.createReader(DataReaderQos(), id)->getEntityId();
    };
    // Known ids bypass the counters.
    EXPECT_EQ(
        std::make_pair(ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER),
        std::make_pair(writer(p, BEST_EFFORT, ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER)->getEntityId(),
                       readerId(p, ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER)));
    Writer* pReliable = writer(p, RELIABLE);
    const EntityId_t reader = readerId(p);
    Writer* pBestEffort = writer(p, BEST_EFFORT);
    ASSERT_TRUE(dynamic_cast<StatefulWriter*>(pReliable) && dynamic_cast<StatelessWriter*>(pBestEffort));
    EXPECT_EQ(std::vector<EntityId_t>({{{3, 4, 1}, 3}, {{3, 9, 1}, 4}, {{3, 4, 2}, 3}}),
              (std::vector<EntityId_t>{pReliable->getEntityId(), reader, pBestEffort->getEntityId()}));
    EXPECT_EQ(0, std::memcmp(pReliable->getGUID().guidPrefix.value, p.getGuidPrefix().value, 12));
    // The third octet carries into the second after 255; an unknown reliability gets no writer.
    for (int i = 3; i < 255; ++i) writer(p, BEST_EFFORT);
    EXPECT_EQ(std::vector<EntityId_t>({{{3, 4, 0xFF}, 3}, {{3, 5, 0}, 3}}),
              (std::vector<EntityId_t>{writer(p, BEST_EFFORT)->getEntityId(),
                                       writer(p, BEST_EFFORT)->getEntityId()}));
    EXPECT_EQ(writer(p, ReliabilityQosPolicyKind(3)), nullptr);
    // Domain 256 allots as domain 0: only the low octet goes into the key.
    EXPECT_EQ(std::vector<EntityId_t>({{{0, 4, 1}, 3}, {{0, 9, 1}, 4}}),
              (std::vector<EntityId_t>{writer(wide.participant(), RELIABLE)->getEntityId(),
                                       readerId(wide.participant())}));
}

TEST_F(Participant_net, NetworkSetUpFillsLocatorsListsAndJoins) {
    // Domain, adapters, local_address, peer_list and multicast_peer_list as given; then the address
    // in the GUID, the default unicast locators, both lists as completed, the default groups, and
    // what the transport joins.
    // clang-format off
    const std::tuple<int, Strs, const char*, Strs, Strs, std::string, Strs, Strs, Strs, Strs, Strs> aCases[] = {
        {1, {"10.0.0.5"}, "", {}, {}, "10.0.0.5", {"10.0.0.5:0"}, {"239.255.0.1"}, {"239.255.0.1"},
         {"239.255.0.1:7650"}, {"239.255.0.1:7650", "239.255.0.1:7650", "239.255.0.1:7674", "239.255.0.1:7675"}},
        // The loopback entry becomes the first adapter's address, not the GUID's.
        {0, {"10.0.0.5", "192.168.3.4"}, "", {"127.0.0.1"}, {}, "192.168.3.4", {"10.0.0.5:0", "192.168.3.4:0"},
         {"10.0.0.5"}, {}, {}, {":7400", ":7424", ":7425"}},
        {0, {"10.0.0.5", "192.168.3.4"}, "172.16.0.9", {"127.0.0.1", "239.7.7.7"}, {}, "172.16.0.9",
         {"172.16.0.9:0"}, {"172.16.0.9", "239.7.7.7"}, {"239.7.7.7"}, {"239.7.7.7:7400"},
         {"239.7.7.7:7400", "239.7.7.7:7400", "239.7.7.7:7424", "239.7.7.7:7425"}},
        // A unicast seed gets the adapter's address behind it.
        {0, {"10.0.0.5"}, "", {"192.168.7.7"}, {}, "10.0.0.5", {"10.0.0.5:0"}, {"192.168.7.7", "10.0.0.5"}, {},
         {}, {":7400", ":7424", ":7425"}},
        {0, {"10.0.0.5"}, "", {"192.168.7.7", "239.1.1.1"}, {}, "10.0.0.5", {"10.0.0.5:0"},
         {"192.168.7.7", "239.1.1.1"}, {"239.1.1.1"}, {"239.1.1.1:7400"},
         {"239.1.1.1:7400", "239.1.1.1:7400", "239.1.1.1:7424", "239.1.1.1:7425"}},
        // Receive list entries join (non-groups skipped); the last group stays in the locator.
        {0, {"10.0.0.5"}, "", {"192.168.7.7"}, {"239.9.9.9", "10.1.1.1"}, "10.0.0.5", {"10.0.0.5:0"},
         {"192.168.7.7", "10.0.0.5"}, {"239.9.9.9", "10.1.1.1"}, {},
         {"239.9.9.9:7400", "239.9.9.9:7400", "239.9.9.9:7424", "239.9.9.9:7425"}},
    };
    // clang-format on
    SetNetCardSource(&FakeCards);
    for (const auto& [iDomain, cards, szLocal, peers, groups, guidAddress, unicast, peersOut, groupsOut,
                      defaultGroups, joins] : aCases) {
        SCOPED_TRACE(testing::PrintToString(peers) + " " + testing::PrintToString(cards));
        g_Cards = cards;
        DomainParticipantQos qos;
        qos.local_address = szLocal;
        for (const std::string& s : peers) qos.peer_list.push_back(s);
        for (const std::string& s : groups) qos.multicast_peer_list.push_back(s);
        DataSendRig rig(iDomain, 7, &qos);
        Participant& p = rig.participant();
        ASSERT_EQ(p.initParticipant(), 0);
        EXPECT_EQ(Texts(p.getDefaultUnicastLocatorList()), unicast);
        EXPECT_EQ(Texts(rig.transmitter().m_SendAddrs), unicast);
        EXPECT_EQ(Ip(guidAddress), ntohl(*reinterpret_cast<const uint32_t*>(p.getGuidPrefix().value)));
        EXPECT_EQ(0,
                  std::memcmp(p.getMessageProcessor()->getGuidPrefix().value, p.getGuidPrefix().value, 12));
        EXPECT_EQ(std::make_tuple(Texts(qos.peer_list), Texts(qos.multicast_peer_list)),
                  std::make_tuple(peersOut, groupsOut));
        EXPECT_EQ(Texts(p.getDefaultMulticastLocatorList()), defaultGroups);
        EXPECT_EQ(Texts(rig.transmitter().m_ReceiveAddrs), joins);
    }
    // Without a QoS record the default group is joined all the same, and a reader joins its own groups.
    g_Cards = {"10.0.0.5"};
    DataSendRig bare(0, 7);
    ASSERT_EQ(bare.participant().initParticipant(), 0);
    DataReaderQos readerQos;
    readerQos.multicast.value.push_back(TransportMulticastSetting{"239.1.2.3", 9000});
    StatefulReader* pReader = bare.participant().createReader(readerQos, ENTITYID_UNKNOWN);
    EXPECT_EQ(pReader->getUnicastLocatorList(), bare.participant().getDefaultUnicastLocatorList());
    EXPECT_EQ(Texts(bare.transmitter().m_ReceiveAddrs),
              Strs({"239.255.0.1:7400", "239.255.0.1:7400", "239.255.0.1:7424", "239.255.0.1:7425",
                    "239.1.2.3:9000"}));

    g_Cards.clear();  // no adapter at all
    DomainParticipantQos qos;
    DataSendRig none(0, 7, &qos);
    EXPECT_EQ(none.participant().initParticipant(), 1);
    EXPECT_TRUE(none.transmitter().m_ReceiveAddrs.empty());
    EXPECT_EQ(qos.peer_list.length, 0u);  // not written back
}

// ------------------------------------------------------------------ borrowing

TEST_F(Participant_borrow, OtherThreadsWaitForTheBorrowerAndDeletesToo) {
    Writer* pWriter = NewWriter(RELIABLE);
    for (Endpoint* pEndpoint : {static_cast<Endpoint*>(pWriter), static_cast<Endpoint*>(NewReader())}) {
        const EntityId_t id = pEndpoint->getEntityId();
        ASSERT_EQ(p.takeEndpoint(id), pEndpoint);
        EXPECT_EQ(p.tryTakeEndpoint(id), nullptr);  // a walk passes it over
        auto pTaken = std::make_shared<std::atomic<Endpoint*>>(nullptr);
        ASSERT_TRUE(WaitsUntilReturned(pEndpoint, [pP = &p, id, pTaken] {
            *pTaken = pP->takeEndpoint(id);
            if (*pTaken != nullptr) pP->returnEndpoint(*pTaken);
        }));
        EXPECT_EQ(pTaken->load(), pEndpoint);
        ASSERT_EQ(p.takeEndpoint(id), pEndpoint);
        ASSERT_TRUE(WaitsUntilReturned(pEndpoint, [pP = &p, pEndpoint, pWriter] {
            pEndpoint == pWriter ? pP->deleteWriter(pEndpoint) : pP->deleteReader(pEndpoint);
        }));
        EXPECT_FALSE(p.isEndpointExist(id));
    }
}

// The borrows that waiting could never satisfy are refused at once, each with its line.
TEST_F(Participant_borrow, BorrowsThatWouldWaitForEverAreRefusedAndLogged) {
    Writer* pWriter = NewWriter();
    const EntityId_t id = pWriter->getEntityId();
    ASSERT_EQ(p.takeEndpoint(id), pWriter);
    EXPECT_EQ(p.takeEndpoint(id), nullptr);  // the same thread again
    EXPECT_EQ(m_Log.Count("[Participant::takeEndpoint] Borrowed Twice by one thread and refused"), 1);
    p.keepEndpointTaken(pWriter);
    for (int i = 0; i < 2; ++i) {
        std::atomic<Endpoint*> taken{pWriter};
        std::thread([&] { taken = p.takeEndpoint(id); }).join();
        EXPECT_EQ(taken.load(), nullptr);
    }
    EXPECT_EQ(m_Log.Count("[Participant::takeEndpoint] Kept Taken and refused"), 2);
    EXPECT_TRUE(p.isEndpointExist(id));
    EXPECT_FALSE(m_Rig.WriterIsFree(id));
    // Giving it back ends the keep; a kept endpoint is deleted without waiting.
    EXPECT_EQ(p.returnEndpoint(pWriter), 0);
    EXPECT_TRUE(m_Rig.WriterIsFree(id));
    ASSERT_EQ(p.takeEndpoint(id), pWriter);
    p.keepEndpointTaken(pWriter);
    p.deleteWriter(pWriter);
    EXPECT_FALSE(p.isEndpointExist(id));
}

TEST_F(Participant_borrow, ALongWaitIsLoggedOnce) {
    const std::string strWaited = "[Participant::takeEndpoint] Waited 1000 ms for a borrowed endpoint";
    Writer* pWriter = NewWriter();
    ASSERT_EQ(p.takeEndpoint(pWriter->getEntityId()), pWriter);
    std::thread waiter([&] { p.returnEndpoint(p.takeEndpoint(pWriter->getEntityId())); });
    EXPECT_TRUE(WaitFor([&] { return m_Log.Count(strWaited) == 1; }, 5000));
    p.returnEndpoint(pWriter);
    waiter.join();
    EXPECT_EQ(m_Log.Count(strWaited), 1);
}

TEST_F(Participant_borrow, UnknownIdsAreRefusedWithTheirLogs) {
    GUID_t stray = ParticipantGuid(1, 7);
    stray.entityId = {{1, 4, 9}, 3};
    StatelessWriter strayWriter(stray, WithReliability(BEST_EFFORT), nullptr);
    EXPECT_FALSE(p.isEndpointExist(stray.entityId));
    EXPECT_EQ(p.takeEndpoint(stray.entityId), nullptr);
    EXPECT_EQ(p.returnEndpoint(&strayWriter), 1);
    EXPECT_FALSE(p.isEndpointExist(stray.entityId));
    EXPECT_EQ(Strs({"[Participant::takeEndpoint] Donot Exist",
                    "[Participant::returnEndpoint] m_EndpointMap.count error"}),
              m_Log.Texts());
    // Deleting an endpoint the participant does not hold leaves it alive.
    stray.entityId = {{1, 9, 9}, 4};
    StatefulReader strayReader(stray, DataReaderQos(), nullptr);
    EXPECT_EQ(std::vector<int>({0, 0}),
              (std::vector<int>{p.deleteReader(&strayReader), p.deleteWriter(&strayReader)}));
    EXPECT_EQ(strayReader.getEntityId(), stray.entityId);
}

TEST_F(Participant_borrow, LookupMatchedReaderLendsTheLastMatch) {
    GUID_t remote = ParticipantGuid(1, 99);
    remote.entityId = {{1, 4, 1}, 3};
    EXPECT_EQ(p.lookupMatchedReader(remote), nullptr);  // no Discovery yet
    Discovery discovery(nullptr);
    p.setDiscovery(&discovery);
    EXPECT_EQ(p.lookupMatchedReader(remote), nullptr);
    EXPECT_EQ(m_Log.Count("[Participant::lookupMatchedReader] pReader = ENTITYID_UNKNOW"), 2);
    discovery.addWriterReaderPair(remote, {{1, 9, 1}, 4});
    EXPECT_EQ(p.lookupMatchedReader(remote), nullptr);  // matched, but no such reader
    EXPECT_EQ(m_Log.Count("[Participant::lookupMatchedReader] Donot Exist"), 1);
    NewReader();
    StatefulReader* pSecond = NewReader();
    discovery.addWriterReaderPair(remote, pSecond->getEntityId());  // the last match wins
    StatefulReader* pReader = p.lookupMatchedReader(remote);
    EXPECT_EQ(pReader, pSecond);
    EXPECT_EQ(p.returnEndpoint(pReader), 0);
}
