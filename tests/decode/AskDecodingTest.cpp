#include "AskChain.h"
#include "common/Clock.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

// A host that records what the loop hands it.
class RecordingHost : public AskFrameDecoder {
public:
    int DecodeAsk(std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst, int flag) override
    {
        ++calls;
        lastFlag = flag;
        refined = pulses;
        return AskFrameDecoder::DecodeAsk(pulses, burst, flag);
    }
    int calls = 0;
    int lastFlag = -1;
    std::vector<PulseRecord> refined;
};

std::shared_ptr<TriggerData> BurstOfPackets(const std::vector<uint8_t>& frame, double samplesPerBit = 20.0)
{
    CThread2K t;
    qisim::AskWaveParams p;
    p.swing = 2000;
    p.samplesPerBit = samplesPerBit;
    qisim::AskWaveWriter w(p, 5);
    w.Idle(400);
    w.Packet(qisim::WithChecksum(frame), 11);
    w.Idle(1200);
    const auto bytes = qisim::AskStreamFrames(w.Samples(), 200);
    t.ParseWords(bytes.data(), bytes.size() / 2);
    t.Stream().Process();
    return t.Stream().Take();
}

}  // namespace

TEST(AskDecoding, WaitsWhileNotAcquiring)
{
    AskStream s;
    RecordingHost host;
    host.SetAcquiring(false);
    EXPECT_EQ(AskDecodingPass(s, host), 200);
}

TEST(AskDecoding, SleepsWhenNoBurstIsQueued)
{
    AskStream s;
    RecordingHost host;
    EXPECT_EQ(AskDecodingPass(s, host), 10);
    EXPECT_EQ(host.calls, 0);
}

TEST(AskDecoding, GoodPacketIsCountedTimedAndItsAmplitudeGoesToTheDacLevel)
{
    ManualClock clock(424242);
    SetClock(&clock);
    AskStream stream;
    stream.Put(BurstOfPackets({0x03, 0x05}));
    RecordingHost host;
    EXPECT_EQ(AskDecodingPass(stream, host), 0);
    SetClock(nullptr);
    EXPECT_EQ(host.calls, 1);
    EXPECT_EQ(host.lastFlag, 1);
    EXPECT_EQ(host.GoodPackets(), 1);
    EXPECT_EQ(host.LastAskTime(), 424242);
    auto frame = host.Filter().TakeFrame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->packet.PacketData, "03 05 06 ");
    // rawSamples were cut to (3 + 1) x 220 and the amplitude measured on them.
    const auto& raw = frame->capture->rawSamples;
    ASSERT_EQ(raw.size(), 880u);
    const auto range = std::minmax_element(raw.begin(), raw.end());
    EXPECT_EQ(host.LastAmplitude(), *range.second - *range.first);
    // The refined pulses end with a closing pulse far too long to be a bit.
    ASSERT_FALSE(host.refined.empty());
    EXPECT_GT(host.refined.back().duration, 1000);
}

TEST(AskDecoding, BurstThatDoesNotDecodeIsNotCounted)
{
    AskStream stream;
    auto burst = BurstOfPackets({0x03, 0x05});
    ASSERT_TRUE(burst);
    // Same pulses, samples flattened: the refining pass finds no edges.
    std::fill(burst->samples.begin(), burst->samples.end(), 700);
    stream.Put(burst);
    RecordingHost host;
    EXPECT_EQ(AskDecodingPass(stream, host), 0);
    EXPECT_EQ(host.calls, 1);
    EXPECT_EQ(host.GoodPackets(), 0);
    EXPECT_EQ(host.LastAskTime(), 0);
}

TEST(AskDecoding, ShortRawSamplesArePaddedWithZeros)
{
    // At 14 samples a bit a three-byte packet is some 620 samples long, fewer
    // than the (3 + 1) x 220 kept: the rest is zeros, and they count in the
    // amplitude.
    AskStream stream;
    stream.Put(BurstOfPackets({0x03, 0x05}, 14.0));
    RecordingHost host;
    AskDecodingPass(stream, host);
    auto frame = host.Filter().TakeFrame();
    ASSERT_TRUE(frame);
    const auto& raw = frame->capture->rawSamples;
    ASSERT_EQ(raw.size(), 880u);
    EXPECT_EQ(raw.back(), 0);
    EXPECT_EQ(host.LastAmplitude(), *std::max_element(raw.begin(), raw.end()));
}

TEST(AskDecoding, BurstsOutsideFortyOneTo499PulsesAreDropped)
{
    auto good = BurstOfPackets({0x03, 0x05});
    ASSERT_TRUE(good);
    for (size_t count : {40u, 500u, 41u, 499u}) {
        auto burst = std::make_shared<TriggerData>(*good);
        burst->pulses.resize(count);
        AskStream stream;
        stream.Put(burst);
        RecordingHost host;
        EXPECT_EQ(AskDecodingPass(stream, host), 0);
        EXPECT_EQ(host.calls, count == 40u || count == 500u ? 0 : 1) << count;
        EXPECT_EQ(stream.PendingBursts(), 0u);
    }
}

TEST(AskDecoding, RefiningKeepsRawSamplesAndSmoothsAgain)
{
    auto burst = BurstOfPackets({0x03, 0x05});
    ASSERT_TRUE(burst);
    const std::vector<int32_t> before = burst->samples;
    AskEdgeDetector det;
    std::vector<PulseRecord> pulses;
    det.Refine(*burst, pulses);
    EXPECT_EQ(burst->rawSamples, before);
    std::vector<int32_t> smoothed;
    FivePointFilter(before, smoothed);
    EXPECT_EQ(burst->samples, smoothed);
    EXPECT_EQ(det.tracker.refine, 1);
    const auto range = std::minmax_element(smoothed.begin(), smoothed.end());
    EXPECT_EQ(det.amplitude, *range.second - *range.first);
    EXPECT_EQ(det.tracker.stepThreshold, std::max(5, det.amplitude / 60));
    // Marks are the burst's start time plus a sample position: only a label.
    ASSERT_GE(pulses.size(), 2u);
    EXPECT_EQ(pulses[1].mark - pulses[0].mark, static_cast<uint32_t>(pulses[1].duration));
}
