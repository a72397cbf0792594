// The namespace guard that every socket test relies on, and the wait helpers.
// Run through scripts/netns-run; outside it NetnsGuard.PassesInsideNetnsRun
// fails on purpose. The fresh-namespace cases fork a child that unshares its
// own network namespace, so they need root or unprivileged user namespaces.

#include "NetnsGuard.h"

#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
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
  pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return {"UNSUPPORTED: fork failed"};
  }
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
    size_t done = 0;
    while (done < strOut.size()) {
      ssize_t n = write(fds[1], strOut.data() + done, strOut.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    _exit(0);
  }

  close(fds[1]);
  std::string strIn;
  const Clock::time_point start = Clock::now();
  char buf[512];
  while (ElapsedMs(start) < 10000) {
    struct pollfd pfd = {fds[0], POLLIN, 0};
    if (poll(&pfd, 1, 100) <= 0) continue;
    ssize_t n = read(fds[0], buf, sizeof(buf));
    if (n <= 0) break;
    strIn.append(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  if (waitpid(pid, &status, WNOHANG) == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
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

#define SKIP_IF_UNSUPPORTED(lines)                                            \
  do {                                                                        \
    if (!(lines).empty() && (lines).front().rfind("UNSUPPORTED", 0) == 0) {   \
      GTEST_SKIP() << (lines).front();                                        \
    }                                                                         \
  } while (0)

const char* const kForeignText =
    "refusing to open sockets: this network namespace has interfaces other than loopback: ";
const char* const kHintText = "(run the test through scripts/netns-run)";

}  // namespace

TEST(NetnsGuard, PassesInsideNetnsRun) {
  // Under --hosts the outer namespace also holds the bridge and its ports.
  if (std::getenv("MORVODDS_NETNS_HOSTS")) {
    MORVODDS_REQUIRE_PRIVATE_NETNS("br0", "veth");
  } else {
    MORVODDS_REQUIRE_PRIVATE_NETNS();
  }
}

TEST(NetnsGuard, ScanSeesLoopback) {
  std::vector<NetnsInterface> interfaces;
  std::string strWhy;
  ASSERT_TRUE(NetnsListInterfaces(&interfaces, &strWhy)) << strWhy;
  const NetnsInterface* pLo = nullptr;
  for (const NetnsInterface& itf : interfaces) {
    if (itf.name == "lo") pLo = &itf;
  }
  ASSERT_NE(pLo, nullptr);
  ASSERT_TRUE(pLo->hasFlags);
  EXPECT_TRUE(pLo->flags & IFF_LOOPBACK);
  EXPECT_NE(std::find(pLo->addresses.begin(), pLo->addresses.end(), "127.0.0.1"),
            pLo->addresses.end());
}

TEST(NetnsGuard_Names, OnlyExactLoopbackIsAlwaysAllowed) {
  EXPECT_TRUE(NetnsNameAllowed("lo", {}));
  EXPECT_FALSE(NetnsNameAllowed("lo1", {}));
  EXPECT_FALSE(NetnsNameAllowed("eth0", {}));
  EXPECT_FALSE(NetnsNameAllowed("", {}));
}

TEST(NetnsGuard_Names, AllowedEntriesMatchAsPrefixes) {
  const std::vector<std::string> allowed = {"veth", "br0"};
  EXPECT_TRUE(NetnsNameAllowed("veth1", allowed));
  EXPECT_TRUE(NetnsNameAllowed("veth12", allowed));
  EXPECT_TRUE(NetnsNameAllowed("br0", allowed));
  EXPECT_FALSE(NetnsNameAllowed("br1", allowed));
  EXPECT_FALSE(NetnsNameAllowed("eth0", allowed));
  EXPECT_FALSE(NetnsNameAllowed("xveth1", allowed));
  // An empty entry must not admit everything.
  EXPECT_FALSE(NetnsNameAllowed("eth0", {""}));
}

TEST(NetnsGuard_Hosts, OuterNamespaceRefusedWithoutBridgeAllowance) {
  const char* pHosts = std::getenv("MORVODDS_NETNS_HOSTS");
  if (!pHosts) GTEST_SKIP() << "needs scripts/netns-run --hosts N";
  std::string strWhy;
  EXPECT_FALSE(NetnsIsPrivate(&strWhy));
  EXPECT_TRUE(Contains(strWhy, kForeignText)) << strWhy;
  EXPECT_TRUE(Contains(strWhy, "br0")) << strWhy;
  EXPECT_TRUE(Contains(strWhy, "veth1")) << strWhy;
  EXPECT_TRUE(NetnsIsPrivate(&strWhy, {"br0", "veth"})) << strWhy;
}

TEST(NetnsGuard_FreshNamespace, LoopbackDownAndWithoutMulticastIsRefused) {
  std::vector<std::string> lines = InFreshNetns([](std::vector<std::string>* out) {
    RecordChecks(out);
    if (!Sh(out, "ip link set lo up")) return;
    RecordChecks(out);
    if (!Sh(out, "ip link set lo multicast on")) return;
    RecordChecks(out);
  });
  SKIP_IF_UNSUPPORTED(lines);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0], "private: ok");
  EXPECT_EQ(lines[1],
            std::string("loopback: refusing to open sockets: loopback lo is not ready for "
                        "multicast, missing flags: UP, MULTICAST ") + kHintText);
  EXPECT_TRUE(Contains(lines[3], "missing flags: MULTICAST (")) << lines[3];
  EXPECT_EQ(lines[5], "loopback: ok");
}

TEST(NetnsGuard_FreshNamespace, ForeignInterfacesAreNamed) {
  std::vector<std::string> lines = InFreshNetns([](std::vector<std::string>* out) {
    if (!Sh(out, "ip link set lo up && ip link set lo multicast on")) return;
    if (!Sh(out, "ip link add nsga0 type veth peer name nsgb0")) return;
    RecordChecks(out);
    RecordChecks(out, {"nsg"});
  });
  SKIP_IF_UNSUPPORTED(lines);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(Contains(lines[0], std::string("private: ") + kForeignText)) << lines[0];
  EXPECT_TRUE(Contains(lines[0], "nsga0")) << lines[0];
  EXPECT_TRUE(Contains(lines[0], "nsgb0")) << lines[0];
  EXPECT_TRUE(Contains(lines[0], kHintText)) << lines[0];
  EXPECT_EQ(lines[2], "private: ok");
  EXPECT_EQ(lines[3], "loopback: ok");
}

TEST(NetnsGuard_FreshNamespace, AllowedInterfaceMustCarryTestAddressesOnly) {
  std::vector<std::string> lines = InFreshNetns([](std::vector<std::string>* out) {
    if (!Sh(out, "ip link add eth0 type veth peer name nsgb0")) return;
    if (!Sh(out, "ip addr add 10.9.0.5/24 dev eth0")) return;
    RecordChecks(out, {"eth0", "nsg"});
    if (!Sh(out, "ip addr add 192.0.2.7/24 dev eth0")) return;
    RecordChecks(out, {"eth0", "nsg"});
  });
  SKIP_IF_UNSUPPORTED(lines);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "private: ok");
  EXPECT_TRUE(Contains(lines[2], "outside loopback and the test hosts' 10.9.0.0/24: eth0 "
                                 "192.0.2.7"))
      << lines[2];
  EXPECT_FALSE(Contains(lines[2], "10.9.0.5")) << lines[2];
}

TEST(WaitFor, ReturnsAtOnceWhenAlreadyTrue) {
  int calls = 0;
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(WaitFor([&calls] { return ++calls > 0; }, 5000));
  EXPECT_EQ(calls, 1);
  EXPECT_LT(ElapsedMs(start), 100);
}

TEST(WaitFor, GivesUpAfterTimeoutWithBoundedPolls) {
  int calls = 0;
  const Clock::time_point start = Clock::now();
  EXPECT_FALSE(WaitFor([&calls] { return ++calls < 0; }, 60, 10));
  const long elapsed = ElapsedMs(start);
  EXPECT_GE(elapsed, 60);
  EXPECT_LT(elapsed, 400);
  EXPECT_GE(calls, 2);
  EXPECT_LE(calls, 60 / 10 + 2);
}

TEST(WaitFor, SeesConditionSetByAnotherThread) {
  std::atomic<bool> flag{false};
  std::thread setter([&flag] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    flag = true;
  });
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(WaitFor([&flag] { return flag.load(); }, 5000));
  EXPECT_LT(ElapsedMs(start), 2000);
  setter.join();
}

TEST(WaitFor, DegenerateArgumentsStillCheckOnceAndEnd) {
  EXPECT_FALSE(WaitFor(nullptr, 10));
  int calls = 0;
  EXPECT_TRUE(WaitFor([&calls] { return ++calls == 1; }, -5, 0));
  EXPECT_EQ(calls, 1);
  // A huge step cannot stretch the wait past its timeout.
  const Clock::time_point start = Clock::now();
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
