#include "common/Clock.h"
#include "common/Data.h"

#include <gtest/gtest.h>

TEST(Data, ChunkHoldsItsBytesAndPayloadPointsNineIn)
{
    const uint8_t bytes[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    auto d = Data::FromBytes(bytes, 12);
    EXPECT_EQ(d->length, 12);
    EXPECT_EQ(d->capacity, 12);
    EXPECT_EQ(d->payload, d->buffer.get() + 9);
    EXPECT_EQ(d->payload[0], 10);
}

TEST(Data, SmallChunkHasNoPayloadPointer)
{
    Data d(4);
    EXPECT_EQ(d.payload, nullptr);
    EXPECT_EQ(d.length, 0);
    EXPECT_EQ(d.capacity, 4);
}

TEST(Clock, ManualClockDrivesTheProcessTick)
{
    ManualClock manual(1000);
    SetClock(&manual);
    EXPECT_EQ(TickMs(), 1000);
    manual.Advance(250);
    EXPECT_EQ(TickMs(), 1250);
    SetClock(nullptr);
    EXPECT_NE(TickMs(), 1250);
}
