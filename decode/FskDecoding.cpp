#include "decode/FskDecoding.h"

#include "decode/FskFrameDecoder.h"

#include <chrono>
#include <thread>

int FskDecodingPass(CThreadFSK& fsk, FskDecodingHost& host)
{
    if (!host.IsAcquiring())
        return 200;
    bool worked = false;
    if (auto packet = fsk.TakePacket()) {
        worked = true;
        if (packet->samples.size() > 200) {
            std::vector<PulseRecord> changes = SliceLevels(*packet);
            if (changes.size() >= 3 && changes.size() <= 499)
                host.DecodeFsk(changes, packet);
        }
    }
    if (auto ping = fsk.TakeDigitalPing()) {
        // Pings seen while a receiver link runs make no events.
        if (host.LinkIdle())
            host.AddDigitalPing(ping);
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
