#include "services/CrashHandler.h"
#include "services/Log.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

QStringList Reports(const QString& folder)
{
    return QDir(folder).entryList({"v0.1-2017.9.23-*.dmp"}, QDir::Files);
}

// A child process with the handler installed (reports under folder) that
// faults when told to.
class FaultingChild {
public:
    explicit FaultingChild(const std::string& folder)
    {
        int go[2], ready[2];
        if (::pipe(go) != 0 || ::pipe(ready) != 0)
            return;
        pid = ::fork();
        if (pid == 0) {
            ::close(go[1]);
            ::close(ready[0]);
            ::setenv("TMPDIR", folder.c_str(), 1);
            InstallCrashHandler();
            (void)!::write(ready[1], "r", 1);
            char c;
            (void)!::read(go[0], &c, 1);
            std::raise(SIGSEGV);
            ::_exit(0);
        }
        ::close(go[0]);
        ::close(ready[1]);
        m_go = go[1];
        // Installed and waiting once it says so.
        char c;
        installed = ::read(ready[0], &c, 1) == 1;
        ::close(ready[0]);
    }
    void Fault()
    {
        (void)!::write(m_go, "x", 1);
        ::close(m_go);
    }
    // True when the child ended by the fault.
    bool EndedByTheFault() const
    {
        int status = 0;
        return ::waitpid(pid, &status, 0) == pid && WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV;
    }
    pid_t pid = -1;
    bool installed = false;

private:
    int m_go = -1;
};

// Waits until just after the start of a wall-clock second, so that what
// follows within some hundred milliseconds falls in one second. (The margin
// covers time(), which reads a coarser clock and can lag a few milliseconds.)
void WaitForTheTopOfASecond()
{
    using namespace std::chrono;
    const auto now = system_clock::now().time_since_epoch();
    const auto intoSecond = duration_cast<microseconds>(now) % seconds(1);
    std::this_thread::sleep_for(seconds(1) - intoSecond + milliseconds(100));
}

std::string PathFor(const std::string& folder, std::time_t when, long pid, long tid)
{
    std::tm t{};
    localtime_r(&when, &t);
    char path[1400];
    CrashReportPath(path, sizeof path, (folder + "/").c_str(), t, pid, tid);
    return path;
}

QByteArray ReadAll(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

}  // namespace

TEST(CrashHandler, ReportNameIsVersionDateTimeProcessAndThread)
{
    std::tm t{};
    t.tm_year = 2026 - 1900;
    t.tm_mon = 10;
    t.tm_mday = 22;
    t.tm_hour = 9;
    t.tm_min = 5;
    t.tm_sec = 7;
    char path[1400];
    CrashReportPath(path, sizeof path, "/tmp/x/", t, 4242, 4250);
    EXPECT_STREQ(path, "/tmp/x/Sniffer//v0.1-2017.9.23-20261122-090507-4242-4250.dmp");
}

TEST(CrashHandler, TwoProcessesFaultingInTheSameSecondWriteTwoReports)
{
    const QString temp = QStringLiteral("/tmp/coilscope-crash-two-%1").arg(::getpid());
    // The two faults come 100 ms into a second; should a loaded machine hold
    // one of them up into the next second, the two reports have different
    // times and the pair is made again.
    QStringList reports, x, y;
    pid_t pidA = -1, pidB = -1;
    for (int attempt = 0; attempt < 5; ++attempt) {
        QDir(temp).removeRecursively();
        QDir().mkpath(temp);
        FaultingChild a(temp.toStdString()), b(temp.toStdString());
        ASSERT_TRUE(a.installed);
        ASSERT_TRUE(b.installed);
        WaitForTheTopOfASecond();
        a.Fault();
        b.Fault();
        EXPECT_TRUE(a.EndedByTheFault());
        EXPECT_TRUE(b.EndedByTheFault());
        pidA = a.pid;
        pidB = b.pid;
        reports = Reports(temp + "/Sniffer");
        ASSERT_EQ(reports.size(), 2) << reports.join(' ').toStdString();
        // <version>-<date>-<time>-<pid>-<tid>.dmp
        x = reports[0].split('-');
        y = reports[1].split('-');
        ASSERT_EQ(x.size(), 6);
        ASSERT_EQ(y.size(), 6);
        if (x[2] + x[3] == y[2] + y[3])
            break;
    }
    // Same second, different processes.
    EXPECT_EQ(x[2] + x[3], y[2] + y[3]);
    QStringList pids = {x[4], y[4]};
    pids.sort();
    QStringList expected = {QString::number(pidA), QString::number(pidB)};
    expected.sort();
    EXPECT_EQ(pids, expected);
    QDir(temp).removeRecursively();
}

TEST(CrashHandler, AFaultInTheSameSecondProcessAndThreadReplacesTheEarlierReport)
{
    const QString temp = QStringLiteral("/tmp/coilscope-crash-same-%1").arg(::getpid());
    QDir(temp).removeRecursively();
    QDir().mkpath(temp + "/Sniffer");
    FaultingChild child(temp.toStdString());
    ASSERT_TRUE(child.installed);
    // Earlier reports of this process and thread (a single-threaded child's
    // thread id is its process id) for every second the fault can fall in,
    // a loaded machine's delays included (half a minute of them).
    const std::time_t now = std::time(nullptr);
    QStringList earlier;
    for (std::time_t when = now - 1; when <= now + 30; ++when) {
        const QString path = QString::fromStdString(PathFor(temp.toStdString(), when, child.pid, child.pid));
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly)) << path.toStdString();
        f.write(QByteArray("an earlier report\n").repeated(2000));
        earlier << QFileInfo(path).fileName();
    }
    child.Fault();
    EXPECT_TRUE(child.EndedByTheFault());
    const QStringList reports = Reports(temp + "/Sniffer");
    EXPECT_EQ(reports.size(), earlier.size()) << "the report must take the earlier one's name";
    int replaced = 0;
    for (const QString& name : reports) {
        const QByteArray text = ReadAll(temp + "/Sniffer/" + name);
        if (text.startsWith("Coilscope crash report")) {
            replaced += 1;
            EXPECT_FALSE(text.contains("an earlier report")) << "not truncated: " << name.toStdString();
        }
    }
    EXPECT_EQ(replaced, 1);
    QDir(temp).removeRecursively();
}

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
