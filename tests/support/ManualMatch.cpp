#include "ManualMatch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <sstream>

#include "DataReader.h"
#include "DataWriter.h"
#include "DomainParticipant.h"
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

const char* const kLineTag = "morvodds-peer";

std::string Hex(const octet* p, size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += kDigits[p[i] >> 4];
        s += kDigits[p[i] & 0x0F];
    }
    return s;
}

bool FromHex(const std::string& s, octet* p, size_t n) {
    if (s.size() != 2 * n) return false;
    for (size_t i = 0; i < n; ++i) {
        unsigned value = 0;
        for (size_t j = 0; j < 2; ++j) {
            const char c = s[2 * i + j];
            unsigned digit;
            if (c >= '0' && c <= '9')
                digit = unsigned(c - '0');
            else if (c >= 'a' && c <= 'f')
                digit = unsigned(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                digit = unsigned(c - 'A' + 10);
            else
                return false;
            value = value * 16 + digit;
        }
        p[i] = octet(value);
    }
    return true;
}

// A plain decimal number that fits `max`; nothing else around it.
bool FromDecimal(const std::string& s, unsigned long long max, unsigned long long* pOut) {
    if (s.empty() || s.size() > 20) return false;
    unsigned long long value = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + unsigned(c - '0');
        if (value > max) return false;
    }
    *pOut = value;
    return true;
}

std::string Dotted(uint32_t uiAddress) {
    char sz[16];
    std::snprintf(sz, sizeof(sz), "%u.%u.%u.%u", uiAddress >> 24, (uiAddress >> 16) & 0xFF,
                  (uiAddress >> 8) & 0xFF, uiAddress & 0xFF);
    return sz;
}

bool FromDotted(const std::string& s, uint32_t* pOut) {
    uint32_t uiAddress = 0;
    size_t uiStart = 0;
    for (int i = 0; i < 4; ++i) {
        const size_t uiEnd = i < 3 ? s.find('.', uiStart) : s.size();
        if (uiEnd == std::string::npos) return false;
        unsigned long long part = 0;
        if (!FromDecimal(s.substr(uiStart, uiEnd - uiStart), 255, &part)) return false;
        uiAddress = (uiAddress << 8) | uint32_t(part);
        uiStart = uiEnd + 1;
    }
    *pOut = uiAddress;
    return true;
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
    std::ostringstream line;
    line << kLineTag << " prefix=" << Hex(peer.prefix.value, 12) << " domain=" << peer.domainId
         << " participant=" << peer.participantId << " address=" << Dotted(peer.address)
         << " port=" << peer.userUnicastPort
         << " writer=" << Hex(reinterpret_cast<const octet*>(&peer.writerId), 4)
         << " reader=" << Hex(reinterpret_cast<const octet*>(&peer.readerId), 4);
    return line.str();
}

bool ManualMatch::Parse(const std::string& strLine, ManualMatchPeer* pOut) {
    if (pOut == nullptr) return false;
    std::istringstream words(strLine);
    std::string strWord;
    if (!(words >> strWord) || strWord != kLineTag) return false;
    std::map<std::string, std::string> fields;
    while (words >> strWord) {
        const size_t uiEqual = strWord.find('=');
        if (uiEqual == std::string::npos || uiEqual == 0) return false;
        if (!fields.emplace(strWord.substr(0, uiEqual), strWord.substr(uiEqual + 1)).second) return false;
    }
    static const char* const kKeys[] = {"prefix", "domain", "participant", "address",
                                        "port",   "writer", "reader"};
    if (fields.size() != sizeof(kKeys) / sizeof(kKeys[0])) return false;
    for (const char* szKey : kKeys)
        if (fields.count(szKey) == 0) return false;

    ManualMatchPeer peer;
    unsigned long long domain = 0, participant = 0, port = 0;
    if (!FromHex(fields["prefix"], peer.prefix.value, 12) ||
        !FromDecimal(fields["domain"], 0x7FFFFFFF, &domain) ||
        !FromDecimal(fields["participant"], 0xFFFFFFFF, &participant) ||
        !FromDotted(fields["address"], &peer.address) || !FromDecimal(fields["port"], 0xFFFF, &port) ||
        !FromHex(fields["writer"], reinterpret_cast<octet*>(&peer.writerId), 4) ||
        !FromHex(fields["reader"], reinterpret_cast<octet*>(&peer.readerId), 4))
        return false;
    peer.domainId = int(domain);
    peer.participantId = uint32_t(participant);
    peer.userUnicastPort = uint32_t(port);
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
