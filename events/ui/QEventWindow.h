// The event window: the session as a tree of phases and groups ("Sniffer
// Events") and as a flat numbered log ("Log Window"). The event log model does
// the numbering, the autosave, the phases and the trimming; this dialog shows
// it and adds what is visual: icons, expanding and following the newest event
// while shown, the log text, clicks that select an event for the property
// views, and the log's "Open Saved Dir".
#pragma once

#include "analysis/EventFields.h"
#include "analysis/Export.h"
#include "analysis/Filter.h"
#include "analysis/TimingChecker.h"
#include "analysis/TimingFile.h"
#include "events/EventLogModel.h"

#include "events/ui/PanelDialog.h"
#include <QHash>
#include <QSet>
#include <QIcon>
#include <QMap>
#include <QTreeView>

#include <functional>
#include <map>
#include <ostream>

class QIdentityProxyModel;
class QLabel;
class QAction;
class QMenu;
class QLineEdit;
class QModelIndex;
class QPlainTextEdit;
class QPushButton;
class QTabWidget;
class QTimer;
class QWidget;

// The tree of the event window. While its painting is held for a catch-up,
// the rows a batch appends do not lay the whole tree out again: a QTreeView
// lays out every expanded row after each insertion under an expanded item,
// which grows with the session. The layout waits for the hold's release and
// is then done once. Rows are only ever appended while held, so the rows the
// view has laid out stay valid in the meantime.
class EventTreeView : public QTreeView {
public:
    using QTreeView::QTreeView;
    void HoldLayout() { m_held = true; }
    // Ends the hold; lays the tree out (on the next event-loop turn, or at
    // once when the view is asked about it) if a batch was held.
    void ReleaseLayout();
    bool LayoutHeld() const { return m_held; }
    // Whole layouts done, for tests.
    int Layouts() const { return m_layouts; }
    void doItemsLayout() override;
    // Asked to show an item, the tree lays out what it held first.
    void scrollTo(const QModelIndex& index, ScrollHint hint = EnsureVisible) override;

protected:
    void rowsInserted(const QModelIndex& parent, int start, int end) override;

private:
    bool m_held = false;
    bool m_skipped = false;
    int m_layouts = 0;
};

class QEventWindow : public PanelDialog {
    Q_OBJECT
public:
    explicit QEventWindow(QWidget* parent = nullptr);
    ~QEventWindow() override;

    // The batch of a refresh, in order.
    void AddEvents(const std::vector<MsgInfoPtr>& events);
    void StartAcquisition(const std::string& text = std::string());
    void StopAcquisition(const std::string& text = std::string());
    void ClearAll();
    // True when the window, its tabs, the tree or the log has the focus; the
    // tab bar's text turns bold then, normal otherwise.
    bool HasFocus();

    EventLogModel& Model() { return m_model; }
    EventTreeView* EventView() const { return m_eventView; }
    QPlainTextEdit* LogView() const { return m_plainTextEdit; }
    QTabWidget* Tabs() const { return m_tabWidget; }
    // The icon a tree item is shown with.
    QIcon IconOf(const QStandardItemEx& item) const;
    // The icons by name ("Project", "event", "group", ...).
    const QMap<QString, QIcon>& Icons() const { return m_icons; }
    // Rebuilds of the whole log text so far (the rest were appended in place).
    int LogRebuilds() const { return m_logRebuilds; }
    // The shown tree takes a batch at once when none came for a while; the
    // batches that follow within this many milliseconds are painted,
    // expanded and followed together at its end. Laying the tree out and
    // painting it at every 30 ms refresh was the interface thread's largest
    // cost during a live capture. Events reach the window a second after
    // they were heard, so twice a second keeps the tree as current as the
    // user can follow it.
    static constexpr int kTreeCatchUpMs = 500;
    // True while the shown tree has batches it has not caught up with.
    bool TreeBehind() const { return m_treeBehind; }
    // Catches up at once: before the tree is grabbed as a picture, which
    // would otherwise show an empty view while its painting is held.
    void CatchUpNow();

    // The display filter above the tree. Events that fail it are hidden (the
    // model keeps them); a group whose events all fail is hidden, and a group
    // with some shown says how many of how many. A bad expression leaves the
    // last good filter in force and turns the bar red with the error as its
    // tool tip and beside it.
    QLineEdit* FilterEdit() const { return m_filterEdit; }
    QLabel* FilterErrorLabel() const { return m_filterError; }
    // Compiles and applies a filter as the bar does on Enter; false (and the
    // bar red) for a bad expression.
    bool SetFilter(const QString& text);
    const analysis::Filter& CurrentFilter() const { return m_filter; }
    // True when the bar shows an error.
    bool FilterRefused() const { return m_filterRefused; }
    // The fields the filter sees of an event item, or null for an item that
    // is no event.
    const analysis::EventFields* FieldsOf(const QStandardItem* item) const;
    // What a group's title adds under a filter ("3 of 20 shown"), or empty.
    QString FilterNote(const QStandardItem* item) const;
    // The tree's columns: the text (with the tree) first in the model and
    // last on the screen, after the number, the time in milliseconds since
    // the session's start, the time since the event shown before it, and
    // the direction. The header's context menu shows and hides all but the
    // text; their widths and which are shown stay for the rest of the run
    // (every event window made after takes them).
    enum Column { kColumnText = 0, kColumnNumber, kColumnTime, kColumnDelta, kColumnDir, kColumns };
    static QString ColumnTitle(int column);
    QString ColumnText(const QStandardItem* item, int column) const;
    // The header's menu of columns, as its context menu shows it.
    QMenu* ColumnMenu() const { return m_columnMenu; }
    // Finding (Ctrl+F): the bar below the filter finds text of the tree or
    // hex bytes ("FF FC", "ff:fc") forward with Enter and backward with
    // Shift+Enter, among the events shown, from the selected one on, round
    // the end. Going to an event (Ctrl+G) selects the event of a number.
    // F8 and Shift+F8 select the next and previous error: a frame whose
    // checksum failed, a checksum error, a violation, a NAK or an event with
    // a timing finding.
    QLineEdit* FindEdit() const { return m_findEdit; }
    QLineEdit* GoToEdit() const { return m_gotoEdit; }
    QLabel* FindStatus() const { return m_findStatus; }
    // The columns' order, visibility and widths as the user left them go
    // to a file beside the settings when a window closes (SaveColumns), and
    // the first window of the next run starts from them. LoadColumns reads
    // that file again (a new run, as the windows made after it see it).
    static void SaveColumns();
    static void LoadColumns();
    QAction* FindAction() const { return m_findAction; }
    QAction* GoToAction() const { return m_gotoAction; }
    QAction* NextErrorAction() const { return m_nextErrorAction; }
    QAction* PreviousErrorAction() const { return m_previousErrorAction; }
    bool Find(const QString& text, bool forward);
    bool GoTo(int64_t number);
    bool NextError(bool forward);
    // The selected item of the tree, or null.
    QStandardItem* SelectedItem() const;
    // Ctrl+C in the tree: the selected events (a selected group gives its
    // shown events) as the log's lines, one a line, in the tree's order.
    QAction* CopyAction() const { return m_copyAction; }
    QString SelectedLines() const;
    // The events shown, in the tree's order.
    std::vector<QStandardItem*> ShownEventItems() const;
    // The log line of an event item, as the .log has it.
    QString LogLineOf(const QStandardItem* item) const;
    // The shown events' rows as the columns show them, in the screen's order
    // of the columns shown (the text last); with their titles.
    QStringList ShownColumnTitles() const;
    std::vector<QStringList> ShownRows() const;
    // The log tab's text: the model's lines (as the .log has them), each
    // after the time of its event in milliseconds since the session's start
    // (blanks for a marker's line).
    QString ShownLogText() const;
    QString LogLinePrefix(int64_t lineIndex) const;
    // The time of the newest event, milliseconds since the session's start.
    double DurationMs() const { return m_lastTimeMs; }
    // Writes the events shown (after the filter), in the tree's order; an
    // event that left memory is read back from its session file.
    int ExportShown(std::ostream& out, analysis::ExportFormat format);
    // Errors among the events in the tree, as F8 walks them.
    int ErrorCount() const { return m_errorCount; }
    // Events in the tree that a second reader marked ("recovered",
    // "corrected", "disputed", "refused", "unconfirmed"), by mark.
    int ReadingCount(const std::string& reading) const
    {
        const auto it = m_readingCounts.find(reading);
        return it == m_readingCounts.end() ? 0 : it->second;
    }
    bool IsError(const analysis::EventFields& f) const { return m_errorFilter.Matches(f); }
    // Events the filter shows and events in the tree.
    int ShownEvents() const { return m_filter.IsEmpty() ? m_fields.size() : m_shownEvents; }
    int TotalEvents() const { return m_fields.size(); }

    // The timing checker judges every event the window takes (limits from
    // the settings at each Start); its findings go to the timing file beside
    // the session's .sid, mark their events' rows with the warning icon, and
    // are told by timingFinding. F8 and Shift+F8 walk them with the errors.
    const analysis::TimingChecker& Timing() const { return m_timing; }
    // The carrier's edges as the data manager took them (held by the checker
    // until the events of their time come), saved in the timing file too.
    void AddCarrierEdges(const std::vector<CarrierEdge>& edges);
    // True when the event of this number has a timing finding.
    bool HasTimingFinding(int64_t number) const { return m_timingEvents.contains(number); }
signals:
    void EventWindowSelect_Signal(MsgInfo& info, StandardItemMode mode);
    // A timing finding was made; the findings were forgotten (a new session).
    void timingFinding(const analysis::TimingFinding& finding);
    void timingCleared();
    // A filter was applied (what is shown changed).
    void filterApplied();

public slots:
    void logScroll();
    void eventScroll();
    void eventExpand();
    void eventClidked(const QModelIndex& index);
    void on_listView_doubleClicked(const QModelIndex& index);
    void slot_textmenu(const QPoint& at);
    void slot_openDir(bool checked = false);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private slots:
    void ApplyFilterText();

private:
    void BuildForm();
    void TakeEvent(const MsgInfo& event, int phase);
    void ForgetRows(const QModelIndex& parent, int first, int last);
    // Shows and hides the rows of the root from row `fromRootRow` on.
    void ApplyFilter(int fromRootRow);
    // Filters a group's rows; its shown and total events.
    std::pair<int, int> FilterGroup(QStandardItem* group, const QModelIndex& proxyGroup);
    void ShowEventRow(const QStandardItem* item, int row, const QModelIndex& proxyParent, bool shown);
    void SetRowShown(int row, const QModelIndex& proxyParent, bool shown);
    bool EventShown(const QStandardItem* item) const;
    void BuildColumns();
    void BuildFinding();
    // The next event item shown after `from` (before it backward) that
    // passes `test`, round the end once; null when there is none.
    QStandardItem* Walk(QStandardItem* from, bool forward,
                        const std::function<bool(const analysis::EventFields&)>& test) const;
    void SelectItem(QStandardItem* item);
    void KeepColumns();
    // What a change of the tree shows; the root had rootRowsBefore rows before.
    template <class Change>
    void ChangeTree(Change&& change);
    void BeforeTreeChange();
    void AfterTreeChange(int rootRowsBefore);
    void ShowTreeChange(int rootRowsBefore);
    void CatchUpTree();
    void ExpandAll(int rootRowsBefore);
    void SyncLogText();
    void RebuildLogText();

    EventLogModel m_model;
    analysis::TimingChecker m_timing;
    analysis::TimingFile m_timingFile;
    QSet<qint64> m_timingEvents;
    void ResetTiming();
    QIdentityProxyModel* m_proxy = nullptr;
    analysis::Filter m_filter;
    analysis::EventFieldsBuilder m_builder;
    QHash<const QStandardItem*, analysis::EventFields> m_fields;
    // The events the filter hides.
    QSet<const QStandardItem*> m_hidden;
    QMenu* m_columnMenu = nullptr;
    bool m_columnsResetting = false;
    analysis::Filter m_errorFilter;
    int m_errorCount = 0;
    std::map<std::string, int> m_readingCounts;
    double m_lastTimeMs = 0.0;
    // The time of each log line an event wrote, by the line's place among
    // all the lines written.
    std::map<int64_t, double> m_lineTimes;
    QWidget* m_findRow = nullptr;
    QLineEdit* m_findEdit = nullptr;
    QLineEdit* m_gotoEdit = nullptr;
    QLabel* m_findStatus = nullptr;
    QAction* m_findAction = nullptr;
    QAction* m_gotoAction = nullptr;
    QAction* m_nextErrorAction = nullptr;
    QAction* m_previousErrorAction = nullptr;
    QAction* m_copyAction = nullptr;
    QHash<const QStandardItem*, std::pair<int, int>> m_groupCounts;
    int m_shownEvents = 0;
    bool m_filterRefused = false;
    QLineEdit* m_filterEdit = nullptr;
    QLabel* m_filterError = nullptr;
    QMap<QString, QIcon> m_icons;
    bool m_logScroll = true;
    bool m_eventScroll = true;
    bool m_eventExpand = true;
    // Every item of the tree is expanded (nothing collapsed it since).
    bool m_expandedAll = false;
    // Batches within kTreeCatchUpMs of a shown one wait for the timer: the
    // root's row count before the first of them.
    QTimer* m_treeTimer = nullptr;
    bool m_treeBehind = false;
    int m_behindRootRows = 0;

    QTabWidget* m_tabWidget = nullptr;
    QWidget* m_tab = nullptr;
    QWidget* m_tab2 = nullptr;
    EventTreeView* m_eventView = nullptr;
    QPushButton* m_eventScrollButton = nullptr;
    QPushButton* m_eventExpandButton = nullptr;
    QPushButton* m_logScrollButton = nullptr;
    QPlainTextEdit* m_plainTextEdit = nullptr;

    // The log text shown: the lines written up to m_shownWritten, of which
    // m_shownLines are still in the text.
    int64_t m_shownWritten = 0;
    int m_shownLines = 0;
    int m_logRebuilds = 0;
};
