// Capture records: one pulse, and one burst of pulses (an ASK packet candidate or
// an FSK packet) with its samples and times.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

struct PulseRecord {
    int64_t duration = 0;   // length of the pulse in samples
    uint8_t level = 0;      // 1 if the pulse ended on a rising edge, 0 on a falling one
    uint32_t mark = 0;      // number of the sample at the edge that ended the pulse
    int64_t spare = 0;      // position kept by the FSK chain
    std::vector<int32_t> samples;  // smoothed samples of the pulse
};

struct TriggerData {
    std::vector<PulseRecord> pulses;
    std::vector<int32_t> samples;
    std::vector<int32_t> rawSamples;
    uint64_t startTime = 0;  // time of the first sample, microseconds
    uint64_t endTime = 0;    // time of the last edge, microseconds
    int64_t amplitude = 0;   // largest minus smallest of samples
    int64_t highPeriod = 0;  // FSK only
    int64_t lowPeriod = 0;   // FSK only
    int64_t polarity = 0;    // FSK only
};

using TriggerDataPtr = std::shared_ptr<TriggerData>;
