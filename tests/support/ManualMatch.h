// Connects the endpoints of two processes by hand, in place of discovery: each
// side describes itself in one text line, the other parses it and connects.
// Call from an application thread; the endpoints are borrowed while they change.
#pragma once

#include <cstdint>
#include <string>

#include "BasicTypes.h"

class DataReader;
class DataWriter;
class DomainParticipant;

// What one process tells the other about itself.
struct ManualMatchPeer {
    GuidPrefix prefix = {};  // of the participant
    int domainId = 0;
    uint32_t participantId = 0;
    uint32_t address = 0;                    // IPv4 in host order
    uint32_t userUnicastPort = 0;            // 7411 + 250 d + 2 p, as a UDP port
    EntityId_t writerId = ENTITYID_UNKNOWN;  // ENTITYID_UNKNOWN: no writer
    EntityId_t readerId = ENTITYID_UNKNOWN;  // ENTITYID_UNKNOWN: no reader

    GUID_t writerGuid() const { return GUID_t(prefix, writerId); }
    // Where this participant's user traffic arrives.
    Locator_t userUnicastLocator() const;
};

class ManualMatch {
public:
    // Describes the participant and, when given, a writer and a reader of it.
    // False for a null participant or one without a protocol participant.
    static bool Describe(DomainParticipant* pParticipant, DataWriter* pWriter, DataReader* pReader,
                         ManualMatchPeer* pOut);

    // One line, no line end, e.g. "morvodds-peer prefix=7f0000010300000039300000 domain=3
    // participant=12345 address=127.0.0.1 port=32101 writer=00000403 reader=00000904".
    static std::string Format(const ManualMatchPeer& peer);
    // The inverse of Format; trailing white space is allowed. False on anything else.
    static bool Parse(const std::string& strLine, ManualMatchPeer* pOut);

    // A local best-effort writer sends to the remote participant's user unicast
    // locator from now on. 0, or 1 for a null or reliable writer.
    static int ConnectWriter(DataWriter* pWriter, const ManualMatchPeer& remote);
    // A local reader takes the remote writer's data from now on: a writer proxy
    // on the reader and the writer-to-reader entry that routing asks for.
    // 0, or 1 when the reader is null, the remote names no writer, or the
    // writer is matched already.
    static int ConnectReader(DataReader* pReader, const ManualMatchPeer& remote);
};
