#include "ManualMatch.h"

#include <cstdio>

#include "DataReader.h"
#include "DataWriter.h"
#include "dcps/DataReaderImpl.h"
#include "dcps/DataWriterImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/PublisherImpl.h"
#include "dcps/SubscriberImpl.h"
#include "discovery/Discovery.h"
#include "rtps/EndpointLoan.h"
#include "rtps/Participant.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatelessWriter.h"
#include "rtps/WriterProxy.h"

namespace {

std::string Hex(const void* p, size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (const octet* q = static_cast<const octet*>(p); q < static_cast<const octet*>(p) + n; ++q)
        s += {kDigits[*q >> 4], kDigits[*q & 0x0F]};
    return s;
}

// Two hex digits per octet; the caller has checked the digits.
void FromHex(const std::string& s, void* p) {
    for (size_t i = 0; i < s.size() / 2; ++i)
        static_cast<octet*>(p)[i] = octet(std::stoul(s.substr(2 * i, 2), nullptr, 16));
}

Participant* RtpsParticipantOf(DomainParticipantImpl* pImpl) {
    return pImpl != nullptr ? pImpl->getRtpsParticipant() : nullptr;
}

}  // namespace

Locator_t ManualMatchPeer::userUnicastLocator() const {
    Locator_t locator;
    locator.kind = LOCATOR_KIND_UDPv4;
    locator.port = userUnicastPort;
    locator.SetIPv4(address);
    return locator;
}

bool ManualMatch::Describe(DomainParticipant* pParticipant, DataWriter* pWriter, DataReader* pReader,
                           ManualMatchPeer* pOut) {
    if (pParticipant == nullptr || pOut == nullptr) return false;
    const Participant* pRtps = RtpsParticipantOf(pParticipant->getImpl());
    if (pRtps == nullptr) return false;
    ManualMatchPeer peer;
    peer.prefix = pRtps->getGuidPrefix();
    peer.domainId = pRtps->getDomainId();
    peer.participantId = pRtps->getParticipantId();
    // The address that the network set-up wrote into the prefix names the participant.
    const std::list<Locator_t>& unicast = pRtps->getDefaultUnicastLocatorList();
    peer.address = unicast.empty() ? 0x7F000001u : unicast.back().GetIPv4();
    // The formula can pass 65535 for large domain and participant ids; the
    // sockets then use its low 16 bits, and so must the peer.
    peer.userUnicastPort = pRtps->getUserUnicastPort() & 0xFFFFu;
    if (pWriter != nullptr) peer.writerId = pWriter->getGuid().entityId;
    if (pReader != nullptr) peer.readerId = pReader->getGuid().entityId;
    *pOut = peer;
    return true;
}

std::string ManualMatch::Format(const ManualMatchPeer& peer) {
    const uint32_t a = peer.address;
    char sz[200];
    std::snprintf(sz, sizeof(sz),
                  "morvodds-peer prefix=%s domain=%d participant=%u address=%u.%u.%u.%u port=%u writer=%s "
                  "reader=%s",
                  Hex(peer.prefix.value, 12).c_str(), peer.domainId, peer.participantId, a >> 24,
                  a >> 16 & 0xFF, a >> 8 & 0xFF, a & 0xFF, peer.userUnicastPort,
                  Hex(&peer.writerId, 4).c_str(), Hex(&peer.readerId, 4).c_str());
    return sz;
}

bool ManualMatch::Parse(const std::string& strLine, ManualMatchPeer* pOut) {
    char szPrefix[25], szWriter[9], szReader[9];
    unsigned a[4], uiPort;
    ManualMatchPeer peer;
    if (pOut == nullptr ||
        std::sscanf(strLine.c_str(),
                    "morvodds-peer prefix=%24[0-9a-f] domain=%d participant=%u address=%u.%u.%u.%u port=%u "
                    "writer=%8[0-9a-f] reader=%8[0-9a-f]",
                    szPrefix, &peer.domainId, &peer.participantId, &a[0], &a[1], &a[2], &a[3], &uiPort,
                    szWriter, szReader) != 10 ||
        peer.domainId < 0 || uiPort > 0xFFFF)
        return false;
    peer.address = a[0] << 24 | a[1] << 16 | a[2] << 8 | a[3];
    peer.userUnicastPort = uiPort;
    FromHex(szPrefix, peer.prefix.value);
    FromHex(szWriter, &peer.writerId);
    FromHex(szReader, &peer.readerId);
    // Anything Format would not give back, such as a short field or a number out of
    // range, is refused; trailing white space is not.
    if (Format(peer) != strLine.substr(0, strLine.find_last_not_of(" \t\r\n") + 1)) return false;
    *pOut = peer;
    return true;
}

int ManualMatch::ConnectWriter(DataWriter* pWriter, const ManualMatchPeer& remote) {
    DataWriterImpl* pImpl = pWriter != nullptr ? pWriter->getImpl() : nullptr;
    if (pImpl == nullptr || pImpl->getRtpsWriter() == nullptr) return 1;
    Participant* pRtps = RtpsParticipantOf(pImpl->getPublisherImpl()->getParticipant());
    if (pRtps == nullptr) return 1;
    // The locator map changes only while the writer is borrowed; sends read a copy.
    EndpointLoan writer(pRtps, pImpl->getRtpsWriter()->getEntityId());
    StatelessWriter* pStateless = writer.as<StatelessWriter>();
    return pStateless != nullptr ? pStateless->reader_locator_add(remote.userUnicastLocator()) : 1;
}

int ManualMatch::ConnectReader(DataReader* pReader, const ManualMatchPeer& remote) {
    DataReaderImpl* pImpl = pReader != nullptr ? pReader->getImpl() : nullptr;
    if (pImpl == nullptr || pImpl->getReader() == nullptr || remote.writerId == ENTITYID_UNKNOWN) return 1;
    DomainParticipantImpl* pParticipant = pImpl->getSubscriberImpl()->getParticipant();
    Participant* pRtps = RtpsParticipantOf(pParticipant);
    Discovery* pDiscovery = pParticipant->getDiscovery();
    if (pRtps == nullptr || pDiscovery == nullptr) return 1;

    // Where a writer's data and repair requests go: its participant's user unicast locator.
    WriterProxy* pProxy = new WriterProxy(
        remote.writerGuid(), std::list<Locator_t>{remote.userUnicastLocator()}, std::list<Locator_t>());
    pProxy->setTopic(uint32_t(pImpl->getLogId()), pImpl->getTopicName());

    const EntityId_t readerId = pImpl->getReader()->getEntityId();
    // The process thread may be inside the reader: borrow it for the change.
    EndpointLoan reader(pRtps, readerId);
    StatefulReader* pStateful = reader.as<StatefulReader>();
    const int iResult = pStateful != nullptr ? pStateful->matched_writer_add(pProxy) : 1;
    reader.Return();
    if (iResult != 0) {
        delete pProxy;
        return 1;
    }
    // Routing finds the reader of a non-built-in writer only through this entry.
    return pDiscovery->addWriterReaderPair(remote.writerGuid(), readerId);
}
