// The power monitor: the received power over the whole session in a window
// of its own. Two labels follow every refresh (the latest power and the
// running time); the chart and the log file ".Percent.txt" in the session's
// capture folder take one entry a second. Hidden, it goes on logging and keeps
// the chart's points until it is shown again.
#pragma once

#include <QList>
#include <QMainWindow>
#include <QPointF>

#include <cstdint>
#include <cstdio>
#include <string>

class QLabel;
class QPushButton;
class QVBoxLayout;
class QwtChart;

// One chart entry: whole seconds of the session, watts.
using MonitorPoint = QPointF;

class PercentMonitor : public QMainWindow {
    Q_OBJECT
public:
    explicit PercentMonitor(QWidget* parent = nullptr);
    ~PercentMonitor() override;

    // Once per refresh while acquiring: the session's elapsed milliseconds,
    // the receiver's declared maximum power in whole watts (the chart's top),
    // the power in watts, the power in percent and the raw received-power
    // value of the last Received Power packet.
    void Update(int64_t elapsedMs, int maxPowerW, double powerW, double percent, int64_t raw);
    // At Start, and at Clear while stopped: the next entry opens a new file.
    void Reset();

    QwtChart* Chart() const { return m_chart; }
    QLabel* PowerLabel() const { return m_labelPower; }
    QLabel* TimeLabel() const { return m_labelTime; }
    // The file written to, empty while none is open.
    const std::string& LogPath() const { return m_logPath; }
    int QueuedPoints() const { return m_queue.size(); }

public slots:
    void slot_OpenDir();

private:
    void CloseLog();

    QwtChart* m_chart = nullptr;
    int64_t m_lastLogged = 0;  // ms; 0: none yet
    std::FILE* m_log = nullptr;
    QList<MonitorPoint> m_queue;
    char m_line[256] = {};

    std::string m_logPath;
    bool m_failureSaid = false;  // an unwritable folder is logged once
    QLabel* m_labelPower = nullptr;
    QLabel* m_labelTime = nullptr;
    QPushButton* m_openDir = nullptr;
};
