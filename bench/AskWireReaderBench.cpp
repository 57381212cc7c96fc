// Samples a second through AskWireReader alone, on a stream as a Qi link sends
// it: packets of every header at 2 kHz with 2 % noise and jitter, each
// followed by 20 to 40 ms of idle envelope.
#include "AskChain.h"  // AskHeaders()
#include "decode/AskWireReader.h"
#include "sim/AskSynth.h"

#include <benchmark/benchmark.h>

#include <random>

namespace {

const std::vector<int32_t>& Stream()
{
    static const std::vector<int32_t> samples = [] {
        std::mt19937 rng(4);
        qisim::AskWaveParams p;
        p.noiseFraction = 0.02;
        p.jitterSamples = 2.0;
        p.swing = 1200;
        p.idleLevel = 900;
        qisim::AskWaveWriter w(p, 4);
        w.Idle(1200);
        for (int k = 0; k < 200; ++k) {
            const uint8_t h = AskHeaders()[size_t(k) % AskHeaders().size()];
            std::vector<uint8_t> m{h};
            for (int i = 0; i < qisim::QiMessageSize(h); ++i)
                m.push_back(uint8_t(rng()));
            w.Packet(qisim::WithChecksum(m), 11 + int(rng() % 15));
            w.Idle(800 + rng() % 800);
        }
        return std::vector<int32_t>(w.Samples().begin(), w.Samples().end());
    }();
    return samples;
}

void BM_AskWireReader(benchmark::State& state)
{
    const auto& s = Stream();
    const size_t chunk = size_t(state.range(0));
    size_t frames = 0;
    for (auto _ : state) {
        AskWireReader r;
        for (size_t pos = 0; pos < s.size(); pos += chunk) {
            r.Feed(s.data() + pos, std::min(chunk, s.size() - pos), pos);
            frames += r.Take().size();
        }
        benchmark::DoNotOptimize(frames);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(s.size()));
    state.counters["frames"] = benchmark::Counter(double(frames) / double(state.iterations()));
}
BENCHMARK(BM_AskWireReader)->Arg(200)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
