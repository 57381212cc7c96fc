// The capture records of a synthesized session of the emulator's script (noise
// on), replayed through the decoders with both second readers on, the way a
// live capture makes them: for the record store's tests and benchmarks.
#pragma once

#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/StreamSynth.h"

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

}  // namespace sessionrecords
