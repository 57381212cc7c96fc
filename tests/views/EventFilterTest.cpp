// The display filter bar of the event window: typed and applied with Enter,
// it hides the events that fail it and the groups left empty, titles the
// groups with how many of how many are shown, filters new batches as they
// come, and refuses a bad expression in red while the last good one stays.
#include "ViewTestEvents.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

#include <QAbstractProxyModel>
#include <QLabel>
#include <QLineEdit>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

namespace {

class EventFilterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SettingParams& s = SettingParams::Instance();
        s.m_window_time = 15;
        s.eventPath = s.logPath = dir.path().toStdString() + "/";
        SetUserMessageRecorder([](const UserMessage&) {});
    }
    void TearDown() override { SetUserMessageRecorder(nullptr); }

    // A ping, a configuration and control errors of -2, -1, 0, 1, ...
    static std::vector<MsgInfoPtr> Batch(int controlErrors)
    {
        std::vector<MsgInfoPtr> batch{MakeEvent(1, 2, "SignalStrength 50", "01 80 81 "),
                                      MakeEvent(81, 2, "Configuration", "51 0A 00 00 0A 00 5B ")};
        for (int i = 0; i < controlErrors; ++i) {
            const int8_t v = static_cast<int8_t>(i - 2);
            char hex[16];
            std::snprintf(hex, sizeof hex, "03 %02X %02X ", static_cast<uint8_t>(v), static_cast<uint8_t>(3 ^ v));
            auto e = MakeEvent(3, 2, "ControlError " + std::to_string(v), hex);
            e->packet.controlErrorValue = v;
            batch.push_back(e);
        }
        return batch;
    }

    static void Type(QEventWindow& w, const QString& text)
    {
        QLineEdit* bar = w.FilterEdit();
        bar->setFocus();
        QTest::keyClick(bar, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClick(bar, Qt::Key_Delete);
        QTest::keyClicks(bar, text);
        QTest::keyClick(bar, Qt::Key_Return);
    }

    // The shown rows under a proxy index, as texts.
    static QStringList ShownRows(QTreeView* tree, const QModelIndex& parent)
    {
        QStringList rows;
        for (int r = 0; r < tree->model()->rowCount(parent); ++r)
            if (!tree->isRowHidden(r, parent))
                rows << tree->model()->index(r, 0, parent).data().toString();
        return rows;
    }

    QTemporaryDir dir;
};

}  // namespace

TEST_F(EventFilterTest, EnterAppliesTheFilterHidingEventsAndEmptyGroupsWithCountsInTitles)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    w.AddEvents(Batch(6));
    w.CatchUpNow();
    QTreeView* tree = w.EventView();
    QAbstractItemModel* m = tree->model();
    const QModelIndex root = m->index(0, 0);
    ASSERT_EQ(w.TotalEvents(), 8);
    EXPECT_EQ(w.ShownEvents(), 8);

    Type(w, "ce.value < 0");
    EXPECT_FALSE(w.FilterRefused());
    EXPECT_EQ(w.ShownEvents(), 2);
    // The ping and configuration groups have no control error: hidden; the
    // power transfer group keeps its control-error sub-group with the two
    // negative ones.
    QStringList groups = ShownRows(tree, root);
    ASSERT_EQ(groups.size(), 2) << groups.join("|").toStdString();  // Start marker and one group
    EXPECT_TRUE(groups[0].startsWith("Start Acquisition"));
    EXPECT_TRUE(groups[1].startsWith("Power Transfer Phase")) << groups[1].toStdString();
    EXPECT_TRUE(groups[1].endsWith("[2 of 6 shown]")) << groups[1].toStdString();
    int configRow = -1;
    for (int r = 1; r < m->rowCount(root); ++r)
        if (!tree->isRowHidden(r, root))
            configRow = r;
    ASSERT_EQ(m->rowCount(root), 4);  // marker, ping, configuration, power transfer
    const QModelIndex config = m->index(configRow, 0, root);
    QStringList inGroup = ShownRows(tree, config);
    ASSERT_EQ(inGroup.size(), 1);  // the sub-group
    EXPECT_TRUE(inGroup[0].contains("[2 of 6 shown]")) << inGroup[0].toStdString();
    const QModelIndex sub = m->index(m->rowCount(config) - 1, 0, config);
    EXPECT_EQ(ShownRows(tree, sub), (QStringList{"ControlError -2", "ControlError -1"}));
    EXPECT_TRUE(m->index(0, 0).data().toString().contains("[2 of 8 shown]"));

    // An empty bar shows everything again, without notes.
    Type(w, "");
    EXPECT_EQ(w.ShownEvents(), 8);
    EXPECT_EQ(ShownRows(tree, sub).size(), 6);
    EXPECT_FALSE(groups[1].isEmpty());
    EXPECT_FALSE(m->index(configRow, 0, root).data().toString().contains("shown"));
}

TEST_F(EventFilterTest, NewBatchesAreFilteredAsTheyCome)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    w.AddEvents(Batch(2));
    Type(w, "type == Configuration");
    EXPECT_EQ(w.ShownEvents(), 1);
    w.AddEvents(Batch(3));
    w.CatchUpNow();
    EXPECT_EQ(w.TotalEvents(), 9);
    EXPECT_EQ(w.ShownEvents(), 2);
    QTreeView* tree = w.EventView();
    const QModelIndex root = tree->model()->index(0, 0);
    for (const QString& g : ShownRows(tree, root))
        EXPECT_TRUE(g.startsWith("Start") || g.contains("[1 of")) << g.toStdString();
}

TEST_F(EventFilterTest, BadExpressionTurnsTheBarRedAndKeepsTheLastGoodFilter)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    w.AddEvents(Batch(4));
    Type(w, "dir == rx && type == 3");
    EXPECT_EQ(w.ShownEvents(), 4);
    const QColor normal = w.FilterEdit()->palette().color(QPalette::Base);

    Type(w, "type == ");
    EXPECT_TRUE(w.FilterRefused());
    EXPECT_EQ(w.ShownEvents(), 4);  // the last good filter stays
    EXPECT_EQ(w.CurrentFilter().Text(), "dir == rx && type == 3");
    EXPECT_NE(w.FilterEdit()->palette().color(QPalette::Base), normal);
    EXPECT_TRUE(w.FilterEdit()->toolTip().contains("column 9: expected a value")) << w.FilterEdit()->toolTip().toStdString();
    EXPECT_TRUE(w.FilterErrorLabel()->isVisible());
    EXPECT_TRUE(w.FilterErrorLabel()->text().startsWith("column 9"));
    EXPECT_EQ(w.FilterEdit()->cursorPosition(), 8);

    Type(w, "type == 1");
    EXPECT_FALSE(w.FilterRefused());
    EXPECT_EQ(w.ShownEvents(), 1);
    EXPECT_EQ(w.FilterEdit()->palette().color(QPalette::Base), normal);
    EXPECT_FALSE(w.FilterErrorLabel()->isVisible());
}

TEST_F(EventFilterTest, ClearForgetsTheFieldsAndKeepsFiltering)
{
    QEventWindow w;
    w.show();
    w.StartAcquisition();
    w.AddEvents(Batch(3));
    Type(w, "ce.value >= 0");
    EXPECT_EQ(w.ShownEvents(), 1);
    w.ClearAll();
    EXPECT_EQ(w.TotalEvents(), 0);
    w.StartAcquisition();
    w.AddEvents(Batch(5));
    EXPECT_EQ(w.ShownEvents(), 3);
}
