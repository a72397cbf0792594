// Test-side guard that refuses socket tests outside a private network namespace
// (see scripts/netns-run), plus bounded wait helpers for asynchronous tests.
// Called from test threads; takes no locks and opens no network sockets.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

// One interface as the guard sees it. Flags are IFF_* bits; they are known
// only for interfaces that getifaddrs reports (hasFlags).
struct NetnsInterface {
    std::string name;
    unsigned flags = 0;
    bool hasFlags = false;
    std::vector<std::string> addresses;  // numeric IPv4/IPv6 addresses
};

// Every interface of the calling thread's network namespace, from
// if_nameindex and getifaddrs together (both see only this namespace, unlike
// /sys/class/net). Returns false with *why set if neither can be read.
bool NetnsListInterfaces(std::vector<NetnsInterface>* interfaces, std::string* why);

// True if `name` may exist in a test namespace: "lo", or any name starting
// with one of `allowed` (so "veth" admits veth1, veth2, ...).
bool NetnsNameAllowed(const std::string& name, const std::vector<std::string>& allowed);

// True if the namespace holds only lo and interfaces admitted by `allowed`,
// and those carry no address outside loopback, link-local and the test hosts'
// 10.9.0.0/24 (so allowing "eth0" cannot admit the machine's real eth0).
// Otherwise false, with *why naming the offending interfaces.
bool NetnsIsPrivate(std::string* why, const std::vector<std::string>& allowed = {});

// True if lo exists and is IFF_UP|IFF_MULTICAST; otherwise false with *why.
bool NetnsLoopbackReady(std::string* why);

// Both checks above: what a test that opens sockets needs.
bool NetnsReadyForSockets(std::string* why, const std::vector<std::string>& allowed = {});

// Fails the calling test fast when the namespace is not safe for sockets.
// Use at the top of a TEST body; optional arguments are extra allowed
// interface names, e.g. MORVODDS_REQUIRE_PRIVATE_NETNS("eth0") inside a host.
#define MORVODDS_REQUIRE_PRIVATE_NETNS(...)                                                \
    do {                                                                                   \
        std::string strNetnsWhy_;                                                          \
        if (!NetnsReadyForSockets(&strNetnsWhy_, std::vector<std::string>{__VA_ARGS__})) { \
            GTEST_FAIL() << strNetnsWhy_;                                                  \
        }                                                                                  \
    } while (0)

// Global environment for a test main: fails (and so skips) every test of the
// binary when the namespace is not safe for sockets.
class NetnsGuardEnvironment : public ::testing::Environment {
public:
    explicit NetnsGuardEnvironment(std::vector<std::string> allowed = {});
    void SetUp() override;

private:
    std::vector<std::string> m_Allowed;
};

// For a custom main: registers a NetnsGuardEnvironment with GoogleTest.
void AddNetnsGuardEnvironment(const std::vector<std::string>& allowed = {});

// Polls `pred` every `step_ms` until it holds or `timeout_ms` has passed;
// returns its last value. Always checks at least once, at most
// timeout_ms / step_ms + 2 times.
bool WaitFor(std::function<bool()> pred, int timeout_ms, int step_ms = 5);

#ifndef MORVODDS_TIME_FACTOR
#define MORVODDS_TIME_FACTOR 1
#endif
// A wall-clock budget in milliseconds, stretched for sanitized builds.
inline long long TimeBudgetMs(long long llMs) {
    return llMs * MORVODDS_TIME_FACTOR;
}

// The opposite question: true if `pred` holds at every poll for the whole of
// `duration_ms` (e.g. "nothing arrives"); false as soon as it does not.
bool HoldsFor(std::function<bool()> pred, int duration_ms, int step_ms = 5);
