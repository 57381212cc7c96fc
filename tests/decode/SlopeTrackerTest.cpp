#include "decode/AskStream.h"

#include <gtest/gtest.h>

namespace {

struct Edge {
    int result;
    int position;  // edgePosition
    int at;        // sample at which it was reported
};

std::vector<Edge> Track(SlopeTracker& t, const std::vector<int32_t>& y)
{
    std::vector<Edge> edges;
    for (size_t p = 0; p < y.size(); ++p) {
        const int r = t.Step(y[p], static_cast<int32_t>(p));
        if (r != 0)
            edges.push_back({r, t.edgePosition, static_cast<int>(p)});
    }
    return edges;
}

std::vector<int32_t> Ramp(std::vector<int32_t> y, int32_t to, int steps)
{
    const int32_t from = y.back();
    for (int k = 1; k <= steps; ++k)
        y.push_back(from + (to - from) * k / steps);
    return y;
}

}  // namespace

TEST(SlopeTracker, LoneFallingEdgeIsReported201SamplesAfterItsRunBegan)
{
    SlopeTracker t;
    t.stepThreshold = 10;
    t.swingThreshold = 50;
    std::vector<int32_t> y(50, 1000);
    y = Ramp(y, 200, 4);
    y.insert(y.end(), 400, 200);
    const auto edges = Track(t, y);
    ASSERT_EQ(edges.size(), 1u);
    EXPECT_EQ(edges[0].result, -1);
    // The falling run began at position 1: the flat before the step neither
    // advanced nor broke it. With no rising run confirmed the edge is due 201
    // samples after that start.
    EXPECT_EQ(edges[0].at, 1 + 201);
    // Mid-swing crossing: the first sample below 600.
    EXPECT_EQ(edges[0].position, 52);
}

TEST(SlopeTracker, EarlierEdgeIsReportedWhenTheOppositeRunIsConfirmed)
{
    SlopeTracker t;
    t.stepThreshold = 10;
    t.swingThreshold = 50;
    std::vector<int32_t> y(20, 1000);
    y = Ramp(y, 200, 4);         // falls at 20..23
    y.insert(y.end(), 16, 200);  // low until 39
    y = Ramp(y, 1000, 4);        // rises at 40..43
    y.insert(y.end(), 30, 1000);
    const auto edges = Track(t, y);
    ASSERT_GE(edges.size(), 1u);
    EXPECT_EQ(edges[0].result, -1);
    EXPECT_EQ(edges[0].position, 22);
    EXPECT_LT(edges[0].at, 50);  // as soon as the rising run is confirmed
}

TEST(SlopeTracker, SmallStepsAndFlatSamplesNeitherAdvanceNorBreakARun)
{
    SlopeTracker t;
    t.stepThreshold = 10;
    t.swingThreshold = 1000;
    t.Step(1000, 5);
    t.Step(980, 6);  // a step of 20: the falling run counts 2
    EXPECT_EQ(t.falling.count, 2);
    EXPECT_EQ(t.falling.lastValue, 980);
    t.Step(975, 7);  // 5: too small to count
    t.Step(975, 8);  // flat
    EXPECT_EQ(t.falling.count, 2);
    EXPECT_EQ(t.falling.lastValue, 980);
    EXPECT_EQ(t.falling.startPosition, 5);
    t.Step(990, 9);  // against the run: a new falling run starts here
    EXPECT_EQ(t.falling.startPosition, 9);
    EXPECT_EQ(t.falling.count, 1);
}

TEST(SlopeTracker, RunStartingAtPositionZeroCountsAsNoRun)
{
    SlopeTracker t;
    t.stepThreshold = 10;
    t.Step(1000, 0);
    EXPECT_EQ(t.falling.startPosition, 0);
    t.Step(900, 1);  // would be a step, but a run at position 0 is no run
    EXPECT_EQ(t.falling.startPosition, 1);
    EXPECT_EQ(t.falling.count, 1);
}

TEST(SlopeTracker, RunIsConfirmedByStepsAndSpanOrByALargeSwing)
{
    SlopeTracker t;
    t.stepThreshold = 10;
    t.swingThreshold = 1000;
    int p = 1;
    t.Step(1000, p++);
    for (int k = 1; k <= 5; ++k)
        t.Step(1000 - 20 * k, p++);
    // Count reached 3 but the span is below 6 samples until the fifth step.
    EXPECT_EQ(t.falling.confirmed, 0);
    t.Step(1000 - 20 * 6, p++);
    EXPECT_EQ(t.falling.confirmed, 1);

    SlopeTracker big;
    big.stepThreshold = 10;
    big.swingThreshold = 50;
    big.Step(1000, 1);
    big.Step(900, 2);  // drop of 100 above the swing: confirmed at once
    EXPECT_EQ(big.falling.confirmed, 1);
}

TEST(SlopeTracker, RefinedCrossingAddsTheRecentListSize)
{
    SlopeTracker t;
    t.refine = 1;
    t.stepThreshold = 10;
    t.swingThreshold = 1000;
    t.minSteps = 3;
    t.falling.startPosition = 100;
    // Oldest to newest: high, falling, low.
    const int32_t values[] = {1000, 1000, 800, 600, 400, 400, 400};
    for (int k = 0; k < 7; ++k)
        t.recent.push_back(values[k], 100 + k);
    // From the newest (400 at 106) back: 400, 400 follow the reference; 600 at
    // 103 is a step (run 2); 800 at 102 a second (run 3): pos = 102.
    EXPECT_EQ(t.FallingCrossing(), (100 + 102 + 7) >> 1);
    SlopeTracker empty;
    empty.refine = 1;
    empty.falling.startPosition = 41;
    EXPECT_EQ(empty.FallingCrossing(), 41 >> 1);
}

TEST(SlopeTracker, RestartedDetectorCutsAsAFreshOne)
{
    // A block with edges, cut by a used detector after Restart and by a new one.
    std::vector<int32_t> y(30, 1000);
    for (int k = 0; k < 6; ++k) {
        y = Ramp(y, k % 2 ? 1000 : 200, 4);
        y.insert(y.end(), 25, y.back());
    }
    AskEdgeDetector used;
    std::vector<PulseRecord> pulses;
    std::vector<uint32_t> offsets;
    std::vector<int32_t> smoothed;
    bool pending = true;
    used.DetectInPlace(y, 7, pulses, offsets, smoothed, pending);
    used.tracker.refine = 1;
    used.Restart();
    EXPECT_EQ(used.index, 0);
    EXPECT_EQ(used.lastEdge, 0);
    EXPECT_EQ(used.amplitude, 0);
    EXPECT_EQ(used.tracker.refine, 0);
    EXPECT_TRUE(used.tracker.recent.empty());
    EXPECT_EQ(used.tracker.falling.startPosition, 0);
    EXPECT_EQ(used.tracker.rising.count, 0);

    AskEdgeDetector fresh;
    std::vector<PulseRecord> a, b;
    std::vector<uint32_t> offA, offB;
    std::vector<int32_t> smA, smB;
    bool pendA = true, pendB = true;
    used.DetectInPlace(y, 7, a, offA, smA, pendA);
    fresh.DetectInPlace(y, 7, b, offB, smB, pendB);
    ASSERT_GE(b.size(), 4u);
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].duration, b[i].duration) << i;
        EXPECT_EQ(a[i].level, b[i].level) << i;
        EXPECT_EQ(a[i].mark, b[i].mark) << i;
    }
    EXPECT_EQ(offA, offB);
    EXPECT_EQ(pendA, pendB);
    EXPECT_EQ(used.tracker.stepThreshold, fresh.tracker.stepThreshold);
    EXPECT_EQ(used.tracker.recent.size(), fresh.tracker.recent.size());
}
