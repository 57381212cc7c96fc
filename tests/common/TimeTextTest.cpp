#include "common/TimeText.h"

#include <gtest/gtest.h>

TEST(TimeText, FormatsHoursMinutesSecondsMicroseconds)
{
    EXPECT_EQ(TimeText(0), "00:00:00.000000");
    EXPECT_EQ(TimeText(1), "00:00:00.000001");
    EXPECT_EQ(TimeText(3723000456LL), "01:02:03.000456");
}

TEST(TimeText, HoursWrapWithinTheDay)
{
    const int64_t day = 86400LL * 1000000LL;
    EXPECT_EQ(TimeText(day), "00:00:00.000000");
    EXPECT_EQ(TimeText(day + 25 * 3600LL * 1000000LL - 1), "00:59:59.999999");
    EXPECT_EQ(TimeText(day - 1), "23:59:59.999999");
}

TEST(SpacedHex, UpperCasePairsEachFollowedByABlank)
{
    const uint8_t bytes[] = {0x03, 0xFF, 0xfc, 0x0a};
    EXPECT_EQ(SpacedHex(bytes, 4), "03 FF FC 0A ");
    EXPECT_EQ(SpacedHex(bytes, 0), "");
}
