// The update window: at its construction it fetches the update file
// "version_setup.txt" from the maker's server, tells the user once about each
// newer build, and on request downloads that build's installer and starts it.
// With no server configured in the build no request is made and the window
// says so. The firmware tool, a separate program, is started from here too.
#pragma once

#include "services/HttpDownload.h"

#include <QMainWindow>
#include <QString>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class QCheckBox;
class QLabel;
class QProgressBar;
class QPushButton;
class QTextBrowser;

class CoilscopeUpdater : public QMainWindow {
    Q_OBJECT
public:
    // The build number and version text of this program.
    static const int32_t kBuildNumber;
    static const char* const kVersionText;
    // A version file larger than this is not taken for one.
    static constexpr qint64 kMaxVersionFileBytes = 1 << 20;

    // The maker's server compiled into the build (empty: none).
    static QString CompiledServer();

    // serverBase is the scheme, host and port, as "https://host:8443", to
    // which "/version_setup.txt" is appended. The check starts at once.
    explicit CoilscopeUpdater(const QString& serverBase = CompiledServer(), QWidget* parent = nullptr);

    // One entry of the update file.
    struct UpdateEntry {
        int32_t version = 0;
        std::string setup;
        std::string desc;
    };

    HttpDownload& Download() { return m_download; }
    const QString& VersionUrl() const { return m_versionUrl; }
    const QString& VersionFile() const { return m_versionFile; }
    const QString& SetupUrl() const { return m_setupUrl; }
    const QString& SetupFile() const { return m_setupFile; }
    const std::vector<UpdateEntry>& Entries() const { return m_entries; }
    QTextBrowser* TextBrowser() const { return m_textBrowser; }
    QProgressBar* ProgressBar() const { return m_progressBar; }
    QLabel* SpeedLabel() const { return m_labelSpeed; }
    QCheckBox* SkipBox() const { return m_checkBox; }
    QPushButton* DownloadButton() const { return m_download_button; }
    QPushButton* CloseButton() const { return m_close_button; }

    // Reads an update file's text: a JSON object with "version" (integer),
    // "setup" and "desc" (strings); a key that is missing or of another type
    // leaves its field empty. False when the text doesn't parse.
    static bool ParseEntry(const std::string& text, UpdateEntry& entry);
    // Where the installer of a setup URL is kept: the application's data
    // folder and the URL's file name ("setup" when it names none).
    static QString SetupFileFor(const QString& setupUrl);
    // Starts an installer: a program (ELF or script) is marked executable and
    // started detached; any other file (a package) goes to the desktop's
    // handler. False when neither worked.
    static bool StartInstaller(const QString& path);

    // How Install ends the program; the default leaves at once with the code.
    // Tests replace it.
    std::function<void(int)> endApplication;

public slots:
    void process(QString task, qint64 byteTotal, double percent, double speed);
    void taskFinished(QString task, bool success);
    void slot_download();
    void slot_Hide();
    void slot_Skip();

private:
    void VersionCheck();

    QTextBrowser* m_textBrowser = nullptr;
    QProgressBar* m_progressBar = nullptr;
    QLabel* m_labelSpeed = nullptr;
    QCheckBox* m_checkBox = nullptr;
    QPushButton* m_download_button = nullptr;
    QPushButton* m_close_button = nullptr;
    HttpDownload m_download;
    QString m_versionUrl;
    QString m_versionFile;
    QString m_setupUrl;
    QString m_setupFile;
    std::vector<UpdateEntry> m_entries;
};

// The firmware tool "CoilscopeUpdate" in the given folder (normally the
// program's own), started detached. False, silently, when it isn't there or
// doesn't start.
bool StartFirmwareTool(const QString& folder);
