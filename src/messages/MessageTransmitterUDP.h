// IPv4 UDP transport: one send socket per local address, one receive socket per
// port, and the receive thread's pass over those sockets into the ReceiveBuffer.
// A leaf lock guards only the two socket maps; no call blocks while holding it.
#pragma once

#include <cstdint>
#include <map>

#include "core/Mutex.h"
#include "messages/MessageTransmitter.h"

class MessageTransmitterUDP : public MessageTransmitter {
public:
    static constexpr uint32_t RECV_BUFFER_SIZE = 6553600;
    static constexpr int MAX_WATCHED_SOCKETS = 64;
    static constexpr int SELECT_TIMEOUT_MS = 1000;
    // Datagrams taken from one readable socket in one pass, at most.
    static constexpr int MAX_DATAGRAMS_PER_SOCKET = 256;
    static constexpr int SOCKET_RCVBUF_SIZE = 0x600000;
    static constexpr int SEND_TTL = 64;
    static constexpr int SEND_TOS = 1;

    // Result numbers of this transport.
    static constexpr int RESULT_SEND_FAILED = 51;
    static constexpr int RESULT_SOCKET_SETUP_FAILED = 52;
    static constexpr int RESULT_RECVFROM_FAILED = 56;
    static constexpr int RESULT_SELECT_FAILED = 57;
    static constexpr int RESULT_SELECT_TIMEOUT = 58;
    static constexpr int RESULT_NO_RECEIVE_SOCKET = 100;

    explicit MessageTransmitterUDP(ReceiveBuffer* pReceiveBuffer, int iLogKey = 0);
    ~MessageTransmitterUDP() override;

    int SendAddrAdd(Locator_t locator) override;
    int MessageSend(const std::list<Locator_t>& sourceList, const std::list<Locator_t>& destinationList,
                    const octet* pMessage, uint32_t uiLength) override;
    int MessageSend(Locator_t source, Locator_t destination, const octet* pMessage,
                    uint32_t uiLength) override;
    int MessageSend(const Locator_t* pSource, const Locator_t* pDestination, const octet* pMessage,
                    uint32_t uiLength) override;
    int ReceiveMessage() override;
    int ReceiveAddrAdd(Locator_t locator) override;
    int ReceiveAddrRemove(Locator_t locator) override;

    // Inspection, for the owner's diagnostics and for tests.
    size_t GetSendSocketCount();
    size_t GetReceiveSocketCount();
    // The socket of a local address (network order, as in the locator) or of a
    // port; -1 when there is none.
    int GetSendSocket(uint32_t uiAddress);
    int GetReceiveSocket(uint16_t usPort);
    int GetHighestSocket() const { return m_iHighestSocket; }

protected:
    // Signals m_iWakeFd: the wait of ReceiveMessage ends at once, so a stop takes
    // milliseconds, not a second.
    void WakeReceive() override;

private:
    int addRecvSocket(const Locator_t& locator);
    int addMemberShip(const Locator_t& locator);
    int dropMemberShip(const Locator_t& locator);
    // Reads a socket that the wait reported readable into the ring until it is
    // empty, at most MAX_DATAGRAMS_PER_SOCKET datagrams, in arrival order.
    // 0, or RESULT_RECVFROM_FAILED (logged).
    int DrainSocket(int iSocket);
    void LogText(const char* szFormat, ...) const __attribute__((format(printf, 2, 3)));

    octet* m_pRecvBuffer;                     // owned; receive thread only
    std::map<uint32_t, int> m_SendSocket;     // address (network order) -> socket
    std::map<uint16_t, int> m_ReceiveSocket;  // port -> socket
    int m_iHighestSocket;
    int m_aReadSet[MAX_WATCHED_SOCKETS];  // rebuilt on every pass
    int m_iReadSetCount;
    Mutex m_SocketMapLock;  // leaf: guards the two maps only
    // Watched beside the receive sockets, outside their cap of 64, only to end the
    // wait early; -1 when the system gave none (the wait then runs its full second).
    int m_iWakeFd;
};
