// The capture records of a synthesized session of the emulator's script (noise
// on), replayed through the decoders with both second readers on, the way a
// live capture makes them: for the record store's tests and benchmarks.
#pragma once

#include "events/SampleCoding.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/StreamSynth.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <unordered_set>
#include <vector>

namespace sessionrecords {

struct SessionRecords {
    std::vector<TriggerDataPtr> ask;  // receiver packets' records, in the order their events came
    std::vector<TriggerDataPtr> fsk;  // transmitter packets' records
    double streamSeconds = 0.0;
};

inline SessionRecords Collect(double seconds, unsigned seed = 3)
{
    coilsim::SynthOptions o;
    o.seed = seed;
    o.noise = true;
    coilsim::StreamSynth synth(coilsim::SessionScript::Default(seed), o);
    std::vector<uint8_t> ask, fsk;
    synth.AppendUntil(static_cast<uint64_t>(seconds * 1e6), ask, fsk);
    SettingParams band;
    band.m_min_freq = 110000;
    band.m_max_freq = 210000;
    band.m_ask_second_reader = 1;
    band.m_fsk_second_reader = 1;
    StreamReplay replay(ask.data(), ask.size(), fsk.data(), fsk.size(), &band);
    SessionRecords out;
    // The records stay held, so no address is seen twice for two records.
    std::unordered_set<const TriggerData*> seen;
    replay.Run([&](std::vector<MsgInfoPtr>& batch) {
        for (const MsgInfoPtr& e : batch) {
            if (!e->capture || !seen.insert(e->capture.get()).second)
                continue;
            (e->direction == 1 ? out.fsk : out.ask).push_back(e->capture);
        }
    });
    out.streamSeconds = replay.DurationMs() / 1000.0;
    return out;
}

// The samples of one 5 ms pass: the newest of them in an ASK record were
// smoothed once, those before them on several passes.
constexpr size_t kPass = 200;

// The envelope an ASK record keeps: its pulses' samples one after another (the
// burst before the decoder's smoothing). False unless they begin with its raw
// samples and reach past two passes.
inline bool Envelope(const TriggerData& r, std::vector<int32_t>& y)
{
    y.clear();
    for (const PulseRecord& p : r.pulses)
        y.insert(y.end(), p.samples.begin(), p.samples.end());
    return y.size() >= 2 * kPass && !r.rawSamples.empty() && r.rawSamples.size() <= y.size() &&
           std::equal(r.rawSamples.begin(), r.rawSamples.end(), y.begin());
}

// Bits the record file's series coding spends on y[from..to), with the
// values before it known; whole bytes, the last one padded.
inline uint64_t SeriesBits(const std::vector<int32_t>& y, size_t from, size_t to)
{
    std::vector<uint8_t> bytes;
    {
        BitWriter out(bytes);
        samplecoding::PutSeries(out, y.data(), from, to);
    }
    return 8 * bytes.size();
}

// What the emulator's noise (60 counts, 2 % of its swing) leaves in a sample
// smoothed once: a fifth of it, Gaussian noise of 12 counts, log2(12 sqrt(2 pi
// e)) bits a sample that no lossless coding removes.
inline double OnceSmoothedNoiseBits()
{
    return std::log2(12.0 * std::sqrt(2.0 * M_PI * std::exp(1.0)));
}

}  // namespace sessionrecords
