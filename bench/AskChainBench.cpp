// Throughput of the ASK chain on one core: a synthesized 60-second stream of
// power transfer (a control error every 50 ms, received power every second),
// fed in 5 ms chunks as the device sends them, through the stream parser, the
// burst cutter, the refining pass and the frame decoder.
#include "AskChain.h"

#include <benchmark/benchmark.h>

namespace {

struct PowerTransferStream {
    std::vector<uint8_t> bytes;
    size_t samples = 0;
    size_t packets = 0;

    PowerTransferStream()
    {
        qisim::AskWaveParams p;
        p.swing = 2000;
        p.noiseFraction = 0.02;
        p.jitterSamples = 1.0;
        qisim::AskWaveWriter w(p, 2024);
        const size_t total = 60 * 40000;
        size_t next = 0;  // sample number of the next packet
        int k = 0;
        while (w.Samples().size() < total) {
            if (w.Samples().size() < next) {
                w.Idle(next - w.Samples().size());
                continue;
            }
            if (k % 20 == 19)
                w.Packet(qisim::WithChecksum({0x04, static_cast<uint8_t>(k)}), 11);
            else
                w.Packet(qisim::WithChecksum({0x03, static_cast<uint8_t>(k % 7)}), 11);
            ++packets;
            ++k;
            next += 2000;  // 50 ms
        }
        samples = w.Samples().size();
        bytes = qisim::AskStreamFrames(w.Samples(), 200);
    }
};

const PowerTransferStream& Stream()
{
    static PowerTransferStream s;
    return s;
}

void BM_AskChain60s(benchmark::State& state)
{
    const PowerTransferStream& s = Stream();
    size_t frames = 0;
    for (auto _ : state) {
        AskChain chain;
        chain.Stream(s.bytes, 408);
        frames = chain.Frames().size();
        benchmark::DoNotOptimize(frames);
    }
    state.counters["samples/s"] =
        benchmark::Counter(static_cast<double>(s.samples) * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["x realtime"] =
        benchmark::Counter(static_cast<double>(s.samples) / 40000.0 * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["frames"] = static_cast<double>(frames);
    state.counters["packets"] = static_cast<double>(s.packets);
}
BENCHMARK(BM_AskChain60s)->Unit(benchmark::kMillisecond)->MinTime(3.0);

}  // namespace

BENCHMARK_MAIN();
