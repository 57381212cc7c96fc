// Test helpers for the ASK chain: a port fed from memory and a driver that
// streams synthesized samples through CThread2K and the decoding loop the way
// the device sends them, one run loop pass per 5 ms of samples.
#pragma once

#include "common/StreamPort.h"
#include "common/TimeText.h"
#include "decode/AskDecoding.h"
#include "decode/Thread2K.h"
#include "sim/AskSynth.h"

#include <list>
#include <random>
#include <memory>
#include <mutex>
#include <vector>

class MemoryPort : public StreamPort {
public:
    bool OpenPort(const std::string&, int, int, bool) override { return opens; }
    void ClosePort() override {}
    void SetGranularity(int n) override { granularity = n; }
    void WaitReplies(std::list<DataPtr>& out, int, int) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        out.splice(out.end(), queue);
    }
    void Push(const uint8_t* bytes, size_t n)
    {
        std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(Data::FromBytes(bytes, static_cast<int32_t>(n)));
    }
    void Push(const std::vector<uint8_t>& bytes) { Push(bytes.data(), bytes.size()); }

    bool opens = true;
    int granularity = 1;
    std::mutex mutex;
    std::list<DataPtr> queue;
};

// A CThread2K on a MemoryPort, driven pass by pass.
struct AskChain {
    AskChain()
        : thread([this]() -> std::unique_ptr<StreamPort> {
              auto p = std::make_unique<MemoryPort>();
              port = p.get();
              return p;
          })
    {
        thread.OpenWithoutLoop("memory", false, 1024000);
    }

    // Streams the bytes cut into chunks of chunkBytes; before each pass the
    // chunks that have fully arrived by the end of the next 5 ms frame are queued.
    void Stream(const std::vector<uint8_t>& bytes, size_t chunkBytes, size_t frameBytes = 408)
    {
        size_t queued = 0;
        for (size_t due = frameBytes; queued < bytes.size(); due += frameBytes) {
            const size_t limit = std::min(due, bytes.size());
            while (queued < bytes.size()) {
                const size_t n = std::min(chunkBytes, bytes.size() - queued);
                if (queued + n > limit && limit < bytes.size())
                    break;
                port->Push(bytes.data() + queued, n);
                queued += n;
            }
            thread.RunPass();
            while (AskDecodingPass(thread.Stream(), decoder) == 0) {
            }
        }
    }

    std::vector<std::shared_ptr<CMsgData>> Frames()
    {
        std::vector<std::shared_ptr<CMsgData>> out;
        while (auto f = decoder.Filter().TakeFrame())
            out.push_back(f);
        return out;
    }

    MemoryPort* port = nullptr;
    CThread2K thread;
    AskFrameDecoder decoder;
};

// The headers of the receiver's packets that the dispatcher knows.
inline const std::vector<uint8_t>& AskHeaders()
{
    static const std::vector<uint8_t> headers{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x09, 0x18,
                                              0x19, 0x20, 0x22, 0x28, 0x29, 0x31, 0x38, 0x48, 0x51,
                                              0x54, 0x55, 0x58, 0x71, 0x78, 0x81, 0x84};
    return headers;
}

// What became of synthesized packets after the chain.
struct RoundTrip {
    int sent = 0;
    int exact = 0;      // a "NoError" frame with exactly the sent bytes
    int wrongFork = 0;  // a "NoError" frame in its place with other bytes whose XOR holds
    int errorFrame = 0; // only an "Error" frame in its place
    int missing = 0;    // nothing in its place
    int longMissing = 0;  // missing, and the packet is longer than the 2000-sample window

    RoundTrip& operator+=(const RoundTrip& o)
    {
        sent += o.sent;
        exact += o.exact;
        wrongFork += o.wrongFork;
        errorFrame += o.errorFrame;
        missing += o.missing;
        longMissing += o.longMissing;
        return *this;
    }
};

struct RoundTripCase {
    uint8_t header = 0x03;
    int packets = 4;
    double samplesPerBit = 20.0;
    int swing = 1500;
    int preamble = 11;
    double noise = 0.02;
    double jitter = 1.0;
    size_t chunkBytes = 400;
    uint32_t seed = 1;
};

// Streams packets of one header with random message bytes, separated by 20 to
// 40 ms of silence, and sorts each sent packet by what came out in its place
// (frames are matched to packets by their start time).
inline RoundTrip RunRoundTrip(const RoundTripCase& c)
{
    std::mt19937 rng(c.seed);
    qisim::AskWaveParams p;
    p.samplesPerBit = c.samplesPerBit;
    p.swing = c.swing;
    p.idleLevel = 600;
    p.noiseFraction = c.noise;
    p.jitterSamples = c.jitter;
    qisim::AskWaveWriter w(p, c.seed);
    struct Sent {
        std::vector<uint8_t> bytes;
        size_t start, end;
    };
    std::vector<Sent> sent;
    w.Idle(300 + rng() % 200);
    for (int k = 0; k < c.packets; ++k) {
        std::vector<uint8_t> m{c.header};
        for (int i = 0; i < qisim::QiMessageSize(c.header); ++i)
            m.push_back(static_cast<uint8_t>(rng()));
        Sent s;
        s.bytes = qisim::WithChecksum(m);
        s.start = w.Packet(s.bytes, c.preamble);
        s.end = w.Samples().size();
        sent.push_back(s);
        w.Idle(800 + rng() % 800);
    }
    AskChain chain;
    chain.Stream(qisim::AskStreamFrames(w.Samples()), c.chunkBytes);
    const auto frames = chain.Frames();

    RoundTrip r;
    for (const Sent& s : sent) {
        ++r.sent;
        bool exact = false, wrong = false, error = false;
        for (const auto& f : frames) {
            const uint64_t t = f->timing.startTime / 25;
            if (t + 100 < s.start || t > s.end)
                continue;
            std::vector<uint8_t> got;
            for (size_t i = 0; i < f->size && i < CMsgData::kFrameArea; ++i)
                got.push_back(f->FrameByte(i));
            if (f->packet.Status == "NoError")
                (got == s.bytes ? exact : wrong) = true;
            else
                error = true;
        }
        if (exact)
            ++r.exact;
        else if (wrong)
            ++r.wrongFork;
        else if (error)
            ++r.errorFrame;
        else {
            ++r.missing;
            if (s.end - s.start > 2000)
                ++r.longMissing;
        }
    }
    return r;
}
