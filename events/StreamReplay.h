// Replay of raw capture files: the recorded ASK and FSK streams go through the
// same parsers, threads' passes and data manager as a live capture, frame by
// frame in capture-time order, with the clock following capture time, so the
// events and their order are those of the live run.
#pragma once

#include "decode/Thread2K.h"
#include "decode/ThreadFSK.h"
#include "events/DataManager.h"
#include "events/DecoderLink.h"

#include <functional>
#include <vector>

class StreamReplay {
public:
    // The bytes of the two files (either may be empty); a capture header, if
    // present, is skipped, and so is a frame cut by the start of the file
    // (SkippedAsk/SkippedFsk tell how many bytes that was).
    StreamReplay(std::vector<uint8_t> askBytes, std::vector<uint8_t> fskBytes, SettingParams* settings = nullptr);
    // The same over bytes that stay the caller's, untouched and not copied;
    // they must outlive the replay.
    StreamReplay(const uint8_t* askBytes, size_t askSize, const uint8_t* fskBytes, size_t fskSize,
                 SettingParams* settings = nullptr);

    // Runs the whole replay. `batch` receives each refresh's released events
    // (one refresh per 30 ms of capture time); `progress` gets the fraction done.
    void Run(const std::function<void(std::vector<MsgInfoPtr>&)>& batch,
             const std::function<void(double)>& progress = nullptr);

    // Capture time covered by the inputs, in milliseconds.
    double DurationMs() const;

    CDataManager& Manager() { return m_manager; }

    // With this set, `batch` is called at every refresh, with an empty batch
    // when no event was released (the live refresh runs at that pace too).
    bool everyRefresh = false;

    // With this set (the default), the ASK stream's bursts are cut on a worker
    // thread ahead of the decoding, which runs on the calling thread with the
    // FSK chain and the data manager as before. Each pass's bursts, wire
    // samples and progress reach the decoding in the same order and at the
    // same point of capture time as when one thread does everything, so the
    // events are the same either way; clear it to run on one thread.
    bool cutAskOnWorker = true;

    // Bytes before the first whole frame of each stream, the header aside.
    size_t SkippedAsk() const { return m_askSkipped; }
    size_t SkippedFsk() const { return m_fskSkipped; }

    // Frame boundaries of a stream: the byte offsets where each frame begins.
    static std::vector<size_t> FrameStarts(const std::vector<uint8_t>& bytes);
    static std::vector<size_t> FrameStarts(const uint8_t* bytes, size_t size);

private:
    class AskCutter;

    // A stream's bytes from its first whole frame.
    struct Bytes {
        const uint8_t* from = nullptr;
        size_t count = 0;
        const uint8_t* data() const { return from; }
        size_t size() const { return count; }
    };
    static Bytes FromFirstFrame(const uint8_t* bytes, size_t size, size_t& skipped);
    void Setup(SettingParams* settings);

    // Declared before the streams: the constructor fills them while it finds
    // where the streams begin.
    size_t m_askSkipped = 0, m_fskSkipped = 0;
    std::vector<uint8_t> m_askOwned, m_fskOwned;  // the bytes handed over, if they were
    Bytes m_ask, m_fsk;
    std::vector<size_t> m_askFrames, m_fskFrames;
    CThread2K m_askThread;
    CThreadFSK m_fskThread;
    CDataManager m_manager;
    DecoderLink m_link;
};
