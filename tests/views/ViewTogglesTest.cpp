// The five views of the real window and their toggles, driven by real key
// presses and clicks: Escape inside a view hides nothing (the views are
// dialog forms embedded as panels), the toggles always say what is shown,
// one click on a toggle hides its view and the next shows it again, and a
// dialog that stands as a window of its own still closes on Escape.
#include "ViewTestEvents.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "views/ABout.h"
#include "views/MainWindow.h"
#include "views/Properties.h"
#include "views/QEventInfo.h"
#include "views/QWindowReal.h"
#include "views/QwtChart.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <QAction>
#include <QApplication>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QTest>
#include <QToolBar>
#include <QToolButton>
#include <QTreeView>
#include <QtCharts/QChartView>

namespace {

class ViewTogglesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams& s = SettingParams::Instance();
        s.savePath = dir.path().toStdString() + "/sessions";
        // The events the tests put in the tree are saved in this folder, not
        // in the working folder that other tests look at.
        s.eventPath = s.logPath = dir.path().toStdString() + "/";
        s.m_window_time = 15;
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
    }
    void TearDown() override { SetUserMessageRecorder(nullptr); }
    std::string Empty() const { return dir.path().toStdString() + "/none/ttyACM%d"; }

    // The window shown and active, with a few events in the tree.
    void ShowWithEvents(MainWindow& w)
    {
        w.show();
        QApplication::setActiveWindow(&w);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
        QWindowReal* dock = w.Dock();
        dock->StartMark();
        RealTimeSample sample;
        sample.time = 1.0f;
        sample.frequencyHz = 128000.0;
        sample.events = {MakeEvent(1, 2, "SignalStrength 50", "01 80 81 "), ControlError(5.0), ControlError(3.0)};
        dock->PushSample(sample);
        dock->Redraw();
        dock->EventWindow()->CatchUpNow();
        // Let the window take its final geometry before anything is clicked.
        QTest::qWait(50);
    }

    // The five toggles with the views they show, as the tool bar has them.
    struct Toggle {
        const char* action;
        QWidget* view;
    };
    static std::vector<Toggle> Toggles(MainWindow& w)
    {
        QWindowReal* d = w.Dock();
        return {{"actionEventWindow", d->EventWindow()},
                {"actionFrequencyChart", d->FrequencyChart()},
                {"actionPercentageChart", d->PercentChart()},
                {"actionEventPropertyChart", d->PropertyView()},
                {"actionEventInfo", d->EventInfo()}};
    }

    // Every view and the dock shown, and every toggle checked.
    static void ExpectAllShown(MainWindow& w, const std::string& where)
    {
        EXPECT_TRUE(w.Dock()->isVisible()) << where;
        for (const Toggle& t : Toggles(w)) {
            EXPECT_TRUE(t.view->isVisible()) << where << ": " << t.action;
            EXPECT_TRUE(w.Action(t.action)->isChecked()) << where << ": " << t.action;
        }
    }

    // Presses Escape where the keyboard focus is, as the user does.
    static void PressEscape(QWidget* fallback)
    {
        QWidget* target = QApplication::focusWidget() ? QApplication::focusWidget() : fallback;
        QTest::keyClick(target, Qt::Key_Escape);
    }

    QTemporaryDir dir;
    std::vector<UserMessage> messages;
};

}  // namespace

TEST_F(ViewTogglesTest, EscapeAfterClickingARowOfTheEventTreeHidesNothing)
{
    MainWindow w(Empty());
    ShowWithEvents(w);
    QTreeView* tree = w.Dock()->EventWindow()->EventView();
    const QModelIndex row = tree->model()->index(0, 0);
    ASSERT_TRUE(row.isValid());
    tree->scrollTo(row);
    const QRect rect = tree->visualRect(row);
    ASSERT_FALSE(rect.isEmpty());
    // On the row's text, at its start: the row may be wider than the view.
    const QPoint onText(std::min(rect.left() + 8, tree->viewport()->width() - 1), rect.center().y());
    QTest::mouseClick(tree->viewport(), Qt::LeftButton, Qt::NoModifier, onText);
    EXPECT_TRUE(tree->hasFocus());
    EXPECT_EQ(tree->currentIndex(), row);
    for (int press = 0; press < 5; ++press) {
        PressEscape(tree);
        ExpectAllShown(w, "Escape " + std::to_string(press + 1));
    }
    EXPECT_TRUE(w.Tabs()->isVisible());
    EXPECT_EQ(w.Tabs()->currentWidget(), w.Dock());
    EXPECT_TRUE(messages.empty());
}

TEST_F(ViewTogglesTest, EscapeInEveryViewOfTheRealWindowHidesNothing)
{
    MainWindow w(Empty());
    ShowWithEvents(w);
    QWindowReal* d = w.Dock();
    // A widget inside each view that takes the keyboard focus.
    const std::pair<const char*, QWidget*> places[] = {
        {"event tree", d->EventWindow()->EventView()},
        {"log text", d->EventWindow()->LogView()},
        {"gauge text", d->EventInfo()->FrequencyText()},
        {"gauges", d->EventInfo()},
        {"property tree", d->PropertyView()->findChild<QTreeView*>()},
        {"frequency chart", d->FrequencyChart()->ChartView()},
        {"percent chart", d->PercentChart()->ChartView()},
        {"dock", d},
    };
    for (const auto& place : places) {
        ASSERT_TRUE(place.second) << place.first;
        // The log lives on the event window's second tab.
        if (place.second == d->EventWindow()->LogView())
            d->EventWindow()->Tabs()->setCurrentIndex(1);
        place.second->setFocus(Qt::OtherFocusReason);
        for (int press = 0; press < 3; ++press) {
            QTest::keyClick(place.second, Qt::Key_Escape);
            ExpectAllShown(w, place.first);
        }
        PressEscape(place.second);
        ExpectAllShown(w, place.first);
    }
}

TEST_F(ViewTogglesTest, EmbeddedViewsAreNotClosedByTheirDialogsRejectOrReturn)
{
    MainWindow w(Empty());
    ShowWithEvents(w);
    QWindowReal* d = w.Dock();
    d->EventWindow()->reject();
    d->EventInfo()->reject();
    d->reject();
    ExpectAllShown(w, "reject");
    QTest::keyClick(d->EventWindow()->EventView(), Qt::Key_Return);
    QTest::keyClick(d->EventInfo()->FrequencyText(), Qt::Key_Enter);
    ExpectAllShown(w, "Return");
}

TEST_F(ViewTogglesTest, OneClickOnAToolBarToggleHidesItsViewAndTheNextShowsIt)
{
    MainWindow w(Empty());
    ShowWithEvents(w);
    auto* bar = w.findChild<QToolBar*>("toolBar");
    ASSERT_TRUE(bar);
    for (const Toggle& t : Toggles(w)) {
        QAction* action = w.Action(t.action);
        auto* button = qobject_cast<QToolButton*>(bar->widgetForAction(action));
        ASSERT_TRUE(button) << t.action;
        EXPECT_TRUE(button->isCheckable()) << t.action;
        QTest::mouseClick(button, Qt::LeftButton);
        EXPECT_FALSE(t.view->isVisible()) << t.action;
        EXPECT_FALSE(action->isChecked()) << t.action;
        EXPECT_FALSE(button->isChecked()) << t.action;
        QTest::mouseClick(button, Qt::LeftButton);
        EXPECT_TRUE(t.view->isVisible()) << t.action;
        EXPECT_TRUE(action->isChecked()) << t.action;
        EXPECT_TRUE(button->isChecked()) << t.action;
    }
    ExpectAllShown(w, "after the clicks");
}

TEST_F(ViewTogglesTest, TogglesFollowTheViewsWhateverShowsOrHidesThem)
{
    MainWindow w(Empty());
    ShowWithEvents(w);
    for (const Toggle& t : Toggles(w)) {
        QAction* action = w.Action(t.action);
        t.view->hide();
        EXPECT_FALSE(action->isChecked()) << t.action;
        // The next click shows the view at once: one click, not two.
        action->trigger();
        EXPECT_TRUE(t.view->isVisible()) << t.action;
        EXPECT_TRUE(action->isChecked()) << t.action;
        t.view->hide();
        t.view->show();
        EXPECT_TRUE(action->isChecked()) << t.action;
        // The menu entry toggles as the tool button does.
        action->trigger();
        EXPECT_FALSE(t.view->isVisible()) << t.action;
        EXPECT_FALSE(action->isChecked()) << t.action;
        action->trigger();
        EXPECT_TRUE(t.view->isVisible()) << t.action;
    }
    ExpectAllShown(w, "at the end");
}

TEST_F(ViewTogglesTest, AHiddenEventTreeStaysHiddenThroughEscapeAndItsToggleStaysOff)
{
    MainWindow w(Empty());
    ShowWithEvents(w);
    QAction* events = w.Action("actionEventWindow");
    events->trigger();
    ASSERT_FALSE(w.Dock()->EventWindow()->isVisible());
    w.Dock()->PropertyView()->setFocus(Qt::OtherFocusReason);
    for (int press = 0; press < 3; ++press)
        PressEscape(w.Dock());
    EXPECT_FALSE(w.Dock()->EventWindow()->isVisible());
    EXPECT_FALSE(events->isChecked());
    EXPECT_TRUE(w.Dock()->isVisible());
    EXPECT_TRUE(w.Dock()->PropertyView()->isVisible());
}

TEST(PanelDialog, AsAWindowOfItsOwnADialogStillClosesOnEscape)
{
    QEventInfo info;
    info.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&info));
    QTest::keyClick(info.FrequencyText(), Qt::Key_Escape);
    EXPECT_FALSE(info.isVisible());

    ABout about;
    about.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&about));
    QTest::keyClick(&about, Qt::Key_Escape);
    EXPECT_FALSE(about.isVisible());
}
