// The columns of the event tree: number, time, the time since the event shown
// before, and direction beside the text; shown and hidden from the header's
// context menu, and kept with their widths for the windows made after.
#include "ViewTestEvents.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QContextMenuEvent>
#include <QHeaderView>
#include <QLineEdit>
#include <QFile>
#include <QMenu>
#include <QPlainTextEdit>
#include <QScrollBar>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

namespace {

class EventColumnsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SettingParams& s = SettingParams::Instance();
        s.m_window_time = 15;
        s.eventPath = s.logPath = dir.path().toStdString() + "/";
        SetUserMessageRecorder([](const UserMessage&) {});
    }
    void TearDown() override { SetUserMessageRecorder(nullptr); }

    // A ping at 1 ms, a configuration at 3.5 ms, then identification-like
    // packets every 2.25 ms, the second one sent by the transmitter.
    static std::vector<MsgInfoPtr> Timed()
    {
        std::vector<MsgInfoPtr> batch{MakeEvent(1, 2, "SignalStrength 50", "01 80 81 "),
                                      MakeEvent(81, 2, "Configuration", "51 0A 00 00 0A 00 5B "),
                                      MakeEvent(2, 2, "EndPower 1", "02 01 03 "),
                                      MakeEvent(2, 2, "EndPower 2", "02 02 00 ")};
        int64_t us = 1000;
        for (const MsgInfoPtr& e : batch) {
            e->timing.startTime = us;
            us += us == 1000 ? 2500 : 2250;
        }
        return batch;
    }

    // The texts of a row's columns, by the header's visual order.
    static QStringList Row(QTreeView* tree, const QModelIndex& first)
    {
        QStringList texts;
        for (int v = 0; v < tree->header()->count(); ++v) {
            const int c = tree->header()->logicalIndex(v);
            texts << first.sibling(first.row(), c).data().toString();
        }
        return texts;
    }

    QTemporaryDir dir;
};

// Every shown event row, depth first.
void Events(QTreeView* tree, const QModelIndex& parent, std::vector<QModelIndex>& out)
{
    for (int r = 0; r < tree->model()->rowCount(parent); ++r) {
        const QModelIndex i = tree->model()->index(r, 0, parent);
        if (tree->isRowHidden(r, parent))
            continue;
        if (tree->model()->hasChildren(i))
            Events(tree, i, out);
        else if (!i.sibling(r, QEventWindow::kColumnNumber).data().toString().isEmpty())
            out.push_back(i);
    }
}

}  // namespace

TEST_F(EventColumnsTest, NumberTimeDeltaAndDirectionBeforeTheText)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    w.AddEvents(Timed());
    w.CatchUpNow();
    QTreeView* tree = w.EventView();
    QHeaderView* header = tree->header();
    ASSERT_EQ(header->count(), 5);
    QStringList titles;
    for (int v = 0; v < 5; ++v)
        titles << tree->model()->headerData(header->logicalIndex(v), Qt::Horizontal).toString();
    EXPECT_EQ(titles, (QStringList{"No.", "Time (ms)", QString::fromUtf8("\u0394t (ms)"), "Dir", "Event"}));

    std::vector<QModelIndex> events;
    Events(tree, tree->model()->index(0, 0), events);
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(Row(tree, events[0]), (QStringList{"2", "1.000", "", "rx", "Rx SignalStrength 50"}));
    EXPECT_EQ(Row(tree, events[1]), (QStringList{"3", "3.500", "2.500", "rx", "Rx Configuration"}));
    EXPECT_EQ(Row(tree, events[3]), (QStringList{"5", "8.000", "2.250", "rx", "Rx EndPower 2"}));
    // A group's row has only its title.
    const QModelIndex group = events[0].parent();
    EXPECT_TRUE(group.sibling(group.row(), QEventWindow::kColumnTime).data().toString().isEmpty());

    // Under a filter the time difference is from the event shown before.
    QLineEdit* bar = w.FilterEdit();
    bar->setFocus();
    QTest::keyClicks(bar, "type != 81");
    QTest::keyClick(bar, Qt::Key_Return);
    events.clear();
    Events(tree, tree->model()->index(0, 0), events);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(Row(tree, events[1]).mid(0, 3), (QStringList{"4", "5.750", "4.750"}));
}

TEST_F(EventColumnsTest, HeaderMenuHidesAndShowsColumnsAndTheWindowAfterKeepsThemWithTheirWidths)
{
    {
        QEventWindow w;
        w.show();
        QHeaderView* header = w.EventView()->header();
        EXPECT_FALSE(header->isSectionHidden(QEventWindow::kColumnDir));
        QContextMenuEvent menuAt(QContextMenuEvent::Mouse, QPoint(10, 5), header->mapToGlobal(QPoint(10, 5)));
        QApplication::sendEvent(header->viewport(), &menuAt);
        QMenu* menu = w.ColumnMenu();
        ASSERT_TRUE(QTest::qWaitFor([&] { return menu->isVisible(); }, 1000));
        QStringList items;
        for (QAction* a : menu->actions())
            items << a->text();
        EXPECT_EQ(items, (QStringList{"No.", "Time (ms)", QString::fromUtf8("\u0394t (ms)"), "Dir"}));
        QAction* dir = menu->actions().at(3);
        EXPECT_TRUE(dir->isChecked());
        // Down to the fourth entry and Enter, as a user picks it.
        for (int k = 0; k < 4; ++k)
            QTest::keyClick(menu, Qt::Key_Down);
        QTest::keyClick(menu, Qt::Key_Return);
        EXPECT_FALSE(dir->isChecked());
        EXPECT_TRUE(header->isSectionHidden(QEventWindow::kColumnDir));
        header->resizeSection(QEventWindow::kColumnTime, 123);
    }
    QEventWindow again;
    QHeaderView* header = again.EventView()->header();
    EXPECT_TRUE(header->isSectionHidden(QEventWindow::kColumnDir));
    EXPECT_EQ(header->sectionSize(QEventWindow::kColumnTime), 123);
    EXPECT_FALSE(again.ColumnMenu()->actions().at(3)->isChecked());
    // Shown again, for the tests after.
    again.ColumnMenu()->actions().at(3)->setChecked(true);
    EXPECT_FALSE(header->isSectionHidden(QEventWindow::kColumnDir));
}

// A window that closes writes its columns to a file beside the settings; the
// next run's first window starts from that file, not from built-in widths.
TEST_F(EventColumnsTest, ColumnWidthsAndHiddenColumnsComeBackInTheNextRun)
{
    const QString file = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                         "/Coilscope/window-state.ini";
    {
        QEventWindow w;
        w.EventView()->header()->resizeSection(QEventWindow::kColumnTime, 131);
        w.EventView()->header()->setSectionHidden(QEventWindow::kColumnDelta, true);
    }
    ASSERT_TRUE(QFile::exists(file));
    {
        // Other widths in memory, as a run that never saw that file would have.
        QEventWindow other;
        other.EventView()->header()->resizeSection(QEventWindow::kColumnTime, 88);
        other.EventView()->header()->setSectionHidden(QEventWindow::kColumnDelta, false);
        QEventWindow::LoadColumns();  // a new run reads the file
        QEventWindow next;
        QHeaderView* header = next.EventView()->header();
        EXPECT_EQ(header->sectionSize(QEventWindow::kColumnTime), 131);
        EXPECT_TRUE(header->isSectionHidden(QEventWindow::kColumnDelta));
        header->setSectionHidden(QEventWindow::kColumnDelta, false);
    }
    // A file that is not a header's state gives the built-in columns.
    QFile garbage(file);
    ASSERT_TRUE(garbage.open(QIODevice::WriteOnly | QIODevice::Truncate));
    garbage.write("[General]\neventColumns=@ByteArray(not a header state)\n");
    garbage.close();
    QEventWindow::LoadColumns();
    QEventWindow fresh;
    EXPECT_FALSE(fresh.EventView()->header()->isSectionHidden(QEventWindow::kColumnDelta));
    EXPECT_GT(fresh.EventView()->header()->sectionSize(QEventWindow::kColumnTime), 0);
    EXPECT_EQ(fresh.EventView()->header()->visualIndex(QEventWindow::kColumnText), 4);
}

TEST_F(EventColumnsTest, ClearKeepsTheColumnsAndShowingARowDoesNotScrollSideways)
{
    QEventWindow w;
    w.resize(300, 300);
    w.show();
    QHeaderView* header = w.EventView()->header();
    header->resizeSection(QEventWindow::kColumnDelta, 77);
    w.ClearAll();
    EXPECT_EQ(header->visualIndex(QEventWindow::kColumnText), 4);
    EXPECT_EQ(header->visualIndex(QEventWindow::kColumnNumber), 0);
    EXPECT_EQ(header->sectionSize(QEventWindow::kColumnDelta), 77);
    w.StartAcquisition();
    std::vector<MsgInfoPtr> batch;
    for (int i = 0; i < 30; ++i)
        batch.push_back(MakeEvent(2, 2, "EndPower with a long text to scroll across " + std::to_string(i), "02 01 03 "));
    w.AddEvents(batch);
    w.CatchUpNow();
    // The text column reaches past the window: selecting a row keeps the
    // number column in view.
    ASSERT_GT(w.EventView()->horizontalScrollBar()->maximum(), 0);
    w.EventView()->horizontalScrollBar()->setValue(0);
    ASSERT_TRUE(w.GoTo(20));
    EXPECT_EQ(w.EventView()->horizontalScrollBar()->value(), 0);
}

TEST_F(EventColumnsTest, LogWindowLinesHaveTheirTimeAndTheLogFileStaysAsItWas)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    w.AddEvents(Timed());
    const QStringList shown = w.LogView()->toPlainText().split('\n', QString::SkipEmptyParts);
    ASSERT_EQ(shown.size(), 5);
    EXPECT_TRUE(shown[0].startsWith(QString(12, ' ') + "   [1] Start Acquisition")) << shown[0].toStdString();
    EXPECT_EQ(shown[1], "     1.000  Rx [2] SignalStrength 50");
    EXPECT_EQ(shown[2], "     3.500  Rx [3] Configuration");
    EXPECT_EQ(shown[4], "     8.000  Rx [5] EndPower 2");
    // The model's lines, and so the .log, have no time.
    EXPECT_EQ(w.Model().LogLines().at(1), "Rx [2] SignalStrength 50");
    w.Model().CloseStreams();
    QFile log(QString::fromStdString(w.Model().LogPath()));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QString written = QString::fromUtf8(log.readAll());
    EXPECT_TRUE(written.contains("Rx [2] SignalStrength 50"));
    EXPECT_FALSE(written.contains("1.000"));
}
