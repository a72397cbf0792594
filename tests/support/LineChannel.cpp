#include "LineChannel.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

namespace {

int RemainingMs(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? int(left.count()) : 0;
}

}  // namespace

LineChannel::LineChannel(int iReadFd, int iWriteFd) : m_iReadFd(iReadFd), m_iWriteFd(iWriteFd) {
    // A peer that dies must not kill the writer with SIGPIPE: Send reports it.
    std::signal(SIGPIPE, SIG_IGN);
}

LineChannel::~LineChannel() {
    if (m_iReadFd >= 0) close(m_iReadFd);
    CloseWrite();
}

void LineChannel::CloseWrite() {
    std::lock_guard<std::mutex> lock(m_SendMutex);
    if (m_iWriteFd >= 0) close(m_iWriteFd);
    m_iWriteFd = -1;
}

bool LineChannel::Send(const std::string& strLine) {
    const std::string strOut = strLine + "\n";
    std::lock_guard<std::mutex> lock(m_SendMutex);
    if (m_iWriteFd < 0) return false;
    size_t uiDone = 0;
    while (uiDone < strOut.size()) {
        const ssize_t iWritten = write(m_iWriteFd, strOut.data() + uiDone, strOut.size() - uiDone);
        if (iWritten < 0 && errno == EINTR) continue;
        if (iWritten <= 0) return false;
        uiDone += size_t(iWritten);
    }
    return true;
}

bool LineChannel::Receive(std::string* pLine, int iTimeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(iTimeoutMs);
    for (;;) {
        const size_t uiEnd = m_Pending.find('\n');
        if (uiEnd != std::string::npos) {
            *pLine = m_Pending.substr(0, uiEnd);
            m_Pending.erase(0, uiEnd + 1);
            return true;
        }
        if (m_iReadFd < 0) return false;
        pollfd fd = {m_iReadFd, POLLIN, 0};
        const int iReady = poll(&fd, 1, RemainingMs(deadline));
        if (iReady < 0 && errno == EINTR) continue;
        if (iReady <= 0) return false;  // timed out, or failed
        char aBuffer[4096];
        const ssize_t iRead = read(m_iReadFd, aBuffer, sizeof(aBuffer));
        if (iRead < 0 && errno == EINTR) continue;
        if (iRead <= 0) return false;  // end of stream: the writer has gone
        m_Pending.append(aBuffer, size_t(iRead));
    }
}

bool LineChannel::ReceiveTagged(const std::string& strPrefix, std::string* pRest, int iTimeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(iTimeoutMs);
    std::string strLine;
    // Bounded by the deadline: every pass either consumes a line or waits.
    while (Receive(&strLine, RemainingMs(deadline))) {
        if (strLine.compare(0, strPrefix.size(), strPrefix) == 0) {
            *pRest = strLine.substr(strPrefix.size());
            return true;
        }
    }
    return false;
}
