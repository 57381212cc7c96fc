// The wave of one packet as a logic analyser shows a decoded capture: the
// trace of its capture record (the ASK envelope in ADC counts, or the FSK
// carrier in kHz) against time in ms from the record's start, and under it,
// aligned with it, the decoded rows: "Bits" (each cell with its 0 or 1),
// "Bytes" (start, data with the hex value, parity, stop), "Packet" (the
// header's name, checksum good or bad) and, for a packet of the merged
// readers, "Readers" (which reader read what).
//
// The mouse wheel zooms around the pointer, a drag pans, a double click fits
// the whole record. A click on the trace sets a cursor, the two cursors in
// turn; the readout gives the time between them and the level at each and
// between them. A click on a byte of the "Bytes" row selects it (and tells
// byteClicked); SelectBytes marks bytes picked elsewhere. The vertical range
// always fits the part of the trace in view.
#pragma once

#include "analysis/WaveTrace.h"
#include "events/MsgInfo.h"

#include <QWidget>

#include <cmath>

class WaveView : public QWidget {
    Q_OBJECT
public:
    explicit WaveView(QWidget* parent = nullptr);

    // Shows an event's record (an empty trace when it has none) fitted whole.
    void SetEvent(const MsgInfo& event);
    void Clear();
    bool HasTrace() const { return !m_trace.t.empty(); }
    const analysis::WaveTrace& Trace() const { return m_trace; }

    // The time range in view (ms), and the vertical range that fits the trace
    // in it.
    double X0() const { return m_x0; }
    double X1() const { return m_x1; }
    void SetXRange(double x0, double x1);
    void FitAll();
    void YRange(double& low, double& high) const;
    // Zooms by a factor (below 1 in, above 1 out) around a time.
    void ZoomAround(double t, double factor);

    // Cursors (ms; NaN while unset), and the readout text.
    double Cursor(int i) const { return m_cursor[i & 1]; }
    void SetCursor(int i, double t);
    QString CursorText() const;
    // The trace's level at a time (linear between samples).
    double LevelAt(double t) const;

    // Marks frame bytes first .. first + count - 1 (count 0: none).
    void SelectBytes(int first, int count);
    int SelectedByte() const { return m_selFirst; }
    int SelectedCount() const { return m_selCount; }

    // Geometry, for the mouse and for tests: the plot area and the rows.
    QRect PlotRect() const;
    QRect RowRect(int row) const;  // 0 bits, 1 bytes, 2 packet, 3 readers
    int XOf(double t) const;
    double TimeOf(int x) const;

    QSize sizeHint() const override { return QSize(800, 420); }

signals:
    void byteClicked(int index);

protected:
    void paintEvent(QPaintEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;

private:
    int Rows() const { return m_trace.readers.empty() ? 3 : 4; }
    void Click(const QPoint& at);

    analysis::WaveTrace m_trace;
    double m_x0 = 0.0, m_x1 = 1.0;
    double m_cursor[2] = {NAN, NAN};
    int m_nextCursor = 0;
    int m_selFirst = -1, m_selCount = 0;
    bool m_pressed = false, m_dragged = false;
    QPoint m_pressAt;
    double m_pressX0 = 0.0, m_pressX1 = 0.0;
};
