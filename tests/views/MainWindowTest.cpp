// The main window as a user drives it: menus, tool bars and their actions, the
// dispatcher, action states through connect, start, stop and disconnect, the
// refresh cycle against the device emulator, sessions opened and saved, Exit
// and close. Message boxes and file dialogs go through the seam, recorded.
#include "AcquisitionCheck.h"
#include "ViewTestEvents.h"
#include "WindowConnect.h"
#include "events/SessionFile.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "services/Startup.h"
#include "sim/DeviceEmulator.h"
#include "views/MainWindow.h"
#include "views/Properties.h"
#include "views/PropertyTree.h"
#include "views/QWindowReal.h"

#include "analysis/TimingFile.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QPlainTextEdit>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QToolBar>
#include <QToolButton>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>

namespace {

using Emulator = windowconnect::Emulator;

class MainWindowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams& s = SettingParams::Instance();
        s.savePath = dir.path().toStdString() + "/sessions";
        s.m_window_time = 15;
        s.m_dac_locked = 0;
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
        SetDesktopRecorder([this](const QUrl& u) { opened.push_back(u); });
        SetFileAnswerer([this](const QString& title) {
            asked.push_back(title);
            return answer;
        });
    }
    void TearDown() override
    {
        SetUserMessageRecorder(nullptr);
        SetDesktopRecorder(nullptr);
        SetFileAnswerer(nullptr);
    }
    std::string Empty() const { return dir.path().toStdString() + "/none/ttyACM%d"; }
    // Runs the event loop until the condition holds or the time is up.
    static bool WaitFor(const std::function<bool()>& condition, int ms = 10000)
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!condition() && std::chrono::steady_clock::now() < until)
            QTest::qWait(10);
        return condition();
    }
    bool ConnectAndAcquire(MainWindow& w) { return windowconnect::ConnectAndAcquire(w, messages); }
    struct States {
        bool connectEnabled, connectChecked, disconnectEnabled, startEnabled, startChecked, stopEnabled;
        bool operator==(const States& o) const
        {
            return connectEnabled == o.connectEnabled && connectChecked == o.connectChecked &&
                   disconnectEnabled == o.disconnectEnabled && startEnabled == o.startEnabled &&
                   startChecked == o.startChecked && stopEnabled == o.stopEnabled;
        }
    };
    static States StatesOf(MainWindow& w)
    {
        return {w.Action("actionConnect")->isEnabled(),    w.Action("actionConnect")->isChecked(),
                w.Action("actionDisconnect")->isEnabled(), w.Action("actionStart")->isEnabled(),
                w.Action("actionStart")->isChecked(),      w.Action("actionStop")->isEnabled()};
    }

    QTemporaryDir dir;
    std::vector<UserMessage> messages;
    std::vector<QUrl> opened;
    std::vector<QString> asked;
    QString answer;
};

QStringList Entries(const QWidget* menu)
{
    QStringList names;
    for (QAction* a : menu->actions())
        names << (a->isSeparator() ? QStringLiteral("-") : a->objectName());
    return names;
}

}  // namespace

TEST_F(MainWindowTest, WindowMenusAndToolBarsAsTheFormHasThem)
{
    MainWindow w(Empty());
    EXPECT_EQ(w.objectName(), "MainWindow");
    EXPECT_EQ(w.windowTitle(), "Coilscope");
    EXPECT_FALSE(w.windowIcon().isNull());
    EXPECT_TRUE(w.windowState() & Qt::WindowMaximized);
    ASSERT_EQ(w.Tabs()->count(), 1);
    EXPECT_EQ(w.Tabs()->tabText(0), "Real Window");
    EXPECT_EQ(w.Tabs()->widget(0), w.Dock());
    QStringList titles;
    for (QAction* a : w.menuBar()->actions())
        titles << a->text();
    // The form's menus, and the Go menu of the event window's find actions.
    EXPECT_EQ(titles, (QStringList{"File", "Sniffer", "Scope", "Go", "Options", "Help"}));
    EXPECT_EQ(Entries(w.findChild<QMenu*>("menuFile")),
              (QStringList{"actionOpen", "actionSave", "actionSetSavePath", "actionExport", "actionExportSigrok", "-",
                           "actionPrint", "actionPrintFreview", "actionExit"}));
    EXPECT_EQ(Entries(w.findChild<QMenu*>("menuSniffer")),
              (QStringList{"actionConnect", "actionDisconnect", "-", "actionStart", "actionStop", "-",
                           "actionEventWindow", "actionEventInfo", "actionEventPropertyChart", "actionFrequencyChart",
                           "actionPercentageChart", "actionTimingFindings", "-", "actionClear", "-",
                           "actionUpdate_Fireware"}));
    EXPECT_EQ(Entries(w.findChild<QMenu*>("menuTester")),
              (QStringList{"action2K_Ware", "actionFSKWare", "actionPercent"}));
    EXPECT_EQ(Entries(w.findChild<QMenu*>("menuOptions")), (QStringList{"actionSetting"}));
    EXPECT_EQ(Entries(w.findChild<QMenu*>("menuHelp")),
              (QStringList{"actionCoilscope_Webset", "actionQuickStart", "actionAbout", "actionCheck_For_Updates",
                           "actionProductTest"}));
    EXPECT_EQ(Entries(w.findChild<QToolBar*>("mainToolBar")),
              (QStringList{"actionOpen", "actionSave", "actionPrint", "-", "actionCut", "actionCopy", "actionPaste",
                           "-", "actionHelp"}));
    QStringList bar = Entries(w.findChild<QToolBar*>("toolBar"));
    ASSERT_FALSE(bar.isEmpty());
    bar.removeFirst();  // the "Sniffer" label's place
    EXPECT_EQ(bar, (QStringList{"actionConnect", "actionDisconnect", "-", "actionStart", "actionStop", "-",
                                "actionEventWindow", "actionFrequencyChart", "actionPercentageChart",
                                "actionEventPropertyChart", "actionEventInfo", "-", "actionClear", "-"}));
    auto* toolBar = w.findChild<QToolBar*>("toolBar");
    EXPECT_EQ(toolBar->windowTitle(), "Sniffer");
    EXPECT_EQ(w.findChild<QToolBar*>("mainToolBar")->windowTitle(), "File");
    EXPECT_EQ(toolBar->toolTip(), "Sniffer");
    EXPECT_EQ(toolBar->toolButtonStyle(), Qt::ToolButtonIconOnly);
    auto* label = qobject_cast<QLabel*>(toolBar->widgetForAction(toolBar->actions().value(0)));
    ASSERT_TRUE(label);
    EXPECT_EQ(label->text(), "Sniffer");
}

TEST_F(MainWindowTest, ActionsAreCreatedAsTheTableSays)
{
    MainWindow w(Empty());
    // The icon text is the key the dispatcher compares and the application
    // log names; the text is the label the menus show, spelled out.
    struct Row {
        const char* name;
        const char* key;
        const char* text;
        const char* toolTip;
        const char* shortcut;
        bool checkable, checked, visible;
    } rows[] = {
        {"actionPercentageChart", "PercentageChart", "Received Power Chart", "Received Power Chart", "", true, true,
         true},
        {"actionFrequencyChart", "FrequencyChart", "Frequency Chart", "Frequency Chart", "", true, true, true},
        {"actionEventPropertyChart", "EventPropertyChart", "Event Properties", "Event Properties", "", true, true,
         true},
        {"actionEventInfo", "EventInfo", "Event Info", "Event Info", "", true, true, true},
        {"actionEventWindow", "Sniffer Events", "Sniffer Events", "Sniffer Events", "", true, true, true},
        {"actionSave", "Save", "Save", "Save", "Ctrl+S", false, false, false},
        {"actionOpen", "Open", "Open", "Open", "Ctrl+O", false, false, true},
        {"actionPrint", "Print", "Print", "Print", "Ctrl+P", false, false, true},
        {"actionClear", "Clear", "Clear", "Clear All", "", false, false, true},
        {"actionConnect", "Connect", "Connect", "Connect", "", true, false, true},
        {"actionStart", "Start", "Start", "Start Acquisition", "", true, false, true},
        {"actionStop", "Stop", "Stop", "Stop Acquisition", "", false, false, true},
        {"actionCoilscope_Webset", "Sniffer Webset", "Coilscope Website", "Coilscope Website", "", false, false,
         true},
        {"actionQuickStart", "QuickStart", "Quick Start", "Quick Start", "", false, false, true},
        {"actionUpdate_Fireware", "UpdateFireware", "Update Firmware", "Update Firmware", "", false, false, true},
        {"actionAbout", "About", "About Coilscope", "About Coilscope", "", false, false, true},
        {"action2K_Ware", "ASK", "ASK Wave", "ASK Wave", "", false, false, true},
        {"actionFSKWare", "FSK", "FSK Wave", "FSK Wave", "", false, false, true},
        {"actionSetting", "Setting", "Settings", "Settings", "", false, false, true},
        {"actionSaveLog", "AutoLog", "Auto Log", "Auto Log", "", true, false, true},
        {"actionPercent", "PowerMonitor", "Power Monitor", "Power Monitor", "", false, false, true},
        {"actionSetSavePath", "SetSavePath", "Set Save Path", "Set Auto Save Path", "", false, false, true},
        {"actionCheck_For_Updates", "Check For Updates", "Check for Updates", "Check for Updates", "", false, false,
         true},
        {"actionProductTest", "ProductTest", "Product Test", "Product Test", "", false, false, true},
    };
    for (const Row& r : rows) {
        QAction* a = w.Action(r.name);
        ASSERT_TRUE(a) << r.name;
        EXPECT_EQ(a->text(), r.text) << r.name;
        EXPECT_EQ(a->iconText(), r.key) << r.name;
        EXPECT_EQ(a->toolTip(), r.toolTip) << r.name;
        EXPECT_EQ(a->shortcut().toString(), r.shortcut) << r.name;
        EXPECT_EQ(a->isCheckable(), r.checkable) << r.name;
        EXPECT_EQ(a->isChecked(), r.checked) << r.name;
        EXPECT_EQ(a->isVisible(), r.visible) << r.name;
        EXPECT_EQ(a->parent(), &w) << r.name;
    }
    for (const char* name : {"actionSaveExecl", "actionLoadCfg", "actionSaveCfg", "actionOpenLogDir", "actionSniffer"})
        EXPECT_TRUE(w.Action(name)) << name;
    // Every icon the table names is drawn.
    for (const char* name : {"actionOpen", "actionSave", "actionPrint", "actionCut", "actionCopy", "actionPaste",
                             "actionHelp", "actionConnect", "actionDisconnect", "actionStart", "actionStop",
                             "actionEventWindow", "actionFrequencyChart", "actionPercentageChart",
                             "actionEventPropertyChart", "actionEventInfo", "actionClear"})
        EXPECT_FALSE(w.Action(name)->icon().isNull()) << name;
}

TEST_F(MainWindowTest, AtStartOnlyConnectIsEnabledAndTheConfigActionsOnlyOnTabTwo)
{
    MainWindow w(Empty());
    EXPECT_EQ(StatesOf(w), (States{true, false, false, false, false, false}));
    for (const char* name : {"actionLoadCfg", "actionSaveCfg", "actionSaveLog"})
        EXPECT_FALSE(w.Action(name)->isEnabled()) << name;
    w.tabChanged(2);
    for (const char* name : {"actionLoadCfg", "actionSaveCfg", "actionSaveLog"})
        EXPECT_TRUE(w.Action(name)->isEnabled()) << name;
    w.tabChanged(0);
    EXPECT_FALSE(w.Action("actionSaveLog")->isEnabled());
}

TEST_F(MainWindowTest, ConnectWithNoDeviceSaysSoAndLeavesConnectToTryAgain)
{
    MainWindow w(Empty());
    w.Action("actionConnect")->trigger();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].kind, MessageKind::Critical);
    EXPECT_EQ(messages[0].title, "Error");
    EXPECT_EQ(messages[0].text, "No sniffer device found.");
    EXPECT_EQ(StatesOf(w), (States{true, false, false, false, false, false}));
}

TEST_F(MainWindowTest, DeviceInBootModeSaysSo)
{
    coilsim::EmulatorOptions o;
    o.bootMode = true;
    Emulator emu(o);
    ASSERT_TRUE(emu.ok);
    MainWindow w(emu.Pattern());
    w.Action("actionConnect")->trigger();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "Information");
    EXPECT_EQ(messages[0].text, "The device is in boot mode. Please use Update Firmware in the Sniffer menu.");
}

TEST_F(MainWindowTest, ActionStatesFollowConnectStopStartAndDisconnect)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    MainWindow w(emu.Pattern());
    ASSERT_TRUE(ConnectAndAcquire(w));
    EXPECT_EQ(StatesOf(w), (States{false, true, true, false, true, true}));
    w.Action("actionStop")->trigger();
    EXPECT_FALSE(w.Controller().Acquiring());
    EXPECT_EQ(StatesOf(w), (States{false, true, true, true, false, false}));
    w.Action("actionStart")->trigger();
    EXPECT_TRUE(windowconnect::StartUntilAcquiring(w));
    EXPECT_EQ(StatesOf(w), (States{false, true, true, false, true, true}));
    w.Action("actionDisconnect")->trigger();
    EXPECT_FALSE(w.Controller().IsRunning());
    EXPECT_EQ(StatesOf(w), (States{true, false, false, false, false, false}));
    EXPECT_FALSE(w.Action("actionDisconnect")->isChecked());
    EXPECT_FALSE(w.Action("actionStop")->isChecked());
    EXPECT_TRUE(messages.empty());
}

TEST_F(MainWindowTest, ToolBarOpenReachesTheDispatcherAsTheMenuDoesAndCutDoesNothing)
{
    MainWindow w(Empty());
    w.show();
    auto* bar = w.findChild<QToolBar*>("mainToolBar");
    auto* open = qobject_cast<QToolButton*>(bar->widgetForAction(w.Action("actionOpen")));
    ASSERT_TRUE(open);
    open->click();
    EXPECT_EQ(asked, (std::vector<QString>{"Open Sniffer File"}));
    w.findChild<QMenu*>("menuFile")->actions().value(0)->trigger();
    EXPECT_EQ(asked.size(), 2u);
    for (const char* name : {"actionCut", "actionCopy", "actionPaste", "actionHelp"})
        qobject_cast<QToolButton*>(bar->widgetForAction(w.Action(name)))->click();
    EXPECT_EQ(asked.size(), 2u);
    EXPECT_TRUE(messages.empty());
    EXPECT_TRUE(opened.empty());
}

TEST_F(MainWindowTest, SaveIsHiddenAndNothingReachesIt)
{
    MainWindow w(Empty());
    w.show();
    QApplication::setActiveWindow(&w);
    EXPECT_FALSE(w.Action("actionSave")->isVisible());
    auto* bar = w.findChild<QToolBar*>("mainToolBar");
    QWidget* button = bar->widgetForAction(w.Action("actionSave"));
    EXPECT_TRUE(!button || !button->isVisible());
    QTest::keyClick(&w, Qt::Key_S, Qt::ControlModifier);
    QApplication::processEvents();
    EXPECT_TRUE(asked.empty());
    EXPECT_TRUE(messages.empty());
}

TEST_F(MainWindowTest, UnknownActionSaysSupportLater)
{
    MainWindow w(Empty());
    QAction other(QStringLiteral("Something"));
    w.actionBtns(&other);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "Information");
    EXPECT_EQ(messages[0].text, "Support later.");
    // The actions made without effect do nothing.
    w.actionBtns(w.Action("actionSaveExecl"));
    EXPECT_EQ(messages.size(), 1u);
}

TEST_F(MainWindowTest, FileActionsWhileRunningSayStopFirst)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    MainWindow w(emu.Pattern());
    ASSERT_TRUE(ConnectAndAcquire(w));
    for (const char* name : {"actionOpen", "actionSave", "actionPrint", "actionPrintFreview", "actionSetSavePath"})
        w.actionBtns(w.Action(name));
    ASSERT_EQ(messages.size(), 5u);
    for (const UserMessage& m : messages) {
        EXPECT_EQ(m.title, "Warning");
        EXPECT_EQ(m.text, "Stop first.");
    }
    EXPECT_TRUE(asked.empty());
    w.Action("actionDisconnect")->trigger();
}

TEST_F(MainWindowTest, SaveMakesAnEmptyQbinAndSaysSo)
{
    MainWindow w(Empty());
    answer = dir.path() + "/saved.qbin";
    w.actionBtns(w.Action("actionSave"));
    EXPECT_EQ(asked, (std::vector<QString>{"Save Sniffer File"}));
    ASSERT_TRUE(QFile::exists(answer));
    EXPECT_EQ(QFile(answer).size(), 0);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "Information");
    EXPECT_EQ(messages[0].text, "Save Success.");
    answer = dir.path() + "/no/such/folder/saved.qbin";
    w.actionBtns(w.Action("actionSave"));
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].title, "Warning");
    EXPECT_EQ(messages[1].text, "Can't open file.");
    answer.clear();  // cancelled: nothing
    w.actionBtns(w.Action("actionSave"));
    EXPECT_EQ(messages.size(), 2u);
}

TEST_F(MainWindowTest, OpenOfAMissingFileSaysSoAndCancelDoesNothing)
{
    MainWindow w(Empty());
    w.actionBtns(w.Action("actionOpen"));
    EXPECT_TRUE(messages.empty());
    EXPECT_FALSE(w.FileOpen());
    answer = dir.path() + "/missing.sid";
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "Open Session");
    EXPECT_EQ(messages[0].text, "Can't open \"" + answer + "\": No such file or directory. Expected a session file (.sid).");
    EXPECT_FALSE(w.FileOpen());
}

TEST_F(MainWindowTest, EmptySessionFileIsRefusedAndNothingIsShown)
{
    MainWindow w(Empty());
    answer = dir.path() + "/empty.sid";
    QFile f(answer);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.close();
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text, "\"" + answer + "\" is empty. Expected a session file (.sid) with at least one event record.");
    EXPECT_FALSE(w.FileOpen());
    EXPECT_TRUE(w.Dock()->EventWindow()->Model().LogLines().isEmpty());
}

TEST_F(MainWindowTest, OpenedSessionGivesItsEventsTheirRecordsBack)
{
    // A session written as a capture writes it: its .sid and, beside it,
    // the record file of its events' capture records.
    const std::string written = dir.path().toStdString() + "/written/";
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(written)));
    SettingParams::Instance().eventPath = SettingParams::Instance().logPath = written;
    std::vector<TriggerData> live;
    std::string sid;
    {
        EventLogModel m;
        m.StartAcquisition();
        std::vector<MsgInfoPtr> events;
        for (int i = 0; i < 3; ++i) {
            MsgInfoPtr e = MakeEvent(1, 2, "SignalStrength 50", "01 80 81 ");
            auto record = std::make_shared<TriggerData>();
            record->startTime = 1000u + static_cast<uint64_t>(i);
            record->samples = {i, i + 1, i + 2, i + 3};
            record->rawSamples = {7, 8, 9};
            PulseRecord p;
            p.mark = static_cast<uint32_t>(i);
            p.samples = {i + 1, i + 2};
            record->pulses.push_back(p);
            e->capture = record;
            live.push_back(*record);
            events.push_back(e);
        }
        m.AddEvents(events);
        sid = m.SidPath();
    }
    MainWindow w(Empty());
    answer = QString::fromStdString(sid);
    w.actionBtns(w.Action("actionOpen"));
    EXPECT_TRUE(messages.empty());
    ASSERT_TRUE(w.FileOpen());
    EventLogModel& model = w.Dock()->EventWindow()->Model();
    QStandardItem* group = model.Root()->child(1);
    ASSERT_TRUE(group);
    ASSERT_EQ(group->rowCount(), 3);
    for (int i = 0; i < 3; ++i) {
        auto* item = static_cast<QStandardItemEx*>(group->child(i));
        const TriggerDataPtr r = model.Select(item).capture;
        ASSERT_TRUE(r) << i;
        EXPECT_EQ(r->startTime, live[i].startTime);
        EXPECT_EQ(r->samples, live[i].samples);
        EXPECT_EQ(r->rawSamples, live[i].rawSamples);
        ASSERT_EQ(r->pulses.size(), 1u);
        EXPECT_EQ(r->pulses[0].samples, live[i].pulses[0].samples);
        EXPECT_EQ(r->pulses[0].mark, live[i].pulses[0].mark);
    }
}

namespace {

// Every file under a folder with its size, recursively.
std::map<QString, qint64> Tree(const QString& folder)
{
    std::map<QString, qint64> files;
    QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        files[it.filePath()] = it.fileInfo().size();
    }
    return files;
}

// A session of three events with capture records, saved as a capture saves
// it into `folder`; its .sid.
std::string SavedSession(const std::string& folder)
{
    SettingParams::Instance().eventPath = SettingParams::Instance().logPath = folder;
    EventLogModel m;
    m.StartAcquisition();
    std::vector<MsgInfoPtr> events;
    for (int i = 0; i < 3; ++i) {
        MsgInfoPtr e = MakeEvent(1, 2, "SignalStrength 50", "01 80 81 ");
        auto record = std::make_shared<TriggerData>();
        record->startTime = 1000u + static_cast<uint64_t>(i);
        record->samples.assign(400, 1500 + i);
        e->capture = record;
        events.push_back(e);
    }
    m.AddEvents(events);
    m.StopAcquisition();
    return m.SidPath();
}

}  // namespace

TEST_F(MainWindowTest, OpenedSessionIsShownWhereItLiesAndNothingIsWritten)
{
    const QString written = dir.path() + "/saved";
    ASSERT_TRUE(QDir().mkpath(written));
    const std::string sid = SavedSession(written.toStdString() + "/");
    // Its timing file too: read when the session is shown, never written.
    {
        QFile timing(QString::fromStdString(analysis::TimingFile::PathBeside(sid)));
        ASSERT_TRUE(timing.open(QIODevice::WriteOnly));
        timing.write("{\"edge\":\"on\",\"us\":1000}\n");
    }
    SettingParams& p = SettingParams::Instance();
    p.eventPath = p.logPath = p.capturePath = dir.path().toStdString() + "/before/";
    const std::map<QString, qint64> before = Tree(dir.path());
    MainWindow w(Empty());
    answer = QString::fromStdString(sid);
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_TRUE(messages.empty());
    ASSERT_TRUE(w.FileOpen());
    EventLogModel& model = w.Dock()->EventWindow()->Model();
    EXPECT_EQ(model.SidPath(), sid);
    // The session folder is the one the file came from ("Open Saved Folder").
    EXPECT_EQ(p.logPath, written.toStdString() + "/");
    EXPECT_EQ(p.eventPath, written.toStdString() + "/");
    // Shown twice: still nothing written anywhere (the application log aside).
    w.actionBtns(w.Action("actionOpen"));
    std::map<QString, qint64> after = Tree(dir.path());
    for (auto it = after.begin(); it != after.end();)
        it = QFileInfo(it->first).fileName().startsWith("log_") ? after.erase(it) : std::next(it);
    EXPECT_EQ(after, before);
    QStandardItem* group = model.Root()->child(1);
    ASSERT_TRUE(group);
    ASSERT_EQ(group->rowCount(), 3);
    const TriggerDataPtr r = model.Select(static_cast<QStandardItemEx*>(group->child(2))).capture;
    ASSERT_TRUE(r);
    EXPECT_EQ(r->samples, std::vector<int32_t>(400, 1502));
    // Start gives the folders back: an acquisition never saves beside the
    // opened session.
    w.actionBtns(w.Action("actionStart"));
    EXPECT_EQ(p.eventPath, dir.path().toStdString() + "/before/");
    EXPECT_EQ(p.logPath, dir.path().toStdString() + "/before/");
    EXPECT_EQ(p.capturePath, dir.path().toStdString() + "/before/");
}

// An event whose record is damaged in the record file shows no wave and
// says so in the property pane; its neighbours show nothing of the kind.
TEST_F(MainWindowTest, DamagedRecordIsToldInThePropertyPane)
{
    const QString written = dir.path() + "/saved";
    ASSERT_TRUE(QDir().mkpath(written));
    const std::string sid = SavedSession(written.toStdString() + "/");
    const std::string rec = RecordStore::PathBeside(sid);
    std::vector<uint8_t> bytes;
    {
        std::ifstream in(rec, std::ios::binary);
        bytes.assign((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    std::vector<std::pair<uint64_t, RecordStore::Entry>> frames;
    ASSERT_TRUE(RecordStore::Scan(bytes.data(), bytes.size(), frames));
    ASSERT_EQ(frames.size(), 3u);
    bytes[frames[1].second.offset + 2] ^= 0x11;
    {
        std::ofstream out(rec, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    MainWindow w(Empty());
    w.show();
    answer = QString::fromStdString(sid);
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_TRUE(w.FileOpen());
    QEventWindow* events = w.Dock()->EventWindow();
    QStandardItem* group = events->Model().Root()->child(1);
    ASSERT_TRUE(group && group->rowCount() == 3);
    PropertyTree* tree = w.Dock()->PropertyView()->Tree();
    events->eventClidked(group->child(1)->index());
    EXPECT_TRUE(tree->GroupTitles().contains("Capture Record")) << tree->GroupTitles().join(",").toStdString();
    EXPECT_EQ(tree->Value("Capture Record", "Wave").toString(), "Damaged in the record file: no wave");
    // The note is wider than the pane: it reads whole on hover.
    ASSERT_TRUE(tree->ValueItem("Capture Record", "Wave"));
    EXPECT_EQ(tree->ValueItem("Capture Record", "Wave")->toolTip(), "Damaged in the record file: no wave");
    EXPECT_TRUE(tree->GroupTitles().contains("Packet Properties"));
    events->eventClidked(group->child(0)->index());
    EXPECT_FALSE(tree->GroupTitles().contains("Capture Record"));
    events->eventClidked(group->child(1)->index());
    EXPECT_EQ(tree->GroupTitles().count("Capture Record"), 1);
}

TEST_F(MainWindowTest, SetSavePathTakesTheChosenFolderAndSavesTheSettings)
{
    MainWindow w(Empty());
    answer = dir.path() + "/elsewhere";
    w.actionBtns(w.Action("actionSetSavePath"));
    EXPECT_EQ(asked, (std::vector<QString>{"Set Auto Save Path"}));
    EXPECT_EQ(SettingParams::Instance().savePath, answer.toStdString());
    std::ifstream settings(AppSettings::Instance().FilePath());
    const std::string text((std::istreambuf_iterator<char>(settings)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find(answer.toStdString()), std::string::npos);
}

TEST_F(MainWindowTest, HelpActionsOpenTheWebSiteAndTheQuickStart)
{
    MainWindow w(Empty());
    w.actionBtns(w.Action("actionCoilscope_Webset"));
    w.actionBtns(w.Action("actionQuickStart"));
    ASSERT_EQ(opened.size(), 2u);
    EXPECT_TRUE(opened[0].scheme().startsWith("http"));
    EXPECT_TRUE(opened[1].toString().endsWith("/coilscope quick start.pdf") ||
                opened[1].toString().endsWith("/coilscope%20quick%20start.pdf"))
        << opened[1].toString().toStdString();
}

TEST_F(MainWindowTest, LiveSessionIsRefreshedThenPlayedBackTheSame)
{
    coilsim::EmulatorOptions o;
    o.speed = 4;  // the script's first packets within seconds
    Emulator emu(o);
    ASSERT_TRUE(emu.ok);
    QStringList live;
    std::string sid;
    {
        MainWindow w(emu.Pattern());
        w.show();
        ASSERT_TRUE(ConnectAndAcquire(w));
        EventLogModel& model = w.Dock()->EventWindow()->Model();
        // The refresh cycle runs on the event loop, paced by the controller.
        EXPECT_TRUE(WaitFor([&] { return model.NextEventNumber() > 60; }, 30000)) << model.NextEventNumber();
        EXPECT_GT(w.Refreshes(), 10);
        EXPECT_FALSE(w.Dock()->TimeAxis().isEmpty());
        w.Action("actionDisconnect")->trigger();
        live = model.LogLines();
        sid = model.SidPath();
        model.CloseStreams();
    }
    ASSERT_GT(live.size(), 50);  // device status and contract events have no line
    EXPECT_TRUE(live.last().contains("] Stop Acquisition: "));

    MainWindow again(Empty());
    answer = QString::fromStdString(sid);
    again.actionBtns(again.Action("actionOpen"));
    ASSERT_TRUE(messages.empty());
    ASSERT_TRUE(again.FileOpen());
    const QStringList played = again.Dock()->EventWindow()->Model().LogLines();
    // The same numbered texts between the two markers; a loaded event has no
    // direction, so its line has the blank prefix.
    ASSERT_EQ(played.size(), live.size());
    for (int k = 1; k + 1 < live.size(); ++k) {
        EXPECT_EQ(played[k].mid(3).toStdString(), live[k].mid(3).toStdString()) << k;
        EXPECT_TRUE(played[k].startsWith("   ")) << k;
    }
    EXPECT_EQ(again.Dock()->EventWindow()->LogView()->toPlainText(),
              again.Dock()->EventWindow()->ShownLogText());
}

TEST_F(MainWindowTest, BlockedInterfaceThreadGetsNoSecondTick)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    MainWindow w(emu.Pattern());
    std::atomic<int> ticks{0};
    QObject::connect(&w, &MainWindow::timeout_signal, &w, [&ticks] { ticks.fetch_add(1); }, Qt::DirectConnection);
    ASSERT_TRUE(ConnectAndAcquire(w));
    // A refresh already asked for runs now; from here on the interface
    // thread is busy (as in a modal dialog): no event is processed, so the
    // refresh of the next tick never runs. (A tick that came between the
    // two lines below is that next tick.)
    QCoreApplication::processEvents();
    const int before = ticks.load();
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (ticks.load() == before && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const int seen = ticks.load();
    ASSERT_LE(seen, before + 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // ten pacing periods
    EXPECT_EQ(ticks.load(), seen);
    EXPECT_TRUE(WaitFor([&] { return ticks.load() > seen + 1; }));
    w.Action("actionDisconnect")->trigger();
}

TEST_F(MainWindowTest, ClosingWhileAcquiringStopsDisconnectsAndSavesTheSettings)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    QFile::remove(QString::fromStdString(AppSettings::Instance().FilePath()));
    {
        MainWindow w(emu.Pattern());
        w.show();
        ASSERT_TRUE(ConnectAndAcquire(w));
        QTest::qWait(300);
        w.close();
        EXPECT_FALSE(w.Controller().IsRunning());
        EXPECT_FALSE(w.Controller().Acquiring());
        EXPECT_FALSE(w.Controller().Found());
    }
    const std::string taken = emu.Commands();
    const std::string fromStart = taken.substr(std::min(taken.size(), taken.find("command 05\n")));
    EXPECT_NE(fromStart.find("command 07\n"), std::string::npos) << taken;
    EXPECT_NE(fromStart.find("command 03\n"), std::string::npos) << taken;
    EXPECT_TRUE(QFile::exists(QString::fromStdString(AppSettings::Instance().FilePath())));
}

TEST_F(MainWindowTest, ExitWhileStoppedAndConnectedStopsNothingAtClose)
{
    Emulator emu;
    ASSERT_TRUE(emu.ok);
    {
        MainWindow w(emu.Pattern());
        w.show();
        ASSERT_TRUE(ConnectAndAcquire(w));
        w.Action("actionStop")->trigger();
        ASSERT_FALSE(w.Controller().Acquiring());
        const size_t before = emu.Commands().size();
        w.actionBtns(w.Action("actionExit"));
        EXPECT_FALSE(w.isVisible());
        // Still connected until the window goes: no stop and no disconnect
        // went out.
        EXPECT_EQ(emu.Commands().size(), before) << emu.Commands();
    }
    EXPECT_EQ(emu.Commands().find("command 03\n"), std::string::npos) << emu.Commands();
}

TEST_F(MainWindowTest, DeviceVanishingMidStreamLeavesTheWindowUsableAndTheSessionSaved)
{
    auto emu = std::make_unique<Emulator>();
    ASSERT_TRUE(emu->ok);
    MainWindow w(emu->Pattern());
    w.show();
    ASSERT_TRUE(ConnectAndAcquire(w));
    EventLogModel& model = w.Dock()->EventWindow()->Model();
    ASSERT_TRUE(WaitFor([&] { return model.NextEventNumber() > 5; }, 30000));
    emu.reset();  // the device is gone
    QTest::qWait(500);
    const std::string sid = model.SidPath();
    const int64_t shown = model.NextEventNumber();
    // Still usable: Clear, Disconnect, Open.
    w.actionBtns(w.Action("actionClear"));
    w.actionBtns(w.Action("actionDisconnect"));
    EXPECT_FALSE(w.Controller().IsRunning());
    EXPECT_EQ(StatesOf(w), (States{true, false, false, false, false, false}));
    std::vector<MsgInfoPtr> saved;
    ASSERT_TRUE(ReadSessionFile(sid, saved));
    EXPECT_GE(static_cast<int64_t>(saved.size()), shown - 2);  // every event but the Start marker
}

TEST(Startup, PluginFoldersBesideTheProgramWhateverTheWorkingDirectory)
{
    const QString before = QDir::currentPath();
    QDir::setCurrent(QDir::tempPath());
    AddPluginFoldersBeside("/opt/coilscope/bin/coilscope");
    QDir::setCurrent(before);
    const QStringList paths = QCoreApplication::libraryPaths();
    for (const char* sub : {"/plugins/iconengines", "/plugins/imageformats", "/plugins/platforms", "/plugins/plugins",
                            "/plugins/printsupport", "/plugins/translations", "/plugins"})
        EXPECT_TRUE(paths.contains(QStringLiteral("/opt/coilscope/bin") + QLatin1String(sub))) << sub;
    // A relative start ("./coilscope") is made absolute at once.
    AddPluginFoldersBeside("relative/coilscope");
    EXPECT_TRUE(QCoreApplication::libraryPaths().contains(QDir::current().absoluteFilePath("relative/plugins")));
}

// Stop and Start in the window, then Disconnect and Connect: each acquisition
// shows what the device streamed between its start and its stop, on the clock
// of its own start, with the transmitter's answers where they came.
TEST_F(MainWindowTest, AcquisitionsInARowShowTheirOwnStreamOnTime)
{
    using namespace acquisitioncheck;
    coilsim::EmulatorOptions o;
    o.speed = 2;
    o.recordAsk = dir.path().toStdString() + "/ask.bin";
    o.recordFsk = dir.path().toStdString() + "/fsk.bin";
    Emulator emu(o);
    ASSERT_TRUE(emu.ok);
    MainWindow w(emu.Pattern());
    w.show();
    EventLogModel& model = w.Dock()->EventWindow()->Model();
    // Where the emulator's stream stood at each start, where it stood at each
    // stop, and the first event number of each acquisition.
    std::vector<uint64_t> starts, ends;
    std::vector<int> firstNumbers;
    std::vector<bool> dropped;
    auto droppedSoFar = [&emu] {
        const coilsim::EmulatorCounters c = emu.device->Counters();
        return c.askFramesDropped - c.askFramesDroppedAtStop + c.fskFramesDropped - c.fskFramesDroppedAtStop;
    };
    auto acquire = [&](bool connect) {
        const uint64_t droppedBefore = droppedSoFar();
        firstNumbers.push_back(static_cast<int>(model.NextEventNumber()));
        starts.push_back(emu.device->StreamUs());
        if (connect) {
            ASSERT_TRUE(ConnectAndAcquire(w));
        } else {
            w.Action("actionStart")->trigger();
            ASSERT_TRUE(windowconnect::StartUntilAcquiring(w));
        }
        // A start that had to be pressed again began where the last press found the stream.
        QTest::qWait(7000);
        w.Action("actionStop")->trigger();
        ends.push_back(emu.device->StreamUs());
        dropped.push_back(droppedSoFar() != droppedBefore);
        QTest::qWait(500);
    };
    acquire(true);
    acquire(false);
    w.Action("actionDisconnect")->trigger();
    acquire(true);
    w.Action("actionDisconnect")->trigger();
    ASSERT_EQ(emu.device->Counters().streamStarts, 3u) << "a start was pressed again; the test can't tell its zero";

    // The first two acquisitions share a session (Stop and Start keep it),
    // the third has its own: its numbers start again after its Start marker.
    std::vector<std::map<int, Heard>> numbered(3);
    int session = -1;
    std::function<void(QStandardItem*)> walk = [&](QStandardItem* parent) {
        for (int r = 0; r < parent->rowCount(); ++r) {
            auto* item = static_cast<QStandardItemEx*>(parent->child(r));
            if (item->mode == kItemStart)
                ++session;
            if (item->mode == kItemEvent) {
                const int run = session >= 1 ? 2 : item->number < firstNumbers[1] ? 0 : 1;
                numbered[run][item->number] = HeardOf(model.Select(item));
            }
            walk(item);
        }
    };
    walk(model.Root());
    std::vector<std::vector<Heard>> runs(3);
    for (int run = 0; run < 3; ++run)
        for (const auto& n : numbered[run])
            runs[run].push_back(n.second);
    const std::vector<Played> played = ReadPlayed(o.recordAsk + ".expected.jsonl");
    ASSERT_FALSE(played.empty());
    int answers = 0;
    for (int run = 0; run < 3; ++run)
        answers += CheckAcquisition(runs[run], played, starts[run], ends[run] - starts[run],
                                    "acquisition " + std::to_string(run), dropped[run] ? 0.5 : 0.9);
    EXPECT_GT(answers, 3);
}

// File > Open of a file in which no record is an event: a box names the file
// and says what was expected; the session shown and the session folders stay
// as they were.
TEST_F(MainWindowTest, OpeningAFileThatIsNotASessionKeepsTheViewAndTheFolders)
{
    const std::string base = dir.path().toStdString();
    const std::string good = base + "/good.sid";
    {
        std::FILE* f = std::fopen(good.c_str(), "wb");
        ASSERT_TRUE(f);
        for (int k = 0; k < 3; ++k) {
            MsgInfo m;
            m.type = 3;
            m.str = QStringLiteral("ControlError %1.0% @128000HZ").arg(k);
            m.common.logData = m.str.toStdString();
            ASSERT_GT(WriteSessionRecord(f, m), 0u);
        }
        std::fclose(f);
    }
    MainWindow w(Empty());
    answer = QString::fromStdString(good);
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_TRUE(messages.empty());
    ASSERT_TRUE(w.FileOpen());
    EventLogModel& model = w.Dock()->EventWindow()->Model();
    const QStringList shown = model.LogLines();
    ASSERT_EQ(shown.size(), 5);  // Start marker, three events, Stop marker
    const QString sessions = QString::fromStdString(SettingParams::Instance().savePath);
    const QStringList folders = QDir(sessions).entryList(QDir::Dirs | QDir::NoDotAndDotDot);

    const std::string record = MsgInfo().ToJson();
    const std::vector<std::pair<std::string, std::string>> files = {
        {"empty.sid", ""},
        {"notes.txt", "bench notes: receiver B, 5 W\n"},
        {"cut.sid", record.substr(0, record.size() / 2)},
    };
    for (const auto& file : files) {
        const std::string path = base + "/" + file.first;
        std::FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_TRUE(f);
        std::fwrite(file.second.data(), 1, file.second.size(), f);
        std::fclose(f);
        messages.clear();
        answer = QString::fromStdString(path);
        w.actionBtns(w.Action("actionOpen"));
        ASSERT_EQ(messages.size(), 1u) << file.first;
        EXPECT_EQ(messages[0].kind, MessageKind::Warning);
        EXPECT_EQ(messages[0].title, "Open Session");
        EXPECT_TRUE(messages[0].text.contains(QString::fromStdString(path))) << messages[0].text.toStdString();
        EXPECT_TRUE(messages[0].text.contains("Expected a session file (.sid)")) << messages[0].text.toStdString();
        EXPECT_EQ(model.LogLines(), shown) << file.first;
        EXPECT_TRUE(w.FileOpen());
        EXPECT_EQ(QDir(sessions).entryList(QDir::Dirs | QDir::NoDotAndDotDot), folders) << file.first;
    }
}

// A session of a ping at 1 ms, a configuration whose checksum failed at
// 3.5 ms and a control error at 6 ms, written as a capture writes it.
static std::string WrittenSession(const std::string& folder)
{
    EXPECT_TRUE(QDir().mkpath(QString::fromStdString(folder)));
    SettingParams::Instance().eventPath = SettingParams::Instance().logPath = folder;
    EventLogModel m;
    m.StartAcquisition();
    auto bad = MakeEvent(81, 2, "Configuration", "51 0A 00 00 0A 00 00 ");
    bad->common.typeString = "ChecksumError";
    std::vector<MsgInfoPtr> events{MakeEvent(1, 2, "SignalStrength 50", "01 80 81 "), bad, ControlError(1)};
    int64_t us = 1000;
    for (const MsgInfoPtr& e : events) {
        e->timing.startTime = us;
        us += 2500;
    }
    m.AddEvents(events);
    return m.SidPath();
}

TEST_F(MainWindowTest, StatusBarAndTitleTellTheShownEventsErrorsFileAndDuration)
{
    const std::string sid = WrittenSession(dir.path().toStdString() + "/written/");
    MainWindow w(Empty());
    EXPECT_EQ(w.windowTitle(), "Coilscope");
    answer = QString::fromStdString(sid);
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_TRUE(w.FileOpen());
    const QString name = QFileInfo(answer).fileName();
    EXPECT_EQ(w.windowTitle(), "Coilscope - " + name);
    EXPECT_EQ(w.StatusLabel()->text(), "Events 3 / 3 shown   Errors 1   " + name + "   0.006 s");
    QEventWindow* events = w.Dock()->EventWindow();
    events->show();
    events->FilterEdit()->setFocus();
    QTest::keyClicks(events->FilterEdit(), "type != 3");
    QTest::keyClick(events->FilterEdit(), Qt::Key_Return);
    EXPECT_EQ(w.StatusLabel()->text(), "Events 2 / 3 shown   Errors 1   " + name + "   0.006 s");
}

// Frames that a second reader recovered, corrected or could not confirm are
// counted in the status bar, by mark, from the session's own records.
TEST_F(MainWindowTest, StatusBarCountsWhatTheSecondReadersChanged)
{
    const std::string folder = dir.path().toStdString() + "/readers/";
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(folder)));
    SettingParams::Instance().eventPath = SettingParams::Instance().logPath = folder;
    EventLogModel m;
    m.StartAcquisition();
    auto corrected = ControlError(1);
    corrected->packet.reading = "corrected";
    corrected->packet.otherReading = "03 02 01 ";
    auto unconfirmed = MakeEvent(3, 2, "ControlError", "03 04 07 ");
    unconfirmed->common.typeString = "ChecksumError";
    unconfirmed->packet.Status = "Error";
    unconfirmed->packet.reading = "unconfirmed";
    auto recovered = ControlError(2);
    recovered->packet.reading = "recovered";
    auto recoveredToo = ControlError(3);
    recoveredToo->packet.reading = "recovered";
    std::vector<MsgInfoPtr> events{corrected, unconfirmed, recovered, recoveredToo};
    int64_t us = 1000;
    for (const MsgInfoPtr& e : events) {
        e->timing.startTime = us;
        us += 250000;
    }
    m.AddEvents(events);
    MainWindow w(Empty());
    answer = QString::fromStdString(m.SidPath());
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_TRUE(w.FileOpen());
    EXPECT_TRUE(w.StatusLabel()->text().contains(
        "   Second readers: 2 recovered, 1 corrected, 1 unconfirmed   " + QFileInfo(answer).fileName()))
        << w.StatusLabel()->text().toStdString();
}

// The Go menu holds the event window's find, go-to and error walking with
// their shortcuts; its Next Error walks the tree's errors.
TEST_F(MainWindowTest, GoMenuFindsGoesToAndWalksErrors)
{
    const std::string sid = WrittenSession(dir.path().toStdString() + "/go/");
    MainWindow w(Empty());
    answer = QString::fromStdString(sid);
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_TRUE(w.FileOpen());
    auto* go = w.findChild<QMenu*>("menuGo");
    ASSERT_NE(go, nullptr);
    QStringList titles;
    QStringList keys;
    for (QAction* a : go->actions()) {
        if (a->isSeparator())
            continue;
        titles << a->text();
        keys << a->shortcut().toString();
    }
    EXPECT_EQ(titles, (QStringList{"Find...", "Go to Event...", "Next Error", "Previous Error"}));
    EXPECT_EQ(keys, (QStringList{"Ctrl+F", "Ctrl+G", "F8", "Shift+F8"}));
    QStringList menus;
    for (QAction* a : w.menuBar()->actions())
        menus << a->text();
    EXPECT_EQ(menus.indexOf("Go") + 1, menus.indexOf("Options"));
    QEventWindow* events = w.Dock()->EventWindow();
    events->CatchUpNow();
    go->actions().at(3)->trigger();  // Next Error: the configuration whose checksum failed
    const QStandardItem* selected = events->SelectedItem();
    ASSERT_NE(selected, nullptr);
    EXPECT_EQ(selected->text().toStdString(), "Configuration");
}

TEST_F(MainWindowTest, ExportWritesTheShownEventsInTheFormatOfTheFilesEnding)
{
    const std::string sid = WrittenSession(dir.path().toStdString() + "/written/");
    MainWindow w(Empty());
    answer = QString::fromStdString(sid);
    w.actionBtns(w.Action("actionOpen"));
    ASSERT_TRUE(w.FileOpen());
    QEventWindow* events = w.Dock()->EventWindow();
    events->SetFilter("type != 81");
    auto read = [](const QString& path) {
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::ReadOnly)) << path.toStdString();
        return QString::fromUtf8(f.readAll());
    };
    answer = dir.path() + "/shown.csv";
    asked.clear();
    w.Action("actionExport")->trigger();
    EXPECT_EQ(asked, (std::vector<QString>{"Export Events"}));
    const QStringList rows = read(answer).split("\r\n", QString::SkipEmptyParts);
    ASSERT_EQ(rows.size(), 3) << read(answer).toStdString();
    EXPECT_EQ(rows[0], "number,time_ms,dir,phase,type,bytes,text,status,reading");
    EXPECT_TRUE(rows[1].startsWith("2,1.000,")) << rows[1].toStdString();
    EXPECT_TRUE(rows[1].contains(",01 80 81,SignalStrength 50,ok")) << rows[1].toStdString();
    EXPECT_TRUE(rows[2].startsWith("4,6.000,")) << rows[2].toStdString();

    answer = dir.path() + "/shown.jsonl";
    w.Action("actionExport")->trigger();
    const QStringList json = read(answer).split("\n", QString::SkipEmptyParts);
    ASSERT_EQ(json.size(), 2);
    EXPECT_TRUE(json[0].startsWith("{")) << json[0].toStdString();
    EXPECT_TRUE(json[0].contains("SignalStrength 50"));

    answer = dir.path() + "/shown.txt";
    w.Action("actionExport")->trigger();
    const QStringList lines = events->Model().LogLines();
    EXPECT_EQ(read(answer), lines.filter("[2] ").first() + "\n" + lines.filter("[4] ").first() + "\n");

    // Cancelled: nothing is written.
    answer.clear();
    w.Action("actionExport")->trigger();
    EXPECT_TRUE(messages.empty());
}
