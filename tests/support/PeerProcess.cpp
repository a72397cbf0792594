#include "PeerProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

PeerProcess::~PeerProcess() {
    if (m_Pid > 0) Wait(0);
}

bool PeerProcess::Start(const std::string& strProgram, const std::vector<std::string>& arguments,
                        std::string* pWhy) {
    // toChild[0] becomes the child's input, fromChild[1] its output. All four start
    // close-on-exec; the child's two are moved to fixed numbers, which clears it there.
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0) {
        *pWhy = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    if (pipe2(fromChild, O_CLOEXEC) != 0) {
        *pWhy = std::string("pipe: ") + std::strerror(errno);
        close(toChild[0]);
        close(toChild[1]);
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toChild[0], CHILD_READ_FD);
    posix_spawn_file_actions_adddup2(&actions, fromChild[1], CHILD_WRITE_FD);

    std::vector<std::string> argv = {strProgram};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> argvPointers;
    for (std::string& s : argv) argvPointers.push_back(&s[0]);
    argvPointers.push_back(nullptr);

    pid_t pid = -1;
    const int iError = posix_spawn(&pid, strProgram.c_str(), &actions, nullptr, argvPointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(toChild[0]);
    close(fromChild[1]);
    if (iError != 0) {
        *pWhy = "spawn " + strProgram + ": " + std::strerror(iError);
        close(toChild[1]);
        close(fromChild[0]);
        return false;
    }
    m_Pid = pid;
    m_pChannel.reset(new LineChannel(fromChild[0], toChild[1]));
    return true;
}

int PeerProcess::Wait(int iTimeoutMs) {
    if (m_Pid <= 0) return -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(iTimeoutMs);
    int iStatus = 0;
    for (;;) {
        const pid_t done = waitpid(m_Pid, &iStatus, WNOHANG);
        if (done == m_Pid) break;
        if (done < 0 && errno != EINTR) {
            m_Pid = -1;
            return -1;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(m_Pid, SIGKILL);
            waitpid(m_Pid, &iStatus, 0);
            m_Pid = -1;
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    m_Pid = -1;
    return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}
