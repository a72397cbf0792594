#include "NetnsGuard.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

namespace {

const char* const kRefusing = "refusing to open sockets: ";
const char* const kHint = " (run the test through scripts/netns-run)";

NetnsInterface* FindOrAdd(std::vector<NetnsInterface>* interfaces, const char* name) {
    for (NetnsInterface& itf : *interfaces) {
        if (itf.name == name) return &itf;
    }
    interfaces->push_back(NetnsInterface{});
    interfaces->back().name = name;
    return &interfaces->back();
}

std::string AddressText(const struct sockaddr* pAddr) {
    char szText[INET6_ADDRSTRLEN] = {0};
    if (pAddr->sa_family == AF_INET) {
        const auto* pIn = reinterpret_cast<const struct sockaddr_in*>(pAddr);
        inet_ntop(AF_INET, &pIn->sin_addr, szText, sizeof(szText));
    } else {
        const auto* pIn6 = reinterpret_cast<const struct sockaddr_in6*>(pAddr);
        inet_ntop(AF_INET6, &pIn6->sin6_addr, szText, sizeof(szText));
    }
    return szText;
}

// Addresses a test namespace may carry: loopback, link-local (veths get one
// on their own) and the test hosts' 10.9.0.0/24.
bool AddressAllowed(const std::string& strAddress) {
    if (strAddress.find(':') != std::string::npos) {
        return strAddress == "::1" || strAddress.rfind("fe80:", 0) == 0;
    }
    return strAddress.rfind("127.", 0) == 0 || strAddress.rfind("10.9.0.", 0) == 0;
}

std::string Join(const std::vector<std::string>& items) {
    std::string strOut;
    for (const std::string& item : items) {
        if (!strOut.empty()) strOut += ", ";
        strOut += item;
    }
    return strOut;
}

}  // namespace

bool NetnsListInterfaces(std::vector<NetnsInterface>* interfaces, std::string* why) {
    interfaces->clear();
    bool bAnySource = false;

    // if_nameindex lists interfaces that have no address as well.
    if (struct if_nameindex* pIndex = if_nameindex()) {
        bAnySource = true;
        for (struct if_nameindex* p = pIndex; p->if_index != 0 && p->if_name; ++p) {
            FindOrAdd(interfaces, p->if_name);
        }
        if_freenameindex(pIndex);
    }

    // getifaddrs brings the flags (one AF_PACKET entry per link) and addresses.
    struct ifaddrs* pAddrs = nullptr;
    if (getifaddrs(&pAddrs) == 0) {
        bAnySource = true;
        for (struct ifaddrs* p = pAddrs; p; p = p->ifa_next) {
            if (!p->ifa_name) continue;
            NetnsInterface* pItf = FindOrAdd(interfaces, p->ifa_name);
            pItf->flags = p->ifa_flags;
            pItf->hasFlags = true;
            if (p->ifa_addr && (p->ifa_addr->sa_family == AF_INET || p->ifa_addr->sa_family == AF_INET6)) {
                pItf->addresses.push_back(AddressText(p->ifa_addr));
            }
        }
        freeifaddrs(pAddrs);
    }

    if (!bAnySource) {
        if (why) {
            *why = std::string(kRefusing) + "cannot list the network interfaces: " + std::strerror(errno) +
                   kHint;
        }
        return false;
    }
    return true;
}

bool NetnsNameAllowed(const std::string& name, const std::vector<std::string>& allowed) {
    if (name == "lo") return true;
    return std::any_of(allowed.begin(), allowed.end(), [&name](const std::string& prefix) {
        return !prefix.empty() && name.rfind(prefix, 0) == 0;
    });
}

bool NetnsIsPrivate(std::string* why, const std::vector<std::string>& allowed) {
    std::vector<NetnsInterface> interfaces;
    if (!NetnsListInterfaces(&interfaces, why)) return false;

    std::vector<std::string> foreign;
    std::vector<std::string> outsideAddresses;
    for (const NetnsInterface& itf : interfaces) {
        if (!NetnsNameAllowed(itf.name, allowed)) {
            foreign.push_back(itf.name);
            continue;
        }
        if (itf.name == "lo") continue;
        for (const std::string& strAddress : itf.addresses) {
            if (!AddressAllowed(strAddress)) outsideAddresses.push_back(itf.name + " " + strAddress);
        }
    }

    if (!foreign.empty()) {
        if (why) {
            *why = std::string(kRefusing) +
                   "this network namespace has interfaces other than loopback: " + Join(foreign) + kHint;
        }
        return false;
    }
    if (!outsideAddresses.empty()) {
        if (why) {
            *why = std::string(kRefusing) +
                   "interfaces carry addresses outside loopback and the test hosts' 10.9.0.0/24: " +
                   Join(outsideAddresses) + kHint;
        }
        return false;
    }
    return true;
}

bool NetnsLoopbackReady(std::string* why) {
    std::vector<NetnsInterface> interfaces;
    if (!NetnsListInterfaces(&interfaces, why)) return false;

    auto it = std::find_if(interfaces.begin(), interfaces.end(),
                           [](const NetnsInterface& itf) { return itf.name == "lo"; });
    std::string strProblem;
    if (it == interfaces.end()) {
        strProblem = "there is no loopback interface lo";
    } else if (!it->hasFlags) {
        strProblem = "the flags of lo cannot be read";
    } else {
        std::vector<std::string> missing;
        if (!(it->flags & IFF_UP)) missing.push_back("UP");
        if (!(it->flags & IFF_MULTICAST)) missing.push_back("MULTICAST");
        if (!missing.empty()) {
            strProblem = "loopback lo is not ready for multicast, missing flags: " + Join(missing);
        }
    }
    if (strProblem.empty()) return true;
    if (why) *why = kRefusing + strProblem + kHint;
    return false;
}

bool NetnsReadyForSockets(std::string* why, const std::vector<std::string>& allowed) {
    return NetnsIsPrivate(why, allowed) && NetnsLoopbackReady(why);
}

NetnsGuardEnvironment::NetnsGuardEnvironment(std::vector<std::string> allowed)
    : m_Allowed(std::move(allowed)) {}

void NetnsGuardEnvironment::SetUp() {
    std::string strWhy;
    if (!NetnsReadyForSockets(&strWhy, m_Allowed)) {
        GTEST_FAIL() << strWhy;
    }
}

void AddNetnsGuardEnvironment(const std::vector<std::string>& allowed) {
    // GoogleTest owns and deletes registered environments.
    ::testing::AddGlobalTestEnvironment(new NetnsGuardEnvironment(allowed));
}

namespace {

using Clock = std::chrono::steady_clock;

// Shared polling loop: returns as soon as pred() == stopOn, else pred()'s
// value at the end of the period. Bounded by time and by poll count.
bool Poll(const std::function<bool()>& pred, int period_ms, int step_ms, bool stopOn) {
    if (!pred) return false;
    if (period_ms < 0) period_ms = 0;
    if (step_ms < 1) step_ms = 1;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(period_ms);
    const long maxPolls = period_ms / step_ms + 1;
    for (long i = 0; i < maxPolls; ++i) {
        if (pred() == stopOn) return stopOn;
        const Clock::time_point now = Clock::now();
        if (now >= deadline) break;
        std::this_thread::sleep_for(
            std::min<Clock::duration>(std::chrono::milliseconds(step_ms), deadline - now));
    }
    return pred();
}

}  // namespace

bool WaitFor(std::function<bool()> pred, int timeout_ms, int step_ms) {
    return Poll(pred, timeout_ms, step_ms, true);
}

bool HoldsFor(std::function<bool()> pred, int duration_ms, int step_ms) {
    return Poll(pred, duration_ms, step_ms, false);
}
