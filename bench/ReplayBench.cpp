// Replay of a synthesized ten-minute session of the emulator's script (ASK and
// FSK streams) through the chains and the data manager, in capture-time order
// with the clock following capture time; with the first readers alone (/0),
// with the second ASK reader beside the list decoder (/1), and with both
// second readers (/3: the second FSK reader beside the FSK frame decoder too).
// BM_ReplayTenMinutes cuts the ASK bursts on a worker thread, as a replay does
// by default; BM_ReplayTenMinutesOneThread runs everything on one core.
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/StreamSynth.h"

#include <benchmark/benchmark.h>

namespace {

struct Session {
    std::vector<uint8_t> ask, fsk;
    size_t packets = 0;
    Session()
    {
        coilsim::SynthOptions o;
        o.seed = 3;
        o.noise = true;
        coilsim::StreamSynth synth(coilsim::SessionScript::Default(3), o);
        std::vector<uint8_t> a, f;
        while (synth.StreamUs() < 600ULL * 1000000ULL) {
            synth.NextFrames(a, f);
            ask.insert(ask.end(), a.begin(), a.end());
            fsk.insert(fsk.end(), f.begin(), f.end());
        }
        packets = synth.TakeStartedPackets().size();
    }
};

const Session& TenMinutes()
{
    static Session s;
    return s;
}

void Replay(benchmark::State& state, bool worker)
{
    const Session& s = TenMinutes();
    SettingParams band;
    band.m_min_freq = 110000;
    band.m_max_freq = 210000;
    // Bit 0: the second ASK reader; bit 1: the second FSK reader.
    band.m_ask_second_reader = static_cast<int32_t>(state.range(0) & 1);
    band.m_fsk_second_reader = static_cast<int32_t>((state.range(0) >> 1) & 1);
    size_t events = 0;
    for (auto _ : state) {
        // Over the session's bytes as they are: a replay of files takes their
        // contents over without a copy, and so does this one.
        StreamReplay replay(s.ask.data(), s.ask.size(), s.fsk.data(), s.fsk.size(), &band);
        replay.cutAskOnWorker = worker;
        events = 0;
        replay.Run([&](std::vector<MsgInfoPtr>& batch) { events += batch.size(); });
    }
    state.counters["x realtime"] = benchmark::Counter(600.0 * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["events"] = static_cast<double>(events);
    state.counters["packets"] = static_cast<double>(s.packets);
}
// The ASK bursts cut on a worker thread (the default), and everything on one
// thread.
void BM_ReplayTenMinutes(benchmark::State& state)
{
    Replay(state, true);
}

void BM_ReplayTenMinutesOneThread(benchmark::State& state)
{
    Replay(state, false);
}

// Real time: the replay may use a second thread, whose CPU time the main
// thread's clock would not count.
BENCHMARK(BM_ReplayTenMinutes)->Arg(0)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond)->MinTime(5.0)->UseRealTime();
BENCHMARK(BM_ReplayTenMinutesOneThread)->Arg(0)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond)->MinTime(5.0)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
