// Test rig for the rtps and requests tests: a transport that captures every
// datagram and address set-up (no socket), a participant built over it, and a
// recorder of log texts. Header-only; test threads only.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>

#include "log/LogObserver.h"
#include "messages/MessageTransmitter.h"
#include "rtps/CacheChange.h"
#include "rtps/Participant.h"  // with the lists, strings, locks and threads used here
#include "rtps/Writer.h"

struct CapturedDatagram {
    Locator_t source;
    Locator_t destination;
    std::vector<uint8_t> bytes;
};

// The list form walks the pairs, every source then every destination, the
// way the UDP transport does, and each pair is one captured datagram.
class CapturingTransmitter : public MessageTransmitter {
public:
    explicit CapturingTransmitter(ReceiveBuffer* pBuffer) : MessageTransmitter(pBuffer) {}

    int SendAddrAdd(Locator_t locator) override {
        m_SendAddrs.push_back(locator);
        return 0;
    }
    int MessageSend(const std::list<Locator_t>& sources, const std::list<Locator_t>& destinations,
                    const octet* pMessage, uint32_t uiLength) override {
        ++m_ListSends;
        for (const Locator_t& source : sources)
            for (const Locator_t& destination : destinations)
                MessageSend(source, destination, pMessage, uiLength);
        return 0;
    }
    int MessageSend(Locator_t source, Locator_t destination, const octet* pMessage,
                    uint32_t uiLength) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Datagrams.push_back({source, destination, std::vector<uint8_t>(pMessage, pMessage + uiLength)});
        return 0;
    }
    int MessageSend(const Locator_t* pSource, const Locator_t* pDestination, const octet* pMessage,
                    uint32_t uiLength) override {
        return MessageSend(*pSource, *pDestination, pMessage, uiLength);
    }
    int ReceiveMessage() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // a receive thread must not spin
        return 0;
    }
    int ReceiveAddrAdd(Locator_t locator) override {
        m_ReceiveAddrs.push_back(locator);
        return 0;
    }
    int ReceiveAddrRemove(Locator_t) override { return 0; }

    std::vector<CapturedDatagram> Datagrams() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Datagrams;
    }
    int ListSends() const { return m_ListSends.load(); }

    static MessageTransmitter* Make(ReceiveBuffer* pBuffer, int) { return new CapturingTransmitter(pBuffer); }

    // Set up on the owner's thread only.
    std::vector<Locator_t> m_SendAddrs;
    std::vector<Locator_t> m_ReceiveAddrs;

private:
    std::mutex m_Mutex;
    std::vector<CapturedDatagram> m_Datagrams;
    std::atomic<int> m_ListSends{0};
};

struct LogEntry {
    int key;
    int code;
    std::string text;
};

// Every text handed to WriteDDSLog while it lives.
class LogRecorder {
public:
    LogRecorder() { SetLogObserver(&LogRecorder::Observe, this); }
    ~LogRecorder() { SetLogObserver(nullptr, nullptr); }

    int Count(const std::string& strText) {
        const std::vector<std::string> texts = Texts();
        return int(std::count(texts.begin(), texts.end(), strText));
    }
    std::vector<std::string> Texts() {
        std::vector<std::string> texts;
        for (const LogEntry& entry : Entries()) texts.push_back(entry.text);
        return texts;
    }
    std::vector<LogEntry> Entries() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Entries;
    }

private:
    static void Observe(void* pContext, int iKey, const char* szText, size_t length, int iCode) {
        LogRecorder* pSelf = static_cast<LogRecorder*>(pContext);
        std::lock_guard<std::mutex> lock(pSelf->m_Mutex);
        pSelf->m_Entries.push_back(LogEntry{iKey, iCode, std::string(szText, length)});
    }

    std::mutex m_Mutex;
    std::vector<LogEntry> m_Entries;
};

// A change that counts its deletions, so a test sees who freed it and when.
struct CountedChange : CacheChange {
    ~CountedChange() override { ++Deleted(); }
    static std::atomic<int>& Deleted() {
        static std::atomic<int> s_iDeleted{0};
        return s_iDeleted;
    }
};

// An alive change of writer number uiSeq with a payload of uiLength octets
// (copied from pData when given, zeroed otherwise).
inline CacheChange* MakeChange(uint32_t uiSeq, uint32_t uiLength = 4, const void* pData = nullptr) {
    CacheChange* pChange = new CountedChange();
    pChange->kind = CHANGE_KIND_ALIVE;
    pChange->sequenceNumber = SequenceNumber_t(0, uiSeq);
    pChange->dataLength = uiLength;
    pChange->data = CacheChange::AllocData(uiLength);
    if (pData != nullptr && uiLength != 0) std::memcpy(pChange->data, pData, uiLength);
    return pChange;
}

inline Locator_t UdpLocator(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint32_t uiPort) {
    Locator_t locator;
    locator.kind = LOCATOR_KIND_UDPv4;
    locator.port = uiPort;
    locator.SetIPv4(uint32_t(a) << 24 | uint32_t(b) << 16 | uint32_t(c) << 8 | d);
    return locator;
}

// GUID of participant uiParticipantId in iDomain, address octets still zero.
inline GUID_t ParticipantGuid(int iDomain, uint32_t uiParticipantId) {
    GUID_t guid = GUID_UNKNOWN;
    std::memcpy(&guid.guidPrefix.value[4], &iDomain, 4);
    std::memcpy(&guid.guidPrefix.value[8], &uiParticipantId, 4);
    guid.entityId = ENTITYID_PARTICIPANT;
    return guid;
}

// A participant over the capturing transport; no thread, no socket until asked.
class DataSendRig {
public:
    explicit DataSendRig(int iDomain = 3, uint32_t uiParticipantId = 1, DomainParticipantQos* pQos = nullptr)
        : m_pParticipant(new Participant(ParticipantGuid(iDomain, uiParticipantId), nullptr, iDomain, pQos,
                                         &CapturingTransmitter::Make)),
          m_pTransmitter(static_cast<CapturingTransmitter*>(m_pParticipant->getMessageTransmitter())) {}

    // A best-effort writer with one source locator.
    template <class W>
    W* MakeWriter(const DataWriterQos& qos, const Locator_t& source) {
        Writer* pWriter = m_pParticipant->createWriter(qos, ENTITYID_UNKNOWN);
        if (pWriter != nullptr) pWriter->setUnicastLocatorList(std::list<Locator_t>{source});
        return dynamic_cast<W*>(pWriter);
    }

    // True when the writer can be borrowed at once (and is given back): nobody holds it
    // or left it taken.
    bool WriterIsFree(const EntityId_t& writerId) {
        Endpoint* pEndpoint = m_pParticipant->tryTakeEndpoint(writerId);
        if (pEndpoint != nullptr) m_pParticipant->returnEndpoint(pEndpoint);
        return pEndpoint != nullptr;
    }

    // For a test that leaves a thread blocked on the participant: never delete it.
    void Abandon() { m_pParticipant.release(); }

    Participant& participant() { return *m_pParticipant; }
    CapturingTransmitter& transmitter() { return *m_pTransmitter; }
    const GuidPrefix& prefix() { return m_pParticipant->getGuidPrefix(); }

private:
    std::unique_ptr<Participant> m_pParticipant;
    CapturingTransmitter* m_pTransmitter = nullptr;
};
