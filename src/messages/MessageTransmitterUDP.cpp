#include "messages/MessageTransmitterUDP.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "core/SystemClock.h"
#include "messages/ReceiveBuffer.h"

namespace {
const int INVALID_SOCKET_FD = -1;

// The IPv4 address of a locator as the 32-bit value of its last four octets,
// left in network order.
uint32_t AddressOf(const Locator_t& locator) {
    uint32_t uiAddress = 0;
    std::memcpy(&uiAddress, &locator.address[12], sizeof(uiAddress));
    return uiAddress;
}

uint16_t PortOf(const Locator_t& locator) {
    return static_cast<uint16_t>(locator.port & 0xFFFF);
}

// Class D and above: the top three bits of the first address octet set.
bool IsMulticast(const Locator_t& locator) {
    return (locator.address[12] & 0xE0) == 0xE0;
}

sockaddr_in SocketAddress(uint32_t uiAddress, uint16_t usPort) {
    sockaddr_in address;
    std::memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = uiAddress;
    address.sin_port = htons(usPort);
    return address;
}

int SetIntOption(int iSocket, int iLevel, int iName, int iValue) {
    return setsockopt(iSocket, iLevel, iName, &iValue, sizeof(iValue));
}
}  // namespace

MessageTransmitterUDP::MessageTransmitterUDP(ReceiveBuffer* pReceiveBuffer, int iLogKey)
    : MessageTransmitter(pReceiveBuffer),
      m_pRecvBuffer(new octet[RECV_BUFFER_SIZE]),
      m_iHighestSocket(0),
      m_iReadSetCount(0),
      m_iWakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    // The socket library needs no start-up here.
    SetLogKey(iLogKey);
    std::memset(m_aReadSet, 0, sizeof(m_aReadSet));
}

MessageTransmitterUDP::~MessageTransmitterUDP() {
    m_SocketMapLock.Lock();
    for (auto& entry : m_SendSocket) {
        if (entry.second != INVALID_SOCKET_FD) close(entry.second);
    }
    m_SendSocket.clear();
    for (auto& entry : m_ReceiveSocket) close(entry.second);
    m_ReceiveSocket.clear();
    m_SocketMapLock.Unlock();
    if (m_iWakeFd >= 0) close(m_iWakeFd);
    delete[] m_pRecvBuffer;
}

void MessageTransmitterUDP::WakeReceive() {
    if (m_iWakeFd < 0) return;
    // Wakes the loop so a stop takes milliseconds, not a second. A counter
    // already at its limit refuses the add, and is readable all the same.
    uint64_t ullOne = 1;
    ssize_t iWritten = write(m_iWakeFd, &ullOne, sizeof(ullOne));
    (void)iWritten;
}

void MessageTransmitterUDP::LogText(const char* szFormat, ...) const {
    char szLog[200];
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szLog, sizeof(szLog), szFormat, args);
    va_end(args);
    Log(szLog, DDSLOG_INFO);
}

int MessageTransmitterUDP::SendAddrAdd(Locator_t locator) {
    uint32_t uiAddress = AddressOf(locator);
    m_SocketMapLock.Lock();
    bool bKnown = m_SendSocket.count(uiAddress) != 0;
    m_SocketMapLock.Unlock();
    if (bKnown) return 0;

    int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        LogText("[MessageTransmitterUDP::SendAddrAdd] socket Create Error and erron = %d", errno);
        return 1;
    }
    if (SetIntOption(iSocket, IPPROTO_IP, IP_MULTICAST_TTL, SEND_TTL) != 0)
        printf("set NewSocket IP_MULTICAST_TTL error\n");
    if (SetIntOption(iSocket, IPPROTO_IP, IP_TTL, SEND_TTL) != 0) printf("set NewSendSocket IP_TTL error\n");
    if (SetIntOption(iSocket, IPPROTO_IP, IP_TOS, SEND_TOS) != 0)
        printf("set NewSendSocket IP_TTL error\n");  // shares the TTL line on purpose

    sockaddr_in address = SocketAddress(uiAddress, 0);
    if (bind(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        // The socket is deliberately not closed (established behaviour); the
        // address stays unregistered, so this happens once per set-up call.
        LogText("[MessageTransmitterUDP::SendAddrAdd] bind Error and error = %d", errno);
        return 1;
    }

    m_SocketMapLock.Lock();
    m_SendSocket[uiAddress] = iSocket;
    m_SocketMapLock.Unlock();
    return 0;
}

int MessageTransmitterUDP::MessageSend(const std::list<Locator_t>& sourceList,
                                       const std::list<Locator_t>& destinationList, const octet* pMessage,
                                       uint32_t uiLength) {
    // Once from every local address to every destination; a failed pair is
    // logged below and the others still go.
    for (const Locator_t& source : sourceList) {
        for (const Locator_t& destination : destinationList)
            MessageSend(Locator_t(source), Locator_t(destination), pMessage, uiLength);
    }
    return 0;
}

int MessageTransmitterUDP::MessageSend(Locator_t source, Locator_t destination, const octet* pMessage,
                                       uint32_t uiLength) {
    uint32_t uiSource = AddressOf(source);
    uint32_t uiDestination = AddressOf(destination);
    uint16_t usPort = PortOf(destination);

    m_SocketMapLock.Lock();
    bool bLocal = std::memcmp(source.address, destination.address, sizeof(source.address)) == 0 &&
                  m_ReceiveSocket.count(usPort) != 0;
    int iSocket = INVALID_SOCKET_FD;
    if (!bLocal) {
        // An unknown source address gets an entry without a socket: its sends
        // fail and are logged, and SendAddrAdd then counts it as known.
        // try_emplace: a known address, the usual case, costs no node allocation.
        auto it = m_SendSocket.try_emplace(uiSource, INVALID_SOCKET_FD).first;
        iSocket = it->second;
    }
    m_SocketMapLock.Unlock();

    if (bLocal) {
        // For this very participant: straight into the ring, never on the wire.
        // A full ring drops it; the protocol above repairs what it must.
        if (m_pReceiveBuffer != nullptr) m_pReceiveBuffer->Write(pMessage, uiLength);
        return 0;
    }

    sockaddr_in address = SocketAddress(uiDestination, usPort);
    ssize_t iSent =
        sendto(iSocket, pMessage, uiLength, 0, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    if (iSent >= 0) return 0;

    LogText("[MessageTransmitterUDP::MessageSend] and Errorno = %d and SrcAdd:%d.%d dst:%X.%d", errno,
            static_cast<int>(uiSource), static_cast<int>(source.port), uiDestination,
            static_cast<int>(destination.port));
    return RESULT_SEND_FAILED;
}

int MessageTransmitterUDP::MessageSend(const Locator_t* pSource, const Locator_t* pDestination,
                                       const octet* pMessage, uint32_t uiLength) {
    if (pSource == nullptr || pDestination == nullptr) return 1;
    return MessageSend(*pSource, *pDestination, pMessage, uiLength);
}

int MessageTransmitterUDP::ReceiveAddrAdd(Locator_t locator) {
    int iResult = addRecvSocket(locator);
    if (iResult != 0) {
        LogText("[MessageTransmitterUDP::ReceiveAddrAdd] addRecvSocket Error and Ret = %d", iResult);
        return iResult;
    }
    iResult = addMemberShip(locator);
    if (iResult != 0) {
        LogText("[MessageTransmitterUDP::ReceiveAddrAdd] addMemberShip Error and Ret = %d", errno);
        return iResult;
    }
    return 0;
}

int MessageTransmitterUDP::ReceiveAddrRemove(Locator_t locator) {
    // The socket stays open and registered; only the membership is at stake.
    int iResult = dropMemberShip(locator);
    if (iResult != 0) {
        LogText("[MessageTransmitterUDP::ReceiveAddrRemove] dropMemberShip Error and Ret = %d", iResult);
        return iResult;
    }
    return 0;
}

int MessageTransmitterUDP::addRecvSocket(const Locator_t& locator) {
    uint16_t usPort = PortOf(locator);
    uint32_t uiAddress = AddressOf(locator);
    m_SocketMapLock.Lock();
    bool bKnown = m_ReceiveSocket.count(usPort) != 0;
    m_SocketMapLock.Unlock();
    // One socket per port, for unicast and multicast alike.
    if (bKnown) return 0;

    int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        LogText("[MessageTransmitterUDP::addRecvSocket] sock create and errno = %d and RecvAddr = %x.%d",
                errno, uiAddress, static_cast<int>(usPort));
        return RESULT_SOCKET_SETUP_FAILED;
    }
    // A socket that fails a set-up step is closed again: the port stays free
    // for a later attempt.
    if (SetIntOption(iSocket, SOL_SOCKET, SO_REUSEADDR, 1) != 0) {
        int iError = errno;
        close(iSocket);
        LogText(
            "[MessageTransmitterUDP::addRecvSocket] Set SO_REUSEADDRL and errno = %d and RecvAddr = %x.%d",
            iError, uiAddress, static_cast<int>(usPort));
        return RESULT_SOCKET_SETUP_FAILED;
    }
    // Wildcard: the port hears unicast to every local address and every group
    // joined on it.
    sockaddr_in address = SocketAddress(htonl(INADDR_ANY), usPort);
    if (bind(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        int iError = errno;
        close(iSocket);
        LogText("[MessageTransmitterUDP::addRecvSocket] bind Error and errno = %d and RecvAddr = %x.%d",
                iError, uiAddress, static_cast<int>(usPort));
        return RESULT_SOCKET_SETUP_FAILED;
    }
    // After the bind, so that nothing resizes the queue behind it.
    if (SetIntOption(iSocket, SOL_SOCKET, SO_RCVBUF, SOCKET_RCVBUF_SIZE) != 0) {
        int iError = errno;
        close(iSocket);
        LogText(
            "[MessageTransmitterUDP::addRecvSocket] Set SO_RCVBUF Error and errno = %d and RecvAddr = %x.%d",
            iError, uiAddress, static_cast<int>(usPort));
        return RESULT_SOCKET_SETUP_FAILED;
    }

    m_SocketMapLock.Lock();
    if (iSocket > m_iHighestSocket) m_iHighestSocket = iSocket;
    m_ReceiveSocket[usPort] = iSocket;
    m_SocketMapLock.Unlock();
    return 0;
}

int MessageTransmitterUDP::addMemberShip(const Locator_t& locator) {
    // Unicast needs nothing beyond the socket.
    if (!IsMulticast(locator)) return 0;

    uint16_t usPort = PortOf(locator);
    uint32_t uiAddress = AddressOf(locator);
    int iSocket = GetReceiveSocket(usPort);
    ip_mreq request;
    std::memset(&request, 0, sizeof(request));
    request.imr_multiaddr.s_addr = uiAddress;
    request.imr_interface.s_addr = htonl(INADDR_ANY);
    if (setsockopt(iSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) != 0) {
        int iError = errno;
        printf("Err %d \n", iError);
        LogText(
            "[MessageTransmitterUDP::addMemberShip] IP_ADD_MEMBERSHIP  Error and errno = %d and RecvAddr = "
            "%x.%d",
            iError, uiAddress, static_cast<int>(usPort));
        errno = iError;  // the caller logs it too
        return RESULT_SOCKET_SETUP_FAILED;
    }
    return 0;
}

int MessageTransmitterUDP::dropMemberShip(const Locator_t& locator) {
    // The test is deliberately the reverse of addMemberShip's: a group, once
    // joined, stays joined until the socket closes, since several readers of
    // one participant may share it and nothing counts them. A unicast address
    // is asked to leave, which the system refuses, and that is reported.
    if (IsMulticast(locator)) return 0;

    uint16_t usPort = PortOf(locator);
    uint32_t uiAddress = AddressOf(locator);
    // An unknown port gets no map entry here; the request then fails on no socket.
    int iSocket = GetReceiveSocket(usPort);
    ip_mreq request;
    std::memset(&request, 0, sizeof(request));
    request.imr_multiaddr.s_addr = uiAddress;
    request.imr_interface.s_addr = htonl(INADDR_ANY);
    if (setsockopt(iSocket, IPPROTO_IP, IP_DROP_MEMBERSHIP, &request, sizeof(request)) != 0) {
        int iError = errno;
        printf("Add membership err \n");
        LogText(
            "[MessageTransmitterUDP::dropMemberShip] IP_DROP_MEMBERSHIP Error and errno = %d and RecvAddr = "
            "%x.%d",
            iError, uiAddress, static_cast<int>(usPort));
        return 1;
    }
    return 0;
}

int MessageTransmitterUDP::ReceiveMessage() {
    // Watch at most 64 sockets, in port order; any further one is never read.
    m_SocketMapLock.Lock();
    m_iReadSetCount = 0;
    for (auto& entry : m_ReceiveSocket) {
        if (m_iReadSetCount >= MAX_WATCHED_SOCKETS) break;
        m_aReadSet[m_iReadSetCount++] = entry.second;
    }
    m_SocketMapLock.Unlock();

    if (m_iReadSetCount == 0) {
        LogText("[MessageTransmitterUDP::ReceiveMessage] m_ReceiveSocket.Size() = 0");
        SystemClock::SleepMs(10);
        return RESULT_NO_RECEIVE_SOCKET;
    }

    // One slot more than the cap: the wake descriptor rides behind the sockets.
    pollfd aPoll[MAX_WATCHED_SOCKETS + 1];
    for (int i = 0; i < m_iReadSetCount; ++i) {
        aPoll[i].fd = m_aReadSet[i];
        aPoll[i].events = POLLIN;
        aPoll[i].revents = 0;
    }
    nfds_t uiPollCount = static_cast<nfds_t>(m_iReadSetCount);
    if (m_iWakeFd >= 0) {
        aPoll[uiPollCount].fd = m_iWakeFd;
        aPoll[uiPollCount].events = POLLIN;
        aPoll[uiPollCount].revents = 0;
        ++uiPollCount;
    }
    int iReady = poll(aPoll, uiPollCount, SELECT_TIMEOUT_MS);
    if (iReady < 0) return RESULT_SELECT_FAILED;
    if (m_iWakeFd >= 0 && aPoll[m_iReadSetCount].revents != 0) {
        // A wake (the loop is being stopped) ends the wait like a time-out, unless
        // a socket is ready too. Drained, so that a later wait waits again.
        uint64_t ullCount = 0;
        ssize_t iRead = read(m_iWakeFd, &ullCount, sizeof(ullCount));
        (void)iRead;
        --iReady;
    }
    if (iReady == 0) return RESULT_SELECT_TIMEOUT;

    for (int i = 0; i < m_iReadSetCount; ++i) {
        // A socket that is no socket fails the whole wait, as it would in select.
        if (aPoll[i].revents & POLLNVAL) return RESULT_SELECT_FAILED;
    }
    for (int i = 0; i < m_iReadSetCount; ++i) {
        if ((aPoll[i].revents & (POLLIN | POLLERR | POLLHUP)) == 0) continue;
        int iResult = DrainSocket(aPoll[i].fd);
        if (iResult != 0) return iResult;
    }
    return 0;
}

int MessageTransmitterUDP::DrainSocket(int iSocket) {
    // A readable socket is emptied, not sampled: one datagram per wait lets a
    // burst outrun the thread (every pass costs a poll and, under load, a turn
    // of the scheduler), and the kernel then drops at the socket. The bound keeps
    // one busy socket from starving the others and the run flag.
    for (int iTaken = 0; iTaken < MAX_DATAGRAMS_PER_SOCKET; ++iTaken) {
        sockaddr_in sender;
        socklen_t senderLength = sizeof(sender);
        // Non-blocking: readiness may be withdrawn (a datagram dropped on a bad
        // checksum), and the loop must still come back to its run flag.
        ssize_t iReceived = recvfrom(iSocket, m_pRecvBuffer, RECV_BUFFER_SIZE, MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr*>(&sender), &senderLength);
        if (iReceived < 0) {
            int iError = errno;
            // An empty queue behind at least one datagram is the end of the drain,
            // not a fault. The first read after the wait is reported as ever.
            if (iTaken > 0 && (iError == EAGAIN || iError == EWOULDBLOCK)) return 0;
            LogText("[MessageTransmitterUDP::ReceiveMessage] recvform error and errno = %d", iError);
            return RESULT_RECVFROM_FAILED;
        }
        if (m_pReceiveBuffer != nullptr)
            m_pReceiveBuffer->Write(m_pRecvBuffer, static_cast<uint32_t>(iReceived));
    }
    return 0;
}

size_t MessageTransmitterUDP::GetSendSocketCount() {
    m_SocketMapLock.Lock();
    size_t uiCount = m_SendSocket.size();
    m_SocketMapLock.Unlock();
    return uiCount;
}

size_t MessageTransmitterUDP::GetReceiveSocketCount() {
    m_SocketMapLock.Lock();
    size_t uiCount = m_ReceiveSocket.size();
    m_SocketMapLock.Unlock();
    return uiCount;
}

int MessageTransmitterUDP::GetSendSocket(uint32_t uiAddress) {
    m_SocketMapLock.Lock();
    auto it = m_SendSocket.find(uiAddress);
    int iSocket = it == m_SendSocket.end() ? INVALID_SOCKET_FD : it->second;
    m_SocketMapLock.Unlock();
    return iSocket;
}

int MessageTransmitterUDP::GetReceiveSocket(uint16_t usPort) {
    m_SocketMapLock.Lock();
    auto it = m_ReceiveSocket.find(usPort);
    int iSocket = it == m_ReceiveSocket.end() ? INVALID_SOCKET_FD : it->second;
    m_SocketMapLock.Unlock();
    return iSocket;
}
