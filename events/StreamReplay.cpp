#include "events/StreamReplay.h"

#include "common/Clock.h"
#include "common/StreamFrame.h"
#include "decode/AskDecoding.h"
#include "decode/CaptureFile.h"
#include "decode/FskDecoding.h"
#include "services/SettingParams.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

// The stream bytes of a capture file from its first whole frame: the header,
// if present, and a frame cut by the start of the capture are passed over.
// Adds the bytes passed over before the first frame (the header aside) to
// `skipped`.
StreamReplay::Bytes StreamReplay::FromFirstFrame(const uint8_t* bytes, size_t size, size_t& skipped)
{
    if (HasCaptureHeader(bytes, size)) {
        bytes += kCaptureHeaderBytes;
        size -= kCaptureHeaderBytes;
    }
    skipped = FirstChainedFrame(bytes, size);
    Bytes b;
    b.from = size > 0 ? bytes + skipped : bytes;
    b.count = size - skipped;
    return b;
}

StreamReplay::StreamReplay(std::vector<uint8_t> askBytes, std::vector<uint8_t> fskBytes, SettingParams* settings)
    : m_askOwned(std::move(askBytes)),
      m_fskOwned(std::move(fskBytes)),
      m_ask(FromFirstFrame(m_askOwned.data(), m_askOwned.size(), m_askSkipped)),
      m_fsk(FromFirstFrame(m_fskOwned.data(), m_fskOwned.size(), m_fskSkipped)),
      m_fskThread(nullptr, settings),
      m_link(m_manager)
{
    Setup(settings);
}

StreamReplay::StreamReplay(const uint8_t* askBytes, size_t askSize, const uint8_t* fskBytes, size_t fskSize,
                           SettingParams* settings)
    : m_ask(FromFirstFrame(askBytes, askSize, m_askSkipped)),
      m_fsk(FromFirstFrame(fskBytes, fskSize, m_fskSkipped)),
      m_fskThread(nullptr, settings),
      m_link(m_manager)
{
    Setup(settings);
}

void StreamReplay::Setup(SettingParams* settings)
{
    m_askFrames = FrameStarts(m_ask.data(), m_ask.size());
    m_fskFrames = FrameStarts(m_fsk.data(), m_fsk.size());
    if (settings)
        m_askThread.SetSettings(settings);
    m_manager.SetSecondAskReader(SettingParams::Or(settings).m_ask_second_reader != 0);
    m_manager.SetSecondFskReader(SettingParams::Or(settings).m_fsk_second_reader != 0);
    m_manager.SetFskBand(SettingParams::Or(settings).m_min_freq, SettingParams::Or(settings).m_max_freq);
    m_link.SetAcquiring(true);
}

std::vector<size_t> StreamReplay::FrameStarts(const std::vector<uint8_t>& bytes)
{
    return FrameStarts(bytes.data(), bytes.size());
}

std::vector<size_t> StreamReplay::FrameStarts(const uint8_t* bytes, size_t size)
{
    std::vector<size_t> starts;
    StreamFrameParser parser;
    const size_t words = size / 2;
    for (size_t k = 0; k < words; ++k) {
        if (parser.state == 0)
            starts.push_back(2 * k);
        if (parser.Take(WordAt(bytes, k)) == StreamFrameParser::kPayload)
            parser.PayloadTaken();
    }
    return starts;
}

// Cuts the bursts of the ASK frames on a worker thread, frame after frame, with
// a stream of its own, and hands the output of each frame's pass over in
// order. The passes travel in batches of kBatch frames, so that the threads
// meet once a batch rather than once a frame; the worker runs at most
// kBatches batches ahead of the decoding.
class StreamReplay::AskCutter {
public:
    AskCutter(const Bytes& bytes, const std::vector<size_t>& starts, bool wireFeed)
        : m_bytes(bytes), m_starts(starts)
    {
        m_thread.Stream().SetWireFeed(wireFeed);
        m_thread.Stream().SetLogBursts(false);
        m_worker = std::thread([this] { Work(); });
    }
    ~AskCutter()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_all();
        m_worker.join();
    }
    AskCutter(const AskCutter&) = delete;
    AskCutter& operator=(const AskCutter&) = delete;

    // The output of the next frame's pass; waits for its batch.
    AskStream::PassOutput& Next()
    {
        if (++m_taken < m_batch.count)
            return m_batch.passes[m_taken];
        // The spent batch goes back to the worker, which fills the same
        // vectors again.
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_batch.passes.empty())
            m_spent.push_back(std::move(m_batch));
        m_changed.wait(lock, [this] { return !m_ready.empty(); });
        m_batch = std::move(m_ready.front());
        m_ready.pop_front();
        lock.unlock();
        m_changed.notify_all();
        m_taken = 0;
        return m_batch.passes[0];
    }

private:
    static constexpr size_t kBatch = 32;
    static constexpr size_t kBatches = 4;

    // The passes of up to kBatch frames; count of them are in use.
    struct Batch {
        std::vector<AskStream::PassOutput> passes;
        size_t count = 0;
    };

    void Work()
    {
        Batch batch;
        for (size_t i = 0; i < m_starts.size(); ++i) {
            const size_t from = m_starts[i];
            const size_t to = i + 1 < m_starts.size() ? m_starts[i + 1] : m_bytes.size();
            m_thread.ParseWords(m_bytes.data() + from, (to - from) / 2);
            m_thread.Stream().Process();
            if (batch.count == batch.passes.size())
                batch.passes.emplace_back();
            m_thread.Stream().TakePass(batch.passes[batch.count++]);
            if (batch.count < kBatch && i + 1 < m_starts.size())
                continue;
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return m_stop || m_ready.size() < kBatches; });
            if (m_stop)
                return;
            m_ready.push_back(std::move(batch));
            batch = Batch();
            if (!m_spent.empty()) {
                batch = std::move(m_spent.front());
                m_spent.pop_front();
                batch.count = 0;
            }
            lock.unlock();
            m_changed.notify_all();
        }
    }

    const Bytes m_bytes;
    const std::vector<size_t>& m_starts;
    CThread2K m_thread;  // only the worker touches it
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Batch> m_ready;  // guarded by m_mutex
    std::deque<Batch> m_spent;  // guarded by m_mutex
    bool m_stop = false;        // guarded by m_mutex
    std::thread m_worker;
    // The decoding side's batch and the pass of it taken last.
    Batch m_batch;
    size_t m_taken = 0;
};

double StreamReplay::DurationMs() const
{
    // ASK: 40000 samples a second, four header words a frame.
    const double ask = static_cast<double>(m_ask.size() / 2) / 40.0;
    uint32_t lastStamp = 0;
    if (!m_fskFrames.empty() && m_fskFrames.back() + 8 <= m_fsk.size()) {
        const size_t at = m_fskFrames.back() / 2;
        lastStamp = WordAt(m_fsk.data(), at + 2) | (WordAt(m_fsk.data(), at + 3) << 16);
    }
    return std::max(ask, static_cast<double>(lastStamp));
}

void StreamReplay::Run(const std::function<void(std::vector<MsgInfoPtr>&)>& batch,
                       const std::function<void(double)>& progress)
{
    ManualClock clock(1);
    SetClock(&clock);
    m_askThread.Stream().SetWireFeed(m_manager.SecondAskReader());
    m_fskThread.SetWireFeed(m_manager.SecondFskReader());
    std::unique_ptr<AskCutter> cutter;
    if (cutAskOnWorker && !m_askFrames.empty())
        cutter = std::make_unique<AskCutter>(m_ask, m_askFrames, m_manager.SecondAskReader());
    size_t ai = 0, fi = 0;
    double askMs = 0.0;  // capture time reached on the ASK stream
    double nextRefresh = 30.0;
    const double total = std::max(1.0, DurationMs());
    auto frameEnd = [](const Bytes& bytes, const std::vector<size_t>& starts, size_t i) {
        return i + 1 < starts.size() ? starts[i + 1] : bytes.size();
    };
    double lastMs = 0.0;
    auto refresh = [&](double nowMs) {
        // The two streams take turns; the clock never goes back.
        nowMs = std::max(nowMs, lastMs);
        lastMs = nowMs;
        clock.Set(1 + static_cast<int64_t>(nowMs));
        while (AskDecodingPass(m_askThread.Stream(), m_link) == 0) {
        }
        while (FskDecodingPass(m_fskThread, m_link) == 0) {
        }
        if (nowMs >= nextRefresh) {
            std::vector<MsgInfoPtr> events;
            m_manager.GetEvents(events);
            if ((!events.empty() || everyRefresh) && batch)
                batch(events);
            if (progress)
                progress(nowMs / total);
            nextRefresh = nowMs + 30.0;
        }
    };
    while (ai < m_askFrames.size() || fi < m_fskFrames.size()) {
        // The FSK frame's stamp is its time; an ASK frame's time is its samples.
        double fskMs = 1e300;
        if (fi < m_fskFrames.size() && m_fskFrames[fi] + 8 <= m_fsk.size()) {
            const size_t at = m_fskFrames[fi] / 2;
            fskMs = static_cast<double>(WordAt(m_fsk.data(), at + 2) | (WordAt(m_fsk.data(), at + 3) << 16));
        } else if (fi < m_fskFrames.size()) {
            fskMs = 1e299;  // a truncated last frame goes last
        }
        const bool takeAsk = ai < m_askFrames.size() && (askMs <= fskMs || fi >= m_fskFrames.size());
        if (takeAsk) {
            const size_t from = m_askFrames[ai], to = frameEnd(m_ask, m_askFrames, ai);
            if (cutter) {
                m_askThread.Stream().PutPass(cutter->Next());
            } else {
                m_askThread.ParseWords(m_ask.data() + from, (to - from) / 2);
                m_askThread.Stream().Process();
            }
            askMs += static_cast<double>((to - from) / 2 - std::min<size_t>(4, (to - from) / 2)) / 40.0;
            ++ai;
            refresh(askMs);
        } else {
            const size_t from = m_fskFrames[fi], to = frameEnd(m_fsk, m_fskFrames, fi);
            m_fskThread.ParseChunk(m_fsk.data() + from, (to - from) / 2);
            ++fi;
            refresh(fskMs < 1e299 ? fskMs : askMs);
        }
    }
    // No more samples come: the frames that the first and second readers hold
    // for each other are settled with what they have; everything still queued leaves a
    // second later.
    cutter.reset();
    m_manager.SettleHeldFrames();
    const double end = std::max(askMs, nextRefresh);
    for (double t = end; t <= end + 1100.0; t += 30.0) {
        nextRefresh = t;
        refresh(t);
    }
    SetClock(nullptr);
}
