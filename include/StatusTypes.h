// Status records of the DCPS interface. Plain records; the entity that owns one
// updates it on the thread that detects the event (process or timer thread).
#ifndef MORVODDS_STATUSTYPES_H
#define MORVODDS_STATUSTYPES_H

#include "BasicTypes.h"

struct LivelinessLostStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
};

struct LivelinessChangedStatus {
    int32_t alive_count = 0;
    int32_t not_alive_count = 0;
    int32_t alive_count_change = 0;
    int32_t not_alive_count_change = 0;
    InstanceHandle_t last_publication_handle;
};

struct OfferedDeadlineMissedStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
};

struct RequestedDeadlineMissedStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
};

struct PublicationMatchedStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
    int32_t current_count = 0;
    int32_t current_count_change = 0;
    int32_t current_count_peak = 0;  // nothing writes it
    InstanceHandle_t last_subscription_handle;
};

struct SubscriptionMatchedStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
    int32_t current_count = 0;
    int32_t current_count_change = 0;
    InstanceHandle_t last_publication_handle;
};

// Declared for the interface only; their getters are stubs.
struct SampleLostStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
};
struct SampleRejectedStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
    int32_t last_reason = 0;
    InstanceHandle_t last_instance_handle;
};
struct OfferedIncompatibleQosStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
    int32_t last_policy_id = 0;
};
struct RequestedIncompatibleQosStatus {
    int32_t total_count = 0;
    int32_t total_count_change = 0;
    int32_t last_policy_id = 0;
};

#endif
