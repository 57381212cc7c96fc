// Cutting of the ASK envelope into bursts of pulses: five-point smoothing, edge
// detection with thresholds that follow the envelope's swing, and grouping of
// pulses by long gaps. Each burst of enough pulses is one packet candidate.
#pragma once

#include "common/TriggerData.h"

#include <algorithm>
#include <atomic>
#include <climits>
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
    // The recent list: appended at the back, trimmed at the front. Values and
    // positions are kept in two arrays with a moving head: a block fed at once
    // is copied in before its samples are stepped through, and the crossings
    // scan the values as one contiguous run. The dead entries before the head
    // are dropped only when room is made for new ones.
    class RecentList {
    public:
        void push_back(int32_t value, int32_t position)
        {
            MakeRoom(1);
            if (m_end > m_head && static_cast<int64_t>(m_positions[m_end - 1]) + 1 != position)
                m_consecutive = false;
            m_values[m_end] = value;
            m_positions[m_end] = position;
            ++m_end;
        }
        void pop_front() { ++m_head; }
        int32_t FrontValue() const { return m_values[m_head]; }
        int32_t FrontPosition() const { return m_positions[m_head]; }
        size_t size() const { return m_end - m_head; }
        bool empty() const { return m_end == m_head; }
        void clear()
        {
            m_head = m_end = 0;
            m_consecutive = true;
        }
        // The entries, oldest first: values()[k] at positions()[k], k < size().
        const int32_t* values() const { return m_values.data() + m_head; }
        const int32_t* positions() const { return m_positions.data() + m_head; }

    private:
        friend class SlopeTracker;
        // Room for n entries after the last one; the entries before the head
        // go first once they are at least as many as those that remain, so
        // that moving the rest down costs no more than what was popped.
        void MakeRoom(size_t n)
        {
            if (m_head == m_end) {
                m_head = m_end = 0;
                m_consecutive = true;
            } else if (m_head >= m_end - m_head) {
                std::copy(m_values.begin() + static_cast<std::ptrdiff_t>(m_head),
                          m_values.begin() + static_cast<std::ptrdiff_t>(m_end), m_values.begin());
                std::copy(m_positions.begin() + static_cast<std::ptrdiff_t>(m_head),
                          m_positions.begin() + static_cast<std::ptrdiff_t>(m_end), m_positions.begin());
                m_end -= m_head;
                m_head = 0;
            }
            if (m_end + n > m_values.size()) {
                m_values.resize(m_end + n);
                m_positions.resize(m_end + n);
            }
        }
        // Drops the entries at the front whose position is below limit.
        void TrimBelow(int64_t limit)
        {
            if (m_consecutive) {
                // The positions climb by one: count the entries to drop.
                if (m_head < m_end && limit > m_positions[m_head])
                    m_head = std::min(m_end, m_head + static_cast<size_t>(limit - m_positions[m_head]));
                return;
            }
            while (m_head < m_end && m_positions[m_head] < limit)
                ++m_head;
        }
        std::vector<int32_t> m_values, m_positions;  // entries are [m_head, m_end)
        size_t m_head = 0, m_end = 0;
        bool m_consecutive = true;  // each entry's position is the one before it plus one
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

    // Back to a fresh tracker's state, keeping the recent list's storage.
    void Restart()
    {
        stepThreshold = 50;
        swingThreshold = 500;
        minSteps = 3;
        edgePosition = 0;
        recent.clear();
        falling.Clear();
        rising.Clear();
        refine = 0;
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
    // A run's fields as separate values, so that the loop over a block keeps
    // them in registers (copied as one struct, they went through memory).
    struct RunRegs {
        int32_t count, startPosition, startValue, lastValue, confirmed;
        explicit RunRegs(const SlopeRun& r)
            : count(r.count), startPosition(r.startPosition), startValue(r.startValue), lastValue(r.lastValue),
              confirmed(r.confirmed)
        {
        }
        void StoreTo(SlopeRun& r) const
        {
            r.count = count;
            r.startPosition = startPosition;
            r.startValue = startValue;
            r.lastValue = lastValue;
            r.confirmed = confirmed;
        }
    };
    static void Update(RunRegs& run, int32_t d, int32_t drop, int32_t v, int32_t p, const Limits& limits);
    void TrimBelow(int64_t limit);
    // The rare part of a step, kept out of line so that the per-sample part
    // inlines into the caller's loop.
    int ReportEdge();
};

inline void SlopeTracker::Update(RunRegs& run, int32_t d, int32_t drop, int32_t v, int32_t p, const Limits& limits)
{
    if (run.confirmed)
        return;
    if (run.startPosition != 0 && d > limits.step) {
        const bool enough = run.count >= limits.minSteps && p - run.startPosition >= 6;
        if (enough || drop > limits.swing)
            run.confirmed = 1;
        run.count += 1;
        run.lastValue = v;
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
    recent.TrimBelow(limit);
}

template <class OnEdge>
inline void SlopeTracker::Feed(const int32_t* y, size_t n, int32_t position, OnEdge&& onEdge)
{
    if (n == 0)
        return;
    // The whole block goes into the recent list's storage at once; the list
    // itself ends after the sample being stepped (end below), as if each
    // sample were appended in its turn. Reporting an edge only moves the head,
    // so the storage stays where it is for the whole loop; onEdge must not
    // feed the tracker.
    recent.MakeRoom(n);
    const size_t off = recent.m_end;
    std::copy(y, y + n, recent.m_values.begin() + static_cast<std::ptrdiff_t>(off));
    int32_t* const positions = recent.m_positions.data();
    for (size_t i = 0; i < n; ++i)
        positions[off + i] = static_cast<int32_t>(static_cast<uint32_t>(position) + static_cast<uint32_t>(i));
    // The block's positions climb by one unless they pass the largest int32;
    // the list stays consecutive if the block follows its last entry.
    if (static_cast<int64_t>(position) + static_cast<int64_t>(n - 1) > INT32_MAX ||
        (off > recent.m_head && static_cast<int64_t>(positions[off - 1]) + 1 != position))
        recent.m_consecutive = false;
    const bool consecutive = recent.m_consecutive;
    size_t head = recent.m_head;

    // The runs and the limits live in locals for the loop, so that the
    // compiler keeps them in registers across samples.
    RunRegs fall(falling), rise(rising);
    const Limits limits{stepThreshold, swingThreshold, minSteps};
    for (size_t i = 0; i < n; ++i) {
        const int32_t v = y[i];
        const int32_t p = positions[off + i];
        const size_t end = off + i + 1;
        Update(fall, fall.lastValue - v, fall.startValue - v, v, p, limits);
        Update(rise, v - rise.lastValue, v - rise.startValue, v, p, limits);

        const bool f = fall.confirmed != 0;
        const bool r = rise.confirmed != 0;
        const bool due = (r && (f || p - rise.startPosition >= 201)) || (f && !r && p - fall.startPosition >= 201);
        if (due) {
            fall.StoreTo(falling);
            rise.StoreTo(rising);
            recent.m_head = head;
            recent.m_end = end;
            const int edge = ReportEdge();
            head = recent.m_head;
            fall = RunRegs(falling);
            rise = RunRegs(rising);
            onEdge(edge, i);
            continue;
        }
        // The 50 samples of margin apply to the falling side only.
        const int64_t limit = fall.startPosition <= rise.startPosition
                                  ? static_cast<int64_t>(fall.startPosition) - 50
                                  : static_cast<int64_t>(rise.startPosition);
        if (consecutive) {
            // The positions climb by one: the first entry at or above the
            // limit is found without walking to it.
            if (head < end && limit > positions[head])
                head = std::min(end, head + static_cast<size_t>(limit - positions[head]));
        } else {
            while (head < end && positions[head] < limit)
                ++head;
        }
    }
    recent.m_head = head;
    recent.m_end = off + n;
    fall.StoreTo(falling);
    rise.StoreTo(rising);
}

// One pass of edge detection over a block of samples; a fresh one per pass.
class AskEdgeDetector {
public:
    AskEdgeDetector();
    // Back to a fresh detector's state, keeping the tracker's storage: the
    // stream runs one per pass.
    void Restart();

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

    // What one Process call handed on: the bursts it cut, the wire samples it
    // queued and the first sample still open to the burst cutter after it. A
    // replay cuts the bursts of its ASK stream ahead on a worker with one
    // stream and hands each pass, in order, to the stream its decoding pass
    // reads; the decoding pass then sees what it would have seen had that
    // stream processed the samples itself.
    struct PassOutput {
        std::vector<std::shared_ptr<TriggerData>> bursts;
        std::vector<int32_t> wire;
        uint64_t wireFirst = 0;
        bool hasWire = false;
        uint64_t closedBefore = 0;
    };
    // Moves everything queued for the decoding pass into out.
    void TakePass(PassOutput& out);
    // Queues a pass as Process would have: bursts, wire samples, progress;
    // each burst's log line is written here, when the bursts of a stream
    // that does not log them arrive.
    void PutPass(PassOutput& pass);
    // Whether Process writes the log line of each burst it cuts (on by default).
    void SetLogBursts(bool on) { m_logBursts = on; }

    size_t PendingBursts();
    const std::vector<int32_t>& Samples() const { return m_samples; }
    uint64_t Newest() const { return m_newest; }

private:
    void CutBursts();
    void PassWireSamples();
    // Under m_mutex: appends wire samples beginning with number first.
    void QueueWire(const int32_t* samples, size_t n, uint64_t first);
    static void LogBurst(const TriggerData& burst);

    uint64_t m_newest = 0;
    bool m_added = false;
    bool m_logBursts = true;
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
    std::vector<std::pair<size_t, size_t>> m_groups;
    AskEdgeDetector m_detector;
};
