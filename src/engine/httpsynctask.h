#ifndef PUSHCHAT_HTTPSYNCTASK_H
#define PUSHCHAT_HTTPSYNCTASK_H

// HttpSyncTask: a small blocking HTTP client for the history service on the
// push server's host. Each call sends one GET, waits for the answer in a
// nested event loop on the calling thread, and returns the raw reply body;
// network errors, HTTP errors (404 and the like, even with a body) and the
// transfer timeout all give an empty result. No retry.
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
// there). The signal handlers run on the calling thread inside the nested
// loop; no lock is taken. (Qt's access manager does its socket work on an
// internal thread of its own.)
//
// Waiting: at most about the transfer timeout (10 s by default) of silence;
// longer while data keeps arriving. A URL without a host, or one Qt cannot
// parse, gives an empty result without a request.
//
// Query values: every value inserted into a template is percent-encoded
// except "@", so a plain JID or id appears exactly as written
// ("user_id=alice@im.example.org") while "+", "&", space and non-ASCII
// text reach the server intact ("%2B", "%26", "%20", UTF-8 bytes as %XX).
// The base address is inserted as it is.
//
// Ownership: the task owns its access manager, which owns the replies.

#include "imeventreciever.h"

#include <QByteArray>
#include <QEventLoop>
#include <QObject>
#include <QString>

class QNetworkAccessManager;
class QNetworkReply;

class HttpSyncTask : public QObject {
    Q_OBJECT
public:
    /// Default transfer timeout: a request silent this long is aborted.
    static constexpr int TRANSFER_TIMEOUT_MS = 10000;

    explicit HttpSyncTask(QObject *parent = nullptr);
    ~HttpSyncTask() override;
    HttpSyncTask(const HttpSyncTask &) = delete;
    HttpSyncTask &operator=(const HttpSyncTask &) = delete;

    /// One GET of `url` (parsed tolerantly); the body, or empty.
    QByteArray httpResult(const QString &url);

    /// base + "/vantrel_api/instance_message/pull_history_message?user_id=…
    /// &type=…&count=…&msg_uuid=…&my_sec_level=…".
    QByteArray pullHistoryMessage(QString base, QString userId, int type, int count, QString msgUuid,
                                  int securityLevel);
    /// base + "/vantrel_api/instance_message/sync_history_message?user_id=…
    /// &msg_uuid=…&my_sec_level=…".
    QByteArray syncHistoryMessage(QString base, QString userId, QString msgUuid, int securityLevel);
    /// base + "/vantrel_api/instance_message/modify_message_status?uuid=…
    /// &status=…&my_sec_level=…". The engine changes statuses over the push
    /// channel instead; this is for applications that use the service.
    QByteArray modifyMessageStatus(QString base, QString uuid, MSG_STATUS status, int securityLevel);

    /// Changes the transfer timeout (milliseconds) of later requests.
    void setTransferTimeout(int milliseconds);
    int transferTimeout() const;

    /// A query value as it is inserted into the templates.
    static QString queryValue(const QString &value);

private:
    QNetworkReply *reply = nullptr;  // the request in progress; owned by manager
    QNetworkAccessManager *manager;  // owned, no parent
    QEventLoop loop;                 // where a request waits
};

#endif // PUSHCHAT_HTTPSYNCTASK_H
