// Receiver packets under the conditions the second ASK reader is held to: a
// bit rate 2 kHz -8 % .. +8 % and an envelope shape (square: sharp steps, no
// front-end filtering; low-passed: a first-order low-pass of time constant 1
// to 3 samples, 10-90 % rise 2.2 to 6.6 samples). Within a condition every
// packet draws its own start phase (anywhere between two samples), header and
// message bytes, swing (a quarter of them weak, 200..400, the rest 400..3000)
// of either polarity, idle level, preamble of 11 to 25 ones, noise (0..4 % of
// the swing) and edge jitter (0..1.5 samples). Used by ask_wire_rates and by
// the tests that hold the readers to the same table on fewer packets.
#pragma once

#include "AskChain.h"  // AskHeaders()
#include "sim/AskSynth.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

struct AskCondition {
    double rate = 1.0;       // bit rate relative to 2 kHz
    bool square = true;
    bool badLength = false;  // one message byte more or fewer than the header announces
};

struct AskConditionPacket {
    std::vector<uint8_t> bytes;  // empty for a packet against the length rule: no good frame may come of it
    size_t start = 0, end = 0;   // sample indices of the packet's first sample and of its end
    qisim::AskWaveParams wave;
    int preamble = 0;
};

struct AskConditionStream {
    std::vector<uint16_t> samples;
    std::vector<AskConditionPacket> sent;
};

// Every condition of the table: square and low-passed at each whole per cent
// from -8 to +8, then square packets against the length rule at -8, -4, 0, +4, +8.
inline std::vector<AskCondition> AskConditions()
{
    std::vector<AskCondition> out;
    for (bool square : {true, false})
        for (int pct = -8; pct <= 8; ++pct)
            out.push_back({1.0 + pct / 100.0, square, false});
    for (int pct : {-8, -4, 0, 4, 8})
        out.push_back({1.0 + pct / 100.0, true, true});
    return out;
}

inline AskConditionStream MakeAskConditionStream(const AskCondition& c, int packets, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    qisim::AskWaveParams p;
    p.samplesPerBit = 20.0 / c.rate;
    qisim::AskWaveWriter w(p, seed);
    AskConditionStream s;
    w.Idle(300);
    const auto& headers = AskHeaders();
    for (int k = 0; k < packets; ++k) {
        const int magnitude =
            rng() % 4 == 0 ? 200 + static_cast<int>(rng() % 201) : 400 + static_cast<int>(rng() % 2601);
        p.swing = rng() % 2 ? magnitude : -magnitude;
        const int low = 100 + static_cast<int>(rng() % static_cast<unsigned>(4095 - magnitude - 200));
        p.idleLevel = p.swing > 0 ? low : low + magnitude;
        p.riseSamples = 0.0;
        p.lowPassSamples = c.square ? 0.0 : 1.0 + 2.0 * unit(rng);
        p.noiseFraction = 0.04 * unit(rng);
        p.jitterSamples = 1.5 * unit(rng);
        p.startPhase = unit(rng);
        w.SetParams(p);
        w.Idle(200 + rng() % 200);
        const uint8_t h = headers[rng() % headers.size()];
        std::vector<uint8_t> m{h};
        const int size = qisim::QiMessageSize(h) + (c.badLength ? (rng() % 2 ? 1 : -1) : 0);
        for (int i = 0; i < size; ++i)
            m.push_back(static_cast<uint8_t>(rng()));
        AskConditionPacket x;
        x.bytes = qisim::WithChecksum(m);
        x.preamble = 11 + static_cast<int>(rng() % 15);
        x.wave = p;
        x.start = w.Packet(x.bytes, x.preamble);
        x.end = w.Samples().size();
        if (c.badLength)
            x.bytes.clear();
        s.sent.push_back(x);
        w.Idle(200 + rng() % 200);
    }
    w.Idle(400);
    s.samples = w.TakeSamples();
    return s;
}

struct AskConditionTally {
    long sent = 0, exact = 0, missed = 0, falseFrames = 0;
    AskConditionTally& operator+=(const AskConditionTally& o)
    {
        sent += o.sent, exact += o.exact, missed += o.missed, falseFrames += o.falseFrames;
        return *this;
    }
};

struct AskFoundFrame {
    uint64_t start = 0;  // sample number where the frame says the packet starts
    std::vector<uint8_t> bytes;
};

// A good frame is a sent packet's when it holds the packet's bytes and starts
// within 100 samples ahead of it or inside it; every other good frame is false.
inline AskConditionTally ScoreAskConditionStream(const AskConditionStream& s, const std::vector<AskFoundFrame>& found)
{
    AskConditionTally t;
    std::vector<bool> used(found.size(), false);
    for (const AskConditionPacket& p : s.sent) {
        ++t.sent;
        bool hit = false;
        for (size_t i = 0; i < found.size() && !hit && !p.bytes.empty(); ++i) {
            if (used[i] || found[i].bytes != p.bytes || found[i].start + 100 < p.start || found[i].start > p.end)
                continue;
            used[i] = hit = true;
        }
        ++(hit ? t.exact : t.missed);
    }
    for (bool u : used)
        t.falseFrames += u ? 0 : 1;
    return t;
}
