// The emulator's built-in session (with a breach, if one is named)
// synthesized into its two streams in process, as coilscope-sim streams it,
// played through the decoders and the data manager as a replay does, numbered
// by the event log model, and judged by the timing checker with the carrier's
// edges of the FSK side: what `coilscope-cli check` and the live window do.
#pragma once

#include "analysis/TimingChecker.h"
#include "events/EventLogModel.h"
#include "events/StreamReplay.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "sim/SessionScript.h"
#include "sim/StreamSynth.h"

#include <string>
#include <vector>

struct CheckedSession {
    std::vector<analysis::TimingFinding> findings;  // in capture order
    size_t packets = 0;
    size_t events = 0;
    size_t edges = 0;
    std::vector<MsgInfoPtr> all;  // the events, numbered (when kept)
};

inline void SynthesizeSession(double seconds, uint32_t seed, const std::string& breach, std::vector<uint8_t>& ask,
                              std::vector<uint8_t>& fsk, bool noise = false)
{
    coilsim::SynthOptions o;
    o.seed = seed;
    o.noise = noise;
    coilsim::StreamSynth synth(coilsim::SessionScript::Default(seed, breach), o);
    std::vector<uint8_t> a, f;
    while (synth.StreamUs() < static_cast<uint64_t>(seconds * 1e6)) {
        synth.NextFrames(a, f);
        ask.insert(ask.end(), a.begin(), a.end());
        fsk.insert(fsk.end(), f.begin(), f.end());
    }
}

inline CheckedSession CheckStreams(std::vector<uint8_t> ask, std::vector<uint8_t> fsk, bool keepEvents = false,
                                   const analysis::TimingLimits& limits = analysis::TimingLimits())
{
    // As every program does first: the settings loaded (a fresh file gets
    // the defaults), which the ASK cutter of the replay reads.
    AppSettings::Instance();
    const int64_t endUs = analysis::StreamsEndUs(ask, fsk);
    SettingParams settings;
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
    StreamReplay replay(std::move(ask), std::move(fsk), &settings);
    analysis::TimingChecker checker(limits);
    EventLogModel model;
    CheckedSession out;
    model.eventAdded = [&](const MsgInfo& e, int) {
        checker.Add(e, e.id);
        ++out.events;
        if (keepEvents)
            out.all.push_back(std::make_shared<MsgInfo>(e));
    };
    std::vector<CarrierEdge> edges;
    auto takeEdges = [&] {
        edges.clear();
        replay.Manager().TakeCarrierEdges(edges);
        out.edges += edges.size();
        checker.AddCarrierEdges(edges);
    };
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        takeEdges();
        model.AddEvents(events);
    });
    takeEdges();
    checker.Finish(endUs);
    out.findings = checker.Findings();
    analysis::SortFindings(out.findings);
    out.packets = checker.PacketsChecked();
    return out;
}

inline CheckedSession CheckBuiltInSession(double seconds, uint32_t seed, const std::string& breach = std::string(),
                                          bool keepEvents = false)
{
    std::vector<uint8_t> ask, fsk;
    SynthesizeSession(seconds, seed, breach, ask, fsk);
    return CheckStreams(std::move(ask), std::move(fsk), keepEvents);
}
