// Throughput of the FSK chain on one core: a synthesized 60-second stream at
// 128 kHz with a transmitter packet every 500 ms, fed a frame at a time through
// the stream parser, the carrier tracker, the packet detector, the level slicer
// and the frame decoder.
#include "FskChain.h"

#include <benchmark/benchmark.h>

namespace {

struct Stream60s {
    std::vector<uint8_t> bytes;
    size_t words = 0;
    size_t packets = 0;
    Stream60s()
    {
        qisim::FskWaveParams p;
        p.polarity = -1;
        p.noiseTicks = 1;
        p.driftHzPerSecond = 2;
        qisim::FskWaveWriter w(p, 60);
        w.CarrierMs(100);
        while (w.Ticks() < 60ULL * 60000000ULL) {
            const uint64_t next = w.Ticks() + 500ULL * 60000ULL;
            w.Packet(qisim::WithChecksum({0x1F, static_cast<uint8_t>(packets % 101)}), 0);
            ++packets;
            while (w.Ticks() < next)
                w.Carrier(1);
        }
        words = w.Words().size();
        bytes = qisim::FskStreamFrames(w.Words());
    }
};

const Stream60s& Stream()
{
    static Stream60s s;
    return s;
}

void BM_FskChain60s(benchmark::State& state)
{
    const Stream60s& s = Stream();
    SettingParams::Instance().detectedPolarity.store(-1);
    size_t frames = 0;
    for (auto _ : state) {
        FskChain chain;
        chain.Stream(s.bytes);
        frames = chain.Frames().size();
    }
    SettingParams::Instance().detectedPolarity.store(0);
    state.counters["words/s"] =
        benchmark::Counter(static_cast<double>(s.words) * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["x realtime"] = benchmark::Counter(60.0 * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["frames"] = static_cast<double>(frames);
    state.counters["packets"] = static_cast<double>(s.packets);
}
BENCHMARK(BM_FskChain60s)->Unit(benchmark::kMillisecond)->MinTime(3.0);

}  // namespace

BENCHMARK_MAIN();
