// The best-effort send request against a participant whose transport only
// captures datagrams. Expected messages are written out from the wire layout
// (little-endian, E flag always set), not taken from the encoder.
#include "requests/DataMessageRequest_L.h"

#include <gtest/gtest.h>

#include <iterator>

#include "DataSendRig.h"
#include "messages/MessageProcessor.h"
#include "requests/ImmeditRequestScheduler.h"
#include "requests/RequestFactory.h"
#include "rtps/StatelessWriter.h"

namespace {
typedef std::vector<uint8_t> Bytes;

const uint32_t kFragment = 64512, kSeq = 0x21;
const Time_t kStamp(0x5F000001, 0x80000000);
// Status info 3 and the sentinel, as a dispose carries them.
const Bytes kDisposeQos = {0x71, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x00};

// Little-endian fields, each {value, octets}.
void Put(Bytes& b, std::initializer_list<std::pair<uint32_t, int>> fields) {
    for (const auto& field : fields)
        for (int i = 0; i < field.second; ++i) b.push_back(uint8_t(field.first >> 8 * i));
}

// Header, INFO_TS and one DATA (uiNumber 0) or one DATA_FRAG of the sample.
// Every fragment names the fragment size and the whole sample size.
Bytes Message(const GuidPrefix& prefix, const EntityId_t& writer, uint32_t uiNumber, uint32_t uiSampleSize,
              const uint8_t* pBytes, uint32_t uiLength, const Bytes& qos) {
    Bytes b = {'R', 'T', 'P', 'S', 0x02, 0x02, 0x08, 0x08};
    b.insert(b.end(), prefix.value, prefix.value + 12);
    const uint32_t uiId =
        (uiNumber ? 0x16 : 0x15) | (qos.empty() ? 0 : 0x0200) | (uiNumber || !uiLength ? 0 : 0x0400);
    const uint32_t uiSubLength = (uiNumber ? 32 : 20) + uint32_t(qos.size()) + uiLength;
    Put(b, {{0x00080109, 4}, {uint32_t(kStamp.sec), 4}, {kStamp.nanosec, 4}});  // INFO_TS
    // Id and flags (E always), length, extraFlags, octetsToInlineQos, readerId, writerId, writerSN.
    Put(b, {{uiId | 0x0100, 2}, {uiSubLength, 2}, {0, 2}, {qos.empty() ? 0 : 16, 2}, {0, 4}});
    b.insert(b.end(), {writer.entityKey[0], writer.entityKey[1], writer.entityKey[2], writer.entityKind});
    Put(b, {{0, 4}, {kSeq, 4}});
    b.insert(b.end(), qos.begin(), qos.end());
    // Fragment number, fragmentsInSubmessage, fragment size, sample size.
    if (uiNumber) Put(b, {{uiNumber, 4}, {1, 2}, {kFragment, 2}, {uiSampleSize, 4}});
    b.insert(b.end(), pBytes, pBytes + uiLength);
    return b;
}

// A pattern that does not repeat with the fragment size, so a misplaced fragment shows.
Bytes Payload(uint32_t uiLength) {
    Bytes b(uiLength);
    for (uint32_t i = 0; i < uiLength; ++i) b[i] = uint8_t(i % 251);
    return b;
}

class DataMessageRequest_L_send : public ::testing::Test {
protected:
    void SetUp() override {
        CountedChange::Deleted() = 0;
        // The default QoS is best effort: a stateless writer.
        ASSERT_NE(nullptr, m_pWriter = m_Rig.MakeWriter<StatelessWriter>(DataWriterQos(), m_Source));
        m_WriterId = m_pWriter->getEntityId();
    }
    CacheChange* Change(uint32_t uiSize) {
        CacheChange* pChange = MakeChange(kSeq, uiSize, Payload(uiSize).data());
        pChange->sourceTimestamp = kStamp;
        return pChange;
    }
    DataMessageRequest_L* Make(CacheChange* pChange) {
        DataMessageRequest_L* pRequest = RequestFactory::CreateDataMessageRequest_L(
            m_Rig.participant().getImmeditRequestScheduler(), m_WriterId, pChange);
        if (pRequest != nullptr) pRequest->setTopicName(3u, "Square");
        return pRequest;
    }
    // Builds the request as the writer does and runs it here; it must give up its change.
    uint32_t Send(CacheChange* pChange) {
        std::unique_ptr<DataMessageRequest_L> pRequest(Make(pChange));
        const uint32_t uiResult = pRequest ? pRequest->Execute() : 99;
        EXPECT_TRUE(pRequest && pRequest->getCacheChange() == nullptr);
        return uiResult;
    }
    std::vector<CapturedDatagram> Sent() { return m_Rig.transmitter().Datagrams(); }

    DataSendRig m_Rig;
    const Locator_t m_Source = UdpLocator(10, 0, 0, 5, 7411), m_Reader = UdpLocator(10, 0, 0, 7, 7661);
    StatelessWriter* m_pWriter = nullptr;
    EntityId_t m_WriterId;
};
}  // namespace

// Up to 64512 octets a sample goes as one DATA. Above, as DATA_FRAGs of 64512
// each, ascending, every fragment to every locator before the next; the last
// carries the rest, which is nothing for an exact multiple (the octets from
// 64512 on never leave then). Each fragment carries the whole inline QoS.
TEST_F(DataMessageRequest_L_send, SampleGoesAsOneDataOrAsFragmentsFromEachSourceToEachLocator) {
    const struct {
        uint32_t uiSize, uiFragments, uiLastLength;  // 0 fragments: one DATA
        bool bDispose;
    } cases[] = {{16, 0, 0, false},
                 {0, 0, 0, false},
                 {kFragment, 0, 0, false},
                 {kFragment + 1, 2, 1, false},
                 {2 * kFragment, 2, 0, false},
                 {1048576, 17, 16384, false},
                 {kFragment + 1, 2, 1, true}};
    const Locator_t second = UdpLocator(192, 168, 1, 5, 7411);
    const Locator_t group = UdpLocator(239, 255, 0, 1, 7661);  // sorts after m_Reader; counted, sent once
    m_pWriter->setUnicastLocatorList(std::list<Locator_t>{m_Source, second});
    for (const Locator_t& locator : {group, group, m_Reader}) m_pWriter->reader_locator_add(locator);
    int iListSends = 0;
    size_t uiSent = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.uiSize);
        const Bytes payload = Payload(c.uiSize), qos = c.bDispose ? kDisposeQos : Bytes();
        CacheChange* pChange = Change(c.uiSize);
        if (c.bDispose) pChange->inlineQos = {Parameter(113, 4, &kDisposeQos[4]), Parameter(1, 0, nullptr)};
        ASSERT_EQ(REQUEST_EXECUTE_OK, Send(pChange));
        std::vector<Bytes> expected;
        if (c.uiFragments == 0)
            expected.push_back(Message(m_Rig.prefix(), m_WriterId, 0, 0, payload.data(), c.uiSize, qos));
        for (uint32_t i = 0; i < c.uiFragments; ++i)
            expected.push_back(Message(m_Rig.prefix(), m_WriterId, i + 1, c.uiSize,
                                       payload.data() + i * kFragment,
                                       i + 1 < c.uiFragments ? kFragment : c.uiLastLength, qos));
        // One composition per message for all pairs, each source to each locator, sorted by locator.
        iListSends += int(expected.size());
        EXPECT_EQ(iListSends, m_Rig.transmitter().ListSends());
        const std::vector<CapturedDatagram> sent = Sent();
        ASSERT_EQ(uiSent + 4 * expected.size(), sent.size());
        for (size_t i = 0; i < 4 * expected.size(); ++i) {
            const CapturedDatagram& d = sent[uiSent + i];
            EXPECT_EQ(i % 4 < 2 ? m_Source : second, d.source);
            EXPECT_EQ(i % 2 == 0 ? m_Reader : group, d.destination);
            EXPECT_TRUE(expected[i / 4] == d.bytes) << "message " << i / 4;
        }
        uiSent = sent.size();
    }
    EXPECT_EQ(int(std::size(cases)), CountedChange::Deleted().load());
    EXPECT_TRUE(m_Rig.WriterIsFree(m_WriterId));

    // With no locator left the message is still composed, but nothing leaves.
    for (const Locator_t& locator : {group, group, m_Reader}) m_pWriter->reader_locator_remove(locator);
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(16)));
    EXPECT_EQ(uiSent, Sent().size());
    EXPECT_EQ(iListSends + 1, m_Rig.transmitter().ListSends());
}

// Each failure is logged under the request's topic; the change is freed all
// the same and the writer given back. A request never executed frees its change too.
TEST_F(DataMessageRequest_L_send, EncoderFailureOrAGoneWriterIsLoggedAndFreesTheChange) {
    m_pWriter->reader_locator_add(m_Reader);
    MessageProcessor* pProcessor = m_Rig.participant().getMessageProcessor();
    LogRecorder log;
    pProcessor->setEncapsulateMessageLimit(2048);  // the buffer may not grow beyond its first 2048 octets
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(4096)));
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(kFragment + 1)));
    EXPECT_TRUE(m_Rig.WriterIsFree(m_WriterId));
    EXPECT_EQ(0u, Sent().size());
    pProcessor->setEncapsulateMessageLimit(0x80000000u);  // with room again the same writer sends as before
    EXPECT_EQ(REQUEST_EXECUTE_OK, Send(Change(16)));
    EXPECT_EQ(1u, Sent().size());

    std::unique_ptr<DataMessageRequest_L> pSmall(Make(Change(16))), pLarge(Make(Change(kFragment + 1)));
    ASSERT_TRUE(pSmall && pLarge);
    m_Rig.participant().deleteWriter(m_pWriter);
    EXPECT_EQ(REQUEST_EXECUTE_OK, pSmall->Execute());
    EXPECT_EQ(REQUEST_EXECUTE_OK, pLarge->Execute());
    EXPECT_EQ(nullptr, pSmall->getCacheChange());
    EXPECT_EQ(5, CountedChange::Deleted().load());
    pSmall.reset();
    pLarge.reset();
    delete Make(Change(100));  // never executed: frees its change all the same
    EXPECT_EQ(6, CountedChange::Deleted().load());
    EXPECT_EQ(1u, Sent().size());
    for (const char* szText : {"[DataMessageRequest_L::sendDataMessage] returnEndpoint Error",
                               "[DataMessageRequest_L::sendDataFragMessage] returnEndpoint Error",
                               "[DataMessageRequest_L::sendDataMessage] isEndpointExist Error",
                               "[DataMessageRequest_L::sendDataFragMessage] isEndpointExist Error"})
        EXPECT_EQ(1, log.Count(std::string(szText) + " and TopicName = Square")) << szText;
}
