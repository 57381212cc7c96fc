// The download engine of the update window: one HTTP(S) job at a time, from a
// URL into a file, reported through signals that name the job by its URL
// text. It is a dialog for its slots' sake and is never shown.
#pragma once

#include <QDialog>
#include <QElapsedTimer>
#include <QList>
#include <QNetworkAccessManager>
#include <QSslError>
#include <QString>
#include <QUrl>

class QAuthenticator;
class QFile;
class QNetworkReply;

class HttpDownload : public QDialog {
    Q_OBJECT
public:
    explicit HttpDownload(QWidget* parent = nullptr);
    ~HttpDownload() override;

    // Starts a job: the file at targetPath is created anew (truncated) and
    // receives the body of a GET on urlText. A file that can't be opened is
    // reported in a box titled "Error" and the job ends without a signal. A
    // job still running is dropped first, its file removed.
    void StartDownload(const QString& urlText, const QString& targetPath);
    // A job is running.
    bool Busy() const { return m_reply != nullptr; }
    QNetworkAccessManager& Manager() { return m_manager; }

signals:
    void process(QString task, qint64 byteTotal, double percent, double speed);
    void taskFinished(QString task, bool success);
    void fileInfo(QString task, qint64 size);

public slots:
    void cancelDownload();
    void httpFinished();
    void httpReadyRead();
    // The dialog has no button of its own; kept for the signal set of the
    // engine, it changes nothing.
    void enableDownloadButton();
    void downloadProcess(qint64 current, qint64 total);
    void slotAuthenticationRequired(QNetworkReply* reply, QAuthenticator* authenticator);
    void gotFileInfo();
    void sslErrors(QList<QSslError> errors);

private:
    void DropRunningJob();

    QString m_task;
    QUrl m_url;
    QNetworkAccessManager m_manager;
    QNetworkReply* m_reply = nullptr;
    QFile* m_file = nullptr;
    bool m_cancelled = false;
    QString m_targetPath;
    QElapsedTimer m_clock;
};
