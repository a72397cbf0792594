// Every participant opens sockets, so this whole binary refuses to run outside a
// private network namespace (scripts/netns-run).
#include "NetnsGuard.h"

namespace {
const bool g_registered = [] {
    AddNetnsGuardEnvironment();
    return true;
}();
}  // namespace
