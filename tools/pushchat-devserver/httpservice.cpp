#include "httpservice.h"

#include <QTcpSocket>
#include <QTimer>
#include <QUrl>

namespace {

constexpr int kMaxHead = 16 * 1024;
constexpr int kHeadTimeoutMs = 10000;

const char *reason(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 431:
        return "Request Header Fields Too Large";
    default:
        return "Error";
    }
}

void respond(QTcpSocket *socket, const HttpService::Reply &reply)
{
    socket->write("HTTP/1.1 " + QByteArray::number(reply.status) + ' ' + reason(reply.status) +
                  "\r\nContent-Type: application/json\r\nContent-Length: " + QByteArray::number(reply.body.size()) +
                  "\r\nConnection: close\r\n\r\n" + reply.body);
    socket->disconnectFromHost();
}

HttpService::Reply failure(int status, const char *error)
{
    return { status, QByteArray("{\"error\":\"") + error + "\"}" };
}

} // namespace

HttpService::HttpService(Handler handler, QObject *parent) : QObject(parent), m_handler(std::move(handler))
{
    connect(&m_server, &QTcpServer::newConnection, this, &HttpService::accept);
}

bool HttpService::listen(const QHostAddress &address, quint16 port)
{
    return m_server.listen(address, port);
}

void HttpService::accept()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        QTimer::singleShot(kHeadTimeoutMs, socket, [socket] { socket->abort(); });
        connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
            if (socket->property("answered").toBool()) {
                socket->readAll(); // one request per connection
                return;
            }
            QByteArray head = socket->property("head").toByteArray() + socket->readAll();
            const int end = head.indexOf("\r\n\r\n");
            if (end < 0 && head.size() <= kMaxHead) {
                socket->setProperty("head", head);
                return;
            }
            socket->setProperty("answered", true);
            if (end < 0 || end > kMaxHead)
                return respond(socket, failure(431, "request head too large"));
            const QList<QByteArray> parts = head.left(head.indexOf("\r\n")).split(' ');
            if (parts.size() != 3 || !parts[2].startsWith("HTTP/1."))
                return respond(socket, failure(400, "malformed request line"));
            if (parts[0] != "GET")
                return respond(socket, failure(405, "only GET is served"));
            const QUrl url(QString::fromUtf8(parts[1]), QUrl::TolerantMode);
            respond(socket, m_handler(url.path(), QUrlQuery(url)));
        });
    }
}
