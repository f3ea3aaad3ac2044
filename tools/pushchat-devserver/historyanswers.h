#ifndef PUSHCHAT_DEVSERVER_HISTORYANSWERS_H
#define PUSHCHAT_DEVSERVER_HISTORYANSWERS_H

// The development server's answers to history requests, from its store,
// the same for the push channel and the HTTP service. Each takes the
// request's values and returns the answer's JSON object (formats in the
// README). A message the asking user may not read (its level is neither
// 9999 nor at or above the user's) is listed with "readable": false and an
// empty body. Used by the store's thread.

#include "devstore.h"

#include <QJsonObject>
#include <QString>

class HistoryAnswers {
public:
    /// Most messages or conversations in one answer; larger pages are cut.
    static constexpr int kMaxPage = 200;

    /// `store` is borrowed.
    explicit HistoryAnswers(DevStore *store) : m_store(store) {}

    /// {"message_type","page","pagesize","my_sec_level"}
    QJsonObject conversations(const QString &user, const QJsonObject &request);
    /// {"conv_id","page","pagesize","my_sec_level"}
    QJsonObject conversationDetail(const QString &user, const QJsonObject &request);
    /// A pull ({"pull_type","start","count","msg_uuid","my_sec_level"}) or,
    /// without "pull_type", a sync ({"msg_uuid","my_sec_level"}).
    QJsonObject list(const QString &user, const QJsonObject &request);
    /// Pull type 0: the messages before `uuid` (or the latest); any other:
    /// those after it (or the earliest). `start` of them are skipped.
    QJsonObject pull(const QString &user, int pullType, int start, int count, const QString &uuid, int level);
    /// The messages after `uuid` (all of them without a known uuid), the
    /// oldest first, at most kMaxPage; "more" tells whether others follow.
    QJsonObject sync(const QString &user, const QString &uuid, int level);

private:
    QJsonObject messagePage(const QString &user, const DevStore::Scope &scope, DevStore::Direction direction,
                            int skip, int count, const QString &anchor, int level);

    DevStore *m_store;
};

#endif // PUSHCHAT_DEVSERVER_HISTORYANSWERS_H
