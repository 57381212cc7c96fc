#include "services/CrashHandler.h"
#include "services/Log.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace {

QStringList Reports(const QString& folder)
{
    return QDir(folder).entryList({"v0.1-2017.9.23-*.dmp"}, QDir::Files);
}

}  // namespace

TEST(CrashHandlerDeathTest, FaultWritesAReportWithABacktraceAndALogLine)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The dying child runs in a process of its own; it finds the folder by
    // its parent's process id.
    const QString temp = QStringLiteral("/tmp/coilscope-crash-test-%1").arg(::getpid());
    QDir(temp).removeRecursively();
    QDir().mkpath(temp);
    EXPECT_EXIT(
        {
            const QByteArray folder = QStringLiteral("/tmp/coilscope-crash-test-%1").arg(::getppid()).toLocal8Bit();
            setenv("TMPDIR", folder.constData(), 1);
            InstallCrashHandler();
            std::raise(SIGSEGV);
        },
        ::testing::KilledBySignal(SIGSEGV), "");
    const QString folder = temp + "/Sniffer";
    const QStringList reports = Reports(folder);
    ASSERT_EQ(reports.size(), 1) << folder.toStdString();
    // <version>-<date>-<time>-<pid>-<tid>.dmp
    EXPECT_TRUE(QRegularExpression("^v0\\.1-2017\\.9\\.23-\\d{8}-\\d{6}-\\d+-\\d+\\.dmp$").match(reports[0]).hasMatch())
        << reports[0].toStdString();
    QFile f(folder + "/" + reports[0]);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray text = f.readAll();
    EXPECT_TRUE(text.contains("SIGSEGV"));
    EXPECT_TRUE(text.contains("backtrace:"));
    QDir(temp).removeRecursively();
}

TEST(CrashHandler, FolderIsSnifferUnderTheTemporaryFolder)
{
    EXPECT_EQ(CrashFolder(), QDir::tempPath().toStdString() + "/Sniffer");
}
