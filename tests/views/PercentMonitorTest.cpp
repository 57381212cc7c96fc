// The power monitor: its labels at every update, one log line and one chart
// point a second, the file's name and exact line format, Reset, the chart's
// ranges, the points kept while hidden, "Open Folder", and a capture folder that
// cannot be written.
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/Log.h"
#include "services/SettingParams.h"
#include "views/PercentMonitor.h"
#include "views/QwtChart.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QPushButton>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QtCharts/QSplineSeries>
#include <QtCharts/QValueAxis>

#include <chrono>
#include <ctime>
#include <fstream>
#include <thread>

using namespace QtCharts;

namespace {

class PercentMonitorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams& s = SettingParams::Instance();
        s.capturePath = dir.path().toStdString() + "/";
        s.savePath = dir.path().toStdString() + "/saved";
        SetDesktopRecorder([this](const QUrl& u) { opened.push_back(u); });
    }
    void TearDown() override
    {
        SetDesktopRecorder(nullptr);
        SettingParams::Instance().capturePath.clear();
    }
    static std::string Read(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    static int Lines(const std::string& path)
    {
        const std::string text = Read(path);
        return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    }
    QStringList PercentFiles() const
    {
        return QDir(dir.path()).entryList({QStringLiteral("*.Percent.txt")}, QDir::Files, QDir::Name);
    }
    // Waits until the wall clock shows a new second (file names are by the
    // second).
    static void NextSecond()
    {
        const std::time_t now = std::time(nullptr);
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        while (std::time(nullptr) == now && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    QTemporaryDir dir;
    std::vector<QUrl> opened;
};

}  // namespace

TEST_F(PercentMonitorTest, FormAndChart)
{
    PercentMonitor m;
    EXPECT_EQ(m.windowTitle(), "Power Monitor");
    EXPECT_EQ(m.size(), QSize(653, 261));
    EXPECT_EQ(m.findChild<QLabel*>("label_power")->text(), "Power:");
    EXPECT_EQ(m.findChild<QLabel*>("label_time")->text(), "Time:");
    EXPECT_EQ(m.findChild<QPushButton*>("pushButton")->text(), "Open Folder");
    EXPECT_EQ(m.Chart()->Kind(), 7);
    EXPECT_EQ(m.Chart()->XSpan(), 256);
    EXPECT_TRUE(m.LogPath().empty());
}

TEST_F(PercentMonitorTest, LabelsFollowEveryUpdate)
{
    PercentMonitor m;
    m.Update(0, 10, 4.256, 42.5, 85);
    EXPECT_EQ(m.PowerLabel()->text(), "Power: 4.26W");
    EXPECT_EQ(m.TimeLabel()->text(), "Time: 00:00:00.000");
    m.Update(3723456, 10, 12.0, 42.5, 85);  // 1 h 2 min 3.456 s
    EXPECT_EQ(m.PowerLabel()->text(), "Power: 12.00W");
    EXPECT_EQ(m.TimeLabel()->text(), "Time: 01:02:03.456");
    m.Update(25LL * 3600000 + 1, 10, 1.0, 1.0, 1);  // hours within the day
    EXPECT_EQ(m.TimeLabel()->text(), "Time: 01:00:00.001");
}

TEST_F(PercentMonitorTest, FirstUpdateAtZeroWritesALineInTheExactFormat)
{
    PercentMonitor m;
    m.Update(0, 10, 4.256, 42.5, 85);
    ASSERT_FALSE(m.LogPath().empty());
    const QString name = QFileInfo(QString::fromStdString(m.LogPath())).fileName();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^\\d{4}_\\d\\d_\\d\\d \\d\\d_\\d\\d_\\d\\d\\.Percent\\.txt$"))
                    .match(name)
                    .hasMatch())
        << name.toStdString();
    EXPECT_EQ(QFileInfo(QString::fromStdString(m.LogPath())).absolutePath(), QDir(dir.path()).absolutePath());
    m.Update(1500, 10, 5.0, 50.0, 100);
    m.Update(2600, 10, 15.5, 101.25, 203);
    m.Reset();  // closes the file
    EXPECT_EQ(Read(dir.path().toStdString() + "/" + name.toStdString()),
              "0.000 85 42.50% 4.26W\r\n1.500 100 50.00% 5.00W\r\n2.600 203 101.25% 15.50W\r\n");
}

TEST_F(PercentMonitorTest, OneLineASecond)
{
    PercentMonitor m;
    m.Update(1000, 10, 1.0, 10.0, 20);
    const std::string path = m.LogPath();
    m.Update(1999, 10, 1.0, 10.0, 20);
    m.Update(1500, 10, 1.0, 10.0, 20);
    m.Reset();
    EXPECT_EQ(Lines(path), 1);
    NextSecond();
    PercentMonitor again;
    again.Update(1000, 10, 1.0, 10.0, 20);
    again.Update(1999, 10, 1.0, 10.0, 20);
    again.Update(2000, 10, 2.0, 20.0, 40);
    const std::string second = again.LogPath();
    again.Reset();
    EXPECT_EQ(Read(second), "1.000 20 10.00% 1.00W\r\n2.000 40 20.00% 2.00W\r\n");
}

// Seen from outside, with the file still open: each line is in it whole as
// soon as it is logged.
TEST_F(PercentMonitorTest, EachLineIsInTheFileWhileItIsOpen)
{
    PercentMonitor m;
    m.Update(1000, 10, 1.0, 10.0, 20);
    const std::string path = m.LogPath();
    ASSERT_FALSE(path.empty());
    EXPECT_EQ(Read(path), "1.000 20 10.00% 1.00W\r\n");
    m.Update(1500, 10, 1.5, 15.0, 30);  // no line within the second
    EXPECT_EQ(Read(path), "1.000 20 10.00% 1.00W\r\n");
    m.Update(2000, 10, 2.0, 20.0, 40);
    EXPECT_EQ(Read(path), "1.000 20 10.00% 1.00W\r\n2.000 40 20.00% 2.00W\r\n");
}

TEST_F(PercentMonitorTest, ResetAndStartMakeANewFileAndTheOldOneStays)
{
    PercentMonitor m;
    m.Update(0, 10, 1.0, 10.0, 20);
    m.Update(1000, 10, 1.0, 10.0, 20);
    const std::string first = m.LogPath();
    NextSecond();
    m.Reset();
    EXPECT_TRUE(m.LogPath().empty());
    m.Update(0, 10, 3.0, 30.0, 60);
    const std::string second = m.LogPath();
    EXPECT_NE(first, second);
    m.Reset();
    EXPECT_EQ(PercentFiles().size(), 2);
    EXPECT_EQ(Lines(first), 2);
    EXPECT_EQ(Read(second), "0.000 60 30.00% 3.00W\r\n");
}

TEST_F(PercentMonitorTest, ChartTakesWholeSecondsAndTheDeclaredPowerAsItsTop)
{
    PercentMonitor m;
    m.show();
    m.Update(0, 5, 1.0, 10.0, 20);
    m.Update(1700, 5, 2.0, 20.0, 40);
    m.Update(2100, 5, 2.5, 25.0, 50);  // 400 ms after the last entry: none
    m.Update(2900, 5, 3.0, 30.0, 60);
    const auto points = m.Chart()->Series()->pointsVector();
    ASSERT_EQ(points.size(), 3);
    EXPECT_EQ(points[0], QPointF(0, 1.0));
    EXPECT_EQ(points[1], QPointF(1, 2.0));
    EXPECT_EQ(points[2], QPointF(2, 3.0));
    EXPECT_EQ(m.Chart()->AxisY()->max(), 5);
    // A receiver that declares 15 W moves the axis at the next refresh.
    m.Update(2950, 15, 3.0, 30.0, 60);
    EXPECT_EQ(m.Chart()->AxisY()->min(), 0);
    EXPECT_EQ(m.Chart()->AxisY()->max(), 15);
    // The x range follows the series: 0 .. trunc(3 * 1.1 + 1).
    EXPECT_EQ(m.Chart()->AxisX()->max(), 4);
    m.Reset();
    EXPECT_EQ(m.Chart()->Series()->count(), 0);
    EXPECT_EQ(m.QueuedPoints(), 0);
}

TEST_F(PercentMonitorTest, HiddenMonitorLogsAndHandsItsPointsOverWhenShown)
{
    PercentMonitor m;
    for (int s = 0; s < 5; ++s)
        m.Update(1000 + s * 1000, 10, s, s * 10.0, s);
    EXPECT_EQ(m.QueuedPoints(), 5);
    EXPECT_EQ(m.Chart()->Series()->count(), 0);
    const std::string path = m.LogPath();
    m.show();
    m.Update(6000, 10, 5.0, 50.0, 5);
    EXPECT_EQ(m.QueuedPoints(), 0);
    EXPECT_EQ(m.Chart()->Series()->count(), 6);
    m.Reset();
    EXPECT_EQ(Lines(path), 6);
}

TEST_F(PercentMonitorTest, UnwritableCaptureFolderIsSaidOnceAndChartingGoesOn)
{
    SettingParams::Instance().capturePath = dir.path().toStdString() + "/no/such/folder/";
    Log::Printf("PercentMonitorTest marker");
    PercentMonitor m;
    m.show();
    for (int s = 0; s < 4; ++s)
        m.Update(1000 + s * 1000, 10, 2.0, 20.0, 40);
    EXPECT_TRUE(m.LogPath().empty());
    EXPECT_EQ(m.Chart()->Series()->count(), 4);
    EXPECT_EQ(m.PowerLabel()->text(), "Power: 2.00W");
    const std::string log = Read(Log::Instance().FilePath());
    const std::string after = log.substr(log.rfind("PercentMonitorTest marker"));
    size_t said = 0;
    for (size_t at = after.find("PercentMonitor: cannot write"); at != std::string::npos;
         at = after.find("PercentMonitor: cannot write", at + 1))
        ++said;
    EXPECT_EQ(said, 1u) << after;
    EXPECT_NE(after.find("/no/such/folder/"), std::string::npos);
    // Once the folder exists the next entry opens the file.
    ASSERT_TRUE(QDir().mkpath(dir.path() + "/no/such/folder"));
    m.Update(6000, 10, 2.0, 20.0, 40);
    EXPECT_FALSE(m.LogPath().empty());
}

TEST_F(PercentMonitorTest, OpenDirOpensTheCaptureFolderElseTheSaveFolder)
{
    PercentMonitor m;
    QTest::mouseClick(m.findChild<QPushButton*>("pushButton"), Qt::LeftButton);
    SettingParams::Instance().capturePath.clear();
    m.slot_OpenDir();
    SettingParams::Instance().savePath.clear();
    m.slot_OpenDir();
    ASSERT_EQ(opened.size(), 3u);
    EXPECT_EQ(QDir(opened[0].toLocalFile()).absolutePath(), QDir(dir.path()).absolutePath());
    EXPECT_EQ(QDir(opened[1].toLocalFile()).absolutePath(), QDir(dir.path() + "/saved").absolutePath());
    EXPECT_TRUE(opened[2].isLocalFile());
}
