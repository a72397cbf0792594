#include "NetnsGuard.h"

#include <netdb.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

namespace {

// Addresses a test namespace may carry: loopback, link-local (veths get one on
// their own) and the test hosts' 10.9.0.0/24.
bool AddressAllowed(const std::string& s) {
    return s.rfind("127.", 0) == 0 || s.rfind("10.9.0.", 0) == 0 || s == "::1" || s.rfind("fe80:", 0) == 0;
}

bool NameAllowed(const std::string& name, const std::vector<std::string>& allowed) {
    return name == "lo" || std::any_of(allowed.begin(), allowed.end(), [&name](const std::string& prefix) {
               return !prefix.empty() && name.rfind(prefix, 0) == 0;
           });
}

struct GuardEnvironment : ::testing::Environment {
    explicit GuardEnvironment(std::vector<std::string> allowedNames) : allowed(std::move(allowedNames)) {}
    void SetUp() override {
        std::string strWhy;
        if (!NetnsReadyForSockets(&strWhy, allowed)) GTEST_FAIL() << strWhy;
    }
    std::vector<std::string> allowed;
};

using Clock = std::chrono::steady_clock;

// Returns as soon as pred() == stopOn, else pred()'s value when the period has
// passed. Bounded by time and by poll count.
bool Poll(const std::function<bool()>& pred, int period_ms, int step_ms, bool stopOn) {
    if (!pred) return false;
    period_ms = std::max(period_ms, 0);
    const std::chrono::milliseconds step(std::max(step_ms, 1));
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(period_ms);
    for (long i = period_ms / step.count() + 1; i > 0 && Clock::now() < deadline; --i) {
        if (pred() == stopOn) return stopOn;
        std::this_thread::sleep_for(std::min<Clock::duration>(step, deadline - Clock::now()));
    }
    return pred();
}

}  // namespace

bool NetnsReadyForSockets(std::string* why, const std::vector<std::string>& allowed) {
    // getifaddrs sees only this namespace, unlike /sys/class/net, and lists every
    // link (an AF_PACKET entry with its flags), then every address.
    struct ifaddrs* pAddrs = nullptr;
    std::string strProblem = getifaddrs(&pAddrs) != 0 ? "cannot list the network interfaces" : "";
    std::set<std::string> foreign;
    std::string strOutside;
    unsigned uiLoFlags = 0;
    for (struct ifaddrs* p = pAddrs; p; p = p->ifa_next) {
        const std::string name = p->ifa_name ? p->ifa_name : "";
        const int iFamily = p->ifa_addr ? p->ifa_addr->sa_family : 0;
        char szAddress[NI_MAXHOST] = {0};  // numeric, so no name is looked up
        if (iFamily == AF_INET || iFamily == AF_INET6)
            getnameinfo(p->ifa_addr, iFamily == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6),
                        szAddress, sizeof(szAddress), nullptr, 0, NI_NUMERICHOST);
        if (name == "lo")
            uiLoFlags |= p->ifa_flags;
        else if (!NameAllowed(name, allowed))
            foreign.insert(name);
        else if (*szAddress != '\0' && !AddressAllowed(szAddress))
            strOutside += " " + name + " " + szAddress;
    }
    if (pAddrs) freeifaddrs(pAddrs);
    if (strProblem.empty() && !foreign.empty()) {
        strProblem = "this network namespace has interfaces other than loopback:";
        for (const std::string& name : foreign) strProblem += " " + name;
    }
    if (strProblem.empty() && !strOutside.empty())
        strProblem =
            "interfaces carry addresses outside loopback and the test hosts' 10.9.0.0/24:" + strOutside;
    if (strProblem.empty() && (uiLoFlags & (IFF_UP | IFF_MULTICAST)) != (IFF_UP | IFF_MULTICAST))
        strProblem = "loopback lo is missing or not up with multicast";
    if (strProblem.empty()) return true;
    if (why) *why = "refusing to open sockets: " + strProblem + " (run the test through scripts/netns-run)";
    return false;
}

void AddNetnsGuardEnvironment(const std::vector<std::string>& allowed) {
    // GoogleTest owns and deletes registered environments.
    ::testing::AddGlobalTestEnvironment(new GuardEnvironment(allowed));
}

bool WaitFor(std::function<bool()> pred, int timeout_ms, int step_ms) {
    return Poll(pred, timeout_ms, step_ms, true);
}

bool HoldsFor(std::function<bool()> pred, int duration_ms, int step_ms) {
    return Poll(pred, duration_ms, step_ms, false);
}
