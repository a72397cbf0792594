// The namespace guard that every socket test relies on. Run through scripts/netns-run;
// outside it NetnsGuard.AcceptsInsideNetnsRun fails on purpose. The fresh-namespace case
// forks a child that unshares its own network namespace, so it needs root or
// unprivileged user namespaces.
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "NetnsGuard.h"
#include "PeerProcess.h"

TEST(NetnsGuard, AcceptsInsideNetnsRun) {
    // Under --hosts the outer namespace also holds the bridge and its ports.
    MORVODDS_REQUIRE_PRIVATE_NETNS("br0", "veth");
}

// A forked child moves into a new, empty network namespace and builds it up step by step:
// the guard refuses it until it looks like a test namespace, and again once it holds an
// interface or an address from outside one. The child touches no network unless the
// namespace change is confirmed, and reports a wrong verdict on stderr.
TEST(NetnsGuard, FreshNamespaceIsRefusedUnlessItLooksLikeATestNamespace) {
    struct Step {
        const char* command;
        std::vector<std::string> allowed;
        const char* refusal;  // a part of the refusal that must follow; "" when accepted
    };
    const std::vector<std::string> host = {"eth0", "nsg"};
    const std::vector<Step> steps = {
        {"true", {}, "lo is missing or not up with multicast ("},
        {"ip link set lo up", {}, "lo is missing or not up with multicast ("},
        {"ip link set lo multicast on", {}, ""},
        {"ip link add eth0 type veth peer name nsgb0", {}, "other than loopback: eth0 nsgb0 ("},
        {"true", {"", "nsg"}, "other than loopback: eth0 ("},  // an empty prefix admits nothing
        {"ip addr add 10.9.0.5/24 dev eth0", host, ""},
        {"ip addr add 192.0.2.7/24 dev eth0", host, "the test hosts' 10.9.0.0/24: eth0 192.0.2.7 ("},
    };
    const int kUnsupported = 77;
    const auto NetnsId = [] {
        char szLink[64] = {0};
        return std::string(szLink, size_t(std::max<ssize_t>(0, readlink("/proc/self/ns/net", szLink, 63))));
    };
    const std::string strParentNs = NetnsId();
    const pid_t pid = fork();
    if (pid == 0) {
        if ((unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) ||
            strParentNs.empty() || NetnsId() == strParentNs)
            _exit(kUnsupported);
        for (const Step& step : steps) {
            if (std::system(step.command) != 0) _exit(kUnsupported);
            std::string strWhy;
            const bool bReady = NetnsReadyForSockets(&strWhy, step.allowed);
            if (bReady != (*step.refusal == '\0') || strWhy.find(step.refusal) == std::string::npos) {
                std::fprintf(stderr, "after '%s': %s\n", step.command, bReady ? "accepted" : strWhy.c_str());
                _exit(1);
            }
        }
        _exit(0);
    }
    ASSERT_GT(pid, 0);
    const int iStatus = PeerProcess::WaitChild(pid, 10000);
    if (iStatus == kUnsupported) GTEST_SKIP() << "this machine cannot build a network namespace";
    EXPECT_EQ(iStatus, 0) << "the child's stderr names the step";
}
