// An in-process network for the participants of one test process: every participant made
// while it is installed sends and receives through it instead of sockets, so a test drives
// writers and readers through the public API over a network it controls. Unicast reaches the
// one participant that listens on the destination port, multicast every member of the group
// on that port. Rules drop, duplicate, delay or reorder datagrams by submessage kind, by
// destination port or at random from a seed. Thread-safe; nothing here opens a socket.
#pragma once

#include <cstdint>
#include <vector>

#include "BasicTypes.h"

class MessageTransmitter;
class ReceiveBuffer;

class FakeNetwork {
public:
    enum Action { DROP, DUPLICATE, DELAY, REORDER };
    // The first rule that matches a datagram acts on it; none matching, it is delivered.
    struct Rule {
        Action action = DROP;
        int iKind = -1;           // a submessage kind the datagram must hold; -1: any
        uint32_t uiPort = 0;      // the destination port; 0: any
        double dChance = 1.0;     // drawn from the network's seeded generator
        int iTimes = -1;          // how many more datagrams it may act on; -1: no limit
        uint32_t uiDelayMs = 20;  // DELAY: how long; REORDER holds a datagram until the next
                                  // one to the same port has passed, or this long
    };
    struct Counts {
        uint64_t sent = 0, delivered = 0, dropped = 0, duplicated = 0, delayed = 0;
    };

    // Makes every participant created from now on use the network (the transmitter factory
    // and a single loopback adapter), until Uninstall. Rules and counts start afresh.
    static void Install(uint32_t uiSeed = 1);
    static void Uninstall();

    static void AddRule(const Rule& rule);
    static void ClearRules();
    static Counts GetCounts();
    // Delivers whatever is delayed or held now.
    static void Flush();

    // The transmitter factory the participant takes.
    static MessageTransmitter* MakeTransmitter(ReceiveBuffer* pReceiveBuffer, int iLogKey);

    // Whether a datagram holds a submessage of this kind (walked by the length fields).
    static bool HoldsKind(const octet* pMessage, uint32_t uiLength, int iKind);
};
