// Shared by the rtps tests: one-line builders of the records they need, and a fake
// expiry clock and fake network adapters that the fixture puts back after each test.
#pragma once

#include <gtest/gtest.h>

#include "DataSendRig.h"
#include "NetnsGuard.h"
#include "core/NetCard.h"
#include "rtps/HistoryCache.h"

const ReliabilityQosPolicyKind RELIABLE = RELIABLE_RELIABILITY_QOS, BEST_EFFORT = BEST_EFFORT_RELIABILITY_QOS;

inline SequenceNumber_t Sn(uint32_t low) {
    return SequenceNumber_t(0, low);
}

// A reader or writer QoS record of the given reliability.
template <class Qos = DataWriterQos>
Qos WithReliability(ReliabilityQosPolicyKind kind) {
    Qos qos;
    qos.reliability.kind = kind;
    return qos;
}

class RtpsTest : public testing::Test {
protected:
    // From here on the caches' expiry clock reads s_Now.
    static void FakeNow() {
        HistoryCache::SetTimeSource([] { return s_Now; });
    }
    void TearDown() override {
        HistoryCache::SetTimeSource(nullptr);
        SetNetCardSource(nullptr);
    }
    static inline Time_t s_Now;
};
