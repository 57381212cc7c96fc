// The event window as a user sees it: the tree with its icons, the log text,
// the three buttons, clicks that select an event, the log's context menu, and
// a hidden window that goes on numbering and saving without scrolling or
// expanding.
#include "ViewTestEvents.h"
#include "events/SessionFile.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QAbstractProxyModel>
#include <QApplication>
#include <QTimer>
#include <QTabBar>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

namespace {

class EventWindowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SettingParams& s = SettingParams::Instance();
        s.m_window_time = 15;
        s.eventPath = s.logPath = dir.path().toStdString() + "/";
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
        SetDesktopRecorder([this](const QUrl& u) { opened.push_back(u); });
    }
    void TearDown() override
    {
        SetUserMessageRecorder(nullptr);
        SetDesktopRecorder(nullptr);
    }

    // A batch of a ping, a configuration and some control errors.
    static std::vector<MsgInfoPtr> Batch(int controlErrors)
    {
        std::vector<MsgInfoPtr> batch{MakeEvent(1, 2, "SignalStrength 50", "01 80 81 "),
                                      MakeEvent(81, 2, "Configuration", "51 0A 00 00 0A 00 5B ")};
        for (int i = 0; i < controlErrors; ++i)
            batch.push_back(ControlError(i));
        return batch;
    }

    QTemporaryDir dir;
    std::vector<UserMessage> messages;
    std::vector<QUrl> opened;
};

QStandardItemEx* ItemAt(QEventWindow& w, const QModelIndex& proxyIndex)
{
    auto* proxy = static_cast<const QAbstractProxyModel*>(w.EventView()->model());
    return static_cast<QStandardItemEx*>(w.Model().Model().itemFromIndex(proxy->mapToSource(proxyIndex)));
}

}  // namespace

TEST_F(EventWindowTest, FormHasItsTabsTreeButtonsAndText)
{
    QEventWindow w;
    EXPECT_EQ(w.size(), QSize(496, 524));
    EXPECT_EQ(w.minimumSize(), QSize(10, 10));
    ASSERT_EQ(w.Tabs()->count(), 2);
    EXPECT_EQ(w.Tabs()->tabText(0), "Sniffer Events");
    EXPECT_FALSE(w.Tabs()->tabIcon(0).isNull());
    EXPECT_EQ(w.Tabs()->tabText(1), "Log Window");
    EXPECT_EQ(w.Tabs()->widget(1)->objectName(), "tab_2");
    for (const char* name : {"pushButton_logScroll", "pushButton_eventScroll", "pushButton_eventExpand"}) {
        auto* b = w.findChild<QPushButton*>(name);
        ASSERT_TRUE(b) << name;
        EXPECT_TRUE(b->isCheckable()) << name;
        EXPECT_TRUE(b->isChecked()) << name;
        EXPECT_FALSE(b->icon().isNull()) << name;
    }
    EXPECT_FALSE(w.EventView()->isHeaderHidden());  // the columns' titles
    EXPECT_EQ(w.EventView()->editTriggers(), QAbstractItemView::NoEditTriggers);
    EXPECT_EQ(w.EventView()->selectionMode(), QAbstractItemView::ExtendedSelection);  // Ctrl+C copies several
    EXPECT_EQ(w.LogView()->lineWrapMode(), QPlainTextEdit::NoWrap);
    EXPECT_EQ(w.LogView()->objectName(), "plainTextEdit");
}

TEST_F(EventWindowTest, EveryIconIsDrawn)
{
    QEventWindow w;
    for (const char* name : {"Project", "event", "folder-ansys", "group", "start", "stop", "ept", "expand",
                             "expand_close", "info"}) {
        ASSERT_TRUE(w.Icons().contains(name)) << name;
        EXPECT_FALSE(w.Icons().value(name).pixmap(24, 24).isNull()) << name;
    }
}

TEST_F(EventWindowTest, ItemsCarryTheIconOfTheirKind)
{
    QEventWindow w;
    w.StartAcquisition();
    auto status = MakeEvent(kTypeDeviceStatus, 0, "status");
    auto violation = MakeEvent(kTypeViolation, 2, "violation");
    auto contract = MakeEvent(kTypeContract, 0, "contract");
    std::vector<MsgInfoPtr> batch = Batch(2);
    batch.push_back(status);
    batch.push_back(violation);
    batch.push_back(contract);
    w.AddEvents(batch);
    w.StopAcquisition();
    auto iconKey = [&](const char* name) { return w.Icons().value(name).cacheKey(); };
    QStandardItemEx* root = w.Model().Root();
    EXPECT_EQ(w.IconOf(*root).cacheKey(), iconKey("Project"));
    int seen = 0;
    std::function<void(QStandardItem*)> walk = [&](QStandardItem* parent) {
        for (int r = 0; r < parent->rowCount(); ++r) {
            auto* item = static_cast<QStandardItemEx*>(parent->child(r));
            const char* expected = nullptr;
            switch (item->mode) {
            case kItemEvent: expected = item->type == kTypeDeviceStatus ? "info" : "event"; break;
            case kItemControlError: case kItemDigitalPing: case kItemPhase: expected = "group"; break;
            case kItemStart: expected = "start"; break;
            case kItemStop: expected = "stop"; break;
            case kItemNotice: expected = item->type == kTypeContract ? "info" : "ept"; break;
            default: break;
            }
            ASSERT_TRUE(expected) << item->text().toStdString();
            EXPECT_EQ(w.IconOf(*item).cacheKey(), iconKey(expected)) << item->text().toStdString();
            ++seen;
            walk(item);
        }
    };
    walk(root);
    EXPECT_GE(seen, 9);
    // The tree's view asks the icon through its model.
    const QModelIndex rootIndex = w.EventView()->model()->index(0, 0);
    EXPECT_EQ(qvariant_cast<QIcon>(rootIndex.data(Qt::DecorationRole)).cacheKey(), iconKey("Project"));
}

TEST_F(EventWindowTest, LogTextIsTheModelsLinesAndFollowsTheEnd)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    for (int k = 0; k < 20; ++k)
        w.AddEvents(Batch(30));
    EXPECT_EQ(w.LogView()->toPlainText(), w.ShownLogText());
    QScrollBar* bar = w.LogView()->verticalScrollBar();
    w.Tabs()->setCurrentIndex(1);
    w.AddEvents(Batch(3));
    EXPECT_GT(bar->maximum(), 0);
    EXPECT_EQ(bar->value(), bar->maximum());
    // Unchecked, the text stays where the user put it.
    w.findChild<QPushButton*>("pushButton_logScroll")->click();
    bar->setValue(0);
    w.AddEvents(Batch(3));
    EXPECT_EQ(bar->value(), 0);
}

TEST_F(EventWindowTest, LogTextKeptInPlaceEqualsTheRebuildThroughTrimmingAndClear)
{
    // With m_window_time 1 the log keeps 50 lines before Start and 500 after:
    // the text follows the model through both trims and a Clear.
    SettingParams::Instance().m_window_time = 1;
    QEventWindow w;
    for (int k = 0; k < 5; ++k) {
        w.AddEvents(Batch(13));
        ASSERT_EQ(w.LogView()->toPlainText(), w.ShownLogText()) << k;
    }
    EXPECT_EQ(w.Model().LogLines().size(), 50);
    w.StartAcquisition();
    for (int k = 0; k < 60; ++k) {
        w.AddEvents(Batch(k % 17));
        ASSERT_EQ(w.LogView()->toPlainText(), w.ShownLogText()) << k;
    }
    EXPECT_EQ(w.Model().LogLines().size(), 500);
    const int rebuilds = w.LogRebuilds();
    w.ClearAll();
    EXPECT_EQ(w.LogView()->toPlainText(), QString());
    w.AddEvents(Batch(4));
    EXPECT_EQ(w.LogView()->toPlainText(), w.ShownLogText());
    // Batches append in place: only the construction and Clear rebuilt it.
    EXPECT_EQ(rebuilds, 1);
}

TEST_F(EventWindowTest, ShownTreeFollowsAndExpandsTheNewestEvent)
{
    QEventWindow w;
    w.resize(300, 200);
    w.show();
    w.StartAcquisition();
    for (int k = 0; k < 5; ++k)
        w.AddEvents(Batch(20));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
    QTreeView* tree = w.EventView();
    QAbstractItemModel* m = tree->model();
    const QModelIndex root = m->index(0, 0);
    const QModelIndex group = m->index(m->rowCount(root) - 1, 0, root);
    EXPECT_TRUE(tree->isExpanded(root));
    EXPECT_TRUE(tree->isExpanded(group));
    EXPECT_GT(tree->verticalScrollBar()->maximum(), 0);
    EXPECT_EQ(tree->verticalScrollBar()->value(), tree->verticalScrollBar()->maximum());
}

TEST_F(EventWindowTest, BatchesSoonAfterAShownOneAreShownTogetherAtTheEndOfTheCatchUpTime)
{
    QEventWindow w;
    w.resize(700, 320);  // room for the filter bar, the columns' header and a few rows
    w.show();
    w.StartAcquisition();  // shown at once, and opens the catch-up time
    ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
    QTest::qWait(QEventWindow::kTreeCatchUpMs + 50);
    EventTreeView* tree = w.EventView();
    QAbstractItemModel* m = tree->model();
    const QModelIndex root = m->index(0, 0);
    // The first batch after a quiet time is followed at once.
    w.AddEvents(Batch(20));
    EXPECT_FALSE(w.TreeBehind());
    const QModelIndex first = m->index(m->rowCount(root) - 1, 0, root);
    EXPECT_TRUE(tree->isExpanded(first));
    const int followed = tree->verticalScrollBar()->value();
    EXPECT_EQ(followed, tree->verticalScrollBar()->maximum());
    // The next ones, right after it, wait: numbered and in the model, but the
    // view neither scrolls nor paints until the catch-up.
    // Nor is the tree laid out again for each of them: once, at the catch-up.
    QCoreApplication::processEvents();
    const int layouts = tree->Layouts();
    for (int k = 0; k < 3; ++k) {
        w.AddEvents(Batch(20));
        QCoreApplication::processEvents();
    }
    EXPECT_TRUE(w.TreeBehind());
    EXPECT_TRUE(tree->LayoutHeld());
    EXPECT_FALSE(tree->viewport()->updatesEnabled());
    EXPECT_EQ(tree->verticalScrollBar()->value(), followed);
    EXPECT_EQ(tree->Layouts(), layouts);
    EXPECT_EQ(w.Model().NextEventNumber(), 1 + 1 + 4 * 22);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
    EXPECT_FALSE(tree->LayoutHeld());
    EXPECT_EQ(tree->Layouts(), layouts + 1);
    // Every row the held batches appended is laid out and the newest in view.
    QModelIndex newest = root;
    while (m->rowCount(newest) > 0)
        newest = m->index(m->rowCount(newest) - 1, 0, newest);
    EXPECT_FALSE(tree->visualRect(newest).isEmpty());
    EXPECT_TRUE(tree->viewport()->rect().intersects(tree->visualRect(newest)));
    // (Its text column may reach past the viewport's right edge.)
    EXPECT_EQ(tree->indexAt(tree->visualRect(newest).intersected(tree->viewport()->rect()).center()), newest);
    EXPECT_TRUE(tree->viewport()->updatesEnabled());
    EXPECT_GT(tree->verticalScrollBar()->value(), followed);
    EXPECT_EQ(tree->verticalScrollBar()->value(), tree->verticalScrollBar()->maximum());
    EXPECT_TRUE(tree->isExpanded(m->index(m->rowCount(root) - 1, 0, root)));
    // The log is never held back.
    EXPECT_EQ(w.LogView()->toPlainText(), w.ShownLogText());
    // A picture of the tree taken while it is behind catches up first.
    w.AddEvents(Batch(20));
    ASSERT_TRUE(w.TreeBehind());
    w.CatchUpNow();
    EXPECT_FALSE(w.TreeBehind());
    EXPECT_TRUE(tree->viewport()->updatesEnabled());
    EXPECT_EQ(tree->verticalScrollBar()->value(), tree->verticalScrollBar()->maximum());
}

TEST_F(EventWindowTest, HiddenWindowNeitherScrollsNorExpandsButNumbersAndSaves)
{
    QEventWindow w;
    w.resize(300, 200);
    w.StartAcquisition();
    ASSERT_FALSE(w.isVisible());
    for (int k = 0; k < 5; ++k)
        w.AddEvents(Batch(20));
    QTreeView* tree = w.EventView();
    QAbstractItemModel* m = tree->model();
    const QModelIndex root = m->index(0, 0);
    ASSERT_GT(m->rowCount(root), 1);
    for (int r = 0; r < m->rowCount(root); ++r)
        EXPECT_FALSE(tree->isExpanded(m->index(r, 0, root))) << r;
    EXPECT_EQ(tree->verticalScrollBar()->value(), 0);
    // Numbering and the autosave went on.
    EXPECT_EQ(w.Model().NextEventNumber(), 1 + 1 + 5 * 22);
    w.Model().CloseStreams();
    std::vector<MsgInfoPtr> saved;
    ASSERT_TRUE(ReadSessionFile(w.Model().SidPath(), saved));
    EXPECT_EQ(saved.size(), 5u * 22u);
    // Shown again, the next batch catches up.
    w.show();
    w.AddEvents(Batch(1));
    const QModelIndex group = m->index(m->rowCount(root) - 1, 0, root);
    EXPECT_TRUE(tree->isExpanded(group));
}

TEST_F(EventWindowTest, ExpandButtonCollapsesToTheRootAndBack)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    w.AddEvents(Batch(5));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
    QTreeView* tree = w.EventView();
    QAbstractItemModel* m = tree->model();
    const QModelIndex root = m->index(0, 0);
    const QModelIndex group = m->index(m->rowCount(root) - 1, 0, root);
    ASSERT_TRUE(tree->isExpanded(group));
    auto* expand = w.findChild<QPushButton*>("pushButton_eventExpand");
    const qint64 closeIcon = w.Icons().value("expand_close").cacheKey();
    EXPECT_EQ(expand->icon().cacheKey(), closeIcon);
    expand->click();
    EXPECT_FALSE(expand->isChecked());
    EXPECT_EQ(expand->icon().cacheKey(), w.Icons().value("expand").cacheKey());
    EXPECT_TRUE(tree->isExpanded(root));
    EXPECT_FALSE(tree->isExpanded(group));
    w.AddEvents(Batch(1));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
    EXPECT_FALSE(tree->isExpanded(m->index(m->rowCount(root) - 1, 0, root)));
    expand->click();
    EXPECT_EQ(expand->icon().cacheKey(), closeIcon);
    w.AddEvents(Batch(1));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
    EXPECT_TRUE(tree->isExpanded(m->index(m->rowCount(root) - 1, 0, root)));
}

TEST_F(EventWindowTest, ClicksSelectEveryKindButADigitalPingGroup)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    std::vector<MsgInfoPtr> batch{MakeEvent(253, 1, "Digital Ping 64ms"), MakeEvent(253, 1, "Digital Ping 64ms"),
                                  MakeEvent(1, 2, "SignalStrength 50", "01 80 81 ")};
    w.AddEvents(batch);
    std::vector<StandardItemMode> selected;
    QObject::connect(&w, &QEventWindow::EventWindowSelect_Signal,
                     [&](MsgInfo&, StandardItemMode mode) { selected.push_back(mode); });
    QTreeView* tree = w.EventView();
    QAbstractItemModel* m = tree->model();
    const QModelIndex root = m->index(0, 0);
    // The root, the Start marker, the ping phase group, its "Digital Ping"
    // sub-group and the signal strength event.
    const QModelIndex group = m->index(1, 0, root);
    ASSERT_EQ(ItemAt(w, group)->mode, kItemPhase);
    const QModelIndex pings = m->index(0, 0, group);
    ASSERT_EQ(ItemAt(w, pings)->mode, kItemDigitalPing);
    const QModelIndex event = m->index(1, 0, group);
    ASSERT_EQ(ItemAt(w, event)->mode, kItemEvent);
    for (const QModelIndex& i : {root, m->index(0, 0, root), group, pings, event}) {
        tree->scrollTo(i);
        QTest::mouseClick(tree->viewport(), Qt::LeftButton, {}, tree->visualRect(i).center());
    }
    EXPECT_EQ(selected, (std::vector<StandardItemMode>{kItemRoot, kItemStart, kItemPhase, kItemEvent}));
}

TEST_F(EventWindowTest, SelectionCarriesTheItemsOwnEvent)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    w.AddEvents({MakeEvent(1, 2, "SignalStrength 50", "01 80 81 ")});
    const MsgInfo* selected = nullptr;
    StandardItemMode mode = kItemRoot;
    QObject::connect(&w, &QEventWindow::EventWindowSelect_Signal, [&](MsgInfo& info, StandardItemMode m) {
        selected = &info;
        mode = m;
    });
    QAbstractItemModel* m = w.EventView()->model();
    const QModelIndex event = m->index(0, 0, m->index(1, 0, m->index(0, 0)));
    w.eventClidked(event);
    ASSERT_TRUE(selected);
    EXPECT_EQ(mode, kItemEvent);
    EXPECT_EQ(selected, ItemAt(w, event)->info.get());
    EXPECT_EQ(selected->packet.PacketData, "01 80 81 ");
    EXPECT_EQ(selected->common.eventNumber, 2);
}

TEST_F(EventWindowTest, ClickOnAnOldEventShowsTheRecordItHadLive)
{
    QEventWindow w;
    w.show();
    w.Model().SetLiveRecords(4);
    w.StartAcquisition();
    // Forty signal strength events with a capture record each, one per batch.
    std::vector<TriggerData> live;
    for (int i = 0; i < 40; ++i) {
        MsgInfoPtr e = MakeEvent(1, 2, "SignalStrength 50", "01 80 81 ");
        auto record = std::make_shared<TriggerData>();
        record->startTime = 1000000u + 5000u * static_cast<uint64_t>(i);
        record->endTime = record->startTime + 4000;
        for (int k = 0; k < 120; ++k)
            record->samples.push_back(i * 1000 + (k % 20 < 10 ? 500 : -500));
        record->rawSamples = record->samples;
        for (int p = 0; p < 6; ++p) {
            PulseRecord pulse;
            pulse.duration = 20;
            pulse.level = static_cast<uint8_t>(p & 1);
            pulse.mark = static_cast<uint32_t>(20 * (p + 1));
            pulse.samples.assign(record->samples.begin() + 20 * p, record->samples.begin() + 20 * (p + 1));
            record->pulses.push_back(pulse);
        }
        e->capture = record;
        live.push_back(*record);
        w.AddEvents({e});
    }
    ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
    TriggerDataPtr shown;
    QObject::connect(&w, &QEventWindow::EventWindowSelect_Signal,
                     [&](MsgInfo& info, StandardItemMode) { shown = info.capture; });
    QTreeView* tree = w.EventView();
    QAbstractItemModel* m = tree->model();
    const QModelIndex group = m->index(1, 0, m->index(0, 0));
    ASSERT_EQ(m->rowCount(group), 40);
    const QModelIndex first = m->index(0, 0, group);
    ASSERT_FALSE(ItemAt(w, first)->info);  // no longer in memory
    tree->scrollTo(first);
    QTest::mouseClick(tree->viewport(), Qt::LeftButton, {}, tree->visualRect(first).center());
    ASSERT_TRUE(shown);
    EXPECT_EQ(shown->startTime, live[0].startTime);
    EXPECT_EQ(shown->endTime, live[0].endTime);
    EXPECT_EQ(shown->samples, live[0].samples);
    EXPECT_EQ(shown->rawSamples, live[0].rawSamples);
    ASSERT_EQ(shown->pulses.size(), live[0].pulses.size());
    for (size_t p = 0; p < shown->pulses.size(); ++p) {
        EXPECT_EQ(shown->pulses[p].samples, live[0].pulses[p].samples);
        EXPECT_EQ(shown->pulses[p].mark, live[0].pulses[p].mark);
        EXPECT_EQ(shown->pulses[p].level, live[0].pulses[p].level);
    }
}

TEST_F(EventWindowTest, OpenSavedDirOpensTheSessionFolderOrSaysToStartFirst)
{
    QEventWindow w;
    SettingParams::Instance().logPath.clear();
    w.slot_openDir(false);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "Information");
    EXPECT_EQ(messages[0].text, "Support After Start Capture.");
    EXPECT_TRUE(opened.empty());
    SettingParams::Instance().logPath = dir.path().toStdString() + "/";
    w.slot_openDir(false);
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0], QUrl::fromLocalFile(dir.path() + "/"));
    EXPECT_EQ(messages.size(), 1u);
}

TEST_F(EventWindowTest, LogContextMenuAddsOpenSavedDir)
{
    QEventWindow w;
    w.show();
    // The menu opens at the cursor; close it from the event loop and look at
    // what it offered.
    QStringList offered;
    QTimer::singleShot(0, [&] {
        for (QWidget* top : QApplication::topLevelWidgets())
            if (auto* menu = qobject_cast<QMenu*>(top); menu && menu->isVisible()) {
                for (QAction* a : menu->actions())
                    offered << a->text();
                menu->close();
            }
    });
    w.slot_textmenu(QPoint(5, 5));
    ASSERT_FALSE(offered.isEmpty());
    EXPECT_EQ(offered.last(), "Open Saved Folder");
    EXPECT_GT(offered.size(), 1);  // the standard entries come first
}

TEST_F(EventWindowTest, FocusMakesTheTabTitlesBold)
{
    QEventWindow w;
    w.show();
    QApplication::setActiveWindow(&w);
    w.EventView()->setFocus();
    QApplication::processEvents();
    EXPECT_TRUE(w.HasFocus());
    EXPECT_EQ(w.Tabs()->tabBar()->font().weight(), 75);
    QWidget other;
    other.show();
    QApplication::setActiveWindow(&other);
    other.setFocus();
    QApplication::processEvents();
    EXPECT_FALSE(w.HasFocus());
    EXPECT_EQ(w.Tabs()->tabBar()->font().weight(), 50);
}

TEST_F(EventWindowTest, EventsWithEmptyOrUnknownFieldsAreShownNotFatal)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    auto empty = std::make_shared<MsgInfo>();
    auto unknown = MakeEvent(9999, 7, "");
    auto negative = MakeEvent(-5, -1, "?");
    w.AddEvents({empty, unknown, negative});
    EXPECT_EQ(w.Model().NextEventNumber(), 5);
    EXPECT_EQ(w.LogView()->toPlainText(), w.ShownLogText());
}

TEST_F(EventWindowTest, FollowingTreeIsExpandedAsExpandAllLeavesIt)
{
    // The tree expands only what a batch added once it is all expanded: the
    // picture must stay the one expandAll gives, also after the user collapsed
    // an older group by hand and after phases changed.
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    QTreeView* tree = w.EventView();
    QAbstractItemModel* m = tree->model();
    std::function<int(const QModelIndex&)> collapsed = [&](const QModelIndex& parent) {
        int n = 0;
        for (int r = 0; r < m->rowCount(parent); ++r) {
            const QModelIndex i = m->index(r, 0, parent);
            if (m->hasChildren(i))
                n += (tree->isExpanded(i) ? 0 : 1) + collapsed(i);
        }
        return n;
    };
    for (int k = 0; k < 12; ++k) {
        w.AddEvents(Batch(k % 5 + 1));
        w.AddEvents({MakeEvent(253, 1, "Digital Ping 64ms"), MakeEvent(7, 2, "Request", "07 30 37 "),
                     MakeEvent(48, 1, "Power Transmitter Identification")});
        ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
        ASSERT_EQ(collapsed(QModelIndex()), 0) << k;
    }
    const QModelIndex root = m->index(0, 0);
    const QModelIndex oldGroup = m->index(2, 0, root);
    ASSERT_TRUE(m->hasChildren(oldGroup));
    tree->collapse(oldGroup);
    EXPECT_EQ(collapsed(QModelIndex()), 1);
    w.AddEvents(Batch(2));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !w.TreeBehind(); }, 5000));
    EXPECT_EQ(collapsed(QModelIndex()), 0);
    EXPECT_TRUE(tree->isExpanded(oldGroup));
}
