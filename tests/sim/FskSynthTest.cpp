#include "sim/FskSynth.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>

using namespace qisim;

namespace {

FskWaveParams CleanParams(int cyclesPerBit = 512, int polarity = 1) {
    FskWaveParams p;
    p.cyclesPerBit = cyclesPerBit;
    p.polarity = polarity;
    p.noiseTicks = 0.0;
    return p;
}

uint64_t Sum(const std::vector<uint16_t>& words) {
    return std::accumulate(words.begin(), words.end(), uint64_t{0});
}

// Run lengths (in words) that differential bi-phase gives the bits: a one two
// half-bit runs, a zero one full-bit run.
std::vector<size_t> ExpectedRuns(const std::vector<uint8_t>& bits, size_t halfWords) {
    std::vector<size_t> runs;
    for (uint8_t b : bits) {
        if (b) {
            runs.push_back(halfWords);
            runs.push_back(halfWords);
        } else {
            runs.push_back(2 * halfWords);
        }
    }
    return runs;
}

struct Frame {
    uint32_t length = 0;
    uint32_t stamp = 0;
    std::vector<uint16_t> words;
};

std::vector<Frame> ParseFrames(const std::vector<uint8_t>& bytes) {
    std::vector<Frame> frames;
    size_t pos = 0;
    const auto word = [&] {
        const auto w = static_cast<uint16_t>(bytes.at(pos) | (bytes.at(pos + 1) << 8));
        pos += 2;
        return w;
    };
    const auto dword = [&] {
        const uint32_t low = word();
        return low | (static_cast<uint32_t>(word()) << 16);
    };
    while (pos < bytes.size()) {
        Frame f;
        f.length = dword();
        f.stamp = dword();
        for (uint32_t i = 0; i < f.length / 2; ++i) f.words.push_back(word());
        frames.push_back(f);
    }
    return frames;
}

// Idle carrier, one packet, idle carrier; checks levels and run lengths.
void CheckRuns(int cyclesPerBit, int polarity) {
    const FskWaveParams p = CleanParams(cyclesPerBit, polarity);
    const size_t halfWords = static_cast<size_t>(cyclesPerBit) / 32;
    const std::vector<uint8_t> frame{0x51, 0x3C, 0x00, 0xFF};
    const auto bits = FskPacketBits(frame, 11);
    FskWaveWriter w(p);
    w.Carrier(40);
    const size_t start = w.Packet(frame, 11);
    const size_t packetEnd = w.Words().size();
    w.Carrier(40);
    const auto& s = w.Words();

    const uint16_t base = 7500;
    const auto modulated = static_cast<uint16_t>(base + polarity * p.depthTicks);
    EXPECT_EQ(start, 40u);
    EXPECT_GE(packetEnd, start + bits.size() * 2 * halfWords);
    EXPECT_LE(packetEnd, start + bits.size() * 2 * halfWords + 1);
    for (uint16_t v : s) EXPECT_TRUE(v == base || v == modulated) << v;
    EXPECT_EQ(s[start - 1], base);
    EXPECT_EQ(s[start], modulated);
    for (size_t i = packetEnd - 1; i < s.size(); ++i) EXPECT_EQ(s[i], base) << i;

    // Runs of equal words from the packet start; the last one merges with the
    // trailing carrier when the packet ends unmodulated.
    std::vector<size_t> runs;
    for (size_t i = start; i < s.size();) {
        size_t j = i;
        while (j < s.size() && s[j] == s[i]) ++j;
        runs.push_back(j - i);
        i = j;
    }
    const auto expected = ExpectedRuns(bits, halfWords);
    ASSERT_GE(runs.size(), expected.size());
    for (size_t i = 0; i + 1 < expected.size(); ++i) EXPECT_EQ(runs[i], expected[i]) << i;
    EXPECT_GE(runs[expected.size() - 1], expected.back());
}

}  // namespace

TEST(FskSynth, WordValuesAtOperatingFrequencies) {
    for (const auto& [hz, word] : {std::pair{110000.0, 8727}, {128000.0, 7500}, {205000.0, 4683}}) {
        FskWaveParams p = CleanParams();
        p.carrierHz = hz;
        FskWaveWriter w(p);
        w.Carrier(5);
        ASSERT_EQ(w.Words().size(), 5u);
        for (uint16_t v : w.Words()) EXPECT_EQ(v, word) << hz;
    }
}

TEST(FskSynth, WordsClampToSixteenBits) {
    FskWaveParams p = CleanParams();
    p.carrierHz = 10000.0;  // 96000 ticks
    FskWaveWriter slow(p);
    slow.Carrier(1);
    EXPECT_EQ(slow.Words().at(0), 65535);

    p.carrierHz = 1e9;  // under one tick, then shorter still
    p.polarity = -1;
    FskWaveWriter fast(p);
    fast.Carrier(1);
    fast.Bits({0});
    for (uint16_t v : fast.Words()) EXPECT_EQ(v, 1);
}

TEST(FskSynth, DriftFollowsElapsedTime) {
    FskWaveParams p = CleanParams();
    p.driftHzPerSecond = 1.0;
    FskWaveWriter w(p);
    w.CarrierMs(60000.0);
    const auto& s = w.Words();
    EXPECT_EQ(s.front(), 7500);
    EXPECT_EQ(s.back(), std::lround(960000000.0 / 128060.0));  // 60 Hz up after a minute
    // Every word follows the frequency at its own start.
    uint64_t ticks = 0;
    for (size_t i = 0; i < s.size(); ticks += s[i], ++i) {
        if (i % 997 == 0) {
            EXPECT_EQ(s[i], std::lround(960000000.0 / (128000.0 + ticks / 60e6))) << i;
        }
    }

    p.driftHzPerSecond = -1000.0;
    FskWaveWriter down(p);
    down.CarrierMs(1000.0);
    EXPECT_EQ(down.Words().back(), std::lround(960000000.0 / 127000.0));
}

TEST(FskSynth, PacketBitsOfKnownBytes) {
    // 0xA5 has four ones (parity 0), 0x01 one (parity 1).
    const std::vector<uint8_t> expected{1, 1, 1,                            // lead ones
                                        0, 1, 0, 1, 0, 0, 1, 0, 1, 0, 1,  // 0xA5
                                        0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 1}; // 0x01
    EXPECT_EQ(FskPacketBits({0xA5, 0x01}, 3), expected);
    EXPECT_EQ(FskPacketBits({}, 4), std::vector<uint8_t>(4, 1));
    EXPECT_EQ(FskPacketBits({0x00}, 0), (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(FskPacketBits({0x00}, -2).size(), 11u);
}

TEST(FskSynth, PatternBitsMostSignificantFirst) {
    EXPECT_EQ(FskPatternBits(0xA5), (std::vector<uint8_t>{1, 0, 1, 0, 0, 1, 0, 1}));
    EXPECT_EQ(FskPatternBits(0x33), (std::vector<uint8_t>{0, 0, 1, 1, 0, 0, 1, 1}));
    EXPECT_EQ(FskPatternBits(0x80), (std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(FskSynth, BiPhaseRunsSlowBits) {
    CheckRuns(512, 1);
    CheckRuns(512, -1);
}

TEST(FskSynth, BiPhaseRunsFastBits) {
    CheckRuns(128, 1);
    CheckRuns(128, -1);
}

TEST(FskSynth, PatternRuns) {
    FskWaveWriter w(CleanParams(128));
    w.Carrier(3);
    EXPECT_EQ(w.Pattern(0xA5), 3u);
    const std::vector<uint16_t> m(4, 7560), b(4, 7500);
    std::vector<uint16_t> expected(3, 7500);
    // Half bits of 1 0 1 0 0 1 0 1; twelve transitions leave the carrier unmodulated.
    for (const auto* run : {&m, &b, &m, &m, &b, &m, &b, &b, &m, &m, &b, &m, &b, &b, &m, &b})
        expected.insert(expected.end(), run->begin(), run->end());
    EXPECT_EQ(w.Words(), expected);
    // 0x80: one transition more than bits plus ones is odd, so one word returns to the carrier.
    FskWaveWriter odd(CleanParams(128));
    odd.Pattern(0x80);
    ASSERT_EQ(odd.Words().size(), 8u * 8 + 1);
    EXPECT_EQ(odd.Words()[63], 7560);
    EXPECT_EQ(odd.Words()[64], 7500);
}

TEST(FskSynth, ReturnsToCarrierAfterLastBit) {
    FskWaveWriter one(CleanParams(128));
    one.Bits({1});  // ends unmodulated: no extra word
    EXPECT_EQ(one.Words(), (std::vector<uint16_t>{7560, 7560, 7560, 7560, 7500, 7500, 7500, 7500}));

    FskWaveWriter zero(CleanParams(128));
    zero.Bits({0});  // ends modulated: one word brings the carrier back
    EXPECT_EQ(zero.Words(), (std::vector<uint16_t>{7560, 7560, 7560, 7560, 7560, 7560, 7560, 7560, 7500}));

    FskWaveWriter none(CleanParams());
    EXPECT_EQ(none.Bits({}), 0u);
    EXPECT_TRUE(none.Words().empty());
}

TEST(FskSynth, OffAndCarrierDurations) {
    FskWaveWriter w(CleanParams());
    w.OffMs(1.0);
    EXPECT_EQ(w.Words(), std::vector<uint16_t>{0xFFFF});
    w.OffMs(2.0);
    EXPECT_EQ(w.Words(), std::vector<uint16_t>(3, 0xFFFF));
    w.OffMs(0.0);
    EXPECT_EQ(w.Words().size(), 3u);

    const uint64_t before = w.Ticks();
    w.CarrierMs(1.0);  // exactly 8 words of 7500 ticks
    EXPECT_EQ(w.Words().size(), 11u);
    EXPECT_EQ(w.Ticks() - before, 60000u);
    w.CarrierMs(1.01);
    EXPECT_EQ(w.Words().size(), 20u);
    w.PingMs(65.0);
    EXPECT_EQ(w.Words().size(), 20u + 520u);

    for (double ms : {0.3, 7.0, 42.5}) {
        FskWaveWriter off(CleanParams());
        off.OffMs(ms);
        EXPECT_GE(off.Ticks(), ms * 60000.0);
        EXPECT_LT(off.Ticks() - 65535, ms * 60000.0);
    }
    EXPECT_THROW(w.OffMs(INFINITY), std::invalid_argument);
    EXPECT_THROW(w.CarrierMs(NAN), std::invalid_argument);
}

TEST(FskSynth, TicksAreTheSumOfWords) {
    FskWaveParams p = CleanParams();
    p.noiseTicks = 3.0;
    p.driftHzPerSecond = 50.0;
    FskWaveWriter w(p, 7);
    EXPECT_EQ(w.Ticks(), 0u);
    w.CarrierMs(20.0);
    w.OffMs(3.0);
    w.Packet({0x10, 0x22}, 5);
    w.Pattern(0x5A);
    w.Carrier(17);
    EXPECT_EQ(w.Ticks(), Sum(w.Words()));
}

TEST(FskSynth, RejectsBadParams) {
    FskWaveParams p = CleanParams();
    p.polarity = 0;
    EXPECT_THROW(FskWaveWriter{p}, std::invalid_argument);
    p = CleanParams(100);
    EXPECT_THROW(FskWaveWriter{p}, std::invalid_argument);
    p = CleanParams();
    p.carrierHz = 0.0;
    EXPECT_THROW(FskWaveWriter{p}, std::invalid_argument);
    p = CleanParams();
    p.noiseTicks = -1.0;
    FskWaveWriter w(CleanParams());
    EXPECT_THROW(w.SetParams(p), std::invalid_argument);
    w.SetParams(CleanParams(128, -1));
    EXPECT_EQ(w.Params().polarity, -1);
}

TEST(FskSynth, DeterministicForASeed) {
    FskWaveParams p = CleanParams();
    p.noiseTicks = 4.0;
    FskWaveWriter a(p, 42), b(p, 42), c(p, 43);
    for (auto* w : {&a, &b, &c}) {
        w->Carrier(100);
        w->Packet({0x01, 0x02}, 4);
    }
    EXPECT_EQ(a.Words(), b.Words());
    EXPECT_NE(a.Words(), c.Words());
}

TEST(FskSynth, NoiseStandardDeviation) {
    FskWaveParams p = CleanParams();
    p.noiseTicks = 5.0;
    FskWaveWriter w(p, 3);
    w.Carrier(20000);
    double sum = 0.0, squares = 0.0;
    for (uint16_t v : w.Words()) {
        const double d = v - 7500.0;
        sum += d;
        squares += d * d;
    }
    const double n = static_cast<double>(w.Words().size());
    const double mean = sum / n;
    EXPECT_NEAR(mean, 0.0, 0.2);
    // Rounding adds a variance of about 1/12.
    EXPECT_NEAR(std::sqrt(squares / n - mean * mean), std::sqrt(25.0 + 1.0 / 12), 0.25);
}

TEST(FskStreamFrames, SteadyCarrierGivesFortyWordsPerFrame) {
    FskWaveWriter w(CleanParams());
    w.Carrier(100);
    const auto frames = ParseFrames(FskStreamFrames(w.Words(), 1000));
    ASSERT_EQ(frames.size(), 3u);
    const uint32_t counts[] = {40, 40, 20};
    const uint32_t stamps[] = {1005, 1010, 1012};
    for (size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(frames[k].length, counts[k] * 2);
        EXPECT_EQ(frames[k].words.size(), counts[k]);
        EXPECT_EQ(frames[k].stamp, stamps[k]);
        for (uint16_t v : frames[k].words) EXPECT_EQ(v, 7500);
    }
}

TEST(FskStreamFrames, ByteLayout) {
    const auto bytes = FskStreamFrames({0x1234, 0xABCD}, 0x00010002);
    // 0x1234 + 0xABCD = 48641 ticks: stamp 0x00010002 + 0.
    const std::vector<uint8_t> expected{0x04, 0x00, 0x00, 0x00, 0x02, 0x00, 0x01, 0x00, 0x34, 0x12, 0xCD, 0xAB};
    EXPECT_EQ(bytes, expected);
    EXPECT_TRUE(FskStreamFrames({}).empty());
}

TEST(FskStreamFrames, FramesCoverFiveMillisecondsAndGiveTheWordsBack) {
    FskWaveParams p = CleanParams();
    p.noiseTicks = 2.0;
    FskWaveWriter w(p, 11);
    w.CarrierMs(12.3);
    w.OffMs(17.0);
    w.PingMs(65.0);
    w.Packet({0x01, 0x88, 0x77}, 20);
    w.SetParams(CleanParams(128, -1));
    w.Pattern(0xCC);
    w.OffMs(3.3);
    w.CarrierMs(4.0);
    const auto& words = w.Words();

    const uint32_t first = 0xFFFFFF00u;  // the stamp wraps at 32 bits
    const auto frames = ParseFrames(FskStreamFrames(words, first));
    ASSERT_FALSE(frames.empty());
    std::vector<uint16_t> joined;
    uint64_t end = 0;
    for (size_t k = 0; k < frames.size(); ++k) {
        const Frame& f = frames[k];
        ASSERT_FALSE(f.words.empty());
        EXPECT_EQ(f.length, f.words.size() * 2);
        joined.insert(joined.end(), f.words.begin(), f.words.end());
        const uint64_t frameStart = end;
        end += Sum(f.words);
        // Frame k holds exactly the words ending in (k * 5 ms, (k + 1) * 5 ms].
        EXPECT_GT(frameStart + f.words.front(), k * 300000u) << k;
        EXPECT_LE(end, (k + 1) * 300000u) << k;
        if (k + 1 < frames.size()) {
            EXPECT_GT(end + frames[k + 1].words.front(), (k + 1) * 300000u) << k;
        }
        EXPECT_EQ(f.stamp, static_cast<uint32_t>(first + end / 60000)) << k;
    }
    EXPECT_EQ(joined, words);
    EXPECT_EQ(end, w.Ticks());
    EXPECT_EQ(frames.size(), (w.Ticks() + 299999) / 300000);
}

TEST(FskWaveWriter, AGridOffsetMixesTheTwoPeriodsInTheWordsThatHoldAChange)
{
    FskWaveParams p;
    p.carrierHz = 120000;  // 8000 ticks a word
    p.depthTicks = 64;
    p.polarity = 1;
    p.cyclesPerBit = 128;
    p.gridOffsetCycles = 4;
    FskWaveWriter w(p, 1);
    w.Carrier(3);
    EXPECT_EQ(w.Pattern(0x00), 3u);
    const auto& words = w.Words();
    // Eight bits of 128 cycles after 4 cycles of carrier, up to the end of the
    // word: 1040 cycles, 65 words.
    ASSERT_EQ(words.size(), 3u + 65u);
    // The first bit is modulated from cycle 4 to 132: 12 of the first word's
    // cycles, all of the next seven, 4 of the ninth.
    EXPECT_EQ(words[3], 8000 + 48);
    for (size_t k = 4; k < 11; ++k)
        EXPECT_EQ(words[k], 8064) << k;
    EXPECT_EQ(words[11], 8000 + 16);
    // The second bit is unmodulated; the third modulated again from cycle 260.
    EXPECT_EQ(words[12], 8000);
    EXPECT_EQ(words[19], 8000 + 48);
    EXPECT_EQ(words.back(), 8000);
    EXPECT_EQ(std::accumulate(words.begin() + 3, words.end(), uint64_t{0}), 65u * 8000 + 4u * 128 * 64 / 16);
}

TEST(FskWaveWriter, ARandomGridOffsetDiffersFromPacketToPacketAndIsRejectedOutOfRange)
{
    FskWaveParams p;
    p.carrierHz = 120000;
    p.depthTicks = 64;
    p.cyclesPerBit = 512;
    p.randomGridOffset = true;
    FskWaveWriter w(p, 5);
    std::vector<uint16_t> firsts;
    for (int k = 0; k < 12; ++k) {
        w.Carrier(10);
        firsts.push_back(w.Words()[w.Pattern(0xFF)]);
    }
    std::sort(firsts.begin(), firsts.end());
    EXPECT_GT(std::unique(firsts.begin(), firsts.end()) - firsts.begin(), 3);
    p.randomGridOffset = false;
    p.gridOffsetCycles = 16;
    EXPECT_THROW(FskWaveWriter(p, 1), std::invalid_argument);
    EXPECT_DOUBLE_EQ(FskDepthTicks(265.5), 254.88);
}
