#include "decode/AskStream.h"

#include "common/TimeText.h"
#include "services/Log.h"

#include <algorithm>

void FivePointFilter(const std::vector<int32_t>& x, std::vector<int32_t>& y)
{
    const size_t n = x.size();
    y.resize(n);
    if (n < 5) {
        std::copy(x.begin(), x.end(), y.begin());
        return;
    }
    // All terms are integers, so integer division truncates toward zero exactly
    // as the double-precision quotient cut to an integer does.
    auto at = [&x](size_t i) { return static_cast<int64_t>(x[i]); };
    y[0] = static_cast<int32_t>((3 * at(0) + 2 * at(1) + at(2) - at(4)) / 5);
    y[1] = static_cast<int32_t>((4 * at(0) + 3 * at(1) + 2 * at(2) + at(3)) / 10);
    int64_t window = at(0) + at(1) + at(2) + at(3) + at(4);
    for (size_t i = 2; i + 2 < n; ++i) {
        y[i] = static_cast<int32_t>(window / 5);
        if (i + 3 < n)
            window += at(i + 3) - at(i - 2);
    }
    y[n - 2] = static_cast<int32_t>((4 * at(n - 1) + 3 * at(n - 2) + 2 * at(n - 3) + at(n - 4)) / 10);
    y[n - 1] = static_cast<int32_t>((3 * at(n - 1) + 2 * at(n - 2) + at(n - 3) - at(n - 5)) / 5);
}

// ---------------------------------------------------------------- SlopeTracker

int SlopeTracker::ReportEdge()
{
    if (falling.startPosition >= rising.startPosition) {
        TrimBelow(static_cast<int64_t>(rising.startPosition) - minSteps);
        edgePosition = RisingCrossing();
        const int64_t t = static_cast<int64_t>(falling.startPosition) + edgePosition;
        rising.Clear();
        TrimBelow(t / 2);
        return 1;
    }
    TrimBelow(static_cast<int64_t>(falling.startPosition) - minSteps);
    edgePosition = FallingCrossing();
    const int64_t t = static_cast<int64_t>(edgePosition) + rising.startPosition;
    falling.Clear();
    TrimBelow(t / 2);
    return -1;
}

namespace {

// Largest and smallest of n values, starting from the given ones. Plain
// loops: the compiler vectorises them.
int32_t Largest(const int32_t* v, size_t n, int32_t from)
{
    for (size_t k = 0; k < n; ++k)
        from = std::max(from, v[k]);
    return from;
}

int32_t Smallest(const int32_t* v, size_t n, int32_t from)
{
    for (size_t k = 0; k < n; ++k)
        from = std::min(from, v[k]);
    return from;
}

}  // namespace

int32_t SlopeTracker::RisingCrossing() const
{
    const int32_t size = static_cast<int32_t>(recent.size());
    const size_t n = recent.size();
    const int32_t* values = recent.values();
    const int32_t* positions = recent.positions();
    if (refine == 0) {
        const int32_t largest = Largest(values, n, 0), smallest = Smallest(values, n, 5000);
        const int32_t middle = (largest + smallest) / 2;
        for (size_t k = 0; k < n; ++k)
            if (values[k] > middle)
                return positions[k];
        return rising.startPosition + size;
    }
    // At the foot: walk back from the newest entry over the top of the edge until
    // the values have fallen by more than a step minSteps times in a row, or
    // by more than a swing below the top.
    const int32_t m = Largest(values, n, 0);
    if (n == 0)
        return (rising.startPosition + size) >> 1;
    int32_t ref = values[n - 1];
    int32_t pos = positions[n - 1];
    int32_t run = 1;
    for (size_t k = n - 1; k-- > 0;) {
        const int32_t x = values[k];
        if (ref - x > stepThreshold) {
            run += 1;
            if (run >= minSteps || m - x > swingThreshold) {
                pos = positions[k];
                break;
            }
        } else {
            ref = x;
            pos = positions[k];
            run = 1;
        }
    }
    return (rising.startPosition + pos + size) >> 1;
}

int32_t SlopeTracker::FallingCrossing() const
{
    const int32_t size = static_cast<int32_t>(recent.size());
    const size_t n = recent.size();
    const int32_t* values = recent.values();
    const int32_t* positions = recent.positions();
    if (refine == 0) {
        const int32_t largest = Largest(values, n, 0), smallest = Smallest(values, n, 5000);
        const int32_t middle = (largest + smallest) / 2;
        for (size_t k = 0; k < n; ++k)
            if (values[k] < middle)
                return positions[k];
        return falling.startPosition + size;
    }
    const int32_t m = Smallest(values, n, 5000);
    if (n == 0)
        return (falling.startPosition + size) >> 1;
    int32_t ref = values[n - 1];
    int32_t pos = positions[n - 1];
    int32_t run = 1;
    for (size_t k = n - 1; k-- > 0;) {
        const int32_t x = values[k];
        if (x - ref > stepThreshold) {
            run += 1;
            if (run >= minSteps || x - m > swingThreshold) {
                pos = positions[k];
                break;
            }
        } else {
            ref = x;
            pos = positions[k];
            run = 1;
        }
    }
    return (falling.startPosition + pos + size) >> 1;
}

// ------------------------------------------------------------- AskEdgeDetector

AskEdgeDetector::AskEdgeDetector()
{
    tracker.stepThreshold = 35;
    tracker.swingThreshold = 175;
    tracker.minSteps = 3;
}

void AskEdgeDetector::Restart()
{
    index = 0;
    lastEdge = 0;
    amplitude = 0;
    tracker.Restart();
    tracker.stepThreshold = 35;
    tracker.swingThreshold = 175;
    tracker.minSteps = 3;
}

namespace {

// Sets the tracker's thresholds from the swing of a block: a step is the swing
// divided by `divisor`, a swing five steps, never below 5 and 25.
int32_t SetThresholds(SlopeTracker& tracker, const std::vector<int32_t>& y, int32_t divisor)
{
    // A plain loop: the compiler vectorises it, unlike minmax_element.
    int32_t low = y.empty() ? 0 : y[0], high = low;
    for (const int32_t v : y) {
        low = std::min(low, v);
        high = std::max(high, v);
    }
    const int32_t amplitude = high - low;
    tracker.stepThreshold = amplitude / divisor;
    tracker.swingThreshold = 5 * tracker.stepThreshold;
    if (tracker.stepThreshold < 5) {
        tracker.stepThreshold = 5;
        tracker.swingThreshold = 25;
    }
    return amplitude;
}

// Feeds y through the tracker and cuts a pulse at every edge it reports. Each
// pulse covers the head of the waiting samples, which are always the run
// y[waiting .. i]. The pulses tile y from its start: offsets gets the first
// index of each pulse, then where the last one ends (the first sample after
// it). The samples themselves are not copied here; see SamplesFromOffsets.
void CutPulses(AskEdgeDetector& det, const std::vector<int32_t>& y, uint64_t start,
               std::vector<PulseRecord>& pulses, std::vector<uint32_t>& offsets)
{
    size_t waiting = 0;
    offsets.clear();
    det.tracker.Feed(y.data(), y.size(), det.index, [&](int r, size_t i) {
        PulseRecord pulse;
        const int32_t edge = det.tracker.edgePosition;
        pulse.duration = static_cast<int64_t>(edge) - det.lastEdge;
        pulse.level = r == 1 ? 1 : 0;
        pulse.mark = static_cast<uint32_t>(start + static_cast<uint64_t>(static_cast<int64_t>(edge)));
        const size_t available = i + 1 - waiting;
        const size_t take = pulse.duration > 0 ? std::min(static_cast<size_t>(pulse.duration), available) : 0;
        offsets.push_back(static_cast<uint32_t>(waiting));
        waiting += take;
        pulses.push_back(std::move(pulse));
        det.lastEdge = edge;
    });
    det.index += static_cast<int32_t>(y.size());
    offsets.push_back(static_cast<uint32_t>(waiting));
}

// Gives pulses [begin, end) their samples: y[offsets[i] .. offsets[i+1]).
void SamplesFromOffsets(const std::vector<int32_t>& y, const std::vector<uint32_t>& offsets,
                        std::vector<PulseRecord>& pulses, size_t begin, size_t end)
{
    for (size_t i = begin; i < end; ++i)
        pulses[i].samples.assign(y.begin() + offsets[i], y.begin() + offsets[i + 1]);
}

// Where the samples left over after the last pulse begin: the samples after it,
// but only the newest 200 when more follow it (and then nothing is pending).
size_t LeftoverStart(size_t size, size_t waiting, bool& pending)
{
    if (size - waiting > 200) {
        pending = false;
        return size - 200;
    }
    return waiting;
}

}  // namespace

void AskEdgeDetector::Detect(const std::vector<int32_t>& in, uint64_t start,
                             std::vector<PulseRecord>& pulses, std::vector<int32_t>& leftover,
                             bool& pending)
{
    pending = true;
    pulses.clear();
    leftover.clear();
    if (in.empty())
        return;
    // Scratch kept from pass to pass on each thread.
    thread_local std::vector<int32_t> y;
    thread_local std::vector<uint32_t> offsets;
    DetectInPlace(in, start, pulses, offsets, y, pending);
    SamplesFromOffsets(y, offsets, pulses, 0, pulses.size());
    const size_t from = LeftoverStart(y.size(), offsets.back(), pending);
    leftover.assign(y.begin() + static_cast<std::ptrdiff_t>(from), y.end());
}

void AskEdgeDetector::DetectInPlace(const std::vector<int32_t>& in, uint64_t start,
                                    std::vector<PulseRecord>& pulses, std::vector<uint32_t>& offsets,
                                    std::vector<int32_t>& smoothed, bool& pending)
{
    pending = true;
    pulses.clear();
    offsets.clear();
    if (in.empty()) {
        smoothed.clear();
        offsets.push_back(0);
        return;
    }
    FivePointFilter(in, smoothed);
    amplitude = SetThresholds(tracker, smoothed, 80);
    CutPulses(*this, smoothed, start, pulses, offsets);
    tracker.ClearRuns();
}

void AskEdgeDetector::Refine(TriggerData& burst, std::vector<PulseRecord>& pulses)
{
    pulses.clear();
    if (burst.samples.empty())
        return;
    burst.rawSamples = burst.samples;
    FivePointFilter(burst.rawSamples, burst.samples);

    tracker.refine = 1;
    amplitude = SetThresholds(tracker, burst.samples, 60);

    // Marks here are the burst's start time in microseconds plus a position in
    // samples: only a label.
    thread_local std::vector<uint32_t> offsets;
    CutPulses(*this, burst.samples, burst.startTime, pulses, offsets);
    SamplesFromOffsets(burst.samples, offsets, pulses, 0, pulses.size());

    // Close the burst with a pulse far too long to be read as a bit.
    const uint32_t lastMark =
        static_cast<uint32_t>(burst.startTime + static_cast<uint64_t>(burst.samples.size() - 1));
    if (tracker.rising.confirmed) {
        PulseRecord pulse;
        pulse.level = 1;
        pulse.duration = static_cast<int64_t>(tracker.RisingCrossing()) + static_cast<int64_t>(burst.startTime);
        pulse.mark = lastMark;
        pulses.push_back(std::move(pulse));
    }
    if (tracker.falling.confirmed) {
        PulseRecord pulse;
        pulse.level = 0;
        pulse.duration = static_cast<int64_t>(tracker.FallingCrossing()) + static_cast<int64_t>(burst.startTime);
        pulse.mark = lastMark;
        pulses.push_back(std::move(pulse));
    }
    tracker.ClearRuns();
}

// ------------------------------------------------------------------- AskStream

namespace {

// The burst of pulses [begin, end) of a pass: the smoothed samples they cover.
std::shared_ptr<TriggerData> BurstOf(const std::vector<int32_t>& y, const std::vector<PulseRecord>& pulses,
                                     const std::vector<uint32_t>& offsets, size_t begin, size_t end)
{
    auto burst = std::make_shared<TriggerData>();
    burst->samples.assign(y.begin() + offsets[begin], y.begin() + offsets[end]);
    // The first pulse's samples end at its mark. A burst whose first pulse
    // begins with the capture (a file cut just before a packet) can have a
    // mark, which is the edge's position, short of its sample count: it then
    // starts at the capture's start, not 2^64 samples later, which would put
    // its packet behind every later one.
    const uint64_t mark = pulses[begin].mark;
    const uint64_t firstSamples = offsets[begin + 1] - offsets[begin];
    burst->startTime = mark > firstSamples ? mark - firstSamples : 0;
    burst->endTime = pulses[end - 1].mark;
    return burst;
}

}  // namespace

void AskStream::Process()
{
    PassWireSamples();
    CutBursts();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_added)
        m_closedBefore = m_newest + 1 - m_samples.size();
}

void AskStream::PassWireSamples()
{
    if (!m_added || !m_wireFeed.load(std::memory_order_relaxed))
        return;
    // The samples added since the last pass are the newest of m_samples (what
    // lies before them was kept from earlier passes). Numbers that went back
    // are a new capture: every sample held is new then.
    const uint64_t next = m_newest + 1;
    uint64_t n = next >= m_wirePassedNext ? next - m_wirePassedNext : next;
    n = std::min<uint64_t>(n, m_samples.size());
    m_wirePassedNext = next;
    if (n == 0)
        return;
    const uint64_t first = next - n;
    std::lock_guard<std::mutex> lock(m_mutex);
    QueueWire(m_samples.data() + (m_samples.size() - n), static_cast<size_t>(n), first);
}

void AskStream::QueueWire(const int32_t* samples, size_t n, uint64_t first)
{
    if (!m_wireOut.empty() && m_wireOutFirst + m_wireOut.size() != first)
        m_wireOut.clear();  // not contiguous (cleared in between): the older part goes
    if (m_wireOut.empty())
        m_wireOutFirst = first;
    m_wireOut.insert(m_wireOut.end(), samples, samples + n);
}

void AskStream::TakePass(PassOutput& out)
{
    out.bursts.clear();
    out.wire.clear();
    out.hasWire = false;
    std::lock_guard<std::mutex> lock(m_mutex);
    out.bursts.assign(m_output.begin(), m_output.end());
    m_output.clear();
    if (!m_wireOut.empty()) {
        out.wire.swap(m_wireOut);
        out.wireFirst = m_wireOutFirst;
        out.hasWire = true;
    }
    out.closedBefore = m_closedBefore;
}

void AskStream::PutPass(PassOutput& pass)
{
    for (const auto& burst : pass.bursts)
        LogBurst(*burst);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& burst : pass.bursts)
        m_output.push_back(std::move(burst));
    if (pass.hasWire)
        QueueWire(pass.wire.data(), pass.wire.size(), pass.wireFirst);
    m_closedBefore = pass.closedBefore;
}

void AskStream::LogBurst(const TriggerData& burst)
{
    Log::Printf("ASK time %s us", TimeText(static_cast<int64_t>(burst.startTime)).c_str());
}

bool AskStream::TakeWire(std::vector<int32_t>& out, uint64_t& first)
{
    out.clear();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_wireOut.empty())
        return false;
    out.swap(m_wireOut);
    first = m_wireOutFirst;
    return true;
}

void AskStream::CutBursts()
{
    // 200 samples are 5 ms of envelope.
    if (m_samples.size() < 200)
        return;

    // A fresh detector for every pass; its storage is kept.
    AskEdgeDetector& detector = m_detector;
    detector.Restart();
    const uint64_t start = m_newest - m_samples.size();
    bool pending = true;
    detector.DetectInPlace(m_samples, start, m_pulses, m_offsets, m_smoothed, pending);
    const std::vector<int32_t>& y = m_smoothed;
    const size_t leftover = LeftoverStart(y.size(), m_offsets.back(), pending);

    // A pulse of 31 samples or more is a silence of at least one and a half bit
    // times at 2 kHz: it closes the group that it ends.
    std::vector<std::pair<size_t, size_t>>& groups = m_groups;
    groups.clear();
    size_t groupStart = 0;
    for (size_t i = 0; i < m_pulses.size(); ++i) {
        if (m_pulses[i].duration >= 31) {
            groups.emplace_back(groupStart, i + 1);
            groupStart = i + 1;
        }
    }
    if (groupStart < m_pulses.size())
        groups.emplace_back(groupStart, m_pulses.size());

    if (groups.empty())
        pending = false;
    const size_t count = groups.size() - (pending ? 1 : 0);

    for (size_t g = 0; g < count; ++g) {
        const size_t begin = groups[g].first, end = groups[g].second;
        // A packet has at least 45 transitions; fewer are noise.
        if (end - begin < 45)
            continue;
        auto burst = BurstOf(y, m_pulses, m_offsets, begin, end);
        burst->pulses.reserve(end - begin);
        SamplesFromOffsets(y, m_offsets, m_pulses, begin, end);
        for (size_t i = begin; i < end; ++i)
            burst->pulses.push_back(std::move(m_pulses[i]));
        const auto range = std::minmax_element(burst->samples.begin(), burst->samples.end());
        burst->amplitude = burst->samples.empty() ? 0 : *range.second - *range.first;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            burst->startTime *= 25;
            burst->endTime *= 25;
            m_output.push_back(burst);
        }
        if (m_logBursts)
            LogBurst(*burst);
    }

    if (!pending) {
        m_samples.assign(y.begin() + static_cast<std::ptrdiff_t>(leftover), y.end());
        return;
    }
    // The open last group is looked at again on the next pass, with at most its
    // newest 2000 samples (50 ms), and the samples after it. Its samples are
    // already smoothed and will be smoothed once more.
    const size_t groupEnd = m_offsets[groups.back().second];
    size_t from = m_offsets[groups.back().first];
    if (groupEnd - from >= 2000)
        from = groupEnd - 2000;
    m_samples.assign(y.begin() + static_cast<std::ptrdiff_t>(from), y.end());
}

std::shared_ptr<TriggerData> AskStream::Take()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_output.empty())
        return nullptr;
    auto burst = m_output.front();
    m_output.pop_front();
    return burst;
}

std::shared_ptr<TriggerData> AskStream::Take(uint64_t& closedBefore)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_output.empty()) {
        closedBefore = m_closedBefore;
        return nullptr;
    }
    auto burst = m_output.front();
    m_output.pop_front();
    return burst;
}

void AskStream::Put(std::shared_ptr<TriggerData> burst)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_output.push_back(std::move(burst));
}

void AskStream::Clear()
{
    m_samples.clear();
    m_added = false;
    m_wirePassedNext = 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_output.clear();
    m_closedBefore = 0;
    m_wireOut.clear();
}

size_t AskStream::PendingBursts()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_output.size();
}
