// The real-time dock: the five live views (event tree and log, frequency
// chart, percent chart, property tree, gauges) in nested splitters, the
// twenty-second history that the charts and gauges draw from, which views are
// shown, and the route of a selected event to the property tree. The refresh
// pushes a sample and asks for a redraw; only shown views are handed data.
#pragma once

#include "events/EventLogModel.h"

#include "events/ui/PanelDialog.h"
#include <QList>
#include <QVector>

#include <list>
#include <mutex>

class QAction;
class QEventInfo;
class QEventWindow;
class QSplitter;
class Properties;
class QwtChart;

// What the refresh pushes once per cycle.
struct RealTimeSample {
    std::vector<MsgInfoPtr> events;
    double firstValue = 0.0;
    double frequencyHz = 0.0;
    double percent = 0.0;
    double controlError = 0.0;
    float time = 0.0f;       // seconds
    int64_t packets = 0;     // errors in the high 32 bits, total in the low 32
};

class QWindowReal : public PanelDialog {
    Q_OBJECT
public:
    // The charts and the gauges keep this many seconds.
    static constexpr double kHistorySeconds = 20.0;

    explicit QWindowReal(QWidget* parent = nullptr);
    ~QWindowReal() override;

    void PushSample(const RealTimeSample& sample);
    // The last events of an acquisition: they reach the event tree at once,
    // after any batch still pending, so that they stand before its Stop marker.
    void AddLastEvents(const std::vector<MsgInfoPtr>& events);
    void Redraw();
    void Clear();
    // Shows or hides the view the action names by its icon text ("Sniffer
    // Events", "EventInfo", "FrequencyChart", "PercentageChart",
    // "EventPropertyChart"): a checkable action's checked state says which,
    // any other flips the view. False for any other action.
    bool TakeAction(QAction* action);
    // The view an action names by its icon text, as above; null for others.
    QWidget* ViewOf(const QString& iconText) const;
    // The frequency range of the settings, after the configuration was saved.
    void NewFrequencyLimits();
    void StartMark();
    void EndMark();
    // The first shown view with the keyboard focus, in the order event window,
    // gauges, properties, frequency chart, percent chart; null if none.
    QWidget* FocusedView();
    QSplitter* TopSplitter() const { return m_top; }
    QSplitter* RightSplitter() const { return m_right; }

    QEventWindow* EventWindow() const { return m_eventWindow; }
    QEventInfo* EventInfo() const { return m_eventInfo; }
    Properties* PropertyView() const { return m_properties; }
    QwtChart* FrequencyChart() const { return m_frequencyChart; }
    QwtChart* PercentChart() const { return m_percentChart; }
    const QVector<double>& TimeAxis() const { return m_time; }
    const QVector<double>& FrequencyHistory() const { return m_frequency; }
    const QVector<double>& PercentHistory() const { return m_percent; }
    size_t PendingEvents() const { return m_pending.size(); }

    // Whether each view is shown. They follow the views' own visibility
    // within the dock, whatever hid or showed a view.
    bool showInfo = true, showProperties = true, showFrequency = true, showPercent = true, showEvents = true;

signals:
    // A view was shown or hidden within the dock: the view toggles follow it.
    void signals_viewShown(QWidget* view, bool shown);
    // An item of the event tree was selected (its event, its record loaded
    // back if it had left memory): the wave panels show a packet's wave.
    void signals_eventSelected(const MsgInfo& info, int mode);

public slots:
    void EventWindowSelected(MsgInfo& info, StandardItemMode mode);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void ApplyFlags();
    bool* FlagOf(const QWidget* view);
    void FitSplitters(QSplitter* splitter);

    QEventInfo* m_eventInfo = nullptr;
    Properties* m_properties = nullptr;
    QwtChart* m_frequencyChart = nullptr;
    QwtChart* m_percentChart = nullptr;
    QEventWindow* m_eventWindow = nullptr;
    std::list<MsgInfoPtr> m_pending;
    QVector<double> m_time;
    QVector<double> m_frequency;
    QList<double> m_firstValue;  // kept in step with the others; shown nowhere
    QVector<double> m_percent;
    QList<double> m_controlError;
    QList<int64_t> m_packets;
    QSplitter* m_top = nullptr;
    QSplitter* m_left = nullptr;
    QSplitter* m_middle = nullptr;
    QSplitter* m_right = nullptr;
    bool m_topMoved = false;    // the user dragged a handle of the top splitter
    bool m_rightMoved = false;  // ... of the right splitter
    std::mutex m_viewMutex;
};
