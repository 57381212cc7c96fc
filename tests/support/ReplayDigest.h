// The whole output of a replay as one text and a 64-bit digest of it: every
// released batch with the refresh it came at, every event as its Json
// document with the fields kept beside it, and every capture record field by
// field, each pulse with its samples. Two replays that give the same digest
// gave the same events in the same batches with the same records.
#pragma once

#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/SessionScript.h"
#include "sim/StreamSynth.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// The emulator's default session with noise, synthesized for `seconds`.
struct SynthesizedSession {
    std::vector<uint8_t> ask, fsk;
    SynthesizedSession(double seconds, uint32_t seed)
    {
        coilsim::SynthOptions o;
        o.seed = seed;
        o.noise = true;
        coilsim::StreamSynth synth(coilsim::SessionScript::Default(seed), o);
        std::vector<uint8_t> a, f;
        while (synth.StreamUs() < static_cast<uint64_t>(seconds * 1e6)) {
            synth.NextFrames(a, f);
            ask.insert(ask.end(), a.begin(), a.end());
            fsk.insert(fsk.end(), f.begin(), f.end());
        }
    }
};

class ReplayDigest {
public:
    // With COILSCOPE_REPLAY_DUMP set to a file name, the text that is digested
    // is also written there, to find where two replays part.
    ReplayDigest()
    {
        if (const char* name = std::getenv("COILSCOPE_REPLAY_DUMP"))
            m_dump = std::fopen(name, "w");
    }
    ~ReplayDigest()
    {
        if (m_dump)
            std::fclose(m_dump);
    }
    ReplayDigest(const ReplayDigest&) = delete;
    ReplayDigest& operator=(const ReplayDigest&) = delete;

    void Add(const std::string& text)
    {
        if (m_dump)
            std::fprintf(m_dump, "%s\n", text.c_str());
        Bytes(text.data(), text.size());
        Bytes("\n", 1);
        ++m_lines;
    }
    void Add(const char* name, int64_t value) { Add(std::string(name) + " " + std::to_string(value)); }
    template <class T>
    void Add(const char* name, const std::vector<T>& values)
    {
        std::string line = name;
        line += " " + std::to_string(values.size()) + ":";
        for (const T& v : values)
            line += " " + std::to_string(v);
        Add(line);
    }
    void Add(const TriggerData& r)
    {
        Add("startTime", static_cast<int64_t>(r.startTime));
        Add("endTime", static_cast<int64_t>(r.endTime));
        Add("amplitude", r.amplitude);
        Add("highPeriod", r.highPeriod);
        Add("lowPeriod", r.lowPeriod);
        Add("polarity", r.polarity);
        Add("samples", r.samples);
        Add("rawSamples", r.rawSamples);
        Add("pulses", static_cast<int64_t>(r.pulses.size()));
        for (const PulseRecord& p : r.pulses) {
            Add("duration", p.duration);
            Add("level", p.level);
            Add("mark", p.mark);
            Add("spare", p.spare);
            Add("pulse samples", p.samples);
        }
    }
    // Received power events carry the wall-clock time of their decoding as
    // "hh:mm:ss.mmm"; capture times are written with six decimals and stay.
    static std::string WithoutWallClock(std::string text)
    {
        auto digit = [&text](size_t i) { return i < text.size() && text[i] >= '0' && text[i] <= '9'; };
        const char* shape = "dd:dd:dd.ddd";
        for (size_t at = 0; at + 12 <= text.size(); ++at) {
            bool match = !digit(at + 12) && (at == 0 || !digit(at - 1));
            for (size_t k = 0; match && k < 12; ++k)
                match = shape[k] == 'd' ? digit(at + k) : text[at + k] == shape[k];
            if (!match)
                continue;
            for (size_t k = 0; k < 12; ++k)
                if (shape[k] == 'd')
                    text[at + k] = '#';
            at += 11;
        }
        return text;
    }
    void Add(const MsgInfo& e)
    {
        Add(WithoutWallClock(e.ToJson()));
        Add("direction", e.direction);
        Add("enqueueTick", e.enqueueTick);
        if (e.capture)
            Add(*e.capture);
        else
            Add("no capture");
    }

    uint64_t Value() const { return m_hash; }
    size_t Lines() const { return m_lines; }

private:
    // FNV-1a, 64 bits.
    void Bytes(const char* p, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            m_hash ^= static_cast<uint8_t>(p[i]);
            m_hash *= 1099511628211ULL;
        }
    }
    uint64_t m_hash = 14695981039346656037ULL;
    size_t m_lines = 0;
    std::FILE* m_dump = nullptr;
};

struct ReplayOutput {
    uint64_t digest = 0;
    size_t events = 0;
    size_t batches = 0;
    size_t captures = 0;
};

// Replays the two streams with the given second readers (bit 0: ASK, bit 1:
// FSK), with the ASK bursts cut on a worker thread or not, and digests
// everything it released.
inline ReplayOutput DigestOfReplay(const std::vector<uint8_t>& ask, const std::vector<uint8_t>& fsk, int readers,
                                   bool cutAskOnWorker = true)
{
    SettingParams settings;
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
    settings.m_ask_second_reader = readers & 1;
    settings.m_fsk_second_reader = (readers >> 1) & 1;
    SettingParams::Instance().detectedPolarity.store(0);
    StreamReplay replay(ask, fsk, &settings);
    replay.everyRefresh = true;
    replay.cutAskOnWorker = cutAskOnWorker;
    ReplayDigest digest;
    ReplayOutput out;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        digest.Add("batch", static_cast<int64_t>(out.batches++));
        for (const MsgInfoPtr& e : events) {
            digest.Add(*e);
            ++out.events;
            out.captures += e->capture ? 1 : 0;
        }
    });
    out.digest = digest.Value();
    return out;
}
