// Test-side guard that refuses socket tests outside a private network namespace
// (see scripts/netns-run), plus bounded wait helpers for asynchronous tests.
// Called from test threads; takes no locks and opens no network sockets.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

// True if the namespace holds only lo and interfaces whose names start with one
// of `allowed`, those carry no address outside loopback, link-local and the test
// hosts' 10.9.0.0/24 (so allowing "eth0" cannot admit the machine's real eth0),
// and lo is up with multicast. Otherwise false, with *why naming the problem.
bool NetnsReadyForSockets(std::string* why, const std::vector<std::string>& allowed = {});

// Fails the calling test fast when the namespace is not safe for sockets.
// Use at the top of a TEST body; optional arguments are extra allowed
// interface names, e.g. MORVODDS_REQUIRE_PRIVATE_NETNS("eth0") inside a host.
#define MORVODDS_REQUIRE_PRIVATE_NETNS(...)                                                    \
    do {                                                                                       \
        std::string strNetnsWhy_;                                                              \
        if (!NetnsReadyForSockets(&strNetnsWhy_, {__VA_ARGS__})) GTEST_FAIL() << strNetnsWhy_; \
    } while (0)

// For a test main: a global environment that fails (and so skips) every test of
// the binary when the namespace is not safe for sockets.
void AddNetnsGuardEnvironment(const std::vector<std::string>& allowed = {});

// Polls `pred` every `step_ms` until it holds or `timeout_ms` has passed;
// returns its last value. Always checks at least once, at most
// timeout_ms / step_ms + 2 times.
bool WaitFor(std::function<bool()> pred, int timeout_ms, int step_ms = 5);

// The opposite question: true if `pred` holds at every poll for the whole of
// `duration_ms` (e.g. "nothing arrives"); false as soon as it does not.
bool HoldsFor(std::function<bool()> pred, int duration_ms, int step_ms = 5);

#ifndef MORVODDS_TIME_FACTOR
#define MORVODDS_TIME_FACTOR 1
#endif
// A wall-clock budget in milliseconds, stretched for sanitized builds.
inline long long TimeBudgetMs(long long llMs) {
    return llMs * MORVODDS_TIME_FACTOR;
}
