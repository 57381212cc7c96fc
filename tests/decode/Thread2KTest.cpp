#include "AskChain.h"

#include <gtest/gtest.h>

namespace {

void PutWord(std::vector<uint8_t>& out, uint16_t w)
{
    out.push_back(static_cast<uint8_t>(w & 0xFF));
    out.push_back(static_cast<uint8_t>(w >> 8));
}

// A stream frame with an explicit byte length and the given sample words.
std::vector<uint8_t> Frame(uint32_t lengthBytes, uint32_t stamp, const std::vector<uint16_t>& words)
{
    std::vector<uint8_t> out;
    PutWord(out, static_cast<uint16_t>(lengthBytes & 0xFFFF));
    PutWord(out, static_cast<uint16_t>(lengthBytes >> 16));
    PutWord(out, static_cast<uint16_t>(stamp & 0xFFFF));
    PutWord(out, static_cast<uint16_t>(stamp >> 16));
    for (uint16_t w : words)
        PutWord(out, w);
    return out;
}

}  // namespace

TEST(Thread2K, ChunkEndingBetweenTheTwoLengthWordsContinuesInTheNext)
{
    AskChain chain;
    std::vector<uint16_t> words(10);
    for (int i = 0; i < 10; ++i)
        words[i] = static_cast<uint16_t>(100 + i);
    const auto bytes = Frame(20, 0x00020003u, words);
    // First chunk: the low length word only.
    chain.port->Push(bytes.data(), 2);
    chain.thread.RunPass();
    EXPECT_EQ(chain.thread.ParserState(), 1);
    chain.port->Push(bytes.data() + 2, bytes.size() - 2);
    chain.thread.RunPass();
    EXPECT_EQ(chain.thread.ParserState(), 0);
    EXPECT_EQ(chain.thread.SampleCounter(), 10u);
    EXPECT_EQ(chain.thread.TimeStamp(), 0x00020003u);
    EXPECT_EQ(chain.thread.Stream().Samples().front(), 100);
    EXPECT_EQ(chain.thread.Stream().Samples().back(), 109);
}

TEST(Thread2K, HighLengthWordCountsInTheLength)
{
    CThread2K t;
    // Length 0x00010004 bytes: the high word carries 65536.
    const auto bytes = Frame(0x00010004u, 0, {1, 2});
    t.ParseWords(bytes.data(), bytes.size() / 2);
    EXPECT_EQ(t.ParserState(), 4);
    EXPECT_EQ(t.Remaining(), 0x00010004u - 4u);
}

TEST(Thread2K, OddFrameLengthTakesOneMoreWordAsSample)
{
    CThread2K t;
    // 2k+1 bytes with k = 3: three samples bring remaining to 1, a fourth word
    // is still a sample and remaining falls to -1, then a new frame begins.
    const auto bytes = Frame(7, 0, {11, 12, 13, 14});
    t.ParseWords(bytes.data(), 4 + 3);
    EXPECT_EQ(t.ParserState(), 4);
    EXPECT_EQ(t.Remaining(), 1u);
    t.ParseWords(bytes.data() + 14, 1);
    EXPECT_EQ(static_cast<int32_t>(t.Remaining()), -1);
    EXPECT_EQ(t.ParserState(), 0);
    EXPECT_EQ(t.SampleCounter(), 4u);
}

TEST(Thread2K, RangeStatisticsResetOnThe8001stSample)
{
    CThread2K t;
    std::vector<uint16_t> words(8000, 500);
    words[10] = 3000;
    words[20] = 50;
    const auto bytes = Frame(2 * 8001, 0, words);
    t.ParseWords(bytes.data(), bytes.size() / 2);
    EXPECT_EQ(t.RangeCount(), 8000);
    EXPECT_EQ(t.RangeMax(), 3000);
    EXPECT_EQ(t.RangeMin(), 50);
    const uint8_t one[2] = {0xF4, 0x01};  // 500
    t.ParseWords(one, 1);
    EXPECT_EQ(t.RangeCount(), 0);
    EXPECT_EQ(t.RangeMax(), 0);
    EXPECT_EQ(t.RangeMin(), 4096);
}

TEST(Thread2K, OneSampleInSixReachesTheDisplay)
{
    CThread2K t;
    std::vector<uint16_t> words(60);
    for (int i = 0; i < 60; ++i)
        words[i] = static_cast<uint16_t>(i);
    const auto bytes = Frame(120, 0, words);
    t.ParseWords(bytes.data(), bytes.size() / 2);
    const std::list<uint16_t> shown = t.TakeDisplaySamples();
    const std::list<uint16_t> expected{5, 11, 17, 23, 29, 35, 41, 47, 53, 59};
    EXPECT_EQ(shown, expected);
    EXPECT_TRUE(t.TakeDisplaySamples().empty());
}

TEST(Thread2K, DisplayQueueKeepsTheNewest3000)
{
    CThread2K t;
    std::vector<uint16_t> words(6 * 3100);
    for (size_t i = 0; i < words.size(); ++i)
        words[i] = static_cast<uint16_t>(i / 6);
    const auto bytes = Frame(static_cast<uint32_t>(2 * words.size()), 0, words);
    t.ParseWords(bytes.data(), bytes.size() / 2);
    const std::list<uint16_t> shown = t.TakeDisplaySamples();
    ASSERT_EQ(shown.size(), 3000u);
    EXPECT_EQ(shown.front(), 100);
    EXPECT_EQ(shown.back(), 3099);
}

TEST(Thread2K, ClearDisplaySamplesEmptiesQueueSamplesAndBursts)
{
    AskChain chain;
    qisim::AskWaveWriter w(qisim::AskWaveParams{}, 1);
    w.Idle(300);
    w.Packet(qisim::WithChecksum({0x03, 0x05}), 11);
    w.Idle(1000);
    chain.port->Push(qisim::AskStreamFrames(w.Samples(), 200));
    chain.thread.RunPass();
    ASSERT_EQ(chain.thread.Stream().PendingBursts(), 1u);
    chain.thread.ClearDisplaySamples();
    EXPECT_TRUE(chain.thread.TakeDisplaySamples().empty());
    EXPECT_EQ(chain.thread.Stream().PendingBursts(), 0u);
    // The sample vector belongs to the run loop: it goes on its next pass.
    chain.thread.RunPass();
    EXPECT_TRUE(chain.thread.Stream().Samples().empty());
}

TEST(Thread2K, SamplesAreNumberedFromZeroAndTheStampIsOnlyStored)
{
    CThread2K t;
    const auto a = Frame(4, 123456, {7, 8});
    const auto b = Frame(2, 999, {9});
    t.ParseWords(a.data(), a.size() / 2);
    EXPECT_EQ(t.Stream().Newest(), 1u);
    t.ParseWords(b.data(), b.size() / 2);
    EXPECT_EQ(t.Stream().Newest(), 2u);
    EXPECT_EQ(t.TimeStamp(), 999u);
    EXPECT_EQ(t.SampleCounter(), 3u);
}

TEST(Thread2K, PortThatDoesNotOpenLeavesNoPort)
{
    CThread2K t([] {
        auto p = std::make_unique<MemoryPort>();
        p->opens = false;
        return std::unique_ptr<StreamPort>(std::move(p));
    });
    EXPECT_EQ(t.OpenWithoutLoop("nowhere", false, 1024000), 0);
    // A pass with no port parses nothing and idles.
    EXPECT_EQ(t.RunPass(), 0u);
}

TEST(Thread2K, ReadsAreCutToWholeWords)
{
    AskChain chain;
    EXPECT_EQ(chain.port->granularity, 2);
}

TEST(Thread2K, ChunkBytesAreCounted)
{
    AskChain chain;
    const auto bytes = Frame(4, 0, {1, 2});
    chain.port->Push(bytes);
    chain.thread.RunPass();
    EXPECT_EQ(chain.thread.BytesSeen(), 12);
}
