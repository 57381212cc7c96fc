// The real window on a small and on a large screen: the charts print every
// axis number in full with the axis' unit, the four gauges stand in view
// without scrolling, and the columns keep their shares of the width until
// the user drags a handle.
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "views/MainWindow.h"
#include "views/Properties.h"
#include "views/QEventInfo.h"
#include "views/QWindowReal.h"
#include "views/QwtChart.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QGraphicsScene>
#include <QMouseEvent>
#include <QGraphicsTextItem>
#include <QGroupBox>
#include <QLineEdit>
#include <QScrollArea>
#include <QScrollBar>
#include <QSplitter>
#include <QTemporaryDir>
#include <QTest>
#include <QtCharts/QChart>
#include <QtCharts/QChartView>
#include <QtCharts/QSplineSeries>

namespace {

class WindowLayoutTest : public ::testing::TestWithParam<QSize> {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams& s = SettingParams::Instance();
        s.savePath = dir.path().toStdString() + "/sessions";
        s.m_min_freq = 110000;
        s.m_max_freq = 210000;
        SetUserMessageRecorder([](const UserMessage&) {});
    }
    void TearDown() override { SetUserMessageRecorder(nullptr); }
    std::string Empty() const { return dir.path().toStdString() + "/none/ttyACM%d"; }

    // The window at the size, with twenty seconds of samples in the charts.
    void ShowFilled(MainWindow& w)
    {
        w.setWindowState(Qt::WindowNoState);
        w.resize(GetParam());
        w.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
        QWindowReal* dock = w.Dock();
        for (int k = 0; k <= 600; ++k) {
            RealTimeSample s;
            s.time = k * 0.033f;
            s.frequencyHz = 127000.0 + (k % 50) * 40.0;
            s.percent = 45.0 + (k % 7);
            s.controlError = -2.0;
            s.packets = (int64_t(1) << 32) | 120;
            dock->PushSample(s);
        }
        dock->Redraw();
        for (QwtChart* chart : {dock->FrequencyChart(), dock->PercentChart()})
            ASSERT_TRUE(QTest::qWaitFor([&] { return chart->Series()->count() > 500; }, 10000));
        QTest::qWait(QwtChart::kPaintIntervalMs + 100);
    }

    // The texts of a chart: tick numbers, axis titles and the chart title.
    static QStringList Texts(QwtChart* chart)
    {
        QStringList texts;
        for (QGraphicsItem* item : chart->ChartView()->scene()->items()) {
            if (auto* text = dynamic_cast<QGraphicsTextItem*>(item))
                if (text->isVisible() && !text->toPlainText().isEmpty())
                    texts << text->toPlainText();
        }
        return texts;
    }

    QTemporaryDir dir;
};

}  // namespace

TEST_P(WindowLayoutTest, ChartAxesShowEveryNumberInFullWithTheirUnits)
{
    MainWindow w(Empty());
    ShowFilled(w);
    const struct {
        QwtChart* chart;
        QStringList expected;
    } charts[] = {
        {w.Dock()->FrequencyChart(),
         {"Operating Frequency", "Time (s)", "Frequency (kHz)", "0", "5", "10", "15", "20", "110", "135", "160",
          "185", "210"}},
        {w.Dock()->PercentChart(),
         {"Received Power", "Time (s)", "Power (%)", "0", "5", "10", "15", "20", "50", "100", "150", "200"}},
    };
    for (const auto& c : charts) {
        const QStringList texts = Texts(c.chart);
        for (const QString& t : texts) {
            EXPECT_FALSE(t.contains(QStringLiteral("...")) || t.contains(QChar(0x2026)))
                << "elided: " << t.toStdString() << " at " << GetParam().width();
        }
        for (const QString& e : c.expected)
            EXPECT_TRUE(texts.contains(e)) << e.toStdString() << " missing at " << GetParam().width() << ": "
                                           << texts.join('|').toStdString();
    }
}

TEST_P(WindowLayoutTest, AllFourGaugesAreInViewWithoutScrolling)
{
    MainWindow w(Empty());
    ShowFilled(w);
    QEventInfo* info = w.Dock()->EventInfo();
    auto* scroll = info->findChild<QScrollArea*>();
    ASSERT_TRUE(scroll);
    EXPECT_EQ(scroll->verticalScrollBar()->maximum(), 0) << "at " << GetParam().width() << " hint " << info->sizeHint().height() << " has " << info->height() << " column " << w.Dock()->RightSplitter()->height();
    const QRect viewport = scroll->viewport()->rect();
    for (const char* name : {"groupBox_freq", "groupBox_ce", "groupBox_power", "groupBox_packets"}) {
        auto* box = info->findChild<QGroupBox*>(name);
        ASSERT_TRUE(box) << name;
        EXPECT_TRUE(box->isVisible()) << name;
        const QRect inViewport(box->mapTo(scroll->viewport(), QPoint(0, 0)), box->size());
        EXPECT_TRUE(viewport.contains(inViewport)) << name << " at " << GetParam().width();
    }
    EXPECT_EQ(info->FrequencyText()->text(), "127000 Hz");
    EXPECT_EQ(info->PacketsText()->text(), "1/120");
    // The property tree above keeps room of its own.
    EXPECT_GE(w.Dock()->PropertyView()->height(), 80);
}

TEST_P(WindowLayoutTest, ColumnsKeepTheirSharesUntilTheUserDragsAHandle)
{
    MainWindow w(Empty());
    ShowFilled(w);
    QSplitter* top = w.Dock()->TopSplitter();
    auto shares = [&] {
        const QList<int> sizes = top->sizes();
        int total = 0;
        for (int s : sizes)
            total += s;
        QList<double> out;
        for (int s : sizes)
            out << double(s) / total;
        return out;
    };
    QList<double> s = shares();
    ASSERT_EQ(s.size(), 3);
    EXPECT_NEAR(s[0], 0.40, 0.03);
    EXPECT_NEAR(s[1], 0.32, 0.03);
    w.resize(GetParam() + QSize(200, 0));
    QTest::qWait(20);
    s = shares();
    EXPECT_NEAR(s[0], 0.40, 0.03);
    // A drag is the user's choice, and a resize keeps it.
    const QList<int> before = top->sizes();
    QSplitterHandle* handle = top->handle(1);
    const auto send = [handle](QEvent::Type type, int x, Qt::MouseButton button, Qt::MouseButtons buttons) {
        const QPoint local(x, handle->height() / 2);
        QMouseEvent e(type, local, handle->mapToGlobal(local), button, buttons, Qt::NoModifier);
        QApplication::sendEvent(handle, &e);
    };
    send(QEvent::MouseButtonPress, 1, Qt::LeftButton, Qt::LeftButton);
    send(QEvent::MouseMove, -120, Qt::NoButton, Qt::LeftButton);
    send(QEvent::MouseButtonRelease, -120, Qt::LeftButton, Qt::NoButton);
    const QList<int> dragged = top->sizes();
    ASSERT_LT(dragged[0], before[0] - 60);
    w.resize(GetParam());
    QTest::qWait(20);
    EXPECT_LT(top->sizes()[0], int(0.40 * (top->width()) - 40));
}

INSTANTIATE_TEST_SUITE_P(Screens, WindowLayoutTest, ::testing::Values(QSize(1280, 720), QSize(1600, 1000)),
                         [](const ::testing::TestParamInfo<QSize>& info) {
                             return std::to_string(info.param.width()) + "x" + std::to_string(info.param.height());
                         });
