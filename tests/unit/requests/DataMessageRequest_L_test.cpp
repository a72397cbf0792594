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

namespace {
typedef std::vector<uint8_t> Bytes;

const uint32_t kFragment = 64512;
const Time_t kStamp(0x5F000001, 0x80000000);
const SequenceNumber_t kSeq(0, 0x21);

void Put16(Bytes& b, uint16_t v) {
    b.insert(b.end(), {uint8_t(v), uint8_t(v >> 8)});
}
void Put32(Bytes& b, uint32_t v) {
    b.insert(b.end(), {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)});
}

// Message header, INFO_TS and the submessage start up to the writer number.
Bytes Front(const GuidPrefix& prefix, const EntityId_t& writer, uint8_t id, uint8_t flags, size_t length,
            uint16_t usToInlineQos) {
    Bytes b = {'R', 'T', 'P', 'S', 0x02, 0x02, 0x08, 0x08};
    b.insert(b.end(), prefix.value, prefix.value + 12);
    b.insert(b.end(), {0x09, 0x01, 0x08, 0x00});
    Put32(b, uint32_t(kStamp.sec));
    Put32(b, kStamp.nanosec);
    b.insert(b.end(), {id, flags});
    Put16(b, uint16_t(length));
    Put16(b, 0);  // extraFlags
    Put16(b, usToInlineQos);
    Put32(b, 0);  // readerId
    b.insert(b.end(), writer.entityKey, writer.entityKey + 3);
    b.push_back(writer.entityKind);
    Put32(b, uint32_t(kSeq.high));
    Put32(b, kSeq.low);
    return b;
}

Bytes Data(const GuidPrefix& prefix, const EntityId_t& writer, const Bytes& payload) {
    Bytes b = Front(prefix, writer, 0x15, payload.empty() ? 0x01 : 0x05, 20 + payload.size(), 0);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

Bytes DataFrag(const GuidPrefix& prefix, const EntityId_t& writer, uint32_t uiNumber, uint32_t uiSampleSize,
               const uint8_t* pBytes, uint32_t uiLength, const Bytes& inlineQos = Bytes()) {
    Bytes b = Front(prefix, writer, 0x16, inlineQos.empty() ? 0x01 : 0x03, 32 + inlineQos.size() + uiLength,
                    inlineQos.empty() ? 0 : 16);
    b.insert(b.end(), inlineQos.begin(), inlineQos.end());
    Put32(b, uiNumber);
    Put16(b, 1);                    // fragmentsInSubmessage
    Put16(b, uint16_t(kFragment));  // fragmentSize, also in the last fragment
    Put32(b, uiSampleSize);
    b.insert(b.end(), pBytes, pBytes + uiLength);
    return b;
}

// A pattern that does not repeat with the fragment size, so a misplaced fragment shows.
Bytes Payload(uint32_t uiLength) {
    Bytes b(uiLength);
    for (uint32_t i = 0; i < uiLength; ++i) b[i] = uint8_t(i % 251);
    return b;
}

CacheChange* Change(const Bytes& payload) {
    CacheChange* pChange = MakeChange(kSeq.low, uint32_t(payload.size()), payload.data());
    pChange->sourceTimestamp = kStamp;
    return pChange;
}

class DataMessageRequest_L_send : public ::testing::Test {
protected:
    void SetUp() override {
        CountedChange::Deleted() = 0;
        DataWriterQos qos;
        qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
        m_pWriter = m_Rig.MakeWriter<StatelessWriter>(qos, m_Source);
        ASSERT_NE(nullptr, m_pWriter);
    }

    DataMessageRequest_L* Make(CacheChange* pChange) {
        DataMessageRequest_L* pRequest = RequestFactory::CreateDataMessageRequest_L(
            m_Rig.participant().getImmeditRequestScheduler(), m_pWriter->getEntityId(), pChange);
        EXPECT_NE(nullptr, pRequest);
        if (pRequest != nullptr) pRequest->setTopicName(3u, "Square");
        return pRequest;
    }
    // Builds the request as the writer does and runs it here; it must give up its change.
    uint32_t Send(CacheChange* pChange) {
        DataMessageRequest_L* pRequest = Make(pChange);
        if (pRequest == nullptr) return 99;
        const uint32_t uiResult = pRequest->Execute();
        EXPECT_EQ(nullptr, pRequest->getCacheChange());
        delete pRequest;
        return uiResult;
    }
    const GuidPrefix& Prefix() { return m_Rig.prefix(); }
    EntityId_t WriterId() { return m_pWriter->getEntityId(); }
    std::vector<CapturedDatagram> Sent() { return m_Rig.transmitter().Datagrams(); }

    DataSendRig m_Rig;
    const Locator_t m_Source = UdpLocator(10, 0, 0, 5, 7411);
    const Locator_t m_ReaderA = UdpLocator(10, 0, 0, 7, 7661);
    const Locator_t m_ReaderB = UdpLocator(10, 0, 0, 9, 7663);
    StatelessWriter* m_pWriter = nullptr;
};
}  // namespace

// ------------------------------------------------------------------ DATA and DATA_FRAG

// Up to 64512 octets a sample goes as one DATA. Above, as DATA_FRAGs of 64512
// each, ascending, every fragment to every locator before the next; the last
// carries the rest, which is nothing for an exact multiple (the octets from
// 64512 on never leave then). Each fragment names the whole sample size.
TEST_F(DataMessageRequest_L_send, SampleGoesAsOneDataOrAsFragmentsToEveryLocator) {
    struct Case {
        uint32_t uiSize;
        uint32_t uiFragments;   // 0: one DATA
        uint32_t uiLastLength;  // octets in the last fragment
    };
    const Case aCases[] = {
        {16, 0, 0},          {0, 0, 0}, {kFragment, 0, 0}, {kFragment + 1, 2, 1}, {2 * kFragment, 2, 0},
        {1048576, 17, 16384}};
    m_pWriter->reader_locator_add(m_ReaderB);
    m_pWriter->reader_locator_add(m_ReaderA);
    int iListSends = 0;
    size_t uiSent = 0;
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.uiSize);
        const Bytes payload = Payload(c.uiSize);
        ASSERT_EQ(REQUEST_EXECUTE_OK, Send(Change(payload)));
        std::vector<Bytes> expected;
        if (c.uiFragments == 0) expected.push_back(Data(Prefix(), WriterId(), payload));
        for (uint32_t i = 0; i < c.uiFragments; ++i)
            expected.push_back(DataFrag(Prefix(), WriterId(), i + 1, c.uiSize, payload.data() + i * kFragment,
                                        i + 1 < c.uiFragments ? kFragment : c.uiLastLength));
        // One composition per message for all destinations, sorted by locator.
        iListSends += int(expected.size());
        EXPECT_EQ(iListSends, m_Rig.transmitter().ListSends());
        const std::vector<CapturedDatagram> sent = Sent();
        ASSERT_EQ(uiSent + 2 * expected.size(), sent.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            for (size_t j = 0; j < 2; ++j) {
                const CapturedDatagram& d = sent[uiSent + 2 * i + j];
                EXPECT_EQ(j == 0 ? m_ReaderA : m_ReaderB, d.destination);
                EXPECT_EQ(m_Source, d.source);
                EXPECT_TRUE(expected[i] == d.bytes) << "message " << i;
            }
        }
        uiSent = sent.size();
    }
    EXPECT_EQ(int(sizeof(aCases) / sizeof(aCases[0])), CountedChange::Deleted().load());
    EXPECT_TRUE(m_Rig.WriterIsFree(WriterId()));
}

TEST_F(DataMessageRequest_L_send, EveryFragmentCarriesTheWholeInlineQos) {
    m_pWriter->reader_locator_add(m_ReaderA);
    const Bytes payload = Payload(kFragment + 1);
    CacheChange* pChange = Change(payload);
    const octet status[4] = {0x00, 0x00, 0x00, 0x03};
    pChange->inlineQos.push_back(Parameter(113, 4, status));
    pChange->inlineQos.push_back(Parameter(1, 0, nullptr));
    const Bytes inlineQos = {0x71, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x00};
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(pChange));
    const std::vector<CapturedDatagram> sent = Sent();
    ASSERT_EQ(2u, sent.size());
    EXPECT_TRUE(sent[0].bytes ==
                DataFrag(Prefix(), WriterId(), 1, kFragment + 1, payload.data(), kFragment, inlineQos));
    EXPECT_TRUE(sent[1].bytes ==
                DataFrag(Prefix(), WriterId(), 2, kFragment + 1, payload.data() + kFragment, 1, inlineQos));
}

TEST_F(DataMessageRequest_L_send, EachSourceSendsToEachLocatorAndASharedLocatorGetsOneCopy) {
    const Locator_t second = UdpLocator(192, 168, 1, 5, 7411);
    const Locator_t group = UdpLocator(239, 255, 0, 1, 7661);  // sorts after reader A
    m_pWriter->setUnicastLocatorList(std::list<Locator_t>{m_Source, second});
    for (const Locator_t& locator : {m_ReaderA, group, group}) m_pWriter->reader_locator_add(locator);
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(Payload(16))));
    const std::vector<CapturedDatagram> sent = Sent();
    ASSERT_EQ(4u, sent.size());  // 2 sources x 2 locators
    const std::vector<std::pair<Locator_t, Locator_t>> pairs = {
        {m_Source, m_ReaderA}, {m_Source, group}, {second, m_ReaderA}, {second, group}};
    for (size_t i = 0; i < pairs.size(); ++i) {
        EXPECT_EQ(pairs[i].first, sent[i].source);
        EXPECT_EQ(pairs[i].second, sent[i].destination);
    }
}

TEST_F(DataMessageRequest_L_send, NoLocatorComposesButNothingLeaves) {
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(Payload(16))));
    EXPECT_EQ(0u, Sent().size());
    EXPECT_EQ(1, m_Rig.transmitter().ListSends());
    EXPECT_EQ(1, CountedChange::Deleted().load());
}

// ------------------------------------------------------------------ failures and ownership

TEST_F(DataMessageRequest_L_send, WriterGoneLogsAndStillFreesTheChange) {
    m_pWriter->reader_locator_add(m_ReaderA);
    DataMessageRequest_L* pSmall = Make(Change(Payload(16)));
    DataMessageRequest_L* pLarge = Make(Change(Payload(kFragment + 1)));
    ASSERT_TRUE(pSmall != nullptr && pLarge != nullptr);
    m_Rig.participant().deleteWriter(m_pWriter);
    m_pWriter = nullptr;
    LogRecorder log;
    EXPECT_EQ(REQUEST_EXECUTE_OK, pSmall->Execute());
    EXPECT_EQ(REQUEST_EXECUTE_OK, pLarge->Execute());
    EXPECT_EQ(
        1, log.Count("[DataMessageRequest_L::sendDataMessage] isEndpointExist Error and TopicName = Square"));
    EXPECT_EQ(
        1, log.Count(
               "[DataMessageRequest_L::sendDataFragMessage] isEndpointExist Error and TopicName = Square"));
    EXPECT_EQ(0u, Sent().size());
    EXPECT_EQ(nullptr, pSmall->getCacheChange());
    EXPECT_EQ(2, CountedChange::Deleted().load());
    delete pSmall;
    delete pLarge;
    EXPECT_EQ(2, CountedChange::Deleted().load());
}

TEST_F(DataMessageRequest_L_send, EncoderFailureGivesTheWriterBack) {
    m_pWriter->reader_locator_add(m_ReaderA);
    MessageProcessor* pProcessor = m_Rig.participant().getMessageProcessor();
    LogRecorder log;
    pProcessor->setEncapsulateMessageLimit(2048);  // the buffer may not grow beyond its first 2048 octets
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(Payload(4096))));
    EXPECT_EQ(
        1, log.Count("[DataMessageRequest_L::sendDataMessage] returnEndpoint Error and TopicName = Square"));
    EXPECT_TRUE(m_Rig.WriterIsFree(WriterId()));
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(Payload(kFragment + 1))));
    EXPECT_EQ(
        1,
        log.Count("[DataMessageRequest_L::sendDataFragMessage] returnEndpoint Error and TopicName = Square"));
    EXPECT_TRUE(m_Rig.WriterIsFree(WriterId()));
    EXPECT_EQ(0u, Sent().size());
    EXPECT_EQ(2, CountedChange::Deleted().load());

    // With room again the same writer sends as before.
    pProcessor->setEncapsulateMessageLimit(0x80000000u);
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(Payload(16))));
    EXPECT_EQ(1u, Sent().size());
}

TEST_F(DataMessageRequest_L_send, AnUnexecutedRequestFreesItsChangeAndNoSchedulerMeansNoRequest) {
    DataMessageRequest_L* pRequest = Make(Change(Payload(100)));
    ASSERT_NE(nullptr, pRequest);
    EXPECT_EQ("Data_L", pRequest->getTypeName());
    delete pRequest;
    EXPECT_EQ(1, CountedChange::Deleted().load());

    // Dropped from the scheduler's queue unexecuted.
    pRequest = Make(Change(Payload(100)));
    pRequest->setNextTime(Time_t(0x7FFFFFFF, 0));  // never due
    ImmeditRequestScheduler* pScheduler = m_Rig.participant().getImmeditRequestScheduler();
    EXPECT_EQ(0, pScheduler->RequestAdd(pRequest));
    EXPECT_EQ(1, CountedChange::Deleted().load());
    EXPECT_EQ(0, pScheduler->RequestRemove(pRequest));
    EXPECT_EQ(2, CountedChange::Deleted().load());

    // Without a scheduler the change stays the caller's.
    CacheChange* pChange = Change(Payload(8));
    EXPECT_EQ(nullptr, RequestFactory::CreateDataMessageRequest_L(nullptr, ENTITYID_UNKNOWN, pChange));
    EXPECT_EQ(2, CountedChange::Deleted().load());
    CacheChange::FreeData(pChange->data);
    delete pChange;
}
