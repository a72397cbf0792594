// QoS policy records and the entity QoS records, with their defaults.
// Plain records copied by value into each entity at creation; sequences deep-copy.
#ifndef MORVODDS_QOSPOLICY_H
#define MORVODDS_QOSPOLICY_H

#include <string>

#include "BasicTypes.h"
#include "Sequence.h"

typedef sequence<octet> OctetSeq;
typedef sequence<std::string> StringSeq;

const int32_t LENGTH_UNLIMITED = -1;

enum DurabilityQosPolicyKind {
    VOLATILE_DURABILITY_QOS = 0,
    TRANSIENT_LOCAL_DURABILITY_QOS = 1,
    TRANSIENT_DURABILITY_QOS = 2,
    PERSISTENT_DURABILITY_QOS = 3
};
enum LivelinessQosPolicyKind {
    AUTOMATIC_LIVELINESS_QOS = 0,
    MANUAL_BY_PARTICIPANT_LIVELINESS_QOS = 1,
    MANUAL_BY_TOPIC_LIVELINESS_QOS = 2
};
// 0 is not a value, as on the wire.
enum ReliabilityQosPolicyKind { BEST_EFFORT_RELIABILITY_QOS = 1, RELIABLE_RELIABILITY_QOS = 2 };
enum DestinationOrderQosPolicyKind {
    BY_RECEPTION_TIMESTAMP_DESTINATIONORDER_QOS = 0,
    BY_SOURCE_TIMESTAMP_DESTINATIONORDER_QOS = 1
};
enum HistoryQosPolicyKind { KEEP_LAST_HISTORY_QOS = 0, KEEP_ALL_HISTORY_QOS = 1 };
enum OwnershipQosPolicyKind { SHARED_OWNERSHIP_QOS = 0, EXCLUSIVE_OWNERSHIP_QOS = 1 };
enum PublishModeQosPolicyKind { SYNCHRONOUS_PUBLISH_MODE_QOS = 0, ASYNCHRONOUS_PUBLISH_MODE_QOS = 1 };
enum TransportMulticastQosPolicyKind {
    DDS_AUTOMATIC_TRANSPORT_MULTICAST_QOS = 0,
    DDS_UNICAST_ONLY_TRANSPORT_MULTICAST_QOS = 1
};

struct DurabilityQosPolicy {
    DurabilityQosPolicyKind kind = VOLATILE_DURABILITY_QOS;
};
struct DurabilityServiceQosPolicy {
    Duration_t service_cleanup_delay = DURATION_ZERO;
    HistoryQosPolicyKind history_kind = KEEP_ALL_HISTORY_QOS;
    int32_t history_depth = 1;
    int32_t max_samples = LENGTH_UNLIMITED;
    int32_t max_instances = LENGTH_UNLIMITED;
    int32_t max_samples_per_instance = LENGTH_UNLIMITED;
};
struct DeadlineQosPolicy {
    Duration_t period = DURATION_INFINITE;
};
struct LatencyBudgetQosPolicy {
    Duration_t duration = DURATION_ZERO;
};
struct LivelinessQosPolicy {
    LivelinessQosPolicyKind kind = AUTOMATIC_LIVELINESS_QOS;
    Duration_t lease_duration = DURATION_INFINITE;
};
struct ReliabilityQosPolicy {
    ReliabilityQosPolicyKind kind = BEST_EFFORT_RELIABILITY_QOS;
    Duration_t max_blocking_time;  // carried only; write does not honour it
};
struct DestinationOrderQosPolicy {
    DestinationOrderQosPolicyKind kind = BY_RECEPTION_TIMESTAMP_DESTINATIONORDER_QOS;
};
struct HistoryQosPolicy {
    HistoryQosPolicyKind kind = KEEP_LAST_HISTORY_QOS;
    int32_t depth = 1;
};
struct ResourceLimitsQosPolicy {
    int32_t max_samples = LENGTH_UNLIMITED;
    int32_t max_instances = LENGTH_UNLIMITED;
    int32_t max_samples_per_instance = LENGTH_UNLIMITED;
};
struct TransportPriorityQosPolicy {
    int32_t value = 0;
};
struct LifespanQosPolicy {
    Duration_t duration = DURATION_INFINITE;
};
struct OwnershipQosPolicy {
    OwnershipQosPolicyKind kind = SHARED_OWNERSHIP_QOS;
};
struct OwnershipStrengthQosPolicy {
    int32_t value = 0;
};
struct WriterDataLifecycleQosPolicy {
    bool autodispose_unregistered_instances = true;
};
struct ReaderDataLifecycleQosPolicy {
    Duration_t autopurge_nowriter_samples_delay = DURATION_INFINITE;
    Duration_t autopurge_disposed_samples_delay = DURATION_INFINITE;
};
struct TimeBasedFilterQosPolicy {
    Duration_t minimum_separation = DURATION_ZERO;
};
struct PublishModeQosPolicy {
    PublishModeQosPolicyKind kind = SYNCHRONOUS_PUBLISH_MODE_QOS;
};
struct PresentationQosPolicy {
    int32_t access_scope = 0;
    bool coherent_access = false;
    bool ordered_access = false;
};
struct PartitionQosPolicy {
    StringSeq name;
};
struct TopicDataQosPolicy {
    OctetSeq value;
};
struct GroupDataQosPolicy {
    OctetSeq value;
};
struct UserDataQosPolicy {
    OctetSeq value;
};
struct EntityFactoryQosPolicy {
    bool autoenable_created_entities = true;  // nothing reads it
};

// One multicast receive setting; port 0 lets the subscriber work it out.
struct TransportMulticastSetting {
    std::string receive_address;
    uint32_t receive_port = 0;
};
typedef sequence<TransportMulticastSetting> TransportMulticastSettingSeq;

struct TransportMulticastQosPolicy {
    TransportMulticastQosPolicyKind kind = DDS_UNICAST_ONLY_TRANSPORT_MULTICAST_QOS;
    TransportMulticastSettingSeq value;
};

// ---------------------------------------------------------------- entity QoS records
struct DomainParticipantQos {
    UserDataQosPolicy user_data;
    EntityFactoryQosPolicy entity_factory;
    TransportMulticastQosPolicy multicast;
    StringSeq peer_list;
    StringSeq multicast_peer_list;
    // Copied as a pointer: the application keeps the string alive.
    const char* local_address = nullptr;
};

struct TopicQos {
    TopicDataQosPolicy topic_data;
    DurabilityQosPolicy durability;
    DurabilityServiceQosPolicy durability_service;
    DeadlineQosPolicy deadline;
    LatencyBudgetQosPolicy latency_budget;
    LivelinessQosPolicy liveliness;
    ReliabilityQosPolicy reliability;
    DestinationOrderQosPolicy destination_order;
    HistoryQosPolicy history;
    ResourceLimitsQosPolicy resource_limits;
    TransportPriorityQosPolicy transport_priority;
    LifespanQosPolicy lifespan;
    OwnershipQosPolicy ownership;
};

struct PublisherQos {
    PresentationQosPolicy presentation;
    PartitionQosPolicy partition;
    GroupDataQosPolicy group_data;
    EntityFactoryQosPolicy entity_factory;
};

struct SubscriberQos {
    PresentationQosPolicy presentation;
    PartitionQosPolicy partition;
    GroupDataQosPolicy group_data;
    EntityFactoryQosPolicy entity_factory;
};

struct DataWriterQos {
    TopicDataQosPolicy topic_data;
    GroupDataQosPolicy group_data;
    UserDataQosPolicy user_data;
    DurabilityQosPolicy durability;
    DurabilityServiceQosPolicy durability_service;
    DeadlineQosPolicy deadline;
    LatencyBudgetQosPolicy latency_budget;
    LivelinessQosPolicy liveliness;
    ReliabilityQosPolicy reliability;
    DestinationOrderQosPolicy destination_order;
    HistoryQosPolicy history;
    ResourceLimitsQosPolicy resource_limits;
    TransportPriorityQosPolicy transport_priority;
    LifespanQosPolicy lifespan;
    OwnershipQosPolicy ownership;
    OwnershipStrengthQosPolicy ownership_strength;
    WriterDataLifecycleQosPolicy writer_data_lifecycle;
    PublishModeQosPolicy publish_mode;
};

struct DataReaderQos {
    TopicDataQosPolicy topic_data;
    GroupDataQosPolicy group_data;
    DurabilityQosPolicy durability;
    DeadlineQosPolicy deadline;
    LatencyBudgetQosPolicy latency_budget;
    LivelinessQosPolicy liveliness;
    ReliabilityQosPolicy reliability;
    DestinationOrderQosPolicy destination_order;
    HistoryQosPolicy history;
    ResourceLimitsQosPolicy resource_limits;
    UserDataQosPolicy user_data;
    OwnershipQosPolicy ownership;
    TimeBasedFilterQosPolicy time_based_filter;
    ReaderDataLifecycleQosPolicy reader_data_lifecycle;
    TransportMulticastQosPolicy multicast;
};

// Accepted by stubs only.
struct DomainParticipantFactoryQos {
    EntityFactoryQosPolicy entity_factory;
};

// Per-unit default records: each unit has its own copy, nothing compares them by address.
static const DomainParticipantQos PARTICIPANT_QOS_DEFAULT;
static const TopicQos TOPIC_QOS_DEFAULT;
static const PublisherQos PUBLISHER_QOS_DEFAULT;
static const SubscriberQos SUBSCRIBER_QOS_DEFAULT;
static const DataWriterQos DATAWRITER_QOS_DEFAULT;
static const DataReaderQos DATAREADER_QOS_DEFAULT;

#endif
