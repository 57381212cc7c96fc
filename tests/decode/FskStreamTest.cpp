#include "decode/FskStream.h"
#include "decode/ThreadFSK.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

// Records what the tracker reports.
struct Recorder : TriggerFskCallback {
    struct Ping {
        int64_t start, end, period;
    };
    std::vector<Ping> pings;
    std::vector<std::shared_ptr<TriggerData>> packets;
    FskCarrierTracker* tracker = nullptr;
    void DigitalPing(int64_t s, int64_t e, int64_t p) override { pings.push_back({s, e, p}); }
    void FskPacket(std::shared_ptr<TriggerData> packet) override
    {
        packets.push_back(packet);
        if (tracker)
            tracker->TakePacket();
    }
};

int32_t Period(double hz)
{
    return static_cast<int32_t>(960000000.0 / hz + 0.5);
}

struct Feeder {
    FskCarrierTracker tracker{110000, 210000};
    Recorder recorder;
    int64_t t = 0;
    Feeder()
    {
        tracker.SetCallback(&recorder);
        recorder.tracker = &tracker;
        tracker.Reset();
    }
    void Words(int32_t w, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            t += w;
            tracker.Feed(w, t);
        }
    }
    // Carrier off: words far above the band.
    void Off(size_t n) { Words(65535, n); }
};

}  // namespace

TEST(FskCarrierTracker, PeriodLimitsComeFromTheFrequencyBand)
{
    FskCarrierTracker t(110000, 210000);
    EXPECT_EQ(t.MaxPeriod(), 960000000 / 110000);
    EXPECT_EQ(t.MinPeriod(), 960000000 / 210000);
}

TEST(FskCarrierTracker, SixtyThreeWordsDoNothingAndTheSixtyFourthJudgesTheBlock)
{
    Feeder f;
    f.Words(Period(128000), 63);
    EXPECT_EQ(f.tracker.DisplayFrequency(), 0);
    EXPECT_FALSE(f.tracker.PingInProgress());
    f.Words(Period(128000), 1);
    EXPECT_TRUE(f.tracker.PingInProgress());
    EXPECT_EQ(f.tracker.DisplayFrequency(), 128000);
}

TEST(FskCarrierTracker, StableNeedsTheInterceptInsideTheBandAndSdBelow300)
{
    FskCarrierTracker t(110000, 210000);
    EXPECT_TRUE(t.IsStable(7500, 299.9));
    EXPECT_FALSE(t.IsStable(7500, 300.0));
    EXPECT_FALSE(t.IsStable(static_cast<double>(t.MaxPeriod()), 10));
    EXPECT_FALSE(t.IsStable(static_cast<double>(t.MinPeriod()), 10));
    EXPECT_TRUE(t.IsStable(static_cast<double>(t.MaxPeriod()) - 0.5, 10));
}

TEST(FskCarrierTracker, FitGivesTheInterceptAndTheSampleDeviation)
{
    std::vector<int32_t> ramp(64);
    for (int i = 0; i < 64; ++i)
        ramp[i] = 7000 + 3 * i;
    double p = 0, sd = 0;
    FskCarrierTracker::Fit(ramp, p, sd);
    EXPECT_NEAR(p, 7000.0, 1e-6);
    // Around the truncated mean 7094, n - 1 in the divisor.
    double squares = 0;
    for (int v : ramp)
        squares += (v - 7094.0) * (v - 7094.0);
    EXPECT_NEAR(sd, std::sqrt(squares / 63.0), 1e-9);
}

TEST(FskCarrierTracker, BandTestUsesTheInterceptNotTheMean)
{
    // Starts inside the band (below the longest period, 8727) and ramps out of
    // it: the intercept is inside, the mean outside. Stable.
    Feeder in;
    std::vector<int32_t> up(64);
    for (int i = 0; i < 64; ++i)
        in.t += 8700 + 10 * i, in.tracker.Feed(8700 + 10 * i, in.t);
    EXPECT_TRUE(in.tracker.PingInProgress());
    // The other way round: intercept outside, mean inside. Not stable.
    Feeder out;
    for (int i = 0; i < 64; ++i)
        out.t += 8750 - 10 * i, out.tracker.Feed(8750 - 10 * i, out.t);
    EXPECT_FALSE(out.tracker.PingInProgress());
}

TEST(FskCarrierTracker, DigitalPingIsReportedWithItsSpanAndPeriod)
{
    Feeder f;
    f.Off(64);
    const int64_t carrierStart = f.t;
    const int32_t w = Period(128000);
    f.Words(w, 64 * 10);
    const int64_t carrierEnd = f.t;
    f.Off(128);
    ASSERT_EQ(f.recorder.pings.size(), 1u);
    const auto& p = f.recorder.pings[0];
    EXPECT_EQ(p.period, w);
    // The ping's words are all found: start at the carrier's first word.
    EXPECT_EQ(p.start, carrierStart);
    // The end lies at the last stable block plus the words counted after it
    // (with the block's word count added to the ticks as it stands).
    EXPECT_GE(p.end, carrierEnd - 64 * w);
    EXPECT_LE(p.end, carrierEnd + 64);
}

TEST(FskCarrierTracker, StepOf4999HzExtendsAPingAnd5000AbandonsIt)
{
    // Periods chosen so that the block frequencies (960000000 / P, truncated)
    // are 200041 and 205040 Hz: 4999 apart.
    Feeder extended;
    extended.Off(64);
    extended.Words(4799, 64 * 4);
    extended.Words(4682, 64 * 4);
    extended.Off(128);
    ASSERT_EQ(extended.recorder.pings.size(), 1u);
    EXPECT_EQ(extended.recorder.pings[0].period, 4799);

    // The block frequency is the intercept's 960000000 / P truncated; choose
    // periods that give a step of exactly 5000 Hz.
    Feeder abandoned;
    abandoned.Off(64);
    abandoned.Words(8000, 64 * 4);  // 120000 Hz
    abandoned.Words(7680, 64 * 4);  // 125000 Hz
    EXPECT_TRUE(abandoned.recorder.pings.empty());
    // The step block abandoned the ping; the next stable block starts a new one.
    EXPECT_TRUE(abandoned.tracker.PingInProgress());
    abandoned.Off(128);
    ASSERT_EQ(abandoned.recorder.pings.size(), 1u);
    EXPECT_EQ(abandoned.recorder.pings[0].period, 7680);

}

TEST(FskCarrierTracker, BlockWithCentresTwentyApartGetsALowCentreThirtyBelow)
{
    FskCarrierTracker t(110000, 210000);
    std::vector<int32_t> block;
    for (int i = 0; i < 64; ++i)
        block.push_back(i % 2 ? 7520 : 7500);
    t.ProcessBlock(block, 0);
    EXPECT_EQ(t.HighCentre(), 7520);
    EXPECT_EQ(t.LowCentre(), 7490);
    block.clear();
    for (int i = 0; i < 64; ++i)
        block.push_back(i % 2 ? 7521 : 7500);
    t.ProcessBlock(block, 0);
    EXPECT_EQ(t.HighCentre(), 7521);
    EXPECT_EQ(t.LowCentre(), 7500);
}

TEST(FskCarrierTracker, SpikesAreReplacedByTheRunningMean)
{
    std::vector<int32_t> block(64, 7500);
    block[10] = 8000;  // 500 away: replaced by the mean so far, spike included
    block[11] = 7701;  // 201 away from the last word kept: replaced too
    block[12] = 7700;  // 200 away: kept, and becomes the word compared with
    block[13] = 7900;
    const auto v = Despike(block);
    EXPECT_EQ(v[9], 7500);
    EXPECT_EQ(v[10], (7500 * 10 + 8000) / 11);
    EXPECT_EQ(v[11], (7500 * 10 + 8000 + 7701) / 12);
    EXPECT_EQ(v[12], 7700);
    EXPECT_EQ(v[13], 7900);
    // 400 below the last kept 7900: replaced, though it is the carrier again.
    EXPECT_EQ(v[14], (7500 * 10 + 8000 + 7701 + 7700 + 7900 + 7500) / 15);
}

TEST(FskCarrierTracker, DetectorStartsAPacketWhenWordsMoveToTheLowCentre)
{
    FskCarrierTracker t(110000, 210000);
    Recorder r;
    r.tracker = &t;
    t.SetCallback(&r);
    std::vector<int32_t> block;
    for (int i = 0; i < 64; ++i)
        block.push_back(i < 32 ? 7500 : 7400);
    t.ProcessBlock(block, 0);
    EXPECT_TRUE(t.PacketActive());
    // Back on the high centre for more than 50 words: the packet is over.
    std::vector<int32_t> high(64, 7500);
    high[0] = 7400;  // keeps the two centres apart
    t.ProcessBlock(high, 1000000);
    t.ProcessBlock(high, 2000000);
    ASSERT_EQ(r.packets.size(), 1u);
    const auto& p = *r.packets[0];
    EXPECT_GT(p.samples.size(), 50u);
    EXPECT_GT(p.highPeriod, p.lowPeriod);
    EXPECT_FALSE(t.PacketActive());
}

TEST(DistanceAverager, GivesTheMeanDistanceEverySixthWord)
{
    DistanceAverager a;
    a.target = 100;
    for (int w : {110, 90, 120, 80, 100})
        EXPECT_EQ(a.Feed(w), -1);
    EXPECT_EQ(a.Feed(5000), (10 + 10 + 20 + 20 + 0) / 5);  // the sixth word is not taken
    EXPECT_EQ(a.Feed(100), -1);
    EXPECT_EQ(a.count, 1);
}

TEST(KMeans2, FindsTwoClustersAndKeepsAnEmptyOnesCentre)
{
    double a = 0, b = 0;
    KMeans2({10, 11, 12, 50, 51, 52}, a, b);
    EXPECT_NEAR(std::min(a, b), 11.0, 1e-9);
    EXPECT_NEAR(std::max(a, b), 51.0, 1e-9);
    KMeans2({7, 7, 7, 7}, a, b);
    EXPECT_EQ(a, 7.0);
    EXPECT_EQ(b, 7.0);
}

TEST(CThreadFSK, DigitalPingsOutside50To200MsAreNotReported)
{
    CThreadFSK fsk;
    fsk.DigitalPing(0, 2999940, 7500);  // 49.999 ms
    EXPECT_EQ(fsk.TakeDigitalPing(), nullptr);
    fsk.DigitalPing(0, 3000000, 7500);  // 50 ms
    auto p = fsk.TakeDigitalPing();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->durationUs, 50000);
    EXPECT_EQ(p->frequency, 128000);
    EXPECT_EQ(p->text, "Digital Ping 50ms @ 128000HZ");
    EXPECT_EQ(p->label, "Digital Ping ");
    EXPECT_EQ(p->detail, "50ms @ 128000HZ");
    EXPECT_EQ(p->durationText, "00:00:00.050000");
    fsk.DigitalPing(600000, 600000 + 12000000, 7500);  // 200 ms
    p = fsk.TakeDigitalPing();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->startUs, 10000);
    EXPECT_EQ(p->endUs, 210000);
    EXPECT_EQ(p->startText, "00:00:00.010000");
    fsk.DigitalPing(0, 12000060, 7500);  // 200.001 ms
    EXPECT_EQ(fsk.TakeDigitalPing(), nullptr);
}

TEST(CThreadFSK, TicksAreSetFromTheStampWhenItIsComplete)
{
    CThreadFSK fsk;
    // One chunk: a frame of three words with stamp 10 ms.
    std::vector<uint8_t> bytes{6, 0, 0, 0, 10, 0, 0, 0};
    for (uint16_t w : {7500, 7500, 7500}) {
        bytes.push_back(w & 0xFF);
        bytes.push_back(w >> 8);
    }
    fsk.ParseChunk(bytes.data(), bytes.size() / 2);
    // ticks = 10 x 60000 - 22500, then the three words bring it up to the stamp.
    EXPECT_EQ(fsk.Ticks(), 600000);
    EXPECT_EQ(fsk.Stamp(), 10u);
    EXPECT_EQ(fsk.ParserState(), 0);
}

TEST(CThreadFSK, OneWordInSixReachesTheDisplay)
{
    CThreadFSK fsk;
    std::vector<uint8_t> bytes{24, 0, 0, 0, 1, 0, 0, 0};
    for (int k = 0; k < 12; ++k) {
        bytes.push_back(static_cast<uint8_t>(k + 1));
        bytes.push_back(0x1D);
    }
    fsk.ParseChunk(bytes.data(), bytes.size() / 2);
    const auto shown = fsk.TakeDisplayWords();
    ASSERT_EQ(shown.size(), 2u);
    EXPECT_EQ(shown.front(), 0x1D06);
    EXPECT_EQ(shown.back(), 0x1D0C);
}

TEST(CThreadFSK, ReplayWordsAreFedAtMost3000APass)
{
    SettingParams band;
    band.m_min_freq = 110000;
    band.m_max_freq = 210000;
    CThreadFSK fsk(nullptr, &band);
    fsk.LoadReplay(std::vector<uint16_t>(4000, 7500));
    fsk.RunPass();
    EXPECT_EQ(fsk.Ticks(), 3000 * 7500);
    fsk.RunPass();
    EXPECT_EQ(fsk.Ticks(), 4000 * 7500);
    EXPECT_EQ(fsk.CurrentFrequency(), 128000);
}

namespace {

// One packet through the detector: a modulated block, then the carrier alone.
std::shared_ptr<TriggerData> DetectOnePacket()
{
    FskCarrierTracker t(110000, 210000);
    Recorder r;
    r.tracker = &t;
    t.SetCallback(&r);
    std::vector<int32_t> block;
    for (int i = 0; i < 64; ++i)
        block.push_back(i < 32 ? 7500 : 7400);
    t.ProcessBlock(block, 0);
    std::vector<int32_t> high(64, 7500);
    high[0] = 7400;
    t.ProcessBlock(high, 1000000);
    t.ProcessBlock(high, 2000000);
    return r.packets.empty() ? nullptr : r.packets[0];
}

}  // namespace

TEST(FskCarrierTracker, PacketPolarityComesFromTheDetectedPolarityFirst)
{
    SettingParams& s = SettingParams::Instance();
    const bool before = s.m_Polarity;
    s.m_Polarity = true;
    s.detectedPolarity.store(-1);
    auto p = DetectOnePacket();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->polarity, 0);  // -1 wins over the default polarity
    s.detectedPolarity.store(1);
    EXPECT_EQ(DetectOnePacket()->polarity, 1);
    s.detectedPolarity.store(0);
    EXPECT_EQ(DetectOnePacket()->polarity, 1);  // none detected: the default
    s.m_Polarity = false;
    EXPECT_EQ(DetectOnePacket()->polarity, 0);
    s.m_Polarity = before;
}

// The time base takes S, the sum of the chunk's words from its fifth on, as
// the words that bring the counter up to the stamp: right when the chunk is
// the one frame the device's pacing makes, and not repaired when a reader
// that fell behind hands over several frames at once. Then every frame's
// stamp is taken less the whole chunk's words, headers of the later frames
// included, and the frames are set early: here the last one by 120 031
// ticks (2 ms), on a busy host by hundreds of milliseconds, which is what
// puts transmitter packets early against the receiver's in a live capture
// that fell behind (the timing checker's response-window rule then finds
// late or early answers that were not).
TEST(CThreadFSK, AChunkOfSeveralFramesSetsThemEarlyByTheWholeChunksWords)
{
    // Three frames, each of two words, stamped 10, 11 and 12 ms.
    CThreadFSK fsk;
    std::vector<uint8_t> bytes;
    for (int stamp : {10, 11, 12}) {
        for (int b : {4, 0, 0, 0, stamp, 0, 0, 0})
            bytes.push_back(static_cast<uint8_t>(b));
        for (int w : {30000, 30000}) {
            bytes.push_back(static_cast<uint8_t>(w & 0xFF));
            bytes.push_back(static_cast<uint8_t>(w >> 8));
        }
    }
    fsk.ParseChunk(bytes.data(), 6);  // the first frame alone, as the device paces it
    EXPECT_EQ(fsk.Ticks(), 600000);
    CThreadFSK all;
    all.ParseChunk(bytes.data(), bytes.size() / 2);
    // S = six payload words of 30000 and the later frames' headers (4 + 11, 4 + 12).
    const int64_t s = 6 * 30000 + 4 + 11 + 4 + 12;
    EXPECT_EQ(all.Ticks(), 12 * 60000 - s + 2 * 30000);
    EXPECT_EQ(12 * 60000 - all.Ticks(), 120031);
    EXPECT_EQ(all.Stamp(), 12u);
}
