#include "rtps/Participant.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <thread>

#include "DDSLogManagementFactory.h"
#include "MorvoFun.h"
#include "core/Thread.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitter.h"
#include "messages/MessageTransmitterUDP.h"
#include "messages/ReceiveBuffer.h"
#include "requests/ImmeditRequestScheduler.h"
#include "requests/PeriodRequestScheduler.h"
#include "rtps/Endpoint.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"
#include "rtps/StatelessWriter.h"
#include "rtps/Writer.h"

namespace {
int DomainIdOf(const GUID_t& guidValue) {
    int iDomainId = 0;
    std::memcpy(&iDomainId, &guidValue.guidPrefix.value[4], sizeof(iDomainId));
    return iDomainId;
}

EntityId_t BigEndianId(uint32_t uiValue) {
    EntityId_t id;
    id.entityKey[0] = octet(uiValue >> 24);
    id.entityKey[1] = octet(uiValue >> 16);
    id.entityKey[2] = octet(uiValue >> 8);
    id.entityKind = octet(uiValue);
    return id;
}
}  // namespace

Participant::Participant(GUID_t guidValue, DomainParticipantImpl* pOwner)
    : Participant(guidValue, pOwner, DomainIdOf(guidValue), nullptr, nullptr) {}

Participant::Participant(GUID_t guidValue, DomainParticipantImpl* pOwner, int iLogKey,
                         DomainParticipantQos* pQos, TransmitterFactory pCreateTransmitter)
    : RTPSEntity(guidValue),
      protocolVersion{2, 2},
      vendorId{8, 8},
      availableBuiltinEndpoints(BUILTIN_ENDPOINTS),
      defaultUnicastLocatorList(),
      defaultMulticastLocatorList(),
      m_DomainParticipant(pOwner),
      // The shift drops all but the low byte of the domain id: domain 256 allots as 0.
      m_WriterEntityKey((uint32_t(DomainIdOf(guidValue)) << 24) | 0x40000),
      m_ReaderEntityKey((uint32_t(DomainIdOf(guidValue)) << 24) | 0x90000),
      m_EndpointMap(),
      m_ImmeditRequestScheduler(nullptr),
      m_PeriodRequestScheduler(nullptr),
      m_ReceiveBuffer(nullptr),
      m_MessageProcessor(nullptr),
      m_MessageTransmitter(nullptr),
      m_SendThread(nullptr),
      m_RecvThread(nullptr),
      m_DistThread(nullptr),
      m_iLogKey(iLogKey),
      m_pParticipantQos(pQos),
      m_pDiscovery(nullptr),
      m_bThreadStuck(false) {
    // No socket opens here: initLoaclNet does that.
    m_ReceiveBuffer = new (std::nothrow) ReceiveBuffer(RECEIVE_BUFFER_SIZE);
    if (m_ReceiveBuffer != nullptr) m_ReceiveBuffer->SetDomainId(uint32_t(iLogKey));
    if (pCreateTransmitter != nullptr)
        m_MessageTransmitter = pCreateTransmitter(m_ReceiveBuffer, iLogKey);
    else
        m_MessageTransmitter = new (std::nothrow) MessageTransmitterUDP(m_ReceiveBuffer, iLogKey);
    if (m_MessageTransmitter != nullptr) m_MessageTransmitter->SetLogKey(iLogKey);
    m_MessageProcessor = new (std::nothrow) MessageProcessor(this, m_ReceiveBuffer, guid.guidPrefix, iLogKey);
    m_ImmeditRequestScheduler =
        new (std::nothrow) ImmeditRequestScheduler(m_MessageProcessor, m_MessageTransmitter);
    if (m_ImmeditRequestScheduler != nullptr) m_ImmeditRequestScheduler->SetLogKey(iLogKey);
    m_PeriodRequestScheduler =
        new (std::nothrow) PeriodRequestScheduler(m_MessageProcessor, m_MessageTransmitter);
    if (m_PeriodRequestScheduler != nullptr) m_PeriodRequestScheduler->SetLogKey(iLogKey);
}

Participant::~Participant() {
    // A loop still running would outlive the objects it works on.
    if (m_RecvThread != nullptr) stopRecvThread();
    if (m_DistThread != nullptr) stopDistThread();
    if (m_SendThread != nullptr) stopSendThread();

    // Collected under the lock, deleted after it: an endpoint's destructor may stop timers
    // and periodic requests whose callbacks borrow endpoints.
    std::map<EntityId_t, EndpointSlot> endpoints;
    {
        std::lock_guard<std::mutex> lock(m_EndpointMapMutex);
        endpoints.swap(m_EndpointMap);
    }
    for (auto& entry : endpoints) delete entry.second.pEndpoint;

    if (m_bThreadStuck) {
        // A loop that never ended still uses the machinery: leaking it is the lesser harm.
        LogText("[Participant::~Participant] thread did not stop, machinery kept");
        return;
    }
    delete m_ReceiveBuffer;
    delete m_MessageProcessor;
    delete m_MessageTransmitter;
    delete m_ImmeditRequestScheduler;
    delete m_PeriodRequestScheduler;
}

void Participant::setLogKey(int iLogKey) {
    m_iLogKey = iLogKey;
    if (m_ReceiveBuffer != nullptr) m_ReceiveBuffer->SetDomainId(uint32_t(iLogKey));
    if (m_MessageTransmitter != nullptr) m_MessageTransmitter->SetLogKey(iLogKey);
    if (m_ImmeditRequestScheduler != nullptr) m_ImmeditRequestScheduler->SetLogKey(iLogKey);
    if (m_PeriodRequestScheduler != nullptr) m_PeriodRequestScheduler->SetLogKey(iLogKey);
}

int Participant::getDomainId() const {
    return DomainIdOf(guid);
}

uint32_t Participant::getParticipantId() const {
    uint32_t uiParticipantId = 0;
    std::memcpy(&uiParticipantId, &guid.guidPrefix.value[8], sizeof(uiParticipantId));
    return uiParticipantId;
}

// The port formulas are fixed: no base, gain or offset is configurable.
uint32_t Participant::getDiscoveryMulticastPort() const {
    return 7400u + 250u * uint32_t(getDomainId());
}

uint32_t Participant::getDiscoveryUnicastPort() const {
    return 7410u + 250u * uint32_t(getDomainId()) + 2u * getParticipantId();
}

uint32_t Participant::getUserUnicastPort() const {
    return 7411u + 250u * uint32_t(getDomainId()) + 2u * getParticipantId();
}

// ------------------------------------------------------------------ endpoints

EntityId_t Participant::allotWriterId() {
    m_WriterEntityKey += 256;
    return BigEndianId(m_WriterEntityKey + 3);
}

EntityId_t Participant::allotReaderId() {
    m_ReaderEntityKey += 256;
    return BigEndianId(m_ReaderEntityKey + 4);
}

void Participant::fillSchedulers(RequestScheduler* apSchedulers[2]) const {
    apSchedulers[0] = m_ImmeditRequestScheduler;
    apSchedulers[1] = m_PeriodRequestScheduler;
}

StatefulReader* Participant::createReader(DataReaderQos attributes, EntityId_t entityId) {
    GUID_t readerGuid(guid.guidPrefix, entityId == ENTITYID_UNKNOWN ? allotReaderId() : entityId);
    RequestScheduler* apSchedulers[2];
    fillSchedulers(apSchedulers);
    StatefulReader* pReader = new (std::nothrow) StatefulReader(readerGuid, attributes, apSchedulers);
    if (pReader == nullptr) return nullptr;
    pReader->setUnicastLocatorList(defaultUnicastLocatorList);

    insertEndpoint(pReader);

    const TransportMulticastSettingSeq& settings = attributes.multicast.value;
    for (uint32_t i = 0; i < settings.length; ++i) {
        Locator_t locator;
        locator.kind = LOCATOR_KIND_UDPv4;
        locator.port = settings[i].receive_port;
        locator.SetIPv4(ParseAddress(settings[i].receive_address));
        if (m_MessageTransmitter != nullptr) m_MessageTransmitter->ReceiveAddrAdd(locator);
    }
    pReader->afterCreate();
    return pReader;
}

Writer* Participant::createWriter(DataWriterQos attributes, EntityId_t entityId) {
    GUID_t writerGuid(guid.guidPrefix, entityId == ENTITYID_UNKNOWN ? allotWriterId() : entityId);
    RequestScheduler* apSchedulers[2];
    fillSchedulers(apSchedulers);
    Writer* pWriter = nullptr;
    if (attributes.reliability.kind == RELIABLE_RELIABILITY_QOS)
        pWriter = new (std::nothrow) StatefulWriter(writerGuid, attributes, apSchedulers);
    else if (attributes.reliability.kind == BEST_EFFORT_RELIABILITY_QOS)
        pWriter = new (std::nothrow) StatelessWriter(writerGuid, attributes, apSchedulers);
    if (pWriter == nullptr) return nullptr;
    pWriter->setUnicastLocatorList(defaultUnicastLocatorList);

    insertEndpoint(pWriter);
    return pWriter;
}

void Participant::insertEndpoint(Endpoint* pEndpoint) {
    std::lock_guard<std::mutex> lock(m_EndpointMapMutex);
    EndpointSlot& slot = m_EndpointMap[pEndpoint->getEntityId()];
    slot.pEndpoint = pEndpoint;
    slot.holder = std::thread::id();
    slot.bKeptTaken = false;
}

// ------------------------------------------------------------------ threads

int Participant::startThreads() {
    const std::string strDomain = MorvoFun::IntToString(getDomainId());
    struct Start {
        Thread*& pThread;
        thread_entry entry;
        void* pArgument;
        const char* szSuffix;
    };
    Start aStarts[] = {
        {m_SendThread, &ImmeditRequestScheduler::SendRun, m_ImmeditRequestScheduler, "_SEND"},
        {m_RecvThread, &MessageTransmitter::TransmitRun, m_MessageTransmitter, "_RECV"},
        {m_DistThread, &MessageProcessor::ProcessRun, m_MessageProcessor, "_DIST"},
    };
    int iResult = 0;
    for (Start& start : aStarts) {
        if (start.pThread != nullptr) continue;  // already running
        if (start.pArgument == nullptr) {
            iResult = 1;  // its loop object was never made
            continue;
        }
        // The default stack (1 MiB): the process loop decodes into 64 KiB on its stack.
        Thread* pThread = new (std::nothrow) Thread();
        if (pThread == nullptr || pThread->Start(start.entry, start.pArgument, THREAD_PRIORITY_NORMAL_LEVEL,
                                                 strDomain + start.szSuffix) != 0) {
            LogText("[Participant::startThreads] Start Error and name = %s%s", strDomain.c_str(),
                    start.szSuffix);
            delete pThread;
            iResult = 1;
            continue;
        }
        start.pThread = pThread;
    }
    return iResult;
}

int Participant::waitStopped(const char* szOperation, const std::function<bool()>& isStopped,
                             Thread*& pThread) {
    if (pThread == nullptr) return 0;  // never started: no loop will raise the stopped flag
    // Every loop wakes at least once a second, so 30 s means it hangs; waiting for ever
    // would hang the application's delete_participant with it.
    int iPolls = 0;
    while (!isStopped() && iPolls < STOP_POLL_LIMIT) {
        MorvoFun::DDS_msleep(STOP_POLL_MS);
        ++iPolls;
    }
    const bool bStopped = isStopped();
    if (!bStopped) {
        LogText("[Participant::%s] thread did not stop within %d ms", szOperation,
                STOP_POLL_LIMIT * STOP_POLL_MS);
        m_bThreadStuck = true;
    }
    delete pThread;
    pThread = nullptr;
    return bStopped ? 0 : 1;
}

int Participant::stopRecvThread() {
    MessageTransmitter* pTransmitter = m_MessageTransmitter;
    if (pTransmitter == nullptr) return 0;
    // Clears the run flag and wakes the loop, so a stop takes milliseconds, not a second.
    pTransmitter->RequestStop();
    return waitStopped(
        "stopRecvThread", [pTransmitter] { return pTransmitter->GetStoppedFlag() == 1; }, m_RecvThread);
}

int Participant::stopDistThread() {
    MessageProcessor* pProcessor = m_MessageProcessor;
    if (pProcessor == nullptr) return 0;
    // Clears the run flag and wakes the loop, so a stop takes milliseconds, not a second.
    pProcessor->RequestStop();
    return waitStopped(
        "stopDistThread", [pProcessor] { return pProcessor->IsStopped(); }, m_DistThread);
}

int Participant::stopSendThread() {
    ImmeditRequestScheduler* pScheduler = m_ImmeditRequestScheduler;
    if (pScheduler == nullptr) return 0;
    // Clears the run flag and wakes the loop, so a stop takes milliseconds, not a second.
    pScheduler->RequestStop();
    return waitStopped(
        "stopSendThread", [pScheduler] { return pScheduler->GetStoppedFlag() == 1; }, m_SendThread);
}

void Participant::LogText(const char* szFormat, ...) const {
    char szLog[200];
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szLog, sizeof(szLog), szFormat, args);
    va_end(args);
    DDSLogManagementFactory::WriteDDSLog(m_iLogKey, szLog, strlen(szLog), DDSLOG_INFO, guid);
}
