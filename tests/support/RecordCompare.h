// Two capture records field by field, every pulse with its samples: what a
// record stored on disk and loaded back must equal.
#pragma once

#include "common/TriggerData.h"

#include <gtest/gtest.h>

inline void ExpectSameRecord(const TriggerData& a, const TriggerData& b)
{
    EXPECT_EQ(a.startTime, b.startTime);
    EXPECT_EQ(a.endTime, b.endTime);
    EXPECT_EQ(a.amplitude, b.amplitude);
    EXPECT_EQ(a.highPeriod, b.highPeriod);
    EXPECT_EQ(a.lowPeriod, b.lowPeriod);
    EXPECT_EQ(a.polarity, b.polarity);
    EXPECT_EQ(a.samples, b.samples);
    EXPECT_EQ(a.rawSamples, b.rawSamples);
    ASSERT_EQ(a.pulses.size(), b.pulses.size());
    for (size_t i = 0; i < a.pulses.size(); ++i) {
        EXPECT_EQ(a.pulses[i].duration, b.pulses[i].duration) << i;
        EXPECT_EQ(a.pulses[i].level, b.pulses[i].level) << i;
        EXPECT_EQ(a.pulses[i].mark, b.pulses[i].mark) << i;
        EXPECT_EQ(a.pulses[i].spare, b.pulses[i].spare) << i;
        EXPECT_EQ(a.pulses[i].samples, b.pulses[i].samples) << i;
    }
}
