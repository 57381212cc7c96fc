#include "events/ui/QEventWindow.h"

#include "events/ui/UserSeams.h"
#include "analysis/Export.h"
#include "icons/Icons.h"
#include "services/SettingParams.h"

#include <QFontDatabase>
#include <QHBoxLayout>
#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QHeaderView>
#include <QIntValidator>
#include <QKeyEvent>
#include <QIdentityProxyModel>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QSettings>
#include <QStandardPaths>
#include <QTabBar>
#include <QTabWidget>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTimer>
#include <QTreeView>
#include <QVBoxLayout>

#include <algorithm>
#include <cctype>
#include <limits>

namespace {

const char* const kIconFiles[][2] = {
    {"Project", "catalog.ico"},
    {"event", "event_2_24x24.ico"},
    {"folder-ansys", "event_2_24x24.ico"},
    {"group", "multi_windows_24x24.ico"},
    {"start", "go.ico"},
    {"stop", "stop_24x24.ico"},
    {"ept", "warning_24x24.ico"},
    {"expand", "right.ico"},
    {"expand_close", "down.ico"},
    {"info", "info_24x24.ico"},
};

// The tree as the model holds it, with the icon of each item's kind, and
// columns beside the text that the model does not hold: an event's number,
// time, the time since the event shown before it, and direction. They are
// worked out from the fields kept of each event, for the rows painted.
class IconProxy : public QIdentityProxyModel {
public:
    IconProxy(const QEventWindow& window, QStandardItemModel& source, QObject* parent)
        : QIdentityProxyModel(parent), m_window(window), m_source(source)
    {
        setSourceModel(&source);
    }

    int columnCount(const QModelIndex& parent) const override
    {
        return parent.column() > 0 ? 0 : QEventWindow::kColumns;
    }
    int rowCount(const QModelIndex& parent) const override
    {
        return parent.column() > 0 ? 0 : QIdentityProxyModel::rowCount(parent);
    }
    bool hasChildren(const QModelIndex& parent) const override
    {
        return parent.column() > 0 ? false : QIdentityProxyModel::hasChildren(parent);
    }
    QModelIndex index(int row, int column, const QModelIndex& parent) const override
    {
        if (column <= 0 || column >= QEventWindow::kColumns)
            return QIdentityProxyModel::index(row, column, parent);
        const QModelIndex first = QIdentityProxyModel::index(row, 0, parent);
        return first.isValid() ? createIndex(row, column, first.internalPointer()) : QModelIndex();
    }
    QModelIndex parent(const QModelIndex& child) const override
    {
        return QIdentityProxyModel::parent(First(child));
    }
    QModelIndex sibling(int row, int column, const QModelIndex& idx) const override
    {
        return index(row, column, parent(idx));
    }
    QModelIndex mapToSource(const QModelIndex& proxy) const override
    {
        return QIdentityProxyModel::mapToSource(First(proxy));
    }
    Qt::ItemFlags flags(const QModelIndex& index) const override
    {
        return QIdentityProxyModel::flags(First(index)) & ~Qt::ItemIsEditable;
    }
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override
    {
        if (orientation == Qt::Horizontal && role == Qt::DisplayRole)
            return QEventWindow::ColumnTitle(section);
        return QIdentityProxyModel::headerData(section, orientation, role);
    }

    QVariant data(const QModelIndex& index, int role) const override
    {
        const QStandardItem* item = m_source.itemFromIndex(mapToSource(index));
        if (index.column() > 0) {
            if (!item)
                return QVariant();
            if (role == Qt::TextAlignmentRole)
                return index.column() == QEventWindow::kColumnDir ? int(Qt::AlignCenter)
                                                                  : int(Qt::AlignRight | Qt::AlignVCenter);
            if (role == Qt::DisplayRole)
                return m_window.ColumnText(item, index.column());
            return QVariant();
        }
        if (role == Qt::DecorationRole) {
            const auto* ex = static_cast<const QStandardItemEx*>(item);
            return ex ? QVariant(m_window.IconOf(*ex)) : QVariant();
        }
        if (role == Qt::DisplayRole) {
            const QString note = m_window.FilterNote(item);
            if (!note.isEmpty())
                return QIdentityProxyModel::data(index, role).toString() + QStringLiteral("  [") + note +
                       QLatin1Char(']');
        }
        return QIdentityProxyModel::data(index, role);
    }

private:
    QModelIndex First(const QModelIndex& index) const
    {
        return index.isValid() && index.column() > 0 ? createIndex(index.row(), 0, index.internalPointer()) : index;
    }

    const QEventWindow& m_window;
    QStandardItemModel& m_source;
};

}  // namespace

QEventWindow::QEventWindow(QWidget* parent) : PanelDialog(parent)
{
    for (const auto& entry : kIconFiles)
        m_icons.insert(QString::fromLatin1(entry[0]), IconAt(QStringLiteral(":/icons/icons/") + entry[1]));
    BuildForm();
    m_proxy = new IconProxy(*this, m_model.Model(), this);
    m_eventView->setModel(m_proxy);
    BuildColumns();
    ResetTiming();
    BuildFinding();
    m_eventView->expand(m_proxy->index(0, 0));
    RebuildLogText();
    m_treeTimer = new QTimer(this);
    m_treeTimer->setSingleShot(true);
    m_treeTimer->setInterval(kTreeCatchUpMs);
    connect(m_treeTimer, &QTimer::timeout, this, &QEventWindow::CatchUpTree);
    m_model.eventAdded = [this](const MsgInfo& e, int phase) { TakeEvent(e, phase); };
    connect(&m_model.Model(), &QAbstractItemModel::rowsAboutToBeRemoved, this, &QEventWindow::ForgetRows);
    connect(&m_model.Model(), &QAbstractItemModel::modelAboutToBeReset, this, [this] {
        m_fields.clear();
        m_hidden.clear();
        m_groupCounts.clear();
        m_errorCount = 0;
        m_readingCounts.clear();
    });
}

QEventWindow::~QEventWindow()
{
    // The model outlives the fields kept beside it: it no longer tells them.
    disconnect(&m_model.Model(), nullptr, this, nullptr);
    KeepColumns();
    SaveColumns();
    m_model.eventAdded = nullptr;
    m_eventView->setModel(nullptr);
}

void QEventWindow::BuildForm()
{
    setObjectName(QStringLiteral("QEventWindow"));
    resize(496, 524);
    setMinimumSize(10, 10);
    setWindowTitle(QStringLiteral("Event Window"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 2);
    m_tabWidget = new QTabWidget(this);
    m_tabWidget->setObjectName(QStringLiteral("tabWidget"));
    layout->addWidget(m_tabWidget);

    const QIcon scroll = IconAt(QStringLiteral(":/icons/icons/scroll.ico"));

    // "Sniffer Events": the tree, with its follow and expand buttons.
    m_tab = new QWidget();
    m_tab->setObjectName(QStringLiteral("tab"));
    auto* treeLayout = new QVBoxLayout(m_tab);
    treeLayout->setContentsMargins(2, 2, 2, 2);
    auto* treeButtons = new QHBoxLayout();
    m_eventScrollButton = new QPushButton(scroll, QStringLiteral("Follow"), m_tab);
    m_eventScrollButton->setObjectName(QStringLiteral("pushButton_eventScroll"));
    m_eventScrollButton->setToolTip(QStringLiteral("Keep the newest event in view"));
    m_eventExpandButton = new QPushButton(m_icons.value(QStringLiteral("expand_close")), QStringLiteral("Expand"), m_tab);
    m_eventExpandButton->setObjectName(QStringLiteral("pushButton_eventExpand"));
    m_eventExpandButton->setToolTip(QStringLiteral("Keep every group expanded"));
    for (QPushButton* b : {m_eventScrollButton, m_eventExpandButton}) {
        b->setCheckable(true);
        b->setChecked(true);
        treeButtons->addWidget(b);
    }
    treeButtons->addStretch(1);
    treeLayout->addLayout(treeButtons);
    auto* filterRow = new QHBoxLayout();
    m_filterEdit = new QLineEdit(m_tab);
    m_filterEdit->setObjectName(QStringLiteral("filterEdit"));
    m_filterEdit->setPlaceholderText(QStringLiteral("Display filter, e.g. type == ControlError && ce.value < 0 (Enter applies)"));
    m_filterEdit->setClearButtonEnabled(true);
    m_filterEdit->setToolTip(QStringLiteral("Display filter: Enter applies it, an empty bar shows every event"));
    filterRow->addWidget(m_filterEdit, 1);
    m_filterError = new QLabel(m_tab);
    m_filterError->setObjectName(QStringLiteral("filterError"));
    m_filterError->setStyleSheet(QStringLiteral("color: #b00000;"));
    m_filterError->hide();
    filterRow->addWidget(m_filterError);
    treeLayout->addLayout(filterRow);
    connect(m_filterEdit, &QLineEdit::returnPressed, this, &QEventWindow::ApplyFilterText);
    m_eventView = new EventTreeView(m_tab);
    m_eventView->setObjectName(QStringLiteral("eventView"));
    m_eventView->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_eventView->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_eventView->setUniformRowHeights(true);
    // Fitting the column to its contents measures the rows in view only: the
    // tree follows the newest event when it fits the column at all, so those
    // are the rows the user sees, and measuring a thousand more at every batch
    // cost tens of milliseconds in a long session.
    m_eventView->header()->setResizeContentsPrecision(0);
    treeLayout->addWidget(m_eventView);
    m_tabWidget->addTab(m_tab, IconAt(QStringLiteral(":/icons/icons/list_log_16x16.ico")),
                        QStringLiteral("Sniffer Events"));

    // "Log Window": the numbered lines, as the .log file has them.
    m_tab2 = new QWidget();
    m_tab2->setObjectName(QStringLiteral("tab_2"));
    auto* logLayout = new QVBoxLayout(m_tab2);
    logLayout->setContentsMargins(2, 2, 2, 2);
    auto* logButtons = new QHBoxLayout();
    m_logScrollButton = new QPushButton(scroll, QStringLiteral("Follow"), m_tab2);
    m_logScrollButton->setObjectName(QStringLiteral("pushButton_logScroll"));
    m_logScrollButton->setToolTip(QStringLiteral("Keep the newest line in view"));
    m_logScrollButton->setCheckable(true);
    m_logScrollButton->setChecked(true);
    logButtons->addWidget(m_logScrollButton);
    logButtons->addStretch(1);
    logLayout->addLayout(logButtons);
    m_plainTextEdit = new QPlainTextEdit(m_tab2);
    m_plainTextEdit->setObjectName(QStringLiteral("plainTextEdit"));
    m_plainTextEdit->setLineWrapMode(QPlainTextEdit::NoWrap);
    m_plainTextEdit->setReadOnly(true);
    m_plainTextEdit->setUndoRedoEnabled(false);
    m_plainTextEdit->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_plainTextEdit->setContextMenuPolicy(Qt::CustomContextMenu);
    logLayout->addWidget(m_plainTextEdit);
    m_tabWidget->addTab(m_tab2, QStringLiteral("Log Window"));

    connect(m_logScrollButton, &QPushButton::clicked, this, &QEventWindow::logScroll);
    connect(m_eventScrollButton, &QPushButton::clicked, this, &QEventWindow::eventScroll);
    connect(m_eventExpandButton, &QPushButton::clicked, this, &QEventWindow::eventExpand);
    connect(m_eventView, &QTreeView::clicked, this, &QEventWindow::eventClidked);
    connect(m_eventView, &QTreeView::doubleClicked, this, &QEventWindow::on_listView_doubleClicked);
    connect(m_eventView, &QTreeView::collapsed, this, [this] { m_expandedAll = false; });
    connect(m_plainTextEdit, &QPlainTextEdit::customContextMenuRequested, this, &QEventWindow::slot_textmenu);
}

void EventTreeView::ReleaseLayout()
{
    m_held = false;
    if (m_skipped) {
        m_skipped = false;
        scheduleDelayedItemsLayout();
    }
}

void EventTreeView::doItemsLayout()
{
    m_layouts += 1;
    QTreeView::doItemsLayout();
}

void EventTreeView::scrollTo(const QModelIndex& index, ScrollHint hint)
{
    if (m_skipped) {
        m_skipped = false;
        doItemsLayout();
    }
    QTreeView::scrollTo(index, hint);
}

void EventTreeView::rowsInserted(const QModelIndex& parent, int start, int end)
{
    if (m_held) {
        m_skipped = true;
        QAbstractItemView::rowsInserted(parent, start, end);
        return;
    }
    QTreeView::rowsInserted(parent, start, end);
}

QIcon QEventWindow::IconOf(const QStandardItemEx& item) const
{
    switch (item.mode) {
    case kItemEvent:
        if (m_timingEvents.contains(item.number))
            return m_icons.value(QStringLiteral("ept"));
        return m_icons.value(item.type == kTypeDeviceStatus ? QStringLiteral("info") : QStringLiteral("event"));
    case kItemControlError:
    case kItemDigitalPing:
    case kItemPhase:
        return m_icons.value(QStringLiteral("group"));
    case kItemRoot:
        return m_icons.value(QStringLiteral("Project"));
    case kItemStart:
        return m_icons.value(QStringLiteral("start"));
    case kItemStop:
        return m_icons.value(QStringLiteral("stop"));
    case kItemNotice:
        return m_icons.value(item.type == kTypeContract ? QStringLiteral("info") : QStringLiteral("ept"));
    }
    return QIcon();
}

// Every change of the model's tree goes through here: the tree's painting
// is held first when the change will wait for the catch-up, and what the
// change shows is worked out after it.
template <class Change>
void QEventWindow::ChangeTree(Change&& change)
{
    const int rootRows = m_model.Root()->rowCount();
    BeforeTreeChange();
    change();
    if (!m_filter.IsEmpty())
        ApplyFilter(rootRows - 1);
    AfterTreeChange(rootRows);
}

void QEventWindow::AddEvents(const std::vector<MsgInfoPtr>& events)
{
    ChangeTree([&] { m_model.AddEvents(events); });
}

void QEventWindow::StartAcquisition(const std::string& text)
{
    m_builder.Reset();
    m_lastTimeMs = 0.0;
    ResetTiming();
    ChangeTree([&] { m_model.StartAcquisition(text); });
    // The timing file beside the session's new .sid; a session shown where
    // it lies keeps the timing file it has (it is read, never written).
    if (!m_model.SidPath().empty() && !m_model.ShowingInPlace())
        m_timingFile.Create(analysis::TimingFile::PathBeside(m_model.SidPath()));
}

void QEventWindow::ResetTiming()
{
    m_timingFile.Close();
    m_timing.Reset();
    m_timing.SetLimits(analysis::TimingLimits::FromSettings(SettingParams::Instance()));
    m_timing.onFinding = [this](const analysis::TimingFinding& f) {
        m_timingEvents.insert(f.event);
        m_timingFile.WriteFinding(f);
        m_eventView->viewport()->update();
        emit timingFinding(f);
    };
    m_timingEvents.clear();
    emit timingCleared();
}

void QEventWindow::AddCarrierEdges(const std::vector<CarrierEdge>& edges)
{
    for (const CarrierEdge& e : edges)
        m_timingFile.WriteEdge(e);
    m_timing.AddCarrierEdges(edges);
}

// The fields of each event as it is taken, kept by its item: filtering
// never reads an event back from the session file. The item is the one the
// model has just appended (a violation and a contract stand at the root, a
// control error and a digital ping in the open sub-group).
void QEventWindow::TakeEvent(const MsgInfo& e, int phase)
{
    QStandardItem* parent = nullptr;
    if (e.type == kTypeViolation || e.type == kTypeContract)
        parent = m_model.Root();
    else if (m_model.SubGroup() && (e.type == 3 || e.type == kTypeDigitalPing))
        parent = m_model.SubGroup();
    else
        parent = m_model.PhaseGroup();
    if (!parent || parent->rowCount() == 0)
        return;
    const QStandardItem* item = parent->child(parent->rowCount() - 1);
    auto f = m_fields.insert(item, m_builder.Next(e, e.common.eventNumber, phase));
    m_timing.Add(e, e.common.eventNumber);
    if (IsError(*f))
        m_errorCount += 1;
    if (!f->reading.empty())
        m_readingCounts[f->reading] += 1;
    m_lastTimeMs = std::max(m_lastTimeMs, f->timeMs);
    // The line the event wrote is the last one (a device status and a
    // contract write none).
    if (e.type != kTypeDeviceStatus && e.type != kTypeContract && m_model.LinesWritten() > 0)
        m_lineTimes[m_model.LinesWritten() - 1] = f->timeMs;
}

void QEventWindow::ForgetRows(const QModelIndex& parent, int first, int last)
{
    QStandardItem* p = parent.isValid() ? m_model.Model().itemFromIndex(parent) : m_model.Model().invisibleRootItem();
    if (!p)
        return;
    std::vector<const QStandardItem*> stack;
    for (int r = first; r <= last; ++r)
        if (QStandardItem* c = p->child(r))
            stack.push_back(c);
    while (!stack.empty()) {
        const QStandardItem* item = stack.back();
        stack.pop_back();
        const auto f = m_fields.constFind(item);
        if (f != m_fields.constEnd() && IsError(*f))
            m_errorCount -= 1;
        if (f != m_fields.constEnd() && !f->reading.empty())
            m_readingCounts[f->reading] -= 1;
        m_fields.remove(item);
        m_hidden.remove(item);
        m_groupCounts.remove(item);
        for (int r = 0; r < item->rowCount(); ++r)
            stack.push_back(item->child(r));
    }
}

const analysis::EventFields* QEventWindow::FieldsOf(const QStandardItem* item) const
{
    const auto found = m_fields.constFind(item);
    return found == m_fields.constEnd() ? nullptr : &found.value();
}

QString QEventWindow::FilterNote(const QStandardItem* item) const
{
    if (m_filter.IsEmpty() || !item)
        return QString();
    const auto found = m_groupCounts.constFind(item);
    if (found == m_groupCounts.constEnd())
        return QString();
    return QStringLiteral("%1 of %2 shown").arg(found->first).arg(found->second);
}

namespace {

// Where the columns as the user left them are kept between runs: beside the
// settings file, in a file of the window's own (the settings file's format
// is shared with other programs and stays as it is).
QString ColumnStateFile()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/Coilscope/window-state.ini");
}

// The columns as the user left them, for the windows made after: read from
// the last run's file when the first window is made.
QByteArray& KeptColumns()
{
    static QByteArray state =
        QSettings(ColumnStateFile(), QSettings::IniFormat).value(QStringLiteral("eventColumns")).toByteArray();
    return state;
}

}  // namespace

QString QEventWindow::ColumnTitle(int column)
{
    switch (column) {
    case kColumnText:
        return QStringLiteral("Event");
    case kColumnNumber:
        return QStringLiteral("No.");
    case kColumnTime:
        return QStringLiteral("Time (ms)");
    case kColumnDelta:
        return QStringLiteral("\u0394t (ms)");
    case kColumnDir:
        return QStringLiteral("Dir");
    }
    return QString();
}

void QEventWindow::BuildColumns()
{
    QHeaderView* header = m_eventView->header();
    header->setObjectName(QStringLiteral("eventHeader"));
    header->setSectionsMovable(true);
    header->setStretchLastSection(false);
    m_eventView->setTreePosition(kColumnText);
    header->moveSection(kColumnText, kColumns - 1);
    const int digits = m_eventView->fontMetrics().horizontalAdvance(QStringLiteral("0"));
    header->resizeSection(kColumnNumber, digits * 7);
    header->resizeSection(kColumnTime, digits * 11);
    header->resizeSection(kColumnDelta, digits * 9);
    header->resizeSection(kColumnDir, digits * 4 + 8);
    header->resizeSection(kColumnText, 400);
    if (!KeptColumns().isEmpty())
        header->restoreState(KeptColumns());
    header->setContextMenuPolicy(Qt::CustomContextMenu);
    m_columnMenu = new QMenu(this);
    m_columnMenu->setObjectName(QStringLiteral("columnMenu"));
    for (int c = kColumnNumber; c < kColumns; ++c) {
        QAction* a = m_columnMenu->addAction(ColumnTitle(c));
        a->setObjectName(QStringLiteral("column%1").arg(c));
        a->setCheckable(true);
        a->setChecked(!header->isSectionHidden(c));
        connect(a, &QAction::toggled, this, [this, c](bool on) {
            m_eventView->header()->setSectionHidden(c, !on);
            KeepColumns();
        });
    }
    connect(header, &QHeaderView::customContextMenuRequested, this,
            [this, header](const QPoint& at) { m_columnMenu->popup(header->mapToGlobal(at)); });
    connect(header, &QHeaderView::sectionResized, this, [this] { KeepColumns(); });
    connect(header, &QHeaderView::sectionMoved, this, [this] { KeepColumns(); });
}

void QEventWindow::BuildFinding()
{
    analysis::FilterError error;
    m_errorFilter.Compile("status == error || pattern == nak", error);

    m_findRow = new QWidget(m_tab);
    m_findRow->setObjectName(QStringLiteral("findRow"));
    auto* row = new QHBoxLayout(m_findRow);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(new QLabel(QStringLiteral("Find:"), m_findRow));
    m_findEdit = new QLineEdit(m_findRow);
    m_findEdit->setObjectName(QStringLiteral("findEdit"));
    m_findEdit->setPlaceholderText(QStringLiteral("text or hex bytes; Enter next, Shift+Enter previous"));
    row->addWidget(m_findEdit, 2);
    row->addWidget(new QLabel(QStringLiteral("Go to:"), m_findRow));
    m_gotoEdit = new QLineEdit(m_findRow);
    m_gotoEdit->setObjectName(QStringLiteral("gotoEdit"));
    m_gotoEdit->setPlaceholderText(QStringLiteral("event number"));
    m_gotoEdit->setValidator(new QIntValidator(0, std::numeric_limits<int>::max(), m_gotoEdit));
    row->addWidget(m_gotoEdit, 1);
    m_findStatus = new QLabel(m_findRow);
    m_findStatus->setObjectName(QStringLiteral("findStatus"));
    row->addWidget(m_findStatus);
    m_findRow->hide();
    // Below the filter bar, above the tree.
    static_cast<QVBoxLayout*>(m_tab->layout())->insertWidget(2, m_findRow);

    m_findEdit->installEventFilter(this);
    connect(m_gotoEdit, &QLineEdit::returnPressed, this, [this] { GoTo(m_gotoEdit->text().toLongLong()); });

    auto action = [this](const char* name, const QString& text, const QKeySequence& key) {
        auto* a = new QAction(text, this);
        a->setObjectName(QString::fromLatin1(name));
        a->setShortcut(key);
        a->setShortcutContext(Qt::WidgetWithChildrenShortcut);
        addAction(a);
        return a;
    };
    m_findAction = action("findAction", QStringLiteral("Find..."), QKeySequence::Find);
    m_gotoAction = action("gotoAction", QStringLiteral("Go to Event..."), QKeySequence(Qt::CTRL + Qt::Key_G));
    m_nextErrorAction = action("nextErrorAction", QStringLiteral("Next Error"), QKeySequence(Qt::Key_F8));
    m_previousErrorAction =
        action("previousErrorAction", QStringLiteral("Previous Error"), QKeySequence(Qt::SHIFT + Qt::Key_F8));
    connect(m_findAction, &QAction::triggered, this, [this] {
        m_findRow->show();
        m_findEdit->setFocus();
        m_findEdit->selectAll();
    });
    connect(m_gotoAction, &QAction::triggered, this, [this] {
        m_findRow->show();
        m_gotoEdit->setFocus();
        m_gotoEdit->selectAll();
    });
    m_copyAction = new QAction(QStringLiteral("Copy Events"), m_eventView);
    m_copyAction->setObjectName(QStringLiteral("copyEventsAction"));
    m_copyAction->setShortcut(QKeySequence::Copy);
    m_copyAction->setShortcutContext(Qt::WidgetShortcut);
    m_eventView->addAction(m_copyAction);
    connect(m_copyAction, &QAction::triggered, this, [this] {
        const QString lines = SelectedLines();
        if (!lines.isEmpty())
            QGuiApplication::clipboard()->setText(lines);
    });
    connect(m_nextErrorAction, &QAction::triggered, this, [this] { NextError(true); });
    connect(m_previousErrorAction, &QAction::triggered, this, [this] { NextError(false); });
}

bool QEventWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_findEdit && event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
            Find(m_findEdit->text(), !(key->modifiers() & Qt::ShiftModifier));
            return true;
        }
        if (key->key() == Qt::Key_Escape) {
            m_findRow->hide();
            m_eventView->setFocus();
            return true;
        }
    }
    return PanelDialog::eventFilter(watched, event);
}

QStandardItem* QEventWindow::SelectedItem() const
{
    const QModelIndex current = m_eventView->currentIndex();
    return current.isValid() ? const_cast<EventLogModel&>(m_model).Model().itemFromIndex(m_proxy->mapToSource(current)) : nullptr;
}

namespace {

QStandardItem* Following(QStandardItem* item)
{
    if (item->hasChildren())
        return item->child(0);
    while (item) {
        QStandardItem* parent = item->parent();
        if (!parent)
            return nullptr;
        if (item->row() + 1 < parent->rowCount())
            return parent->child(item->row() + 1);
        item = parent;
    }
    return nullptr;
}

QStandardItem* Last(QStandardItem* item)
{
    while (item->hasChildren())
        item = item->child(item->rowCount() - 1);
    return item;
}

QStandardItem* Preceding(QStandardItem* item)
{
    QStandardItem* parent = item->parent();
    if (!parent)
        return nullptr;
    return item->row() > 0 ? Last(parent->child(item->row() - 1)) : parent;
}

// The bytes of a hex query ("FF FC", "ff:fc", "fffc"), or none when it is not
// hex.
std::vector<uint8_t> HexQuery(const QString& text)
{
    QString digits;
    for (QChar c : text) {
        if (c.isSpace() || c == QLatin1Char(':'))
            continue;
        if (!isxdigit(c.toLatin1()))
            return {};
        digits += c;
    }
    if (digits.isEmpty() || digits.size() % 2)
        return {};
    std::vector<uint8_t> bytes;
    for (int i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(digits.midRef(i, 2).toUInt(nullptr, 16)));
    return bytes;
}

}  // namespace

QStandardItem* QEventWindow::Walk(QStandardItem* from, bool forward,
                                  const std::function<bool(const analysis::EventFields&)>& test) const
{
    QStandardItem* root = m_model.Root();
    if (!root)
        return nullptr;
    QStandardItem* start = from ? from : root;
    QStandardItem* at = start;
    bool wrapped = false;
    for (;;) {
        at = forward ? Following(at) : Preceding(at);
        if (!at) {
            if (wrapped)
                return nullptr;
            wrapped = true;
            at = forward ? root : Last(root);
        }
        if (const analysis::EventFields* f = FieldsOf(at))
            if (EventShown(at) && test(*f))
                return at;
        if (at == start)
            return nullptr;
    }
}

void QEventWindow::SelectItem(QStandardItem* item)
{
    const QModelIndex text = m_proxy->mapFromSource(item->index());
    for (QModelIndex p = text.parent(); p.isValid(); p = p.parent())
        m_eventView->expand(p);
    // The row is made current by its first column on the screen: the text
    // column is the last, and scrolling sideways to it would hide the
    // number, time and direction before it.
    const int first = m_eventView->header()->logicalIndexAt(0) >= 0
                          ? m_eventView->header()->logicalIndex(m_eventView->header()->visualIndexAt(0))
                          : kColumnText;
    const QModelIndex index = text.sibling(text.row(), first);
    m_eventView->setCurrentIndex(index);
    m_eventView->scrollTo(index);
    eventClidked(index);
}

std::vector<QStandardItem*> QEventWindow::ShownEventItems() const
{
    std::vector<QStandardItem*> items;
    QStandardItem* root = m_model.Root();
    for (QStandardItem* at = root; at; at = Following(at))
        if (FieldsOf(at) && EventShown(at))
            items.push_back(at);
    return items;
}

QString QEventWindow::LogLineOf(const QStandardItem* item) const
{
    const analysis::EventFields* f = FieldsOf(item);
    if (!f)
        return QString();
    MsgInfo e;
    e.type = f->type;
    e.direction = f->dir;
    e.str = QString::fromStdString(f->text);
    return QString::fromStdString(analysis::EventLogText(e, f->number));
}

QStringList QEventWindow::ShownColumnTitles() const
{
    QStringList titles;
    QHeaderView* header = m_eventView->header();
    for (int v = 0; v < header->count(); ++v) {
        const int c = header->logicalIndex(v);
        if (!header->isSectionHidden(c) && c != kColumnText)
            titles << ColumnTitle(c);
    }
    titles << ColumnTitle(kColumnText);
    return titles;
}

std::vector<QStringList> QEventWindow::ShownRows() const
{
    QHeaderView* header = m_eventView->header();
    std::vector<int> columns;
    for (int v = 0; v < header->count(); ++v) {
        const int c = header->logicalIndex(v);
        if (!header->isSectionHidden(c) && c != kColumnText)
            columns.push_back(c);
    }
    std::vector<QStringList> rows;
    for (QStandardItem* item : ShownEventItems()) {
        QStringList row;
        for (int c : columns)
            row << ColumnText(item, c);
        row << item->text();
        rows.push_back(row);
    }
    return rows;
}

int QEventWindow::ExportShown(std::ostream& out, analysis::ExportFormat format)
{
    analysis::ExportWriter writer(out, format);
    writer.Begin();
    int written = 0;
    for (QStandardItem* item : ShownEventItems()) {
        auto* ex = static_cast<QStandardItemEx*>(item);
        MsgInfoPtr e = ex->info ? std::make_shared<MsgInfo>(*ex->info) : m_model.LoadEvent(ex);
        if (!e)
            continue;
        writer.Write(*e, *FieldsOf(item));
        written += 1;
    }
    return written;
}

QString QEventWindow::SelectedLines() const
{
    const QModelIndexList rows = m_eventView->selectionModel()->selectedRows(0);
    QSet<const QStandardItem*> selected;
    for (const QModelIndex& i : rows)
        selected.insert(const_cast<EventLogModel&>(m_model).Model().itemFromIndex(m_proxy->mapToSource(i)));
    QString text;
    for (QStandardItem* item : ShownEventItems()) {
        bool in = false;
        for (const QStandardItem* at = item; at && !in; at = at->parent())
            in = selected.contains(at);
        if (!in)
            continue;
        const QString line = LogLineOf(item);
        if (!line.isEmpty())
            text += line + QLatin1Char('\n');
    }
    return text;
}

bool QEventWindow::Find(const QString& text, bool forward)
{
    if (text.isEmpty())
        return false;
    const std::vector<uint8_t> hex = HexQuery(text);
    const std::string needle = text.toStdString();
    QStandardItem* found = Walk(SelectedItem(), forward, [&](const analysis::EventFields& f) {
        if (QString::fromStdString(f.text).contains(text, Qt::CaseInsensitive))
            return true;
        return !hex.empty() && std::search(f.bytes.begin(), f.bytes.end(), hex.begin(), hex.end()) != f.bytes.end();
    });
    m_findStatus->setText(found ? QString() : QStringLiteral("Not found"));
    if (found)
        SelectItem(found);
    return found != nullptr;
}

bool QEventWindow::GoTo(int64_t number)
{
    QStandardItem* found = Walk(nullptr, true, [&](const analysis::EventFields& f) { return f.number == number; });
    m_findStatus->setText(found ? QString() : QStringLiteral("No event %1 shown").arg(number));
    if (found) {
        SelectItem(found);
        m_eventView->setFocus();
    }
    return found != nullptr;
}

bool QEventWindow::NextError(bool forward)
{
    QStandardItem* found = Walk(SelectedItem(), forward, [this](const analysis::EventFields& f) {
        return IsError(f) || m_timingEvents.contains(f.number);
    });
    if (found)
        SelectItem(found);
    return found != nullptr;
}

void QEventWindow::SaveColumns()
{
    QSettings file(ColumnStateFile(), QSettings::IniFormat);
    file.setValue(QStringLiteral("eventColumns"), KeptColumns());
}

void QEventWindow::LoadColumns()
{
    KeptColumns() =
        QSettings(ColumnStateFile(), QSettings::IniFormat).value(QStringLiteral("eventColumns")).toByteArray();
}

void QEventWindow::KeepColumns()
{
    if (m_columnsResetting)
        return;
    KeptColumns() = m_eventView->header()->saveState();
}

bool QEventWindow::EventShown(const QStandardItem* item) const
{
    return m_filter.IsEmpty() || !m_hidden.contains(item);
}

QString QEventWindow::ColumnText(const QStandardItem* item, int column) const
{
    const analysis::EventFields* f = FieldsOf(item);
    if (!f)
        return QString();
    switch (column) {
    case kColumnNumber:
        return QString::number(f->number);
    case kColumnTime:
        return QString::number(f->timeMs, 'f', 3);
    case kColumnDir:
        return f->dir == analysis::kDirNone ? QString() : QString::fromLatin1(analysis::DirWord(f->dir));
    case kColumnDelta: {
        // The event shown before this one, walking the tree back: the
        // previous sibling's last row (deepest first), else the parent. A
        // long run of hidden events is not walked past.
        const QStandardItem* at = item;
        for (int steps = 0; steps < 20000; ++steps) {
            const QStandardItem* parent = at->parent();
            if (!parent)
                return QString();
            const int row = at->row();
            if (row > 0) {
                at = parent->child(row - 1);
                while (at->hasChildren())
                    at = at->child(at->rowCount() - 1);
            } else {
                at = parent;
            }
            if (const analysis::EventFields* before = FieldsOf(at)) {
                if (EventShown(at))
                    return QString::number(f->timeMs - before->timeMs, 'f', 3);
            }
        }
        return QString();
    }
    }
    return QString();
}

void QEventWindow::ApplyFilterText()
{
    SetFilter(m_filterEdit->text());
}

bool QEventWindow::SetFilter(const QString& text)
{
    if (m_filterEdit->text() != text)
        m_filterEdit->setText(text);
    analysis::FilterError error;
    if (!m_filter.Compile(text.toStdString(), error)) {
        m_filterRefused = true;
        const QString message = QString::fromStdString(error.message);
        m_filterEdit->setStyleSheet(QStringLiteral("QLineEdit { background: #ffc8c8; }"));
        m_filterEdit->setToolTip(message + QStringLiteral("\nStill shown: ") +
                                 (m_filter.IsEmpty() ? QStringLiteral("every event")
                                                     : QString::fromStdString(m_filter.Text())));
        m_filterError->setText(message);
        m_filterError->show();
        m_filterEdit->setCursorPosition(static_cast<int>(error.position));
        return false;
    }
    m_filterRefused = false;
    m_filterEdit->setStyleSheet(QString());
    m_filterEdit->setToolTip(QStringLiteral("Display filter: Enter applies it, an empty bar shows every event"));
    m_filterError->clear();
    m_filterError->hide();
    ApplyFilter(0);
    emit filterApplied();
    return true;
}

void QEventWindow::SetRowShown(int row, const QModelIndex& proxyParent, bool shown)
{
    if (m_eventView->isRowHidden(row, proxyParent) == shown)
        m_eventView->setRowHidden(row, proxyParent, !shown);
}

// The set of hidden events says whether an event's row is hidden: the view
// is asked (through the proxy, an index a row) only where that changes.
void QEventWindow::ShowEventRow(const QStandardItem* item, int row, const QModelIndex& proxyParent, bool shown)
{
    const bool hidden = m_hidden.contains(item);
    if (hidden != shown)
        return;
    if (shown)
        m_hidden.remove(item);
    else
        m_hidden.insert(item);
    m_eventView->setRowHidden(row, proxyParent, !shown);
}

std::pair<int, int> QEventWindow::FilterGroup(QStandardItem* group, const QModelIndex& proxyGroup)
{
    const bool all = m_filter.IsEmpty();
    int shown = 0;
    int total = 0;
    for (int r = 0; r < group->rowCount(); ++r) {
        QStandardItem* child = group->child(r);
        if (const analysis::EventFields* f = FieldsOf(child)) {
            const bool match = all || m_filter.Matches(*f);
            ShowEventRow(child, r, proxyGroup, match);
            total += 1;
            shown += match ? 1 : 0;
        } else if (child->hasChildren()) {
            const auto counts = FilterGroup(child, m_proxy->index(r, 0, proxyGroup));
            SetRowShown(r, proxyGroup, all || counts.first > 0 || counts.second == 0);
            shown += counts.first;
            total += counts.second;
        }
    }
    m_groupCounts.insert(group, {shown, total});
    return {shown, total};
}

// Hiding rows leaves the model (and what it writes) as it is, and a new
// batch only filters the groups it may have touched.
void QEventWindow::ApplyFilter(int fromRootRow)
{
    QStandardItemEx* root = m_model.Root();
    if (!root)
        return;
    const QModelIndex proxyRoot = m_proxy->index(0, 0);
    const bool all = m_filter.IsEmpty();
    for (int r = std::max(0, fromRootRow); r < root->rowCount(); ++r) {
        QStandardItem* item = root->child(r);
        if (const analysis::EventFields* f = FieldsOf(item)) {
            const bool match = all || m_filter.Matches(*f);
            ShowEventRow(item, r, proxyRoot, match);
        }
        else if (item->hasChildren()) {
            const auto counts = FilterGroup(item, m_proxy->index(r, 0, proxyRoot));
            SetRowShown(r, proxyRoot, all || counts.first > 0 || counts.second == 0);
        }
    }
    // The totals: the root's events and its groups' counts.
    int shown = 0;
    int total = 0;
    for (int r = 0; r < root->rowCount(); ++r) {
        QStandardItem* item = root->child(r);
        if (FieldsOf(item)) {
            total += 1;
            shown += m_hidden.contains(item) ? 0 : 1;
        } else {
            const auto found = m_groupCounts.constFind(item);
            if (found != m_groupCounts.constEnd()) {
                shown += found->first;
                total += found->second;
            }
        }
    }
    m_groupCounts.insert(root, {shown, total});
    m_shownEvents = shown;
    m_eventView->viewport()->update();
}

void QEventWindow::StopAcquisition(const std::string& text)
{
    ChangeTree([&] { m_model.StopAcquisition(text); });
    // What is still open (a silence, a carrier after End Power Transfer) is
    // judged at the session's end.
    m_timing.Finish();
}

void QEventWindow::ClearAll()
{
    m_treeTimer->stop();
    m_treeBehind = false;
    m_eventView->viewport()->setUpdatesEnabled(true);
    m_eventView->ReleaseLayout();
    // Clearing resets the model, and a header forgets its moved, hidden and
    // resized sections on a reset: they are put back.
    KeepColumns();
    m_columnsResetting = true;
    m_model.ClearAll();
    ResetTiming();
    m_lineTimes.clear();
    m_eventView->header()->restoreState(KeptColumns());
    m_columnsResetting = false;
    m_errorCount = 0;
    m_readingCounts.clear();
    m_lastTimeMs = 0.0;
    m_fields.clear();
    m_hidden.clear();
    m_groupCounts.clear();
    m_shownEvents = 0;
    m_expandedAll = false;
    m_eventView->expand(m_proxy->index(0, 0));
    RebuildLogText();
}

// What a batch changes on the screen. A tree that isn't shown (the window
// hidden, or the log tab in front) is neither expanded nor scrolled: that is
// the costly part, and it catches up with the next batch once shown.
void QEventWindow::AfterTreeChange(int rootRowsBefore)
{
    if (!m_eventView->isVisible()) {
        m_expandedAll = false;
    } else if (m_treeTimer->isActive()) {
        // Within the catch-up time of the last batch shown: this one waits.
        if (!m_treeBehind)
            m_behindRootRows = rootRowsBefore;
        m_treeBehind = true;
    } else {
        ShowTreeChange(rootRowsBefore);
        m_treeTimer->start();
    }
    SyncLogText();
}

// A batch that will wait for the catch-up is added with the tree's painting
// held: the rows it inserts would otherwise repaint the tree at once.
void QEventWindow::BeforeTreeChange()
{
    if (m_eventView->isVisible() && m_treeTimer->isActive()) {
        m_eventView->viewport()->setUpdatesEnabled(false);
        m_eventView->HoldLayout();
    }
}

void QEventWindow::CatchUpNow()
{
    m_treeTimer->stop();
    CatchUpTree();
}

void QEventWindow::CatchUpTree()
{
    m_eventView->viewport()->setUpdatesEnabled(true);
    m_eventView->ReleaseLayout();
    if (!m_treeBehind)
        return;
    m_treeBehind = false;
    if (!m_eventView->isVisible()) {
        m_expandedAll = false;
        return;
    }
    ShowTreeChange(m_behindRootRows);
    m_treeTimer->start();
}

void QEventWindow::ShowTreeChange(int rootRowsBefore)
{
    if (m_eventExpand && m_model.PhaseGroup())
        ExpandAll(rootRowsBefore);
    else
        m_expandedAll = false;
    if (m_eventScroll) {
        // The column first: a horizontal scroll bar it brings would cover
        // the newest row after scrolling to the bottom.
        m_eventView->resizeColumnToContents(kColumnText);
        m_eventView->scrollToBottom();
    }
}

// Every item expanded, as QTreeView::expandAll leaves the tree. expandAll lays
// the whole tree out again, which grows with the session. Once the tree is all
// expanded, only what a batch added can be collapsed: the items under the
// root's rows from the last one before the batch on (a phase group takes
// children only while it is the last row of the root; closed groups keep
// theirs). So those are expanded, and the whole tree only when something may
// be collapsed elsewhere: the first time, after the tree was hidden or not
// expanded at a batch, after Clear, and after the user collapsed an item.
void QEventWindow::ExpandAll(int rootRowsBefore)
{
    if (!m_expandedAll) {
        m_eventView->expandAll();
        m_expandedAll = true;
        return;
    }
    auto expand = [this](QStandardItem* item) {
        const QModelIndex i = m_proxy->mapFromSource(item->index());
        if (!m_eventView->isExpanded(i))
            m_eventView->expand(i);
    };
    QStandardItemEx* root = m_model.Root();
    expand(root);
    for (int r = std::max(0, rootRowsBefore - 1); r < root->rowCount(); ++r) {
        QStandardItem* group = root->child(r);
        if (!group->hasChildren())
            continue;
        expand(group);
        for (int k = 0; k < group->rowCount(); ++k)
            if (group->child(k)->hasChildren())
                expand(group->child(k));
    }
}

// The log text is the model's lines, each ended by a line feed. Rather than
// set the whole text again at every batch, the lines the model trimmed from
// the front are removed and the new ones appended: the text stays exactly the
// one a rebuild would give (tested), at a cost that does not grow with the
// line limit.
void QEventWindow::SyncLogText()
{
    const QStringList& lines = m_model.LogLines();
    const int64_t added = m_model.LinesWritten() - m_shownWritten;
    const int64_t trimmed = m_shownLines + added - lines.size();
    if (added < 0 || added > lines.size() || trimmed < 0 || trimmed > m_shownLines) {
        RebuildLogText();
        return;
    }
    QTextCursor cursor(m_plainTextEdit->document());
    if (trimmed > 0) {
        cursor.movePosition(QTextCursor::Start);
        cursor.movePosition(QTextCursor::NextBlock, QTextCursor::KeepAnchor, static_cast<int>(trimmed));
        cursor.removeSelectedText();
    }
    if (added > 0) {
        QString text;
        const int64_t firstIndex = m_model.LinesWritten() - lines.size();
        for (int i = lines.size() - static_cast<int>(added); i < lines.size(); ++i)
            text += LogLinePrefix(firstIndex + i) + lines[i] + QLatin1Char('\n');
        cursor.movePosition(QTextCursor::End);
        cursor.insertText(text);
    }
    m_shownWritten = m_model.LinesWritten();
    m_shownLines = lines.size();
    m_lineTimes.erase(m_lineTimes.begin(), m_lineTimes.lower_bound(m_model.LinesWritten() - lines.size()));
    if (m_logScroll)
        m_plainTextEdit->verticalScrollBar()->setValue(m_plainTextEdit->verticalScrollBar()->maximum());
}

QString QEventWindow::LogLinePrefix(int64_t lineIndex) const
{
    const auto found = m_lineTimes.find(lineIndex);
    if (found == m_lineTimes.end())
        return QString(12, QLatin1Char(' '));
    return QStringLiteral("%1  ").arg(found->second, 10, 'f', 3);
}

QString QEventWindow::ShownLogText() const
{
    const QStringList& lines = m_model.LogLines();
    const int64_t firstIndex = m_model.LinesWritten() - lines.size();
    QString text;
    for (int i = 0; i < lines.size(); ++i)
        text += LogLinePrefix(firstIndex + i) + lines[i] + QLatin1Char('\n');
    return text;
}

void QEventWindow::RebuildLogText()
{
    m_plainTextEdit->setPlainText(ShownLogText());
    m_shownWritten = m_model.LinesWritten();
    m_shownLines = m_model.LogLines().size();
    ++m_logRebuilds;
    if (m_logScroll)
        m_plainTextEdit->verticalScrollBar()->setValue(m_plainTextEdit->verticalScrollBar()->maximum());
}

bool QEventWindow::HasFocus()
{
    const bool focus = hasFocus() || m_tabWidget->hasFocus() || m_tabWidget->tabBar()->hasFocus() ||
                       m_eventView->hasFocus() || m_plainTextEdit->hasFocus();
    QFont font = m_tabWidget->tabBar()->font();
    font.setWeight(focus ? 75 : 50);
    m_tabWidget->tabBar()->setFont(font);
    return focus;
}

void QEventWindow::logScroll()
{
    m_logScroll = m_logScrollButton->isChecked();
}

void QEventWindow::eventScroll()
{
    m_eventScroll = m_eventScrollButton->isChecked();
}

void QEventWindow::eventExpand()
{
    m_eventExpand = m_eventExpandButton->isChecked();
    if (m_eventExpand) {
        // The tree follows with the next batch.
        m_eventExpandButton->setIcon(m_icons.value(QStringLiteral("expand_close")));
    } else {
        m_eventExpandButton->setIcon(m_icons.value(QStringLiteral("expand")));
        m_eventView->collapseAll();
        m_eventView->expand(m_proxy->index(0, 0));
    }
}

void QEventWindow::eventClidked(const QModelIndex& index)
{
    const QModelIndex source = m_proxy->mapToSource(index);
    auto* item = static_cast<QStandardItemEx*>(m_model.Model().itemFromIndex(source));
    if (!item)
        return;
    // A "Digital Ping" sub-group selects nothing.
    if (item->mode >= 0 && item->mode <= 8 && item->mode != kItemDigitalPing)
        emit EventWindowSelect_Signal(m_model.Select(item), item->mode);
}

void QEventWindow::on_listView_doubleClicked(const QModelIndex&)
{
}

void QEventWindow::slot_textmenu(const QPoint& at)
{
    QMenu* menu = m_plainTextEdit->createStandardContextMenu();
    QAction* open = menu->addAction(QStringLiteral("Open Saved Folder"));
    connect(open, &QAction::triggered, this, &QEventWindow::slot_openDir);
    menu->exec(m_plainTextEdit->mapToGlobal(at));
    delete menu;
}

void QEventWindow::slot_openDir(bool)
{
    const std::string& path = SettingParams::Instance().logPath;
    if (path.empty()) {
        ShowUserMessage(this, MessageKind::Information, QStringLiteral("Information"),
                        QStringLiteral("Support After Start Capture."));
        return;
    }
    OpenWithDesktop(QUrl::fromLocalFile(QString::fromStdString(path)));
}
