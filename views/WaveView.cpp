#include "views/WaveView.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int kLeft = 74;     // room for the level labels
constexpr int kRight = 14;
constexpr int kTop = 26;      // the readout
constexpr int kAxis = 34;     // time labels and the axis title under the plot
constexpr int kRow = 22;      // one decoded row
constexpr double kMinSpan = 0.01;  // ms: the deepest zoom

const char* const kRowNames[] = {"Bits", "Bytes", "Packet", "Readers"};

// A step of 1, 2 or 5 times a power of ten that gives about `target` steps.
double NiceStep(double span, int target)
{
    if (!(span > 0.0))
        return 1.0;
    const double raw = span / std::max(1, target);
    const double p = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (raw <= m * p)
            return m * p;
    return 10.0 * p;
}

QString Num(double v, double step)
{
    const int decimals = step >= 1.0 ? 0 : std::min(6, static_cast<int>(std::ceil(-std::log10(step))));
    return QString::number(v, 'f', decimals);
}

// A decoder annotation: a box with pointed ends, with the longest of its
// texts that fits centred in it (as sigrok's annotations shorten).
void Annotation(QPainter& p, const QRectF& r, const QColor& fill, const QString& text, bool selected = false);
void Annotation(QPainter& p, const QRectF& r, const QColor& fill, const QStringList& texts, bool selected = false)
{
    const QFontMetrics fm(p.font());
    QString fits;
    for (const QString& t : texts) {
        if (fm.horizontalAdvance(t) <= r.width() - 8) {
            fits = t;
            break;
        }
    }
    Annotation(p, r, fill, fits, selected);
}

void Annotation(QPainter& p, const QRectF& r, const QColor& fill, const QString& text, bool selected)
{
    if (r.width() < 1.0)
        return;
    const double tip = std::min(4.0, r.width() / 2.0);
    QPainterPath path;
    path.moveTo(r.left(), r.center().y());
    path.lineTo(r.left() + tip, r.top());
    path.lineTo(r.right() - tip, r.top());
    path.lineTo(r.right(), r.center().y());
    path.lineTo(r.right() - tip, r.bottom());
    path.lineTo(r.left() + tip, r.bottom());
    path.closeSubpath();
    p.setPen(QPen(selected ? QColor(200, 120, 0) : fill.darker(160), selected ? 2 : 1));
    p.setBrush(selected ? QColor(255, 220, 120) : fill);
    p.drawPath(path);
    if (!text.isEmpty()) {
        const QFontMetrics fm(p.font());
        QString shown = text;
        if (fm.horizontalAdvance(shown) > r.width() - 2 * tip)
            shown = fm.elidedText(text, Qt::ElideRight, static_cast<int>(r.width() - 2 * tip));
        if (!shown.isEmpty() && shown != QStringLiteral("…")) {
            p.setPen(Qt::black);
            p.drawText(r, Qt::AlignCenter, shown);
        }
    }
}

}  // namespace

WaveView::WaveView(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("waveView"));
    setMinimumSize(320, 220);
    setMouseTracking(false);
    setFocusPolicy(Qt::ClickFocus);
}

void WaveView::SetEvent(const MsgInfo& event)
{
    m_trace = analysis::BuildWaveTrace(event);
    m_cursor[0] = m_cursor[1] = NAN;
    m_nextCursor = 0;
    m_selFirst = -1;
    m_selCount = 0;
    FitAll();
}

void WaveView::Clear()
{
    m_trace = analysis::WaveTrace();
    m_cursor[0] = m_cursor[1] = NAN;
    m_selFirst = -1;
    m_selCount = 0;
    FitAll();
}

void WaveView::FitAll()
{
    m_x0 = 0.0;
    m_x1 = std::max(m_trace.duration, m_trace.t.empty() ? 1.0 : m_trace.t.back());
    if (!(m_x1 > m_x0))
        m_x1 = m_x0 + 1.0;
    update();
}

void WaveView::SetXRange(double x0, double x1)
{
    if (!(x1 - x0 >= kMinSpan)) {
        const double mid = (x0 + x1) / 2.0;
        x0 = mid - kMinSpan / 2.0;
        x1 = mid + kMinSpan / 2.0;
    }
    m_x0 = x0;
    m_x1 = x1;
    update();
}

void WaveView::ZoomAround(double t, double factor)
{
    SetXRange(t - (t - m_x0) * factor, t + (m_x1 - t) * factor);
}

void WaveView::YRange(double& low, double& high) const
{
    const std::vector<double>& t = m_trace.t;
    const std::vector<double>& v = m_trace.v;
    if (t.empty()) {
        low = 0.0;
        high = 1.0;
        return;
    }
    // The samples in view and one on each side, so that a line leaving the
    // view stays inside the range.
    size_t a = static_cast<size_t>(std::lower_bound(t.begin(), t.end(), m_x0) - t.begin());
    size_t b = static_cast<size_t>(std::upper_bound(t.begin(), t.end(), m_x1) - t.begin());
    a = a > 0 ? a - 1 : 0;
    b = std::min(t.size(), b + 1);
    const auto range = std::minmax_element(v.begin() + static_cast<std::ptrdiff_t>(a),
                                           v.begin() + static_cast<std::ptrdiff_t>(b));
    low = *range.first;
    high = *range.second;
    const double margin = std::max((high - low) * 0.08, m_trace.ask ? 2.0 : 0.05);
    low -= margin;
    high += margin;
}

double WaveView::LevelAt(double time) const
{
    const std::vector<double>& t = m_trace.t;
    if (t.empty() || std::isnan(time))
        return NAN;
    const size_t b = static_cast<size_t>(std::lower_bound(t.begin(), t.end(), time) - t.begin());
    if (b == 0)
        return m_trace.v.front();
    if (b >= t.size())
        return m_trace.v.back();
    const double f = (time - t[b - 1]) / (t[b] - t[b - 1]);
    return m_trace.v[b - 1] + (m_trace.v[b] - m_trace.v[b - 1]) * f;
}

void WaveView::SetCursor(int i, double t)
{
    m_cursor[i & 1] = t;
    update();
}

QString WaveView::CursorText() const
{
    const QString unit = QString::fromStdString(m_trace.unit);
    const bool a = !std::isnan(m_cursor[0]), b = !std::isnan(m_cursor[1]);
    const int decimals = m_trace.ask ? 0 : 2;
    QString text;
    if (a)
        text += QStringLiteral("A %1 ms: %2 %3").arg(m_cursor[0], 0, 'f', 3).arg(LevelAt(m_cursor[0]), 0, 'f', decimals).arg(unit);
    if (b)
        text += QStringLiteral("%1B %2 ms: %3 %4")
                    .arg(a ? QStringLiteral("   ") : QString())
                    .arg(m_cursor[1], 0, 'f', 3)
                    .arg(LevelAt(m_cursor[1]), 0, 'f', decimals)
                    .arg(unit);
    if (a && b)
        text += QStringLiteral("   Δt %1 ms   Δ %2 %3")
                    .arg(m_cursor[1] - m_cursor[0], 0, 'f', 3)
                    .arg(LevelAt(m_cursor[1]) - LevelAt(m_cursor[0]), 0, 'f', decimals)
                    .arg(unit);
    return text;
}

void WaveView::SelectBytes(int first, int count)
{
    m_selFirst = count > 0 ? first : -1;
    m_selCount = count > 0 ? count : 0;
    update();
}

QRect WaveView::PlotRect() const
{
    const int bottom = height() - kAxis - Rows() * kRow - 4;
    return QRect(kLeft, kTop, std::max(10, width() - kLeft - kRight), std::max(10, bottom - kTop));
}

QRect WaveView::RowRect(int row) const
{
    const QRect plot = PlotRect();
    return QRect(plot.left(), plot.bottom() + kAxis + row * kRow, plot.width(), kRow - 3);
}

int WaveView::XOf(double t) const
{
    const QRect plot = PlotRect();
    return plot.left() + static_cast<int>(std::lround((t - m_x0) / (m_x1 - m_x0) * plot.width()));
}

double WaveView::TimeOf(int x) const
{
    const QRect plot = PlotRect();
    return m_x0 + (x - plot.left()) * (m_x1 - m_x0) / plot.width();
}

void WaveView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), Qt::white);
    const QRect plot = PlotRect();
    const QFontMetrics fm(font());
    double lo = 0.0, hi = 1.0;
    YRange(lo, hi);
    auto yOf = [&](double v) { return plot.bottom() - (v - lo) / (hi - lo) * plot.height(); };
    auto xOf = [&](double t) { return plot.left() + (t - m_x0) / (m_x1 - m_x0) * plot.width(); };

    // Grid, labels and the axis titles with their units.
    p.setPen(QColor(225, 225, 225));
    const double ys = NiceStep(hi - lo, std::max(2, plot.height() / 40));
    const double xs = NiceStep(m_x1 - m_x0, std::max(2, plot.width() / 90));
    for (double v = std::ceil(lo / ys) * ys; v <= hi; v += ys) {
        const double y = yOf(v);
        p.setPen(QColor(228, 228, 228));
        p.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));
        p.setPen(Qt::black);
        p.drawText(QRectF(0, y - 8, kLeft - 6, 16), Qt::AlignRight | Qt::AlignVCenter, Num(v, ys));
    }
    for (double t = std::ceil(m_x0 / xs) * xs; t <= m_x1; t += xs) {
        const double x = xOf(t);
        p.setPen(QColor(228, 228, 228));
        p.drawLine(QPointF(x, plot.top()), QPointF(x, plot.bottom()));
        p.setPen(Qt::black);
        p.drawText(QRectF(x - 40, plot.bottom() + 2, 80, 14), Qt::AlignHCenter | Qt::AlignTop, Num(t, xs));
    }
    p.setPen(Qt::black);
    p.drawText(QRect(plot.left(), plot.bottom() + 16, plot.width(), 16), Qt::AlignHCenter | Qt::AlignTop,
               QStringLiteral("time from the packet's start [ms]"));
    p.save();
    p.translate(12, plot.center().y());
    p.rotate(-90);
    p.drawText(QRect(-plot.height() / 2, -8, plot.height(), 16), Qt::AlignCenter,
               m_trace.ask ? QStringLiteral("ASK envelope [ADC counts]") : QStringLiteral("FSK carrier [kHz]"));
    p.restore();
    p.setPen(QColor(150, 150, 150));
    p.setBrush(Qt::NoBrush);
    p.drawRect(plot);

    // The trace: a line through the samples, or per pixel column the span of
    // the samples that fall in it when there are more samples than pixels.
    const std::vector<double>& t = m_trace.t;
    const std::vector<double>& v = m_trace.v;
    if (!t.empty()) {
        p.save();
        p.setClipRect(plot.adjusted(0, 0, 1, 1));
        p.setRenderHint(QPainter::Antialiasing, true);
        p.setPen(QPen(m_trace.ask ? QColor(20, 90, 200) : QColor(190, 60, 20), 1.0));
        size_t a = static_cast<size_t>(std::lower_bound(t.begin(), t.end(), m_x0) - t.begin());
        size_t b = static_cast<size_t>(std::upper_bound(t.begin(), t.end(), m_x1) - t.begin());
        a = a > 0 ? a - 1 : 0;
        b = std::min(t.size(), b + 1);
        QVector<QPointF> line;
        if (b - a > static_cast<size_t>(2 * plot.width())) {
            // Thin and aliased: a wide pen is stroked as a path, and over
            // thousands of back-and-forth segments that costs far too much.
            p.setRenderHint(QPainter::Antialiasing, false);
            p.setPen(QPen(p.pen().color(), 1));
            int column = -1;
            double cmin = 0.0, cmax = 0.0;
            for (size_t i = a; i < b; ++i) {
                const int c = static_cast<int>(xOf(t[i]));
                if (c != column) {
                    if (column >= 0) {
                        line.append(QPointF(column, yOf(cmax)));
                        line.append(QPointF(column, yOf(cmin)));
                    }
                    column = c;
                    cmin = cmax = v[i];
                } else {
                    cmin = std::min(cmin, v[i]);
                    cmax = std::max(cmax, v[i]);
                }
            }
            if (column >= 0) {
                line.append(QPointF(column, yOf(cmax)));
                line.append(QPointF(column, yOf(cmin)));
            }
        } else {
            line.reserve(static_cast<int>(b - a));
            for (size_t i = a; i < b; ++i)
                line.append(QPointF(xOf(t[i]), yOf(v[i])));
        }
        p.drawPolyline(line.constData(), line.size());
        p.restore();
    } else {
        p.setPen(Qt::gray);
        p.drawText(plot, Qt::AlignCenter, QStringLiteral("no capture record for this event"));
    }

    // The decoded rows under the trace, on its time axis.
    QFont small = font();
    small.setPointSizeF(std::max(6.0, font().pointSizeF() - 1.0));
    p.setFont(small);
    for (int row = 0; row < Rows(); ++row) {
        const QRect r = RowRect(row);
        p.setPen(Qt::black);
        p.drawText(QRect(2, r.top(), kLeft - 8, r.height()), Qt::AlignRight | Qt::AlignVCenter,
                   QLatin1String(kRowNames[row]));
        p.save();
        p.setClipRect(r.adjusted(0, -1, 1, 1));
        // Boxes reaching out of view end just outside it, so that their text
        // is centred in the part that shows.
        auto box = [&](double t0, double t1) {
            const double x0 = std::max(xOf(t0), plot.left() - 6.0);
            const double x1 = std::min(xOf(t1), plot.right() + 6.0);
            return QRectF(x0, r.top(), std::max(0.0, x1 - x0), r.height());
        };
        if (row == 0) {
            for (const analysis::WaveCell& c : m_trace.bits)
                if (c.t1 >= m_x0 && c.t0 <= m_x1)
                    Annotation(p, box(c.t0, c.t1), QColor(210, 230, 255), QString::number(c.value));
        } else if (row == 1) {
            for (const analysis::WaveByte& b : m_trace.bytes) {
                if (b.t1 < m_x0 || b.t0 > m_x1)
                    continue;
                const bool sel = m_selCount > 0 && b.index >= m_selFirst && b.index < m_selFirst + m_selCount;
                Annotation(p, box(b.t0, b.dataT0), QColor(200, 240, 200),
                           QStringList{QStringLiteral("Start"), QStringLiteral("S")}, sel);
                Annotation(p, box(b.dataT0, b.dataT1), QColor(255, 245, 200),
                           QStringLiteral("%1").arg(b.value, 2, 16, QLatin1Char('0')).toUpper(), sel);
                Annotation(p, box(b.parityT0, b.parityT1), b.parityOk ? QColor(220, 220, 240) : QColor(255, 170, 170),
                           b.parityOk ? QStringList{QStringLiteral("Parity"), QStringLiteral("P")}
                                      : QStringList{QStringLiteral("Parity error"), QStringLiteral("PE")},
                           sel);
                Annotation(p, box(b.parityT1, b.t1), b.stopOk ? QColor(230, 210, 240) : QColor(255, 170, 170),
                           b.stopOk ? QStringList{QStringLiteral("Stop"), QStringLiteral("E")}
                                    : QStringList{QStringLiteral("Stop error"), QStringLiteral("SE")},
                           sel);
            }
        } else if (row == 2) {
            if (m_trace.packetT1 > m_trace.packetT0)
                Annotation(p, box(m_trace.packetT0, m_trace.packetT1),
                           m_trace.checksumOk ? QColor(190, 240, 190) : QColor(255, 180, 180),
                           QString::fromStdString(m_trace.packetText));
        } else if (row == 3) {
            if (m_trace.packetT1 > m_trace.packetT0)
                Annotation(p, box(m_trace.packetT0, m_trace.packetT1), QColor(240, 230, 200),
                           QString::fromStdString(m_trace.readers));
        }
        p.restore();
    }
    p.setFont(font());

    // Cursors through the plot and the rows, and the readout above.
    const QColor cursorColor[2] = {QColor(0, 150, 0), QColor(170, 0, 170)};
    for (int i = 0; i < 2; ++i) {
        if (std::isnan(m_cursor[i]) || m_cursor[i] < m_x0 || m_cursor[i] > m_x1)
            continue;
        const double x = xOf(m_cursor[i]);
        p.setPen(QPen(cursorColor[i], 1, Qt::DashLine));
        p.drawLine(QPointF(x, plot.top()), QPointF(x, RowRect(Rows() - 1).bottom()));
        p.drawText(QPointF(x + 3, plot.top() + 12), i == 0 ? QStringLiteral("A") : QStringLiteral("B"));
    }
    p.setPen(Qt::black);
    QString head = CursorText();
    if (head.isEmpty())
        head = QStringLiteral("%1 ms in view of %2 ms   (wheel: zoom, drag: pan, double click: fit, click: cursors)")
                   .arg(m_x1 - m_x0, 0, 'f', 3)
                   .arg(m_trace.duration, 0, 'f', 3);
    p.drawText(QRect(kLeft, 4, width() - kLeft - kRight, kTop - 6), Qt::AlignLeft | Qt::AlignVCenter, head);
}

void WaveView::wheelEvent(QWheelEvent* event)
{
    const double steps = event->angleDelta().y() / 120.0;
    if (steps == 0.0)
        return;
    ZoomAround(TimeOf(static_cast<int>(event->position().x())), std::pow(0.8, steps));
    event->accept();
}

void WaveView::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton)
        return;
    m_pressed = true;
    m_dragged = false;
    m_pressAt = event->pos();
    m_pressX0 = m_x0;
    m_pressX1 = m_x1;
}

void WaveView::mouseMoveEvent(QMouseEvent* event)
{
    if (!m_pressed)
        return;
    const int dx = event->pos().x() - m_pressAt.x();
    if (!m_dragged && std::abs(dx) < 4)
        return;
    m_dragged = true;
    const double shift = dx * (m_pressX1 - m_pressX0) / PlotRect().width();
    SetXRange(m_pressX0 - shift, m_pressX1 - shift);
}

void WaveView::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || !m_pressed)
        return;
    m_pressed = false;
    if (!m_dragged)
        Click(event->pos());
}

void WaveView::mouseDoubleClickEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton)
        FitAll();
}

void WaveView::Click(const QPoint& at)
{
    const double t = TimeOf(at.x());
    if (RowRect(1).contains(at)) {
        for (const analysis::WaveByte& b : m_trace.bytes) {
            if (t >= b.t0 && t <= b.t1) {
                SelectBytes(b.index, 1);
                emit byteClicked(b.index);
                return;
            }
        }
        return;
    }
    if (PlotRect().contains(at) && HasTrace()) {
        SetCursor(m_nextCursor, t);
        m_nextCursor ^= 1;
    }
}
