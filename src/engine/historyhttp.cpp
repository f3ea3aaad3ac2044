// History over HTTP: the engine's two blocking fetches, whose reply bodies
// reach the application through onHistoryMessages on the calling thread.

#include "messageprivate.h"

#include "httpsynctask.h"
#include "pushchatlog.h"

namespace {

// Why the last HTTP history call of this thread gave "": kept per thread,
// as several application threads may ask at once, each reading its own.
thread_local QString lastErrorOfThread;

// Logs and keeps the missing login; nothing is requested then.
bool haveLogin(const std::string &jid, const char *operation)
{
    if (!jid.empty())
        return true;
    PUSHCHAT_TRACE(lcEngine, operation) << "not logged in: no request";
    lastErrorOfThread = QStringLiteral("not logged in");
    return false;
}

// One request of a fresh task within `deadlineMs` (0: the task's default):
// the body, or "" with the reason kept for this thread.
template <typename Ask> QByteArray fetch(int deadlineMs, Ask ask)
{
    HttpSyncTask task(nullptr);
    task.setDeadline(deadlineMs);
    QByteArray body = ask(task);
    lastErrorOfThread = task.lastError();
    return body;
}

} // namespace

void MessagePrivate::setHistoryBaseAddress(const QString &base)
{
    httpHistoryBase = base;
}

void MessagePrivate::setHistoryDeadline(int milliseconds)
{
    httpHistoryDeadlineMs = milliseconds;
}

QString MessagePrivate::lastHistoryError() const
{
    return lastErrorOfThread;
}

QString MessagePrivate::historyBaseAddress() const
{
    return httpHistoryBase.isEmpty() ? QStringLiteral("http://%1:5201").arg(serverHost) : httpHistoryBase;
}

void MessagePrivate::startSyncMessageRun(QString msgUuid)
{
    QByteArray body;
    if (haveLogin(jid, "startSyncMessageRun")) {
        body = fetch(httpHistoryDeadlineMs, [&](HttpSyncTask &task) {
            return task.syncHistoryMessage(historyBaseAddress(), QString::fromStdString(jid), msgUuid, securityLevel);
        });
    }
    recordHistory(body.toStdString());
    if (imReciever != nullptr)
        imReciever->onHistoryMessages(body.constData());
}

void MessagePrivate::startPullMessageRun(int type, int count, QString msgUuid)
{
    QByteArray body;
    if (haveLogin(jid, "startPullMessageRun")) {
        body = fetch(httpHistoryDeadlineMs, [&](HttpSyncTask &task) {
            return task.pullHistoryMessage(
                historyBaseAddress(), QString::fromStdString(jid), type, count, msgUuid, securityLevel);
        });
    }
    recordHistory(body.toStdString());
    if (imReciever != nullptr)
        imReciever->onHistoryMessages(body.constData());
}
