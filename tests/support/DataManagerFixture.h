// A data manager on a hand-driven clock, for tests that hand it frames and
// look at the events it releases.
#pragma once

#include "common/Clock.h"
#include "events/DataManager.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

class DataManagerFixture : public ::testing::Test {
protected:
    void SetUp() override { SetClock(&clock); }
    void TearDown() override { SetClock(nullptr); }

    // One refresh pumps the decoders' frames into the queue; a second, more
    // than a second later, releases what is queued.
    std::vector<MsgInfoPtr> Drain()
    {
        std::vector<MsgInfoPtr> out, later;
        dm.GetEvents(out);
        clock.Advance(1001);
        dm.GetEvents(later);
        out.insert(out.end(), later.begin(), later.end());
        return out;
    }

    // Both FSK readers have looked past every frame handed to the FSK filter
    // (the frame decoder has decoded everything, the second reader has read
    // every word and found nothing), so that those frames are not held.
    void FskReadersPassed()
    {
        dm.FskChainPassed(uint64_t{1} << 60);
        dm.AddFskWireFrames({}, int64_t{1} << 60);
    }

    static std::vector<std::string> Texts(const std::vector<MsgInfoPtr>& events)
    {
        std::vector<std::string> out;
        for (const auto& e : events)
            out.push_back(e->str.toStdString());
        return out;
    }

    ManualClock clock{100000};
    CDataManager dm;
};
