#include "services/CoilscopeUpdater.h"

#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"

#include <json/json.h>

#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QSpacerItem>
#include <QStandardPaths>
#include <QTextBrowser>
#include <QUrl>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#ifndef COILSCOPE_UPDATE_URL
#define COILSCOPE_UPDATE_URL ""
#endif
#ifndef COILSCOPE_BUILD_NUMBER
#define COILSCOPE_BUILD_NUMBER 20230520
#endif
#ifndef COILSCOPE_VERSION_TEXT
#define COILSCOPE_VERSION_TEXT "1.2.0.0"
#endif

const int32_t CoilscopeUpdater::kBuildNumber = COILSCOPE_BUILD_NUMBER;
const char* const CoilscopeUpdater::kVersionText = COILSCOPE_VERSION_TEXT;

namespace {

const Json::Value* Member(const Json::Value& root, const char* key)
{
    return root.find(key, key + std::strlen(key));
}

QString DataFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
}

}  // namespace

QString CoilscopeUpdater::CompiledServer()
{
    return QStringLiteral(COILSCOPE_UPDATE_URL);
}

CoilscopeUpdater::CoilscopeUpdater(const QString& serverBase, QWidget* parent) : QMainWindow(parent)
{
    endApplication = [](int code) {
        std::fflush(nullptr);
        std::_Exit(code);
    };
    setObjectName(QStringLiteral("CoilscopeUpdaterClass"));
    setWindowTitle(QStringLiteral("Coilscope Update"));
    resize(366, 285);
    auto* central = new QWidget(this);
    central->setObjectName(QStringLiteral("centralWidget"));
    auto* grid = new QGridLayout(central);
    grid->setSpacing(6);
    grid->setContentsMargins(11, 11, 11, 11);
    m_textBrowser = new QTextBrowser(central);
    m_textBrowser->setObjectName(QStringLiteral("textBrowser"));
    grid->addWidget(m_textBrowser, 0, 0, 1, 4);
    m_progressBar = new QProgressBar(central);
    m_progressBar->setObjectName(QStringLiteral("progressBar"));
    m_progressBar->setValue(0);
    grid->addWidget(m_progressBar, 1, 0, 1, 3);
    m_labelSpeed = new QLabel(central);
    m_labelSpeed->setObjectName(QStringLiteral("label_speed"));
    grid->addWidget(m_labelSpeed, 1, 3);
    m_checkBox = new QCheckBox(QStringLiteral("Skip this version"), central);
    m_checkBox->setObjectName(QStringLiteral("checkBox"));
    grid->addWidget(m_checkBox, 2, 0);
    grid->addItem(new QSpacerItem(40, 20, QSizePolicy::Expanding, QSizePolicy::Minimum), 2, 1);
    m_download_button = new QPushButton(QStringLiteral("Download"), central);
    m_download_button->setObjectName(QStringLiteral("pushButton_download"));
    grid->addWidget(m_download_button, 2, 2);
    m_close_button = new QPushButton(QStringLiteral("Close"), central);
    m_close_button->setObjectName(QStringLiteral("pushButton_close"));
    grid->addWidget(m_close_button, 2, 3);
    setCentralWidget(central);
    connect(m_download_button, &QPushButton::clicked, this, &CoilscopeUpdater::slot_download);
    connect(m_close_button, &QPushButton::clicked, this, &CoilscopeUpdater::slot_Hide);
    connect(m_checkBox, &QCheckBox::clicked, this, &CoilscopeUpdater::slot_Skip);

    QString base = serverBase.trimmed();
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    const QString folder = DataFolder();
    m_versionFile = folder + QStringLiteral("/version_setup.txt");
    m_setupFile = folder + QStringLiteral("/setup");
    if (base.isEmpty()) {
        // No server in this build: no request at all.
        m_textBrowser->setPlainText(QStringLiteral("No update server is configured in this build."));
    } else {
        m_versionUrl = base + QStringLiteral("/version_setup.txt");
        QDir().mkpath(folder);
        m_download.StartDownload(m_versionUrl, m_versionFile);
    }
    connect(&m_download, &HttpDownload::taskFinished, this, &CoilscopeUpdater::taskFinished);
    connect(&m_download, &HttpDownload::process, this, &CoilscopeUpdater::process);
    m_progressBar->hide();
    m_labelSpeed->hide();
    m_checkBox->hide();
    m_download_button->hide();
}

bool CoilscopeUpdater::ParseEntry(const std::string& text, UpdateEntry& entry)
{
    entry = UpdateEntry();
    Json::Value root;
    try {
        Json::Reader reader;
        if (!reader.parse(text, root))
            return false;
    } catch (const std::exception&) {
        return false;
    }
    if (!root.isObject())
        return false;
    const Json::Value* version = Member(root, "version");
    if (version && (version->type() == Json::intValue || version->type() == Json::uintValue) && version->isInt())
        entry.version = version->asInt();
    const Json::Value* setup = Member(root, "setup");
    if (setup && setup->type() == Json::stringValue)
        entry.setup = setup->asString();
    const Json::Value* desc = Member(root, "desc");
    if (desc && desc->type() == Json::stringValue)
        entry.desc = desc->asString();
    return true;
}

QString CoilscopeUpdater::SetupFileFor(const QString& setupUrl)
{
    QString name = QUrl(setupUrl).fileName();
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
        name = QStringLiteral("setup");
    return DataFolder() + QLatin1Char('/') + name;
}

bool CoilscopeUpdater::StartInstaller(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray head = file.read(4);
    file.close();
    const bool program = head.startsWith("\x7f" "ELF") || head.startsWith("#!");
    if (program) {
        file.setPermissions(file.permissions() | QFileDevice::ExeOwner | QFileDevice::ExeUser);
        return QProcess::startDetached(path, QStringList());
    }
    return OpenWithDesktop(QUrl::fromLocalFile(path));
}

void CoilscopeUpdater::taskFinished(QString task, bool success)
{
    if (!success)
        return;  // a failed check or download is silent
    if (!m_versionUrl.isEmpty() && task == m_versionUrl) {
        VersionCheck();
    } else if (!m_setupUrl.isEmpty() && task == m_setupUrl) {
        m_download_button->setText(QStringLiteral("Install"));
        m_download_button->setEnabled(true);
    }
}

void CoilscopeUpdater::VersionCheck()
{
    m_entries.clear();
    std::string text;
    QFile file(m_versionFile);
    if (file.open(QIODevice::ReadOnly)) {
        // Anything this large is not an update file.
        if (file.size() > kMaxVersionFileBytes)
            return;
        text = file.readAll().toStdString();
    }
    UpdateEntry entry;
    if (!ParseEntry(text, entry))
        return;
    m_entries.push_back(entry);
    if (kBuildNumber >= entry.version) {
        m_textBrowser->setPlainText(QStringLiteral("The current version is the latest edition."));
        return;
    }
    m_textBrowser->setPlainText(QString::asprintf("Current Version:%s", kVersionText) +
                                QStringLiteral("\nNew Version:") + QString::number(entry.version) +
                                QStringLiteral("\nDesc: ") + QString::fromStdString(entry.desc));
    m_download_button->show();
    m_progressBar->show();
    m_labelSpeed->show();
    m_checkBox->show();
    SettingParams& s = SettingParams::Instance();
    if (s.m_skip_version != entry.version) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"),
                        QString::asprintf("Find new version %d.", entry.version));
        s.m_skip_version = entry.version;
        AppSettings::Instance().save();
    }
}

void CoilscopeUpdater::slot_download()
{
    const QString text = m_download_button->text();
    if (text == QLatin1String("Download")) {
        m_download_button->setEnabled(false);
        if (!m_entries.empty()) {
            m_setupUrl = QString::fromStdString(m_entries.front().setup);
            m_setupFile = SetupFileFor(m_setupUrl);
            QDir().mkpath(QFileInfo(m_setupFile).absolutePath());
            m_download.StartDownload(m_setupUrl, m_setupFile);
        }
    } else if (text == QLatin1String("Install")) {
        m_download_button->setEnabled(false);
        StartInstaller(m_setupFile);
        // The program ends at once; a running acquisition isn't stopped.
        if (endApplication)
            endApplication(0);
    }
}

void CoilscopeUpdater::slot_Skip()
{
    if (m_entries.empty())
        return;
    // Not saved here: the next save of the settings takes it along.
    SettingParams::Instance().m_skip_version = m_checkBox->isChecked() ? m_entries.front().version : 0;
}

void CoilscopeUpdater::slot_Hide()
{
    hide();
}

void CoilscopeUpdater::process(QString task, qint64 byteTotal, double percent, double speed)
{
    if (m_setupUrl.isEmpty() || task != m_setupUrl)
        return;
    m_labelSpeed->setText(QString::asprintf("%d KB/s", static_cast<int>(std::min(speed, double(INT_MAX)))));
    const qint64 total = std::clamp<qint64>(byteTotal, 0, INT_MAX);
    m_progressBar->setMaximum(static_cast<int>(total));
    m_progressBar->setValue(static_cast<int>(static_cast<double>(total) * percent));
}

bool StartFirmwareTool(const QString& folder)
{
    const QString program = folder + QStringLiteral("/CoilscopeUpdate");
    const QFileInfo info(program);
    if (!info.isFile() || !info.isExecutable())
        return false;
    return QProcess::startDetached(program, QStringList(), folder);
}
