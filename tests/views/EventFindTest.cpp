// Finding in the event tree with real keys: Ctrl+F finds text or hex bytes
// forward (Enter) and backward (Shift+Enter), Ctrl+G goes to an event number,
// F8 and Shift+F8 walk the errors: failed checksums, violations and NAKs.
#include "ViewTestEvents.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QLineEdit>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

namespace {

class EventFindTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SettingParams& s = SettingParams::Instance();
        s.m_window_time = 15;
        s.eventPath = s.logPath = dir.path().toStdString() + "/";
        SetUserMessageRecorder([](const UserMessage&) {});
    }
    void TearDown() override { SetUserMessageRecorder(nullptr); }

    // Numbers 2 to 9 (the Start marker is 1): a ping, a configuration with a
    // failed checksum, two control errors, a NAK, an end power, a control
    // error and another ping.
    static std::vector<MsgInfoPtr> Session()
    {
        auto bad = MakeEvent(81, 2, "Configuration", "51 0A 00 00 0A 00 00 ");
        bad->packet.Status = "Error";
        auto nak = MakeEvent(kTypeTxPattern, 1, "NAK", "00 ");
        return {MakeEvent(1, 2, "SignalStrength 50", "01 80 81 "), bad, ControlError(1), ControlError(2), nak,
                MakeEvent(2, 2, "EndPower 1", "02 01 03 "), ControlError(3), MakeEvent(1, 2, "SignalStrength 60", "01 3C BD ")};
    }

    // Shortcuts reach the active window only.
    static void Activate(QEventWindow& w)
    {
        QApplication::setActiveWindow(&w);
        ASSERT_TRUE(QTest::qWaitForWindowActive(&w));
    }

    int SelectedNumber(QEventWindow& w)
    {
        const analysis::EventFields* f = w.FieldsOf(w.SelectedItem());
        return f ? static_cast<int>(f->number) : -1;
    }

    QTemporaryDir dir;
};

}  // namespace

TEST_F(EventFindTest, CtrlFFindsTextAndHexForwardAndBackwardRoundTheEnd)
{
    QEventWindow w;
    w.show();
    Activate(w);
    w.StartAcquisition();
    w.AddEvents(Session());
    w.CatchUpNow();
    int selections = 0;
    QObject::connect(&w, &QEventWindow::EventWindowSelect_Signal, [&](MsgInfo&, StandardItemMode) { ++selections; });
    w.EventView()->setFocus();
    QTest::keyClick(w.EventView(), Qt::Key_F, Qt::ControlModifier);
    ASSERT_TRUE(w.FindEdit()->isVisible());
    ASSERT_TRUE(w.FindEdit()->hasFocus());
    QTest::keyClicks(w.FindEdit(), "signalstrength");
    QTest::keyClick(w.FindEdit(), Qt::Key_Return);
    EXPECT_EQ(SelectedNumber(w), 2);
    EXPECT_EQ(selections, 1);  // the property views follow
    QTest::keyClick(w.FindEdit(), Qt::Key_Return);
    EXPECT_EQ(SelectedNumber(w), 9);
    QTest::keyClick(w.FindEdit(), Qt::Key_Return);  // round the end
    EXPECT_EQ(SelectedNumber(w), 2);
    QTest::keyClick(w.FindEdit(), Qt::Key_Return, Qt::ShiftModifier);  // backward, round the start
    EXPECT_EQ(SelectedNumber(w), 9);

    // Hex bytes: "01 03" is the end power's payload and checksum.
    w.FindEdit()->clear();
    QTest::keyClicks(w.FindEdit(), "01 03");
    QTest::keyClick(w.FindEdit(), Qt::Key_Return);
    EXPECT_EQ(SelectedNumber(w), 7);
    w.FindEdit()->clear();
    QTest::keyClicks(w.FindEdit(), "3c:bd");
    QTest::keyClick(w.FindEdit(), Qt::Key_Return, Qt::ShiftModifier);
    EXPECT_EQ(SelectedNumber(w), 9);

    w.FindEdit()->clear();
    QTest::keyClicks(w.FindEdit(), "nothing like it");
    QTest::keyClick(w.FindEdit(), Qt::Key_Return);
    EXPECT_EQ(SelectedNumber(w), 9);
    EXPECT_EQ(w.FindStatus()->text(), "Not found");
    QTest::keyClick(w.FindEdit(), Qt::Key_Escape);
    EXPECT_FALSE(w.FindEdit()->isVisible());
}

TEST_F(EventFindTest, FindSkipsWhatTheFilterHides)
{
    QEventWindow w;
    w.show();
    Activate(w);
    w.StartAcquisition();
    w.AddEvents(Session());
    w.SetFilter("number > 2");
    w.EventView()->setFocus();
    QTest::keyClick(w.EventView(), Qt::Key_F, Qt::ControlModifier);
    QTest::keyClicks(w.FindEdit(), "SignalStrength");
    QTest::keyClick(w.FindEdit(), Qt::Key_Return);
    EXPECT_EQ(SelectedNumber(w), 9);
}

TEST_F(EventFindTest, CtrlGGoesToAnEventNumber)
{
    QEventWindow w;
    w.show();
    Activate(w);
    w.StartAcquisition();
    w.AddEvents(Session());
    w.EventView()->setFocus();
    QTest::keyClick(w.EventView(), Qt::Key_G, Qt::ControlModifier);
    ASSERT_TRUE(w.GoToEdit()->hasFocus());
    QTest::keyClicks(w.GoToEdit(), "5");
    QTest::keyClick(w.GoToEdit(), Qt::Key_Return);
    EXPECT_EQ(SelectedNumber(w), 5);
    EXPECT_TRUE(w.EventView()->hasFocus());
    const QModelIndex current = w.EventView()->currentIndex();
    EXPECT_TRUE(w.EventView()->isExpanded(current.parent()));
    QTest::keyClick(w.EventView(), Qt::Key_G, Qt::ControlModifier);
    QTest::keyClicks(w.GoToEdit(), "99");
    QTest::keyClick(w.GoToEdit(), Qt::Key_Return);
    EXPECT_EQ(SelectedNumber(w), 5);
    EXPECT_EQ(w.FindStatus()->text(), "No event 99 shown");
}

TEST_F(EventFindTest, F8AndShiftF8WalkTheErrors)
{
    QEventWindow w;
    w.show();
    Activate(w);
    w.StartAcquisition();
    w.AddEvents(Session());
    auto violation = MakeEvent(kTypeViolation, 0, "Violation: no response");
    w.AddEvents({violation, MakeEvent(1, 2, "SignalStrength 70", "01 46 47 ")});
    w.CatchUpNow();
    EXPECT_EQ(w.ErrorCount(), 3);
    EXPECT_EQ(w.NextErrorAction()->shortcut(), QKeySequence(Qt::Key_F8));
    EXPECT_EQ(w.PreviousErrorAction()->shortcut(), QKeySequence(Qt::SHIFT + Qt::Key_F8));
    w.EventView()->setFocus();
    QTest::keyClick(w.EventView(), Qt::Key_F8);
    EXPECT_EQ(SelectedNumber(w), 3);  // the failed checksum
    QTest::keyClick(w.EventView(), Qt::Key_F8);
    EXPECT_EQ(SelectedNumber(w), 6);  // the NAK
    QTest::keyClick(w.EventView(), Qt::Key_F8);
    EXPECT_EQ(SelectedNumber(w), 10);  // the violation
    QTest::keyClick(w.EventView(), Qt::Key_F8);
    EXPECT_EQ(SelectedNumber(w), 3);  // round the end
    QTest::keyClick(w.EventView(), Qt::Key_F8, Qt::ShiftModifier);
    EXPECT_EQ(SelectedNumber(w), 10);
    QTest::keyClick(w.EventView(), Qt::Key_F8, Qt::ShiftModifier);
    EXPECT_EQ(SelectedNumber(w), 6);
}

TEST_F(EventFindTest, CtrlCCopiesTheSelectedEventsAsTheLogsLines)
{
    QEventWindow w;
    w.show();
    Activate(w);
    w.StartAcquisition();
    w.AddEvents(Session());
    w.CatchUpNow();
    // Events 3 and 4 selected as a user does: a click, then a Ctrl+click.
    QTreeView* tree = w.EventView();
    w.GoTo(3);
    const QModelIndex third = tree->currentIndex();
    w.GoTo(4);
    const QModelIndex fourth = tree->currentIndex();
    tree->scrollTo(third);
    QTest::mouseClick(tree->viewport(), Qt::LeftButton, Qt::NoModifier, tree->visualRect(third).center());
    QTest::mouseClick(tree->viewport(), Qt::LeftButton, Qt::ControlModifier, tree->visualRect(fourth).center());
    QApplication::clipboard()->clear();
    tree->setFocus();
    QTest::keyClick(tree, Qt::Key_C, Qt::ControlModifier);
    const QStringList log = w.Model().LogLines();
    const QString expected = log.filter("[3] ").first() + "\n" + log.filter("[4] ").first() + "\n";
    EXPECT_EQ(QApplication::clipboard()->text(), expected);
    EXPECT_EQ(QApplication::clipboard()->text(), "Rx [3] Configuration\nRx [4] ControlError 1.000000\n");
}
