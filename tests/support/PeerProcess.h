// A second process for two-process tests: spawned with a pipe in each
// direction, talked to by lines, waited for with a bound and killed if it
// overstays. Used from one test thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "LineChannel.h"

class PeerProcess {
public:
    // The child finds its ends of the pipes at these descriptors.
    static constexpr int CHILD_READ_FD = 100;
    static constexpr int CHILD_WRITE_FD = 101;

    // Kills and reaps a child still running.
    ~PeerProcess() { Wait(0); }

    // Runs strProgram with the arguments (argv[0] is added). False, with *pWhy
    // set, when the pipes or the spawn failed.
    bool Start(const std::string& strProgram, const std::vector<std::string>& arguments, std::string* pWhy);
    LineChannel& channel() { return *m_pChannel; }
    pid_t pid() const { return m_Pid; }

    // Waits at most iTimeoutMs for the child to end, then kills it. The exit
    // status, or -1 when it had to be killed or was never started.
    int Wait(int iTimeoutMs);
    // The same for any child process of this one.
    static int WaitChild(pid_t pid, int iTimeoutMs);

private:
    pid_t m_Pid = -1;
    std::unique_ptr<LineChannel> m_pChannel;
};
