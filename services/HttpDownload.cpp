#include "services/HttpDownload.h"

#include "events/ui/UserSeams.h"

#include <QAuthenticator>
#include <QDir>
#include <QFile>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStringList>

#include <algorithm>

HttpDownload::HttpDownload(QWidget* parent) : QDialog(parent)
{
    connect(&m_manager, &QNetworkAccessManager::authenticationRequired, this,
            &HttpDownload::slotAuthenticationRequired);
}

HttpDownload::~HttpDownload()
{
    DropRunningJob();
}

void HttpDownload::DropRunningJob()
{
    if (!m_reply)
        return;
    QNetworkReply* reply = m_reply;
    m_reply = nullptr;
    reply->disconnect(this);
    reply->abort();
    reply->deleteLater();
    if (m_file) {
        m_file->close();
        m_file->remove();
        delete m_file;
        m_file = nullptr;
    }
}

void HttpDownload::StartDownload(const QString& urlText, const QString& targetPath)
{
    DropRunningJob();
    m_task = urlText;
    m_url = QUrl(urlText);
    m_targetPath = targetPath;
    auto* file = new QFile(targetPath);
    if (!file->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Error"),
                        QStringLiteral("Unable to save the file %1: %2.")
                            .arg(QDir::toNativeSeparators(targetPath), file->errorString()));
        delete file;
        return;
    }
    m_file = file;
    m_cancelled = false;
    QNetworkRequest request(m_url);
    // A redirect is not followed: the answer that redirects is the job's end.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    m_reply = m_manager.get(request);
    connect(m_reply, &QNetworkReply::finished, this, &HttpDownload::httpFinished);
    connect(m_reply, &QIODevice::readyRead, this, &HttpDownload::httpReadyRead);
    connect(m_reply, &QNetworkReply::downloadProgress, this, &HttpDownload::downloadProcess);
    connect(m_reply, &QNetworkReply::sslErrors, this, &HttpDownload::sslErrors);
    m_clock.restart();
}

void HttpDownload::cancelDownload()
{
    m_cancelled = true;
    if (m_reply)
        m_reply->abort();
}

void HttpDownload::httpReadyRead()
{
    if (m_reply && m_file)
        m_file->write(m_reply->readAll());
}

void HttpDownload::downloadProcess(qint64 current, qint64 total)
{
    // Bytes per millisecond, as whole numbers: about KB per second.
    const qint64 elapsed = std::max<qint64>(1, m_clock.elapsed());
    const double speed = static_cast<double>(current / elapsed);
    // An unknown total (-1) or an empty one gives no fraction.
    const double percent = total > 0 ? static_cast<double>(static_cast<float>(current) / static_cast<float>(total)) : 0.0;
    emit process(m_task, total, percent, speed);
}

void HttpDownload::httpFinished()
{
    QNetworkReply* reply = m_reply;
    if (!reply || sender() != reply)
        return;
    m_reply = nullptr;
    QString path;
    if (m_file) {
        path = m_file->fileName();
        m_file->close();
        delete m_file;
        m_file = nullptr;
    }
    if (m_cancelled) {
        reply->deleteLater();
        emit taskFinished(m_task, false);
        return;
    }
    if (reply->error() != QNetworkReply::NoError) {
        // A body cut short, a refused connection, an HTTP error: nothing of
        // it is left where it would pass for the whole file.
        if (!path.isEmpty())
            QFile::remove(path);
        reply->deleteLater();
        emit taskFinished(m_task, false);
        return;
    }
    emit taskFinished(m_task, true);
    // A redirect is read and not followed.
    (void)reply->attribute(QNetworkRequest::RedirectionTargetAttribute);
    reply->deleteLater();
}

void HttpDownload::enableDownloadButton()
{
}

void HttpDownload::slotAuthenticationRequired(QNetworkReply*, QAuthenticator* authenticator)
{
    authenticator->setUser(QString());
    authenticator->setPassword(QString());
}

void HttpDownload::gotFileInfo()
{
    qint64 size = 0;
    if (m_reply) {
        bool ok = false;
        size = m_reply->rawHeader("Content-Length").toLongLong(&ok, 10);
        if (!ok)
            size = 0;
    }
    emit fileInfo(m_task, size);
}

void HttpDownload::sslErrors(QList<QSslError> errors)
{
    QStringList texts;
    for (const QSslError& e : errors)
        texts << e.errorString();
    const QMessageBox::StandardButton answer =
        AskUserWarning(this, QStringLiteral("SSL Errors"),
                       QStringLiteral("One or more SSL errors has occurred:\n%1").arg(texts.join(QLatin1Char('\n'))),
                       QMessageBox::Ignore | QMessageBox::Abort);
    auto* reply = qobject_cast<QNetworkReply*>(sender());
    if (answer == QMessageBox::Ignore && reply)
        reply->ignoreSslErrors();
}
