#include "decode/AskDecoding.h"

#include "common/Clock.h"

#include <algorithm>
#include <chrono>
#include <thread>

int AskDecodingPass(AskStream& stream, AskDecodingHost& host)
{
    if (!host.IsAcquiring())
        return 200;
    // The wire feed goes to the second reader first: it reads ahead of the
    // list decoder, whose progress is told once the bursts run out.
    thread_local std::vector<int32_t> wire;
    uint64_t first = 0;
    if (stream.TakeWire(wire, first) && host.ReadsWire())
        host.ReadWire(wire.data(), wire.size(), first);
    uint64_t closedBefore = 0;
    std::shared_ptr<TriggerData> burst = stream.Take(closedBefore);
    if (!burst) {
        host.ListDecoderPassed(closedBefore);
        return 10;
    }
    const size_t n = burst->pulses.size();
    if (n >= 500 || n < 41)
        return 0;

    AskEdgeDetector detector;
    std::vector<PulseRecord> pulses;
    detector.Refine(*burst, pulses);

    const int k = host.DecodeAsk(pulses, burst, 1);
    if (k >= 1) {
        // 220 samples are one 11-bit byte at 2 kHz: the amplitude then covers the
        // packet and not the silence behind it.
        burst->rawSamples.resize(static_cast<size_t>(k + 1) * 220, 0);
        // The burst rides on its events for the rest of the session (the event
        // tree keeps it for the wave view): give back what the cut freed.
        burst->rawSamples.shrink_to_fit();
        const auto range = std::minmax_element(burst->rawSamples.begin(), burst->rawSamples.end());
        detector.amplitude = *range.second - *range.first;
        host.CountGoodPacket();
        host.SetLastAskTime(TickMs());
        host.AutoDacLevel(detector.amplitude);
    }
    return 0;
}

void RunAskDecoding(const std::atomic<bool>& running, AskStream& stream, AskDecodingHost& host)
{
    while (running.load(std::memory_order_relaxed)) {
        const int sleepMs = AskDecodingPass(stream, host);
        if (sleepMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(sleepMs));
    }
}

int AskFrameDecoder::DecodeAsk(std::vector<PulseRecord>& pulses, const std::shared_ptr<TriggerData>& burst, int flag)
{
    return m_filter.DecodeBurst(pulses, burst, m_frequency, flag);
}
