// Value types shared by every layer: identifiers, sequence numbers, locators,
// time, instance handles and return codes. Plain records, copied by value;
// no locks, usable from any thread.
#ifndef MORVODDS_BASICTYPES_H
#define MORVODDS_BASICTYPES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

typedef unsigned char octet;
typedef int32_t ReturnCode_t;  // 32 bits on every platform the library builds for
typedef unsigned long StatusMask;

// ---------------------------------------------------------------- return codes
const ReturnCode_t RETCODE_OK = 0;
const ReturnCode_t RETCODE_ERROR = 1;
const ReturnCode_t RETCODE_BUFFER_FULL = 9;
const ReturnCode_t NO_DATA = 11;
const ReturnCode_t RETCODE_CREATE_BUILTIN_READER_FAILED = 24;
const ReturnCode_t RETCODE_CREATE_BUILTIN_WRITER_FAILED = 242;
const ReturnCode_t RETCODE_ENTITY_NOT_FOUND = 33;
const ReturnCode_t RETCODE_NOT_EXIST = 38;
const ReturnCode_t READERPROXY_NOT_EXIST = 200;
const ReturnCode_t DELETEREQUEST_NOT_EXIST = 997;

// ---------------------------------------------------------------- status masks
const StatusMask LIVELINESS_LOST_STATUS = 0x0800;
const StatusMask LIVELINESS_CHANGED_STATUS = 0x1000;
const StatusMask PUBLICATION_MATCHED_STATUS = 0x2000;
const StatusMask SUBSCRIPTION_MATCHED_STATUS = 0x4000;
const StatusMask STATUS_MASK_ALL = 0xFFFFFFFF;
const StatusMask STATUS_MASK_NONE = 0;

// ---------------------------------------------------------------- identifiers
struct GuidPrefix {
    octet value[12];
};

struct EntityId_t {
    octet entityKey[3];
    octet entityKind;

    bool operator==(const EntityId_t& o) const {
        return entityKey[0] == o.entityKey[0] && entityKey[1] == o.entityKey[1] &&
               entityKey[2] == o.entityKey[2] && entityKind == o.entityKind;
    }
    bool operator!=(const EntityId_t& o) const { return !(*this == o); }
    // Ordering as plain bytes, for maps keyed by entity id.
    bool operator<(const EntityId_t& o) const { return std::memcmp(this, &o, 4) < 0; }
};

#define MORVODDS_ENTITYID(a, b, c, d) \
    EntityId_t {                      \
        {a, b, c}, d                  \
    }
const EntityId_t ENTITYID_UNKNOWN = MORVODDS_ENTITYID(0x00, 0x00, 0x00, 0x00);
const EntityId_t ENTITYID_PARTICIPANT = MORVODDS_ENTITYID(0x00, 0x00, 0x01, 0xC1);
const EntityId_t ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER = MORVODDS_ENTITYID(0x00, 0x00, 0x03, 0xC2);
const EntityId_t ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER = MORVODDS_ENTITYID(0x00, 0x00, 0x03, 0xC7);
const EntityId_t ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER = MORVODDS_ENTITYID(0x00, 0x00, 0x04, 0xC2);
const EntityId_t ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER = MORVODDS_ENTITYID(0x00, 0x00, 0x04, 0xC7);
const EntityId_t ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER = MORVODDS_ENTITYID(0x00, 0x01, 0x00, 0xC2);
const EntityId_t ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER = MORVODDS_ENTITYID(0x00, 0x01, 0x00, 0xC7);
const EntityId_t ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER = MORVODDS_ENTITYID(0x00, 0x02, 0x00, 0xC2);
const EntityId_t ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_READER = MORVODDS_ENTITYID(0x00, 0x02, 0x00, 0xC7);
#undef MORVODDS_ENTITYID

struct GUID_t {
    GuidPrefix guidPrefix;
    EntityId_t entityId;

    // The prefix is deliberately left unset, as callers always fill it.
    GUID_t() : entityId(ENTITYID_UNKNOWN) {}
    GUID_t(const GuidPrefix& prefix, const EntityId_t& id) : guidPrefix(prefix), entityId(id) {}

    bool operator==(const GUID_t& o) const {
        return std::memcmp(guidPrefix.value, o.guidPrefix.value, 12) == 0 && entityId == o.entityId;
    }
    bool operator!=(const GUID_t& o) const { return !(*this == o); }
    bool operator<(const GUID_t& o) const { return std::memcmp(this, &o, 16) < 0; }
};
static_assert(sizeof(GUID_t) == 16, "GUID_t is 16 plain octets");

inline GUID_t MakeGuidUnknown() {
    GUID_t g;
    std::memset(g.guidPrefix.value, 0, sizeof(g.guidPrefix.value));
    return g;
}
const GUID_t GUID_UNKNOWN = MakeGuidUnknown();

// ---------------------------------------------------------------- sequence numbers
struct SequenceNumber_t {
    int32_t high;
    uint32_t low;

    // -2/0 is the "unknown" value of this system, not the -1 of the protocol standard.
    SequenceNumber_t() : high(-2), low(0) {}
    SequenceNumber_t(int32_t h, uint32_t l) : high(h), low(l) {}

    SequenceNumber_t& operator+=(uint32_t n) {
        if (low > ~n) ++high;
        low += n;
        return *this;
    }
    SequenceNumber_t operator+(uint32_t n) const {
        SequenceNumber_t r(*this);
        r += n;
        return r;
    }
    SequenceNumber_t& operator++() { return *this += 1; }
    // Subtracting borrows from high the way adding carries into it.
    SequenceNumber_t& operator-=(uint32_t n) {
        if (low < n) --high;
        low -= n;
        return *this;
    }
    SequenceNumber_t operator-(uint32_t n) const {
        SequenceNumber_t r(*this);
        r -= n;
        return r;
    }
    SequenceNumber_t& operator--() { return *this -= 1; }

    bool operator==(const SequenceNumber_t& o) const { return high == o.high && low == o.low; }
    bool operator!=(const SequenceNumber_t& o) const { return !(*this == o); }
    bool operator<(const SequenceNumber_t& o) const {
        return high < o.high || (high == o.high && low < o.low);
    }
    bool operator>(const SequenceNumber_t& o) const { return o < *this; }
    bool operator<=(const SequenceNumber_t& o) const { return !(o < *this); }
    bool operator>=(const SequenceNumber_t& o) const { return !(*this < o); }

    // As a single signed 64-bit number, for distances and bitmap offsets.
    int64_t ToInt64() const { return (int64_t(high) << 32) | int64_t(low); }
};

const SequenceNumber_t SEQUENCENUMBER_UNKNOWN = SequenceNumber_t();
const SequenceNumber_t SEQUENCENUMBER_ZERO = SequenceNumber_t(0, 0);

// Bitmaps carry at most 256 bits (8 words) on the wire.
struct SequenceNumberSet {
    SequenceNumber_t bitmapBase;
    uint32_t numBits;
    uint32_t bitmap[8];

    SequenceNumberSet() : numBits(0) { std::memset(bitmap, 0, sizeof(bitmap)); }
};

struct FragmentNumberSet {
    uint32_t bitmapBase;
    uint32_t numBits;
    uint32_t bitmap[8];

    FragmentNumberSet() : bitmapBase(0), numBits(0) { std::memset(bitmap, 0, sizeof(bitmap)); }
};

// ---------------------------------------------------------------- locators
const int32_t LOCATOR_KIND_INVALID = -1;
const int32_t LOCATOR_KIND_RESERVED = 0;
const int32_t LOCATOR_KIND_UDPv4 = 1;
const int32_t LOCATOR_KIND_UDPv6 = 2;

struct Locator_t {
    int32_t kind;
    uint32_t port;
    octet address[16];

    Locator_t() : kind(0), port(0) { std::memset(address, 0, sizeof(address)); }

    // IPv4 address in host order, from the last four octets (network order on the wire).
    uint32_t GetIPv4() const {
        return (uint32_t(address[12]) << 24) | (uint32_t(address[13]) << 16) | (uint32_t(address[14]) << 8) |
               uint32_t(address[15]);
    }
    void SetIPv4(uint32_t hostOrder) {
        address[12] = octet(hostOrder >> 24);
        address[13] = octet(hostOrder >> 16);
        address[14] = octet(hostOrder >> 8);
        address[15] = octet(hostOrder);
    }
    bool operator==(const Locator_t& o) const { return std::memcmp(this, &o, sizeof(*this)) == 0; }
    bool operator!=(const Locator_t& o) const { return !(*this == o); }
    bool operator<(const Locator_t& o) const { return std::memcmp(this, &o, sizeof(*this)) < 0; }
};
static_assert(sizeof(Locator_t) == 24, "Locator_t is 24 plain octets");

// ---------------------------------------------------------------- time
// One record for both conventions: durations and public times carry nanoseconds
// in the second word, RTPS timestamps carry 2^-32 second fractions.
struct Time_t {
    int32_t sec;
    uint32_t nanosec;

    Time_t() : sec(0), nanosec(0) {}
    Time_t(int32_t s, uint32_t n) : sec(s), nanosec(n) {}

    bool operator>(const Time_t& o) const { return sec > o.sec || (sec == o.sec && nanosec > o.nanosec); }
    bool operator<(const Time_t& o) const { return o > *this; }
    bool operator==(const Time_t& o) const { return sec == o.sec && nanosec == o.nanosec; }
    bool operator!=(const Time_t& o) const { return sec != o.sec || nanosec != o.nanosec; }
    // Nanosecond arithmetic: carries into sec at 1,000,000,000.
    Time_t operator+(const Time_t& o) const {
        uint64_t ns = uint64_t(nanosec) + uint64_t(o.nanosec);
        Time_t r(sec + o.sec + int32_t(ns / 1000000000ULL), uint32_t(ns % 1000000000ULL));
        return r;
    }
};
typedef Time_t Duration_t;

const Duration_t DURATION_ZERO = Duration_t(0, 0);
const Duration_t DURATION_INFINITE = Duration_t(0x7FFFFFFF, 0xFFFFFFFF);

// RTPS timestamp of now: 2^-32 fractions, from the 100 ns wall clock.
Time_t GetRtpsTimestamp();

// ---------------------------------------------------------------- instance handle
struct InstanceHandle_t {
    octet value[16];
    uint32_t length;
    int32_t isValid;

    // The value octets are left unset, as in every handle the system makes.
    InstanceHandle_t() : length(16), isValid(0) {}
    explicit InstanceHandle_t(const GUID_t& guid) : length(16), isValid(1) { std::memcpy(value, &guid, 16); }
    bool operator==(const InstanceHandle_t& o) const {
        return std::memcmp(value, o.value, 16) == 0 && length == o.length && isValid == o.isValid;
    }
    bool operator!=(const InstanceHandle_t& o) const { return !(*this == o); }
};

inline InstanceHandle_t MakeHandleNil() {
    InstanceHandle_t h;
    std::memset(h.value, 0, sizeof(h.value));
    return h;
}
const InstanceHandle_t HANDLE_NIL = MakeHandleNil();

// ---------------------------------------------------------------- parameters
const uint16_t PID_SENTINEL = 0x0001;
const uint16_t PID_KEY_HASH = 0x0070;
const uint16_t PID_STATUS_INFO = 0x0071;
const int PARAMETER_VALUE_MAX = 128;

// One RTPS parameter in memory. The value holds at most 128 octets.
struct Parameter {
    uint16_t parameterId;
    int16_t length;
    octet value[PARAMETER_VALUE_MAX];

    Parameter() : parameterId(0), length(0) { std::memset(value, 0, sizeof(value)); }
    Parameter(uint16_t id, int16_t len, const void* data) : parameterId(id), length(len) {
        std::memset(value, 0, sizeof(value));
        size_t n = len < 0 ? 0 : size_t(len) > sizeof(value) ? sizeof(value) : size_t(len);
        if (data && n) std::memcpy(value, data, n);
    }
};

// ---------------------------------------------------------------- sample records
struct UserData {
    octet* data;
    uint32_t length;
    UserData() : data(nullptr), length(0) {}
    UserData(octet* d, uint32_t l) : data(d), length(l) {}
};

// Carries no information about a sample; kept so signatures have their usual shape.
struct SampleInfo {};

#endif
