// The transmitter side of the carrier: 64-word blocks of period words judged
// for a stable carrier, digital pings, and the start and end of FSK packets
// found by two-level clustering of each stable block.
#pragma once

#include "common/TriggerData.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

// What the tracker reports to its owner.
class TriggerFskCallback {
public:
    virtual ~TriggerFskCallback() = default;
    virtual void Reserved() {}
    virtual void DigitalPing(int64_t startTicks, int64_t endTicks, int64_t period) = 0;
    virtual void FskPacket(std::shared_ptr<TriggerData> packet) = 0;
    // The carrier came on (the start of its first stable block, reckoned back
    // over the words that already had its period) or went off (the end of
    // the last word that still had it). Unlike a ping, a carrier that stays
    // on for a whole power transfer, or moves its frequency, is one span.
    virtual void CarrierEdge(bool on, int64_t ticks)
    {
        (void)on;
        (void)ticks;
    }
};

// Average distance of words to a target, given every sixth call: five words
// are summed, the sixth call returns the mean and starts over without taking
// its own word.
struct DistanceAverager {
    int32_t sum = 0;
    int32_t count = 0;
    int32_t target = 0;
    int32_t window = 5;

    int32_t Feed(int32_t w);
};

// A word more than 200 ticks from the last word kept is replaced by the mean of
// the block so far (itself included); the words kept are taken as they are.
std::vector<int32_t> Despike(const std::vector<int32_t>& block);

// One-dimensional k-means with two clusters: Lloyd iteration from the inputs at
// index 0 and n / 2, at most 100 rounds, until the cost changes by less than a
// thousandth of itself. An empty cluster keeps its centre.
void KMeans2(const std::vector<int32_t>& x, double& first, double& second);

class FskCarrierTracker {
public:
    // Period limits in ticks from the frequency band in Hz.
    FskCarrierTracker(int32_t minFreqHz, int32_t maxFreqHz);

    void SetCallback(TriggerFskCallback* callback) { m_callback = callback; }
    // Back to the state of a fresh start: blocks, flags, times and frequency
    // cleared, and stable until the first block is judged.
    void Reset();

    // One period word w at time t (60 MHz ticks after the word).
    void Feed(int32_t w, int64_t t);

    // The tracker's packet in progress, taken and cleared.
    std::shared_ptr<TriggerData> TakePacket();

    // Operating frequency of the last stable block; read from other threads.
    int64_t DisplayFrequency() const { return m_displayFrequency.load(std::memory_order_relaxed); }

    // Per stable 64-word block starting at time t0: de-spike, cluster, and run
    // the packet detector over the words.
    void ProcessBlock(const std::vector<int32_t>& block, int64_t t0);
    // The packet detector, one word at a time.
    void Detect(int32_t w, int64_t t);

    int32_t HighCentre() const { return m_highCentre; }
    int32_t LowCentre() const { return m_lowCentre; }
    bool Stable() const { return m_stable; }
    bool PingInProgress() const { return m_pingInProgress; }
    bool CarrierOn() const { return m_carrierOn; }
    bool PacketActive() const { return m_active; }
    int64_t MinPeriod() const { return m_minPeriod; }

    // How far the tracker has looked, for whoever waits on the packets it will
    // still hand over: no packet given out after this call begins before the
    // returned time (60 MHz ticks; `now` is the time of the newest word fed).
    int64_t OpenFrom(int64_t now) const;
    // True right after the word that completed a block (the block was judged).
    bool BlockJustJudged() const { return m_current.empty(); }
    int64_t MaxPeriod() const { return m_maxPeriod; }

    // The block fit: intercept of the least-squares line (the period at the
    // block's start) and the sample standard deviation around the truncated mean.
    static void Fit(const std::vector<int32_t>& block, double& intercept, double& sd);
    // A block is stable when its intercept lies strictly inside the period band
    // and its standard deviation, truncated, is below 300.
    bool IsStable(double intercept, double sd) const;

private:
    void DropPacket();

    std::vector<int32_t> m_current;
    std::vector<int32_t> m_previous;
    int64_t m_words = 0;
    bool m_stable = true;
    bool m_pingInProgress = false;
    int64_t m_pingStart = 0;
    int64_t m_pingEnd = 0;
    int64_t m_pingPeriod = 0;
    int64_t m_pingFrequency = 0;
    std::atomic<int64_t> m_displayFrequency{0};
    int64_t m_blockStartTicks = 0;
    int64_t m_maxPeriod;
    int64_t m_minPeriod;
    TriggerFskCallback* m_callback = nullptr;
    // The carrier as the edges report it.
    bool m_carrierOn = false;

    // Packet detector.
    DistanceAverager m_a;  // distance to the high centre
    DistanceAverager m_b;  // distance to the low centre
    int32_t m_highCentre = 0;
    int32_t m_lowCentre = 0;
    std::deque<int32_t> m_history;
    int64_t m_detectorWords = 0;
    bool m_active = false;
    int64_t m_packetStartCount = 0;
    int64_t m_packetStartTicks = 0;
    int64_t m_packetFromTicks = 0;  // start of the packet's first word, as its start time will be reckoned
    int64_t m_lastLowCount = 0;
    std::shared_ptr<TriggerData> m_packet;
};
