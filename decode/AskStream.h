// Cutting of the ASK envelope into bursts of pulses: five-point smoothing, edge
// detection with thresholds that follow the envelope's swing, and grouping of
// pulses by long gaps. Each burst of enough pulses is one packet candidate.
#pragma once

#include "common/TriggerData.h"

#include <atomic>
#include <cstdint>
#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

// Five-point smoothing, computed in double precision and truncated toward zero.
void FivePointFilter(const std::vector<int32_t>& x, std::vector<int32_t>& y);

// One run of monotone steps, falling or rising.
struct SlopeRun {
    int32_t count = 0;
    int32_t startPosition = 0;
    int32_t startValue = 0;
    int32_t lastValue = 0;
    int32_t confirmed = 0;
    void Clear() { *this = SlopeRun(); }
};

// Follows the falling and the rising slope of a sample series and reports an
// edge when a run is confirmed and the opposite one has begun (or 201 samples
// have gone by without one).
class SlopeTracker {
public:
    struct Entry {
        int32_t value;
        int32_t position;
    };

    // The recent list: appended at the back, trimmed at the front. A vector
    // with a moving head, compacted now and then, is cheaper here than a deque.
    class RecentList {
    public:
        // Written field by field: building the pair on the stack and copying it
        // as one 8-byte word stalls on store forwarding, in the hottest loop
        // of the ASK chain.
        void push_back(int32_t value, int32_t position)
        {
            m_items.emplace_back();
            Entry& e = m_items.back();
            e.value = value;
            e.position = position;
        }
        void pop_front()
        {
            if (++m_head == m_items.size()) {
                m_items.clear();
                m_head = 0;
            } else if (m_head >= 4096 && m_head * 2 >= m_items.size()) {
                m_items.erase(m_items.begin(), m_items.begin() + static_cast<std::ptrdiff_t>(m_head));
                m_head = 0;
            }
        }
        const Entry& front() const { return m_items[m_head]; }
        size_t size() const { return m_items.size() - m_head; }
        bool empty() const { return size() == 0; }
        void clear()
        {
            m_items.clear();
            m_head = 0;
        }
        const Entry* begin() const { return m_items.data() + m_head; }
        const Entry* end() const { return m_items.data() + m_items.size(); }
        std::reverse_iterator<const Entry*> rbegin() const { return std::reverse_iterator<const Entry*>(end()); }
        std::reverse_iterator<const Entry*> rend() const { return std::reverse_iterator<const Entry*>(begin()); }

    private:
        std::vector<Entry> m_items;
        size_t m_head = 0;
    };

    int32_t stepThreshold = 50;
    int32_t swingThreshold = 500;
    int32_t minSteps = 3;
    int32_t edgePosition = 0;  // output: where the reported edge lies
    RecentList recent;
    SlopeRun falling;
    SlopeRun rising;
    int32_t refine = 0;  // 1: crossings are taken at the foot of the edge

    // Feeds y[0 .. n) at positions position, position + 1, ... For every edge
    // it reports, calls onEdge(edge, i): edge is 1 for a rising edge and -1 for
    // a falling one, i the index in y of the sample that made it report, and
    // edgePosition tells where the edge is.
    template <class OnEdge>
    void Feed(const int32_t* y, size_t n, int32_t position, OnEdge&& onEdge);

    // Feeds one value v at position p. Returns 1 for a rising edge, -1 for a
    // falling edge, 0 for none.
    int Step(int32_t v, int32_t p)
    {
        int edge = 0;
        Feed(&v, 1, p, [&edge](int e, size_t) { edge = e; });
        return edge;
    }

    int32_t RisingCrossing() const;
    int32_t FallingCrossing() const;
    void ClearRuns()
    {
        falling.Clear();
        rising.Clear();
    }

private:
    struct Limits {
        int32_t step, swing, minSteps;
    };
    static void Update(SlopeRun& run, int32_t d, int32_t drop, int32_t v, int32_t p, const Limits& limits);
    void TrimBelow(int64_t limit);
    // The rare part of a step, kept out of line so that the per-sample part
    // inlines into the caller's loop.
    int ReportEdge();
};

inline void SlopeTracker::Update(SlopeRun& run, int32_t d, int32_t drop, int32_t v, int32_t p, const Limits& limits)
{
    if (run.confirmed)
        return;
    if (run.startPosition != 0 && d > limits.step) {
        const bool enough = run.count >= limits.minSteps && p - run.startPosition >= 6;
        if (!enough && drop <= limits.swing) {
            run.count += 1;
            run.lastValue = v;
        } else {
            run.confirmed = 1;
            run.count += 1;
            run.lastValue = v;
        }
    } else if (run.startPosition != 0 && d >= 0) {
        // A small step in the run's direction, or a flat sample: the run neither
        // advances nor breaks.
    } else {
        run.confirmed = 0;
        run.count = 1;
        run.startValue = v;
        run.startPosition = p;
        run.lastValue = v;
    }
}

inline void SlopeTracker::TrimBelow(int64_t limit)
{
    while (!recent.empty() && recent.front().position < limit)
        recent.pop_front();
}

template <class OnEdge>
inline void SlopeTracker::Feed(const int32_t* y, size_t n, int32_t position, OnEdge&& onEdge)
{
    // The runs and the limits live in locals for the loop: the recent list's
    // entries are int32 stores too, and the compiler would otherwise reload
    // every field from memory after each sample.
    SlopeRun fall = falling, rise = rising;
    const Limits limits{stepThreshold, swingThreshold, minSteps};
    for (size_t i = 0; i < n; ++i, ++position) {
        const int32_t v = y[i];
        const int32_t p = position;
        recent.push_back(v, p);
        Update(fall, fall.lastValue - v, fall.startValue - v, v, p, limits);
        Update(rise, v - rise.lastValue, v - rise.startValue, v, p, limits);

        const bool f = fall.confirmed != 0;
        const bool r = rise.confirmed != 0;
        const bool due = (r && (f || p - rise.startPosition >= 201)) || (f && !r && p - fall.startPosition >= 201);
        if (due) {
            falling = fall;
            rising = rise;
            const int edge = ReportEdge();
            fall = falling;
            rise = rising;
            onEdge(edge, i);
            continue;
        }
        // The 50 samples of margin apply to the falling side only.
        if (fall.startPosition <= rise.startPosition)
            TrimBelow(static_cast<int64_t>(fall.startPosition) - 50);
        else
            TrimBelow(rise.startPosition);
    }
    falling = fall;
    rising = rise;
}

// One pass of edge detection over a block of samples; a fresh one per pass.
class AskEdgeDetector {
public:
    AskEdgeDetector();

    // Detects the pulses of in. start is the number of the sample before in[0]
    // (marks are start + edge position). leftover receives the smoothed samples
    // after the last edge; pending goes false when more than 200 samples follow
    // it, and then only the newest 200 are left over.
    void Detect(const std::vector<int32_t>& in, uint64_t start, std::vector<PulseRecord>& pulses,
                std::vector<int32_t>& leftover, bool& pending);

    // Detect for the stream's own pass: the pulses come without their samples;
    // pulse i covers smoothed[offsets[i] .. offsets[i+1]) instead, and the
    // caller copies the samples of the pulses it keeps. Most pulses of a pass
    // are looked at again on the next one, so copying them all is wasted.
    void DetectInPlace(const std::vector<int32_t>& in, uint64_t start, std::vector<PulseRecord>& pulses,
                       std::vector<uint32_t>& offsets, std::vector<int32_t>& smoothed, bool& pending);

    // The second, finer look at a burst before it is decoded: smooths the burst's
    // samples again (keeping the originals in rawSamples), takes edges at their
    // foot and closes the burst with a deliberately long pulse.
    void Refine(TriggerData& burst, std::vector<PulseRecord>& pulses);

    int32_t index = 0;
    int32_t lastEdge = 0;
    SlopeTracker tracker;
    int32_t amplitude = 0;
};

class AskStream {
public:
    // Appends one sample with its number.
    void Add(int32_t sample, uint64_t number)
    {
        m_samples.push_back(sample);
        m_newest = number;
        m_added = true;
    }

    // Cuts the samples gathered so far into bursts; see the notes in the source.
    // With the wire feed on, also passes the samples added since the last call,
    // as they came, to the second reader's queue.
    void Process();

    // Pops the oldest burst, or null.
    std::shared_ptr<TriggerData> Take();
    // Same; when there is no burst, closedBefore receives the number of the
    // first sample that the burst cutter may still put into a burst: every
    // burst of earlier samples has been taken.
    std::shared_ptr<TriggerData> Take(uint64_t& closedBefore);

    // The wire feed: every sample, unsmoothed and uncut, for the second ASK
    // reader. Off by default; the samples wait in a queue until taken.
    void SetWireFeed(bool on) { m_wireFeed.store(on, std::memory_order_relaxed); }
    bool WireFeed() const { return m_wireFeed.load(std::memory_order_relaxed); }
    // Moves the queued samples into out (replacing its contents) and the
    // number of the first into first; false when none are queued.
    bool TakeWire(std::vector<int32_t>& out, uint64_t& first);
    // Queues a burst made elsewhere (a recorded one, for instance).
    void Put(std::shared_ptr<TriggerData> burst);

    // Empties the sample vector and the output list.
    void Clear();

    size_t PendingBursts();
    const std::vector<int32_t>& Samples() const { return m_samples; }
    uint64_t Newest() const { return m_newest; }

private:
    void CutBursts();
    void PassWireSamples();

    uint64_t m_newest = 0;
    bool m_added = false;
    std::mutex m_mutex;
    // Guarded by m_mutex: the first sample still open to the burst cutter.
    uint64_t m_closedBefore = 0;
    // The wire feed: Process hands the samples added since its last pass (the
    // tail of m_samples, still as they came) over under the lock; the
    // decoding thread takes them.
    std::atomic<bool> m_wireFeed{false};
    uint64_t m_wirePassedNext = 0;  // number of the next sample to hand over
    std::vector<int32_t> m_wireOut;  // guarded by m_mutex
    uint64_t m_wireOutFirst = 0;     // guarded by m_mutex
    std::list<std::shared_ptr<TriggerData>> m_output;
    std::vector<int32_t> m_samples;
    // Scratch space reused from pass to pass.
    std::vector<PulseRecord> m_pulses;
    std::vector<uint32_t> m_offsets;
    std::vector<int32_t> m_smoothed;
};
