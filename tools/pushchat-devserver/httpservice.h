#ifndef PUSHCHAT_DEVSERVER_HTTPSERVICE_H
#define PUSHCHAT_DEVSERVER_HTTPSERVICE_H

// A small HTTP/1.1 server for the development server's history service:
// GET requests only, one request per connection, answered with a JSON body
// and closed. The handler gets the path and the query and returns the
// status and body; other methods get 405, requests whose head exceeds
// 16 KiB get 431, malformed ones 400, and a connection that has not sent a
// whole request head within 10 s is closed. Runs in the event loop of the
// thread that owns it.

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTcpServer>
#include <QUrlQuery>

#include <functional>

class HttpService : public QObject {
    Q_OBJECT
public:
    struct Reply {
        int status = 200;
        QByteArray body;
    };
    using Handler = std::function<Reply(const QString &path, const QUrlQuery &query)>;

    HttpService(Handler handler, QObject *parent = nullptr);

    /// Listens on `address` and `port` (0: a free port). False, with the
    /// reason in errorString(), when the port cannot be had.
    bool listen(const QHostAddress &address, quint16 port);
    quint16 port() const { return m_server.serverPort(); }
    QString errorString() const { return m_server.errorString(); }

private:
    void accept();

    Handler m_handler;
    QTcpServer m_server;
};

#endif // PUSHCHAT_DEVSERVER_HTTPSERVICE_H
