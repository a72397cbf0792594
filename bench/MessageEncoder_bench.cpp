// Cost of composing one data message as a send request does: header, INFO_TS
// and DATA, with the message lock held, for a small sample and for the largest
// sample that still travels as a single DATA. Only the first iteration grows
// the buffer; the rest reuse it, as a running participant does.
#include <benchmark/benchmark.h>

#include <list>
#include <vector>

#include "messages/MessageProcessor.h"

static void BM_MessageEncoder_ComposeData(benchmark::State& state) {
    const uint32_t uiSize = static_cast<uint32_t>(state.range(0));
    GuidPrefix prefix = {{127, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0}};
    const EntityId_t writerId = {{0x00, 0x00, 0x12}, 0x03};
    MessageProcessor processor(nullptr, nullptr, prefix, 0);
    std::vector<octet> payload(uiSize, 0x5A);
    const std::list<Parameter> noQos;
    SequenceNumber_t seq(0, 1);
    const Time_t timestamp(1000, 0x80000000u);

    for (auto _ : state) {
        processor.lockMessage();
        uint32_t uiMessageLen = 0;
        octet* pMessage = processor.EncapsulateMessageHeader(uiMessageLen);
        if (pMessage != nullptr) pMessage = processor.EncapsulateINFOTSMessage(uiMessageLen, timestamp);
        if (pMessage != nullptr)
            pMessage =
                processor.EncapsulateDATAMessage(uiMessageLen, payload.data(), uiSize, seq, noQos, writerId);
        processor.unlockMessage();
        if (pMessage == nullptr) {
            state.SkipWithError("encoder failed");
            break;
        }
        benchmark::DoNotOptimize(processor.getEncapsulateMessage());
        benchmark::ClobberMemory();
        ++seq;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * uiSize);
    state.counters["capacity"] = processor.getEncapsulateMessageSize();
}
BENCHMARK(BM_MessageEncoder_ComposeData)->Arg(64)->Arg(64512);
