#include "common/Clock.h"
#include "events/DecoderLink.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

namespace {

class DecoderLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SetClock(&clock);
        link.sendDac = [this](int v) { sent.push_back(v); };
        link.showDac = [this](int v) { shown.push_back(v); };
        SettingParams::Instance().m_dac_manual = 0;
        SettingParams::Instance().m_dac_value = 1700;
    }
    void TearDown() override { SetClock(nullptr); }

    void GoodPackets(int n)
    {
        for (int k = 0; k < n; ++k)
            manager.AddGoodPacket();
    }

    ManualClock clock{50000};
    CDataManager manager;
    DecoderLink link{manager};
    std::vector<int> sent, shown;
};

}  // namespace

TEST_F(DecoderLinkTest, LinkIsLostOnceAfter1800MsWithoutAnAskPacket)
{
    EXPECT_TRUE(link.LinkIdle());
    EXPECT_FALSE(link.ClaimLinkLoss());  // no ASK packet yet
    link.SetLastAskTime(TickMs());
    EXPECT_FALSE(link.LinkIdle());
    clock.Advance(1800);
    EXPECT_FALSE(link.ClaimLinkLoss());
    clock.Advance(1);
    EXPECT_TRUE(link.ClaimLinkLoss());
    EXPECT_FALSE(link.ClaimLinkLoss());  // the second loop finds it claimed
    EXPECT_TRUE(link.LinkIdle());
}

TEST_F(DecoderLinkTest, LinkLossResetsReportsAndResendsTheDac)
{
    manager.AskFilter().SetPhase(5);
    link.SetDacValue(1900);
    link.LinkLost();
    EXPECT_EQ(manager.AskFilter().Phase(), 0);
    EXPECT_EQ(manager.QueuedEvents(), 1u);
    EXPECT_EQ(link.DacValue(), 1700);
    EXPECT_EQ(sent, std::vector<int>{1700});
    EXPECT_EQ(shown, std::vector<int>{1700});
    SettingParams::Instance().m_dac_manual = 1;
    link.LinkLost();
    EXPECT_EQ(sent.size(), 1u);
}

TEST_F(DecoderLinkTest, AutomaticLevelWaitsForElevenPacketsAnd201Ms)
{
    link.SetDacValue(2000);
    GoodPackets(10);
    link.AutoDacLevel(3500);
    EXPECT_EQ(link.DacValue(), 2000);
    GoodPackets(1);
    clock.Advance(201);
    link.AutoDacLevel(3500);
    EXPECT_EQ(link.DacValue(), 2010);
    EXPECT_EQ(sent, std::vector<int>{2010});
    clock.Advance(200);
    link.AutoDacLevel(3500);  // too soon
    EXPECT_EQ(link.DacValue(), 2010);
    clock.Advance(1);
    link.AutoDacLevel(2000);  // swing too small: down
    EXPECT_EQ(link.DacValue(), 2000);
    clock.Advance(201);
    link.AutoDacLevel(3000);  // within 2800..3200: no change, nothing sent
    EXPECT_EQ(link.DacValue(), 2000);
    EXPECT_EQ(sent.size(), 2u);
}

TEST_F(DecoderLinkTest, AutomaticLevelStaysWithin1500And2400)
{
    GoodPackets(11);
    link.SetDacValue(2400);
    clock.Advance(1000);
    link.AutoDacLevel(4000);
    EXPECT_EQ(link.DacValue(), 2400);
    EXPECT_TRUE(sent.empty());  // unchanged: nothing sent
    link.SetDacValue(1500);
    clock.Advance(1000);
    link.AutoDacLevel(100);
    EXPECT_EQ(link.DacValue(), 1500);
    link.SetManualActing(true);
    link.SetDacValue(2000);
    clock.Advance(1000);
    link.AutoDacLevel(4000);
    EXPECT_EQ(link.DacValue(), 2000);
}

TEST_F(DecoderLinkTest, PingsPassOnlyWhileTheLinkIsIdle)
{
    EXPECT_TRUE(link.LinkIdle());
    link.SetLastAskTime(123);
    EXPECT_FALSE(link.LinkIdle());
}
