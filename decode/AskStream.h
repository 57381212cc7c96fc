// Cutting of the ASK envelope into bursts of pulses: five-point smoothing, edge
// detection with thresholds that follow the envelope's swing, and grouping of
// pulses by long gaps. Each burst of enough pulses is one packet candidate.
#pragma once

#include "common/TriggerData.h"

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
        void push_back(const Entry& e) { m_items.push_back(e); }
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

    // Feeds value v at position p. Returns 1 for a rising edge, -1 for a falling
    // edge, 0 for none; edgePosition tells where the edge is.
    int Step(int32_t v, int32_t p);

    int32_t RisingCrossing() const;
    int32_t FallingCrossing() const;
    void ClearRuns()
    {
        falling.Clear();
        rising.Clear();
    }

private:
    inline void Update(SlopeRun& run, int32_t d, int32_t drop, int32_t v, int32_t p);
    inline void TrimBelow(int64_t limit);
};

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
    }

    // Cuts the samples gathered so far into bursts; see the notes in the source.
    void Process();

    // Pops the oldest burst, or null.
    std::shared_ptr<TriggerData> Take();
    // Queues a burst made elsewhere (a recorded one, for instance).
    void Put(std::shared_ptr<TriggerData> burst);

    // Empties the sample vector and the output list.
    void Clear();

    size_t PendingBursts();
    const std::vector<int32_t>& Samples() const { return m_samples; }
    uint64_t Newest() const { return m_newest; }

private:
    uint64_t m_newest = 0;
    std::mutex m_mutex;
    std::list<std::shared_ptr<TriggerData>> m_output;
    std::vector<int32_t> m_samples;
    // Scratch space reused from pass to pass.
    std::vector<PulseRecord> m_pulses;
    std::vector<int32_t> m_leftover;
};
