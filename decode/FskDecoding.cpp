#include "decode/FskDecoding.h"

#include "decode/FskFrameDecoder.h"

#include <chrono>
#include <mutex>
#include <thread>

int FskDecodingPass(CThreadFSK& fsk, FskDecodingHost& host)
{
    if (!host.IsAcquiring())
        return 200;
    bool worked = false;
    const bool secondReader = host.ReadsFskWire();
    if (secondReader) {
        // The wire feed goes to the second reader first, one loop at a time
        // (the other loop, finding it busy, goes on with the packets).
        std::unique_lock<std::mutex> turn(fsk.WireTurn(), std::try_to_lock);
        if (turn.owns_lock()) {
            thread_local std::vector<uint16_t> words;
            thread_local std::vector<int64_t> ticks;
            if (fsk.TakeWire(words, ticks))
                host.ReadFskWire(words.data(), ticks.data(), words.size());
        }
    }
    if (auto packet = fsk.TakePacketToDecode()) {
        worked = true;
        if (packet->samples.size() > 200) {
            std::vector<PulseRecord> changes = SliceLevels(*packet);
            if (changes.size() >= 3 && changes.size() <= 499)
                host.DecodeFsk(changes, packet);
        }
        fsk.PacketDecoded();
    } else if (secondReader) {
        // Nothing waiting or being decoded: the chain's progress is told.
        uint64_t passed = 0;
        if (fsk.ChainPassed(passed))
            host.FskChainPassed(passed);
    }
    if (auto ping = fsk.TakeDigitalPing()) {
        // Pings seen while a receiver link runs make no events.
        if (host.LinkIdle())
            host.AddDigitalPing(ping);
    }
    {
        // One loop at a time, so that the edges reach the host in order.
        static std::mutex edgeTurn;
        std::lock_guard<std::mutex> turn(edgeTurn);
        thread_local std::vector<CarrierEdge> edges;
        edges.clear();
        fsk.TakeCarrierEdges(edges);
        if (!edges.empty())
            host.AddCarrierEdges(edges);
    }
    if (host.ClaimLinkLoss())
        host.LinkLost();
    host.PushFrequency(0.0, static_cast<double>(fsk.CurrentFrequency()));
    return worked ? 0 : 10;
}

void RunFskDecoding(const std::atomic<bool>& running, CThreadFSK& fsk, FskDecodingHost& host)
{
    while (running.load(std::memory_order_relaxed)) {
        const int sleepMs = FskDecodingPass(fsk, host);
        if (sleepMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(sleepMs));
    }
}
