// The one chart widget: a Qt Charts view told at construction which kind of
// chart it is; the kind sets the series name, the title, the axes and their
// ranges. The refresh hands it whole series, which replace the old in one
// call; a hidden chart takes nothing.
#pragma once

#include <QList>
#include <QPointF>
#include <QString>
#include <QVector>
#include <QWidget>

#include <cstdint>

class QTimer;

namespace QtCharts {
class QChart;
class QChartView;
class QSplineSeries;
class QValueAxis;
}  // namespace QtCharts

enum ChartKind : int32_t {
    kChartDuty = 0,
    kChartFrequency = 1,
    kChartPercent = 2,
    kChartWave = 3,
    kChartDrawWave = 4,
    kChartAsk = 5,
    kChartFsk = 6,
    kChartPower = 7,
    kChartDrawWave8 = 8,
};

class QwtChart : public QWidget {
    Q_OBJECT
public:
    QwtChart(int kind, int xSpan, QWidget* parent = nullptr);
    ~QwtChart() override;

    // Removes every point of both series.
    void Clear();
    // Replaces the series with the pairs (x[i], y[i]); nothing when x is empty
    // or the chart isn't shown. Pairs that are not finite numbers are left out.
    void SetPoints(const QVector<double>& x, const QVector<double>& y);
    // Replaces the series with the pairs (i, y[i]); same rules.
    void SetPointsByIndex(const QVector<double>& y);
    // Free-running view: appends the samples, keeps the newest x span of them,
    // numbered from 0.
    void AppendRoll(const QVector<double>& samples);
    // The power monitor's queued points: appended, and the x range follows the
    // series' length.
    void AppendPower(const QList<QPointF>& points);
    void SetXRange(int low, int high);
    void SetYRange(int low, int high);
    // Takes a new range only when one end moves by 101 or more (or no range
    // was set yet): the FSK panel's centre moves all the time.
    void SetYRangeLazy(int low, int high);

    // Whether the series draw through OpenGL here.
    static bool OpenGLAvailable();

    int Kind() const { return m_kind; }
    int XSpan() const { return m_xSpan; }
    int YTop() const { return m_yTop; }
    int YBottom() const { return m_yBottom; }
    const QString& SeriesName() const { return m_seriesName; }
    QtCharts::QChart* Chart() const { return m_chart; }
    QtCharts::QChartView* ChartView() const { return m_chartView; }
    // The first series, holding the newest points handed to the chart.
    QtCharts::QSplineSeries* Series() const;
    QtCharts::QSplineSeries* SecondSeries() const { return m_series2; }
    QtCharts::QValueAxis* AxisX() const;
    QtCharts::QValueAxis* AxisY() const;
    // Series handed to the chart so far (one per refresh that drew).
    int Replacements() const { return m_replacements; }

    // The chart is painted at most this often (milliseconds): the refresh
    // hands over the series every 30 ms, which no eye follows on a 20 s chart,
    // and laying out and painting 700-point splines at that pace was a large
    // part of the interface thread's work.
    static constexpr int kPaintIntervalMs = 300;

private:
    void ApplyKind();
    void PaintIfChanged();
    static QTimer* SharedPaintTimer();
    void CacheStillItems();
    void Offer(QVector<QPointF>&& points);
    void HandOver() const;

    QtCharts::QChartView* m_chartView = nullptr;
    QtCharts::QChart* m_chart = nullptr;
    QtCharts::QSplineSeries* m_series = nullptr;
    QtCharts::QSplineSeries* m_series2 = nullptr;
    int32_t m_yTop = 0;
    int32_t m_yBottom = 0;
    QString m_seriesName;
    int32_t m_kind = 0;
    int32_t m_xSpan = 0;
    int m_replacements = 0;
    bool m_changed = false;
    // Points handed over by the refresh and not yet given to the series.
    mutable QVector<QPointF> m_pending;
    mutable bool m_hasPending = false;
};
