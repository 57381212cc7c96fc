#include "decode/AskStream.h"
#include "services/Log.h"

#include <gtest/gtest.h>

#include <QFile>

namespace {

// Appends samples to the stream, numbered on from `next`.
void Feed(AskStream& s, const std::vector<int32_t>& samples, uint64_t& next)
{
    for (int32_t v : samples)
        s.Add(v, next++);
}

// Idle at 600, then `edges` transitions 10 samples apart between 600 and 2100,
// then idle at the level reached (so there are exactly `edges` edges).
std::vector<int32_t> SquareBurst(int edges, int idleBefore = 600, int idleAfter = 1000)
{
    std::vector<int32_t> x(static_cast<size_t>(idleBefore), 600);
    int level = 600;
    for (int e = 0; e < edges; ++e) {
        level = level == 600 ? 2100 : 600;
        x.insert(x.end(), 10, level);
    }
    x.insert(x.end(), static_cast<size_t>(idleAfter), level);
    return x;
}

}  // namespace

TEST(AskStream, FewerThan200SamplesDoNothing)
{
    AskStream few;
    uint64_t m = 0;
    Feed(few, std::vector<int32_t>(199, 600), m);
    few.Process();
    EXPECT_EQ(few.Samples().size(), 199u);
    EXPECT_EQ(few.PendingBursts(), 0u);
}

TEST(AskStream, ConstantSamplesGiveMinimumThresholdsNoEdgesAndKeepTheNewest200)
{
    std::vector<int32_t> flat(500, 1234);
    AskEdgeDetector det;
    std::vector<PulseRecord> pulses;
    std::vector<int32_t> leftover;
    bool pending = true;
    det.Detect(flat, 0, pulses, leftover, pending);
    EXPECT_EQ(det.amplitude, 0);
    EXPECT_EQ(det.tracker.stepThreshold, 5);
    EXPECT_EQ(det.tracker.swingThreshold, 25);
    EXPECT_TRUE(pulses.empty());
    EXPECT_FALSE(pending);
    EXPECT_EQ(leftover.size(), 200u);

    AskStream s;
    uint64_t n = 0;
    Feed(s, flat, n);
    s.Process();
    EXPECT_EQ(s.Samples().size(), 200u);
    EXPECT_EQ(s.PendingBursts(), 0u);
}

TEST(AskStream, DetectorStartsWithItsOwnThresholds)
{
    AskEdgeDetector det;
    EXPECT_EQ(det.tracker.stepThreshold, 35);
    EXPECT_EQ(det.tracker.swingThreshold, 175);
    EXPECT_EQ(det.tracker.minSteps, 3);
    SlopeTracker bare;
    EXPECT_EQ(bare.stepThreshold, 50);
    EXPECT_EQ(bare.swingThreshold, 500);
    EXPECT_EQ(bare.refine, 0);
}

TEST(AskStream, BurstOf44PulsesIsDiscardedAnd45IsKept)
{
    // n edges give n pulses in the burst's group. The pulse that ends at the
    // first edge is the idle before it and closes the group before. The first
    // edge is then reported twice: the rising run began with the idle, is more
    // than 201 samples old when the edge confirms it and is cut at once; the
    // rest of the same edge is a second rising run, cut when the next edge
    // begins. That leaves a pulse of a few samples at the head of every burst.
    AskStream a;
    uint64_t n = 0;
    Feed(a, SquareBurst(44), n);
    a.Process();
    EXPECT_EQ(a.PendingBursts(), 0u);

    AskStream b;
    n = 0;
    Feed(b, SquareBurst(45), n);
    b.Process();
    ASSERT_EQ(b.PendingBursts(), 1u);
    auto burst = b.Take();
    EXPECT_EQ(burst->pulses.size(), 45u);
    EXPECT_EQ(burst->amplitude, 1500);
}

TEST(AskStream, BurstTimesAreMicrosecondsAndLogged)
{
    AskStream s;
    uint64_t n = 0;
    Feed(s, SquareBurst(60), n);
    s.Process();
    auto burst = s.Take();
    ASSERT_TRUE(burst);
    // startTime = (mark of the first pulse - its sample count) x 25 us.
    const PulseRecord& first = burst->pulses.front();
    EXPECT_EQ(burst->startTime, (static_cast<uint64_t>(first.mark) - first.samples.size()) * 25);
    EXPECT_EQ(burst->endTime, static_cast<uint64_t>(burst->pulses.back().mark) * 25);
    // The first edge lies 600 samples in (smoothed, it crosses mid-swing at 598).
    EXPECT_NEAR(static_cast<double>(burst->startTime), 598.0 * 25, 2 * 25);
    EXPECT_LT(first.duration, 5);
    size_t total = 0;
    for (const auto& p : burst->pulses)
        total += p.samples.size();
    EXPECT_EQ(burst->samples.size(), total);

    QFile log(QString::fromStdString(Log::Instance().FilePath()));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QByteArray all = log.readAll();
    EXPECT_TRUE(all.contains("ASK time 00:00:00.0"));
    EXPECT_TRUE(all.contains(" us\r\n"));
}

TEST(AskStream, OpenGroupStaysForTheNextPass)
{
    AskStream s;
    uint64_t n = 0;
    // Edges run to the end of the block: the last group is still open.
    Feed(s, SquareBurst(60, 600, 0), n);
    s.Process();
    EXPECT_EQ(s.PendingBursts(), 0u);
    EXPECT_GT(s.Samples().size(), 400u);
    Feed(s, std::vector<int32_t>(1000, 600), n);
    s.Process();
    EXPECT_EQ(s.PendingBursts(), 1u);
}

TEST(AskStream, OpenGroupKeepsAtMost2000Samples)
{
    AskStream s;
    uint64_t n = 0;
    // 3000 samples of unbroken edges: the open group is cut to its newest 2000.
    Feed(s, SquareBurst(300, 0, 0), n);
    s.Process();
    EXPECT_LE(s.Samples().size(), 2000u + 200u);
    EXPECT_GE(s.Samples().size(), 2000u);
}

TEST(AskStream, TakeReturnsBurstsOldestFirstThenNull)
{
    AskStream s;
    uint64_t n = 0;
    auto x = SquareBurst(60);
    auto y = SquareBurst(80);
    x.insert(x.end(), y.begin(), y.end());
    Feed(s, x, n);
    s.Process();
    auto first = s.Take();
    auto second = s.Take();
    ASSERT_TRUE(first && second);
    EXPECT_LT(first->startTime, second->startTime);
    // The idle between the two ends the first burst's group as its last pulse.
    EXPECT_EQ(first->pulses.size(), 61u);
    EXPECT_GE(first->pulses.back().duration, 1000);
    EXPECT_EQ(second->pulses.size(), 80u);
    EXPECT_EQ(s.Take(), nullptr);
}
