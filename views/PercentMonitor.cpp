#include "views/PercentMonitor.h"

#include "events/ui/UserSeams.h"
#include "services/Log.h"
#include "services/SettingParams.h"
#include "views/QwtChart.h"

#include <QDir>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

PercentMonitor::PercentMonitor(QWidget* parent) : QMainWindow(parent)
{
    setObjectName(QStringLiteral("PercentMonitor"));
    setWindowTitle(QStringLiteral("Power Monitor"));
    resize(653, 261);
    auto* central = new QWidget(this);
    auto* column = new QVBoxLayout(central);
    column->setSpacing(6);
    column->setContentsMargins(11, 11, 11, 11);
    auto* row = new QHBoxLayout();
    m_labelPower = new QLabel(QStringLiteral("Power:"), central);
    m_labelPower->setObjectName(QStringLiteral("label_power"));
    m_labelTime = new QLabel(QStringLiteral("Time:"), central);
    m_labelTime->setObjectName(QStringLiteral("label_time"));
    m_openDir = new QPushButton(QStringLiteral("Open Folder"), central);
    m_openDir->setObjectName(QStringLiteral("pushButton"));
    row->addWidget(m_labelPower, 1);
    row->addWidget(m_labelTime, 1);
    row->addWidget(m_openDir);
    column->addLayout(row);
    auto* chartLayout = new QVBoxLayout();
    chartLayout->setObjectName(QStringLiteral("verticalLayout"));
    m_chart = new QwtChart(kChartPower, 256, central);
    chartLayout->addWidget(m_chart);
    column->addLayout(chartLayout, 1);
    setCentralWidget(central);
    connect(m_openDir, &QPushButton::clicked, this, &PercentMonitor::slot_OpenDir);
}

PercentMonitor::~PercentMonitor()
{
    CloseLog();
}

void PercentMonitor::CloseLog()
{
    if (m_log)
        std::fclose(m_log);
    m_log = nullptr;
    m_logPath.clear();
}

void PercentMonitor::Reset()
{
    m_lastLogged = 0;
    CloseLog();
    m_failureSaid = false;
    m_queue.clear();
    m_chart->Clear();
    m_chart->SetYRangeLazy(0, 256);
}

void PercentMonitor::Update(int64_t elapsedMs, int maxPowerW, double powerW, double percent, int64_t raw)
{
    m_chart->SetYRange(0, maxPowerW);
    char text[64];
    std::snprintf(text, sizeof text, "Power: %.2fW", powerW);
    m_labelPower->setText(QString::fromLatin1(text));
    const int64_t ms = elapsedMs < 0 ? 0 : elapsedMs;
    std::snprintf(text, sizeof text, "Time: %02d:%02d:%02d.%03d", static_cast<int>(ms / 3600000 % 24),
                  static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60), static_cast<int>(ms % 1000));
    m_labelTime->setText(QString::fromLatin1(text));

    // One entry a second; a last logged time of 0 counts as none.
    if (m_lastLogged != 0 && elapsedMs - m_lastLogged < 1000)
        return;
    if (!m_log) {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        char name[64];
        std::strftime(name, sizeof name, "%Y_%m_%d %H_%M_%S", &local);
        const std::string path = SettingParams::Instance().capturePath + name + ".Percent.txt";
        m_log = std::fopen(path.c_str(), "wb");
        if (m_log) {
            m_logPath = path;
            m_failureSaid = false;
        } else if (!m_failureSaid) {
            // Tried again at the next entry; said once, the chart goes on.
            m_failureSaid = true;
            Log::Printf("PercentMonitor: cannot write %s: %s", path.c_str(), std::strerror(errno));
        }
    }
    m_lastLogged = elapsedMs;
    if (m_log) {
        const int n = std::snprintf(m_line, sizeof m_line, "%.03f %lld %.02f%% %.2fW\r\n",
                                    static_cast<double>(elapsedMs) / 1000.0, static_cast<long long>(raw), percent,
                                    powerW);
        // Flushed line by line: the file gains its line each second, seen
        // from outside too, and a process that dies leaves whole lines.
        if (n > 0) {
            std::fwrite(m_line, 1, std::min(static_cast<size_t>(n), sizeof m_line - 1), m_log);
            std::fflush(m_log);
        }
    }
    m_queue.append(MonitorPoint(static_cast<double>(elapsedMs / 1000), powerW));
    if (m_chart->isVisible()) {
        m_chart->AppendPower(m_queue);
        m_queue.clear();
    }
}

void PercentMonitor::slot_OpenDir()
{
    const SettingParams& s = SettingParams::Instance();
    QString folder = QString::fromStdString(s.capturePath);
    if (folder.isEmpty())
        folder = QString::fromStdString(s.savePath) + QLatin1Char('/');
    // With no folder set at all the desktop shows the home folder.
    if (folder == QLatin1String("/"))
        folder = QDir::homePath();
    OpenWithDesktop(QUrl::fromLocalFile(folder));
}
