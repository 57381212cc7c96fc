// The merge of the FSK frame decoder with the second FSK reader in the data
// manager: their frames wait for each other, then the second reader fills
// what the frame decoder missed and corrects what it misread; response
// patterns keep the texts of the pattern table.
#include "DataManagerFixture.h"
#include "common/TimeText.h"

#include <gtest/gtest.h>

namespace {

class FskMergeTest : public DataManagerFixture {
protected:
    void SetUp() override
    {
        DataManagerFixture::SetUp();
        dm.AskFilter().SetPhase(3);  // negotiation, where NAK and ND are shown
    }

    // A frame of the frame decoder over microseconds first .. last.
    static std::shared_ptr<CMsgData> ChainFrame(std::vector<uint8_t> bytes, uint64_t first, uint64_t last,
                                                bool pattern = false, const char* status = "NoError")
    {
        auto f = std::make_shared<CMsgData>();
        f->SetFrame(bytes.data(), bytes.size());
        f->direction = 1;
        f->pattern = pattern ? 1 : 0;
        f->packet.Status = status;
        f->packet.PacketData = SpacedHex(bytes.data(), bytes.size());
        f->packet.numbytesInPacket = bytes.size();
        f->capture = std::make_shared<TriggerData>();
        f->capture->startTime = first;
        f->capture->endTime = last;
        f->timing.startTime = first;
        f->timing.carrierCurrentHz = 1;  // tells the frame decoder's frame from the other
        return f;
    }

    // A frame of the second reader over microseconds first .. last.
    static FskWireFrame WireFrame(std::vector<uint8_t> bytes, uint64_t first, uint64_t last, bool pattern = false)
    {
        FskWireFrame w;
        w.bytes = std::move(bytes);
        w.pattern = pattern;
        w.patternBits = pattern ? (w.bytes[0] == 0xBB ? 0x55 : w.bytes[0]) : 0;
        w.startTicks = static_cast<int64_t>(first) * 60;
        w.endTicks = static_cast<int64_t>(last) * 60;
        w.cyclesPerBit = 512;
        w.carrierPeriod = 7500;
        w.modulatedPeriod = 7440;
        w.polarity = -1;
        return w;
    }

    static int64_t Ticks(uint64_t us) { return static_cast<int64_t>(us) * 60; }
};

}  // namespace

TEST_F(FskMergeTest, ASecondReaderFrameWhereTheFrameDecoderGaveNothingIsRecovered)
{
    dm.AddFskWireFrames({WireFrame({0x1F, 0x64, 0x7B}, 100000, 160000)}, Ticks(200000));
    dm.FskChainPassed(200000);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->direction, 1);
    EXPECT_EQ(events[0]->packet.PacketData, "1F 64 7B ");
    EXPECT_EQ(events[0]->packet.reading, "recovered");
    EXPECT_EQ(events[0]->packet.otherReading, "");
    EXPECT_EQ(events[0]->str.toStdString(), "Charge Status Battery charge level:100 @0HZ");
    // The carrier the reader measured, and the packet's span.
    EXPECT_EQ(events[0]->timing.carrierCurrentHz, 128000u);
    EXPECT_EQ(events[0]->timing.startTime, 100000u);
    EXPECT_EQ(dm.FskMerges().recovered, 1);
}

TEST_F(FskMergeTest, TheSameBytesFromBothKeepTheFrameDecodersFrameUnmarked)
{
    dm.FskFilter().Emit(ChainFrame({0x1F, 0x64, 0x7B}, 95000, 170000));
    dm.AddFskWireFrames({WireFrame({0x1F, 0x64, 0x7B}, 100000, 160000)}, Ticks(200000));
    dm.FskChainPassed(200000);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->timing.carrierCurrentHz, 1u);
    EXPECT_EQ(events[0]->packet.reading, "");
    EXPECT_EQ(dm.FskMerges().agreed, 1);
}

TEST_F(FskMergeTest, AForgivenShortenedFrameIsCorrectedAndKeptBeside)
{
    // The frame decoder re-locked inside the packet and forgave a checksum.
    dm.FskFilter().Emit(ChainFrame({0x4F, 0x03, 0x04, 0x00}, 130000, 170000));
    dm.AddFskWireFrames({WireFrame({0x4F, 0x01, 0x02, 0x03, 0x04, 0x4F ^ 1 ^ 2 ^ 3 ^ 4}, 100000, 160000)},
                        Ticks(200000));
    dm.FskChainPassed(200000);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.PacketData, "4F 01 02 03 04 4B ");
    EXPECT_EQ(events[0]->packet.reading, "corrected");
    EXPECT_EQ(events[0]->packet.otherReading, "4F 03 04 00 ");
    EXPECT_EQ(dm.FskMerges().corrected, 1);
}

TEST_F(FskMergeTest, PatternsKeepTheTextsOfThePatternTable)
{
    // The frame decoder reads the ACK too; NAK and ND only the second reader.
    dm.FskFilter().Emit(ChainFrame({0xFF}, 95000, 140000, true));
    dm.AddFskWireFrames({WireFrame({0xFF}, 100000, 135000, true), WireFrame({0x00}, 300000, 335000, true),
                         WireFrame({0xBB}, 500000, 535000, true)},
                        Ticks(600000));
    dm.FskChainPassed(600000);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(Texts(events), (std::vector<std::string>{"Pattern: ACK", "Pattern: NAK", "Pattern: ND"}));
    for (const auto& e : events) {
        EXPECT_EQ(e->type, 240);
        EXPECT_EQ(e->common.typeString, "Tx Pattern");
    }
    EXPECT_EQ(events[0]->packet.reading, "");
    EXPECT_EQ(events[1]->packet.reading, "recovered");
    EXPECT_EQ(events[2]->common.logData, "Tx Pattern: ND");
    EXPECT_EQ(events[2]->packet.reading, "recovered");
    EXPECT_EQ(dm.FskMerges().agreed, 1);
    EXPECT_EQ(dm.FskMerges().recovered, 2);
}

TEST_F(FskMergeTest, ANakOrNdOutsideNegotiationIsDroppedAsEver)
{
    dm.AskFilter().SetPhase(5);
    dm.AddFskWireFrames({WireFrame({0x00}, 100000, 135000, true), WireFrame({0xBB}, 300000, 335000, true),
                         WireFrame({0xFF}, 500000, 535000, true)},
                        Ticks(600000));
    dm.FskChainPassed(600000);
    EXPECT_EQ(Texts(Drain()), std::vector<std::string>{"Pattern: ACK"});
}

TEST_F(FskMergeTest, FramesWaitUntilBothReadersHavePassedThem)
{
    dm.FskFilter().Emit(ChainFrame({0x1F, 0x64, 0x7B}, 95000, 170000));
    std::vector<MsgInfoPtr> out;
    // The second reader has not looked past the packet yet.
    dm.AddFskWireFrames({}, Ticks(90000));
    dm.FskChainPassed(200000);
    dm.GetEvents(out);
    clock.Advance(1001);
    dm.GetEvents(out);
    EXPECT_TRUE(out.empty());
    // Now it has, and read the same.
    dm.AddFskWireFrames({WireFrame({0x1F, 0x64, 0x7B}, 100000, 160000)}, Ticks(200000));
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.reading, "");
}

TEST_F(FskMergeTest, AFrameHeldTooLongIsGivenOut)
{
    // The stream stopped in the middle of a packet: the second reader never
    // looks past it.
    dm.FskFilter().Emit(ChainFrame({0x1F, 0x64, 0x7B}, 95000, 170000));
    dm.FskChainPassed(200000);
    std::vector<MsgInfoPtr> out;
    dm.GetEvents(out);
    clock.Advance(CDataManager::kHoldLimitMs + 1);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.PacketData, "1F 64 7B ");
}

TEST_F(FskMergeTest, WithTheSecondReaderOffTheFrameDecodersFramesGoStraightThrough)
{
    dm.SetSecondFskReader(false);
    dm.FskFilter().Emit(ChainFrame({0x1F, 0x10, 0x0F}, 95000, 170000));
    dm.AddFskWireFrames({WireFrame({0x1F, 0x64, 0x7B}, 100000, 160000)}, Ticks(200000));
    std::vector<MsgInfoPtr> first;
    dm.GetEvents(first);
    clock.Advance(1001);
    std::vector<MsgInfoPtr> events;
    dm.GetEvents(events);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->packet.PacketData, "1F 10 0F ");
    EXPECT_EQ(events[0]->packet.reading, "");
    EXPECT_EQ(dm.FskMerges().recovered + dm.FskMerges().corrected + dm.FskMerges().agreed, 0);
}

TEST_F(FskMergeTest, TheTwoSidesAreMergedApart)
{
    // An ASK frame and an FSK frame over the same microseconds never meet.
    dm.AddWireFrames({}, 100000);
    dm.ListDecoderPassed(100000);
    dm.AddFskWireFrames({WireFrame({0x1F, 0x64, 0x7B}, 100000, 160000)}, Ticks(200000));
    dm.FskChainPassed(200000);
    auto ask = std::make_shared<CMsgData>();
    const uint8_t bytes[] = {0x03, 0x05, 0x06};
    ask->SetFrame(bytes, 3);
    ask->direction = 2;
    ask->packet.Status = "NoError";
    ask->packet.PacketData = "03 05 06 ";
    ask->capture = std::make_shared<TriggerData>();
    ask->capture->startTime = 100000;
    ask->capture->endTime = 160000;
    dm.AskFilter().PutFrame(ask);
    const auto events = Drain();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(dm.Merges().recovered + dm.Merges().corrected + dm.Merges().agreed, 0);
    EXPECT_EQ(dm.FskMerges().recovered, 1);
}

TEST_F(FskMergeTest, ClearForgetsWhatIsHeld)
{
    dm.AddFskWireFrames({WireFrame({0x1F, 0x64, 0x7B}, 100000, 160000)}, Ticks(200000));
    std::vector<MsgInfoPtr> out;
    dm.GetEvents(out);  // held: the frame decoder has said nothing yet
    dm.Clear();
    dm.FskChainPassed(200000);
    EXPECT_TRUE(Drain().empty());
}
