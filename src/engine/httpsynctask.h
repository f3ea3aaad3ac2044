#ifndef PUSHCHAT_HTTPSYNCTASK_H
#define PUSHCHAT_HTTPSYNCTASK_H

// HttpSyncTask: a small blocking HTTP client for the history service on the
// push server's host. Each call sends one GET, waits for the answer in a
// nested event loop on the calling thread, and returns the raw reply body;
// every failure gives an empty result and leaves its reason in lastError()
// ("" after a success). No retry.
//
// Threads: a task belongs to the thread that created it and must be used
// only there, one request at a time (a call made while the task is already
// waiting, e.g. from a slot run by its own loop, returns empty at once).
// The calling thread may be the application's main thread (inside or
// outside QCoreApplication::exec), a QThread, or a plain std::thread with no
// event loop of its own: the nested loop creates the thread's event
// dispatcher when it is created. The one requirement is a QCoreApplication
// alive in the process when the task is created and used; without one a
// call logs and returns empty at once rather than spin a loop that could
// never be woken (a task created first in a plain thread stays unusable
// there). The connection, its signal handlers and the reading all run on
// the calling thread inside the nested loop; no lock is taken.
//
// Transport: HTTP/1.1 over a TCP connection of each request's own (TLS for
// https, verified as QSslSocket does by default), "Connection: close". The
// reply is read by HttpReplyReader (httpreplyreader.h), whose bounds hold
// for a server that is broken or hostile:
// - head: at most 64 KiB and 100 header fields, read in linear time;
// - status: only a 2xx is taken; redirects are not followed, a 3xx is an
//   error naming the status and the Location, any other names the status;
// - encoding: the request asks for identity, and a reply with any other
//   Content-Encoding (or a Transfer-Encoding other than chunked) is
//   refused, never inflated;
// - body: at most MAX_BODY_BYTES are kept. A Content-Length over it is
//   refused before any of the body is read, and any other body is read as
//   it arrives and refused once over. Qt reads from the connection only
//   while less than READ_BUFFER_BYTES wait unread, so the rest stays with
//   the sender;
// - content: a body holding a NUL byte is refused, since the engine hands
//   the body on as a NUL-terminated string that would end there silently.
// And in time: the overall deadline (DEADLINE_MS by default, setDeadline)
// ends a request however slowly data trickles in; the transfer timeout
// (TRANSFER_TIMEOUT_MS, setTransferTimeout) ends one silent that long
// sooner. A call also ends as soon as the thread's event loops are told to
// exit (QCoreApplication::exit, QThread::exit): "interrupted".
// The reasons (lastError) are one line for people, e.g. "HTTP 404 Not
// Found", "connection refused", "timed out after 30 s (deadline)", "body
// over 16777216 bytes", "HTTP 302 Found: redirect to http://h/x refused",
// "compressed reply refused (Content-Encoding: gzip)", "body holds a NUL
// byte (at byte 3)", "101 header fields, over 100"; text from the server
// appears in them shortened and with control characters replaced.
//
// A URL without a host, one Qt cannot parse, or one of another scheme than
// http and https gives an empty result without a request.
//
// Query values: every value inserted into a template is percent-encoded
// except "@", so a plain JID or id appears exactly as written
// ("user_id=alice@im.example.org") while "+", "&", space and non-ASCII
// text reach the server intact ("%2B", "%26", "%20", UTF-8 bytes as %XX).
// The base address is inserted as it is.
//
// Ownership: the socket of a request is made and destroyed by the call.

#include "imeventreciever.h"

#include <QByteArray>
#include <QEventLoop>
#include <QObject>
#include <QString>

class QAbstractSocket;
class QUrl;

class HttpSyncTask : public QObject {
    Q_OBJECT
public:
    /// Default transfer timeout: a request silent this long is aborted.
    static constexpr int TRANSFER_TIMEOUT_MS = 10000;
    /// Default overall deadline: a request not done this long after it was
    /// sent is aborted, however much data keeps arriving.
    static constexpr int DEADLINE_MS = 30000;
    /// The largest body taken: eight message bodies at the sending limit
    /// (Message_lib::MAX_BODY_BYTES, 2 MiB) with room for their JSON
    /// escaping, or many thousands of ordinary text messages, which is far
    /// more than a history page of the service holds.
    static constexpr qint64 MAX_BODY_BYTES = 16 * 1024 * 1024;
    /// How much of the reply Qt may hold beyond what the task has read.
    static constexpr qint64 READ_BUFFER_BYTES = 64 * 1024;

    explicit HttpSyncTask(QObject *parent = nullptr);
    ~HttpSyncTask() override;
    HttpSyncTask(const HttpSyncTask &) = delete;
    HttpSyncTask &operator=(const HttpSyncTask &) = delete;

    /// One GET of `url` (parsed tolerantly); the body, or empty.
    QByteArray httpResult(const QString &url);

    /// base + "/vantrel_api/instance_message/pull_history_message?user_id=…
    /// &type=…&count=…&msg_uuid=…&my_sec_level=…".
    QByteArray pullHistoryMessage(
        QString base, QString userId, int type, int count, QString msgUuid, int securityLevel);
    /// base + "/vantrel_api/instance_message/sync_history_message?user_id=…
    /// &msg_uuid=…&my_sec_level=…".
    QByteArray syncHistoryMessage(QString base, QString userId, QString msgUuid, int securityLevel);
    /// base + "/vantrel_api/instance_message/modify_message_status?uuid=…
    /// &status=…&my_sec_level=…". The engine changes statuses over the push
    /// channel instead; this is for applications that use the service.
    QByteArray modifyMessageStatus(QString base, QString uuid, MSG_STATUS status, int securityLevel);

    /// Changes the transfer timeout (milliseconds) of later requests.
    void setTransferTimeout(int milliseconds);
    int transferTimeout() const { return m_transferTimeoutMs; }
    /// Changes the overall deadline (milliseconds, above 0) of later requests.
    void setDeadline(int milliseconds);
    int deadline() const { return m_deadlineMs; }

    /// Why the last call gave an empty result; "" after a success (an empty
    /// 2xx body included). A call refused because it came from another
    /// thread or while this task waits leaves it as it was.
    QString lastError() const { return m_lastError; }

    /// A query value as it is inserted into the templates.
    static QString queryValue(const QString &value);

private:
    /// Sends the GET and waits for the reply: m_body, or m_reason.
    void exchange(const QUrl &target);
    /// Records the first reason the request fails and ends the wait.
    void refuse(const QString &reason);
    /// The request as sent: GET, Host, Accept-Encoding: identity, close.
    static QByteArray requestText(const QUrl &target);
    /// The reason of a connection that failed.
    static QString socketError(const QAbstractSocket &socket);

    bool m_waiting = false; // a request of this task is in progress
    QEventLoop m_loop;      // where a request waits
    QByteArray m_body;      // of the request in progress
    QString m_reason;       // why the request in progress fails
    QString m_lastError;
    int m_deadlineMs = DEADLINE_MS;
    int m_transferTimeoutMs = TRANSFER_TIMEOUT_MS;
};

#endif // PUSHCHAT_HTTPSYNCTASK_H
