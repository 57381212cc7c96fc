// The wave panels: their two kinds, the free-running roll, the AutoTrigger
// view of the newest packet of their direction, Pause, and the ASK panel's DAC
// controls with their settings. Bad input (no capture record, nothing to
// show, a value outside the slider's range) leaves the panel as it was.
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "views/QwtChart.h"
#include "views/SampleGui.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QTemporaryDir>
#include <QTest>
#include <QtCharts/QSplineSeries>
#include <QtCharts/QValueAxis>

#include <fstream>

using namespace QtCharts;

namespace {

class SampleGuiTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams& s = SettingParams::Instance();
        s.m_dac_locked = 0;
        s.m_dac_manual = 0;
        s.m_dac_value = 1700;
        s.m_ask_trigger_samples = 2200;
    }
    static MsgInfoPtr Packet(int direction, std::vector<int32_t> samples, const char* summary = "Summary text",
                             bool withCapture = true)
    {
        auto e = std::make_shared<MsgInfo>();
        e->direction = direction;
        e->common.Summary = summary;
        e->common.typeString = "ControlError";
        e->common.logData = "ControlError 1.0%";
        e->packet.PacketData = "03 05 06 ";
        if (withCapture) {
            e->capture = std::make_shared<TriggerData>();
            e->capture->samples = std::move(samples);
        }
        return e;
    }
    static QString Field(SampleGui& g, const char* name) { return g.findChild<QLineEdit*>(name)->text(); }
    static std::vector<double> Ys(SampleGui& g)
    {
        std::vector<double> ys;
        for (const QPointF& p : g.Chart()->Series()->pointsVector())
            ys.push_back(p.y());
        return ys;
    }
};

std::list<uint16_t> Samples(int from, int count)
{
    std::list<uint16_t> out;
    for (int k = 0; k < count; ++k)
        out.push_back(static_cast<uint16_t>(from + k));
    return out;
}

}  // namespace

TEST_F(SampleGuiTest, FormAsTheDesignerMadeItForBothKinds)
{
    SampleGui ask(5);
    EXPECT_EQ(ask.objectName(), "SampleGuiClass");
    EXPECT_EQ(ask.windowTitle(), "ASK Wave");
    EXPECT_EQ(ask.size(), QSize(846, 542));
    EXPECT_EQ(ask.Chart()->Kind(), 5);
    EXPECT_EQ(ask.Chart()->XSpan(), 500);
    EXPECT_TRUE(ask.FreeRun());
    EXPECT_FALSE(ask.Paused());
    struct Row {
        const char* name;
        const char* text;
    } boxes[] = {{"checkBox", "Manual DAC"}, {"checkBox_Lock", "Lock"}, {"checkBox_autoTrigger", "Auto Trigger"}};
    for (const Row& r : boxes)
        EXPECT_EQ(ask.findChild<QCheckBox*>(r.name)->text(), r.text) << r.name;
    EXPECT_FALSE(ask.findChild<QCheckBox*>("checkBox_autoTrigger")->isChecked());
    EXPECT_EQ(ask.findChild<QPushButton*>("pushButton")->text(), "Pause");
    EXPECT_EQ(ask.findChild<QGroupBox*>("groupBox")->title(), "Packet Info");
    Row labels[] = {{"label", "Summary"}, {"label_2", "Type"}, {"label_3", "Log Data"}, {"label_4", "Packet Data"}};
    for (const Row& r : labels)
        EXPECT_EQ(ask.findChild<QLabel*>(r.name)->text(), r.text) << r.name;
    for (const char* edit : {"lineEdit_summary", "lineEdit_typestring", "lineEdit_logdata", "lineEdit_packetdata"})
        EXPECT_TRUE(ask.findChild<QLineEdit*>(edit)) << edit;
    // The DAC controls read the settings: range 1100 .. 2700, value 1700,
    // disabled until "Manual DAC".
    EXPECT_EQ(ask.findChild<QLabel*>("label_dac_min")->text(), "1100");
    EXPECT_EQ(ask.findChild<QLabel*>("label_dac_max")->text(), "2700");
    QSlider* slider = ask.findChild<QSlider*>("horizontalSlider");
    EXPECT_EQ(slider->orientation(), Qt::Horizontal);
    EXPECT_EQ(slider->minimum(), 1100);
    EXPECT_EQ(slider->maximum(), 2700);
    EXPECT_EQ(slider->value(), 1700);
    EXPECT_FALSE(slider->isEnabled());
    EXPECT_TRUE(ask.findChild<QCheckBox*>("checkBox")->isEnabled());
    // The chart stands above the packet box.
    ask.show();
    EXPECT_LT(ask.Chart()->geometry().bottom(), ask.findChild<QGroupBox*>("groupBox")->geometry().top());

    SampleGui fsk(6);
    EXPECT_EQ(fsk.windowTitle(), "FSK Wave");
    fsk.show();
    for (const char* name : {"checkBox", "checkBox_Lock", "horizontalSlider", "label_dac_min", "label_dac_max"})
        EXPECT_FALSE(fsk.findChild<QWidget*>(name)->isVisible()) << name;
    EXPECT_TRUE(fsk.findChild<QCheckBox*>("checkBox_autoTrigger")->isVisible());
}

TEST_F(SampleGuiTest, FreeRunRollsTheLast500SamplesNumberedFromZero)
{
    SampleGui g(5);
    g.show();
    g.ShowSamples(Samples(0, 300));
    g.ShowSamples(Samples(1000, 300));
    const std::vector<double> ys = Ys(g);
    ASSERT_EQ(ys.size(), 500u);
    EXPECT_EQ(ys.front(), 100.0);  // the first 100 rolled off
    EXPECT_EQ(ys.back(), 1299.0);
    const auto points = g.Chart()->Series()->pointsVector();
    EXPECT_EQ(points.front().x(), 0.0);
    EXPECT_EQ(points.back().x(), 499.0);
}

TEST_F(SampleGuiTest, EmptySampleListAndPauseLeaveTheWaveAsItWas)
{
    SampleGui g(5);
    g.show();
    g.ShowSamples({});
    EXPECT_EQ(g.Chart()->Series()->count(), 0);
    g.ShowSamples(Samples(10, 20));
    const std::vector<double> before = Ys(g);
    g.ShowSamples({});
    EXPECT_EQ(Ys(g), before);
    QTest::mouseClick(g.findChild<QPushButton*>("pushButton"), Qt::LeftButton);
    EXPECT_TRUE(g.Paused());
    EXPECT_EQ(g.findChild<QPushButton*>("pushButton")->text(), "Run");
    g.ShowSamples(Samples(500, 50));
    g.ShowPackets({Packet(2, {1, 2, 3})});
    EXPECT_EQ(Ys(g), before);
    EXPECT_TRUE(Field(g, "lineEdit_summary").isEmpty());
    QTest::mouseClick(g.findChild<QPushButton*>("pushButton"), Qt::LeftButton);
    EXPECT_FALSE(g.Paused());
    EXPECT_EQ(g.findChild<QPushButton*>("pushButton")->text(), "Pause");
    g.ShowSamples(Samples(500, 5));
    EXPECT_EQ(Ys(g).size(), before.size() + 5);
}

TEST_F(SampleGuiTest, AutoTriggerShowsTheNewestPacketOfItsDirectionWithItsFields)
{
    SettingParams::Instance().m_ask_trigger_samples = 1800;
    SampleGui ask(5);
    SampleGui fsk(6);
    ask.show();
    fsk.show();
    QTest::mouseClick(ask.findChild<QCheckBox*>("checkBox_autoTrigger"), Qt::LeftButton);
    QTest::mouseClick(fsk.findChild<QCheckBox*>("checkBox_autoTrigger"), Qt::LeftButton);
    EXPECT_FALSE(ask.FreeRun());
    EXPECT_FALSE(fsk.FreeRun());
    EXPECT_EQ(ask.Chart()->AxisX()->max(), 1800);
    EXPECT_EQ(fsk.Chart()->AxisX()->max(), 2000);

    const std::vector<MsgInfoPtr> batch = {Packet(1, {7000, 7100}, "fsk"), Packet(2, {100, 3000, 200}, "ask")};
    ask.ShowPackets(batch);
    fsk.ShowPackets(batch);
    EXPECT_EQ(Ys(ask), (std::vector<double>{100, 3000, 200}));
    EXPECT_EQ(Field(ask, "lineEdit_summary"), "ask");
    EXPECT_EQ(Field(ask, "lineEdit_typestring"), "ControlError");
    EXPECT_EQ(Field(ask, "lineEdit_logdata"), "ControlError 1.0%");
    EXPECT_EQ(Field(ask, "lineEdit_packetdata"), "03 05 06 ");
    // The newest entry is the ASK one: the FSK panel does nothing, even though
    // an earlier entry was its own.
    EXPECT_EQ(fsk.Chart()->Series()->count(), 0);
    EXPECT_TRUE(Field(fsk, "lineEdit_summary").isEmpty());
    fsk.ShowPackets({Packet(1, {7000, 7100, 7200}, "fsk")});
    EXPECT_EQ(Ys(fsk), (std::vector<double>{7000, 7100, 7200}));
    EXPECT_EQ(Field(fsk, "lineEdit_summary"), "fsk");
}

TEST_F(SampleGuiTest, AutoTriggerWithNoPacketOfThisDirectionKeepsTheOldWave)
{
    SampleGui ask(5);
    ask.show();
    QTest::mouseClick(ask.findChild<QCheckBox*>("checkBox_autoTrigger"), Qt::LeftButton);
    ask.ShowPackets({Packet(2, {5, 6, 7}, "first")});
    ask.ShowPackets({Packet(1, {9, 9}, "fsk")});
    ask.ShowPackets({});
    ask.ShowPackets({nullptr});
    EXPECT_EQ(Ys(ask), (std::vector<double>{5, 6, 7}));
    EXPECT_EQ(Field(ask, "lineEdit_summary"), "first");
}

TEST_F(SampleGuiTest, PacketWithNoCaptureRecordGivesItsFieldsAndKeepsTheWave)
{
    SampleGui ask(5);
    ask.show();
    QTest::mouseClick(ask.findChild<QCheckBox*>("checkBox_autoTrigger"), Qt::LeftButton);
    ask.ShowPackets({Packet(2, {5, 6, 7}, "first")});
    ask.ShowPackets({Packet(2, {}, "no record", false)});
    EXPECT_EQ(Ys(ask), (std::vector<double>{5, 6, 7}));
    EXPECT_EQ(Field(ask, "lineEdit_summary"), "no record");
    ask.ShowPackets({Packet(2, {}, "empty record")});
    EXPECT_EQ(Ys(ask), (std::vector<double>{5, 6, 7}));
    EXPECT_EQ(Field(ask, "lineEdit_summary"), "empty record");
}

TEST_F(SampleGuiTest, UncheckingAutoTriggerEmptiesTheFieldsAndTheOldWaveRollsOff)
{
    SampleGui ask(5);
    ask.show();
    auto* box = ask.findChild<QCheckBox*>("checkBox_autoTrigger");
    QTest::mouseClick(box, Qt::LeftButton);
    std::vector<int32_t> wave(300, 3333);
    ask.ShowPackets({Packet(2, wave, "shown")});
    QTest::mouseClick(box, Qt::LeftButton);
    EXPECT_TRUE(ask.FreeRun());
    EXPECT_EQ(ask.Chart()->AxisX()->max(), 500);
    for (const char* edit : {"lineEdit_summary", "lineEdit_typestring", "lineEdit_logdata", "lineEdit_packetdata"})
        EXPECT_TRUE(Field(ask, edit).isEmpty()) << edit;
    ask.ShowSamples(Samples(0, 250));
    std::vector<double> ys = Ys(ask);
    ASSERT_EQ(ys.size(), 500u);
    EXPECT_EQ(ys.front(), 3333.0);  // the packet's wave rolls on
    ask.ShowSamples(Samples(250, 250));
    ys = Ys(ask);
    ASSERT_EQ(ys.size(), 500u);
    EXPECT_EQ(ys.front(), 0.0);  // and is gone
    EXPECT_EQ(ys.back(), 499.0);
}

TEST_F(SampleGuiTest, ManualActingEnablesTheSliderWhichSendsItsValue)
{
    SampleGui ask(5);
    ask.show();
    QSignalSpy sent(&ask, &SampleGui::signal_dac_change);
    EXPECT_TRUE(ask.AutoDacAllowed());
    QTest::mouseClick(ask.ManualBox(), Qt::LeftButton);
    EXPECT_TRUE(ask.Slider()->isEnabled());
    EXPECT_FALSE(ask.AutoDacAllowed());
    ask.Slider()->setFocus();
    QTest::keyClick(ask.Slider(), Qt::Key_PageUp);
    ASSERT_EQ(sent.count(), 1);
    EXPECT_EQ(sent[0][0].toInt(), 1700 + ask.Slider()->pageStep());
    // Not written into the settings: only the configuration dialog does.
    EXPECT_EQ(SettingParams::Instance().m_dac_value, 1700);
    // Manual DAC alone isn't saved.
    EXPECT_EQ(SettingParams::Instance().m_dac_manual, 0);
    QTest::mouseClick(ask.ManualBox(), Qt::LeftButton);
    EXPECT_FALSE(ask.Slider()->isEnabled());
}

TEST_F(SampleGuiTest, DacValueOutsideTheSliderRangeIsHeldAtItsEnds)
{
    SampleGui ask(5);
    QSignalSpy sent(&ask, &SampleGui::signal_dac_change);
    ask.SetSliderValue(5000);
    EXPECT_EQ(ask.Slider()->value(), 2700);
    ask.SetSliderValue(-3);
    EXPECT_EQ(ask.Slider()->value(), 1100);
    ASSERT_EQ(sent.count(), 2);
    EXPECT_EQ(sent[0][0].toInt(), 2700);
    EXPECT_EQ(sent[1][0].toInt(), 1100);
    // A settings value outside the range starts the slider at its end.
    SettingParams::Instance().m_dac_value = 9000;
    SampleGui again(5);
    EXPECT_EQ(again.Slider()->value(), 2700);
}

TEST_F(SampleGuiTest, LockSavesBothBoxesAndDisablesTheControls)
{
    SampleGui ask(5);
    ask.show();
    QTest::mouseClick(ask.ManualBox(), Qt::LeftButton);
    QTest::mouseClick(ask.LockBox(), Qt::LeftButton);
    EXPECT_EQ(SettingParams::Instance().m_dac_locked, 1);
    EXPECT_EQ(SettingParams::Instance().m_dac_manual, 1);
    EXPECT_FALSE(ask.ManualBox()->isEnabled());
    EXPECT_FALSE(ask.Slider()->isEnabled());
    std::ifstream in(AppSettings::Instance().FilePath());
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("\"m_dac_locked\" : 1"), std::string::npos) << text;
    EXPECT_NE(text.find("\"m_dac_manual\" : 1"), std::string::npos) << text;
    // Unlocked: Manual DAC is back, and the slider with it while checked.
    QTest::mouseClick(ask.LockBox(), Qt::LeftButton);
    EXPECT_EQ(SettingParams::Instance().m_dac_locked, 0);
    EXPECT_TRUE(ask.ManualBox()->isEnabled());
    EXPECT_TRUE(ask.Slider()->isEnabled());
    QTest::mouseClick(ask.ManualBox(), Qt::LeftButton);
    QTest::mouseClick(ask.LockBox(), Qt::LeftButton);
    QTest::mouseClick(ask.LockBox(), Qt::LeftButton);
    EXPECT_EQ(SettingParams::Instance().m_dac_manual, 0);
    EXPECT_FALSE(ask.Slider()->isEnabled());
}

TEST_F(SampleGuiTest, LockedDacAtRestartShowsLockCheckedAndTheControlsDisabled)
{
    {
        SampleGui ask(5);
        ask.show();
        QTest::mouseClick(ask.LockBox(), Qt::LeftButton);
    }
    AppSettings::ReloadForTest();  // the application starts again
    ASSERT_EQ(SettingParams::Instance().m_dac_locked, 1);
    SampleGui ask(5);
    EXPECT_TRUE(ask.LockBox()->isChecked());
    EXPECT_FALSE(ask.ManualBox()->isEnabled());
    EXPECT_FALSE(ask.Slider()->isEnabled());
}

TEST_F(SampleGuiTest, ManualActingIsNotRestoredAtStart)
{
    {
        SampleGui ask(5);
        ask.show();
        QTest::mouseClick(ask.ManualBox(), Qt::LeftButton);
        QTest::mouseClick(ask.LockBox(), Qt::LeftButton);
    }
    AppSettings::ReloadForTest();
    ASSERT_EQ(SettingParams::Instance().m_dac_manual, 1);
    SampleGui ask(5);
    EXPECT_FALSE(ask.ManualBox()->isChecked());
    EXPECT_TRUE(ask.AutoDacAllowed());
}

TEST_F(SampleGuiTest, FskRangeMovesOnlyWhenAnEndMovesBy101)
{
    SampleGui fsk(6);
    fsk.AdjustYRange(6850, 7150);
    EXPECT_EQ(fsk.Chart()->AxisY()->min(), 6850);
    fsk.AdjustYRange(6950, 7250);
    EXPECT_EQ(fsk.Chart()->AxisY()->min(), 6850);
    fsk.AdjustYRange(6951, 7251);
    EXPECT_EQ(fsk.Chart()->AxisY()->min(), 6951);
    EXPECT_EQ(fsk.Chart()->AxisY()->max(), 7251);
}

TEST_F(SampleGuiTest, HiddenPanelTakesNothing)
{
    SampleGui g(5);
    g.ShowSamples(Samples(0, 100));
    EXPECT_EQ(g.Chart()->Replacements(), 0);
    g.show();
    g.ShowSamples(Samples(0, 100));
    EXPECT_EQ(g.Chart()->Replacements(), 1);
}
