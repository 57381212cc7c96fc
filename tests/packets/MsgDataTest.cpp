#include "packets/Packets.h"

#include <gtest/gtest.h>

TEST(CMsgData, NewRecordIsEmpty)
{
    CMsgData m;
    EXPECT_EQ(m.header, 0);
    for (uint8_t b : m.message)
        EXPECT_EQ(b, 0);
    EXPECT_EQ(m.checksum, 0);
    EXPECT_EQ(m.size, 0);
    EXPECT_EQ(m.reservedFlag, 0);
    EXPECT_EQ(m.direction, 0u);
    EXPECT_EQ(m.pattern, 0);
    EXPECT_EQ(m.powerValue, 0u);
    EXPECT_EQ(m.powerRatio, 0.0);
    EXPECT_TRUE(m.logData.empty());
    EXPECT_TRUE(m.packet.Status.empty());
    EXPECT_EQ(m.capture, nullptr);
}

TEST(CMsgData, BaseTextOperationsGiveEmptyStrings)
{
    CMsgData m;
    std::string s = "old";
    m.typeString(s);
    EXPECT_EQ(s, "");
    s = "old";
    m.Summary(s);
    EXPECT_EQ(s, "");
}

TEST(CMsgData, RawFrameStartsAtMessageWithHeaderByte)
{
    const uint8_t frame[] = {0x03, 0xFF, 0xFC};
    CMsgData m;
    m.SetFrame(frame, 3);
    EXPECT_EQ(m.header, 0);
    EXPECT_EQ(m.message[0], 0x03);
    EXPECT_EQ(m.message[1], 0xFF);
    EXPECT_EQ(m.message[2], 0xFC);
    EXPECT_EQ(m.message[3], 0x00);
    EXPECT_EQ(m.size, 3);
}

TEST(CMsgData, FrameAreaRunsOnIntoChecksumAndSize)
{
    uint8_t frame[60];
    for (int i = 0; i < 60; ++i)
        frame[i] = static_cast<uint8_t>(i + 1);
    CMsgData m;
    m.SetFrameByte(50, 0xAB);
    EXPECT_EQ(m.checksum, 0xAB);
    EXPECT_EQ(m.FrameByte(50), 0xAB);
    m.SetFrame(frame, 60);
    EXPECT_EQ(m.message[49], 50);
    EXPECT_EQ(m.checksum, 51);
    // The byte count is written last, over the area's last byte.
    EXPECT_EQ(m.size, 60);
    EXPECT_EQ(m.FrameByte(52), 0);  // nothing past the area is written or read
    EXPECT_EQ(m.reserved1, 0u);
}

TEST(CMsgData, FillTimingFromTheCaptureRecord)
{
    TriggerData t;
    t.startTime = 3723000456ULL;
    t.endTime = 3723027956ULL;
    CMsgData m;
    FillTiming(m, t, 128000);
    EXPECT_EQ(m.timing.startTime, 3723000456ULL);
    EXPECT_EQ(m.timing.endTime, 3723027956ULL);
    EXPECT_EQ(m.timing.bitTimesUs, 27500u);
    EXPECT_EQ(m.timing.carrierCurrentHz, 128000u);
    EXPECT_EQ(m.timing.startTimeStamp, "01:02:03.000456");
    EXPECT_EQ(m.timing.endTimeStamp, "01:02:03.027956");
    EXPECT_EQ(m.timing.duration, "00:00:00.027500");
}
