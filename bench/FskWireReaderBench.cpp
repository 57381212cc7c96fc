// Period words a second through FskWireReader alone, on a stream as a Qi link
// sends it: every transmitter packet header and the three response patterns at
// 512 and 128 cycles a bit, at random offsets against the words' grid, with
// jitter and drift, each followed by 60 to 120 ms of carrier.
#include "FskRandomStream.h"
#include "decode/FskWireReader.h"

#include <benchmark/benchmark.h>

namespace {

struct Words {
    std::vector<uint16_t> words;
    std::vector<int64_t> ticks;
};

const Words& Stream()
{
    static const Words s = [] {
        Words out;
        uint32_t seed = 40;
        for (int cycles : {512, 128}) {
            for (double depth : {46.75, 265.5}) {
                FskStreamShape shape;
                shape.cyclesPerBit = cycles;
                shape.depthNs = depth;
                shape.carrierHz = 145000;
                const FskRandomStream r = MakeFskRandomStream(FskEveryItem(), 4, shape, seed++);
                out.words.insert(out.words.end(), r.words.begin(), r.words.end());
            }
        }
        int64_t at = 0;
        for (uint16_t w : out.words) {
            at += w;
            out.ticks.push_back(at);
        }
        return out;
    }();
    return s;
}

void BM_FskWireReader(benchmark::State& state)
{
    const Words& s = Stream();
    size_t frames = 0;
    for (auto _ : state) {
        FskWireReader reader;
        reader.Feed(s.words.data(), s.ticks.data(), s.words.size());
        frames = reader.Take().size();
        benchmark::DoNotOptimize(frames);
    }
    state.counters["frames"] = static_cast<double>(frames);
    state.counters["words/s"] =
        benchmark::Counter(static_cast<double>(s.words.size()) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FskWireReader)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
