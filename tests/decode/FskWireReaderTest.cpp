// The second FSK reader on synthesized period words: every transmitter packet
// header and the ACK, NAK and ND patterns, at operating frequencies across the
// band, the four depths of the depth table in both polarities, at 512 and 128
// cycles a bit, each packet at a random offset against the words' 16-cycle
// grid, on a drifting carrier with jittered words and no lead-in; and inputs
// that hold no packet at all.
#include "decode/FskWireReader.h"
#include "sim/FskSynth.h"

#include "FskRandomStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>

namespace {

struct Score {
    int sent = 0, exact = 0, notSent = 0;
};

std::vector<int64_t> EndTicks(const std::vector<uint16_t>& words, int64_t first = 0)
{
    std::vector<int64_t> t(words.size());
    int64_t at = first;
    for (size_t i = 0; i < words.size(); ++i) {
        at += words[i];
        t[i] = at;
    }
    return t;
}

std::vector<FskWireFrame> Read(const std::vector<uint16_t>& words, FskWireReader& reader)
{
    const std::vector<int64_t> ticks = EndTicks(words);
    reader.Feed(words.data(), ticks.data(), words.size());
    return reader.Take();
}

std::vector<FskWireFrame> Read(const std::vector<uint16_t>& words)
{
    FskWireReader reader;
    return Read(words, reader);
}

// A frame is the packet when it holds its bytes and starts within a word of
// its span; every frame must be one packet.
Score Match(const FskRandomStream& s, const std::vector<FskWireFrame>& frames)
{
    Score o;
    std::vector<bool> used(frames.size(), false);
    for (const FskSentPacket& p : s.sent) {
        ++o.sent;
        for (size_t i = 0; i < frames.size(); ++i) {
            const FskWireFrame& f = frames[i];
            if (used[i] || f.bytes != p.bytes || f.pattern != p.pattern)
                continue;
            if (f.startTicks + 10000 < static_cast<int64_t>(p.startTicks) ||
                f.startTicks > static_cast<int64_t>(p.endTicks))
                continue;
            used[i] = true;
            ++o.exact;
            break;
        }
    }
    o.notSent = static_cast<int>(std::count(used.begin(), used.end(), false));
    return o;
}

constexpr double kFrequencies[] = {110000, 128000, 145000, 175000, 205000};
constexpr double kDepths[] = {46.75, 78, 140.5, 265.5};

// Drift toward the middle of the band, so that the band's edges are where the
// packets are sent.
double DriftFor(double hz)
{
    return hz < 160000 ? 100.0 : -100.0;
}

}  // namespace

TEST(FskWireReader, EveryPacketAndPatternAcrossFrequencyDepthPolarityAndBitLength)
{
    Score all;
    uint32_t seed = 1700;
    for (int cycles : {512, 128}) {
        for (double hz : kFrequencies) {
            for (double depth : kDepths) {
                for (int polarity : {-1, 1}) {
                    FskStreamShape shape;
                    shape.carrierHz = hz;
                    shape.depthNs = depth;
                    shape.polarity = polarity;
                    shape.cyclesPerBit = cycles;
                    shape.driftHzPerSecond = DriftFor(hz);
                    const FskRandomStream s = MakeFskRandomStream(FskEveryItem(), 1, shape, seed++);
                    const Score o = Match(s, Read(s.words));
                    EXPECT_EQ(o.exact, o.sent) << cycles << " cycles, " << hz << " Hz, " << depth << " ns, polarity "
                                               << polarity;
                    EXPECT_EQ(o.notSent, 0) << cycles << " cycles, " << hz << " Hz, " << depth << " ns";
                    all.sent += o.sent, all.exact += o.exact, all.notSent += o.notSent;
                }
            }
        }
    }
    EXPECT_EQ(all.sent, 2 * 5 * 4 * 2 * 15);
    RecordProperty("exact", all.exact);
}

TEST(FskWireReader, FramesCarryTheirTimesLevelsAndBitLength)
{
    FskStreamShape shape;
    shape.carrierHz = 145000;
    shape.depthNs = 140.5;
    shape.polarity = 1;
    shape.cyclesPerBit = 128;
    const FskRandomStream s = MakeFskRandomStream({{0x30, false}, {0xFF, true}}, 1, shape, 5);
    const auto frames = Read(s.words);
    ASSERT_EQ(frames.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(frames[i].cyclesPerBit, 128);
        EXPECT_EQ(frames[i].polarity, 1);
        EXPECT_NEAR(frames[i].carrierPeriod, 960e6 / 145000, 6);
        EXPECT_NEAR(frames[i].modulatedPeriod - frames[i].carrierPeriod, qisim::FskDepthTicks(140.5), 6);
        // The first change lies within the packet's first word; the end within
        // a word of the last bit's end.
        EXPECT_GE(frames[i].startTicks, static_cast<int64_t>(s.sent[i].startTicks));
        EXPECT_LE(frames[i].startTicks, static_cast<int64_t>(s.sent[i].startTicks) + 2 * 6700);
        EXPECT_NEAR(static_cast<double>(frames[i].endTicks), static_cast<double>(s.sent[i].endTicks), 2 * 6700);
    }
    EXPECT_FALSE(frames[0].pattern);
    EXPECT_TRUE(frames[1].pattern);
    EXPECT_EQ(frames[1].patternBits, 0xFF);
    EXPECT_EQ(frames[1].bytes, std::vector<uint8_t>{0xFF});
}

TEST(FskWireReader, TheThreePatternsEndingOnTheCarrierAreRead)
{
    // NAK's last bit is a zero that begins unmodulated and ND's and ACK's last
    // halves are unmodulated: none of them ends with a change.
    for (int cycles : {512, 128}) {
        FskStreamShape shape;
        shape.cyclesPerBit = cycles;
        const FskRandomStream s = MakeFskRandomStream({{0x00, true}, {0x55, true}, {0xFF, true}}, 3, shape, 77);
        const auto frames = Read(s.words);
        ASSERT_EQ(frames.size(), 9u) << cycles;
        for (size_t i = 0; i < frames.size(); ++i) {
            EXPECT_TRUE(frames[i].pattern);
            EXPECT_EQ(frames[i].bytes, s.sent[i].bytes) << i;
        }
        EXPECT_EQ(frames[0].patternBits, 0x00);
        EXPECT_EQ(frames[1].patternBits, 0x55);
        EXPECT_EQ(frames[1].bytes[0], 0xBB);  // the byte the pattern table names ND
        EXPECT_EQ(frames[2].patternBits, 0xFF);
    }
}

TEST(FskWireReader, ALeadInOfOnesIsTakenButNotNeeded)
{
    for (int lead : {0, 4, 9}) {
        FskStreamShape shape;
        shape.cyclesPerBit = 128;
        shape.leadOnes = lead;
        const FskRandomStream s = MakeFskRandomStream({{0x1F, false}, {0x31, false}}, 2, shape, 90 + lead);
        const auto frames = Read(s.words);
        const Score o = Match(s, frames);
        EXPECT_EQ(o.exact, 4) << lead;
        EXPECT_EQ(o.notSent, 0) << lead;
        for (const auto& f : frames)
            EXPECT_EQ(f.leadOnes, lead);
    }
}

TEST(FskWireReader, WordsAlignedWithTheBitsAndNoJitter)
{
    // The grid aligned with the bits, every word exact: the plainest input.
    qisim::FskWaveParams p;
    p.carrierHz = 175000;
    p.depthTicks = 75;
    p.polarity = -1;
    qisim::FskWaveWriter w(p, 1);
    w.CarrierMs(50);
    w.Packet(qisim::WithChecksum({0x4F, 0x01, 0x02, 0x03, 0x04}), 0);
    w.CarrierMs(50);
    w.Pattern(0x00);
    w.CarrierMs(50);
    const auto frames = Read(w.Words());
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].bytes, qisim::WithChecksum({0x4F, 0x01, 0x02, 0x03, 0x04}));
    EXPECT_EQ(frames[1].bytes, std::vector<uint8_t>{0x00});
}

TEST(FskWireReader, TheBandEdgesAreIncluded)
{
    SCOPED_TRACE("110 kHz is one tick outside the carrier tracker's band; the reader takes it");
    FskWireReader reader(110000, 210000);
    EXPECT_GE(reader.MaxCarrierPeriod(), 8728);
    EXPECT_LE(reader.MinCarrierPeriod(), 4571);
    for (double hz : {110000.0, 210000.0}) {
        FskStreamShape shape;
        shape.carrierHz = hz;
        shape.driftHzPerSecond = 0;
        shape.depthNs = 265.5;
        const FskRandomStream s = MakeFskRandomStream({{0x1E, false}, {0xFF, true}}, 2, shape, 3);
        FskWireReader r(110000, 210000);
        const Score o = Match(s, Read(s.words, r));
        EXPECT_EQ(o.exact, 4) << hz;
    }
    // Well outside the band nothing is read.
    FskStreamShape outside;
    outside.carrierHz = 100000;
    outside.driftHzPerSecond = 0;
    const FskRandomStream s = MakeFskRandomStream({{0x1E, false}}, 2, outside, 4);
    EXPECT_TRUE(Read(s.words).empty());
}

TEST(FskWireReader, ChecksumAndParityAreNotForgiven)
{
    qisim::FskWaveParams p;
    p.randomGridOffset = true;
    p.noiseTicks = 1.0;
    qisim::FskWaveWriter w(p, 2);
    w.CarrierMs(50);
    // A bad checksum with a header that the frame decoder would forgive.
    w.Packet({0x4F, 0x01, 0x02, 0x03, 0x04, 0x00}, 0);
    w.CarrierMs(60);
    // A parity bit flipped in the second byte.
    std::vector<uint8_t> bits = qisim::FskPacketBits(qisim::WithChecksum({0x1F, 0x64}), 0);
    bits[11 + 9] ^= 1;
    w.Bits(bits);
    w.CarrierMs(60);
    // A stop bit of zero.
    bits = qisim::FskPacketBits(qisim::WithChecksum({0x1F, 0x64}), 0);
    bits[10] = 0;
    w.Bits(bits);
    w.CarrierMs(60);
    // One byte short of the length rule (a checksum that holds).
    w.Packet(qisim::WithChecksum({0x30, 0x13, 0x00}), 0);
    w.CarrierMs(60);
    // Eight bits that are no response pattern.
    w.Pattern(0xBB);
    w.CarrierMs(60);
    EXPECT_TRUE(Read(w.Words()).empty());
}

// ------------------------------------------------------------- bad input

TEST(FskWireReader, GarbageWordsGiveNoFrame)
{
    std::mt19937 rng(11);
    std::vector<uint16_t> any(400000), inBand(400000), twoLevels(400000);
    for (auto& w : any)
        w = static_cast<uint16_t>(rng());
    for (auto& w : inBand)
        w = static_cast<uint16_t>(4571 + rng() % (8728 - 4571));
    // Two levels 100 ticks apart, switched at random every 1 to 40 words:
    // modulation that is no bi-phase.
    int level = 0, left = 0;
    for (auto& w : twoLevels) {
        if (left-- <= 0) {
            level ^= 1;
            left = 1 + static_cast<int>(rng() % 40);
        }
        w = static_cast<uint16_t>(6000 + 100 * level + static_cast<int>(rng() % 5));
    }
    EXPECT_TRUE(Read(any).empty());
    EXPECT_TRUE(Read(inBand).empty());
    EXPECT_TRUE(Read(twoLevels).empty());
}

TEST(FskWireReader, RandomBitsOfAnyLengthButEightGiveNoFrame)
{
    std::mt19937 rng(12);
    qisim::FskWaveParams p;
    p.randomGridOffset = true;
    p.noiseTicks = 2.0;
    qisim::FskWaveWriter w(p, 12);
    w.CarrierMs(50);
    for (int k = 0; k < 600; ++k) {
        std::vector<uint8_t> bits(12 + rng() % 200);
        for (auto& b : bits)
            b = static_cast<uint8_t>(rng() & 1);
        p.cyclesPerBit = k % 2 ? 512 : 128;
        w.SetParams(p);
        w.Bits(bits);
        w.CarrierMs(20);
    }
    // A frame here would be one of 600 random bit strings that happens to pass
    // start, parity, stop, length and checksum: none does.
    EXPECT_TRUE(Read(w.Words()).empty());
}

TEST(FskWireReader, ACarrierThatJumpsIsNoPacketAndIsFollowed)
{
    qisim::FskWaveParams p;
    p.carrierHz = 128000;
    p.noiseTicks = 2.0;
    p.randomGridOffset = true;
    qisim::FskWaveWriter w(p, 13);
    w.CarrierMs(50);
    // Jumps of 40 to 1500 ticks a word, staying.
    for (double hz : {131000.0, 120000.0, 150000.0, 149000.0, 180000.0}) {
        p.carrierHz = hz;
        w.SetParams(p);
        w.CarrierMs(40);
    }
    w.Packet(qisim::WithChecksum({0x1F, 0x20}), 0);
    w.CarrierMs(40);
    // A jump in the middle of a packet: the packet is lost, nothing else.
    const std::vector<uint8_t> bits = qisim::FskPacketBits(qisim::WithChecksum({0x30, 1, 2, 3}), 0);
    w.Bits(std::vector<uint8_t>(bits.begin(), bits.begin() + 17));
    p.carrierHz = 140000;
    w.SetParams(p);
    w.Bits(std::vector<uint8_t>(bits.begin() + 17, bits.end()));
    w.CarrierMs(40);
    w.Pattern(0xFF);
    w.CarrierMs(40);
    const auto frames = Read(w.Words());
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].bytes, qisim::WithChecksum({0x1F, 0x20}));
    EXPECT_NEAR(frames[0].carrierPeriod, 5333, 3);
    EXPECT_EQ(frames[1].bytes, std::vector<uint8_t>{0xFF});
}

TEST(FskWireReader, WordsOfZeroOrAllOnesEndAPacketWithNothing)
{
    for (uint16_t off : {uint16_t{0}, uint16_t{0xFFFF}}) {
        qisim::FskWaveParams p;
        p.noiseTicks = 1.0;
        qisim::FskWaveWriter w(p, 14);
        w.CarrierMs(50);
        w.Packet(qisim::WithChecksum({0x30, 1, 2, 3}), 0);
        std::vector<uint16_t> words = w.Words();
        const size_t packetEnd = words.size();
        // Words of the packet replaced in its middle.
        words[packetEnd - 100] = off;
        words[packetEnd - 99] = off;
        qisim::FskWaveWriter tail(p, 15);
        tail.CarrierMs(50);
        tail.Pattern(0xFF);
        tail.CarrierMs(50);
        words.insert(words.end(), tail.Words().begin(), tail.Words().end());
        const auto frames = Read(words);
        ASSERT_EQ(frames.size(), 1u) << off;
        EXPECT_EQ(frames[0].bytes, std::vector<uint8_t>{0xFF});
        // Nothing but such words.
        EXPECT_TRUE(Read(std::vector<uint16_t>(100000, off)).empty());
    }
}

TEST(FskWireReader, AStreamThatStopsInsideAPacketGivesNoFrame)
{
    qisim::FskWaveParams p;
    p.noiseTicks = 1.0;
    p.randomGridOffset = true;
    qisim::FskWaveWriter w(p, 16);
    w.CarrierMs(50);
    const uint64_t start = w.Ticks();
    w.Packet(qisim::WithChecksum({0x8F, 1, 2, 3, 4, 5, 6, 7, 8, 9}), 0);
    const std::vector<uint16_t>& all = w.Words();
    for (size_t cut = all.size() - 3000; cut < all.size(); cut += 97) {
        const std::vector<uint16_t> words(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(cut));
        FskWireReader reader;
        EXPECT_TRUE(Read(words, reader).empty()) << cut;
        // The reader has not looked past the packet's start.
        EXPECT_LE(reader.SettledThrough(), static_cast<int64_t>(start) + 6000) << cut;
    }
}

TEST(FskWireReader, AReaderThatBeginsInsideAPacketWaitsForItsEnd)
{
    for (int cycles : {512, 128}) {
        qisim::FskWaveParams p;
        p.noiseTicks = 1.0;
        p.cyclesPerBit = cycles;
        qisim::FskWaveWriter w(p, 17);
        w.CarrierMs(10);
        const size_t first = w.Packet(qisim::WithChecksum({0x8F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0}), 0);
        const size_t last = w.Words().size();
        w.CarrierMs(50);
        w.Pattern(0x00);
        w.CarrierMs(50);
        const std::vector<uint16_t>& all = w.Words();
        for (size_t from = first + 1; from < last; from += 37) {
            const std::vector<uint16_t> words(all.begin() + static_cast<std::ptrdiff_t>(from), all.end());
            const auto frames = Read(words);
            ASSERT_EQ(frames.size(), 1u) << cycles << " from " << from;
            EXPECT_EQ(frames[0].bytes, std::vector<uint8_t>{0x00});
        }
    }
}

TEST(FskWireReader, SettledThroughNeverPassesAPacketStillToCome)
{
    FskStreamShape shape;
    shape.cyclesPerBit = 128;
    const FskRandomStream s = MakeFskRandomStream(FskEveryItem(), 2, shape, 18);
    const std::vector<int64_t> ticks = EndTicks(s.words);
    FskWireReader reader;
    std::vector<FskWireFrame> got;
    int64_t previous = 0;
    for (size_t i = 0; i < s.words.size(); ++i) {
        reader.Feed(s.words[i], ticks[i]);
        for (auto& f : reader.Take())
            got.push_back(std::move(f));
        const int64_t settled = reader.SettledThrough();
        ASSERT_GE(settled, previous);
        previous = settled;
        ASSERT_LE(settled, ticks[i]);
        // Every sent packet that starts before the mark is among the frames.
        for (const FskSentPacket& p : s.sent) {
            if (static_cast<int64_t>(p.endTicks) >= settled)
                break;
            const bool found = std::any_of(got.begin(), got.end(), [&](const FskWireFrame& f) {
                return f.bytes == p.bytes && f.startTicks + 10000 >= static_cast<int64_t>(p.startTicks);
            });
            ASSERT_TRUE(found) << "packet at " << p.startTicks << " settled at " << settled;
        }
    }
    EXPECT_EQ(got.size(), s.sent.size());
}

TEST(FskWireReader, TimesThatGoFarBackStartANewCapture)
{
    FskStreamShape shape;
    const FskRandomStream s = MakeFskRandomStream({{0x1F, false}}, 2, shape, 19);
    FskWireReader reader;
    // The first half of the stream, then the whole stream again from time 0.
    const std::vector<uint16_t> half(s.words.begin(), s.words.begin() + static_cast<std::ptrdiff_t>(s.words.size() / 2));
    auto frames = Read(half, reader);
    const auto again = Read(s.words, reader);
    frames.insert(frames.end(), again.begin(), again.end());
    EXPECT_EQ(again.size(), 2u);
    EXPECT_EQ(Match(s, again).exact, 2);
}
