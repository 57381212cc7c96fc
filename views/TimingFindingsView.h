// The timing findings of the session: one row per finding (time, event,
// rule, severity, measured, limit), sortable by any column, and above them
// the session's summary (packets checked, findings per rule). A double click
// on a row asks for its event to be selected.
#pragma once

#include "analysis/TimingChecker.h"

#include <QWidget>

class QLabel;
class QTreeWidget;
class QTreeWidgetItem;

class TimingFindingsView : public QWidget {
    Q_OBJECT
public:
    explicit TimingFindingsView(QWidget* parent = nullptr);

    enum Column { kTime = 0, kEvent, kRule, kSeverity, kMeasured, kLimit, kColumns };

    // A session that breaks a rule at every packet would fill the list with
    // hundreds of thousands of rows: it lists the first this many (the
    // summary still counts them all).
    static constexpr int kMaxRows = 10000;

    QTreeWidget* List() const { return m_list; }
    QLabel* Summary() const { return m_summary; }
    // The summary as the label shows it, from the checker's counts.
    static QString SummaryText(const analysis::TimingChecker& checker);

public slots:
    void AddFinding(const analysis::TimingFinding& finding);
    void ClearFindings();
    // The summary from the checker (after each refresh).
    void UpdateSummary(const analysis::TimingChecker& checker);

signals:
    // A row was double-clicked: the number of its event.
    void eventActivated(qint64 number);

private:
    QLabel* m_summary = nullptr;
    QTreeWidget* m_list = nullptr;
    int m_unlisted = 0;
};
