// A small HTTP/1.1 server on the loopback address for the network code's
// tests, on the test's own event loop: each path has a canned answer (status,
// headers, body, and the Content-Length it claims), every request is kept,
// and with a certificate and key it speaks TLS instead. One request per
// connection; the server closes the connection after the answer.
#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QMap>
#include <QPointer>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <functional>
#include <vector>

struct HttpAnswer {
    QByteArray status = "200 OK";
    QByteArray body;
    // Extra header lines, each without its line end.
    std::vector<QByteArray> headers;
    // The Content-Length announced; below 0 the body's own size.
    qint64 claimedLength = -1;
    // Keep the connection open after the body (a transfer that stalls).
    bool hold = false;
};

class LoopbackHttpServer : public QTcpServer {
public:
    LoopbackHttpServer() = default;

    // Listens on 127.0.0.1 at a free port; with a certificate, TLS.
    bool Start(const QSslCertificate& certificate = QSslCertificate(), const QSslKey& key = QSslKey())
    {
        m_certificate = certificate;
        m_key = key;
        return listen(QHostAddress::LocalHost, 0);
    }
    QString Base() const
    {
        return QStringLiteral("%1://127.0.0.1:%2")
            .arg(m_certificate.isNull() ? QStringLiteral("http") : QStringLiteral("https"))
            .arg(serverPort());
    }
    void Serve(const QByteArray& path, const HttpAnswer& answer) { m_answers[path] = answer; }

    // The requests seen so far, whole (request line and headers).
    const std::vector<QByteArray>& Requests() const { return m_requests; }
    int RequestsFor(const QByteArray& path) const
    {
        int n = 0;
        for (const QByteArray& r : m_requests)
            if (r.startsWith("GET " + path + " "))
                ++n;
        return n;
    }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        QTcpSocket* socket = nullptr;
        if (m_certificate.isNull()) {
            socket = new QTcpSocket(this);
            socket->setSocketDescriptor(descriptor);
        } else {
            auto* tls = new QSslSocket(this);
            tls->setSocketDescriptor(descriptor);
            tls->setLocalCertificate(m_certificate);
            tls->setPrivateKey(m_key);
            tls->setPeerVerifyMode(QSslSocket::VerifyNone);
            tls->startServerEncryption();
            socket = tls;
        }
        auto* buffer = new QByteArray();
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
            buffer->append(socket->readAll());
            const int end = buffer->indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const QByteArray request = buffer->left(end);
            buffer->clear();
            m_requests.push_back(request);
            const QList<QByteArray> words = request.left(request.indexOf("\r\n")).split(' ');
            const QByteArray path = words.size() > 1 ? words[1] : QByteArray();
            Answer(socket, path);
        });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, [socket, buffer] {
            delete buffer;
            socket->deleteLater();
        });
    }

private:
    void Answer(QTcpSocket* socket, const QByteArray& path)
    {
        HttpAnswer answer;
        if (m_answers.contains(path)) {
            answer = m_answers.value(path);
        } else {
            answer.status = "404 Not Found";
            answer.body = "not here";
        }
        const qint64 length = answer.claimedLength >= 0 ? answer.claimedLength : answer.body.size();
        QByteArray head = "HTTP/1.1 " + answer.status + "\r\nContent-Length: " + QByteArray::number(length) +
                          "\r\nConnection: close\r\n";
        for (const QByteArray& h : answer.headers)
            head += h + "\r\n";
        head += "\r\n";
        socket->write(head);
        socket->write(answer.body);
        socket->flush();
        if (!answer.hold)
            socket->disconnectFromHost();
    }

    QSslCertificate m_certificate;
    QSslKey m_key;
    QMap<QByteArray, HttpAnswer> m_answers;
    std::vector<QByteArray> m_requests;
};

// Runs the event loop until done() holds or timeoutMs pass; returns done().
inline bool WaitUntil(const std::function<bool()>& done, int timeoutMs = 20000)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return done();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(2);
    }
    return true;
}
