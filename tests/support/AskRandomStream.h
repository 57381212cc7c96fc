// Receiver packets of random contents for round trips through the ASK readers:
// each packet with its own swing (either sign), idle level and preamble, at one
// bit rate, separated by 7.5 to 15 ms of idle.
#pragma once

#include "sim/AskSynth.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

struct AskSentPacket {
    std::vector<uint8_t> bytes;
    size_t start = 0, end = 0;  // sample indices of the first transition and the end
};

struct AskRandomStream {
    std::vector<uint16_t> samples;
    std::vector<AskSentPacket> sent;
};

struct AskHarshness {
    double noise = 0.02, jitter = 2.0, rise = 2.0;
};

inline qisim::AskWaveParams RandomAskWave(double samplesPerBit, std::mt19937& rng, const AskHarshness& harsh)
{
    qisim::AskWaveParams p;
    p.samplesPerBit = samplesPerBit;
    const int mag = 400 + static_cast<int>(rng() % 2601);
    p.swing = rng() % 2 ? mag : -mag;
    const int low = 100 + static_cast<int>(rng() % static_cast<unsigned>(4095 - mag - 200));
    p.idleLevel = p.swing > 0 ? low : low + mag;
    p.noiseFraction = harsh.noise;
    p.jitterSamples = harsh.jitter;
    p.riseSamples = harsh.rise;
    return p;
}

// Packets cycle through `headers`, with random message bytes.
inline AskRandomStream MakeAskRandomStream(const std::vector<uint8_t>& headers, int packets, double samplesPerBit,
                                           uint32_t seed, const AskHarshness& harsh = AskHarshness())
{
    std::mt19937 rng(seed);
    qisim::AskWaveWriter w(RandomAskWave(samplesPerBit, rng, harsh), seed);
    AskRandomStream s;
    w.Idle(400);
    for (int k = 0; k < packets; ++k) {
        w.SetParams(RandomAskWave(samplesPerBit, rng, harsh));
        w.Idle(300 + rng() % 300);
        const uint8_t h = headers[static_cast<size_t>(k) % headers.size()];
        std::vector<uint8_t> m{h};
        for (int i = 0; i < qisim::QiMessageSize(h); ++i)
            m.push_back(static_cast<uint8_t>(rng()));
        AskSentPacket x;
        x.bytes = qisim::WithChecksum(m);
        x.start = w.Packet(x.bytes, 11 + static_cast<int>(rng() % 15));
        x.end = w.Samples().size();
        s.sent.push_back(x);
        w.Idle(300 + rng() % 300);
    }
    s.samples = w.TakeSamples();
    return s;
}
