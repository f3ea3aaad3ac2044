// History over HTTP: the engine's two blocking fetches, whose reply bodies
// reach the application through onHistoryMessages on the calling thread.

#include "messageprivate.h"

#include "enginelog.h"
#include "httpsynctask.h"

namespace {

// Logs the missing login; nothing is requested then.
bool haveLogin(const std::string &jid, const char *operation)
{
    if (!jid.empty())
        return true;
    PUSHCHAT_ENGINE_LOG(operation) << "not logged in: no request";
    return false;
}

} // namespace

void MessagePrivate::setHistoryBaseAddress(const QString &base)
{
    httpHistoryBase = base;
}

QString MessagePrivate::historyBaseAddress() const
{
    return httpHistoryBase.isEmpty() ? QStringLiteral("http://%1:5201").arg(serverHost) : httpHistoryBase;
}

void MessagePrivate::startSyncMessageRun(QString msgUuid)
{
    QByteArray body;
    if (haveLogin(jid, "startSyncMessageRun")) {
        HttpSyncTask task(nullptr);
        body = task.syncHistoryMessage(historyBaseAddress(), QString::fromStdString(jid), msgUuid, securityLevel);
    }
    if (imReciever != nullptr)
        imReciever->onHistoryMessages(body.constData());
}

void MessagePrivate::startPullMessageRun(int type, int count, QString msgUuid)
{
    QByteArray body;
    if (haveLogin(jid, "startPullMessageRun")) {
        HttpSyncTask task(nullptr);
        body = task.pullHistoryMessage(historyBaseAddress(), QString::fromStdString(jid), type, count, msgUuid,
                                       securityLevel);
    }
    if (imReciever != nullptr)
        imReciever->onHistoryMessages(body.constData());
}
