// The ASK decoding thread: takes bursts from the stream, refines their pulses,
// decodes them and reports each good packet to the acquisition side.
#pragma once

#include "common/MyThread.h"
#include "decode/AskStream.h"
#include "decode/DataFilter.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

// What the decoding loop needs from its surroundings. The data manager decodes;
// the acquisition controller holds the acquiring flag, the last ASK time and the
// automatic DAC level.
class AskDecodingHost {
public:
    virtual ~AskDecodingHost() = default;
    virtual bool IsAcquiring() const = 0;
    // Decodes one refined burst; the byte count of the last frame found, or 0.
    virtual int DecodeAsk(std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst,
                          int flag) = 0;
    virtual void CountGoodPacket() = 0;
    virtual void SetLastAskTime(int64_t tick) = 0;
    virtual void AutoDacLevel(int64_t amplitude) = 0;

    // The second ASK reader, for hosts that have one: whether it reads, the
    // samples of the stream's wire feed as they came (numbered from first),
    // and how far the list decoder has got: every burst of samples numbered
    // below `sample` has been decoded.
    virtual bool ReadsWire() const { return false; }
    virtual void ReadWire(const int32_t* samples, size_t n, uint64_t first)
    {
        (void)samples;
        (void)n;
        (void)first;
    }
    virtual void ListDecoderPassed(uint64_t sample) { (void)sample; }
};

// One pass of the decoding loop. Returns the milliseconds the loop sleeps before
// its next pass: 200 while not acquiring, 10 with nothing to decode, else 0.
int AskDecodingPass(AskStream& stream, AskDecodingHost& host);

// The loop itself, while running is set.
void RunAskDecoding(const std::atomic<bool>& running, AskStream& stream, AskDecodingHost& host);

// A decoding host of its own: a frame decoder at a fixed carrier frequency, a
// good-packet count and the last amplitude handed to the DAC level. Serves
// wherever frames are wanted without the whole acquisition side: replay of
// recorded streams, the demonstration and the tests.
class AskFrameDecoder : public AskDecodingHost {
public:
    explicit AskFrameDecoder(uint64_t frequencyHz = 0) : m_frequency(frequencyHz) {}

    bool IsAcquiring() const override { return m_acquiring.load(std::memory_order_relaxed); }
    int DecodeAsk(std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst, int flag) override;
    void CountGoodPacket() override { m_good.fetch_add(1, std::memory_order_relaxed); }
    void SetLastAskTime(int64_t tick) override { m_lastAskTime.store(tick, std::memory_order_relaxed); }
    void AutoDacLevel(int64_t amplitude) override { m_lastAmplitude.store(amplitude, std::memory_order_relaxed); }

    void SetAcquiring(bool on) { m_acquiring.store(on, std::memory_order_relaxed); }
    CDataFilter& Filter() { return m_filter; }
    int64_t GoodPackets() const { return m_good.load(std::memory_order_relaxed); }
    int64_t LastAskTime() const { return m_lastAskTime.load(std::memory_order_relaxed); }
    int64_t LastAmplitude() const { return m_lastAmplitude.load(std::memory_order_relaxed); }

private:
    uint64_t m_frequency;
    CDataFilter m_filter;
    std::atomic<bool> m_acquiring{true};
    std::atomic<int64_t> m_good{0};
    std::atomic<int64_t> m_lastAskTime{0};
    std::atomic<int64_t> m_lastAmplitude{0};
};

// A worker that runs the decoding loop on its Run thread.
class AskDecodingThread : public MyThread {
public:
    AskDecodingThread(AskStream& stream, AskDecodingHost& host) : m_stream(stream), m_host(host) {}
    ~AskDecodingThread() override { Stop(); }
    void Run() override { RunAskDecoding(m_running, m_stream, m_host); }

private:
    AskStream& m_stream;
    AskDecodingHost& m_host;
};
