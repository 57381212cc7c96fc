// Transmitter packets and response patterns of random contents for round trips
// through the FSK readers: on a carrier that drifts slowly, words with jitter,
// every packet at its own random offset against the 16-cycle grid of the
// words and with no lead-in, separated by 60 to 120 ms of carrier.
#pragma once

#include "sim/AskSynth.h"
#include "sim/FskSynth.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

struct FskSentPacket {
    std::vector<uint8_t> bytes;  // the packet, or the pattern's byte as the pattern table names it
    bool pattern = false;
    uint64_t startTicks = 0, endTicks = 0;  // capture time at the start and end of the packet's words
};

struct FskRandomStream {
    std::vector<uint16_t> words;
    std::vector<FskSentPacket> sent;
};

// What is sent: a packet with this header, or, with pattern set, the response
// pattern of these bits (ACK 0xFF, NAK 0x00, ND 0x55).
struct FskSendItem {
    uint8_t value = 0;
    bool pattern = false;
};

// The headers of the transmitter's packets that the dispatcher knows, and the
// three response patterns.
inline std::vector<FskSendItem> FskEveryItem()
{
    std::vector<FskSendItem> items;
    for (uint8_t h : {0x00, 0x01, 0x1E, 0x1F, 0x2E, 0x2F, 0x30, 0x31, 0x3F, 0x4F, 0x5F, 0x8F})
        items.push_back({h, false});
    for (uint8_t p : {0xFF, 0x00, 0x55})
        items.push_back({p, true});
    return items;
}

// The byte the pattern table names a response pattern by (ND 01010101 is 0xBB).
inline uint8_t FskPatternTableByte(uint8_t bits)
{
    return bits == 0x55 ? 0xBB : bits;
}

struct FskStreamShape {
    double carrierHz = 128000;
    double depthNs = 78;
    int polarity = -1;        // -1: modulated periods shorter; +1 longer
    int cyclesPerBit = 512;
    double noiseTicks = 2.0;  // jitter of each word
    double driftHzPerSecond = 100.0;
    int leadOnes = 0;
};

// `items` in turn, `rounds` times, random message bytes behind each header.
inline FskRandomStream MakeFskRandomStream(const std::vector<FskSendItem>& items, int rounds,
                                           const FskStreamShape& shape, uint32_t seed)
{
    std::mt19937 rng(seed);
    qisim::FskWaveParams p;
    p.carrierHz = shape.carrierHz;
    p.driftHzPerSecond = shape.driftHzPerSecond;
    p.depthTicks = qisim::FskDepthTicks(shape.depthNs);
    p.polarity = shape.polarity;
    p.cyclesPerBit = shape.cyclesPerBit;
    p.noiseTicks = shape.noiseTicks;
    p.randomGridOffset = true;
    qisim::FskWaveWriter w(p, seed);
    FskRandomStream s;
    w.OffMs(20);
    w.CarrierMs(100);
    for (int r = 0; r < rounds; ++r) {
        for (const FskSendItem& item : items) {
            FskSentPacket x;
            x.pattern = item.pattern;
            x.startTicks = w.Ticks();
            if (item.pattern) {
                w.Pattern(item.value);
                x.bytes = {FskPatternTableByte(item.value)};
            } else {
                std::vector<uint8_t> m{item.value};
                for (int i = 0; i < qisim::QiMessageSize(item.value); ++i)
                    m.push_back(static_cast<uint8_t>(rng()));
                x.bytes = qisim::WithChecksum(m);
                w.Packet(x.bytes, shape.leadOnes);
            }
            x.endTicks = w.Ticks();
            s.sent.push_back(x);
            w.CarrierMs(60.0 + static_cast<double>(rng() % 61));
        }
    }
    w.CarrierMs(100);
    w.OffMs(20);
    s.words = w.Words();
    return s;
}
