#include "rtps/Participant.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "NetnsGuard.h"
#include "QosPolicy.h"
#include "core/NetCard.h"
#include "discovery/Discovery.h"
#include "log/LogObserver.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitter.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"
#include "rtps/StatelessWriter.h"

namespace
{
// Records what the participant asks of its transport; opens no socket.
class RecordingTransmitter : public MessageTransmitter
{
public:
    explicit RecordingTransmitter(ReceiveBuffer* pBuffer) : MessageTransmitter(pBuffer) {}
    int SendAddrAdd(Locator_t locator) override
    {
        m_Send.push_back(locator);
        return 0;
    }
    int MessageSend(const std::list<Locator_t>&, const std::list<Locator_t>&, const octet*,
                    uint32_t) override
    {
        return 0;
    }
    int MessageSend(Locator_t, Locator_t, const octet*, uint32_t) override { return 0; }
    int MessageSend(const Locator_t*, const Locator_t*, const octet*, uint32_t) override { return 0; }
    int ReceiveMessage() override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return 0;
    }
    int ReceiveAddrAdd(Locator_t locator) override
    {
        m_Receive.push_back(locator);
        return 0;
    }
    int ReceiveAddrRemove(Locator_t) override { return 0; }

    std::vector<Locator_t> m_Send;
    std::vector<Locator_t> m_Receive;
};

MessageTransmitter* MakeRecordingTransmitter(ReceiveBuffer* pBuffer, int)
{
    return new RecordingTransmitter(pBuffer);
}

std::vector<netCard> g_Cards;
int FakeCards(std::vector<netCard>& out)
{
    out.insert(out.end(), g_Cards.begin(), g_Cards.end());
    return 0;
}

netCard Card(const std::string& strAddress)
{
    netCard card;
    card.strName = "card " + strAddress;
    card.IPAddstrVec.push_back(strAddress);
    card.IPAddressVec.push_back(ntohl(inet_addr(strAddress.c_str())));
    return card;
}

class LogCapture
{
public:
    LogCapture() { SetLogObserver(&LogCapture::Observe, this); }
    ~LogCapture() { SetLogObserver(nullptr, nullptr); }
    size_t Count(const std::string& strText)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        size_t n = 0;
        for (const std::string& s : m_Texts)
            n += s == strText ? 1 : 0;
        return n;
    }

private:
    static void Observe(void* pContext, int, const char* szText, size_t length, int)
    {
        LogCapture* pSelf = static_cast<LogCapture*>(pContext);
        std::lock_guard<std::mutex> lock(pSelf->m_Mutex);
        pSelf->m_Texts.emplace_back(szText, length);
    }
    std::mutex m_Mutex;
    std::vector<std::string> m_Texts;
};

GUID_t MakeGuid(int iDomain, uint32_t uiParticipantId)
{
    GUID_t guid = GUID_UNKNOWN;
    std::memcpy(&guid.guidPrefix.value[4], &iDomain, 4);
    std::memcpy(&guid.guidPrefix.value[8], &uiParticipantId, 4);
    guid.entityId = ENTITYID_PARTICIPANT;
    return guid;
}

EntityId_t Id(octet a, octet b, octet c, octet d)
{
    return EntityId_t{{a, b, c}, d};
}

Locator_t UdpLocator(const char* szAddress, uint32_t uiPort)
{
    Locator_t locator;
    locator.kind = LOCATOR_KIND_UDPv4;
    locator.port = uiPort;
    locator.SetIPv4(ntohl(inet_addr(szAddress)));
    return locator;
}

DataWriterQos WriterQos(ReliabilityQosPolicyKind kind)
{
    DataWriterQos qos;
    qos.reliability.kind = kind;
    return qos;
}

class ParticipantTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_Cards = {Card("10.0.0.5")};
        SetNetCardSource(&FakeCards);
    }
    void TearDown() override { SetNetCardSource(nullptr); }

    std::unique_ptr<Participant> Make(int iDomain, uint32_t uiParticipantId = 7,
                                      DomainParticipantQos* pQos = nullptr)
    {
        return std::unique_ptr<Participant>(new Participant(
            MakeGuid(iDomain, uiParticipantId), nullptr, iDomain, pQos, &MakeRecordingTransmitter));
    }
    static RecordingTransmitter& Transport(Participant& participant)
    {
        return *static_cast<RecordingTransmitter*>(participant.getMessageTransmitter());
    }
};

// ------------------------------------------------------------------ entity keys

class Participant_keys : public ParticipantTest
{
};

TEST_F(Participant_keys, FirstEndpointsOfDomainOne)
{
    auto pParticipant = Make(1);
    Writer* pWriter = pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    StatefulReader* pReader = pParticipant->createReader(DataReaderQos(), ENTITYID_UNKNOWN);
    ASSERT_NE(pWriter, nullptr);
    ASSERT_NE(pReader, nullptr);
    EXPECT_EQ(pWriter->getEntityId(), Id(0x01, 0x04, 0x01, 0x03));
    EXPECT_EQ(pReader->getEntityId(), Id(0x01, 0x09, 0x01, 0x04));
    EXPECT_EQ(pParticipant->createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN)
                  ->getEntityId(),
              Id(0x01, 0x04, 0x02, 0x03));
    // The endpoints carry the participant's prefix.
    EXPECT_EQ(0, std::memcmp(pWriter->getGUID().guidPrefix.value,
                             pParticipant->getGuidPrefix().value, 12));
}

TEST_F(Participant_keys, Domain256AllotsAsDomainZero)
{
    auto pParticipant = Make(256);
    EXPECT_EQ(pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN)
                  ->getEntityId(),
              Id(0x00, 0x04, 0x01, 0x03));
    EXPECT_EQ(pParticipant->createReader(DataReaderQos(), ENTITYID_UNKNOWN)->getEntityId(),
              Id(0x00, 0x09, 0x01, 0x04));
}

TEST_F(Participant_keys, KnownIdBypassesTheCounters)
{
    auto pParticipant = Make(1);
    Writer* pBuiltin = pParticipant->createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS),
                                                  ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER);
    StatefulReader* pBuiltinReader =
        pParticipant->createReader(DataReaderQos(), ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER);
    EXPECT_EQ(pBuiltin->getEntityId(), ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER);
    EXPECT_EQ(pBuiltinReader->getEntityId(), ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER);
    EXPECT_EQ(pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN)
                  ->getEntityId(),
              Id(0x01, 0x04, 0x01, 0x03));
    EXPECT_EQ(pParticipant->createReader(DataReaderQos(), ENTITYID_UNKNOWN)->getEntityId(),
              Id(0x01, 0x09, 0x01, 0x04));
}

TEST_F(Participant_keys, CounterCarriesAfter255)
{
    auto pParticipant = Make(1);
    Writer* pWriter = nullptr;
    for (int i = 0; i < 255; ++i)
        pWriter = pParticipant->createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    EXPECT_EQ(pWriter->getEntityId(), Id(0x01, 0x04, 0xFF, 0x03));
    pWriter = pParticipant->createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    EXPECT_EQ(pWriter->getEntityId(), Id(0x01, 0x05, 0x00, 0x03));
}

TEST_F(Participant_keys, WriterClassFollowsReliability)
{
    auto pParticipant = Make(1);
    EXPECT_NE(dynamic_cast<StatefulWriter*>(
                  pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN)),
              nullptr);
    EXPECT_NE(dynamic_cast<StatelessWriter*>(
                  pParticipant->createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS), ENTITYID_UNKNOWN)),
              nullptr);
    EXPECT_EQ(pParticipant->createWriter(WriterQos(ReliabilityQosPolicyKind(3)), ENTITYID_UNKNOWN),
              nullptr);
}

TEST_F(Participant_keys, ReaderTakesLocatorsAndJoinsItsGroups)
{
    auto pParticipant = Make(2);
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    const size_t uiJoinsBefore = Transport(*pParticipant).m_Receive.size();
    DataReaderQos qos;
    TransportMulticastSetting setting;
    setting.receive_address = "239.1.2.3";
    setting.receive_port = 9000;
    qos.multicast.value.push_back(setting);
    StatefulReader* pReader = pParticipant->createReader(qos, ENTITYID_UNKNOWN);
    ASSERT_NE(pReader, nullptr);
    EXPECT_EQ(pReader->getUnicastLocatorList(), pParticipant->getDefaultUnicastLocatorList());
    ASSERT_EQ(Transport(*pParticipant).m_Receive.size(), uiJoinsBefore + 1);
    EXPECT_EQ(Transport(*pParticipant).m_Receive.back(), UdpLocator("239.1.2.3", 9000));
}

// ------------------------------------------------------------------ network set-up

class Participant_net : public ParticipantTest
{
protected:
    static std::vector<std::string> Strings(const StringSeq& seq)
    {
        std::vector<std::string> out;
        for (uint32_t i = 0; i < seq.length; ++i)
            out.push_back(seq[i]);
        return out;
    }
    // The three port joins that end every successful set-up.
    static void ExpectPortJoins(Participant& participant, const char* szAddress)
    {
        const std::vector<Locator_t>& joins = Transport(participant).m_Receive;
        ASSERT_GE(joins.size(), 3u);
        const int d = participant.getDomainId();
        const uint32_t p = participant.getParticipantId();
        EXPECT_EQ(joins[joins.size() - 3], UdpLocator(szAddress, 7400 + 250 * d));
        EXPECT_EQ(joins[joins.size() - 2], UdpLocator(szAddress, 7410 + 250 * d + 2 * p));
        EXPECT_EQ(joins[joins.size() - 1], UdpLocator(szAddress, 7411 + 250 * d + 2 * p));
    }
};

TEST_F(Participant_net, NoAdapterFailsWithBothLines)
{
    g_Cards.clear();
    LogCapture log;
    DomainParticipantQos qos;
    auto pParticipant = Make(0, 7, &qos);
    EXPECT_EQ(pParticipant->initParticipant(), 1);
    EXPECT_EQ(log.Count("[Participant::initLoaclNet] 0 == NetCardAddressMap.size()"), 1u);
    EXPECT_EQ(log.Count("[Participant::initParticipant] initLoaclNet Error and ret = 1"), 1u);
    EXPECT_TRUE(Transport(*pParticipant).m_Receive.empty());
    EXPECT_EQ(qos.peer_list.length, 0u);   // not written back
}

TEST_F(Participant_net, OneAdapterDefaultGroup)
{
    DomainParticipantQos qos;
    auto pParticipant = Make(1, 3, &qos);
    ASSERT_EQ(pParticipant->initParticipant(), 0);

    const Locator_t unicast = UdpLocator("10.0.0.5", 0);
    EXPECT_EQ(pParticipant->getDefaultUnicastLocatorList(), std::list<Locator_t>{unicast});
    EXPECT_EQ(Transport(*pParticipant).m_Send, std::vector<Locator_t>{unicast});
    const octet aExpected[4] = {10, 0, 0, 5};
    EXPECT_EQ(0, std::memcmp(pParticipant->getGuidPrefix().value, aExpected, 4));
    EXPECT_EQ(0, std::memcmp(pParticipant->getMessageProcessor()->getGuidPrefix().value,
                             pParticipant->getGuidPrefix().value, 12));

    EXPECT_EQ(pParticipant->getDefaultMulticastLocatorList(),
              std::list<Locator_t>{UdpLocator("239.255.0.1", 7650)});
    EXPECT_EQ(Strings(qos.peer_list), std::vector<std::string>{"239.255.0.1"});
    EXPECT_EQ(Strings(qos.multicast_peer_list), std::vector<std::string>{"239.255.0.1"});
    // One join from the receive list, then the three ports.
    ASSERT_EQ(Transport(*pParticipant).m_Receive.size(), 4u);
    EXPECT_EQ(Transport(*pParticipant).m_Receive[0], UdpLocator("239.255.0.1", 7650));
    ExpectPortJoins(*pParticipant, "239.255.0.1");
    EXPECT_EQ(pParticipant->getUserUnicastPort(), 7411u + 250u + 6u);
}

TEST_F(Participant_net, WithoutQosRecordJoinsDefaultGroup)
{
    auto pParticipant = Make(0);
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    EXPECT_EQ(pParticipant->getDefaultMulticastLocatorList().size(), 1u);
    ExpectPortJoins(*pParticipant, "239.255.0.1");
}

TEST_F(Participant_net, TwoAdaptersLastNamesTheGuid)
{
    g_Cards = {Card("10.0.0.5"), Card("192.168.3.4")};
    DomainParticipantQos qos;
    qos.peer_list.push_back("127.0.0.1");
    auto pParticipant = Make(0, 7, &qos);
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    const octet aExpected[4] = {192, 168, 3, 4};
    EXPECT_EQ(0, std::memcmp(pParticipant->getGuidPrefix().value, aExpected, 4));
    EXPECT_EQ(pParticipant->getDefaultUnicastLocatorList(),
              (std::list<Locator_t>{UdpLocator("10.0.0.5", 0), UdpLocator("192.168.3.4", 0)}));
    EXPECT_EQ(Transport(*pParticipant).m_Send.size(), 2u);
    // The loopback entry becomes the first adapter's address, not the GUID's.
    EXPECT_EQ(Strings(qos.peer_list), std::vector<std::string>{"10.0.0.5"});
}

TEST_F(Participant_net, ConfiguredAddressWinsOverAdapters)
{
    g_Cards = {Card("10.0.0.5"), Card("192.168.3.4")};
    DomainParticipantQos qos;
    qos.local_address = "172.16.0.9";
    qos.peer_list.push_back("127.0.0.1");
    qos.peer_list.push_back("239.7.7.7");
    auto pParticipant = Make(0, 7, &qos);
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    EXPECT_EQ(pParticipant->getDefaultUnicastLocatorList(),
              std::list<Locator_t>{UdpLocator("172.16.0.9", 0)});
    EXPECT_EQ(Transport(*pParticipant).m_Send, std::vector<Locator_t>{UdpLocator("172.16.0.9", 0)});
    const octet aExpected[4] = {172, 16, 0, 9};
    EXPECT_EQ(0, std::memcmp(pParticipant->getGuidPrefix().value, aExpected, 4));
    EXPECT_EQ(Strings(qos.peer_list), (std::vector<std::string>{"172.16.0.9", "239.7.7.7"}));
    EXPECT_EQ(Strings(qos.multicast_peer_list), std::vector<std::string>{"239.7.7.7"});
}

TEST_F(Participant_net, LoopbackEntryAloneGivesNoGroup)
{
    DomainParticipantQos qos;
    qos.peer_list.push_back("127.0.0.1");
    auto pParticipant = Make(0, 7, &qos);
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    EXPECT_EQ(Strings(qos.peer_list), std::vector<std::string>{"10.0.0.5"});
    EXPECT_TRUE(pParticipant->getDefaultMulticastLocatorList().empty());
    EXPECT_EQ(qos.multicast_peer_list.length, 0u);
    // The port joins still happen, with no address in the locator.
    ASSERT_EQ(Transport(*pParticipant).m_Receive.size(), 3u);
    ExpectPortJoins(*pParticipant, "0.0.0.0");
}

TEST_F(Participant_net, UnicastSeedGetsOwnAddressAppended)
{
    DomainParticipantQos qos;
    qos.peer_list.push_back("192.168.7.7");
    auto pParticipant = Make(0, 7, &qos);
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    EXPECT_EQ(Strings(qos.peer_list), (std::vector<std::string>{"192.168.7.7", "10.0.0.5"}));
    EXPECT_TRUE(pParticipant->getDefaultMulticastLocatorList().empty());
    EXPECT_EQ(Transport(*pParticipant).m_Receive.size(), 3u);
}

TEST_F(Participant_net, UnicastSeedBesideGroupAppendsNothing)
{
    DomainParticipantQos qos;
    qos.peer_list.push_back("192.168.7.7");
    qos.peer_list.push_back("239.1.1.1");
    auto pParticipant = Make(0, 7, &qos);
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    EXPECT_EQ(Strings(qos.peer_list), (std::vector<std::string>{"192.168.7.7", "239.1.1.1"}));
    EXPECT_EQ(Strings(qos.multicast_peer_list), std::vector<std::string>{"239.1.1.1"});
}

TEST_F(Participant_net, ReceiveListEntriesJoinAndLastOneStays)
{
    DomainParticipantQos qos;
    qos.peer_list.push_back("192.168.7.7");          // no group from here
    qos.multicast_peer_list.push_back("239.9.9.9");
    qos.multicast_peer_list.push_back("10.1.1.1");    // not a group: skipped
    auto pParticipant = Make(0, 7, &qos);
    ASSERT_EQ(pParticipant->initParticipant(), 0);
    const std::vector<Locator_t>& joins = Transport(*pParticipant).m_Receive;
    ASSERT_EQ(joins.size(), 4u);
    EXPECT_EQ(joins[0], UdpLocator("239.9.9.9", 7400));
    ExpectPortJoins(*pParticipant, "239.9.9.9");
}

TEST(Participant_address, ParsesAsInetAddr)
{
    const char* aszCases[] = {"239.255.0.1", "10.0.0.5", "0.0.0.0", "255.255.255.255", "10.1",
                              "10.1.2", "167772165", "0x7f.1", "010.0.0.1", "0xA.0xb.0.1",
                              "1.2.3.4 rest", "1.2.3.256", "1.2.3.4.5", "", "abc", "1.2.3.4x",
                              "08.1.1.1", "1..2.3", "0x", "4294967296", "1.16777216", " 1.2.3.4"};
    for (const char* szCase : aszCases)
        EXPECT_EQ(Participant::ParseAddress(szCase), ntohl(inet_addr(szCase))) << '"' << szCase << '"';
}

TEST(Participant_address, MulticastTest)
{
    EXPECT_TRUE(Participant::IsMulticastAddress(Participant::ParseAddress("224.0.0.1")));
    EXPECT_TRUE(Participant::IsMulticastAddress(Participant::ParseAddress("239.255.0.1")));
    EXPECT_FALSE(Participant::IsMulticastAddress(Participant::ParseAddress("223.255.255.255")));
    EXPECT_FALSE(Participant::IsMulticastAddress(0));
    // A failed parse reads as 255.255.255.255 and so passes the test, as it always did.
    EXPECT_TRUE(Participant::IsMulticastAddress(Participant::ParseAddress("not an address")));
}

// ------------------------------------------------------------------ borrowing

class Participant_borrow : public ParticipantTest
{
};

TEST_F(Participant_borrow, SecondTakerWaitsUntilReturned)
{
    auto pParticipant = Make(1);
    Writer* pWriter = pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    const EntityId_t id = pWriter->getEntityId();
    ASSERT_EQ(pParticipant->takeEndpoint(id), pWriter);
    EXPECT_TRUE(pParticipant->isEndpointExist(id));   // borrowed still counts

    std::atomic<Endpoint*> pTaken{nullptr};
    std::atomic<bool> bDone{false};
    std::thread taker([&] {
        pTaken = pParticipant->takeEndpoint(id);
        bDone = true;
    });
    EXPECT_TRUE(HoldsFor([&] { return !bDone.load(); }, 100));
    EXPECT_EQ(pParticipant->returnEndpoint(pWriter), 0);
    const bool bFinished = WaitFor([&] { return bDone.load(); }, 5000);
    EXPECT_TRUE(bFinished);
    if (!bFinished)
    {
        // The taker would touch freed memory: leave it and the participant behind.
        taker.detach();
        pParticipant.release();
        return;
    }
    taker.join();
    EXPECT_EQ(pTaken.load(), pWriter);
    EXPECT_EQ(pParticipant->returnEndpoint(pWriter), 0);
}

TEST_F(Participant_borrow, UnknownIdGivesNull)
{
    LogCapture log;
    auto pParticipant = Make(1);
    EXPECT_FALSE(pParticipant->isEndpointExist(Id(1, 4, 1, 3)));
    EXPECT_EQ(pParticipant->takeEndpoint(Id(1, 4, 1, 3)), nullptr);
    EXPECT_EQ(log.Count("[Participant::takeEndpoint] Donot Exist"), 1u);
}

TEST_F(Participant_borrow, ReturnOfUnknownKeyLogs)
{
    LogCapture log;
    auto pParticipant = Make(1);
    GUID_t strayGuid = MakeGuid(1, 7);
    strayGuid.entityId = Id(1, 4, 9, 3);
    StatelessWriter stray(strayGuid, WriterQos(BEST_EFFORT_RELIABILITY_QOS), nullptr);
    EXPECT_EQ(pParticipant->returnEndpoint(&stray), 1);
    EXPECT_EQ(log.Count("[Participant::returnEndpoint] m_EndpointMap.count error"), 1u);
    EXPECT_FALSE(pParticipant->isEndpointExist(strayGuid.entityId));
}

// Both deletes wait for a borrowed endpoint to come back; their wait loops differ.
void ExpectDeleteWaitsForBorrower(Participant& participant, Endpoint* pEndpoint, bool bReader)
{
    const EntityId_t id = pEndpoint->getEntityId();
    ASSERT_EQ(participant.takeEndpoint(id), pEndpoint);
    std::atomic<bool> bDone{false};
    std::thread deleter([&] {
        if (bReader)
            participant.deleteReader(pEndpoint);
        else
            participant.deleteWriter(pEndpoint);
        bDone = true;
    });
    EXPECT_TRUE(HoldsFor([&] { return !bDone.load(); }, 100));
    EXPECT_TRUE(participant.isEndpointExist(id));
    participant.returnEndpoint(pEndpoint);
    const bool bFinished = WaitFor([&] { return bDone.load(); }, 5000);
    EXPECT_TRUE(bFinished);
    if (!bFinished)
    {
        deleter.detach();
        return;
    }
    deleter.join();
    EXPECT_FALSE(participant.isEndpointExist(id));
}

TEST_F(Participant_borrow, DeleteWaitsForBorrower)
{
    auto pParticipant = Make(1);
    ExpectDeleteWaitsForBorrower(
        *pParticipant, pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN),
        false);
    ExpectDeleteWaitsForBorrower(
        *pParticipant, pParticipant->createReader(DataReaderQos(), ENTITYID_UNKNOWN), true);
    if (HasFailure())
        pParticipant.release();   // a deleter left running may still use it
}

TEST_F(Participant_borrow, DeleteOfForeignEndpointLeavesIt)
{
    auto pParticipant = Make(1);
    GUID_t strayGuid = MakeGuid(1, 7);
    strayGuid.entityId = Id(1, 9, 9, 4);
    StatefulReader stray(strayGuid, DataReaderQos(), nullptr);
    EXPECT_EQ(pParticipant->deleteReader(&stray), 0);
    EXPECT_EQ(pParticipant->deleteWriter(&stray), 0);
    EXPECT_EQ(stray.getEntityId(), strayGuid.entityId);   // still alive
}

// ------------------------------------------------------------------ matched reader

class Participant_lookup : public ParticipantTest
{
protected:
    GUID_t RemoteWriter()
    {
        GUID_t remote = MakeGuid(1, 99);
        remote.entityId = Id(1, 4, 1, 3);
        return remote;
    }
};

TEST_F(Participant_lookup, UnmatchedWriter)
{
    LogCapture log;
    auto pParticipant = Make(1);
    EXPECT_EQ(pParticipant->lookupMatchedReader(RemoteWriter()), nullptr);   // no Discovery yet
    Discovery discovery(nullptr);
    pParticipant->setDiscovery(&discovery);
    EXPECT_EQ(pParticipant->lookupMatchedReader(RemoteWriter()), nullptr);
    EXPECT_EQ(log.Count("[Participant::lookupMatchedReader] pReader = ENTITYID_UNKNOW"), 2u);
}

TEST_F(Participant_lookup, MatchedReaderGone)
{
    LogCapture log;
    auto pParticipant = Make(1);
    Discovery discovery(nullptr);
    pParticipant->setDiscovery(&discovery);
    discovery.addWriterReaderPair(RemoteWriter(), Id(1, 9, 1, 4));
    EXPECT_EQ(pParticipant->lookupMatchedReader(RemoteWriter()), nullptr);
    EXPECT_EQ(log.Count("[Participant::lookupMatchedReader] Donot Exist"), 1u);
}

TEST_F(Participant_lookup, MatchedReaderIsLent)
{
    auto pParticipant = Make(1);
    Discovery discovery(nullptr);
    pParticipant->setDiscovery(&discovery);
    pParticipant->createReader(DataReaderQos(), ENTITYID_UNKNOWN);
    StatefulReader* pSecond = pParticipant->createReader(DataReaderQos(), ENTITYID_UNKNOWN);
    discovery.addWriterReaderPair(RemoteWriter(), Id(1, 9, 1, 4));
    discovery.addWriterReaderPair(RemoteWriter(), pSecond->getEntityId());   // the last match wins
    StatefulReader* pReader = pParticipant->lookupMatchedReader(RemoteWriter());
    EXPECT_EQ(pReader, pSecond);
    EXPECT_EQ(pParticipant->returnEndpoint(pReader), 0);
}

TEST(Discovery_WriterReaderMap, AddReplaceRemove)
{
    Discovery discovery(nullptr);
    GUID_t remote = MakeGuid(3, 1);
    EntityId_t out = Id(9, 9, 9, 9);
    discovery.getLocalReaderOfWriter(out, remote);
    EXPECT_EQ(out, ENTITYID_UNKNOWN);
    discovery.addWriterReaderPair(remote, Id(3, 9, 1, 4));
    discovery.addWriterReaderPair(remote, Id(3, 9, 2, 4));
    discovery.getLocalReaderOfWriter(out, remote);
    EXPECT_EQ(out, Id(3, 9, 2, 4));
    EXPECT_EQ(discovery.removeWriterReaderPair(remote), 0);
    EXPECT_EQ(discovery.removeWriterReaderPair(remote), 1);
    discovery.getLocalReaderOfWriter(out, remote);
    EXPECT_EQ(out, ENTITYID_UNKNOWN);
}

// ------------------------------------------------------------------ walks

class Participant_walks : public ParticipantTest
{
};

TEST_F(Participant_walks, AssertSkipsBuiltinAndBorrowedWriters)
{
    auto pParticipant = Make(1);
    Writer* pBuiltin = pParticipant->createWriter(WriterQos(BEST_EFFORT_RELIABILITY_QOS),
                                                  ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER);
    Writer* pUser = pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    Writer* pBorrowed = pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    pParticipant->createReader(DataReaderQos(), ENTITYID_UNKNOWN);   // readers are not writers
    ASSERT_EQ(pParticipant->takeEndpoint(pBorrowed->getEntityId()), pBorrowed);

    EXPECT_EQ(pParticipant->assertWriterLiveliness(AUTOMATIC_LIVELINESS_QOS), 0);
    EXPECT_EQ(pBuiltin->getLivelinessActive(), 0);
    EXPECT_EQ(pUser->getLivelinessActive(), 1);
    EXPECT_EQ(pBorrowed->getLivelinessActive(), 0);
    pParticipant->returnEndpoint(pBorrowed);
}

TEST_F(Participant_walks, CheckSkipsBuiltinWriters)
{
    auto pParticipant = Make(1);
    DataWriterQos qos = WriterQos(RELIABLE_RELIABILITY_QOS);
    qos.liveliness.lease_duration = Duration_t(1, 0);
    Writer* pBuiltin =
        pParticipant->createWriter(qos, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER);
    Writer* pUser = pParticipant->createWriter(qos, ENTITYID_UNKNOWN);
    pBuiltin->assertLiveliness(AUTOMATIC_LIVELINESS_QOS);
    pUser->assertLiveliness(AUTOMATIC_LIVELINESS_QOS);

    Time_t later = pUser->getLastLivelinessTime();
    later.sec += 100;
    EXPECT_EQ(pParticipant->checkWriterLiveliness(later), 0);
    EXPECT_EQ(pBuiltin->getLivelinessActive(), 1);
    EXPECT_EQ(pUser->getLivelinessActive(), 0);
}

TEST_F(Participant_walks, ReaderWalksPassBorrowedReaders)
{
    auto pParticipant = Make(1);
    pParticipant->createReader(DataReaderQos(), ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER);
    StatefulReader* pReader = pParticipant->createReader(DataReaderQos(), ENTITYID_UNKNOWN);
    pParticipant->createWriter(WriterQos(RELIABLE_RELIABILITY_QOS), ENTITYID_UNKNOWN);
    ASSERT_EQ(pParticipant->takeEndpoint(pReader->getEntityId()), pReader);
    Time_t now(5, 0);
    EXPECT_EQ(pParticipant->checkReaderLiveliness(now), 0);
    EXPECT_EQ(pParticipant->assertReaderLiveliness(MakeGuid(1, 3), now, 0), 0);
    EXPECT_EQ(pParticipant->returnEndpoint(pReader), 0);
}

// ------------------------------------------------------------------ threads

class Participant_threads : public ParticipantTest
{
};

std::vector<std::string> ThreadNames()
{
    std::vector<std::string> names;
    DIR* pDir = opendir("/proc/self/task");
    if (pDir == nullptr)
        return names;
    while (dirent* pEntry = readdir(pDir))
    {
        if (pEntry->d_name[0] == '.')
            continue;
        std::ifstream comm(std::string("/proc/self/task/") + pEntry->d_name + "/comm");
        std::string strName;
        if (std::getline(comm, strName))
            names.push_back(strName);
    }
    closedir(pDir);
    return names;
}

bool HasThread(const std::string& strName)
{
    const std::vector<std::string> names = ThreadNames();
    return std::find(names.begin(), names.end(), strName) != names.end();
}

TEST_F(Participant_threads, StartNamedAndStop)
{
    auto pParticipant = Make(42);
    ASSERT_EQ(pParticipant->startThreads(), 0);
    EXPECT_TRUE(HasThread("42_SEND"));
    EXPECT_TRUE(HasThread("42_RECV"));
    EXPECT_TRUE(HasThread("42_DIST"));
    EXPECT_EQ(pParticipant->stopRecvThread(), 0);
    EXPECT_EQ(pParticipant->getMessageTransmitter()->GetStoppedFlag(), 1);
    EXPECT_EQ(pParticipant->stopDistThread(), 0);
    EXPECT_TRUE(pParticipant->getMessageProcessor()->IsStopped());
    EXPECT_EQ(pParticipant->stopSendThread(), 0);
    EXPECT_TRUE(WaitFor([] { return !HasThread("42_SEND") && !HasThread("42_RECV") &&
                                    !HasThread("42_DIST"); },
                        5000));
    // A second stop has nothing left to wait for.
    EXPECT_EQ(pParticipant->stopRecvThread(), 0);
}

TEST_F(Participant_threads, StopWithoutStartReturnsAtOnce)
{
    auto pParticipant = Make(1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(pParticipant->stopRecvThread(), 0);
    EXPECT_EQ(pParticipant->stopDistThread(), 0);
    EXPECT_EQ(pParticipant->stopSendThread(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(Participant_keys, FixedFieldsAndPorts)
{
    auto pParticipant = Make(3, 5);
    EXPECT_EQ(pParticipant->getProtocolVersion()[0], 2);
    EXPECT_EQ(pParticipant->getProtocolVersion()[1], 2);
    EXPECT_EQ(pParticipant->getVendorId()[0], 8);
    EXPECT_EQ(pParticipant->getVendorId()[1], 8);
    EXPECT_EQ(pParticipant->getBuiltinEndpoints(), 63u);
    EXPECT_EQ(pParticipant->getDomainId(), 3);
    EXPECT_EQ(pParticipant->getParticipantId(), 5u);
    EXPECT_EQ(pParticipant->getDiscoveryMulticastPort(), 8150u);
    EXPECT_EQ(pParticipant->getDiscoveryUnicastPort(), 8170u);
    EXPECT_EQ(pParticipant->getUserUnicastPort(), 8171u);
    EXPECT_EQ(pParticipant->getWriterEntityKey(), 0x03040000u);
    EXPECT_EQ(pParticipant->getReaderEntityKey(), 0x03090000u);
}
} // namespace
