// The update window and its download engine against a real HTTP server on the
// loopback address (and a TLS one with a self-signed certificate): the check,
// the once-per-version message, Download then Install, and every bad answer.
#include "LoopbackHttpServer.h"
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/CoilscopeUpdater.h"
#include "services/HttpDownload.h"
#include "services/SettingParams.h"

#include <gtest/gtest.h>

#include <json/json.h>

#include <QAuthenticator>
#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QSslSocket>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>

#include <fstream>
#include <sstream>

namespace {

QByteArray VersionJson(int version, const QString& setup, const QString& desc)
{
    return QStringLiteral("{\"version\": %1, \"setup\": \"%2\", \"desc\": \"%3\"}")
        .arg(version)
        .arg(setup, desc)
        .toUtf8();
}

HttpAnswer Body(const QByteArray& body)
{
    HttpAnswer a;
    a.body = body;
    return a;
}

Json::Value SettingsOnDisk()
{
    std::ifstream in(AppSettings::Instance().FilePath());
    std::stringstream text;
    text << in.rdbuf();
    Json::Value root;
    Json::Reader().parse(text.str(), root);
    return root;
}

class UpdaterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QDir(QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)).removeRecursively();
        QFile::remove(QString::fromStdString(AppSettings::DefaultFilePath()));
        AppSettings::ReloadForTest();
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
        SetDesktopRecorder([this](const QUrl& u) { opened.push_back(u); });
        ASSERT_TRUE(server.Start());
    }
    void TearDown() override
    {
        SetUserMessageRecorder({});
        SetDesktopRecorder({});
        SetWarningAnswerer({});
    }
    // Waits until the engine of the window ends its job.
    static bool Finished(QSignalSpy& spy, int count = 1)
    {
        return WaitUntil([&] { return spy.count() >= count; });
    }
    static bool ButtonsHidden(const CoilscopeUpdater& u)
    {
        return u.DownloadButton()->isHidden() && u.ProgressBar()->isHidden() && u.SpeedLabel()->isHidden() &&
               u.SkipBox()->isHidden() && !u.CloseButton()->isHidden();
    }

    LoopbackHttpServer server;
    std::vector<UserMessage> messages;
    std::vector<QUrl> opened;
};

TEST_F(UpdaterTest, FormAsTheWindowHasIt)
{
    CoilscopeUpdater u{QString()};
    EXPECT_EQ(u.objectName(), "CoilscopeUpdaterClass");
    EXPECT_EQ(u.windowTitle(), "Coilscope Update");
    EXPECT_EQ(u.size(), QSize(366, 285));
    EXPECT_EQ(u.TextBrowser()->objectName(), "textBrowser");
    EXPECT_EQ(u.ProgressBar()->value(), 0);
    EXPECT_EQ(u.SkipBox()->text(), "Skip this version");
    EXPECT_EQ(u.DownloadButton()->objectName(), "pushButton_download");
    EXPECT_EQ(u.DownloadButton()->text(), "Download");
    EXPECT_EQ(u.CloseButton()->text(), "Close");
    EXPECT_TRUE(ButtonsHidden(u));
    u.show();
    QTest::mouseClick(u.CloseButton(), Qt::LeftButton);
    EXPECT_FALSE(u.isVisible());
}

TEST_F(UpdaterTest, NoServerConfiguredMakesNoRequestAndSaysSo)
{
    CoilscopeUpdater u{QString()};
    EXPECT_TRUE(u.VersionUrl().isEmpty());
    EXPECT_FALSE(u.Download().Busy());
    EXPECT_EQ(u.TextBrowser()->toPlainText(), "No update server is configured in this build.");
    QCoreApplication::processEvents();
    EXPECT_FALSE(QFile::exists(u.VersionFile()));
    EXPECT_TRUE(server.Requests().empty());
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, LatestVersionSaysSoAndShowsNoButtons)
{
    server.Serve("/version_setup.txt", Body(VersionJson(20230520, "http://x/setup.sh", "same")));
    CoilscopeUpdater u(server.Base());
    EXPECT_EQ(u.VersionUrl(), server.Base() + "/version_setup.txt");
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_TRUE(done.at(0).at(1).toBool());
    EXPECT_EQ(u.TextBrowser()->toPlainText(), "The current version is the latest edition.");
    EXPECT_TRUE(ButtonsHidden(u));
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(SettingParams::Instance().m_skip_version, 0);
    EXPECT_EQ(server.RequestsFor("/version_setup.txt"), 1);
}

TEST_F(UpdaterTest, NewerVersionIsAnnouncedOnceOverTwoProgramStarts)
{
    server.Serve("/version_setup.txt", Body(VersionJson(20230521, server.Base() + "/setup.sh", "Fixes.")));
    {
        CoilscopeUpdater first(server.Base());
        QSignalSpy done(&first.Download(), &HttpDownload::taskFinished);
        ASSERT_TRUE(Finished(done));
        EXPECT_EQ(first.TextBrowser()->toPlainText(),
                  "Current Version:1.2.0.0\nNew Version:20230521\nDesc: Fixes.");
        EXPECT_FALSE(first.DownloadButton()->isHidden());
        EXPECT_FALSE(first.ProgressBar()->isHidden());
        EXPECT_FALSE(first.SpeedLabel()->isHidden());
        EXPECT_FALSE(first.SkipBox()->isHidden());
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].title, "Warning");
        EXPECT_EQ(messages[0].text, "Find new version 20230521.");
        EXPECT_EQ(SettingsOnDisk()["m_skip_version"].asInt(), 20230521);
    }
    // The second start reads the settings file anew.
    AppSettings::ReloadForTest();
    EXPECT_EQ(SettingParams::Instance().m_skip_version, 20230521);
    CoilscopeUpdater second(server.Base());
    QSignalSpy done(&second.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_EQ(second.TextBrowser()->toPlainText(), "Current Version:1.2.0.0\nNew Version:20230521\nDesc: Fixes.");
    EXPECT_FALSE(second.DownloadButton()->isHidden());
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_EQ(server.RequestsFor("/version_setup.txt"), 2);
}

TEST_F(UpdaterTest, NewerVersionIsAnnouncedOnlyByTheFirstOfTwoProcesses)
{
    server.Serve("/version_setup.txt", Body(VersionJson(20230522, server.Base() + "/setup.sh", "Two starts.")));
    QTemporaryDir home;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", home.path() + "/config");
    env.insert("XDG_DATA_HOME", home.path() + "/data");
    env.insert("QT_QPA_PLATFORM", "offscreen");
    auto start = [&] {
        QProcess p;
        p.setProcessEnvironment(env);
        p.start(UPDATE_CHECK_ONCE, {server.Base()});
        EXPECT_TRUE(p.waitForStarted(10000));
        // The server answers on this thread's event loop: wait without blocking it.
        EXPECT_TRUE(WaitUntil([&] { return p.state() == QProcess::NotRunning; }, 60000));
        EXPECT_EQ(p.exitCode(), 0);
        return QString::fromUtf8(p.readAllStandardOutput());
    };
    const QString first = start();
    EXPECT_TRUE(first.contains("box Warning: Find new version 20230522.\n")) << first.toStdString();
    EXPECT_TRUE(first.contains("text: Current Version:1.2.0.0|New Version:20230522|Desc: Two starts.\n"))
        << first.toStdString();
    QFile settings(home.path() + "/config/Coilscope/setting.txt");
    ASSERT_TRUE(settings.open(QIODevice::ReadOnly));
    Json::Value root;
    ASSERT_TRUE(Json::Reader().parse(settings.readAll().toStdString(), root));
    EXPECT_EQ(root["m_skip_version"].asInt(), 20230522);
    const QString second = start();
    EXPECT_FALSE(second.contains("box ")) << second.toStdString();
    EXPECT_TRUE(second.contains("text: Current Version:1.2.0.0|New Version:20230522|Desc: Two starts.\n"))
        << second.toStdString();
    EXPECT_EQ(server.RequestsFor("/version_setup.txt"), 2);
}

TEST_F(UpdaterTest, SkipBoxSetsAndClearsTheSkippedVersionWithoutSaving)
{
    server.Serve("/version_setup.txt", Body(VersionJson(20240101, server.Base() + "/setup.sh", "New.")));
    CoilscopeUpdater u(server.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    u.show();
    SettingParams::Instance().m_skip_version = 5;
    QTest::mouseClick(u.SkipBox(), Qt::LeftButton);
    EXPECT_TRUE(u.SkipBox()->isChecked());
    EXPECT_EQ(SettingParams::Instance().m_skip_version, 20240101);
    QTest::mouseClick(u.SkipBox(), Qt::LeftButton);
    EXPECT_EQ(SettingParams::Instance().m_skip_version, 0);
    // The file still has what the check saved.
    EXPECT_EQ(SettingsOnDisk()["m_skip_version"].asInt(), 20240101);
}

TEST_F(UpdaterTest, FileThatIsNotJsonLeavesTheWindowAsConstructed)
{
    server.Serve("/version_setup.txt", Body("<html>version 20990101</html>"));
    CoilscopeUpdater u(server.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_TRUE(done.at(0).at(1).toBool());
    EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty());
    EXPECT_TRUE(ButtonsHidden(u));
    EXPECT_TRUE(u.Entries().empty());
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, EmptyFileLeavesTheWindowAsConstructed)
{
    server.Serve("/version_setup.txt", Body(QByteArray()));
    CoilscopeUpdater u(server.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty());
    EXPECT_TRUE(ButtonsHidden(u));
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, KeysOfWrongTypesLeaveTheEntryEmptySoItIsNoNewerBuild)
{
    server.Serve("/version_setup.txt",
                 Body("{\"version\": \"20990101\", \"setup\": 12, \"desc\": [1, 2], \"extra\": null}"));
    CoilscopeUpdater u(server.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    ASSERT_EQ(u.Entries().size(), 1u);
    EXPECT_EQ(u.Entries()[0].version, 0);
    EXPECT_EQ(u.Entries()[0].setup, "");
    EXPECT_EQ(u.Entries()[0].desc, "");
    EXPECT_EQ(u.TextBrowser()->toPlainText(), "The current version is the latest edition.");
    EXPECT_TRUE(ButtonsHidden(u));
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, VersionAsARealOrTooLargeNumberIsNoVersion)
{
    CoilscopeUpdater::UpdateEntry e;
    ASSERT_TRUE(CoilscopeUpdater::ParseEntry("{\"version\": 20990101.0}", e));
    EXPECT_EQ(e.version, 0);
    ASSERT_TRUE(CoilscopeUpdater::ParseEntry("{\"version\": 99999999999}", e));
    EXPECT_EQ(e.version, 0);
    ASSERT_TRUE(CoilscopeUpdater::ParseEntry("{\"version\": 20990101, \"setup\": \"s\", \"desc\": \"d\"}", e));
    EXPECT_EQ(e.version, 20990101);
    EXPECT_EQ(e.setup, "s");
    EXPECT_EQ(e.desc, "d");
    EXPECT_FALSE(CoilscopeUpdater::ParseEntry("", e));
    EXPECT_FALSE(CoilscopeUpdater::ParseEntry("[20990101]", e));
    EXPECT_FALSE(CoilscopeUpdater::ParseEntry(std::string(100000, '['), e));
}

TEST_F(UpdaterTest, HugeFileIsNotTakenForAnUpdateFile)
{
    // A valid object, but 3 MB of it.
    QByteArray body = "{\"version\": 20990101, \"setup\": \"x\", \"desc\": \"";
    body += QByteArray(3 * 1024 * 1024, 'a');
    body += "\"}";
    server.Serve("/version_setup.txt", Body(body));
    CoilscopeUpdater u(server.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_TRUE(done.at(0).at(1).toBool());
    EXPECT_EQ(QFileInfo(u.VersionFile()).size(), body.size());
    EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty());
    EXPECT_TRUE(ButtonsHidden(u));
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(SettingParams::Instance().m_skip_version, 0);
}

TEST_F(UpdaterTest, MissingUpdateFileIsASilentFailureAndLeavesNoFile)
{
    CoilscopeUpdater u(server.Base());  // the server answers 404
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_FALSE(done.at(0).at(1).toBool());
    EXPECT_FALSE(QFile::exists(u.VersionFile()));
    EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty());
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, RefusedConnectionIsSilent)
{
    QTcpServer probe;
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
    const quint16 port = probe.serverPort();
    probe.close();
    CoilscopeUpdater u(QStringLiteral("http://127.0.0.1:%1").arg(port));
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_FALSE(done.at(0).at(1).toBool());
    EXPECT_FALSE(QFile::exists(u.VersionFile()));
    EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty());
    EXPECT_TRUE(ButtonsHidden(u));
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, UrlThatDoesNotParseIsASilentFailure)
{
    for (const char* base : {"http://[::1", "http://127.0.0.1:99999", "no scheme at all", "ftp//:"}) {
        CoilscopeUpdater u{QLatin1String(base)};
        QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
        ASSERT_TRUE(Finished(done)) << base;
        EXPECT_FALSE(done.at(0).at(1).toBool()) << base;
        EXPECT_FALSE(QFile::exists(u.VersionFile())) << base;
        EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty()) << base;
        EXPECT_TRUE(ButtonsHidden(u)) << base;
    }
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, RedirectIsNotFollowed)
{
    HttpAnswer moved;
    moved.status = "302 Found";
    moved.headers.push_back("Location: " + server.Base().toUtf8() + "/elsewhere.txt");
    moved.body = "moved";
    server.Serve("/version_setup.txt", moved);
    server.Serve("/elsewhere.txt", Body(VersionJson(20990101, "x", "should not be read")));
    CoilscopeUpdater u(server.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_TRUE(done.at(0).at(1).toBool());
    EXPECT_EQ(server.RequestsFor("/elsewhere.txt"), 0);
    EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty());
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, LoginIsAnsweredWithEmptyCredentialsAndTheCheckFailsSilently)
{
    HttpAnswer login;
    login.status = "401 Unauthorized";
    login.headers.push_back("WWW-Authenticate: Basic realm=\"updates\"");
    login.body = "who are you";
    server.Serve("/version_setup.txt", login);
    CoilscopeUpdater u(server.Base());
    // Connected after the engine's own answer: the authenticator it was
    // handed is filled, with an empty user and password.
    int asked = 0;
    bool filledEmpty = false;
    QObject::connect(&u.Download().Manager(), &QNetworkAccessManager::authenticationRequired,
                     [&](QNetworkReply*, QAuthenticator* a) {
                         ++asked;
                         filledEmpty = !a->isNull() && a->user().isEmpty() && a->password().isEmpty();
                     });
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_FALSE(done.at(0).at(1).toBool());
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(filledEmpty);
    // Empty credentials are no login: the request isn't repeated.
    EXPECT_EQ(server.RequestsFor("/version_setup.txt"), 1);
    EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty());
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, DownloadThenInstallStartsTheInstallerAndEndsTheProgram)
{
    QTemporaryDir scratch;
    const QString marker = scratch.path() + "/installer-ran";
    const QByteArray script = "#!/bin/sh\necho started > '" + marker.toUtf8() + "'\n";
    server.Serve("/version_setup.txt",
                 Body(VersionJson(20230601, server.Base() + "/files/coilscope-setup.sh", "Faster charts.")));
    server.Serve("/files/coilscope-setup.sh", Body(script));
    CoilscopeUpdater u(server.Base());
    int ended = -1;
    u.endApplication = [&ended](int code) { ended = code; };
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    QSignalSpy progress(&u.Download(), &HttpDownload::process);
    ASSERT_TRUE(Finished(done));
    u.show();
    QTest::mouseClick(u.DownloadButton(), Qt::LeftButton);
    EXPECT_FALSE(u.DownloadButton()->isEnabled());
    ASSERT_TRUE(Finished(done, 2));
    EXPECT_TRUE(done.at(1).at(1).toBool());
    EXPECT_EQ(u.SetupUrl(), server.Base() + "/files/coilscope-setup.sh");
    EXPECT_EQ(u.SetupFile(),
              QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + "/coilscope-setup.sh");
    EXPECT_EQ(u.DownloadButton()->text(), "Install");
    EXPECT_TRUE(u.DownloadButton()->isEnabled());
    ASSERT_GE(progress.count(), 1);
    EXPECT_EQ(u.ProgressBar()->maximum(), script.size());
    EXPECT_EQ(u.ProgressBar()->value(), script.size());
    EXPECT_TRUE(u.SpeedLabel()->text().endsWith(" KB/s"));
    QFile saved(u.SetupFile());
    ASSERT_TRUE(saved.open(QIODevice::ReadOnly));
    EXPECT_EQ(saved.readAll(), script);
    saved.close();

    QTest::mouseClick(u.DownloadButton(), Qt::LeftButton);
    EXPECT_FALSE(u.DownloadButton()->isEnabled());
    EXPECT_EQ(ended, 0);
    EXPECT_TRUE(QFileInfo(u.SetupFile()).isExecutable());
    EXPECT_TRUE(WaitUntil([&] { return QFile::exists(marker); }));
    EXPECT_TRUE(opened.empty());
}

TEST_F(UpdaterTest, InstallOfAPackageGoesToTheDesktopHandler)
{
    server.Serve("/version_setup.txt",
                 Body(VersionJson(20230601, server.Base() + "/coilscope_1.2.1_amd64.deb", "Package.")));
    server.Serve("/coilscope_1.2.1_amd64.deb", Body("!<arch>\ndebian-binary   "));
    CoilscopeUpdater u(server.Base());
    int ended = -1;
    u.endApplication = [&ended](int code) { ended = code; };
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    u.slot_download();
    ASSERT_TRUE(Finished(done, 2));
    ASSERT_EQ(u.DownloadButton()->text(), "Install");
    u.slot_download();
    EXPECT_EQ(ended, 0);
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0], QUrl::fromLocalFile(u.SetupFile()));
    EXPECT_FALSE(QFileInfo(u.SetupFile()).isExecutable());
}

TEST_F(UpdaterTest, InstallerCutShortOfItsLengthIsRemovedAndTheButtonStaysDisabled)
{
    HttpAnswer cut;
    cut.body = QByteArray(4000, 'x');
    cut.claimedLength = 100000;
    server.Serve("/version_setup.txt", Body(VersionJson(20230601, server.Base() + "/setup.run", "Cut.")));
    server.Serve("/setup.run", cut);
    CoilscopeUpdater u(server.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    u.slot_download();
    ASSERT_TRUE(Finished(done, 2));
    EXPECT_FALSE(done.at(1).at(1).toBool());
    EXPECT_FALSE(QFile::exists(u.SetupFile()));
    EXPECT_EQ(u.DownloadButton()->text(), "Download");
    EXPECT_FALSE(u.DownloadButton()->isEnabled());
}

TEST_F(UpdaterTest, SetupUrlThatDoesNotParseFailsSilentlyAndLeavesTheButtonDisabled)
{
    server.Serve("/version_setup.txt", Body(VersionJson(20230601, "http://[::1/setup.run", "Bad link.")));
    CoilscopeUpdater u(server.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    messages.clear();
    u.slot_download();
    ASSERT_TRUE(Finished(done, 2));
    EXPECT_FALSE(done.at(1).at(1).toBool());
    EXPECT_FALSE(QFile::exists(u.SetupFile()));
    EXPECT_EQ(u.DownloadButton()->text(), "Download");
    EXPECT_FALSE(u.DownloadButton()->isEnabled());
    EXPECT_TRUE(messages.empty());
}

TEST_F(UpdaterTest, NewJobDropsTheRunningOneAndItsFile)
{
    HttpAnswer stalled;
    stalled.body = QByteArray(100, 'a');
    stalled.claimedLength = 100000;
    stalled.hold = true;
    server.Serve("/stalled.bin", stalled);
    server.Serve("/small.bin", Body("small"));
    QTemporaryDir scratch;
    HttpDownload d;
    QSignalSpy done(&d, &HttpDownload::taskFinished);
    d.StartDownload(server.Base() + "/stalled.bin", scratch.path() + "/stalled.bin");
    ASSERT_TRUE(WaitUntil([&] { return server.RequestsFor("/stalled.bin") == 1; }));
    d.StartDownload(server.Base() + "/small.bin", scratch.path() + "/small.bin");
    EXPECT_FALSE(QFile::exists(scratch.path() + "/stalled.bin"));
    ASSERT_TRUE(Finished(done));
    EXPECT_EQ(done.at(0).at(0).toString(), server.Base() + "/small.bin");
    EXPECT_TRUE(done.at(0).at(1).toBool());
    QTest::qWait(50);
    EXPECT_EQ(done.count(), 1);
    QFile small(scratch.path() + "/small.bin");
    ASSERT_TRUE(small.open(QIODevice::ReadOnly));
    EXPECT_EQ(small.readAll(), "small");
}

TEST_F(UpdaterTest, SetupFileIsNamedAfterTheUrlsFile)
{
    const QString data = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    EXPECT_EQ(CoilscopeUpdater::SetupFileFor("https://h/a/b/Coilscope-1.2.run?x=1"), data + "/Coilscope-1.2.run");
    EXPECT_EQ(CoilscopeUpdater::SetupFileFor("https://h/"), data + "/setup");
    EXPECT_EQ(CoilscopeUpdater::SetupFileFor(""), data + "/setup");
    EXPECT_EQ(CoilscopeUpdater::SetupFileFor("https://h/a/.."), data + "/setup");
}

TEST_F(UpdaterTest, TargetThatCannotBeOpenedSaysSoAndSignalsNothing)
{
    HttpDownload d;
    QSignalSpy done(&d, &HttpDownload::taskFinished);
    const QString target = "/nonexistent-folder/for/version_setup.txt";
    d.StartDownload(server.Base() + "/version_setup.txt", target);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "Error");
    EXPECT_TRUE(messages[0].text.startsWith("Unable to save the file /nonexistent-folder/for/version_setup.txt: "))
        << messages[0].text.toStdString();
    EXPECT_TRUE(messages[0].text.endsWith("."));
    EXPECT_FALSE(d.Busy());
    QTest::qWait(50);
    EXPECT_EQ(done.count(), 0);
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(UpdaterTest, CancelledJobKeepsItsFileAndReportsFailure)
{
    HttpAnswer slow;
    slow.body = QByteArray(1000, 'y');
    slow.claimedLength = 1000000;  // the rest never comes
    slow.hold = true;
    server.Serve("/big.bin", slow);
    QTemporaryDir scratch;
    const QString target = scratch.path() + "/big.bin";
    HttpDownload d;
    QSignalSpy done(&d, &HttpDownload::taskFinished);
    d.StartDownload(server.Base() + "/big.bin", target);
    ASSERT_TRUE(d.Busy());
    ASSERT_TRUE(WaitUntil([&] { return !server.Requests().empty(); }));
    d.cancelDownload();
    ASSERT_EQ(done.count(), 1);
    EXPECT_EQ(done.at(0).at(0).toString(), server.Base() + "/big.bin");
    EXPECT_FALSE(done.at(0).at(1).toBool());
    // Unlike a failed transfer, a cancelled one leaves its file.
    EXPECT_TRUE(QFile::exists(target));
    EXPECT_FALSE(d.Busy());
}

TEST_F(UpdaterTest, ProgressReportsTotalFractionAndSpeed)
{
    server.Serve("/f.bin", Body(QByteArray(200000, 'z')));
    QTemporaryDir scratch;
    HttpDownload d;
    QSignalSpy done(&d, &HttpDownload::taskFinished);
    QSignalSpy progress(&d, &HttpDownload::process);
    QSignalSpy info(&d, &HttpDownload::fileInfo);
    const QString task = server.Base() + "/f.bin";
    d.StartDownload(task, scratch.path() + "/f.bin");
    ASSERT_TRUE(Finished(done));
    ASSERT_GE(progress.count(), 1);
    const QList<QVariant> last = progress.last();
    EXPECT_EQ(last.at(0).toString(), task);
    EXPECT_EQ(last.at(1).toLongLong(), 200000);
    EXPECT_DOUBLE_EQ(last.at(2).toDouble(), 1.0);
    EXPECT_GE(last.at(3).toDouble(), 0.0);
    EXPECT_EQ(QFileInfo(scratch.path() + "/f.bin").size(), 200000);
    // Nothing leads to the size report in a job's normal course.
    EXPECT_EQ(info.count(), 0);
    d.gotFileInfo();
    ASSERT_EQ(info.count(), 1);
    EXPECT_EQ(info.at(0).at(1).toLongLong(), 0);
}

// ---- TLS with a self-signed certificate ----

class UpdaterTlsTest : public UpdaterTest {
protected:
    void SetUp() override
    {
        UpdaterTest::SetUp();
        ASSERT_TRUE(QSslSocket::supportsSsl());
        const QString key = dir.path() + "/key.pem";
        const QString cert = dir.path() + "/cert.pem";
        QProcess openssl;
        openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", cert,
                                  "-days", "2", "-subj", "/CN=127.0.0.1"});
        ASSERT_TRUE(openssl.waitForFinished(60000));
        ASSERT_EQ(openssl.exitCode(), 0) << openssl.readAllStandardError().toStdString();
        QFile c(cert), k(key);
        ASSERT_TRUE(c.open(QIODevice::ReadOnly));
        ASSERT_TRUE(k.open(QIODevice::ReadOnly));
        const QSslCertificate certificate(c.readAll(), QSsl::Pem);
        const QSslKey privateKey(k.readAll(), QSsl::Rsa, QSsl::Pem);
        ASSERT_FALSE(certificate.isNull());
        ASSERT_FALSE(privateKey.isNull());
        ASSERT_TRUE(tls.Start(certificate, privateKey));
        tls.Serve("/version_setup.txt", Body(VersionJson(20230520, "x", "tls")));
    }

    QTemporaryDir dir;
    LoopbackHttpServer tls;
    std::vector<UserMessage> asked;
};

TEST_F(UpdaterTlsTest, SelfSignedCertificateBringsUpTheSslErrorsBoxAndAbortFails)
{
    SetWarningAnswerer([this](const UserMessage& m) {
        asked.push_back(m);
        return QMessageBox::Abort;
    });
    CoilscopeUpdater u(tls.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].title, "SSL Errors");
    EXPECT_TRUE(asked[0].text.startsWith("One or more SSL errors has occurred:\n")) << asked[0].text.toStdString();
    EXPECT_GT(asked[0].text.size(), QString("One or more SSL errors has occurred:\n").size());
    EXPECT_FALSE(done.at(0).at(1).toBool());
    EXPECT_TRUE(u.TextBrowser()->toPlainText().isEmpty());
    EXPECT_FALSE(QFile::exists(u.VersionFile()));
}

TEST_F(UpdaterTlsTest, IgnoreLetsTheCheckGoOn)
{
    SetWarningAnswerer([this](const UserMessage& m) {
        asked.push_back(m);
        return QMessageBox::Ignore;
    });
    CoilscopeUpdater u(tls.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    EXPECT_EQ(asked.size(), 1u);
    EXPECT_TRUE(done.at(0).at(1).toBool());
    EXPECT_EQ(u.TextBrowser()->toPlainText(), "The current version is the latest edition.");
}

TEST_F(UpdaterTlsTest, RecordedBoxWithNoAnswerAborts)
{
    CoilscopeUpdater u(tls.Base());
    QSignalSpy done(&u.Download(), &HttpDownload::taskFinished);
    ASSERT_TRUE(Finished(done));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "SSL Errors");
    EXPECT_FALSE(done.at(0).at(1).toBool());
}

}  // namespace
