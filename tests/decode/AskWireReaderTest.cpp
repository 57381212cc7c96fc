// The second ASK reader on synthesized envelopes: packets of every header the
// dispatcher knows, at bit rates from 1.6 to 2.4 kHz, with noise, edge jitter,
// both polarities and swings from 400 to 3000, fed in chunks of any size; and
// inputs that hold no packet at all.
#include "decode/AskWireReader.h"
#include "sim/AskSynth.h"

#include "AskChain.h"  // AskHeaders()

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace {

struct Sent {
    std::vector<uint8_t> bytes;
    size_t start = 0;       // first transition
    size_t startBit = 0;    // header's start bit
    size_t end = 0;         // end of the checksum's stop bit
    double samplesPerBit = 0;
    int swing = 0;
};

struct Stream {
    std::vector<int32_t> samples;
    std::vector<Sent> sent;
};

std::vector<int32_t> Widen(const std::vector<uint16_t>& s)
{
    return std::vector<int32_t>(s.begin(), s.end());
}

std::vector<uint8_t> RandomPacket(uint8_t header, std::mt19937& rng)
{
    std::vector<uint8_t> m{header};
    for (int i = 0; i < qisim::QiMessageSize(header); ++i)
        m.push_back(static_cast<uint8_t>(rng()));
    return qisim::WithChecksum(m);
}

// Swing 400..3000 of either sign, an idle level that leaves room for it.
qisim::AskWaveParams RandomWave(double samplesPerBit, std::mt19937& rng)
{
    qisim::AskWaveParams p;
    p.samplesPerBit = samplesPerBit;
    const int magnitude = 400 + static_cast<int>(rng() % 2601);
    p.swing = rng() % 2 ? magnitude : -magnitude;
    const int room = 4095 - magnitude - 200;
    const int low = 100 + static_cast<int>(rng() % static_cast<unsigned>(room));
    p.idleLevel = p.swing > 0 ? low : low + magnitude;
    p.noiseFraction = 0.02;
    p.jitterSamples = 2.0;
    return p;
}

void AddPacket(qisim::AskWaveWriter& w, Stream& s, const std::vector<uint8_t>& bytes, int preamble)
{
    Sent x;
    x.bytes = bytes;
    x.samplesPerBit = w.Params().samplesPerBit;
    x.swing = w.Params().swing;
    x.start = w.Packet(bytes, preamble);
    x.startBit = x.start + static_cast<size_t>(std::lround(preamble * x.samplesPerBit));
    x.end = x.start + static_cast<size_t>(std::lround(qisim::AskPacketBits(bytes, preamble).size() * x.samplesPerBit));
    s.sent.push_back(x);
}

// Packets of the given headers (cycled), each with its own swing, polarity,
// idle level and preamble, separated by idle stretches.
Stream MakeStream(const std::vector<uint8_t>& headers, int packets, double samplesPerBit, uint32_t seed)
{
    std::mt19937 rng(seed);
    qisim::AskWaveWriter w(RandomWave(samplesPerBit, rng), seed);
    Stream s;
    w.Idle(200);
    for (int k = 0; k < packets; ++k) {
        w.SetParams(RandomWave(samplesPerBit, rng));
        w.Idle(150 + rng() % 150);
        AddPacket(w, s, RandomPacket(headers[static_cast<size_t>(k) % headers.size()], rng),
                  11 + static_cast<int>(rng() % 15));
        w.Idle(100 + rng() % 200);
    }
    s.samples = Widen(w.Samples());
    return s;
}

// Feeds in chunks, checking after each call that SettledThrough never goes
// back and that no packet comes out that begins before what was settled.
std::vector<AskWireFrame> FeedAll(AskWireReader& r, const std::vector<int32_t>& samples, size_t chunk,
                                  uint64_t first = 0)
{
    std::vector<AskWireFrame> frames;
    uint64_t settled = 0;
    for (size_t pos = 0; pos < samples.size(); pos += chunk) {
        const size_t n = std::min(chunk, samples.size() - pos);
        r.Feed(samples.data() + pos, n, first + pos);
        const uint64_t now = r.SettledThrough();
        if (pos > 0) {
            EXPECT_GE(now, settled);
        }
        EXPECT_LE(now, first + pos + n);
        for (auto& f : r.Take()) {
            EXPECT_GE(f.firstSample, settled) << "a packet came out after its start was settled";
            frames.push_back(std::move(f));
        }
        settled = now;
    }
    return frames;
}

struct Score {
    int sent = 0;
    int exact = 0;
    int falseFrames = 0;
};

// A frame counts for a sent packet when it starts where the packet starts and
// holds its bytes; every other frame is one the reader made up.
Score Match(const Stream& s, const std::vector<AskWireFrame>& frames, bool checkFields = true, bool reportMissing = false)
{
    Score r;
    r.sent = static_cast<int>(s.sent.size());
    std::vector<bool> used(frames.size(), false);
    for (const Sent& p : s.sent) {
        for (size_t i = 0; i < frames.size(); ++i) {
            const AskWireFrame& f = frames[i];
            if (used[i] || f.bytes != p.bytes || f.firstSample + 4 < p.start || f.firstSample > p.start + 4)
                continue;
            used[i] = true;
            ++r.exact;
            if (checkFields) {
                EXPECT_NEAR(static_cast<double>(f.startBitSample), static_cast<double>(p.startBit), 4.0);
                EXPECT_NEAR(static_cast<double>(f.endSample), static_cast<double>(p.end), 4.0);
                EXPECT_NEAR(f.samplesPerBit, p.samplesPerBit, 0.02 * p.samplesPerBit);
                EXPECT_EQ(f.polarity, p.swing > 0 ? 1 : -1);
                EXPECT_NEAR(f.swing, std::abs(p.swing), 0.1 * std::abs(p.swing));
            }
            break;
        }
    }
    if (reportMissing) {
        size_t found = 0;
        for (const Sent& p : s.sent) {
            bool got = false;
            for (const AskWireFrame& f : frames)
                got = got || (f.bytes == p.bytes && f.firstSample + 4 >= p.start && f.firstSample <= p.start + 4);
            if (!got)
                ADD_FAILURE() << "missing: header " << int(p.bytes[0]) << " at " << p.start << " swing " << p.swing
                              << " spb " << p.samplesPerBit;
            found += got;
        }
    }
    for (size_t i = 0; i < frames.size(); ++i) {
        if (used[i])
            continue;
        ++r.falseFrames;
        ADD_FAILURE() << "frame not sent: " << frames[i].bytes.size() << " bytes, header " << int(frames[i].bytes[0])
                      << " at " << frames[i].firstSample;
    }
    return r;
}

double BitPeriod(double kHz) { return 40.0 / kHz; }

}  // namespace

TEST(AskWireReader, LengthRuleMatchesTheSynthesizer)
{
    for (int h = 0; h < 256; ++h)
        EXPECT_EQ(AskWireBitReader::MessageSize(static_cast<uint8_t>(h)), qisim::QiMessageSize(static_cast<uint8_t>(h)))
            << h;
}

TEST(AskWireReader, CleanPacketOfEveryHeaderComesBackWithItsFields)
{
    qisim::AskWaveParams p;
    p.idleLevel = 700;
    p.swing = 1500;
    qisim::AskWaveWriter w(p, 3);
    std::mt19937 rng(3);
    Stream s;
    w.Idle(300);
    for (uint8_t h : AskHeaders()) {
        AddPacket(w, s, RandomPacket(h, rng), 11);
        w.Idle(400);
    }
    s.samples = Widen(w.Samples());
    AskWireReader r;
    const auto frames = FeedAll(r, s.samples, 200);
    const Score sc = Match(s, frames);
    EXPECT_EQ(sc.exact, sc.sent);
    EXPECT_EQ(sc.falseFrames, 0);
    ASSERT_EQ(frames.size(), s.sent.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].polarity, 1);
        EXPECT_NEAR(frames[i].samplesPerBit, 20.0, 0.1);
        EXPECT_LT(frames[i].firstSample, frames[i].startBitSample);
        EXPECT_LT(frames[i].startBitSample, frames[i].endSample);
    }
}

// A packet whose first edge overshoots the idle level the other way for a
// few samples before it falls to the modulated level (as an envelope rebuilt
// from a smoothed capture record does): the modulated level is the side the
// envelope mostly went, not the side it went first.
TEST(AskWireReader, FirstEdgeOvershootingTheOtherWayStillGivesThePacket)
{
    qisim::AskWaveParams p;
    p.idleLevel = 2192;
    p.swing = -750;
    qisim::AskWaveWriter w(p, 5);
    Stream s;
    w.Idle(400);
    AddPacket(w, s, qisim::WithChecksum({0x03, 0x05}), 11);
    w.Idle(400);
    s.samples = Widen(w.Samples());
    // 160 counts above idle for the first six samples of the packet.
    for (size_t i = s.sent[0].start; i < s.sent[0].start + 6; ++i)
        s.samples[i] = 2192 + 160;
    AskWireReader r;
    const auto frames = FeedAll(r, s.samples, 200);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].bytes, qisim::WithChecksum({0x03, 0x05}));
    EXPECT_EQ(frames[0].polarity, -1);
}

// The main round trip: every header, bit rates from 1.6 to 2.4 kHz, random
// swings of both signs, preambles 11 to 25, 2 % noise, edges jittered by up
// to two samples. At least 99.9 % must come back exactly and nothing else.
TEST(AskWireReader, RoundTripOverHeadersBitRatesSwingsAndPreambles)
{
    Score total;
    uint32_t seed = 100;
    for (double kHz : {1.6, 1.8, 1.9, 2.0, 2.1, 2.2, 2.4}) {
        Score rate;
        for (int round = 0; round < 4; ++round) {
            std::vector<uint8_t> headers = AskHeaders();
            std::shuffle(headers.begin(), headers.end(), std::mt19937(seed));
            const Stream s = MakeStream(headers, 125, BitPeriod(kHz), seed++);
            AskWireReader r;
            const Score sc = Match(s, FeedAll(r, s.samples, 200), true, true);
            rate.sent += sc.sent;
            rate.exact += sc.exact;
            rate.falseFrames += sc.falseFrames;
        }
        EXPECT_EQ(rate.falseFrames, 0) << kHz << " kHz";
        EXPECT_GE(rate.exact, rate.sent * 0.995) << kHz << " kHz";
        total.sent += rate.sent;
        total.exact += rate.exact;
        total.falseFrames += rate.falseFrames;
    }
    EXPECT_EQ(total.sent, 3500);
    EXPECT_GE(total.exact, total.sent * 0.999) << total.exact << " of " << total.sent;
    EXPECT_EQ(total.falseFrames, 0);
}

TEST(AskWireReader, RealBitPeriodsBetweenTheListedRates)
{
    std::mt19937 pick(8);
    Score total;
    for (int i = 0; i < 12; ++i) {
        const double spb = 16.67 + 8.33 * std::uniform_real_distribution<double>(0, 1)(pick);
        const Stream s = MakeStream(AskHeaders(), 25, spb, 500 + static_cast<uint32_t>(i));
        AskWireReader r;
        const Score sc = Match(s, FeedAll(r, s.samples, 200));
        total.sent += sc.sent;
        total.exact += sc.exact;
        total.falseFrames += sc.falseFrames;
    }
    EXPECT_GE(total.exact, total.sent - 1);
    EXPECT_EQ(total.falseFrames, 0);
}

TEST(AskWireReader, EveryPreambleFrom11To25AndSwingsOfBothSigns)
{
    std::mt19937 rng(21);
    for (int swing : {400, -400, 1000, -1000, 3000, -3000}) {
        qisim::AskWaveParams p;
        p.swing = swing;
        p.idleLevel = swing > 0 ? 300 : 3700;
        p.noiseFraction = 0.02;
        p.jitterSamples = 2.0;
        p.samplesPerBit = 19.3;
        qisim::AskWaveWriter w(p, static_cast<uint32_t>(swing + 5000));
        Stream s;
        w.Idle(250);
        for (int pre = 11; pre <= 25; ++pre) {
            AddPacket(w, s, RandomPacket(0x71, rng), pre);
            w.Idle(300);
        }
        s.samples = Widen(w.Samples());
        AskWireReader r;
        const Score sc = Match(s, FeedAll(r, s.samples, 200));
        EXPECT_EQ(sc.exact, sc.sent) << swing;
        EXPECT_EQ(sc.falseFrames, 0) << swing;
    }
}

TEST(AskWireReader, ChunkSizeDoesNotChangeTheFrames)
{
    const Stream s = MakeStream(AskHeaders(), 40, BitPeriod(2.2), 77);
    std::vector<std::vector<AskWireFrame>> results;
    for (size_t chunk : {size_t(1), size_t(7), size_t(200), size_t(4096)}) {
        AskWireReader r;
        results.push_back(FeedAll(r, s.samples, chunk, 1000));
    }
    ASSERT_GE(results[0].size(), 39u);
    for (size_t k = 1; k < results.size(); ++k) {
        ASSERT_EQ(results[k].size(), results[0].size());
        for (size_t i = 0; i < results[0].size(); ++i) {
            const AskWireFrame& a = results[0][i];
            const AskWireFrame& b = results[k][i];
            EXPECT_EQ(a.bytes, b.bytes);
            EXPECT_EQ(a.firstSample, b.firstSample);
            EXPECT_EQ(a.startBitSample, b.startBitSample);
            EXPECT_EQ(a.endSample, b.endSample);
            EXPECT_EQ(a.samplesPerBit, b.samplesPerBit);
            EXPECT_EQ(a.polarity, b.polarity);
            EXPECT_EQ(a.swing, b.swing);
        }
    }
    // Numbered from 1000: the frames carry the feed's numbers.
    EXPECT_GE(results[0][0].firstSample, 1000 + s.sent[0].start - 4);
}

// ---------------------------------------------------------------------------
// Inputs that hold no packet.

TEST(AskWireReader, GarbageGivesNothing)
{
    std::mt19937 rng(5);
    std::vector<int32_t> samples;
    // White noise over the whole range, then random levels held for random
    // lengths around a bit period (the worst case for a bi-phase reader).
    for (int i = 0; i < 200000; ++i)
        samples.push_back(static_cast<int32_t>(rng() % 4096));
    for (int i = 0; i < 20000; ++i) {
        const int32_t level = 500 + static_cast<int32_t>(rng() % 2) * 1500;
        const int len = 4 + static_cast<int>(rng() % 22);
        for (int j = 0; j < len; ++j)
            samples.push_back(level + static_cast<int32_t>(rng() % 60));
    }
    AskWireReader r;
    EXPECT_TRUE(FeedAll(r, samples, 200).empty());
}

TEST(AskWireReader, SquareWaveGivesNothing)
{
    // Half bits forever: a preamble that never reaches a start bit.
    for (double spb : {16.67, 20.0, 25.0}) {
        qisim::AskWaveParams p;
        p.samplesPerBit = spb;
        p.noiseFraction = 0.02;
        p.jitterSamples = 1.0;
        qisim::AskWaveWriter w(p, 9);
        w.Idle(300);
        w.Bits(std::vector<uint8_t>(5000, 1));
        w.Idle(300);
        AskWireReader r;
        EXPECT_TRUE(FeedAll(r, Widen(w.Samples()), 200).empty()) << spb;
    }
    // A square wave of whole bits: all zeros.
    qisim::AskWaveParams p;
    qisim::AskWaveWriter w(p, 9);
    w.Idle(300);
    w.Bits(std::vector<uint8_t>(5000, 0));
    AskWireReader r;
    EXPECT_TRUE(FeedAll(r, Widen(w.Samples()), 200).empty());
}

TEST(AskWireReader, StuckEnvelopeGivesNothing)
{
    for (int32_t level : {0, 4095, 2000}) {
        std::vector<int32_t> samples(1000, 800);
        samples.resize(100000, level);
        samples.resize(120000, 800);
        AskWireReader r;
        EXPECT_TRUE(FeedAll(r, samples, 200).empty()) << level;
    }
}

TEST(AskWireReader, TruncatedPacketsGiveNothingAndTheNextOneStillComesBack)
{
    std::mt19937 rng(31);
    const auto bytes = RandomPacket(0x51, rng);
    const auto bits = qisim::AskPacketBits(bytes, 15);
    qisim::AskWaveParams p;
    p.noiseFraction = 0.02;
    p.jitterSamples = 1.0;
    qisim::AskWaveWriter w(p, 31);
    Stream s;
    w.Idle(300);
    // Every cut from inside the preamble to the last bit.
    for (size_t cut = 10; cut < bits.size(); cut += 7) {
        w.Bits(std::vector<uint8_t>(bits.begin(), bits.begin() + static_cast<std::ptrdiff_t>(cut)));
        w.Idle(300);
    }
    AddPacket(w, s, bytes, 15);
    w.Idle(300);
    s.samples = Widen(w.Samples());
    AskWireReader r;
    const auto frames = FeedAll(r, s.samples, 200);
    const Score sc = Match(s, frames);
    EXPECT_EQ(sc.exact, 1);
    EXPECT_EQ(sc.falseFrames, 0);
}

TEST(AskWireReader, HeaderAnnouncingMoreBytesThanArriveGivesNothing)
{
    // 0x71 announces 8 message bytes; only 3 come, their checksum correct as
    // if the packet ended there.
    qisim::AskWaveParams p;
    p.noiseFraction = 0.02;
    qisim::AskWaveWriter w(p, 4);
    w.Idle(300);
    w.Packet(qisim::WithChecksum({0x71, 0x10, 0x20, 0x30}), 12);
    w.Idle(2000);
    // And one of a header whose message would run to 27 bytes.
    w.Packet(qisim::WithChecksum({0xFF, 0x01, 0x02}), 12);
    w.Idle(2000);
    AskWireReader r;
    EXPECT_TRUE(FeedAll(r, Widen(w.Samples()), 200).empty());
}

TEST(AskWireReader, BadParityStopBitOrChecksumGivesNothing)
{
    const std::vector<uint8_t> good = qisim::WithChecksum({0x03, 0x42});
    const auto bits = qisim::AskPacketBits(good, 12);
    qisim::AskWaveParams p;
    p.noiseFraction = 0.02;
    qisim::AskWaveWriter w(p, 6);
    w.Idle(300);
    auto flip = [&](size_t index) {
        auto b = bits;
        b[index] ^= 1;
        w.Bits(b);
        w.Idle(400);
    };
    const size_t header = 12;  // start bit of the header
    flip(header + 9);          // header's parity bit
    flip(header + 11 + 10);    // message byte's stop bit
    flip(header + 22 + 3);     // a data bit of the checksum: parity breaks too
    flip(header);              // header's start bit
    // Checksum byte wrong but its parity right.
    w.Packet({0x03, 0x42, 0x40}, 12);
    w.Idle(400);
    AskWireReader r;
    EXPECT_TRUE(FeedAll(r, Widen(w.Samples()), 200).empty());
}

// ---------------------------------------------------------------------------
// Numbering, gaps, Reset.

TEST(AskWireReader, NumberGapDropsThePacketInProgress)
{
    std::mt19937 rng(41);
    qisim::AskWaveParams p;
    p.noiseFraction = 0.02;
    qisim::AskWaveWriter w(p, 41);
    w.Idle(300);
    const size_t start = w.Packet(RandomPacket(0x71, rng), 11);
    const size_t end = w.Samples().size();
    w.Idle(300);
    const auto samples = Widen(w.Samples());
    const size_t half = (start + end) / 2;

    AskWireReader r;
    r.Feed(samples.data(), half, 0);
    EXPECT_LE(r.SettledThrough(), start + 3);
    // The rest arrives with a gap of one sample in the numbering.
    r.Feed(samples.data() + half, samples.size() - half, half + 1);
    EXPECT_TRUE(r.Take().empty());
    EXPECT_GE(r.SettledThrough(), half + 1);

    // Without the gap the same samples give the packet.
    AskWireReader whole;
    whole.Feed(samples.data(), half, 0);
    whole.Feed(samples.data() + half, samples.size() - half, half);
    EXPECT_EQ(whole.Take().size(), 1u);
}

TEST(AskWireReader, ReadsOnAfterAGapAndAfterReset)
{
    const Stream s = MakeStream(AskHeaders(), 6, 20.0, 55);
    AskWireReader r;
    // Half a packet, then a new capture from number 0 holding whole packets.
    const size_t cut = (s.sent[0].start + s.sent[0].end) / 2;
    r.Feed(s.samples.data(), cut, 5000000);
    auto frames = FeedAll(r, s.samples, 200, 0);
    EXPECT_EQ(Match(s, frames).exact, 6);
    EXPECT_EQ(Match(s, frames).falseFrames, 0);

    // Reset forgets the packet under way and the numbering.
    r.Feed(s.samples.data(), cut, 123456);
    r.Reset();
    EXPECT_EQ(r.SettledThrough(), 0u);
    EXPECT_TRUE(r.Take().empty());
    frames = FeedAll(r, s.samples, 4096, 0);
    EXPECT_EQ(Match(s, frames).exact, 6);
}

TEST(AskWireReader, SettledThroughFollowsTheStreamAndWaitsForAPacketUnderWay)
{
    std::mt19937 rng(61);
    qisim::AskWaveParams p;
    p.noiseFraction = 0.02;
    qisim::AskWaveWriter w(p, 61);
    w.Idle(2000);
    const size_t start = w.Packet(RandomPacket(0x81, rng), 20);
    const size_t end = w.Samples().size();
    w.Idle(2000);
    const auto samples = Widen(w.Samples());

    AskWireReader r;
    uint64_t last = 0;
    bool seen = false;
    for (size_t pos = 0; pos < samples.size(); pos += 50) {
        const size_t n = std::min<size_t>(50, samples.size() - pos);
        r.Feed(samples.data() + pos, n, pos);
        const uint64_t s = r.SettledThrough();
        EXPECT_GE(s, last);
        last = s;
        if (pos + n < start) {
            EXPECT_GE(s + 20, pos + n);  // idle: close behind the newest sample
        }
        if (pos > start + 100 && pos + n < end) {
            EXPECT_LE(s, start + 3);  // the packet is being read (its first crossing lies up to the rise time on)
        }
        const auto frames = r.Take();
        if (!frames.empty()) {
            seen = true;
            EXPECT_GE(frames[0].firstSample + 4, start);
        }
    }
    EXPECT_TRUE(seen);
    EXPECT_GT(last, end);
}
