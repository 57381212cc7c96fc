// Test helpers for the ASK chain: a port fed from memory and a driver that
// streams synthesized samples through CThread2K and the decoding loop the way
// the device sends them, one run loop pass per 5 ms of samples.
#pragma once

#include "common/StreamPort.h"
#include "decode/AskDecoding.h"
#include "decode/Thread2K.h"
#include "sim/AskSynth.h"

#include <list>
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
