// The blocking HTTP client of the history service: one GET per call, waited
// for in a nested event loop on the calling thread.

#include "httpsynctask.h"

#include "enginelog.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QMetaEnum>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QTimer>
#include <QUrl>

namespace {

// After an error, how long to wait for the reply's finished signal.
constexpr int kWaitForFinishedAfterErrorMs = 1000;

const char *errorName(QNetworkReply::NetworkError code)
{
    const char *name = QMetaEnum::fromType<QNetworkReply::NetworkError>().valueToKey(code);
    return name != nullptr ? name : "UnknownNetworkError";
}

void logRefused(const QString &url, const char *why)
{
    qCDebug(lcEngine).noquote() << "[HttpSyncTask] request url" << url << "error:" << why;
}

} // namespace

HttpSyncTask::HttpSyncTask(QObject *parent) : QObject(parent), manager(new QNetworkAccessManager)
{
    manager->setTransferTimeout(TRANSFER_TIMEOUT_MS);
}

HttpSyncTask::~HttpSyncTask()
{
    delete manager; // and with it any reply
}

void HttpSyncTask::setTransferTimeout(int milliseconds)
{
    manager->setTransferTimeout(milliseconds);
}

int HttpSyncTask::transferTimeout() const
{
    return manager->transferTimeout();
}

QString HttpSyncTask::queryValue(const QString &value)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(value, QByteArrayLiteral("@")));
}

QByteArray HttpSyncTask::httpResult(const QString &url)
{
    QByteArray result;
    // Conditions under which the loop could never be woken, or would run
    // in the wrong thread: refuse instead of hanging.
    if (QCoreApplication::instance() == nullptr) {
        logRefused(url, "no QCoreApplication");
        return result;
    }
    if (QThread::currentThread() != thread() || QAbstractEventDispatcher::instance() == nullptr) {
        logRefused(url, "not the task's thread, or the thread has no event dispatcher");
        return result;
    }
    if (reply != nullptr) {
        logRefused(url, "a request of this task is already waiting");
        return result;
    }
    const QUrl target(url, QUrl::TolerantMode);
    if (!target.isValid() || target.host().isEmpty()) {
        logRefused(url, "invalid url");
        return result;
    }

    reply = manager->get(QNetworkRequest(target));
    bool finished = false;
    bool errorEndedWait = false;
    // Both handlers are connected before the loop runs; the reply lives in
    // this thread, so neither can run before exec() below.
    connect(reply, &QNetworkReply::finished, this, [this, &result, &finished, url] {
        finished = true;
        qCDebug(lcEngine).noquote() << "[HttpSyncTask] htpp ok, url:" << url;
        if (loop.isRunning())
            loop.quit();
        if (reply->error() == QNetworkReply::NoError)
            result = reply->readAll();
    });
    const auto onError = [this, &errorEndedWait, url](QNetworkReply::NetworkError code) {
        if (code == QNetworkReply::NoError)
            return;
        qCDebug(lcEngine).noquote() << "[HttpSyncTask] request url" << url << "error:" << errorName(code);
        if (loop.isRunning()) {
            errorEndedWait = true;
            loop.quit();
        }
    };
    connect(reply, &QNetworkReply::errorOccurred, this, onError);

    if (!finished)
        loop.exec();
    if (!finished && errorEndedWait) {
        // finished may come in a later event than the error: wait for it,
        // briefly, so the reply ends on its own.
        QTimer guard;
        guard.setSingleShot(true);
        connect(&guard, &QTimer::timeout, &loop, &QEventLoop::quit);
        guard.start(kWaitForFinishedAfterErrorMs);
        loop.exec();
    }
    if (!finished && !errorEndedWait) {
        // The thread's event loops were told to exit: end the request now.
        // (After an error the reply has ended already; aborting it would
        // report a second error, which Qt warns about.)
        disconnect(reply, &QNetworkReply::errorOccurred, this, nullptr);
        reply->abort();
    }
    // Deleted here rather than with deleteLater: a deferred delete posted
    // inside the nested loop would wait for an outer loop that a plain
    // thread never runs. No signal of the reply is being emitted now.
    disconnect(reply, nullptr, this, nullptr);
    delete reply;
    reply = nullptr;
    return result;
}

QByteArray HttpSyncTask::pullHistoryMessage(QString base, QString userId, int type, int count, QString msgUuid,
                                            int securityLevel)
{
    // One multi-argument arg(): an encoded value such as "%2B" must not be
    // taken for a placeholder by a later substitution.
    return httpResult(QStringLiteral("%1/vantrel_api/instance_message/pull_history_message"
                                     "?user_id=%2&type=%3&count=%4&msg_uuid=%5&my_sec_level=%6")
                          .arg(base, queryValue(userId), QString::number(type), QString::number(count),
                               queryValue(msgUuid), QString::number(securityLevel)));
}

QByteArray HttpSyncTask::syncHistoryMessage(QString base, QString userId, QString msgUuid, int securityLevel)
{
    return httpResult(QStringLiteral("%1/vantrel_api/instance_message/sync_history_message"
                                     "?user_id=%2&msg_uuid=%3&my_sec_level=%4")
                          .arg(base, queryValue(userId), queryValue(msgUuid), QString::number(securityLevel)));
}

QByteArray HttpSyncTask::modifyMessageStatus(QString base, QString uuid, MSG_STATUS status, int securityLevel)
{
    return httpResult(QStringLiteral("%1/vantrel_api/instance_message/modify_message_status"
                                     "?uuid=%2&status=%3&my_sec_level=%4")
                          .arg(base, queryValue(uuid), QString::number(int(status)),
                               QString::number(securityLevel)));
}
