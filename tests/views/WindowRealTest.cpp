// The real-time dock: the twenty-second history, which views are handed data,
// show flags, selection routing, Clear, and a whole session fed as the
// refresh cycle feeds it.
#include "ReplayedSession.h"
#include "ViewTestEvents.h"
#include "events/ui/QEventWindow.h"
#include "services/SettingParams.h"
#include "views/Properties.h"
#include "views/PropertyTree.h"
#include "views/QEventInfo.h"
#include "views/QWindowReal.h"
#include "views/QwtChart.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QTreeView>
#include <QtCharts/QSplineSeries>
#include <QtCharts/QValueAxis>

#include <set>

namespace {

class WindowRealTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UseViewSettings(dir.path().toStdString());
    }
    QTemporaryDir dir;
};

RealTimeSample Sample(float time, double kHz = 128.0, double percent = 40.0)
{
    RealTimeSample s;
    s.time = time;
    s.frequencyHz = kHz * 1000.0;
    s.percent = percent;
    s.controlError = 2.5;
    s.packets = (int64_t{1} << 32) | 9;
    return s;
}

bool Toggle(QWindowReal& dock, const char* iconText)
{
    QAction a;
    a.setIconText(QString::fromLatin1(iconText));
    return dock.TakeAction(&a);
}

}  // namespace

TEST_F(WindowRealTest, HistoryKeepsTwentySecondsAndTheChartsStartAtZero)
{
    QWindowReal dock;
    dock.show();
    for (int k = 0; k <= 1000; ++k)
        dock.PushSample(Sample(k * 0.03f));
    dock.Redraw();
    ASSERT_FALSE(dock.TimeAxis().isEmpty());
    EXPECT_LE(dock.TimeAxis().last() - dock.TimeAxis().first(), 20.0);
    EXPECT_GT(dock.TimeAxis().last() - dock.TimeAxis().first(), 19.9);
    EXPECT_EQ(dock.FrequencyHistory().size(), dock.TimeAxis().size());
    const auto* series = dock.FrequencyChart()->Series();
    ASSERT_EQ(series->count(), dock.TimeAxis().size());
    EXPECT_DOUBLE_EQ(series->at(0).x(), 0.0);
    EXPECT_DOUBLE_EQ(series->at(0).y(), 128.0);
    EXPECT_EQ(dock.PercentChart()->Series()->count(), dock.TimeAxis().size());
    EXPECT_EQ(dock.EventInfo()->FrequencyText()->text(), "128000 Hz");
    EXPECT_EQ(dock.EventInfo()->PacketsText()->text(), "1/9");
    EXPECT_EQ(dock.EventInfo()->PowerText()->text(), "40.0%");
    EXPECT_EQ(dock.EventInfo()->ControlErrorText()->text(), "2.5%");
}

TEST_F(WindowRealTest, SampleOlderThanTheOldestKeptDropsNothing)
{
    QWindowReal dock;
    for (int k = 0; k < 10; ++k)
        dock.PushSample(Sample(100.0f + k));
    dock.PushSample(Sample(50.0f));
    EXPECT_EQ(dock.TimeAxis().size(), 11);
    EXPECT_EQ(dock.TimeAxis().first(), 100.0);
}

TEST_F(WindowRealTest, HiddenChartIsGivenNothingButShowsTheWholeHistoryWhenShownAgain)
{
    QWindowReal dock;
    dock.show();
    ASSERT_TRUE(Toggle(dock, "FrequencyChart"));
    EXPECT_FALSE(dock.FrequencyChart()->isVisible());
    for (int k = 0; k < 400; ++k) {
        dock.PushSample(Sample(k * 0.03f));
        dock.Redraw();
    }
    EXPECT_EQ(dock.FrequencyChart()->Series()->count(), 0);
    EXPECT_EQ(dock.FrequencyChart()->Replacements(), 0);
    EXPECT_EQ(dock.PercentChart()->Series()->count(), 400);
    ASSERT_TRUE(Toggle(dock, "FrequencyChart"));
    dock.PushSample(Sample(400 * 0.03f));
    dock.Redraw();
    EXPECT_EQ(dock.FrequencyChart()->Series()->count(), 401);
}

TEST_F(WindowRealTest, ActionsFlipTheirViewByIconText)
{
    QWindowReal dock;
    dock.show();
    EXPECT_FALSE(Toggle(dock, "Something Else"));
    EXPECT_FALSE(Toggle(dock, "sniffer events"));  // case counts
    struct {
        const char* text;
        QWidget* view;
    } rows[] = {{"Sniffer Events", dock.EventWindow()},  {"EventInfo", dock.EventInfo()},
                {"FrequencyChart", dock.FrequencyChart()}, {"PercentageChart", dock.PercentChart()},
                {"EventPropertyChart", dock.PropertyView()}};
    for (auto& r : rows) {
        EXPECT_TRUE(r.view->isVisible()) << r.text;
        EXPECT_TRUE(Toggle(dock, r.text)) << r.text;
        EXPECT_FALSE(r.view->isVisible()) << r.text;
        EXPECT_TRUE(Toggle(dock, r.text)) << r.text;
        EXPECT_TRUE(r.view->isVisible()) << r.text;
    }
}

TEST_F(WindowRealTest, HiddenEventWindowIsNotHandedTheBatch)
{
    QWindowReal dock;
    dock.show();
    dock.StartMark();
    Toggle(dock, "Sniffer Events");
    RealTimeSample s = Sample(1.0f);
    s.events = {MakeEvent(1, 2, "SignalStrength 50", "01 80 81 ")};
    dock.PushSample(s);
    dock.Redraw();
    EXPECT_EQ(dock.PendingEvents(), 0u);
    EXPECT_EQ(dock.EventWindow()->Model().NextEventNumber(), 2);  // only the Start marker
}

TEST_F(WindowRealTest, ClearEmptiesTheChartsAndTheGaugesFallBackToZero)
{
    QWindowReal dock;
    dock.show();
    for (int k = 0; k < 50; ++k)
        dock.PushSample(Sample(k * 0.03f));
    dock.Redraw();
    ASSERT_EQ(dock.FrequencyChart()->Series()->count(), 50);
    dock.Clear();
    EXPECT_EQ(dock.FrequencyChart()->Series()->count(), 0);
    EXPECT_EQ(dock.PercentChart()->Series()->count(), 0);
    EXPECT_TRUE(dock.TimeAxis().isEmpty());
    dock.Redraw();
    EXPECT_EQ(dock.EventInfo()->FrequencyText()->text(), "0 Hz");
    EXPECT_EQ(dock.EventInfo()->ControlErrorText()->text(), "0.0%");
    EXPECT_EQ(dock.EventInfo()->PowerText()->text(), "0.0%");
}

TEST_F(WindowRealTest, SelectionFillsThePropertiesOnlyWhileShown)
{
    QWindowReal dock;
    dock.show();
    MsgInfo e;
    e.common.eventNumber = 4;
    dock.EventWindowSelected(e, kItemEvent);
    ASSERT_EQ(dock.PropertyView()->Tree()->GroupTitles().size(), 3);
    Toggle(dock, "EventPropertyChart");
    dock.EventWindowSelected(e, kItemRoot);
    EXPECT_EQ(dock.PropertyView()->Tree()->GroupTitles(),
              (QStringList{"Common Properties", "Packet Properties", "Timing Properties"}));
}

TEST_F(WindowRealTest, NewFrequencyLimitsReachTheChartAndTheGauges)
{
    QWindowReal dock;
    dock.show();
    SettingParams::Instance().m_min_freq = 100000;
    SettingParams::Instance().m_max_freq = 300000;
    dock.NewFrequencyLimits();
    EXPECT_EQ(dock.FrequencyChart()->AxisY()->min(), 100);
    EXPECT_EQ(dock.FrequencyChart()->AxisY()->max(), 300);
    EXPECT_EQ(dock.EventInfo()->FrequencyRight()->text(), "300 kHz");
}

TEST_F(WindowRealTest, FocusQueryFindsTheFocusedViewInOrder)
{
    QWindowReal dock;
    dock.show();
    QApplication::setActiveWindow(&dock);
    QApplication::processEvents();
    if (QWidget* w = QApplication::focusWidget())
        w->clearFocus();
    EXPECT_EQ(dock.FocusedView(), nullptr);
    dock.EventInfo()->FrequencyText()->setFocus();
    QApplication::processEvents();
    EXPECT_EQ(dock.FocusedView(), dock.EventInfo());
    dock.EventWindow()->LogView()->setFocus();
    QApplication::processEvents();
    EXPECT_EQ(dock.FocusedView(), dock.EventWindow());
}

TEST_F(WindowRealTest, ARecordedSessionFedAsTheRefreshFeedsIt)
{
    QWindowReal dock;
    dock.resize(1400, 800);
    dock.show();
    dock.StartMark();
    int refreshes = 0;
    ReplaySessionIntoSamples(28.0, 9, [&](RealTimeSample& s) {
        dock.PushSample(s);
        dock.Redraw();
        ++refreshes;
    });
    dock.EndMark();
    ASSERT_GT(refreshes, 900);  // 28 s of capture and the second that releases the last events
    // The phases of one cycle of the script.
    std::set<std::string> titles;
    QStandardItem* root = dock.EventWindow()->Model().Root();
    for (int r = 0; r < root->rowCount(); ++r) {
        auto* item = static_cast<QStandardItemEx*>(root->child(r));
        if (item->mode == kItemPhase)
            titles.insert(item->text().toStdString().substr(0, item->text().indexOf(" (")));
    }
    for (const char* t : {"Power Ping Phase", "Power Identify&Configure Phase", "Negotiation Phase",
                          "Calibration Phase", "Power Transfer Phase"})
        EXPECT_TRUE(titles.count(t)) << t;
    // The log shows the model's lines, a Start and a Stop marker around them.
    const QString log = dock.EventWindow()->LogView()->toPlainText();
    EXPECT_EQ(log, dock.EventWindow()->ShownLogText());
    // (each line after its time; a marker's after blanks)
    EXPECT_TRUE(log.startsWith(QString(12, ' ') + "   [1] Start Acquisition: Acquisition started at "));
    EXPECT_GT(log.count(QLatin1Char('\n')), 300);
    // Gauges: 28 s into the cycle, power transfer runs between the ping's
    // 128 kHz and the 120 kHz it settles to.
    const QString freq = dock.EventInfo()->FrequencyText()->text();
    ASSERT_TRUE(freq.endsWith(" Hz")) << freq.toStdString();
    EXPECT_GE(freq.chopped(3).toInt(), 119000) << freq.toStdString();
    EXPECT_LE(freq.chopped(3).toInt(), 128000) << freq.toStdString();
    EXPECT_NE(dock.EventInfo()->PacketsText()->text(), "0/0");
    // Charts: twenty seconds at one point per 30 ms refresh.
    const int points = dock.FrequencyChart()->Series()->count();
    EXPECT_GE(points, 660);
    EXPECT_LE(points, 668);
    EXPECT_EQ(dock.PercentChart()->Series()->count(), points);
}

TEST_F(WindowRealTest, ClickOnADigitalPingGroupLeavesThePropertiesAsTheyWere)
{
    QWindowReal dock;
    dock.show();
    dock.StartMark();
    RealTimeSample s = Sample(1.0f);
    s.events = {MakeEvent(253, 1, "Digital Ping 64ms"), MakeEvent(253, 1, "Digital Ping 64ms"),
                MakeEvent(1, 2, "SignalStrength 50", "01 80 81 ")};
    dock.PushSample(s);
    dock.Redraw();
    QAbstractItemModel* m = dock.EventWindow()->EventView()->model();
    const QModelIndex group = m->index(1, 0, m->index(0, 0));
    dock.EventWindow()->eventClidked(m->index(1, 0, group));  // the signal strength event
    const QStringList shown = dock.PropertyView()->Tree()->GroupTitles();
    ASSERT_EQ(shown, (QStringList{"Common Properties", "Packet Properties", "Timing Properties"}));
    dock.EventWindow()->eventClidked(m->index(0, 0, group));  // the "Digital Ping" group
    EXPECT_EQ(dock.PropertyView()->Tree()->GroupTitles(), shown);
    EXPECT_EQ(dock.PropertyView()->Tree()->Rows(1)[2], "PacketData=01 80 81 ");
}
