#include "common/Clock.h"
#include "events/DecoderLink.h"
#include "services/SettingParams.h"
#include "sim/FskSynth.h"

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

TEST_F(DecoderLinkTest, TheSecondFskReaderReadsTheWordsItIsHandedAndHearsTheChainsProgress)
{
    EXPECT_TRUE(link.ReadsFskWire());  // on by default
    manager.SetSecondFskReader(false);
    EXPECT_FALSE(link.ReadsFskWire());
    manager.SetSecondFskReader(true);
    // An ACK at 128 kHz on a quiet carrier, handed over in two parts.
    qisim::FskWaveParams p;
    qisim::FskWaveWriter w(p, 3);
    w.Carrier(100);
    w.Pattern(0xFF);
    w.Carrier(100);
    std::vector<uint16_t> words = w.Words();
    std::vector<int64_t> ticks(words.size());
    int64_t at = 0;
    for (size_t i = 0; i < words.size(); ++i)
        ticks[i] = at += words[i];
    const size_t half = words.size() / 2;
    link.ReadFskWire(words.data(), ticks.data(), half);
    link.ReadFskWire(words.data() + half, ticks.data() + half, words.size() - half);
    link.FskChainPassed(static_cast<uint64_t>(at / 60));
    manager.AskFilter().SetPhase(3);
    std::vector<MsgInfoPtr> out, later;
    manager.GetEvents(out);
    clock.Advance(1001);
    manager.GetEvents(later);
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0]->str.toStdString(), "Pattern: ACK");
    EXPECT_EQ(later[0]->packet.reading, "recovered");
    // The record holds the words of the pattern: eight bits of 32 words.
    ASSERT_TRUE(later[0]->capture);
    EXPECT_GE(later[0]->capture->samples.size(), 256u);
    EXPECT_LE(later[0]->capture->samples.size(), 258u);
}

TEST_F(DecoderLinkTest, TheSecondFskReaderLooksForTheCarrierInTheBandItIsGiven)
{
    // The same ACK at 128 kHz, with a band of 140 to 210 kHz: no carrier.
    manager.SetFskBand(140000, 210000);
    qisim::FskWaveParams p;
    qisim::FskWaveWriter w(p, 3);
    w.Carrier(100);
    w.Pattern(0xFF);
    w.Carrier(100);
    std::vector<uint16_t> words = w.Words();
    std::vector<int64_t> ticks(words.size());
    int64_t at = 0;
    for (size_t i = 0; i < words.size(); ++i)
        ticks[i] = at += words[i];
    link.ReadFskWire(words.data(), ticks.data(), words.size());
    link.FskChainPassed(static_cast<uint64_t>(at / 60));
    std::vector<MsgInfoPtr> out, later;
    manager.GetEvents(out);
    clock.Advance(1001);
    manager.GetEvents(later);
    EXPECT_TRUE(later.empty());
    EXPECT_EQ(manager.FskMerges().recovered, 0);
}
