// Cost of one datagram through the ring: a Write followed by its Read, at the
// sizes of a small protocol message and of a full DATA_FRAG payload.
#include <benchmark/benchmark.h>

#include <vector>

#include "messages/ReceiveBuffer.h"

static void BM_ReceiveBuffer_WriteRead(benchmark::State& state) {
    const uint32_t uiSize = static_cast<uint32_t>(state.range(0));
    ReceiveBuffer ring;
    std::vector<octet> data(uiSize, 0x5A);
    std::vector<octet> out(ReceiveBuffer::READ_DESTINATION_SIZE);
    for (auto _ : state) {
        uint32_t uiLength = 0;
        if (ring.Write(data.data(), uiSize) != 0 || ring.Read(out.data(), uiLength) != 0) {
            state.SkipWithError("ring refused a record");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * uiSize);
}
BENCHMARK(BM_ReceiveBuffer_WriteRead)->Arg(64)->Arg(64512);
