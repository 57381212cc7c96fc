// The gauges: texts, bars at their ends, the frequency limits, the packet
// report and the bold tab title on focus.
#include "services/SettingParams.h"
#include "views/QEventInfo.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QTabBar>
#include <QTabWidget>

#include <cmath>

TEST(EventInfo, FormAndLimitsFromTheSettings)
{
    SettingParams::Instance().m_min_freq = 110000;
    SettingParams::Instance().m_max_freq = 205999;
    QEventInfo info;
    EXPECT_EQ(info.size(), QSize(640, 360));
    EXPECT_EQ(info.windowTitle(), "Event Info");
    EXPECT_EQ(info.Tabs()->tabText(0), "Event Info");
    EXPECT_EQ(info.FrequencyBar()->minimum(), 110000);
    EXPECT_EQ(info.FrequencyBar()->maximum(), 205999);
    EXPECT_EQ(info.FrequencyLeft()->text(), "110 kHz");
    EXPECT_EQ(info.FrequencyRight()->text(), "205 kHz");
    EXPECT_EQ(info.FrequencyLeft()->objectName(), "label_freq_left");
    EXPECT_TRUE(info.findChild<QLineEdit*>("lineEdit_freq"));
    EXPECT_TRUE(info.findChild<QProgressBar*>("progressBar_freq"));
}

TEST(EventInfo, TextsAndBars)
{
    SettingParams::Instance().m_min_freq = 110000;
    SettingParams::Instance().m_max_freq = 205000;
    QEventInfo info;
    info.SetFrequency(127.6543);
    EXPECT_EQ(info.FrequencyText()->text(), "127654 Hz");
    EXPECT_EQ(info.FrequencyBar()->value(), 127654);
    info.SetControlError(-12.34);
    EXPECT_EQ(info.ControlErrorText()->text(), "-12.3%");
    EXPECT_EQ(info.ControlErrorBar()->value(), -12);
    info.SetPower(45.06);
    EXPECT_EQ(info.PowerText()->text(), "45.1%");
    EXPECT_EQ(info.PowerBar()->value(), 45);
    info.SetPackets((int64_t{3} << 32) | 250);
    EXPECT_EQ(info.PacketsText()->text(), "3/250");
}

TEST(EventInfo, ControlErrorBeyondTheRangeShowsItsNumberWithTheBarAtItsEnd)
{
    QEventInfo info;
    info.SetControlError(127.0);
    EXPECT_EQ(info.ControlErrorText()->text(), "127.0%");
    EXPECT_EQ(info.ControlErrorBar()->value(), 100);
    info.SetControlError(-128.0);
    EXPECT_EQ(info.ControlErrorText()->text(), "-128.0%");
    EXPECT_EQ(info.ControlErrorBar()->value(), -100);
}

TEST(EventInfo, PowerOf250Point4ShowsItsNumberWithTheBarAt200)
{
    QEventInfo info;
    info.SetPower(250.4);
    EXPECT_EQ(info.PowerText()->text(), "250.4%");
    EXPECT_EQ(info.PowerBar()->value(), 200);
    EXPECT_EQ(info.PowerBar()->format(), "%v%");
}

TEST(EventInfo, FrequencyOutsideTheLimitsShowsItsValueAndNoProgress)
{
    SettingParams::Instance().m_min_freq = 110000;
    SettingParams::Instance().m_max_freq = 205000;
    QEventInfo info;
    info.SetFrequency(150.0);
    ASSERT_EQ(info.FrequencyBar()->value(), 150000);
    info.SetFrequency(250.0);
    EXPECT_EQ(info.FrequencyText()->text(), "250000 Hz");
    EXPECT_EQ(info.FrequencyBar()->value(), 150000);  // the bar doesn't move
    info.SetFrequency(90.0);
    EXPECT_EQ(info.FrequencyText()->text(), "90000 Hz");
    EXPECT_EQ(info.FrequencyBar()->value(), 150000);
}

TEST(EventInfo, NewLimitsTakeEffectAtOnce)
{
    QEventInfo info;
    info.SetLimits(100000, 300000);
    EXPECT_EQ(info.FrequencyLeft()->text(), "100 kHz");
    EXPECT_EQ(info.FrequencyRight()->text(), "300 kHz");
    info.SetFrequency(250.0);
    EXPECT_EQ(info.FrequencyBar()->value(), 250000);
}

TEST(EventInfo, ClearFallsBackToZero)
{
    QEventInfo info;
    info.SetControlError(10);
    info.SetPower(50);
    info.SetFrequency(128);
    info.SetPackets(7);
    info.Clear();
    EXPECT_EQ(info.ControlErrorText()->text(), "0.0%");
    EXPECT_EQ(info.PowerText()->text(), "0.0%");
    EXPECT_EQ(info.FrequencyText()->text(), "0 Hz");
    EXPECT_EQ(info.PacketsText()->text(), "0/0");
}

TEST(EventInfo, FocusMakesTheTabTitleBold)
{
    QEventInfo info;
    info.show();
    QApplication::setActiveWindow(&info);
    info.FrequencyText()->setFocus();
    QApplication::processEvents();
    EXPECT_TRUE(info.FocusTest());
    EXPECT_EQ(info.Tabs()->tabBar()->font().weight(), 75);
    info.FrequencyText()->clearFocus();
    QApplication::processEvents();
    EXPECT_FALSE(info.FocusTest());
    EXPECT_EQ(info.Tabs()->tabBar()->font().weight(), 50);
}

TEST(EventInfo, NotANumberIsShownNotFatal)
{
    QEventInfo info;
    info.SetFrequency(std::nan(""));
    info.SetControlError(std::nan(""));
    info.SetPower(1e300);
    EXPECT_EQ(info.PowerBar()->value(), 200);
    EXPECT_EQ(info.ControlErrorText()->text(), "nan%");
}
