#include "views/QwtChart.h"

#include "services/SettingParams.h"

#include <QGridLayout>
#include <QGuiApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QGraphicsLineItem>
#include <QGraphicsRectItem>
#include <QGraphicsScene>
#include <QPointer>
#include <QTimer>
#include <QtCharts/QChart>
#include <QtCharts/QChartView>
#include <QtCharts/QSplineSeries>
#include <QtCharts/QValueAxis>

#include <algorithm>
#include <cmath>
#include <vector>

using namespace QtCharts;

namespace {

struct KindRow {
    const char* seriesName;
    const char* title;  // null: no title
    int yLow, yHigh;
    bool xFromSpan;     // x range 0 .. x span (else the default axis)
    const char* xTitle;
    const char* yTitle;
};

// The kinds 0 to 8; kind 1 takes its y range from the settings, kind 7 its x
// range 0 .. 3. Every axis says what it counts and in which unit. The wave
// panels count samples: an ASK envelope sample every 25 microseconds, and
// FSK words, each the length of 16 carrier cycles in ticks of the 60 MHz
// clock.
const KindRow kKinds[] = {
    {"Duty (%)", "Duty", 0, 100, true, "Time (s)", "Duty (%)"},
    {"Frequency (kHz)", "Operating Frequency", 0, 0, true, "Time (s)", "Frequency (kHz)"},
    {"Received Power (%)", "Received Power", 0, 200, true, "Time (s)", "Power (%)"},
    {"Wave", "Wave", 0, 1, false, "Time (s)", "Amplitude"},
    {"Wave", "Wave", 0, 5000, false, "Time (s)", "Amplitude"},
    {"ASK Envelope", nullptr, 0, 4000, true, "Sample (25 \u00b5s each)", "Envelope (ADC counts)"},
    {"FSK Period", nullptr, 100, 10000, true, "Word (16 carrier cycles each)", "16 Cycles (60 MHz ticks)"},
    {"Power (W)", nullptr, 0, 10, false, "Time (s)", "Power (W)"},
    {"Wave", "Wave", 0, 6000, true, "Time (s)", "Amplitude"},
};

bool Finite(double v)
{
    return std::isfinite(v);
}

}  // namespace

bool QwtChart::OpenGLAvailable()
{
    // The series draw through OpenGL where a context can be made. The
    // offscreen platform (tests) and an X server without GLX have none: there
    // the plain raster drawing of Qt Charts is taken instead.
    static const bool available = [] {
        const QString platform = QGuiApplication::platformName();
        if (platform == QLatin1String("offscreen") || platform == QLatin1String("minimal"))
            return false;
        QOpenGLContext context;
        if (!context.create())
            return false;
        QOffscreenSurface surface;
        surface.setFormat(context.format());
        surface.create();
        if (!surface.isValid() || !context.makeCurrent(&surface))
            return false;
        context.doneCurrent();
        return true;
    }();
    return available;
}

QwtChart::QwtChart(int kind, int xSpan, QWidget* parent) : QWidget(parent), m_kind(kind), m_xSpan(xSpan)
{
    setWindowTitle(QStringLiteral("Form"));
    auto* layout = new QGridLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_chartView = new QChartView(this);
    layout->addWidget(m_chartView, 0, 0);

    m_chart = new QChart();
    m_chart->legend()->hide();
    m_series = new QSplineSeries();
    m_series2 = new QSplineSeries();
    // Starter points, so that the default axes have something to go by.
    for (QSplineSeries* s : {m_series, m_series2}) {
        *s << QPointF(0, 0) << QPointF(1, 1) << QPointF(2, 0) << QPointF(3, 1) << QPointF(4, 0) << QPointF(5, 1);
        s->setUseOpenGL(OpenGLAvailable());
        m_chart->addSeries(s);
        // The theme's colour (given when the series joins the chart) in a
        // cosmetic pen one pixel wide: the raster painter draws such a pen
        // along the curve directly, where any wider pen first builds the
        // outline of a 700-point spline as a polygon and fills it, which was
        // the costly part of painting a chart without OpenGL.
        QPen pen = s->pen();
        pen.setWidthF(1.0);
        pen.setCosmetic(true);
        s->setPen(pen);
    }
    m_chart->createDefaultAxes();
    m_series->removePoints(0, 6);
    m_series2->removePoints(0, 6);

    // Narrow margins: on a small screen the plot area and the vertical
    // axis' title need the height.
    m_chart->setMargins(QMargins(6, 4, 6, 4));
    m_chartView->setChart(m_chart);
    m_chartView->setRenderHint(QPainter::Antialiasing);
    m_chartView->setRubberBand(QChartView::NoRubberBand);
    ApplyKind();
    m_chart->setAnimationOptions(QChart::NoAnimation);

    // The view paints on a timer when the scene changed, not at every change
    // (a resize or an expose still paints at once).
    m_chartView->setViewportUpdateMode(QGraphicsView::NoViewportUpdate);
    connect(m_chartView->scene(), &QGraphicsScene::changed, this, [this] { m_changed = true; });
    connect(SharedPaintTimer(), &QTimer::timeout, this, &QwtChart::PaintIfChanged);
}

// One timer for every chart of the program: charts that changed paint in the
// same pass of the event loop, so the window goes out to the display once for
// all of them instead of once for each at its own moment.
QTimer* QwtChart::SharedPaintTimer()
{
    static QPointer<QTimer> timer;
    if (!timer) {
        timer = new QTimer(QCoreApplication::instance());
        timer->start(kPaintIntervalMs);
    }
    return timer;
}

void QwtChart::PaintIfChanged()
{
    if (!isVisible())
        return;
    if (m_hasPending) {
        HandOver();
        m_changed = true;
    }
    if (!m_changed)
        return;
    m_changed = false;
    CacheStillItems();
    m_chartView->viewport()->update();
}

// The chart's rectangles and lines (background, plot area, grid and axis
// lines) change only when a range or a size does, yet the view paints them
// all again each time the series moves. Those items keep their picture in a
// pixmap of the device's resolution, which Qt throws away whenever the item
// itself changes. Axes make new grid lines when their range changes, so the
// walk runs before each paint; an item already cached is left as it is. The
// tick labels and titles are left out: a label whose text and place the axis
// changed after a new range kept painting its old, empty picture. The series
// items are of none of these types and keep painting directly.
void QwtChart::CacheStillItems()
{
    const auto top = m_chart->childItems();
    std::vector<QGraphicsItem*> todo(top.begin(), top.end());
    while (!todo.empty()) {
        QGraphicsItem* item = todo.back();
        todo.pop_back();
        switch (item->type()) {
        case QGraphicsRectItem::Type:
        case QGraphicsLineItem::Type:
            if (item->cacheMode() != QGraphicsItem::DeviceCoordinateCache)
                item->setCacheMode(QGraphicsItem::DeviceCoordinateCache);
            break;
        default:
            break;
        }
        const auto children = item->childItems();
        todo.insert(todo.end(), children.begin(), children.end());
    }
}

// The series takes the newest points only when it is about to be painted (or
// when someone reads it): a replace lays out the whole spline again, and the
// refresh hands over points three times as often as the chart paints.
void QwtChart::HandOver() const
{
    if (!m_hasPending)
        return;
    m_hasPending = false;
    m_series->replace(m_pending);
    m_pending.clear();
}

QtCharts::QSplineSeries* QwtChart::Series() const
{
    HandOver();
    return m_series;
}

void QwtChart::Offer(QVector<QPointF>&& points)
{
    m_pending = std::move(points);
    m_hasPending = true;
    ++m_replacements;
}

QwtChart::~QwtChart() = default;

QValueAxis* QwtChart::AxisX() const
{
    const auto axes = m_chart->axes(Qt::Horizontal);
    return axes.isEmpty() ? nullptr : qobject_cast<QValueAxis*>(axes.first());
}

QValueAxis* QwtChart::AxisY() const
{
    const auto axes = m_chart->axes(Qt::Vertical);
    return axes.isEmpty() ? nullptr : qobject_cast<QValueAxis*>(axes.first());
}

void QwtChart::ApplyKind()
{
    if (m_kind < 0 || m_kind > 8)
        return;  // an unknown kind keeps the default axes
    const KindRow& row = kKinds[m_kind];
    m_seriesName = QString::fromUtf8(row.seriesName);
    m_series->setName(m_seriesName);
    if (row.title)
        m_chart->setTitle(QString::fromUtf8(row.title));
    // The widget's title names what it shows, should it ever stand alone.
    setWindowTitle(QString::fromUtf8(row.title ? row.title : row.seriesName));
    QValueAxis* x = AxisX();
    QValueAxis* y = AxisY();
    if (!x || !y)
        return;
    if (m_kind == kChartFrequency) {
        const SettingParams& s = SettingParams::Instance();
        y->setRange(s.m_min_freq / 1000, s.m_max_freq / 1000);
    } else {
        y->setRange(row.yLow, row.yHigh);
    }
    if (row.xFromSpan)
        x->setRange(0, m_xSpan);
    // Numbers as short as they can be ("15", not "15.0"): a narrow chart
    // elides labels that do not fit.
    x->setLabelFormat(QStringLiteral("%g"));
    y->setLabelFormat(QStringLiteral("%g"));
    x->setTitleText(QString::fromUtf8(row.xTitle));
    y->setTitleText(QString::fromUtf8(row.yTitle));
    if (m_kind == kChartPower) {
        x->setRange(0, 3);
        QFont font = y->titleFont();
        font.setPointSizeF(font.pointSizeF() * 1.5);
        y->setTitleFont(font);
    }
}

void QwtChart::Clear()
{
    m_hasPending = false;
    m_pending.clear();
    m_series->clear();
    m_series2->clear();
}

void QwtChart::SetPoints(const QVector<double>& x, const QVector<double>& y)
{
    if (x.isEmpty() || !isVisible())
        return;
    QVector<QPointF> points;
    const int n = std::min(x.size(), y.size());
    points.reserve(n);
    for (int i = 0; i < n; ++i)
        if (Finite(x[i]) && Finite(y[i]))
            points.append(QPointF(x[i], y[i]));
    Offer(std::move(points));
}

void QwtChart::SetPointsByIndex(const QVector<double>& y)
{
    if (y.isEmpty() || !isVisible())
        return;
    QVector<QPointF> points;
    points.reserve(y.size());
    for (int i = 0; i < y.size(); ++i)
        if (Finite(y[i]))
            points.append(QPointF(i, y[i]));
    Offer(std::move(points));
}

void QwtChart::AppendRoll(const QVector<double>& samples)
{
    if (samples.isEmpty() || !isVisible())
        return;
    QVector<QPointF> points = m_hasPending ? m_pending : m_series->pointsVector();
    for (double v : samples)
        if (Finite(v))
            points.append(QPointF(0, v));
    if (points.size() > m_xSpan && m_xSpan >= 0)
        points.remove(0, points.size() - m_xSpan);
    for (int i = 0; i < points.size(); ++i)
        points[i].setX(i);
    Offer(std::move(points));
}

void QwtChart::AppendPower(const QList<QPointF>& points)
{
    if (points.isEmpty())
        return;
    HandOver();
    if (points.size() >= 101) {
        // Taken off the chart while it grows: one redraw, not one per point.
        QList<QAbstractAxis*> axes = m_series->attachedAxes();
        m_chart->removeSeries(m_series);
        m_series->append(points);
        m_chart->addSeries(m_series);
        for (QAbstractAxis* axis : axes)
            m_series->attachAxis(axis);
    } else {
        m_series->append(points);
    }
    const float count = static_cast<float>(m_series->count());
    SetXRange(0, static_cast<int>(count * 1.1f + 1.0f));
}

void QwtChart::SetXRange(int low, int high)
{
    if (QValueAxis* x = AxisX())
        x->setRange(low, high);
}

void QwtChart::SetYRange(int low, int high)
{
    m_yBottom = low;
    m_yTop = high;
    if (QValueAxis* y = AxisY())
        y->setRange(low, high);
}

void QwtChart::SetYRangeLazy(int low, int high)
{
    if (!(m_yTop == 0 && m_yBottom == 0) && std::abs(low - m_yBottom) < 101 && std::abs(high - m_yTop) < 101)
        return;
    SetYRange(low, high);
}
