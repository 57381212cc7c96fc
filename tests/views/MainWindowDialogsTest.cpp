// The main window's way to its configuration dialog, its update window and
// the firmware tool: the action "Setting" refills and toggles the dialog, its
// Save gives the live views the new frequency range at once (the FSK decoder
// keeps its limits until the next start), "Check For Updates" toggles the
// update window, "UpdateFireware" starts the tool only while disconnected.
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/CoilscopeUpdater.h"
#include "services/QAppConfig.h"
#include "services/SettingParams.h"
#include "sim/DeviceEmulator.h"
#include "views/MainWindow.h"
#include "views/PropertyTree.h"
#include "views/QEventInfo.h"
#include "views/QWindowReal.h"

#include "WindowConnect.h"
#include "views/QwtChart.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>
#include <QTreeView>
#include <QValueAxis>

namespace {

bool WaitFor(const std::function<bool()>& condition, int ms = 15000)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition() && clock.elapsed() < ms)
        QTest::qWait(10);
    return condition();
}

class MainWindowDialogsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams::Instance().savePath = dir.path().toStdString() + "/sessions";
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
    }
    void TearDown() override { SetUserMessageRecorder({}); }
    std::string NoDevice() const { return dir.path().toStdString() + "/none/ttyACM%d"; }

    QTemporaryDir dir;
    std::vector<UserMessage> messages;
};

TEST_F(MainWindowDialogsTest, SettingRefillsTheDialogBeforeShowingItAndTogglesIt)
{
    MainWindow w(NoDevice());
    QAppConfig* config = w.Config();
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(w.Panels().config, config);
    EXPECT_FALSE(config->isVisible());
    SettingParams::Instance().savePath = "/changed/elsewhere";
    w.Action("actionSetting")->trigger();
    EXPECT_TRUE(config->isVisible());
    EXPECT_EQ(config->Tree()->Value("Save Path", "Data Save Path").toString(), "/changed/elsewhere");
    w.Action("actionSetting")->trigger();
    EXPECT_FALSE(config->isVisible());
}

TEST_F(MainWindowDialogsTest, SavedFrequencyRangeReachesGaugesAndChartAtOnceButNotTheFskDecoder)
{
    MainWindow w(NoDevice());
    w.show();
    const int64_t maxPeriod = w.Controller().Fsk().Tracker().MaxPeriod();
    const int64_t minPeriod = w.Controller().Fsk().Tracker().MinPeriod();
    w.Action("actionSetting")->trigger();
    QAppConfig* config = w.Config();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(config));
    QTreeView* view = config->Tree()->View();
    for (const auto& [name, value] : {std::pair<const char*, int>{"Min Frequency (Hz)", 90000}, {"Max Frequency (Hz)", 300000}}) {
        const QModelIndex index = config->Tree()->ValueItem("Frequency", name)->index();
        view->scrollTo(index);
        QTest::mouseClick(view->viewport(), Qt::LeftButton, Qt::NoModifier, view->visualRect(index).center());
        if (!view->indexWidget(index))
            QTest::mouseClick(view->viewport(), Qt::LeftButton, Qt::NoModifier, view->visualRect(index).center());
        auto* spin = qobject_cast<QSpinBox*>(view->indexWidget(index));
        ASSERT_NE(spin, nullptr);
        QTest::keyClick(spin, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClicks(spin, QString::number(value));
    }
    QTest::mouseClick(config->SaveButton(), Qt::LeftButton);
    EXPECT_TRUE(messages.empty());
    EXPECT_FALSE(config->isVisible());
    EXPECT_EQ(w.Dock()->FrequencyChart()->AxisY()->min(), 90);
    EXPECT_EQ(w.Dock()->FrequencyChart()->AxisY()->max(), 300);
    EXPECT_EQ(w.Dock()->EventInfo()->FrequencyRight()->text(), "300 kHz");
    EXPECT_EQ(w.Controller().Fsk().Tracker().MaxPeriod(), maxPeriod);
    EXPECT_EQ(w.Controller().Fsk().Tracker().MinPeriod(), minPeriod);
}

TEST_F(MainWindowDialogsTest, CheckForUpdatesTogglesTheUpdateWindowWhichSaysNoServerIsSet)
{
    if (!CoilscopeUpdater::CompiledServer().isEmpty())
        GTEST_SKIP() << "this build has an update server";
    MainWindow w(NoDevice());
    CoilscopeUpdater* u = w.Updater();
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(w.Panels().updater, u);
    EXPECT_FALSE(u->Download().Busy());
    EXPECT_FALSE(u->isVisible());
    w.Action("actionCheck_For_Updates")->trigger();
    EXPECT_TRUE(u->isVisible());
    EXPECT_EQ(u->TextBrowser()->toPlainText(), "No update server is configured in this build.");
    w.Action("actionCheck_For_Updates")->trigger();
    EXPECT_FALSE(u->isVisible());
    EXPECT_TRUE(messages.empty());
}

TEST_F(MainWindowDialogsTest, FirmwareToolIsStartedFromTheProgramFolderWhileDisconnected)
{
    const QString marker = dir.path() + "/tool-ran";
    QFile tool(dir.path() + "/CoilscopeUpdate");
    ASSERT_TRUE(tool.open(QIODevice::WriteOnly));
    tool.write("#!/bin/sh\npwd > '" + marker.toUtf8() + "'\n");
    tool.close();
    tool.setPermissions(tool.permissions() | QFileDevice::ExeOwner);
    MainWindow w(NoDevice());
    w.SetProgramFolder(dir.path());
    w.Action("actionUpdate_Fireware")->trigger();
    EXPECT_TRUE(messages.empty());
    ASSERT_TRUE(WaitFor([&] { return QFile(marker).size() > 0; }));
    QFile ran(marker);
    ASSERT_TRUE(ran.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(ran.readAll()).trimmed(), QDir(dir.path()).canonicalPath());
}

TEST_F(MainWindowDialogsTest, MissingFirmwareToolIsSilentlyNotStarted)
{
    MainWindow w(NoDevice());
    w.SetProgramFolder(dir.path() + "/empty");
    EXPECT_FALSE(w.UpdateFirmware());
    w.Action("actionUpdate_Fireware")->trigger();
    EXPECT_TRUE(messages.empty());
    // A file of that name that is no program is not started either.
    QFile plain(dir.path() + "/CoilscopeUpdate");
    ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
    plain.write("data");
    plain.close();
    plain.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    w.SetProgramFolder(dir.path());
    EXPECT_FALSE(w.UpdateFirmware());
    EXPECT_TRUE(messages.empty());
}

TEST_F(MainWindowDialogsTest, FirmwareToolIsRefusedWhileThePortIsOpen)
{
    QTemporaryDir emuDir;
    coilsim::EmulatorOptions options;
    options.dir = emuDir.path().toStdString() + "/ports";
    options.haveSeed = true;
    options.seed = 9;
    coilsim::DeviceEmulator device(options);
    std::string error;
    ASSERT_TRUE(device.Start(error)) << error;
    const QString marker = dir.path() + "/tool-ran";
    QFile tool(dir.path() + "/CoilscopeUpdate");
    ASSERT_TRUE(tool.open(QIODevice::WriteOnly));
    tool.write("#!/bin/sh\ntouch '" + marker.toUtf8() + "'\n");
    tool.close();
    tool.setPermissions(tool.permissions() | QFileDevice::ExeOwner);
    MainWindow w(device.Directory() + "/ttyACM%d");
    w.SetProgramFolder(dir.path());
    ASSERT_TRUE(windowconnect::ConnectUntilFound(w, messages));
    messages.clear();
    w.Action("actionUpdate_Fireware")->trigger();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].kind, MessageKind::Information);
    EXPECT_EQ(messages[0].title, "Information");
    EXPECT_EQ(messages[0].text, "Please Disconnect First.");
    w.Action("actionDisconnect")->trigger();
    ASSERT_FALSE(w.Controller().Found());
    QTest::qWait(200);
    EXPECT_FALSE(QFile::exists(marker));
    messages.clear();
    w.Action("actionUpdate_Fireware")->trigger();
    EXPECT_TRUE(messages.empty());
    EXPECT_TRUE(WaitFor([&] { return QFile::exists(marker); }));
}

}  // namespace
