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

bool PeerProcess::Start(const std::string& strProgram, const std::vector<std::string>& arguments,
                        std::string* pWhy) {
    // toChild[0] becomes the child's input, fromChild[1] its output. All four start
    // close-on-exec; the child's two are moved to fixed numbers, which clears it there.
    int toChild[2] = {-1, -1};
    int fromChild[2] = {-1, -1};
    int iError = pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0 ? errno : 0;
    if (iError == 0) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, toChild[0], CHILD_READ_FD);
        posix_spawn_file_actions_adddup2(&actions, fromChild[1], CHILD_WRITE_FD);
        std::vector<char*> argv = {const_cast<char*>(strProgram.c_str())};  // posix_spawn only reads them
        for (const std::string& s : arguments) argv.push_back(const_cast<char*>(s.c_str()));
        argv.push_back(nullptr);
        iError = posix_spawn(&m_Pid, strProgram.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
    }
    close(toChild[0]);
    close(fromChild[1]);
    m_pChannel.reset(new LineChannel(fromChild[0], toChild[1]));  // which closes them on failure too
    if (iError == 0) return true;
    m_pChannel.reset();
    m_Pid = -1;
    *pWhy = "spawn " + strProgram + ": " + std::strerror(iError);
    return false;
}

int PeerProcess::Wait(int iTimeoutMs) {
    const pid_t pid = m_Pid;
    m_Pid = -1;
    return WaitChild(pid, iTimeoutMs);
}

int PeerProcess::WaitChild(pid_t pid, int iTimeoutMs) {
    if (pid <= 0) return -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(iTimeoutMs);
    int iStatus = 0;
    pid_t done;
    while ((done = waitpid(pid, &iStatus, WNOHANG)) == 0 || (done < 0 && errno == EINTR)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &iStatus, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done == pid && WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}
