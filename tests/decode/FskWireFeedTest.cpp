// The FSK stream's wire feed: every period word as it came, in order and with
// its capture time, for the second reader; and the frame decoder's progress
// told by the decoding pass once no packet waits or is being decoded.
#include "FskChain.h"
#include "decode/FskWireReader.h"

#include <gtest/gtest.h>

namespace {

class WireHost : public FskFrameCollector {
public:
    explicit WireHost(CThreadFSK& fsk) : FskFrameCollector(fsk) {}
    bool ReadsFskWire() const override { return reads; }
    void ReadFskWire(const uint16_t* w, const int64_t* t, size_t n) override
    {
        words.insert(words.end(), w, w + n);
        ticks.insert(ticks.end(), t, t + n);
        reader.Feed(w, t, n);
        for (auto& f : reader.Take())
            frames.push_back(std::move(f));
    }
    void FskChainPassed(uint64_t us) override
    {
        EXPECT_GE(us, passed);
        passed = us;
        ++told;
    }

    bool reads = true;
    std::vector<uint16_t> words;
    std::vector<int64_t> ticks;
    FskWireReader reader;
    std::vector<FskWireFrame> frames;
    uint64_t passed = 0;
    int told = 0;
};

struct FeedChain {
    FeedChain() : chain(), host(chain.thread) {}
    void Stream(const std::vector<uint8_t>& bytes, bool feed)
    {
        chain.thread.SetWireFeed(feed);
        size_t at = 0;
        while (at + 8 <= bytes.size()) {
            const uint32_t length = static_cast<uint32_t>(bytes[at] | (bytes[at + 1] << 8)) |
                                    (static_cast<uint32_t>(bytes[at + 2] | (bytes[at + 3] << 8)) << 16);
            const size_t n = std::min<size_t>(8 + length, bytes.size() - at);
            chain.thread.ParseChunk(bytes.data() + at, n / 2);
            at += n;
            while (FskDecodingPass(chain.thread, host) == 0) {
            }
        }
    }
    std::vector<std::shared_ptr<CMsgData>> Frames()
    {
        std::vector<std::shared_ptr<CMsgData>> out;
        while (auto frame = host.decoder.TakeFrame())
            out.push_back(frame);
        return out;
    }
    FskChain chain;
    WireHost host;
};

std::vector<uint16_t> TwoPacketWords()
{
    qisim::FskWaveParams p;
    p.polarity = -1;
    p.noiseTicks = 1.0;
    p.randomGridOffset = true;
    qisim::FskWaveWriter w(p, 21);
    w.OffMs(20);
    w.CarrierMs(100);
    w.Packet(qisim::WithChecksum({0x1F, 0x64}), 0);
    w.CarrierMs(150);
    w.Pattern(0xFF);
    w.CarrierMs(150);
    return w.Words();
}

}  // namespace

TEST(FskWireFeed, OffByDefaultAndNothingQueued)
{
    FskChain chain;
    EXPECT_FALSE(chain.thread.WireFeed());
    chain.Stream(qisim::FskStreamFrames(TwoPacketWords()));
    std::vector<uint16_t> words;
    std::vector<int64_t> ticks;
    EXPECT_FALSE(chain.thread.TakeWire(words, ticks));
    EXPECT_TRUE(words.empty());
    EXPECT_TRUE(ticks.empty());
}

TEST(FskWireFeed, EveryWordAsItCameWithItsTimeOverManyPasses)
{
    const std::vector<uint16_t> sent = TwoPacketWords();
    FeedChain f;
    f.Stream(qisim::FskStreamFrames(sent, 1000), true);
    ASSERT_EQ(f.host.words, sent);
    ASSERT_EQ(f.host.ticks.size(), sent.size());
    // Each time is the time of the word before plus the word, but where a
    // frame's millisecond stamp sets the time anew (within a millisecond).
    int steps = 0;
    for (size_t i = 1; i < sent.size(); ++i) {
        const int64_t step = f.host.ticks[i] - (f.host.ticks[i - 1] + sent[i]);
        ASSERT_LT(std::llabs(step), 60000) << i;
        steps += step != 0;
    }
    EXPECT_LT(steps, static_cast<int>(sent.size() / 40));
    EXPECT_EQ(f.host.ticks.back(), f.chain.thread.Ticks());
    // The reader read both off the feed; the frame decoder read the packet.
    ASSERT_EQ(f.host.frames.size(), 2u);
    EXPECT_EQ(f.host.frames[0].bytes, qisim::WithChecksum({0x1F, 0x64}));
    EXPECT_EQ(f.host.frames[1].bytes, std::vector<uint8_t>{0xFF});
}

TEST(FskWireFeed, TheChainsProgressIsToldAndPassesEveryDecodedPacket)
{
    FeedChain f;
    f.Stream(qisim::FskStreamFrames(TwoPacketWords()), true);
    EXPECT_GT(f.host.told, 10);
    const auto frames = f.Frames();
    ASSERT_FALSE(frames.empty());
    // Past the last packet the chain decoded, and not past the end of the stream.
    for (const auto& frame : frames)
        EXPECT_GT(f.host.passed, frame->capture->endTime);
    EXPECT_LE(f.host.passed, static_cast<uint64_t>(f.chain.thread.Ticks() / 60));
}

TEST(FskWireFeed, APacketBeingDecodedHoldsTheProgressBack)
{
    FskChain chain;
    chain.thread.SetWireFeed(true);
    chain.thread.PutPacket(std::make_shared<TriggerData>());
    uint64_t us = 0;
    EXPECT_FALSE(chain.thread.ChainPassed(us));  // one waits
    auto taken = chain.thread.TakePacketToDecode();
    ASSERT_TRUE(taken);
    EXPECT_FALSE(chain.thread.ChainPassed(us));  // one is being decoded
    chain.thread.PacketDecoded();
    EXPECT_TRUE(chain.thread.ChainPassed(us));
}

TEST(FskWireFeed, WithTheSecondReaderOffThePassTellsNothing)
{
    FeedChain f;
    f.host.reads = false;
    f.Stream(qisim::FskStreamFrames(TwoPacketWords()), true);
    EXPECT_TRUE(f.host.words.empty());
    EXPECT_EQ(f.host.told, 0);
    EXPECT_FALSE(f.Frames().empty());
}
