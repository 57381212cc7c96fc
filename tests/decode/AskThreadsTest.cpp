// The ASK chain on its real threads: the run loop of CThread2K, the decoding
// loop, and the interface thread taking display samples and frames meanwhile.
#include "AskChain.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace std::chrono_literals;

namespace {

template <class Pred>
bool WaitFor(Pred pred, std::chrono::milliseconds limit = 10s)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (pred())
            return true;
        std::this_thread::sleep_for(5ms);
    }
    return pred();
}

}  // namespace

TEST(AskThreads, RunLoopAndDecodingThreadDeliverFrames)
{
    MemoryPort* port = nullptr;
    CThread2K ask([&port] {
        auto p = std::make_unique<MemoryPort>();
        port = p.get();
        return std::unique_ptr<StreamPort>(std::move(p));
    });
    ASSERT_EQ(ask.Open("memory", false, 1024000, 0), 1);
    AskFrameDecoder decoder;
    AskDecodingThread decoding(ask.Stream(), decoder);
    decoding.Start();

    qisim::AskWaveWriter w(qisim::AskWaveParams{}, 11);
    w.Idle(300);
    for (int k = 0; k < 5; ++k) {
        w.Packet(qisim::WithChecksum({0x03, static_cast<uint8_t>(k)}), 11);
        w.Idle(1500);
    }
    const auto bytes = qisim::AskStreamFrames(w.Samples());
    std::vector<std::shared_ptr<CMsgData>> frames;
    size_t shown = 0;
    for (size_t off = 0; off < bytes.size(); off += 408) {
        port->Push(bytes.data() + off, std::min<size_t>(408, bytes.size() - off));
        shown += ask.TakeDisplaySamples().size();
        while (auto f = decoder.Filter().TakeFrame())
            frames.push_back(f);
        std::this_thread::sleep_for(1ms);
    }
    // However late a loaded machine runs the loops, the frames come, and the
    // display samples too: the run loop has queued them before the frames
    // they hold could be decoded, and keeps the newest until they are taken.
    EXPECT_TRUE(WaitFor([&] {
        while (auto f = decoder.Filter().TakeFrame())
            frames.push_back(f);
        shown += ask.TakeDisplaySamples().size();
        return frames.size() >= 5;
    }));
    decoding.Stop();
    ask.Close();
    ASSERT_EQ(frames.size(), 5u);
    for (int k = 0; k < 5; ++k) {
        const uint8_t b[] = {0x03, static_cast<uint8_t>(k), static_cast<uint8_t>(0x03 ^ k)};
        EXPECT_EQ(frames[static_cast<size_t>(k)]->packet.PacketData, SpacedHex(b, 3));
    }
    EXPECT_EQ(decoder.GoodPackets(), 5);
    EXPECT_GT(shown, 0u);
}

TEST(AskThreads, ClearWhileRunningIsSafe)
{
    MemoryPort* port = nullptr;
    CThread2K ask([&port] {
        auto p = std::make_unique<MemoryPort>();
        port = p.get();
        return std::unique_ptr<StreamPort>(std::move(p));
    });
    ask.Open("memory", false, 1024000, 0);
    qisim::AskWaveWriter w(qisim::AskWaveParams{}, 12);
    for (int k = 0; k < 10; ++k) {
        w.Idle(500);
        w.Packet(qisim::WithChecksum({0x03, 0x10}), 11);
    }
    const auto bytes = qisim::AskStreamFrames(w.Samples());
    for (size_t off = 0; off < bytes.size(); off += 408) {
        port->Push(bytes.data() + off, std::min<size_t>(408, bytes.size() - off));
        if (off % (408 * 7) == 0)
            ask.ClearDisplaySamples();
        ask.TakeDisplaySamples();
        ask.Stream().Take();
    }
    ask.Close();
    EXPECT_TRUE(ask.TakeDisplaySamples().empty());
}

TEST(AskThreads, PortThatDoesNotOpenStillStartsAnIdleLoop)
{
    CThread2K ask([] {
        auto p = std::make_unique<MemoryPort>();
        p->opens = false;
        return std::unique_ptr<StreamPort>(std::move(p));
    });
    EXPECT_EQ(ask.Open("missing", false, 1024000, 0), 0);
    EXPECT_TRUE(ask.IsRunning());
    std::this_thread::sleep_for(20ms);
    ask.Close();
    EXPECT_FALSE(ask.IsRunning());
}

TEST(AskThreads, DecodingThreadIdlesWhileNotAcquiring)
{
    AskStream stream;
    AskFrameDecoder decoder;
    decoder.SetAcquiring(false);
    AskDecodingThread decoding(stream, decoder);
    decoding.Start();
    std::this_thread::sleep_for(30ms);
    decoding.Stop();
    EXPECT_EQ(decoder.GoodPackets(), 0);
}
