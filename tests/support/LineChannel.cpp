#include "LineChannel.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

LineChannel::LineChannel(int iReadFd, int iWriteFd) : m_iReadFd(iReadFd), m_iWriteFd(iWriteFd) {
    // A peer that dies must not kill the writer with SIGPIPE: Send reports it.
    std::signal(SIGPIPE, SIG_IGN);
}

LineChannel::~LineChannel() {
    if (m_iReadFd >= 0) close(m_iReadFd);
    if (m_iWriteFd >= 0) close(m_iWriteFd);
}

bool LineChannel::Send(const std::string& strLine) {
    const std::string strOut = strLine + "\n";
    std::lock_guard<std::mutex> lock(m_SendMutex);
    for (size_t uiDone = 0; uiDone < strOut.size();) {
        const ssize_t iWritten = write(m_iWriteFd, strOut.data() + uiDone, strOut.size() - uiDone);
        if (iWritten < 0 && errno == EINTR) continue;
        if (iWritten <= 0) return false;
        uiDone += size_t(iWritten);
    }
    return true;
}

bool LineChannel::ReceiveTagged(const std::string& strPrefix, std::string* pRest, int iTimeoutMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(iTimeoutMs);
    // Bounded by the deadline: every pass either takes a line or waits.
    for (size_t uiEnd; m_iReadFd >= 0;) {
        while ((uiEnd = m_Pending.find('\n')) != std::string::npos) {
            const std::string strLine = m_Pending.substr(0, uiEnd);
            m_Pending.erase(0, uiEnd + 1);
            if (strLine.compare(0, strPrefix.size(), strPrefix) != 0) continue;
            *pRest = strLine.substr(strPrefix.size());
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd fd = {m_iReadFd, POLLIN, 0};
        const int iReady = poll(&fd, 1, int(std::max<long long>(0, left.count())));
        if (iReady < 0 && errno == EINTR) continue;
        if (iReady <= 0) return false;  // timed out, or failed
        char aBuffer[4096];
        const ssize_t iRead = read(m_iReadFd, aBuffer, sizeof(aBuffer));
        if (iRead < 0 && errno == EINTR) continue;
        if (iRead <= 0) return false;  // end of stream: the writer has gone
        m_Pending.append(aBuffer, size_t(iRead));
    }
    return false;
}
