// The chart widget: its nine kinds, series replaced in one call, the rolling
// and the power appends, the lazy range, and what a hidden chart is given.
#include "services/SettingParams.h"
#include "views/QwtChart.h"

#include <gtest/gtest.h>

#include <QGraphicsLineItem>
#include <QGraphicsRectItem>
#include <QGraphicsSimpleTextItem>
#include <QGraphicsTextItem>
#include <QImage>
#include <QTest>
#include <QtCharts/QChart>
#include <QtCharts/QSplineSeries>
#include <QtCharts/QValueAxis>

#include <cmath>
#include <limits>

using namespace QtCharts;

TEST(Chart, KindsSetNamesTitlesAndRanges)
{
    SettingParams::Instance().m_min_freq = 110000;
    SettingParams::Instance().m_max_freq = 205500;
    struct Row {
        int kind;
        const char* name;
        const char* title;
        double yLow, yHigh;
        double xLow, xHigh;
        const char* xTitle;
        const char* yTitle;
    };
    // Every axis tells its quantity and unit; titles are spelled out.
    const Row rows[] = {
        {0, "Duty (%)", "Duty", 0, 100, 0, 20, "Time (s)", "Duty (%)"},
        {1, "Frequency (kHz)", "Operating Frequency", 110, 205, 0, 20, "Time (s)", "Frequency (kHz)"},
        {2, "Received Power (%)", "Received Power", 0, 200, 0, 20, "Time (s)", "Power (%)"},
        {5, "ASK Envelope", "", 0, 4000, 0, 500, "Sample (25 \u00b5s each)", "Envelope (ADC counts)"},
        {6, "FSK Period", "", 100, 10000, 0, 500, "Word (16 carrier cycles each)", "16 Cycles (60 MHz ticks)"},
        {7, "Power (W)", "", 0, 10, 0, 3, "Time (s)", "Power (W)"},
        {8, "Wave", "Wave", 0, 6000, 0, 20, "Time (s)", "Amplitude"},
    };
    for (const Row& r : rows) {
        const int span = r.kind == 5 || r.kind == 6 ? 500 : r.kind == 7 ? 256 : 20;
        QwtChart c(r.kind, span);
        EXPECT_EQ(c.SeriesName(), QString::fromUtf8(r.name)) << r.kind;
        EXPECT_EQ(c.Chart()->title(), QString::fromUtf8(r.title)) << r.kind;
        ASSERT_TRUE(c.AxisY() && c.AxisX()) << r.kind;
        EXPECT_EQ(c.AxisX()->titleText(), QString::fromUtf8(r.xTitle)) << r.kind;
        EXPECT_EQ(c.AxisY()->titleText(), QString::fromUtf8(r.yTitle)) << r.kind;
        EXPECT_EQ(c.windowTitle(), QString::fromUtf8(r.title[0] ? r.title : r.name)) << r.kind;
        EXPECT_EQ(c.AxisY()->min(), r.yLow) << r.kind;
        EXPECT_EQ(c.AxisY()->max(), r.yHigh) << r.kind;
        EXPECT_EQ(c.AxisX()->min(), r.xLow) << r.kind;
        EXPECT_EQ(c.AxisX()->max(), r.xHigh) << r.kind;
        EXPECT_FALSE(c.Chart()->legend()->isVisible()) << r.kind;
        EXPECT_EQ(c.Chart()->animationOptions(), QChart::NoAnimation) << r.kind;
        EXPECT_EQ(c.Series()->count(), 0) << r.kind;
        EXPECT_EQ(c.SecondSeries()->count(), 0) << r.kind;
    }
    for (int kind : {3, 4}) {
        QwtChart c(kind, 20);
        EXPECT_EQ(c.AxisX()->titleText(), "Time (s)") << kind;
        EXPECT_EQ(c.AxisY()->max(), kind == 3 ? 1 : 5000) << kind;
    }
    QwtChart power(7, 256);
    QwtChart plain(1, 20);
    EXPECT_DOUBLE_EQ(power.AxisY()->titleFont().pointSizeF(), plain.AxisY()->titleFont().pointSizeF() * 1.5);
}

TEST(Chart, OffscreenDrawsWithoutOpenGL)
{
    // No GL context on the offscreen platform: the plain drawing is taken.
    EXPECT_FALSE(QwtChart::OpenGLAvailable());
    QwtChart c(1, 20);
    EXPECT_FALSE(c.Series()->useOpenGL());
}

TEST(Chart, HiddenChartReceivesNothingAndShowsTheNewestWhenShown)
{
    QwtChart c(2, 20);
    const QVector<double> x{0, 1, 2}, y{10, 20, 30};
    c.SetPoints(x, y);
    EXPECT_EQ(c.Series()->count(), 0);
    EXPECT_EQ(c.Replacements(), 0);
    c.show();
    c.SetPoints(x, y);
    ASSERT_EQ(c.Series()->count(), 3);
    EXPECT_EQ(c.Series()->at(2), QPointF(2, 30));
    EXPECT_EQ(c.Replacements(), 1);
}

TEST(Chart, RollKeepsTheLastSpanNumberedFromZero)
{
    QwtChart c(5, 500);
    c.show();
    QVector<double> samples;
    for (int i = 0; i < 600; ++i)
        samples.append(1000 + i);
    c.AppendRoll(samples);
    ASSERT_EQ(c.Series()->count(), 500);
    EXPECT_EQ(c.Series()->at(0), QPointF(0, 1100));
    EXPECT_EQ(c.Series()->at(499), QPointF(499, 1599));
    c.AppendRoll({7, 8});
    ASSERT_EQ(c.Series()->count(), 500);
    EXPECT_EQ(c.Series()->at(0), QPointF(0, 1102));
    EXPECT_EQ(c.Series()->at(499), QPointF(499, 8));
    c.AppendRoll({});
    EXPECT_EQ(c.Replacements(), 2);
}

TEST(Chart, LazyRangeKeepsWithin100AndMovesAt101)
{
    QwtChart c(6, 500);
    c.SetYRangeLazy(1000, 1300);  // nothing stored yet: taken at once
    EXPECT_EQ(c.YBottom(), 1000);
    EXPECT_EQ(c.YTop(), 1300);
    c.SetYRangeLazy(1100, 1200);
    EXPECT_EQ(c.YBottom(), 1000);
    EXPECT_EQ(c.YTop(), 1300);
    c.SetYRangeLazy(900, 1400);
    EXPECT_EQ(c.YBottom(), 1000);
    c.SetYRangeLazy(1101, 1300);
    EXPECT_EQ(c.YBottom(), 1101);
    EXPECT_EQ(c.AxisY()->min(), 1101);
    c.SetYRangeLazy(1101, 1199);
    EXPECT_EQ(c.YTop(), 1199);
    EXPECT_EQ(c.AxisY()->max(), 1199);
}

TEST(Chart, PowerAppendGrowsTheSeriesAndTheXRange)
{
    QwtChart c(7, 256);
    c.AppendPower({});
    EXPECT_EQ(c.Series()->count(), 0);
    QList<QPointF> few;
    for (int i = 0; i < 10; ++i)
        few.append(QPointF(i, 1.5));
    c.AppendPower(few);
    EXPECT_EQ(c.Series()->count(), 10);
    EXPECT_EQ(c.AxisX()->max(), 12);  // trunc(10 * 1.1 + 1)
    QList<QPointF> many;
    for (int i = 10; i < 150; ++i)
        many.append(QPointF(i, 2.5));
    c.AppendPower(many);  // taken off the chart while it grows, and put back
    EXPECT_EQ(c.Series()->count(), 150);
    EXPECT_EQ(c.AxisX()->max(), 166);  // trunc(150 * 1.1 + 1)
    EXPECT_TRUE(c.Chart()->series().contains(c.Series()));
    EXPECT_EQ(c.Series()->attachedAxes().size(), 2);
}

TEST(Chart, ClearEmptiesBothSeries)
{
    QwtChart c(1, 20);
    c.show();
    c.SetPoints({0, 1}, {120, 121});
    c.Clear();
    EXPECT_EQ(c.Series()->count(), 0);
    EXPECT_EQ(c.SecondSeries()->count(), 0);
}

TEST(Chart, EmptyAxisAndNaNValuesAreNoCrash)
{
    QwtChart c(1, 20);
    c.show();
    c.SetPoints({}, {1, 2});
    EXPECT_EQ(c.Series()->count(), 0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    c.SetPoints({0, 1, nan, 3}, {120, nan, 5, 125});
    ASSERT_EQ(c.Series()->count(), 2);
    EXPECT_EQ(c.Series()->at(1), QPointF(3, 125));
    c.SetPoints({0, 1, 2}, {1});  // y shorter than x: the pairs there are
    EXPECT_EQ(c.Series()->count(), 1);
    c.SetPointsByIndex({nan, inf, 7});
    ASSERT_EQ(c.Series()->count(), 1);
    EXPECT_EQ(c.Series()->at(0), QPointF(2, 7));
    c.repaint();
}

namespace {

// The chart's items by whether they keep their picture in a pixmap: the
// rectangles and lines (background, plot area, grid, axis lines), the texts
// (tick labels, titles) and the series.
struct CacheCount {
    int cached = 0, uncached = 0, textsCached = 0, texts = 0, othersCached = 0;
};

CacheCount CountCaches(QtCharts::QChart* chart)
{
    CacheCount n;
    QList<QGraphicsItem*> todo = chart->childItems();
    while (!todo.isEmpty()) {
        QGraphicsItem* item = todo.takeLast();
        const int t = item->type();
        const bool cached = item->cacheMode() == QGraphicsItem::DeviceCoordinateCache;
        if (t == QGraphicsRectItem::Type || t == QGraphicsLineItem::Type) {
            (cached ? n.cached : n.uncached)++;
        } else if (t == QGraphicsTextItem::Type || t == QGraphicsSimpleTextItem::Type) {
            n.texts++;
            n.textsCached += cached ? 1 : 0;
        } else if (cached) {
            n.othersCached++;
        }
        todo.append(item->childItems());
    }
    return n;
}

}  // namespace

TEST(Chart, StillPartsKeepTheirPictureAndTheLineIsDrawnDirectlyWithAThinPen)
{
    QwtChart c(1, 20);
    c.resize(400, 300);
    c.show();
    c.SetPoints({0, 5, 10, 20}, {120, 125, 121, 128});
    // The paint timer takes the points and caches what does not move.
    ASSERT_TRUE(QTest::qWaitFor([&] { return c.Series()->count() == 4 && CountCaches(c.Chart()).uncached == 0; },
                                10000));
    const CacheCount first = CountCaches(c.Chart());
    EXPECT_GT(first.cached, 10);  // background, plot area, grid and axis lines
    EXPECT_GT(first.texts, 5);
    EXPECT_EQ(first.textsCached, 0);  // labels and titles paint directly
    EXPECT_EQ(first.othersCached, 0);
    // A new range makes new grid lines; they are cached before a later paint.
    c.SetXRange(0, 37);
    c.SetPoints({0, 5, 10, 37}, {120, 125, 121, 128});
    ASSERT_TRUE(QTest::qWaitFor([&] { return CountCaches(c.Chart()).uncached == 0; }, 10000));
    // One pixel, cosmetic: drawn along the curve, not outlined and filled.
    EXPECT_TRUE(c.Series()->pen().isCosmetic());
    EXPECT_DOUBLE_EQ(c.Series()->pen().widthF(), 1.0);
}

TEST(Chart, AfterANewRangeTheChartLooksAsOneMadeWithThatRange)
{
    // Tick labels, grid and line of a chart whose range changed while it was
    // shown and painted are those of a chart that had that range from the
    // start: nothing of the old picture stays.
    const QVector<double> x{0, 5, 10, 37}, y{120, 125, 121, 128};
    QwtChart changed(1, 20);
    changed.resize(400, 300);
    changed.show();
    changed.SetPoints(x, y);
    ASSERT_TRUE(QTest::qWaitFor([&] { return CountCaches(changed.Chart()).uncached == 0; }, 10000));
    QTest::qWait(2 * QwtChart::kPaintIntervalMs);
    changed.SetXRange(0, 37);
    changed.SetYRange(100, 150);
    changed.SetPoints(x, y);
    QwtChart fresh(1, 20);
    fresh.resize(400, 300);
    fresh.show();
    fresh.SetXRange(0, 37);
    fresh.SetYRange(100, 150);
    fresh.SetPoints(x, y);
    QTest::qWait(3 * QwtChart::kPaintIntervalMs);
    const QImage a = changed.grab().toImage();
    const QImage b = fresh.grab().toImage();
    ASSERT_EQ(a.size(), b.size());
    EXPECT_TRUE(a == b);
}

TEST(Chart, WavePacketLongerThanTheViewKeepsEveryPoint)
{
    // Points by index take every value, also those beyond the right end of
    // the view; the one-pixel pen keeps a long packet quick to paint.
    QwtChart c(5, 500);
    c.show();
    c.SetXRange(0, 2200);
    c.SetPointsByIndex(QVector<double>(6880, 1500.0));
    ASSERT_EQ(c.Series()->count(), 6880);
    EXPECT_EQ(c.Series()->at(6879), QPointF(6879, 1500.0));
    c.SetPointsByIndex(QVector<double>(300, 1500.0));
    EXPECT_EQ(c.Series()->count(), 300);
    EXPECT_EQ(c.Series()->pen().widthF(), 1.0);
    EXPECT_TRUE(c.Series()->pen().isCosmetic());
}
