// Hand-built RTPS datagrams for decoder tests, hostile-input tests and fuzz seeds.
// Fields go in the byte order of the E flag; parameter ids and lengths always
// little-endian, as the decoder never swaps them.
#pragma once

#include <cstring>
#include <vector>

#include "BasicTypes.h"
#include "messages/SubMessages.h"

typedef std::vector<octet> Octets;

struct Body {
    explicit Body(bool bLittle = true) : little(bLittle) {}
    Body& U8(unsigned v) { return Raw({octet(v)}); }
    Body& U16(unsigned v) { return little ? U8(v & 0xFF).U8(v >> 8 & 0xFF) : U8(v >> 8 & 0xFF).U8(v & 0xFF); }
    Body& U32(uint32_t v) { return little ? U16(v & 0xFFFF).U16(v >> 16) : U16(v >> 16).U16(v & 0xFFFF); }
    Body& Id(const EntityId_t& id) {
        return Raw({id.entityKey[0], id.entityKey[1], id.entityKey[2], id.entityKind});
    }
    Body& Seq(uint32_t low, uint32_t high = 0) { return U32(high).U32(low); }
    Body& Raw(const Octets& v) {
        bytes.insert(bytes.end(), v.begin(), v.end());
        return *this;
    }
    Body& Param(uint16_t id, const Octets& value) {
        return U8(id & 0xFF).U8(id >> 8).U8(value.size() & 0xFF).U8(value.size() >> 8).Raw(value);
    }
    bool little;
    Octets bytes;
};

struct Datagram {
    explicit Datagram(const GuidPrefix& prefix) {
        bytes = {'R', 'T', 'P', 'S', 2, 2, 8, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        std::memcpy(&bytes[8], prefix.value, 12);
    }
    // octetsToNextHeader is the body's size unless given.
    Datagram& Sub(octet kind, octet flags, const Body& body, int iLength = -1) {
        Body head((flags & 1) != 0);
        head.U8(kind).U8(flags).U16(iLength < 0 ? unsigned(body.bytes.size()) : unsigned(iLength));
        bytes.insert(bytes.end(), head.bytes.begin(), head.bytes.end());
        bytes.insert(bytes.end(), body.bytes.begin(), body.bytes.end());
        return *this;
    }
    Datagram& Data(const EntityId_t& writer, uint32_t sn, const Octets& payload, const Body& qos = Body(),
                   bool bLittle = true) {
        Body b(bLittle);
        b.U16(0)
            .U16(qos.bytes.empty() ? 0 : 16)
            .Id(ENTITYID_UNKNOWN)
            .Id(writer)
            .Seq(sn)
            .Raw(qos.bytes)
            .Raw(payload);
        return Sub(DATA, octet((bLittle ? 1 : 0) | (qos.bytes.empty() ? 0 : 2) | (payload.empty() ? 0 : 4)),
                   b);
    }
    Datagram& DataFrag(const EntityId_t& writer, uint32_t sn, uint32_t fragNum, uint32_t sampleSize,
                       const Octets& fragment, uint16_t fragmentSize = uint16_t(FRAGMENT_SIZE)) {
        Body b;
        b.U16(0).U16(0).Id(ENTITYID_UNKNOWN).Id(writer).Seq(sn);
        return Sub(DATA_FRAG, 1, b.U32(fragNum).U16(1).U16(fragmentSize).U32(sampleSize).Raw(fragment));
    }
    Datagram& Heartbeat(const EntityId_t& writer, uint32_t first, uint32_t last, uint32_t count,
                        bool bLittle = true) {
        Body b(bLittle);
        return Sub(HEARTBEAT, bLittle ? 1 : 0,
                   b.Id(ENTITYID_UNKNOWN).Id(writer).Seq(first).Seq(last).U32(count));
    }
    // Bitmap of numBits rounded up to words, then the count, as the encoder lays it out.
    Datagram& AckNack(const EntityId_t& writer, uint32_t base, uint32_t numBits, uint32_t count) {
        Body b;
        b.Id(reader).Id(writer).Seq(base).U32(numBits);
        for (uint32_t i = 0; i < (numBits + 31) / 32; ++i) b.U32(0xA0000000u + i);
        return Sub(ACKNACK, 1, b.U32(count));
    }
    Datagram& NackFrag(const EntityId_t& writer, uint32_t sn, uint32_t base, uint32_t numBits) {
        Body b;
        b.Id(reader).Id(writer).Seq(sn).U32(base).U32(numBits);
        for (uint32_t i = 0; i < (numBits + 31) / 32; ++i) b.U32(0x80000000u);
        return Sub(NACK_FRAG, 3, b.U32(base));
    }
    Datagram& Gap(const EntityId_t& writer, uint32_t start) {
        return Sub(GAP, 1, Body().Id(ENTITYID_UNKNOWN).Id(writer).Seq(start).Seq(start + 1).U32(0));
    }
    Octets bytes;
    EntityId_t reader = {{0x00, 0x09, 0x01}, 0x04};  // of ACKNACK and NACK_FRAG
};

// Unknown submessages (PAD) of 0xFF octets up to the given datagram size.
void FillTo(Datagram& d, size_t uiSize) {
    while (uiSize - d.bytes.size() > 4 + 60000) d.Sub(0x01, 1, Body().Raw(Octets(60000, 0xFF)));
    d.Sub(0x01, 1, Body().Raw(Octets(uiSize - d.bytes.size() - 4, 0xFF)));
}
