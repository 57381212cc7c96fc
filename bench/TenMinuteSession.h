// Ten minutes of the emulator's session replayed through the decoders and
// the event log model (for numbers and phases), then repeated, shifted in
// number and time, up to `target` events: about what a long live session
// holds (440 000 events are eight hours). Shared by the filter benchmarks.
#pragma once

#include "events/EventLogModel.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/StreamSynth.h"

#include <cstdint>
#include <vector>

struct LongSession {
    std::vector<MsgInfo> events;
    std::vector<int> phases;  // the phase each event was classified in
    size_t tenMinutes = 0;    // events of the ten minutes played
};

// The display filters the filter benchmarks time: many matches, few, text,
// bytes, and a compound expression over fields of both directions.
inline const std::vector<const char*>& BenchFilters()
{
    static const std::vector<const char*> filters = {
        "type == \"ControlError\" && ce.value < 0",
        "phase == negotiation || status == error",
        "text contains \"Mode 2\"",
        "bytes contains 0x0300 || pattern == ack",
        "!(dir == rx) && time > 3600000 && (pattern == ack || type == FSKCapability || config.wsize >= 8)",
    };
    return filters;
}

inline LongSession MakeLongSession(size_t target)
{
    struct Placed {
        MsgInfoPtr event;
        int phase = 0;
    };
    coilsim::SynthOptions o;
    o.seed = 3;
    o.noise = true;
    coilsim::StreamSynth synth(coilsim::SessionScript::Default(3), o);
    std::vector<uint8_t> ask, fsk;
    const uint64_t sessionUs = 600ULL * 1000000ULL;
    synth.AppendUntil(sessionUs, ask, fsk);
    SettingParams band;
    band.m_min_freq = 110000;
    band.m_max_freq = 210000;
    StreamReplay replay(ask.data(), ask.size(), fsk.data(), fsk.size(), &band);
    EventLogModel model;
    std::vector<Placed> session;
    model.eventAdded = [&](const MsgInfo&, int phase) { session.push_back(Placed{nullptr, phase}); };
    replay.Run([&](std::vector<MsgInfoPtr>& batch) {
        const size_t first = session.size();
        model.AddEvents(batch);
        for (size_t k = 0; k < batch.size() && first + k < session.size(); ++k)
            session[first + k].event = batch[k];
    });
    LongSession out;
    out.tenMinutes = session.size();
    if (session.empty())
        return out;
    // Copies of the ten minutes, numbered on and shifted by ten minutes each time.
    out.events.reserve(target);
    out.phases.reserve(target);
    for (size_t k = 0; out.events.size() < target; ++k) {
        const Placed& p = session[k % session.size()];
        MsgInfo e = *p.event;
        e.capture.reset();
        const uint64_t round = k / session.size();
        e.id = static_cast<int32_t>(k + 1);
        if (e.timing.startTime)
            e.timing.startTime += round * sessionUs;
        out.events.push_back(std::move(e));
        out.phases.push_back(p.phase);
    }
    return out;
}
