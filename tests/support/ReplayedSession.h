// A live-like session for the views: the emulator's script synthesized into
// its two streams and played through the chains and the data manager, with one
// refresh per 30 ms of capture time, each turned into the sample that the
// refresh cycle pushes into the dock.
#pragma once

#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/SessionScript.h"
#include "sim/StreamSynth.h"
#include "views/QWindowReal.h"

#include <functional>

// The settings the live views are shown with here: a fifteen-minute window,
// the default frequency band's 110 to 205 kHz, and the session saved in folder.
inline void UseViewSettings(const std::string& folder)
{
    SettingParams& s = SettingParams::Instance();
    s.m_window_time = 15;
    s.m_min_freq = 110000;
    s.m_max_freq = 205000;
    s.eventPath = s.logPath = folder + "/";
}

// The emulator's built-in session, or the session of a script's text.
inline void ReplaySessionIntoSamples(double seconds, uint32_t seed,
                                     const std::function<void(RealTimeSample&)>& refresh,
                                     const char* scriptText = nullptr)
{
    coilsim::SynthOptions o;
    o.seed = seed;
    coilsim::SessionScript script = coilsim::SessionScript::Default(seed);
    std::string error;
    if (scriptText)
        coilsim::SessionScript::Parse(scriptText, script, error);
    coilsim::StreamSynth synth(std::move(script), o);
    std::vector<uint8_t> ask, fsk;
    synth.AppendUntil(static_cast<uint64_t>(seconds * 1e6), ask, fsk);
    SettingParams settings;
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
    StreamReplay replay(std::move(ask), std::move(fsk), &settings);
    replay.everyRefresh = true;
    double t = 0.0;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        CDataManager& m = replay.Manager();
        RealTimeSample s;
        s.events = events;
        s.firstValue = m.FirstHistoryValue();
        s.frequencyHz = m.CarrierFrequency();
        s.percent = m.ReceivedPowerPercent();
        s.controlError = m.ControlErrorValue();
        s.packets = static_cast<int64_t>(m.FilterCounters());
        s.time = static_cast<float>(t);
        t += 0.03;
        refresh(s);
    });
}
