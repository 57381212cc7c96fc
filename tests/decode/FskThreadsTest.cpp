// The FSK chain on its real threads: the CThreadFSK run loop and two decoding
// loops sharing one data manager, as acquisition runs them.
#include "FskChain.h"
#include "events/DecoderLink.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace std::chrono_literals;

TEST(FskThreads, TwoDecodingThreadsShareOneDataManager)
{
    SettingParams::Instance().detectedPolarity.store(-1);
    qisim::FskWaveParams p;
    p.polarity = -1;
    p.noiseTicks = 1;
    qisim::FskWaveWriter w(p, 21);
    w.OffMs(80);
    w.PingMs(65);
    w.OffMs(100);
    w.CarrierMs(100);
    const int packets = 12;
    for (int k = 0; k < packets; ++k) {
        w.Packet(qisim::WithChecksum({0x1F, static_cast<uint8_t>(k)}), 0);
        w.CarrierMs(120);
    }
    w.OffMs(100);
    const auto bytes = qisim::FskStreamFrames(w.Words());

    MemoryPort* port = nullptr;
    CThreadFSK fsk(
        [&port] {
            auto q = std::make_unique<MemoryPort>();
            port = q.get();
            return std::unique_ptr<StreamPort>(std::move(q));
        },
        &FskChain::Band());
    CDataManager manager;
    DecoderLink link(manager);
    link.SetAcquiring(true);
    ASSERT_EQ(fsk.Open("memory", false, 1024000, 0), 1);
    std::atomic<bool> running{true};
    std::thread first([&] { RunFskDecoding(running, fsk, link); });
    std::thread second([&] { RunFskDecoding(running, fsk, link); });

    // The device's pace, a hundred times faster: a frame every 50 us.
    size_t at = 0;
    while (at + 8 <= bytes.size()) {
        const size_t length = bytes[at] | (bytes[at + 1] << 8);
        const size_t n = std::min<size_t>(8 + length, bytes.size() - at);
        port->Push(bytes.data() + at, n);
        at += n;
        std::this_thread::sleep_for(50us);
    }
    std::vector<MsgInfoPtr> events;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    size_t frames = 0, pings = 0;
    while (std::chrono::steady_clock::now() < deadline && frames < static_cast<size_t>(packets)) {
        std::this_thread::sleep_for(20ms);
        std::vector<MsgInfoPtr> batch;
        manager.GetEvents(batch);  // events leave a second after they are queued
        for (const auto& e : batch) {
            events.push_back(e);
            if (e->type == 0x1F)
                ++frames;
            if (e->type == 253)
                ++pings;
        }
    }
    running = false;
    first.join();
    second.join();
    fsk.Close();
    SettingParams::Instance().detectedPolarity.store(0);
    EXPECT_EQ(frames, static_cast<size_t>(packets));
    EXPECT_EQ(pings, 1u);
    // In capture-time order, and each packet once.
    uint64_t last = 0;
    for (const auto& e : events) {
        if (e->type != 0x1F)
            continue;
        EXPECT_GE(e->timing.startTime, last);
        last = e->timing.startTime;
    }
}
