// The namespace guard that every socket test relies on, and the wait helpers.
// Run through scripts/netns-run; outside it NetnsGuard.PassesInsideNetnsRunAndSeesLoopback
// fails on purpose. The fresh-namespace case forks a child that unshares its
// own network namespace, so it needs root or unprivileged user namespaces.

#include "NetnsGuard.h"

#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

long ElapsedMs(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string NetnsId() {
    char szLink[64] = {0};
    ssize_t len = readlink("/proc/self/ns/net", szLink, sizeof(szLink) - 1);
    return len > 0 ? std::string(szLink, static_cast<size_t>(len)) : std::string();
}

// Runs `body` in a forked child that first moves into a new, empty network
// namespace, and returns the lines the body recorded. A first line starting
// with "UNSUPPORTED" means the machine cannot make one. The child never
// touches the network unless the namespace change is confirmed.
std::vector<std::string> InFreshNetns(void (*body)(std::vector<std::string>*)) {
    int fds[2];
    if (pipe(fds) != 0) return {"UNSUPPORTED: pipe failed"};
    const std::string strParentNs = NetnsId();
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::vector<std::string> lines;
        if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
            lines.push_back("UNSUPPORTED: cannot unshare the network namespace");
        } else if (strParentNs.empty() || NetnsId() == strParentNs) {
            lines.push_back("UNSUPPORTED: network namespace did not change");
        } else {
            body(&lines);
        }
        std::string strOut;
        for (const std::string& line : lines) strOut += line + "\n";
        // A few short lines: far below the pipe's buffer, so one write takes them.
        _exit(write(fds[1], strOut.data(), strOut.size()) == ssize_t(strOut.size()) ? 0 : 1);
    }
    close(fds[1]);
    std::string strIn;
    char buf[512];
    struct pollfd pfd = {fds[0], POLLIN, 0};
    const Clock::time_point start = Clock::now();
    while (pid > 0 && ElapsedMs(start) < 10000) {
        if (poll(&pfd, 1, 100) <= 0) continue;
        const ssize_t n = read(fds[0], buf, sizeof(buf));
        if (n <= 0) break;
        strIn.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    if (pid < 0) return {"UNSUPPORTED: fork failed"};
    kill(pid, SIGKILL);  // not reaped yet, so the pid is still the child's
    waitpid(pid, nullptr, 0);
    std::vector<std::string> lines;
    std::istringstream in(strIn);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    if (lines.empty()) lines.push_back("UNSUPPORTED: child reported nothing");
    return lines;
}

// Records the verdicts of both checks, "ok" or the refusal text.
void RecordChecks(std::vector<std::string>* lines, const std::vector<std::string>& allowed = {}) {
    std::string strWhy;
    lines->push_back(NetnsIsPrivate(&strWhy, allowed) ? "private: ok" : "private: " + strWhy);
    strWhy.clear();
    lines->push_back(NetnsLoopbackReady(&strWhy) ? "loopback: ok" : "loopback: " + strWhy);
}

bool Sh(std::vector<std::string>* lines, const char* command) {
    if (std::system(command) == 0) return true;
    lines->push_back(std::string("UNSUPPORTED: failed: ") + command);
    return false;
}

const char* const kForeignText =
    "refusing to open sockets: this network namespace has interfaces other than loopback: ";
const char* const kHintText = "(run the test through scripts/netns-run)";

}  // namespace

TEST(NetnsGuard, PassesInsideNetnsRunAndSeesLoopback) {
    // Under --hosts the outer namespace also holds the bridge and its ports.
    if (std::getenv("MORVODDS_NETNS_HOSTS")) {
        MORVODDS_REQUIRE_PRIVATE_NETNS("br0", "veth");
    } else {
        MORVODDS_REQUIRE_PRIVATE_NETNS();
    }
    std::vector<NetnsInterface> interfaces;
    std::string strWhy;
    ASSERT_TRUE(NetnsListInterfaces(&interfaces, &strWhy)) << strWhy;
    auto lo = std::find_if(interfaces.begin(), interfaces.end(),
                           [](const NetnsInterface& itf) { return itf.name == "lo"; });
    ASSERT_NE(lo, interfaces.end());
    ASSERT_TRUE(lo->hasFlags);
    EXPECT_TRUE(lo->flags & IFF_LOOPBACK);
    EXPECT_NE(std::find(lo->addresses.begin(), lo->addresses.end(), "127.0.0.1"), lo->addresses.end());
}

TEST(NetnsGuard, NamesAreAllowedAsLoopbackOrByPrefix) {
    const std::vector<std::string> bridge = {"veth", "br0"};
    struct Row {
        const char* name;
        std::vector<std::string> allowed;
        bool expected;
    };
    const Row rows[] = {
        {"lo", {}, true},      {"lo1", {}, false},     {"", {}, false},           {"veth12", bridge, true},
        {"br0", bridge, true}, {"br1", bridge, false}, {"xveth1", bridge, false}, {"eth0", bridge, false},
        {"eth0", {""}, false}};  // an empty entry must not admit everything
    for (const Row& row : rows) {
        EXPECT_EQ(NetnsNameAllowed(row.name, row.allowed), row.expected) << "'" << row.name << "'";
    }
}

// Builds a namespace up step by step, recording both verdicts after each step.
TEST(NetnsGuard, FreshNamespaceVerdictsFollowItsSetUp) {
    std::vector<std::string> lines = InFreshNetns([](std::vector<std::string>* out) {
        const char* const steps[] = {"true",
                                     "ip link set lo up",
                                     "ip link set lo multicast on",
                                     "ip link add eth0 type veth peer name nsgb0",
                                     "ip addr add 10.9.0.5/24 dev eth0",
                                     "ip addr add 192.0.2.7/24 dev eth0"};
        for (const char* step : steps) {
            if (!Sh(out, step)) return;
            RecordChecks(out);
            RecordChecks(out, {"eth0", "nsg"});
        }
    });
    if (lines.front().rfind("UNSUPPORTED", 0) == 0) GTEST_SKIP() << lines.front();
    ASSERT_EQ(lines.size(), 24u);
    EXPECT_EQ(lines[0], "private: ok");
    EXPECT_EQ(lines[1], std::string("loopback: refusing to open sockets: loopback lo is not ready for "
                                    "multicast, missing flags: UP, MULTICAST ") +
                            kHintText);
    EXPECT_TRUE(Contains(lines[5], "missing flags: MULTICAST (")) << lines[5];
    EXPECT_EQ(lines[9], "loopback: ok");
    // A foreign interface is named, its peer too, unless allowed by prefix.
    EXPECT_TRUE(Contains(lines[12], std::string("private: ") + kForeignText) && Contains(lines[12], "eth0") &&
                Contains(lines[12], "nsgb0") && Contains(lines[12], kHintText))
        << lines[12];
    EXPECT_EQ(lines[14], "private: ok");
    EXPECT_EQ(lines[18], "private: ok");  // the test hosts' addresses are allowed
    EXPECT_TRUE(Contains(lines[22], "outside loopback and the test hosts' 10.9.0.0/24: eth0 192.0.2.7"))
        << lines[22];
    EXPECT_FALSE(Contains(lines[22], "10.9.0.5")) << lines[22];
}

TEST(WaitFor, ReturnsAtOnceOrAfterBoundedPolls) {
    int calls = 0;
    Clock::time_point start = Clock::now();
    EXPECT_TRUE(WaitFor([&calls] { return ++calls > 0; }, 5000));
    EXPECT_EQ(calls, 1);
    EXPECT_LT(ElapsedMs(start), 100);

    calls = 0;
    start = Clock::now();
    EXPECT_FALSE(WaitFor([&calls] { return ++calls < 0; }, 60, 10));
    EXPECT_GE(ElapsedMs(start), 60);
    EXPECT_GE(calls, 2);
    EXPECT_LE(calls, 60 / 10 + 2);

    // Degenerate arguments still check once and end; a huge step cannot stretch the wait.
    EXPECT_FALSE(WaitFor(nullptr, 10));
    calls = 0;
    EXPECT_TRUE(WaitFor([&calls] { return ++calls == 1; }, -5, 0));
    EXPECT_EQ(calls, 1);
    start = Clock::now();
    EXPECT_FALSE(WaitFor([] { return false; }, 20, INT_MAX));
    EXPECT_LT(ElapsedMs(start), 400);
}

TEST(WaitFor, HoldsForSpansTheWholePeriodOrStopsEarly) {
    Clock::time_point start = Clock::now();
    EXPECT_TRUE(HoldsFor([] { return true; }, 50));
    EXPECT_GE(ElapsedMs(start), 50);
    int calls = 0;
    start = Clock::now();
    EXPECT_FALSE(HoldsFor([&calls] { return ++calls < 3; }, 5000));
    EXPECT_EQ(calls, 3);
    EXPECT_LT(ElapsedMs(start), 1000);
}
