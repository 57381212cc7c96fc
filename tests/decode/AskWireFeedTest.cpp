// The ASK stream's wire feed: every sample as it came, in order and numbered,
// for the second reader; and the list decoder's progress told by the
// decoding pass once the bursts run out.
#include "AskChain.h"
#include "decode/AskDecoding.h"

#include <gtest/gtest.h>

namespace {

class WireHost : public AskFrameDecoder {
public:
    bool ReadsWire() const override { return reads; }
    void ReadWire(const int32_t* samples, size_t n, uint64_t first) override
    {
        if (wire.empty())
            firstNumber = first;
        EXPECT_EQ(first, firstNumber + wire.size());
        wire.insert(wire.end(), samples, samples + n);
    }
    void ListDecoderPassed(uint64_t sample) override
    {
        EXPECT_GE(sample, passed);
        passed = sample;
        ++told;
    }

    bool reads = true;
    std::vector<int32_t> wire;
    uint64_t firstNumber = 0;
    uint64_t passed = 0;
    int told = 0;
};

}  // namespace

TEST(AskWireFeed, OffByDefaultAndNothingQueued)
{
    AskStream stream;
    for (uint64_t k = 0; k < 1000; ++k)
        stream.Add(static_cast<int32_t>(k), k);
    stream.Process();
    std::vector<int32_t> out;
    uint64_t first = 0;
    EXPECT_FALSE(stream.WireFeed());
    EXPECT_FALSE(stream.TakeWire(out, first));
    EXPECT_TRUE(out.empty());
}

TEST(AskWireFeed, EverySampleAsItCameInOrderOverManyPasses)
{
    AskStream stream;
    stream.SetWireFeed(true);
    std::vector<int32_t> sent, got;
    uint64_t number = 0;
    uint64_t firstSeen = 0;
    // Packets and silence, so that the burst cutter keeps smoothed samples
    // between passes: the feed must still give the raw ones.
    qisim::AskWaveParams p;
    qisim::AskWaveWriter w(p, 3);
    for (int k = 0; k < 6; ++k) {
        w.Idle(500);
        w.Packet(qisim::WithChecksum({0x03, static_cast<uint8_t>(k)}), 11);
    }
    w.Idle(500);
    for (uint16_t v : w.Samples())
        sent.push_back(v);
    for (size_t at = 0; at < sent.size(); at += 173) {
        for (size_t i = at; i < std::min(sent.size(), at + 173); ++i)
            stream.Add(sent[i], number++);
        stream.Process();
        if ((at / 173) % 3 == 0) {  // taken now and then, as the decoding thread does
            std::vector<int32_t> out;
            uint64_t first = 0;
            if (stream.TakeWire(out, first)) {
                if (got.empty())
                    firstSeen = first;
                EXPECT_EQ(first, firstSeen + got.size());
                got.insert(got.end(), out.begin(), out.end());
            }
        }
    }
    std::vector<int32_t> out;
    uint64_t first = 0;
    if (stream.TakeWire(out, first))
        got.insert(got.end(), out.begin(), out.end());
    EXPECT_EQ(firstSeen, 0u);
    EXPECT_EQ(got, sent);
}

TEST(AskWireFeed, ClearForgetsQueuedSamplesAndNumbersStartAgain)
{
    AskStream stream;
    stream.SetWireFeed(true);
    for (uint64_t k = 0; k < 300; ++k)
        stream.Add(7, k);
    stream.Process();
    stream.Clear();
    for (uint64_t k = 0; k < 250; ++k)
        stream.Add(9, k);
    stream.Process();
    std::vector<int32_t> out;
    uint64_t first = 99;
    ASSERT_TRUE(stream.TakeWire(out, first));
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(out, std::vector<int32_t>(250, 9));
}

TEST(AskWireFeed, TheDecodingPassFeedsTheReaderAndTellsTheListDecodersProgress)
{
    AskStream stream;
    stream.SetWireFeed(true);
    WireHost host;
    qisim::AskWaveParams p;
    qisim::AskWaveWriter w(p, 5);
    w.Idle(400);
    w.Packet(qisim::WithChecksum({0x03, 0x05}), 11);
    w.Idle(2000);
    const auto& samples = w.Samples();
    uint64_t number = 0;
    for (size_t at = 0; at < samples.size(); at += 200) {
        for (size_t i = at; i < std::min(samples.size(), at + 200); ++i)
            stream.Add(samples[i], number++);
        stream.Process();
        while (AskDecodingPass(stream, host) == 0) {
        }
    }
    EXPECT_EQ(host.wire.size(), samples.size());
    EXPECT_EQ(host.firstNumber, 0u);
    // Told at every pass that found no burst; the burst of the packet was cut
    // and decoded, so the mark lies past the packet.
    EXPECT_GT(host.told, 0);
    EXPECT_GT(host.passed, 400u + 11u * 20u + 3u * 11u * 20u);
    EXPECT_LE(host.passed, number);
    EXPECT_EQ(host.GoodPackets(), 1);
}

TEST(AskWireFeed, AHostWithoutASecondReaderGetsNothingAndTheQueueStillEmpties)
{
    AskStream stream;
    stream.SetWireFeed(true);
    WireHost host;
    host.reads = false;
    for (uint64_t k = 0; k < 600; ++k)
        stream.Add(1000, k);
    stream.Process();
    AskDecodingPass(stream, host);
    EXPECT_TRUE(host.wire.empty());
    std::vector<int32_t> out;
    uint64_t first = 0;
    EXPECT_FALSE(stream.TakeWire(out, first));
}
