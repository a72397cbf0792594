// Text lines between two processes over a pair of file descriptors (pipes),
// with bounded waits. Send may be called from several threads (it takes a
// mutex); Receive from one thread at a time.
#pragma once

#include <mutex>
#include <string>

class LineChannel {
public:
    // Takes over both descriptors (-1 for a direction not used) and closes them.
    LineChannel(int iReadFd, int iWriteFd);
    ~LineChannel();

    // Writes the line and a line end. False when the other side has gone.
    bool Send(const std::string& strLine);
    // The next line, without its end. False when none came within iTimeoutMs,
    // or the other side closed its end first.
    bool Receive(std::string* pLine, int iTimeoutMs) { return ReceiveTagged("", pLine, iTimeoutMs); }
    // Receives until a line starts with strPrefix and gives its rest (after the
    // prefix); other lines are skipped. The timeout bounds the whole wait.
    bool ReceiveTagged(const std::string& strPrefix, std::string* pRest, int iTimeoutMs);

private:
    int m_iReadFd;
    int m_iWriteFd;
    std::string m_Pending;  // bytes read past the last line end
    std::mutex m_SendMutex;
};
