// The main window with its wave panels, power monitor, product test panel and
// about box: the Scope and Help actions that show them, the refresh that feeds
// them against the device emulator, the DAC slider's value on the wire, Lock
// at the next Start, and the power log written while the monitor is hidden.
#include "capture/CommandProtocol.h"
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "sim/DeviceEmulator.h"
#include "views/ABout.h"
#include "views/MainWindow.h"
#include "views/PercentMonitor.h"
#include "views/QProductTest.h"
#include "views/QwtChart.h"
#include "views/SampleGui.h"
#include "events/ui/QEventWindow.h"
#include "views/QWindowReal.h"

#include "WindowConnect.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QRegularExpression>
#include <QSlider>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>
#include <QtCharts/QSplineSeries>
#include <QtCharts/QValueAxis>

#include <chrono>
#include <fstream>
#include <functional>

namespace {

using Device = windowconnect::Emulator;

class MainWindowPanelsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams& s = SettingParams::Instance();
        s.savePath = dir.path().toStdString() + "/sessions";
        s.m_window_time = 15;
        s.m_dac_locked = 0;
        s.m_dac_manual = 0;
        s.m_dac_value = 1700;
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
    }
    void TearDown() override
    {
        SetUserMessageRecorder(nullptr);
        SettingParams::Instance().m_dac_locked = 0;
        SettingParams::Instance().m_dac_manual = 0;
        AppSettings::Instance().save();
    }
    std::string Empty() const { return dir.path().toStdString() + "/none/ttyACM%d"; }
    static bool WaitFor(const std::function<bool()>& condition, int ms = 20000)
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!condition() && std::chrono::steady_clock::now() < until)
            QTest::qWait(10);
        return condition();
    }
    bool ConnectAndAcquire(MainWindow& w) { return windowconnect::ConnectAndAcquire(w, messages); }
    // The command as the emulator's log shows it: its bytes before the
    // terminating 00.
    static std::string Hex(std::vector<uint8_t> bytes)
    {
        if (!bytes.empty() && bytes.back() == 0)
            bytes.pop_back();
        std::string out = "command";
        char pair[4];
        for (uint8_t b : bytes) {
            std::snprintf(pair, sizeof pair, " %02X", b);
            out += pair;
        }
        return out + "\n";
    }

    QTemporaryDir dir;
    std::vector<UserMessage> messages;
};

}  // namespace

TEST_F(MainWindowPanelsTest, ScopeAndHelpActionsShowAndHideTheirWindows)
{
    MainWindow w(Empty());
    ASSERT_TRUE(w.AskPanel() && w.FskPanel() && w.Monitor() && w.ProductTest() && w.About());
    EXPECT_EQ(w.AskPanel()->Kind(), 5);
    EXPECT_EQ(w.FskPanel()->Kind(), 6);
    EXPECT_TRUE(w.AskPanel()->isWindow());
    EXPECT_TRUE(w.ProductTest()->isWindow());
    struct Row {
        const char* action;
        QWidget* window;
    } rows[] = {{"action2K_Ware", w.AskPanel()},
                {"actionFSKWare", w.FskPanel()},
                {"actionPercent", w.Monitor()},
                {"actionProductTest", w.ProductTest()}};
    for (const Row& r : rows) {
        EXPECT_FALSE(r.window->isVisible()) << r.action;
        w.Action(r.action)->trigger();
        EXPECT_TRUE(r.window->isVisible()) << r.action;
        r.window->close();  // the close box only hides
        w.Action(r.action)->trigger();
        EXPECT_TRUE(r.window->isVisible()) << r.action;
        w.Action(r.action)->trigger();
        EXPECT_FALSE(r.window->isVisible()) << r.action;
    }
    // About shows, never hides.
    w.Action("actionAbout")->trigger();
    EXPECT_TRUE(w.About()->isVisible());
    w.Action("actionAbout")->trigger();
    EXPECT_TRUE(w.About()->isVisible());
    // Closing the main window hides its panels.
    for (const char* a : {"action2K_Ware", "actionFSKWare", "actionPercent", "actionProductTest"})
        w.Action(a)->trigger();
    w.close();
    for (const Row& r : rows)
        EXPECT_FALSE(r.window->isVisible()) << r.action;
    EXPECT_TRUE(messages.empty());
}

TEST_F(MainWindowPanelsTest, HiddenAskPanelInAutoTriggerIsHandedNoEventList)
{
    coilsim::EmulatorOptions o;
    o.speed = 4;
    Device dev(o);
    ASSERT_TRUE(dev.ok);
    MainWindow w(dev.Pattern());
    w.show();
    w.AskPanel()->findChild<QCheckBox*>("checkBox_autoTrigger")->click();
    ASSERT_FALSE(w.AskPanel()->FreeRun());
    ASSERT_FALSE(w.AskPanel()->isVisible());
    ASSERT_TRUE(ConnectAndAcquire(w));
    // Several seconds of events are released to the dock while the panel is
    // hidden: not one list goes to it.
    const QAbstractItemModel* tree = w.Dock()->EventWindow()->EventView()->model();
    auto rows = [tree] {
        int n = 0;
        QList<QModelIndex> todo{QModelIndex()};
        while (!todo.isEmpty()) {
            const QModelIndex parent = todo.takeLast();
            for (int r = 0; r < tree->rowCount(parent); ++r) {
                ++n;
                todo.append(tree->index(r, 0, parent));
            }
        }
        return n;
    };
    ASSERT_TRUE(WaitFor([&] { return rows() > 20; }, 40000));
    EXPECT_EQ(w.AskPanel()->PacketLists(), 0);
    // Shown, it is handed the lists of the refreshes.
    w.Action("action2K_Ware")->trigger();
    ASSERT_TRUE(w.AskPanel()->isVisible());
    EXPECT_TRUE(WaitFor([&] { return w.AskPanel()->PacketLists() > 0; }));
    w.Action("actionDisconnect")->trigger();
}

TEST_F(MainWindowPanelsTest, ProductTestShowsTheConnectedDevicesNumber)
{
    Device dev;
    ASSERT_TRUE(dev.ok);
    MainWindow w(dev.Pattern());
    EXPECT_TRUE(w.ProductTest()->SerialLabel()->text().isEmpty());
    ASSERT_TRUE(ConnectAndAcquire(w));
    const std::vector<uint8_t> record = coilsim::BuildDeviceRecord(dev.options);
    EXPECT_EQ(w.ProductTest()->SerialLabel()->text().toStdString(), DeviceSerialText(record.data()));
    EXPECT_FALSE(w.ProductTest()->SerialLabel()->text().isEmpty());
    w.Action("actionDisconnect")->trigger();
}

TEST_F(MainWindowPanelsTest, RefreshFeedsTheShownPanelsFreeRunningAndTriggered)
{
    coilsim::EmulatorOptions o;
    o.speed = 4;
    Device dev(o);
    ASSERT_TRUE(dev.ok);
    MainWindow w(dev.Pattern());
    w.show();
    ASSERT_TRUE(ConnectAndAcquire(w));
    // Hidden, they are given nothing.
    ASSERT_TRUE(WaitFor([&] { return w.Refreshes() > 20; }));
    EXPECT_EQ(w.AskPanel()->Chart()->Replacements(), 0);
    EXPECT_EQ(w.FskPanel()->Chart()->Replacements(), 0);
    // The FSK panel's range follows the carrier even so: the first word +-150.
    EXPECT_TRUE(WaitFor([&] { return w.FskPanel()->Chart()->YTop() != 0; }));
    EXPECT_EQ(w.FskPanel()->Chart()->YTop() - w.FskPanel()->Chart()->YBottom(), 300);

    w.Action("action2K_Ware")->trigger();
    w.Action("actionFSKWare")->trigger();
    EXPECT_TRUE(WaitFor([&] { return w.AskPanel()->Chart()->Series()->count() == 500; }));
    EXPECT_TRUE(WaitFor([&] { return w.FskPanel()->Chart()->Series()->count() == 500; }));

    for (SampleGui* panel : {w.AskPanel(), w.FskPanel()})
        QTest::mouseClick(panel->findChild<QCheckBox*>("checkBox_autoTrigger"), Qt::LeftButton);
    ASSERT_FALSE(w.AskPanel()->FreeRun());
    ASSERT_FALSE(w.FskPanel()->FreeRun());
    auto summary = [](SampleGui* panel) { return panel->findChild<QLineEdit*>("lineEdit_summary")->text(); };
    auto packetData = [](SampleGui* panel) { return panel->findChild<QLineEdit*>("lineEdit_packetdata")->text(); };
    EXPECT_TRUE(WaitFor([&] { return !packetData(w.AskPanel()).isEmpty(); }, 40000));
    EXPECT_TRUE(WaitFor([&] { return !packetData(w.FskPanel()).isEmpty(); }, 40000));
    EXPECT_FALSE(w.AskPanel()->findChild<QLineEdit*>("lineEdit_logdata")->text().isEmpty());
    EXPECT_GT(w.AskPanel()->Chart()->Series()->count(), 0);
    (void)summary;
    w.Action("actionDisconnect")->trigger();
}

TEST_F(MainWindowPanelsTest, DacSliderMovedByHandReachesTheDeviceAndLockSendsNoneAtTheNextStart)
{
    Device dev;
    ASSERT_TRUE(dev.ok);
    MainWindow w(dev.Pattern());
    w.show();
    ASSERT_TRUE(ConnectAndAcquire(w));
    // The start sends the settings' value.
    EXPECT_TRUE(WaitFor([&] { return dev.Commands().find(Hex(BuildSetDacCommand(1700))) != std::string::npos; }))
        << dev.Commands();
    EXPECT_EQ(Hex(BuildSetDacCommand(1700)), "command 29 70 41 59 41 41 41 3D 3D\n");  // ")pAYAAA=="


    w.Action("action2K_Ware")->trigger();
    SampleGui* ask = w.AskPanel();
    QApplication::setActiveWindow(ask);
    QTest::mouseClick(ask->ManualBox(), Qt::LeftButton);
    ASSERT_TRUE(ask->Slider()->isEnabled());
    const int target = std::min(ask->Slider()->value() + ask->Slider()->pageStep(), ask->Slider()->maximum());
    ask->Slider()->setFocus();
    QTest::keyClick(ask->Slider(), Qt::Key_PageUp);
    ASSERT_EQ(ask->Slider()->value(), target);
    EXPECT_EQ(w.DacValue(), target);
    // ")" and the base64 of the value as a little-endian 32-bit number.
    const QByteArray le(reinterpret_cast<const char*>(&target), 4);
    std::string wanted = "command 29";
    for (char c : le.toBase64()) {
        char pair[4];
        std::snprintf(pair, sizeof pair, " %02X", static_cast<unsigned char>(c));
        wanted += pair;
    }
    wanted += "\n";
    EXPECT_EQ(wanted, Hex(BuildSetDacCommand(target)));
    EXPECT_TRUE(WaitFor([&] { return dev.Commands().find(wanted) != std::string::npos; })) << dev.Commands();

    // Lock, Stop, Start: the start sends no DAC value.
    QTest::mouseClick(ask->LockBox(), Qt::LeftButton);
    ASSERT_EQ(SettingParams::Instance().m_dac_locked, 1);
    w.Action("actionStop")->trigger();
    w.Action("actionStart")->trigger();
    ASSERT_TRUE(windowconnect::StartUntilAcquiring(w));
    QTest::qWait(500);
    const std::string all = dev.Commands();
    const size_t start = all.rfind("command 05");
    ASSERT_NE(start, std::string::npos);
    EXPECT_EQ(all.find("command 29", start), std::string::npos) << all.substr(start);
    w.Action("actionDisconnect")->trigger();
}

TEST_F(MainWindowPanelsTest, SliderFollowsTheCurrentDacValueOnceAfterTheDeviceRecord)
{
    Device dev;
    ASSERT_TRUE(dev.ok);
    MainWindow w(dev.Pattern());
    w.dacSliderDelayMs = 4000;  // thirty seconds in the application
    // Moved while no port is open: nothing goes out.
    w.AskPanel()->SetSliderValue(2000);
    ASSERT_EQ(w.AskPanel()->Slider()->value(), 2000);
    ASSERT_TRUE(ConnectAndAcquire(w));
    // The start sent the settings' 1700; the slider still shows 2000 until
    // the delay has passed, then the current value.
    EXPECT_EQ(w.AskPanel()->Slider()->value(), 2000);
    EXPECT_TRUE(WaitFor([&] { return w.AskPanel()->Slider()->value() != 2000; }));
    EXPECT_EQ(w.AskPanel()->Slider()->value(), w.Controller().LastDacSent());
    EXPECT_EQ(dev.Commands().find(Hex(BuildSetDacCommand(2000))), std::string::npos) << dev.Commands();
    w.Action("actionDisconnect")->trigger();
}

TEST_F(MainWindowPanelsTest, PowerLogGainsALineASecondWhileTheMonitorIsHidden)
{
    Device dev;
    ASSERT_TRUE(dev.ok);
    MainWindow w(dev.Pattern());
    w.show();
    ASSERT_TRUE(ConnectAndAcquire(w));
    ASSERT_FALSE(w.Monitor()->isVisible());
    const QString folder = QString::fromStdString(SettingParams::Instance().capturePath);
    // The file is written without a flush: the line count is read when the
    // buffer goes out, or at the Stop below.
    EXPECT_TRUE(WaitFor([&] { return w.Monitor()->QueuedPoints() >= 4; }, 30000));
    const std::string path = w.Monitor()->LogPath();
    ASSERT_FALSE(path.empty());
    EXPECT_EQ(QFileInfo(QString::fromStdString(path)).absolutePath(), QDir(folder).absolutePath());
    w.Action("actionStop")->trigger();  // the next Start resets, which closes the file
    w.Action("actionStart")->trigger();
    std::ifstream in(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const QStringList written = QString::fromStdString(text).split(QStringLiteral("\n"), Qt::SkipEmptyParts);
    ASSERT_GE(written.size(), 4) << text;
    const QRegularExpression format(QStringLiteral("^(\\d+\\.\\d{3}) -?\\d+ -?\\d+\\.\\d{2}% -?\\d+\\.\\d{2}W\\r$"));
    // Times are compared in whole milliseconds, as written: in doubles,
    // 2.003 - 1.003 falls just short of 1.
    qint64 last = -1;
    for (const QString& line : written) {
        const auto m = format.match(line);
        ASSERT_TRUE(m.hasMatch()) << line.toStdString();
        const qint64 ms = qRound64(m.captured(1).toDouble() * 1000.0);
        if (last > 0) {
            EXPECT_GE(ms - last, 1000) << line.toStdString();
        }
        last = ms;
    }
    w.Action("actionDisconnect")->trigger();
}

TEST_F(MainWindowPanelsTest, ClearWhileStoppedResetsTheMonitor)
{
    MainWindow w(Empty());
    SettingParams::Instance().capturePath = dir.path().toStdString() + "/";
    w.Monitor()->Update(0, 10, 1.0, 10.0, 20);
    ASSERT_FALSE(w.Monitor()->LogPath().empty());
    w.Action("actionClear")->trigger();
    EXPECT_TRUE(w.Monitor()->LogPath().empty());
    SettingParams::Instance().capturePath.clear();
}
