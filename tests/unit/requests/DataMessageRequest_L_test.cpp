// The best-effort send request against a participant whose transport only
// captures datagrams. Expected messages are written out from the wire layout
// (little-endian, E flag always set), not taken from the encoder.
#include "requests/DataMessageRequest_L.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <vector>

#include "DataSendRig.h"
#include "QosPolicy.h"
#include "messages/MessageProcessor.h"
#include "requests/ImmeditRequestScheduler.h"
#include "requests/RequestFactory.h"
#include "rtps/CacheChange.h"
#include "rtps/StatelessWriter.h"

namespace
{
typedef std::vector<uint8_t> Bytes;

const uint32_t kFragment = 64512;
const Time_t kStamp(0x5F000001, 0x80000000);
const SequenceNumber_t kSeq(0, 0x21);

std::atomic<int> g_ChangesDeleted{0};

// Lets a test see the request delete its change.
class CountedChange : public CacheChange
{
public:
    ~CountedChange() override { ++g_ChangesDeleted; }
};

void Put16(Bytes& b, uint16_t v)
{
    b.push_back(uint8_t(v));
    b.push_back(uint8_t(v >> 8));
}
void Put32(Bytes& b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back(uint8_t(v >> (8 * i)));
}
void PutEntity(Bytes& b, const EntityId_t& id)
{
    b.insert(b.end(), id.entityKey, id.entityKey + 3);
    b.push_back(id.entityKind);
}

// Message header and INFO_TS.
Bytes Front(const GuidPrefix& prefix)
{
    Bytes b = {'R', 'T', 'P', 'S', 0x02, 0x02, 0x08, 0x08};
    b.insert(b.end(), prefix.value, prefix.value + 12);
    b.insert(b.end(), {0x09, 0x01, 0x08, 0x00});
    Put32(b, uint32_t(kStamp.sec));
    Put32(b, kStamp.nanosec);
    return b;
}

Bytes Data(const GuidPrefix& prefix, const EntityId_t& writer, const Bytes& payload)
{
    Bytes b = Front(prefix);
    b.insert(b.end(), {0x15, uint8_t(payload.empty() ? 0x01 : 0x05)});
    Put16(b, uint16_t(20 + payload.size()));
    Put16(b, 0);                  // extraFlags
    Put16(b, 0);                  // octetsToInlineQos
    Put32(b, 0);                  // readerId
    PutEntity(b, writer);
    Put32(b, uint32_t(kSeq.high));
    Put32(b, kSeq.low);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

Bytes DataFrag(const GuidPrefix& prefix, const EntityId_t& writer, uint32_t uiNumber,
               uint32_t uiSampleSize, const uint8_t* pBytes, uint32_t uiLength,
               const Bytes& inlineQos = Bytes())
{
    Bytes b = Front(prefix);
    b.insert(b.end(), {0x16, uint8_t(inlineQos.empty() ? 0x01 : 0x03)});
    Put16(b, uint16_t(32 + inlineQos.size() + uiLength));
    Put16(b, 0);
    Put16(b, inlineQos.empty() ? 0 : 16);
    Put32(b, 0);
    PutEntity(b, writer);
    Put32(b, uint32_t(kSeq.high));
    Put32(b, kSeq.low);
    b.insert(b.end(), inlineQos.begin(), inlineQos.end());
    Put32(b, uiNumber);
    Put16(b, 1);                  // fragmentsInSubmessage
    Put16(b, uint16_t(kFragment)); // fragmentSize, also in the last fragment
    Put32(b, uiSampleSize);
    b.insert(b.end(), pBytes, pBytes + uiLength);
    return b;
}

// A pattern that does not repeat with the fragment size, so a misplaced
// fragment shows.
Bytes Payload(uint32_t uiLength)
{
    Bytes b(uiLength);
    for (uint32_t i = 0; i < uiLength; ++i)
        b[i] = uint8_t(i % 251);
    return b;
}

CacheChange* MakeChange(const Bytes& payload)
{
    CacheChange* pChange = new CountedChange();
    pChange->kind = CHANGE_KIND_ALIVE;
    pChange->sequenceNumber = kSeq;
    pChange->sourceTimestamp = kStamp;
    pChange->dataLength = uint32_t(payload.size());
    pChange->data = CacheChange::AllocData(pChange->dataLength);
    if (!payload.empty())
        std::memcpy(pChange->data, payload.data(), payload.size());
    return pChange;
}

class DataMessageRequest_L_send : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_ChangesDeleted = 0;
        DataWriterQos qos;
        qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
        m_pWriter = m_Rig.MakeWriter<StatelessWriter>(qos, m_Source);
        ASSERT_NE(nullptr, m_pWriter);
    }

    // Builds the request as the writer does and runs it here.
    uint32_t Send(CacheChange* pChange, DataMessageRequest_L** ppKept = nullptr)
    {
        DataMessageRequest_L* pRequest = RequestFactory::CreateDataMessageRequest_L(
            m_Rig.participant().getImmeditRequestScheduler(), m_pWriter->getEntityId(), pChange);
        EXPECT_NE(nullptr, pRequest);
        if (pRequest == nullptr)
            return 99;
        pRequest->setTopicName(3u, "Square");
        const uint32_t uiResult = pRequest->Execute();
        EXPECT_EQ(nullptr, pRequest->getCacheChange());
        if (ppKept != nullptr)
            *ppKept = pRequest;
        else
            delete pRequest;
        return uiResult;
    }

    const GuidPrefix& Prefix() { return m_Rig.prefix(); }
    EntityId_t WriterId() { return m_pWriter->getEntityId(); }

    DataSendRig m_Rig;
    const Locator_t m_Source = UdpLocator(10, 0, 0, 5, 7411);
    const Locator_t m_ReaderA = UdpLocator(10, 0, 0, 7, 7661);
    const Locator_t m_ReaderB = UdpLocator(10, 0, 0, 9, 7663);
    StatelessWriter* m_pWriter = nullptr;
};

// ------------------------------------------------------------------ DATA

TEST_F(DataMessageRequest_L_send, SmallSampleGoesAsOneDataToEveryLocator)
{
    m_pWriter->reader_locator_add(m_ReaderB);
    m_pWriter->reader_locator_add(m_ReaderA);
    const Bytes payload = Payload(16);

    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(payload)));

    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(1, m_Rig.transmitter().ListSends()); // one composition for all destinations
    const Bytes expected = Data(Prefix(), WriterId(), payload);
    EXPECT_EQ(m_ReaderA, sent[0].destination);
    EXPECT_EQ(m_ReaderB, sent[1].destination);
    for (const CapturedDatagram& d : sent)
    {
        EXPECT_EQ(m_Source, d.source);
        EXPECT_EQ(expected, d.bytes);
    }
    EXPECT_EQ(1, g_ChangesDeleted.load());
    EXPECT_TRUE(m_Rig.WriterIsFree(WriterId()));
}

TEST_F(DataMessageRequest_L_send, LargestSingleDataIsExactlyTheFragmentSize)
{
    m_pWriter->reader_locator_add(m_ReaderA);
    const Bytes payload = Payload(kFragment);

    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(payload)));

    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(1u, sent.size());
    ASSERT_EQ(20u + 12u + 24u + kFragment, sent[0].bytes.size());
    EXPECT_EQ(0x15, sent[0].bytes[32]);
    EXPECT_EQ(0x14, sent[0].bytes[34]); // octetsToNextHeader 0xFC14
    EXPECT_EQ(0xFC, sent[0].bytes[35]);
    EXPECT_TRUE(sent[0].bytes == Data(Prefix(), WriterId(), payload));
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST_F(DataMessageRequest_L_send, EmptySampleGoesAsDataWithoutPayloadFlag)
{
    m_pWriter->reader_locator_add(m_ReaderA);
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(Bytes())));
    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(Data(Prefix(), WriterId(), Bytes()), sent[0].bytes);
}

// ------------------------------------------------------------------ DATA_FRAG

TEST_F(DataMessageRequest_L_send, OneOctetOverGoesAsTwoFragments)
{
    m_pWriter->reader_locator_add(m_ReaderA);
    const Bytes payload = Payload(kFragment + 1);

    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(payload)));

    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(2u, sent.size());
    EXPECT_TRUE(sent[0].bytes ==
                DataFrag(Prefix(), WriterId(), 1, kFragment + 1, payload.data(), kFragment));
    EXPECT_TRUE(sent[1].bytes ==
                DataFrag(Prefix(), WriterId(), 2, kFragment + 1, payload.data() + kFragment, 1));
    EXPECT_EQ(20u + 12u + 36u + 1u, sent[1].bytes.size());
    EXPECT_EQ(1, g_ChangesDeleted.load());
    EXPECT_TRUE(m_Rig.WriterIsFree(WriterId()));
}

TEST_F(DataMessageRequest_L_send, MegabyteGoesAsSeventeenFragmentsToEachLocator)
{
    m_pWriter->reader_locator_add(m_ReaderA);
    m_pWriter->reader_locator_add(m_ReaderB);
    const uint32_t uiSize = 1048576;
    const Bytes payload = Payload(uiSize);

    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(payload)));

    // 16 full fragments and 1048576 - 16 * 64512 = 16384 octets in the 17th.
    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(34u, sent.size());
    EXPECT_EQ(17, m_Rig.transmitter().ListSends());
    for (uint32_t i = 0; i < 17; ++i)
    {
        const uint32_t uiLength = i < 16 ? kFragment : 16384u;
        const Bytes expected =
            DataFrag(Prefix(), WriterId(), i + 1, uiSize, payload.data() + i * kFragment, uiLength);
        // Ascending fragments, each to every locator before the next one.
        EXPECT_EQ(m_ReaderA, sent[2 * i].destination);
        EXPECT_EQ(m_ReaderB, sent[2 * i + 1].destination);
        EXPECT_TRUE(sent[2 * i].bytes == expected) << "fragment " << i + 1;
        EXPECT_TRUE(sent[2 * i + 1].bytes == expected) << "fragment " << i + 1;
    }
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST_F(DataMessageRequest_L_send, ExactMultipleEndsWithAnEmptyFragment)
{
    m_pWriter->reader_locator_add(m_ReaderA);
    const uint32_t uiSize = 2 * kFragment;
    const Bytes payload = Payload(uiSize);

    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(payload)));

    // Two fragments: the first full, the second announced but empty, so the
    // octets from 64512 on never leave; both name the whole sample size.
    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(2u, sent.size());
    EXPECT_TRUE(sent[0].bytes == DataFrag(Prefix(), WriterId(), 1, uiSize, payload.data(), kFragment));
    EXPECT_TRUE(sent[1].bytes ==
                DataFrag(Prefix(), WriterId(), 2, uiSize, payload.data() + uiSize, 0));
    EXPECT_EQ(20u + 12u + 36u, sent[1].bytes.size());
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST_F(DataMessageRequest_L_send, EveryFragmentCarriesTheWholeInlineQos)
{
    m_pWriter->reader_locator_add(m_ReaderA);
    const Bytes payload = Payload(kFragment + 1);
    CacheChange* pChange = MakeChange(payload);
    const octet status[4] = {0x00, 0x00, 0x00, 0x03};
    pChange->inlineQos.push_back(Parameter(113, 4, status));
    pChange->inlineQos.push_back(Parameter(1, 0, nullptr));
    const Bytes inlineQos = {0x71, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x00};

    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(pChange));

    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(2u, sent.size());
    EXPECT_TRUE(sent[0].bytes == DataFrag(Prefix(), WriterId(), 1, kFragment + 1, payload.data(),
                                          kFragment, inlineQos));
    EXPECT_TRUE(sent[1].bytes == DataFrag(Prefix(), WriterId(), 2, kFragment + 1,
                                          payload.data() + kFragment, 1, inlineQos));
}

TEST_F(DataMessageRequest_L_send, EachSourceSendsToEachLocator)
{
    const Locator_t second = UdpLocator(192, 168, 1, 5, 7411);
    m_pWriter->setUnicastLocatorList(std::list<Locator_t>{m_Source, second});
    m_pWriter->reader_locator_add(m_ReaderA);
    m_pWriter->reader_locator_add(m_ReaderB);

    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(Payload(kFragment + 1))));

    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(8u, sent.size()); // 2 fragments x 2 sources x 2 locators
    EXPECT_EQ(m_Source, sent[0].source);
    EXPECT_EQ(m_ReaderA, sent[0].destination);
    EXPECT_EQ(m_ReaderB, sent[1].destination);
    EXPECT_EQ(second, sent[2].source);
    EXPECT_EQ(m_ReaderA, sent[2].destination);
    EXPECT_EQ(m_ReaderB, sent[3].destination);
}

TEST_F(DataMessageRequest_L_send, ALocatorSharedByReadersGetsOneCopy)
{
    const Locator_t group = UdpLocator(239, 255, 0, 1, 7401);
    m_pWriter->reader_locator_add(group);
    m_pWriter->reader_locator_add(group);
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(Payload(16))));
    ASSERT_EQ(1u, m_Rig.transmitter().Datagrams().size());
    EXPECT_EQ(group, m_Rig.transmitter().Datagrams()[0].destination);
}

TEST_F(DataMessageRequest_L_send, NoLocatorComposesButNothingLeaves)
{
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(Payload(16))));
    EXPECT_EQ(0u, m_Rig.transmitter().Datagrams().size());
    EXPECT_EQ(1, m_Rig.transmitter().ListSends());
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

// ------------------------------------------------------------------ failures

TEST_F(DataMessageRequest_L_send, WriterGoneLogsAndStillFreesTheChange)
{
    m_pWriter->reader_locator_add(m_ReaderA);
    const EntityId_t writerId = WriterId();
    DataMessageRequest_L* pSmall = RequestFactory::CreateDataMessageRequest_L(
        m_Rig.participant().getImmeditRequestScheduler(), writerId, MakeChange(Payload(16)));
    DataMessageRequest_L* pLarge = RequestFactory::CreateDataMessageRequest_L(
        m_Rig.participant().getImmeditRequestScheduler(), writerId,
        MakeChange(Payload(kFragment + 1)));
    ASSERT_NE(nullptr, pSmall);
    ASSERT_NE(nullptr, pLarge);
    pSmall->setTopicName(3u, "Square");
    pLarge->setTopicName(3u, "Square");
    m_Rig.participant().deleteWriter(m_pWriter);
    m_pWriter = nullptr;

    LogRecorder log;
    EXPECT_EQ(REQUEST_EXECUTE_OK, pSmall->Execute());
    EXPECT_EQ(REQUEST_EXECUTE_OK, pLarge->Execute());

    EXPECT_EQ(1, log.Count("[DataMessageRequest_L::sendDataMessage] isEndpointExist Error and TopicName = Square"));
    EXPECT_EQ(1, log.Count("[DataMessageRequest_L::sendDataFragMessage] isEndpointExist Error and TopicName = Square"));
    EXPECT_EQ(0u, m_Rig.transmitter().Datagrams().size());
    EXPECT_EQ(nullptr, pSmall->getCacheChange());
    EXPECT_EQ(2, g_ChangesDeleted.load());
    delete pSmall;
    delete pLarge;
    EXPECT_EQ(2, g_ChangesDeleted.load());
}

TEST_F(DataMessageRequest_L_send, EncoderFailureGivesTheWriterBack)
{
    m_pWriter->reader_locator_add(m_ReaderA);
    MessageProcessor* pProcessor = m_Rig.participant().getMessageProcessor();
    LogRecorder log;

    // The buffer may not grow beyond its first 2048 octets.
    pProcessor->setEncapsulateMessageLimit(2048);
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(Payload(4096))));
    EXPECT_EQ(1, log.Count("[DataMessageRequest_L::sendDataMessage] returnEndpoint Error and TopicName = Square"));
    EXPECT_TRUE(m_Rig.WriterIsFree(WriterId()));

    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(Payload(kFragment + 1))));
    EXPECT_EQ(1, log.Count("[DataMessageRequest_L::sendDataFragMessage] returnEndpoint Error and TopicName = Square"));
    EXPECT_TRUE(m_Rig.WriterIsFree(WriterId()));

    EXPECT_EQ(0u, m_Rig.transmitter().Datagrams().size());
    EXPECT_EQ(2, g_ChangesDeleted.load());

    // With room again the same writer sends as before.
    pProcessor->setEncapsulateMessageLimit(0x80000000u);
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(MakeChange(Payload(16))));
    EXPECT_EQ(1u, m_Rig.transmitter().Datagrams().size());
}

// ------------------------------------------------------------------ ownership

TEST_F(DataMessageRequest_L_send, UnexecutedRequestFreesItsChange)
{
    DataMessageRequest_L* pRequest = RequestFactory::CreateDataMessageRequest_L(
        m_Rig.participant().getImmeditRequestScheduler(), WriterId(), MakeChange(Payload(100)));
    ASSERT_NE(nullptr, pRequest);
    EXPECT_EQ("Data_L", pRequest->getTypeName());
    EXPECT_NE(nullptr, pRequest->getCacheChange());
    delete pRequest;
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST_F(DataMessageRequest_L_send, SchedulerDroppingAQueuedRequestFreesItsChange)
{
    DataMessageRequest_L* pRequest = RequestFactory::CreateDataMessageRequest_L(
        m_Rig.participant().getImmeditRequestScheduler(), WriterId(), MakeChange(Payload(100)));
    ASSERT_NE(nullptr, pRequest);
    pRequest->setNextTime(Time_t(0x7FFFFFFF, 0)); // never due
    EXPECT_EQ(0, m_Rig.participant().getImmeditRequestScheduler()->RequestAdd(pRequest));
    EXPECT_EQ(0, g_ChangesDeleted.load());
    EXPECT_EQ(0, m_Rig.participant().getImmeditRequestScheduler()->RequestRemove(pRequest));
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST(DataMessageRequest_L, FactoryWithoutSchedulerLeavesTheChangeToTheCaller)
{
    g_ChangesDeleted = 0;
    CacheChange* pChange = MakeChange(Payload(8));
    EXPECT_EQ(nullptr, RequestFactory::CreateDataMessageRequest_L(nullptr, ENTITYID_UNKNOWN, pChange));
    EXPECT_EQ(0, g_ChangesDeleted.load());
    CacheChange::FreeData(pChange->data);
    delete pChange;
}

} // namespace
