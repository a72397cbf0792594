// User-space cost per sample of the best-effort path, with the sockets taken
// out: a StatelessWriter's synchronous send into a transport that drops every
// message, and the process thread's step from the ring through the decoder.
// The kernel's share (sendto, recvfrom, wake-ups) is what bench_e2e adds.
#include <benchmark/benchmark.h>

#include <cstring>
#include <list>
#include <vector>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitter.h"
#include "messages/ReceiveBuffer.h"
#include "rtps/CacheChange.h"
#include "rtps/Participant.h"
#include "rtps/StatelessWriter.h"

namespace {
// Takes every message and sends nothing; the receive side is never started.
class DroppingTransmitter : public MessageTransmitter {
public:
    explicit DroppingTransmitter(ReceiveBuffer* pBuffer) : MessageTransmitter(pBuffer) {}
    int SendAddrAdd(Locator_t) override { return 0; }
    int MessageSend(const std::list<Locator_t>& sources, const std::list<Locator_t>& destinations,
                    const octet* pMessage, uint32_t uiLength) override {
        for (const Locator_t& source : sources)
            for (const Locator_t& destination : destinations)
                MessageSend(source, destination, pMessage, uiLength);
        return 0;
    }
    int MessageSend(Locator_t, Locator_t, const octet* pMessage, uint32_t) override {
        benchmark::DoNotOptimize(pMessage);
        return 0;
    }
    int MessageSend(const Locator_t* pSource, const Locator_t* pDestination, const octet* pMessage,
                    uint32_t uiLength) override {
        return MessageSend(*pSource, *pDestination, pMessage, uiLength);
    }
    int ReceiveMessage() override { return 0; }
    int ReceiveAddrAdd(Locator_t) override { return 0; }
    int ReceiveAddrRemove(Locator_t) override { return 0; }

    static MessageTransmitter* Make(ReceiveBuffer* pBuffer, int) { return new DroppingTransmitter(pBuffer); }
};

Locator_t Loopback(uint32_t uiPort) {
    Locator_t locator;
    locator.kind = LOCATOR_KIND_UDPv4;
    locator.port = uiPort;
    locator.SetIPv4(0x7F000001);
    return locator;
}

GUID_t BenchGuid() {
    GUID_t guid = GUID_UNKNOWN;
    guid.guidPrefix.value[0] = 127;
    guid.guidPrefix.value[3] = 1;
    guid.guidPrefix.value[8] = 1;
    guid.entityId = ENTITYID_PARTICIPANT;
    return guid;
}
}  // namespace

// One DataSend of a best-effort writer with one source and one destination:
// change, request, message composition, borrow and locator lists.
static void BM_BestEffort_DataSend(benchmark::State& state) {
    const uint32_t uiSize = static_cast<uint32_t>(state.range(0));
    Participant participant(BenchGuid(), nullptr, 7, nullptr, &DroppingTransmitter::Make);
    DataWriterQos qos;
    qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
    StatelessWriter* pWriter =
        dynamic_cast<StatelessWriter*>(participant.createWriter(qos, ENTITYID_UNKNOWN));
    if (pWriter == nullptr) {
        state.SkipWithError("no best-effort writer");
        return;
    }
    pWriter->setUnicastLocatorList(std::list<Locator_t>{Loopback(0)});
    pWriter->reader_locator_add(Loopback(7411));
    std::vector<octet> payload(uiSize, 0x5A);
    for (auto _ : state) {
        CacheChange* pChange = pWriter->new_change(payload.data(), uiSize, CHANGE_KIND_ALIVE, HANDLE_NIL);
        if (pChange == nullptr || pWriter->DataSend(pChange) != 0) {
            state.SkipWithError("send refused");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_BestEffort_DataSend)->Arg(64)->Arg(64512);

// One step of the process thread for a datagram that concerns no endpoint
// (header and INFO_TS): the ring's Read, the buffer's clearing and the walk.
static void BM_Decoder_RingToWalk(benchmark::State& state) {
    const uint32_t uiSize = static_cast<uint32_t>(state.range(0));
    GuidPrefix prefix = {{127, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0}};
    ReceiveBuffer ring;
    MessageProcessor processor(nullptr, &ring, prefix, 0);
    // Header, INFO_TS, then a PAD that stretches the datagram to uiSize.
    std::vector<octet> datagram(uiSize, 0);
    const octet front[] = {'R', 'T', 'P', 'S', 2,    2,    8, 8, 127, 0, 0, 1, 0, 0, 0, 0,
                           1,   0,   0,   0,   0x09, 0x01, 8, 0, 1,   0, 0, 0, 2, 0, 0, 0};
    std::memcpy(datagram.data(), front, sizeof(front));
    const uint32_t uiPad = uiSize - sizeof(front) - 4;
    const octet pad[] = {0x01, 0x01, octet(uiPad & 0xFF), octet(uiPad >> 8)};
    std::memcpy(datagram.data() + sizeof(front), pad, sizeof(pad));
    std::vector<octet> buffer(MessageProcessor::MESSAGE_BUFFER_SIZE, 0);
    uint32_t uiUsed = 0;
    for (auto _ : state) {
        if (ring.Write(datagram.data(), uiSize) != 0 ||
            processor.InterpretMessage(buffer.data(), uiUsed) != 0) {
            state.SkipWithError("ring refused a record");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_Decoder_RingToWalk)->Arg(64)->Arg(64512);
