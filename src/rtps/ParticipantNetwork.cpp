// Network set-up of the participant: its locators, its receive sockets and the address in
// its GUID prefix, all chosen from the participant QoS and the adapter list.
#include "rtps/Participant.h"

#include <cctype>
#include <cstring>
#include <vector>

#include "core/NetCard.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitter.h"

namespace {
// One number of a dotted address: decimal, octal after "0", hex after "0x".
// Leaves pText after the digits; false when there are none or the value exceeds 32 bits.
bool ParseAddressPart(const char*& pText, uint32_t& uiValue) {
    int iBase = 10;
    if (pText[0] == '0' && (pText[1] == 'x' || pText[1] == 'X')) {
        iBase = 16;
        pText += 2;
    } else if (pText[0] == '0') {
        iBase = 8;
    }
    uint64_t uiSum = 0;
    int iDigits = 0;
    for (;; ++pText, ++iDigits) {
        const char c = *pText;
        int iDigit;
        if (c >= '0' && c <= '9')
            iDigit = c - '0';
        else if (iBase == 16 && std::isxdigit(static_cast<unsigned char>(c)))
            iDigit = std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        else
            break;
        if (iDigit >= iBase) return false;
        uiSum = uiSum * uint64_t(iBase) + uint64_t(iDigit);
        if (uiSum > 0xFFFFFFFFull) return false;
    }
    // "0x" alone is no number; a lone "0" is.
    if (iDigits == 0 && iBase != 8) return false;
    uiValue = uint32_t(uiSum);
    return true;
}

// The adapter's first address in host order, or nothing for an adapter without one.
bool FirstAddress(const netCard& card, uint32_t& uiAddress) {
    if (card.IPAddressVec.empty()) return false;
    uiAddress = card.IPAddressVec.front();
    return true;
}

std::string FirstAddressString(const std::vector<netCard>& cards) {
    if (cards.empty() || cards.front().IPAddstrVec.empty()) return std::string();
    return cards.front().IPAddstrVec.front();
}
}  // namespace

uint32_t Participant::ParseAddress(const std::string& strAddress) {
    // The classic inet_addr forms: a.b.c.d, a.b.c (c 16 bits), a.b (b 24 bits), a (32 bits).
    // Text after the address is allowed only after white space.
    const char* pText = strAddress.c_str();
    uint32_t auiParts[4] = {0, 0, 0, 0};
    int iParts = 0;
    for (;;) {
        if (iParts == 4 || !ParseAddressPart(pText, auiParts[iParts])) return UNKNOWN_ADDRESS;
        ++iParts;
        if (*pText != '.') break;
        ++pText;
    }
    if (*pText != '\0' && !std::isspace(static_cast<unsigned char>(*pText))) return UNKNOWN_ADDRESS;

    const uint32_t auiLimits[4] = {0xFFFFFFFFu, 0xFFFFFFu, 0xFFFFu, 0xFFu};
    for (int i = 0; i < iParts - 1; ++i) {
        if (auiParts[i] > 0xFF) return UNKNOWN_ADDRESS;
    }
    if (auiParts[iParts - 1] > auiLimits[iParts - 1]) return UNKNOWN_ADDRESS;
    uint32_t uiAddress = auiParts[iParts - 1];
    for (int i = 0; i < iParts - 1; ++i) uiAddress |= auiParts[i] << (24 - 8 * i);
    return uiAddress;
}

bool Participant::IsMulticastAddress(uint32_t uiAddress) {
    return uiAddress != 0 && ((uiAddress >> 24) & 0xE0) == 0xE0;
}

int Participant::initParticipant() {
    const int iResult = initLoaclNet();
    if (iResult != 0) LogText("[Participant::initParticipant] initLoaclNet Error and ret = %d", iResult);
    return iResult;
}

void Participant::addUnicastLocator(uint32_t uiHostAddress) {
    Locator_t locator;
    locator.kind = LOCATOR_KIND_UDPv4;
    locator.port = 0;
    locator.SetIPv4(uiHostAddress);
    defaultUnicastLocatorList.push_back(locator);
    // The address names the participant: each call overwrites the one before.
    std::memcpy(&guid.guidPrefix.value[0], &locator.address[12], 4);
    if (m_MessageTransmitter != nullptr) m_MessageTransmitter->SendAddrAdd(locator);
}

int Participant::initLoaclNet() {
    // A working copy, written back once the lists are complete.
    DomainParticipantQos qos;
    if (m_pParticipantQos != nullptr) qos = *m_pParticipantQos;

    uint32_t uiConfigured = UNKNOWN_ADDRESS;
    if (qos.local_address != nullptr && qos.local_address[0] != '\0')
        uiConfigured = ParseAddress(qos.local_address);
    const bool bConfigured = uiConfigured != UNKNOWN_ADDRESS;

    std::vector<netCard> NetCardAddressMap;
    GetNetCardInfo(NetCardAddressMap);
    if (NetCardAddressMap.empty()) {
        LogText("[Participant::initLoaclNet] 0 == NetCardAddressMap.size()");
        return 1;
    }

    // Unicast: the configured address alone, otherwise every adapter; the last one
    // decides the GUID prefix.
    if (bConfigured) {
        addUnicastLocator(uiConfigured);
    } else {
        for (const netCard& card : NetCardAddressMap) {
            uint32_t uiAddress = 0;
            if (FirstAddress(card, uiAddress)) addUnicastLocator(uiAddress);
        }
    }
    if (m_MessageProcessor != nullptr) m_MessageProcessor->setGuidPrefix(guid.guidPrefix);

    const std::string strLocal =
        bConfigured ? std::string(qos.local_address) : FirstAddressString(NetCardAddressMap);
    Locator_t locator;
    locator.kind = LOCATOR_KIND_UDPv4;
    locator.port = getDiscoveryMulticastPort();

    // The multicast list (peer_list) seeds discovery; its multicast entries go to the
    // receive list (multicast_peer_list).
    if (qos.peer_list.length == 0) qos.peer_list.push_back(DEFAULT_MULTICAST_ADDRESS);
    bool bFound = false;
    for (uint32_t i = 0; i < qos.peer_list.length; ++i) {
        std::string& strPeer = qos.peer_list[i];
        if (strPeer == "127.0.0.1") {
            strPeer = strLocal;
            bFound = true;
        }
        const uint32_t uiAddress = ParseAddress(strPeer);
        if (IsMulticastAddress(uiAddress)) {
            bFound = true;
            locator.SetIPv4(uiAddress);
            defaultMulticastLocatorList.push_back(locator);
            qos.multicast_peer_list.push_back(strPeer);
        }
    }
    // Neither a group nor the loopback entry: this participant seeds itself.
    if (!bFound) qos.peer_list.push_back(strLocal);

    for (uint32_t i = 0; i < qos.multicast_peer_list.length; ++i) {
        const uint32_t uiAddress = ParseAddress(qos.multicast_peer_list[i]);
        if (!IsMulticastAddress(uiAddress)) continue;
        locator.SetIPv4(uiAddress);
        if (m_MessageTransmitter != nullptr) m_MessageTransmitter->ReceiveAddrAdd(locator);
    }
    if (m_pParticipantQos != nullptr) *m_pParticipantQos = qos;

    // The three ports, with whatever address the walks above left in the locator.
    if (m_MessageTransmitter != nullptr) {
        locator.port = getDiscoveryMulticastPort();
        m_MessageTransmitter->ReceiveAddrAdd(locator);
        locator.port = getDiscoveryUnicastPort();
        m_MessageTransmitter->ReceiveAddrAdd(locator);
        locator.port = getUserUnicastPort();
        m_MessageTransmitter->ReceiveAddrAdd(locator);
    }
    return 0;
}
