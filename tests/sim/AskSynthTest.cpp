#include "sim/AskSynth.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

using namespace qisim;

namespace {

// Header 0x51 announces five message bytes.
std::vector<uint8_t> SampleFrame() { return WithChecksum({0x51, 0x12, 0x34, 0x56, 0x78, 0x9A}); }

AskWaveParams CleanParams(double samplesPerBit) {
    AskWaveParams p;
    p.samplesPerBit = samplesPerBit;
    p.riseSamples = 0.0;
    p.noiseFraction = 0.0;
    p.jitterSamples = 0.0;
    return p;
}

// Indices i > from at which the sample differs from the one before.
std::vector<size_t> Changes(const std::vector<uint16_t>& s, size_t from, size_t to) {
    std::vector<size_t> out;
    for (size_t i = from + 1; i < to; ++i)
        if (s[i] != s[i - 1]) out.push_back(i);
    return out;
}

// Nominal edge times relative to the packet start, including the return to idle.
std::vector<double> NominalEdges(const std::vector<uint8_t>& bits, double spb) {
    std::vector<double> edges;
    for (size_t k = 0; k < bits.size(); ++k) {
        edges.push_back(k * spb);
        if (bits[k]) edges.push_back(k * spb + spb / 2);
    }
    if (edges.size() % 2 == 1) edges.push_back(bits.size() * spb);
    return edges;
}

// Pulse widths between successive transitions as the bits say: a one gives
// two half-bit pulses, a zero one full-bit pulse.
std::vector<double> PulseWidths(const std::vector<uint8_t>& bits, double spb) {
    std::vector<double> widths;
    for (uint8_t b : bits) {
        if (b) {
            widths.push_back(spb / 2);
            widths.push_back(spb / 2);
        } else {
            widths.push_back(spb);
        }
    }
    return widths;
}

// Writes idle, one packet, idle with clean steps and checks levels and run lengths.
void CheckExactRuns(double spb) {
    const AskWaveParams p = CleanParams(spb);
    AskWaveWriter w(p);
    w.Idle(30);
    const size_t start = w.Packet(SampleFrame(), 11);
    const size_t packetEnd = w.Samples().size();
    w.Idle(30);
    const auto& s = w.Samples();
    const auto bits = AskPacketBits(SampleFrame(), 11);

    EXPECT_EQ(start, 30u);
    EXPECT_EQ(packetEnd, start + static_cast<size_t>(bits.size() * spb) + 1);
    for (uint16_t v : s) EXPECT_TRUE(v == p.idleLevel || v == p.idleLevel + p.swing) << v;
    EXPECT_EQ(s[start - 1], p.idleLevel);
    EXPECT_EQ(s[start], p.idleLevel + p.swing);
    EXPECT_EQ(s[packetEnd - 1], p.idleLevel);

    const auto changes = Changes(s, 0, s.size());
    const auto edges = NominalEdges(bits, spb);
    ASSERT_EQ(changes.size(), edges.size());
    for (size_t i = 0; i < edges.size(); ++i) EXPECT_EQ(changes[i], start + static_cast<size_t>(edges[i]));

    // The last pulse merges with the idle behind the packet when it is itself idle.
    const auto widths = PulseWidths(bits, spb);
    ASSERT_GE(widths.size(), changes.size() - 1);
    for (size_t i = 0; i + 1 < changes.size(); ++i)
        EXPECT_EQ(static_cast<double>(changes[i + 1] - changes[i]), widths[i]) << "pulse " << i;
}

uint16_t WordAt(const std::vector<uint8_t>& bytes, size_t wordIndex) {
    return static_cast<uint16_t>(bytes[2 * wordIndex] | (bytes[2 * wordIndex + 1] << 8));
}

}  // namespace

TEST(AskSynth, QiMessageSizeAtRangeBoundaries) {
    EXPECT_EQ(QiMessageSize(0x00), 1);
    EXPECT_EQ(QiMessageSize(0x01), 1);
    EXPECT_EQ(QiMessageSize(0x1F), 1);
    EXPECT_EQ(QiMessageSize(0x20), 2);
    EXPECT_EQ(QiMessageSize(0x2F), 2);
    EXPECT_EQ(QiMessageSize(0x30), 3);
    EXPECT_EQ(QiMessageSize(0x51), 5);
    EXPECT_EQ(QiMessageSize(0x71), 7);
    EXPECT_EQ(QiMessageSize(0x7F), 7);
    EXPECT_EQ(QiMessageSize(0x80), 8);
    EXPECT_EQ(QiMessageSize(0x81), 8);
    EXPECT_EQ(QiMessageSize(0x84), 8);
    EXPECT_EQ(QiMessageSize(0x88), 9);
    EXPECT_EQ(QiMessageSize(0xDF), 19);
    EXPECT_EQ(QiMessageSize(0xE0), 20);
    EXPECT_EQ(QiMessageSize(0xFF), 27);
}

TEST(AskSynth, WithChecksumAppendsXor) {
    EXPECT_EQ(WithChecksum({0x01, 0xFF}), (std::vector<uint8_t>{0x01, 0xFF, 0xFE}));
    EXPECT_EQ(WithChecksum({0x03, 0x05}), (std::vector<uint8_t>{0x03, 0x05, 0x06}));
    EXPECT_EQ(WithChecksum({0x51, 0x12, 0x34, 0x56, 0x78, 0x9A}).back(), 0x51 ^ 0x12 ^ 0x34 ^ 0x56 ^ 0x78 ^ 0x9A);
    EXPECT_EQ(WithChecksum({}), (std::vector<uint8_t>{0x00}));
}

TEST(AskSynth, AskPacketBitsForKnownByte) {
    const auto bits = AskPacketBits({0x03}, 11);
    ASSERT_EQ(bits.size(), 11u + 11u);
    for (int i = 0; i < 11; ++i) EXPECT_EQ(bits[i], 1) << i;
    const std::vector<uint8_t> byteBits(bits.begin() + 11, bits.end());
    EXPECT_EQ(byteBits, (std::vector<uint8_t>{0, 1, 1, 0, 0, 0, 0, 0, 0, 1, 1}));
}

TEST(AskSynth, AskPacketBitsParityIsOddForEveryByte) {
    for (int b = 0; b < 256; ++b) {
        const auto bits = AskPacketBits({static_cast<uint8_t>(b)}, 0);
        ASSERT_EQ(bits.size(), 11u);
        EXPECT_EQ(bits[0], 0);
        EXPECT_EQ(bits[10], 1);
        int ones = 0;
        uint8_t value = 0;
        for (int i = 0; i < 8; ++i) {
            ones += bits[1 + i];
            value |= static_cast<uint8_t>(bits[1 + i] << i);
        }
        EXPECT_EQ(value, b);
        EXPECT_EQ((ones + bits[9]) % 2, 1) << "byte " << b;
    }
}

TEST(AskSynth, AskPacketBitsPreambleCountAndLength) {
    const auto frame = SampleFrame();
    for (int preamble : {0, 4, 11, 25}) {
        const auto bits = AskPacketBits(frame, preamble);
        ASSERT_EQ(bits.size(), static_cast<size_t>(preamble) + 11 * frame.size());
        for (int i = 0; i < preamble; ++i) EXPECT_EQ(bits[i], 1);
        EXPECT_EQ(bits[preamble], 0);  // start bit of the header
    }
}

TEST(AskSynth, WaveformRunLengthsAtTwentySamplesPerBit) { CheckExactRuns(20.0); }

TEST(AskSynth, WaveformRunLengthsAtFourteenSamplesPerBit) { CheckExactRuns(14.0); }

TEST(AskSynth, WaveformNegativeSwing) {
    AskWaveParams p = CleanParams(20.0);
    p.idleLevel = 3000;
    p.swing = -1200;
    AskWaveWriter w(p);
    w.Idle(5);
    w.Packet(SampleFrame(), 11);
    w.Idle(5);
    std::set<uint16_t> levels(w.Samples().begin(), w.Samples().end());
    EXPECT_EQ(levels, (std::set<uint16_t>{1800, 3000}));
}

TEST(AskSynth, FractionalBitWidthStaysWithinOneSample) {
    const double spb = 19.5;
    AskWaveWriter w(CleanParams(spb));
    w.Idle(17);
    const size_t start = w.Packet(SampleFrame(), 11);
    w.Idle(30);
    const auto& s = w.Samples();
    const auto bits = AskPacketBits(SampleFrame(), 11);

    const auto changes = Changes(s, 0, s.size());
    const auto edges = NominalEdges(bits, spb);
    ASSERT_EQ(changes.size(), edges.size());
    for (size_t i = 0; i < edges.size(); ++i)
        EXPECT_LE(std::abs(static_cast<double>(changes[i]) - (start + edges[i])), 1.0) << "edge " << i;
    const auto widths = PulseWidths(bits, spb);
    for (size_t i = 0; i + 1 < changes.size(); ++i)
        EXPECT_LE(std::abs(static_cast<double>(changes[i + 1] - changes[i]) - widths[i]), 1.0) << "pulse " << i;
    // Positions do not drift over the packet: the last edge is where the bits end.
    EXPECT_LE(std::abs(static_cast<double>(changes.back()) - (start + bits.size() * spb)), 1.0);
}

TEST(AskSynth, PacketEndsAtIdleAtTheEndOfTheLastBit) {
    AskWaveWriter w(CleanParams(20.0));
    // A lone zero: up for the whole bit, back to idle at its end.
    EXPECT_EQ(w.Bits({0}), 0u);
    ASSERT_EQ(w.Samples().size(), 21u);
    for (size_t i = 0; i < 20; ++i) EXPECT_EQ(w.Samples()[i], 2500);
    EXPECT_EQ(w.Samples()[20], 1000);

    // A lone one: its second transition already returns to idle; the bit still lasts.
    const auto ones = w.TakeSamples();
    EXPECT_TRUE(w.Samples().empty());
    EXPECT_EQ(w.Bits({1}), 0u);
    ASSERT_EQ(w.Samples().size(), 21u);
    for (size_t i = 0; i < 10; ++i) EXPECT_EQ(w.Samples()[i], 2500);
    for (size_t i = 10; i <= 20; ++i) EXPECT_EQ(w.Samples()[i], 1000);

    EXPECT_EQ(w.Bits({}), 21u);
    EXPECT_EQ(w.Samples().size(), 21u);
}

TEST(AskSynth, RampStartsAtTheEdge) {
    AskWaveParams p = CleanParams(20.0);
    p.riseSamples = 4.0;
    AskWaveWriter w(p);
    w.Idle(3);
    EXPECT_EQ(w.Bits({0}), 3u);
    const std::vector<uint16_t> expected = {1000, 1000, 1000,                                    // idle
                                            1000, 1375, 1750, 2125, 2500, 2500, 2500, 2500,      // rise
                                            2500, 2500, 2500, 2500, 2500, 2500, 2500, 2500,
                                            2500, 2500, 2500, 2500, 2500, 2125, 1750, 1375, 1000};  // fall
    EXPECT_EQ(w.Samples(), expected);
}

TEST(AskSynth, JitterStaysWithinBounds) {
    const double spb = 20.0, j = 3.0;
    AskWaveParams p = CleanParams(spb);
    p.jitterSamples = j;
    AskWaveWriter w(p, 7);
    const auto bits = AskPacketBits(SampleFrame(), 11);
    const auto edges = NominalEdges(bits, spb);
    size_t moved = 0;
    for (int packet = 0; packet < 20; ++packet) {
        w.Idle(40);
        const size_t start = w.Packet(SampleFrame(), 11);
        const size_t end = w.Samples().size();
        w.Idle(40);
        const auto changes = Changes(w.Samples(), start - 1, end);
        ASSERT_EQ(changes.size(), edges.size());
        for (size_t i = 0; i < edges.size(); ++i) {
            // Sample n shows the new level once n has reached the edge time.
            const double at = static_cast<double>(changes[i] - start);
            EXPECT_GE(at, std::ceil(edges[i] - j)) << "edge " << i;
            EXPECT_LE(at, std::ceil(edges[i] + j)) << "edge " << i;
            if (at != edges[i]) ++moved;
        }
        EXPECT_GE(changes.front(), start);
        EXPECT_EQ(w.Samples()[end - 1], p.idleLevel);
    }
    EXPECT_GT(moved, edges.size() * 10);
}

TEST(AskSynth, LargeJitterKeepsEdgesOrdered) {
    // Jitter wider than a quarter bit could swap neighbouring edges, which would
    // swallow their pulse. The writer keeps each edge in its own cell, at least a
    // sample from its neighbours, so with steps every edge stays visible in order.
    const double spb = 20.0;
    AskWaveParams p = CleanParams(spb);
    p.jitterSamples = 12.0;
    AskWaveWriter w(p, 3);
    const auto edges = NominalEdges(AskPacketBits(SampleFrame(), 11), spb);
    for (int packet = 0; packet < 50; ++packet) {
        w.Idle(20);
        const size_t start = w.Packet(SampleFrame(), 11);
        const size_t end = w.Samples().size();
        const auto changes = Changes(w.Samples(), start - 1, end);
        ASSERT_EQ(changes.size(), edges.size()) << "packet " << packet;
        for (size_t i = 0; i < edges.size(); ++i) {
            const double at = static_cast<double>(changes[i] - start);
            if (i > 0) {
                EXPECT_GE(at, std::ceil((edges[i - 1] + edges[i]) / 2)) << "edge " << i;
            }
            if (i + 1 < edges.size()) {
                EXPECT_LE(at, std::ceil((edges[i] + edges[i + 1]) / 2)) << "edge " << i;
            }
        }
        EXPECT_EQ(w.Samples().back(), p.idleLevel);
    }
    for (uint16_t v : w.Samples()) ASSERT_TRUE(v == p.idleLevel || v == p.idleLevel + p.swing) << v;
}

TEST(AskSynth, NoiseHasRequestedStandardDeviation) {
    for (int swing : {1000, -1000}) {
        AskWaveParams p = CleanParams(20.0);
        p.idleLevel = 2000;
        p.swing = swing;
        p.noiseFraction = 0.05;  // 50 counts
        AskWaveWriter w(p, 11);
        w.Idle(200000);
        double sum = 0, sumSq = 0;
        for (uint16_t v : w.Samples()) {
            sum += v;
            sumSq += static_cast<double>(v) * v;
        }
        const double n = static_cast<double>(w.Samples().size());
        const double mean = sum / n;
        EXPECT_NEAR(mean, 2000.0, 1.0);
        EXPECT_NEAR(std::sqrt(sumSq / n - mean * mean), 50.0, 1.0);
    }
}

TEST(AskSynth, SameSeedGivesSameSamples) {
    AskWaveParams p;
    p.noiseFraction = 0.02;
    p.jitterSamples = 1.5;
    const auto run = [&p](uint32_t seed) {
        AskWaveWriter w(p, seed);
        w.Idle(50);
        w.Packet(SampleFrame(), 11);
        w.Idle(50);
        return w.TakeSamples();
    };
    EXPECT_EQ(run(5), run(5));
    EXPECT_NE(run(5), run(6));
}

TEST(AskSynth, LevelsClampToTwelveBits) {
    AskWaveParams low = CleanParams(20.0);
    low.idleLevel = 300;
    low.swing = -1000;
    AskWaveWriter w(low);
    w.Bits({0});
    EXPECT_EQ(w.Samples().front(), 0);
    EXPECT_EQ(w.Samples().back(), 300);

    AskWaveParams high = CleanParams(20.0);
    high.idleLevel = 3800;
    high.swing = 1000;
    w.SetParams(high);
    w.TakeSamples();
    w.Bits({0});
    EXPECT_EQ(w.Samples().front(), 4095);
    EXPECT_EQ(w.Samples().back(), 3800);

    // Noise reaching past both ends of the range.
    AskWaveParams noisy = CleanParams(20.0);
    noisy.swing = 100;
    noisy.noiseFraction = 0.5;  // 50 counts
    noisy.idleLevel = 10;
    AskWaveWriter bottom(noisy, 9);
    bottom.Idle(2000);
    EXPECT_EQ(*std::min_element(bottom.Samples().begin(), bottom.Samples().end()), 0);
    noisy.idleLevel = 4085;
    AskWaveWriter top(noisy, 9);
    top.Idle(2000);
    EXPECT_EQ(*std::max_element(top.Samples().begin(), top.Samples().end()), 4095);
}

TEST(AskSynth, AskStreamFramesWordLayout) {
    std::vector<uint16_t> samples(450);
    for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<uint16_t>(i * 9);
    const auto bytes = AskStreamFrames(samples, 200, 0);
    ASSERT_EQ(bytes.size(), 3 * 8 + 450 * 2u);

    const size_t counts[] = {200, 200, 50};
    const uint32_t stamps[] = {0, 5, 10};
    size_t word = 0, sample = 0;
    for (int f = 0; f < 3; ++f) {
        EXPECT_EQ(WordAt(bytes, word + 0), counts[f] * 2) << "frame " << f;
        EXPECT_EQ(WordAt(bytes, word + 1), 0) << "frame " << f;
        EXPECT_EQ(WordAt(bytes, word + 2), stamps[f]) << "frame " << f;
        EXPECT_EQ(WordAt(bytes, word + 3), 0) << "frame " << f;
        word += 4;
        for (size_t i = 0; i < counts[f]; ++i) ASSERT_EQ(WordAt(bytes, word++), samples[sample++]);
    }
    EXPECT_EQ(bytes[8], samples[0] & 0xFF);
    EXPECT_EQ(bytes[8 + 2 * 199 + 1], samples[199] >> 8);  // little-endian words
}

TEST(AskSynth, AskStreamFramesStampUsesBothWords) {
    const std::vector<uint16_t> samples(400, 1000);
    const auto bytes = AskStreamFrames(samples, 200, 0x0001FFFE);
    ASSERT_EQ(bytes.size(), 2 * 8 + 400 * 2u);
    EXPECT_EQ(WordAt(bytes, 2), 0xFFFE);
    EXPECT_EQ(WordAt(bytes, 3), 0x0001);
    const size_t second = 4 + 200;
    EXPECT_EQ(WordAt(bytes, second + 2), 0x0003);  // 0x1FFFE + 5
    EXPECT_EQ(WordAt(bytes, second + 3), 0x0002);
    EXPECT_TRUE(AskStreamFrames({}, 200, 0).empty());
}

TEST(AskSynth, CutChunksSizesAndConcatenation) {
    std::vector<uint8_t> bytes(1000);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 31 + 7);
    for (size_t size : {1u, 7u, 64u, 250u, 1000u, 4096u}) {
        const auto chunks = CutChunks(bytes, size);
        ASSERT_EQ(chunks.size(), (bytes.size() + size - 1) / size);
        std::vector<uint8_t> joined;
        for (size_t i = 0; i < chunks.size(); ++i) {
            const size_t expected = i + 1 < chunks.size() ? size : bytes.size() - size * i;
            EXPECT_EQ(chunks[i].size(), expected);
            joined.insert(joined.end(), chunks[i].begin(), chunks[i].end());
        }
        EXPECT_EQ(joined, bytes);
    }
    EXPECT_TRUE(CutChunks({}, 16).empty());
}
