// The protocol-level participant: owns the wire machinery (receive buffer, transmitter,
// processor, both schedulers, three threads) and every endpoint. Background threads reach an
// endpoint only through an EndpointLoan (takeEndpoint/returnEndpoint); m_EndpointMapMutex
// guards the endpoint map and is a leaf: no endpoint code runs under it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "rtps/RTPSEntity.h"

class DomainParticipantImpl;
class Discovery;
class Endpoint;
class ImmeditRequestScheduler;
class MessageProcessor;
class MessageTransmitter;
class PeriodRequestScheduler;
class ReceiveBuffer;
class RequestScheduler;
class StatefulReader;
class Thread;
class Writer;

class Participant : public RTPSEntity {
public:
    static constexpr uint32_t RECEIVE_BUFFER_SIZE = 52428800;  // 50 MiB
    static constexpr uint32_t BUILTIN_ENDPOINTS = 63;
    static constexpr uint32_t UNKNOWN_ADDRESS = 0xFFFFFFFF;  // also what a bad address parses to
    static constexpr const char* DEFAULT_MULTICAST_ADDRESS = "239.255.0.1";
    static constexpr int STOP_POLL_MS = 10;
    static constexpr int STOP_POLL_LIMIT = 3000;  // 10 ms each: about 30 s
    // A wait for a borrowed endpoint that lasts this long is logged, once per wait. The
    // longest legitimate hold is a fragment series or a repair burst, tens of milliseconds.
    static constexpr int BORROW_WAIT_LOG_MS = 1000;

    // Makes the transmitter over the participant's receive buffer; the participant owns the
    // result. Null selects MessageTransmitterUDP. Lets tests and tools run without sockets.
    typedef MessageTransmitter* (*TransmitterFactory)(ReceiveBuffer* pReceiveBuffer, int iLogKey);

    // Log key: the domain id (as for a first participant's log id, less the count);
    // no participant QoS until setParticipantQos.
    Participant(GUID_t guidValue, DomainParticipantImpl* pOwner);
    // pQos is the owner's QoS record that initLoaclNet completes (not owned; may be null).
    Participant(GUID_t guidValue, DomainParticipantImpl* pOwner, int iLogKey, DomainParticipantQos* pQos,
                TransmitterFactory pCreateTransmitter = nullptr);
    // Stops threads still running, then deletes endpoints, buffer, processor, transmitter,
    // schedulers and the mutex in that order.
    ~Participant() override;

    Participant(const Participant&) = delete;
    Participant& operator=(const Participant&) = delete;

    // ------------------------------------------------ wiring by the owner
    void setParticipantQos(DomainParticipantQos* pQos) { m_pParticipantQos = pQos; }
    DomainParticipantQos* getParticipantQos() const { return m_pParticipantQos; }
    // Forwarded to buffer, transmitter and schedulers. The processor keeps the key given
    // at construction: prefer the constructor that takes the key.
    void setLogKey(int iLogKey);
    int getLogKey() const { return m_iLogKey; }
    // Where lookupMatchedReader asks for the reader matched with a remote writer (not owned).
    void setDiscovery(Discovery* pDiscovery) { m_pDiscovery = pDiscovery; }
    Discovery* getDiscovery() const { return m_pDiscovery; }

    // ------------------------------------------------ start and stop (owner's thread)
    // initLoaclNet's result, logged when non-zero.
    int initParticipant();
    // Locators, sockets and the GUID's address; 1 when no adapter exists, else 0.
    int initLoaclNet();
    // Starts "<domain>_SEND", "<domain>_RECV" and "<domain>_DIST". 0, or 1 when a thread
    // could not be started (that one stays null).
    int startThreads();
    // Each clears its loop's run flag and wakes the loop, waits for the loop's stopped flag
    // and deletes the thread object. 0, or 1 when the loop did not end in time (logged).
    int stopRecvThread();
    int stopDistThread();
    int stopSendThread();

    // ------------------------------------------------ endpoints (application threads)
    // ENTITYID_UNKNOWN allots a fresh id; any other id is used as given.
    StatefulReader* createReader(DataReaderQos attributes, EntityId_t entityId);
    // reliability.kind 2 gives a StatefulWriter, 1 a StatelessWriter, others null.
    Writer* createWriter(DataWriterQos attributes, EntityId_t entityId);
    // Wait until nobody has the endpoint borrowed, then erase and delete it. Return 0.
    int deleteReader(Endpoint* pEndpoint);
    int deleteWriter(Endpoint* pEndpoint);

    // ------------------------------------------------ registry (any thread)
    // A borrowed endpoint, or one left taken, counts as existing.
    bool isEndpointExist(EntityId_t entityId);
    // Borrows the endpoint for the calling thread, waiting while another thread holds it.
    // Null, with a log line, when the id is unknown, when the endpoint was left taken on
    // purpose (keepEndpointTaken) or when the calling thread holds it already: each would
    // otherwise wait for ever. Background threads use EndpointLoan rather than this.
    Endpoint* takeEndpoint(EntityId_t entityId);
    // As takeEndpoint, but null at once (and silently) when another thread holds it.
    Endpoint* tryTakeEndpoint(const EntityId_t& entityId);
    // As takeEndpoint, but an unknown id is not logged: for callers that report it in their
    // own words, with a single look-up.
    Endpoint* takeEndpointIfExists(const EntityId_t& entityId);
    // 0, or 1 when the id has gone from the map (the endpoint then stays undeleted). Any
    // thread may give back, and giving back ends a keepEndpointTaken as well.
    int returnEndpoint(Endpoint* pEndpoint);
    // Leaves a borrowed endpoint out of the table on purpose: no thread can borrow it until
    // something returns it, and no thread waits for it either. Deleting it still works.
    void keepEndpointTaken(Endpoint* pEndpoint);
    // The local reader that Discovery matched with the remote writer, borrowed: the caller
    // returns it. Null when there is none.
    StatefulReader* lookupMatchedReader(GUID_t remoteWriter);

    // Walks over the application endpoints: built-in ones are skipped, and so is whatever
    // another thread holds at that moment. Each endpoint is borrowed for its step, with the
    // map lock released. Each returns 0.
    int checkWriterLiveliness(Time_t now);
    int checkReaderLiveliness(Time_t now);
    int assertWriterLiveliness(uint32_t uiLivelinessKind);
    int assertReaderLiveliness(GUID_t remote, Time_t now, uint32_t uiLivelinessKind);

    // ------------------------------------------------ accessors
    DomainParticipantImpl* getDomainParticipant() const { return m_DomainParticipant; }
    uint32_t getBuiltinEndpoints() const { return availableBuiltinEndpoints; }
    const std::list<Locator_t>& getDefaultUnicastLocatorList() const { return defaultUnicastLocatorList; }
    const std::list<Locator_t>& getDefaultMulticastLocatorList() const { return defaultMulticastLocatorList; }
    const octet* getProtocolVersion() const { return protocolVersion; }
    const octet* getVendorId() const { return vendorId; }
    const GUID_t& getGuid() const { return guid; }
    const GuidPrefix& getGuidPrefix() const { return guid.guidPrefix; }
    // Octets 4-7 and 8-11 of the prefix, in host order.
    int getDomainId() const;
    uint32_t getParticipantId() const;
    // The three ports of this participant.
    uint32_t getDiscoveryMulticastPort() const;
    uint32_t getDiscoveryUnicastPort() const;
    uint32_t getUserUnicastPort() const;

    ReceiveBuffer* getReceiveBuffer() const { return m_ReceiveBuffer; }
    MessageProcessor* getMessageProcessor() const { return m_MessageProcessor; }
    MessageTransmitter* getMessageTransmitter() const { return m_MessageTransmitter; }
    ImmeditRequestScheduler* getImmeditRequestScheduler() const { return m_ImmeditRequestScheduler; }
    PeriodRequestScheduler* getPeriodRequestScheduler() const { return m_PeriodRequestScheduler; }
    // The last keys handed out (the counters as they stand).
    uint32_t getWriterEntityKey() const { return m_WriterEntityKey; }
    uint32_t getReaderEntityKey() const { return m_ReaderEntityKey; }

    // inet_addr: dotted text (parts in decimal, octal or hex, 1 to 4 of them) to an address
    // in host order, UNKNOWN_ADDRESS when it does not parse.
    static uint32_t ParseAddress(const std::string& strAddress);
    // First octet of a parsed address at 0xE0 or above: multicast (or reserved, or a
    // failed parse). Zero is never counted.
    static bool IsMulticastAddress(uint32_t uiAddress);

private:
    EntityId_t allotWriterId();
    EntityId_t allotReaderId();
    // Element 0 immediate, element 1 periodic, as every endpoint takes them.
    void fillSchedulers(RequestScheduler* apSchedulers[2]) const;
    // One entry of the registry. The endpoint pointer stays while it is lent out, so that
    // deletion and teardown never lose it; holder says who has it.
    struct EndpointSlot {
        Endpoint* pEndpoint = nullptr;
        std::thread::id holder;   // default id: nobody holds it
        bool bKeptTaken = false;  // left taken on purpose; nobody will give it back
    };
    enum BorrowMode { BORROW_WAIT, BORROW_WAIT_QUIET, BORROW_NO_WAIT };
    // A second endpoint under one id replaces the first in the table, as it always did.
    void insertEndpoint(Endpoint* pEndpoint);
    // *pbExists (when given) turns false when the id is not in the map.
    Endpoint* borrow(const EntityId_t& entityId, BorrowMode mode, bool* pbExists = nullptr);
    // One wait for a return (at most 100 ms), logging once when the wait since start has
    // passed BORROW_WAIT_LOG_MS.
    void waitForReturn(std::unique_lock<std::mutex>& lock, const std::chrono::steady_clock::time_point& start,
                       bool& bLogged, const char* szOperation);
    // Waits until no thread holds the id, then erases it; false if it was not there (or is
    // held by the calling thread, which would wait for itself). Deletion happens after,
    // outside the lock.
    bool eraseWhenReturned(Endpoint* pEndpoint, const char* szOperation);
    // Ids of the application endpoints of one side, copied under the lock.
    std::vector<EntityId_t> applicationEndpointIds(bool bWriters);
    // Borrows each id in turn without waiting, runs fnStep on it with the lock released, and
    // gives it back.
    void walk(const std::vector<EntityId_t>& ids, const std::function<void(Endpoint*)>& fnStep);
    bool isBuiltinWriterId(const EntityId_t& entityId) const;
    bool isBuiltinReaderId(const EntityId_t& entityId) const;
    // Polls isStopped every 10 ms (bounded), then deletes the thread object.
    int waitStopped(const char* szOperation, const std::function<bool()>& isStopped, Thread*& pThread);
    void addUnicastLocator(uint32_t uiHostAddress);
    void LogText(const char* szFormat, ...) const __attribute__((format(printf, 2, 3)));

    octet protocolVersion[2];
    octet vendorId[2];
    uint32_t availableBuiltinEndpoints;
    std::list<Locator_t> defaultUnicastLocatorList;
    std::list<Locator_t> defaultMulticastLocatorList;
    DomainParticipantImpl* m_DomainParticipant;  // not owned
    uint32_t m_WriterEntityKey;                  // changed outside the mutex
    uint32_t m_ReaderEntityKey;
    std::map<EntityId_t, EndpointSlot> m_EndpointMap;    // owned endpoints
    std::mutex m_EndpointMapMutex;                       // leaf: map work only
    std::condition_variable m_EndpointReturned;          // a slot became free or went away
    ImmeditRequestScheduler* m_ImmeditRequestScheduler;  // owned
    PeriodRequestScheduler* m_PeriodRequestScheduler;    // owned
    ReceiveBuffer* m_ReceiveBuffer;                      // owned
    MessageProcessor* m_MessageProcessor;                // owned
    MessageTransmitter* m_MessageTransmitter;            // owned; UDP unless a factory was given
    Thread* m_SendThread;                                // owned; null until started
    Thread* m_RecvThread;
    Thread* m_DistThread;

    int m_iLogKey;
    DomainParticipantQos* m_pParticipantQos;  // the owner's; not owned
    Discovery* m_pDiscovery;                  // not owned
    bool m_bThreadStuck;                      // a stop timed out: keep the machinery
};
