// Test helpers for the FSK chain: CThreadFSK on a port fed from memory, driven
// one run loop pass per 5 ms frame, with the decoding loop's passes on a host
// that decodes into its own frame decoder.
#pragma once

#include "AskChain.h"
#include "decode/FskDecoding.h"
#include "decode/FskFrameDecoder.h"
#include "decode/ThreadFSK.h"
#include "services/SettingParams.h"
#include "sim/FskSynth.h"

#include <atomic>
#include <mutex>

class FskFrameCollector : public FskDecodingHost {
public:
    explicit FskFrameCollector(CThreadFSK& fsk) : m_fsk(fsk) {}
    bool IsAcquiring() const override { return true; }
    void DecodeFsk(std::vector<PulseRecord>& changes, const std::shared_ptr<TriggerData>& packet) override
    {
        decodeCalls.fetch_add(1);
        decoder.DecodeBurst(changes, packet, static_cast<uint64_t>(m_fsk.CurrentFrequency()));
    }
    void AddDigitalPing(const DigitalPingInfoPtr& ping) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        pings.push_back(ping);
    }
    bool LinkIdle() const override { return true; }
    bool ClaimLinkLoss() override { return false; }
    void LinkLost() override {}
    void PushFrequency(double, double second) override { lastFrequency.store(second); }

    FskFrameDecoder decoder;
    std::mutex mutex;
    std::vector<DigitalPingInfoPtr> pings;
    std::atomic<int> decodeCalls{0};
    std::atomic<double> lastFrequency{0.0};

private:
    CThreadFSK& m_fsk;
};

struct FskChain {
    explicit FskChain(SettingParams* settings = nullptr)
        : band(Band()),
          thread(
              [this]() -> std::unique_ptr<StreamPort> {
                  auto p = std::make_unique<MemoryPort>();
                  port = p.get();
                  return p;
              },
              settings ? settings : &band),
          host(thread)
    {
        thread.OpenWithoutLoop("memory", false, 1024000);
    }

    // The default frequency band of the settings.
    static SettingParams& Band()
    {
        static SettingParams* s = [] {
            auto* p = new SettingParams();
            p->m_min_freq = 110000;
            p->m_max_freq = 210000;
            return p;
        }();
        return *s;
    }

    // Streams the bytes frame by frame (each frame is one chunk, as the device
    // paces them), one run loop pass and the decoding passes after each.
    void Stream(const std::vector<uint8_t>& bytes)
    {
        size_t at = 0;
        while (at + 8 <= bytes.size()) {
            const uint32_t length = static_cast<uint32_t>(bytes[at] | (bytes[at + 1] << 8)) |
                                    (static_cast<uint32_t>(bytes[at + 2] | (bytes[at + 3] << 8)) << 16);
            const size_t n = std::min<size_t>(8 + length, bytes.size() - at);
            port->Push(bytes.data() + at, n);
            at += n;
            thread.RunPass();
            while (FskDecodingPass(thread, host) == 0) {
            }
        }
        FskDecodingPass(thread, host);
    }

    std::vector<std::shared_ptr<CMsgData>> Frames()
    {
        std::vector<std::shared_ptr<CMsgData>> out;
        while (auto f = host.decoder.TakeFrame())
            out.push_back(f);
        return out;
    }

    SettingParams& band;
    MemoryPort* port = nullptr;
    CThreadFSK thread;
    FskFrameCollector host;
};

// The headers of the transmitter's packets that the dispatcher knows.
inline const std::vector<uint8_t>& FskHeaders()
{
    static const std::vector<uint8_t> headers{0x00, 0x01, 0x1E, 0x1F, 0x2E, 0x2F, 0x30,
                                              0x31, 0x3F, 0x4F, 0x5F, 0x8F};
    return headers;
}

struct FskRoundTripCase {
    uint8_t header = 0x1F;
    bool pattern = false;  // send `header` as a one-byte response pattern
    int packets = 3;
    double carrierHz = 128000;
    int depth = 60;
    int polarity = -1;      // -1: modulated words shorter; +1: longer
    int cyclesPerBit = 512; // 512 or 128
    double noise = 1.0;
    uint32_t seed = 1;
};

struct FskRoundTrip {
    int sent = 0;
    int exact = 0;    // a frame with the sent bytes (or the pattern's reported byte)
    int other = 0;    // frames, none with the sent bytes
    int missing = 0;  // nothing in its place
    FskRoundTrip& operator+=(const FskRoundTrip& o)
    {
        sent += o.sent;
        exact += o.exact;
        other += o.other;
        missing += o.missing;
        return *this;
    }
};

// Packets on a running carrier, 150 ms apart, decoded with the decoder's
// polarity set as a Configuration packet would set it for this modulation
// (-1, "Positive", for shorter modulated periods; +1 for longer).
inline FskRoundTrip RunFskRoundTrip(const FskRoundTripCase& c, uint8_t expectedPattern = 0)
{
    SettingParams::Instance().detectedPolarity.store(c.polarity < 0 ? -1 : 1);
    std::mt19937 rng(c.seed);
    qisim::FskWaveParams p;
    p.carrierHz = c.carrierHz;
    p.depthTicks = c.depth;
    p.polarity = c.polarity;
    p.cyclesPerBit = c.cyclesPerBit;
    p.noiseTicks = c.noise;
    qisim::FskWaveWriter w(p, c.seed);
    const int lead = c.cyclesPerBit == 128 ? 4 : 0;
    struct Sent {
        std::vector<uint8_t> bytes;
        uint64_t startUs, endUs;
    };
    std::vector<Sent> sent;
    w.OffMs(20);
    w.CarrierMs(100);
    for (int k = 0; k < c.packets; ++k) {
        Sent s;
        s.startUs = w.Ticks() / 60;
        if (c.pattern) {
            w.Pattern(c.header);
            s.bytes = {expectedPattern};
        } else {
            std::vector<uint8_t> m{c.header};
            const int size = qisim::QiMessageSize(c.header);
            for (int i = 0; i < size; ++i)
                m.push_back(static_cast<uint8_t>(rng()));
            s.bytes = qisim::WithChecksum(m);
            w.Packet(s.bytes, lead);
        }
        s.endUs = w.Ticks() / 60;
        sent.push_back(s);
        w.CarrierMs(150);
    }
    w.OffMs(20);
    FskChain chain;
    chain.Stream(qisim::FskStreamFrames(w.Words()));
    const auto frames = chain.Frames();
    FskRoundTrip r;
    for (const Sent& s : sent) {
        ++r.sent;
        bool exact = false, any = false;
        for (const auto& f : frames) {
            if (f->timing.endTime + 20000 < s.startUs || f->timing.startTime > s.endUs + 20000)
                continue;
            any = true;
            std::vector<uint8_t> got;
            for (size_t i = 0; i < f->size && i < CMsgData::kFrameArea; ++i)
                got.push_back(f->FrameByte(i));
            if (got == s.bytes && f->packet.Status == "NoError")
                exact = true;
        }
        if (exact)
            ++r.exact;
        else if (any)
            ++r.other;
        else
            ++r.missing;
    }
    SettingParams::Instance().detectedPolarity.store(0);
    return r;
}

// Two transmitter packets on a carrier at negative polarity, after 20 ms of no
// carrier, as the FSK port streams them: a Charge Status (1F 64) and an
// Identification (30 13 00 2A).
inline std::vector<uint8_t> TwoFskPacketsStream()
{
    qisim::FskWaveParams p;
    p.polarity = -1;
    qisim::FskWaveWriter w(p, 9);
    w.OffMs(20);
    w.CarrierMs(100);
    w.Packet(qisim::WithChecksum({0x1F, 0x64}), 0);
    w.CarrierMs(150);
    w.Packet(qisim::WithChecksum({0x30, 0x13, 0x00, 0x2A}), 0);
    w.CarrierMs(150);
    return qisim::FskStreamFrames(w.Words());
}
