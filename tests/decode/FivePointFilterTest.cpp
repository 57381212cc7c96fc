#include "decode/AskStream.h"

#include <gtest/gtest.h>

TEST(FivePointFilter, FewerThanFiveSamplesPassUnchanged)
{
    std::vector<int32_t> x{7, 100, -3, 42}, y;
    FivePointFilter(x, y);
    EXPECT_EQ(y, x);
}

TEST(FivePointFilter, EndsAndMiddleFollowTheirFormulas)
{
    std::vector<int32_t> x{10, 20, 30, 40, 50, 60, 70}, y;
    FivePointFilter(x, y);
    ASSERT_EQ(y.size(), 7u);
    EXPECT_EQ(y[0], (3 * 10 + 2 * 20 + 30 - 50) / 5);
    EXPECT_EQ(y[1], (4 * 10 + 3 * 20 + 2 * 30 + 40) / 10);
    EXPECT_EQ(y[2], (10 + 20 + 30 + 40 + 50) / 5);
    EXPECT_EQ(y[3], (20 + 30 + 40 + 50 + 60) / 5);
    EXPECT_EQ(y[4], (30 + 40 + 50 + 60 + 70) / 5);
    EXPECT_EQ(y[5], (4 * 70 + 3 * 60 + 2 * 50 + 40) / 10);
    EXPECT_EQ(y[6], (3 * 70 + 2 * 60 + 50 - 30) / 5);
}

TEST(FivePointFilter, TruncatesTowardZero)
{
    // y[0] = (3*0 + 2*0 + 0 - 7) / 5 = -1.4 -> -1, not -2.
    std::vector<int32_t> x{0, 0, 0, 0, 7}, y;
    FivePointFilter(x, y);
    EXPECT_EQ(y[0], -1);
    // middle: 7/5 = 1.4 -> 1
    EXPECT_EQ(y[2], 1);
}
