// The blocking HTTP client of the history service: one GET per call, waited
// for in a nested event loop on the calling thread, within the bounds that
// httpsynctask.h lists.

#include "httpsynctask.h"

#include "httpreplyreader.h"
#include "pushchatlog.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QThread>
#include <QTimer>
#include <QUrl>
#ifndef QT_NO_SSL
#include <QSslSocket>
#else
#include <QTcpSocket>
#endif

#include <algorithm>
#include <memory>

namespace {

QString seconds(int milliseconds)
{
    return QString::number(milliseconds / 1000.0) + QStringLiteral(" s");
}

} // namespace

HttpSyncTask::HttpSyncTask(QObject *parent) : QObject(parent)
{ }

HttpSyncTask::~HttpSyncTask() = default;

void HttpSyncTask::setTransferTimeout(int milliseconds)
{
    m_transferTimeoutMs = milliseconds;
}

void HttpSyncTask::setDeadline(int milliseconds)
{
    m_deadlineMs = milliseconds > 0 ? milliseconds : DEADLINE_MS;
}

QString HttpSyncTask::queryValue(const QString &value)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(value, QByteArrayLiteral("@")));
}

QByteArray HttpSyncTask::httpResult(const QString &url)
{
    // A call from another thread, or from inside the wait of a call of this
    // task, is refused and leaves lastError to that call.
    if (QThread::currentThread() != thread() || m_waiting) {
        qCDebug(lcEngine).noquote() << "[HttpSyncTask] request url" << url
                                    << "error: not the task's thread, or a request of this task is waiting";
        return QByteArray();
    }
    m_reason.clear();
    // Conditions under which the loop could never be woken: refuse instead
    // of hanging.
    const QUrl target(url, QUrl::TolerantMode);
    if (QCoreApplication::instance() == nullptr)
        m_reason = QStringLiteral("no QCoreApplication");
    else if (QAbstractEventDispatcher::instance() == nullptr)
        m_reason = QStringLiteral("the thread has no event dispatcher");
    else if (!target.isValid() || target.host().isEmpty())
        m_reason = QStringLiteral("invalid url");
    else if (target.scheme() != QLatin1String("http") && target.scheme() != QLatin1String("https"))
        m_reason = QStringLiteral("not an http or https url");
    else {
        m_waiting = true;
        exchange(target);
        m_waiting = false;
    }

    QByteArray result;
    if (m_reason.isEmpty())
        result.swap(m_body);
    m_body = QByteArray(); // a refused body's memory goes now
    m_lastError = m_reason;
    if (m_lastError.isEmpty())
        qCDebug(lcEngine).noquote() << "[HttpSyncTask] http ok, url:" << url;
    else
        qCDebug(lcEngine).noquote() << "[HttpSyncTask] request url" << url << "error:" << m_lastError;
    return result;
}

void HttpSyncTask::exchange(const QUrl &target)
{
    const bool tls = target.scheme() == QLatin1String("https");
#ifndef QT_NO_SSL
    const std::unique_ptr<QTcpSocket> socket(tls ? new QSslSocket : new QTcpSocket);
#else
    if (tls) {
        m_reason = QStringLiteral("https is not available in this build");
        return;
    }
    const std::unique_ptr<QTcpSocket> socket(new QTcpSocket);
#endif
    // Qt reads from the connection only while less than this waits here
    // unread, so a fast server is held back by TCP itself.
    socket->setReadBufferSize(READ_BUFFER_BYTES);
    HttpReplyReader reader(MAX_BODY_BYTES);
    bool ended = false; // the reader has the whole reply, or refused it
    const auto take = [&] {
        // read(n) would allocate n bytes first: ask for what is there.
        for (qint64 n; !ended && (n = std::min(socket->bytesAvailable(), READ_BUFFER_BYTES)) > 0;)
            ended = reader.feed(socket->read(n)) != HttpReplyReader::State::Reading;
        if (ended)
            m_loop.quit();
    };
    QTimer silence;
    silence.setSingleShot(true);
    const auto restartSilence = [&] {
        if (m_transferTimeoutMs > 0)
            silence.start(m_transferTimeoutMs);
    };
    connect(&silence, &QTimer::timeout, this,
        [this] { refuse(QStringLiteral("no data for %1 (transfer timeout)").arg(seconds(m_transferTimeoutMs))); });
    QTimer deadline;
    deadline.setSingleShot(true);
    deadline.setTimerType(Qt::PreciseTimer); // a coarse one may fire 5 % early
    connect(&deadline, &QTimer::timeout, this,
        [this] { refuse(QStringLiteral("timed out after %1 (deadline)").arg(seconds(m_deadlineMs))); });

    const QByteArray request = requestText(target);
    const auto send = [&] {
        restartSilence();
        socket->write(request);
    };
    connect(socket.get(), &QTcpSocket::readyRead, this, [&] {
        restartSilence();
        take();
    });
    connect(socket.get(), &QTcpSocket::disconnected, this, [&] {
        take();
        ended = ended || reader.end() != HttpReplyReader::State::Reading;
        m_loop.quit();
    });
    connect(socket.get(), &QAbstractSocket::errorOccurred, this, [&](QAbstractSocket::SocketError error) {
        // The server's close ends the reply, or cuts it short: disconnected
        // (emitted next) tells which.
        if (error != QAbstractSocket::RemoteHostClosedError)
            refuse(socketError(*socket));
    });
#ifndef QT_NO_SSL
    if (tls) {
        auto *secure = static_cast<QSslSocket *>(socket.get());
        connect(secure, &QSslSocket::encrypted, this, send);
        secure->connectToHostEncrypted(target.host(), static_cast<quint16>(target.port(443)));
    } else
#endif
    {
        connect(socket.get(), &QTcpSocket::connected, this, send);
        socket->connectToHost(target.host(), static_cast<quint16>(target.port(80)));
    }
    restartSilence();
    deadline.start(m_deadlineMs);

    if (m_reason.isEmpty())
        m_loop.exec();
    // No handler runs from here on; the connection is dropped at once.
    disconnect(socket.get(), nullptr, this, nullptr);
    socket->abort();
    if (!m_reason.isEmpty())
        return;
    if (!ended)
        m_reason = QStringLiteral("interrupted"); // the thread's event loops were told to exit
    else if (reader.state() == HttpReplyReader::State::Failed)
        m_reason = reader.error();
    else
        m_body = reader.takeBody();
}

QByteArray HttpSyncTask::requestText(const QUrl &target)
{
    QUrl path = target;
    if (path.path().isEmpty())
        path.setPath(QStringLiteral("/"));
    const QByteArray resource = path.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority | QUrl::RemoveFragment);
    const QByteArray host = target.authority(QUrl::RemoveUserInfo | QUrl::FullyEncoded).toLatin1();
    // Asked for without compression, over a connection closed after it.
    return "GET " + resource + " HTTP/1.1\r\nHost: " + host +
           "\r\nAccept-Encoding: identity\r\nConnection: close\r\nUser-Agent: pushchat\r\n\r\n";
}

void HttpSyncTask::refuse(const QString &reason)
{
    if (m_reason.isEmpty())
        m_reason = reason;
    m_loop.quit();
}

QString HttpSyncTask::socketError(const QAbstractSocket &socket)
{
    switch (socket.error()) {
    case QAbstractSocket::ConnectionRefusedError:
        return QStringLiteral("connection refused");
    case QAbstractSocket::HostNotFoundError:
        return QStringLiteral("host not found");
    case QAbstractSocket::SslHandshakeFailedError:
        return QStringLiteral("TLS handshake failed: %1").arg(socket.errorString());
    default:
        return socket.errorString();
    }
}

QByteArray HttpSyncTask::pullHistoryMessage(
    QString base, QString userId, int type, int count, QString msgUuid, int securityLevel)
{
    // One multi-argument arg(): an encoded value such as "%2B" must not be
    // taken for a placeholder by a later substitution.
    return httpResult(
        QStringLiteral("%1/vantrel_api/instance_message/pull_history_message"
                       "?user_id=%2&type=%3&count=%4&msg_uuid=%5&my_sec_level=%6")
            .arg(base, queryValue(userId), QString::number(type), QString::number(count), queryValue(msgUuid),
                QString::number(securityLevel)));
}

QByteArray HttpSyncTask::syncHistoryMessage(QString base, QString userId, QString msgUuid, int securityLevel)
{
    return httpResult(
        QStringLiteral("%1/vantrel_api/instance_message/sync_history_message"
                       "?user_id=%2&msg_uuid=%3&my_sec_level=%4")
            .arg(base, queryValue(userId), queryValue(msgUuid), QString::number(securityLevel)));
}

QByteArray HttpSyncTask::modifyMessageStatus(QString base, QString uuid, MSG_STATUS status, int securityLevel)
{
    return httpResult(
        QStringLiteral("%1/vantrel_api/instance_message/modify_message_status"
                       "?uuid=%2&status=%3&my_sec_level=%4")
            .arg(base, queryValue(uuid), QString::number(int(status)), QString::number(securityLevel)));
}
