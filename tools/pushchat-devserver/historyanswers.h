#ifndef PUSHCHAT_DEVSERVER_HISTORYANSWERS_H
#define PUSHCHAT_DEVSERVER_HISTORYANSWERS_H

// The development server's answers to history requests, from its store,
// the same for the push channel and the HTTP service. Each takes the
// request's values and returns the answer's JSON object (formats in the
// README). A message the asking user may not read (its level is neither
// 9999 nor at or above the user's) is listed with "readable": false and an
// empty body. Used by the store's thread.
//
// Every answer is bounded: at most kMaxPage messages or conversations, and
// at most AnswerBudget::kMaxBytes of JSON. A pull or sync (paged by an
// anchor uuid) stops before the message that would pass the byte bound,
// with "more": true, so the next request starts there; a conversation page
// (paged by number) and the conversation list keep their count, and list
// such a message with its body withheld. A message listed with its body
// withheld ("body": "", "readable": false, "withheld": true) is also how a
// message that would not fit an answer of its own, or whose stored body is
// over the limit, appears.

#include "devstore.h"

#include <QJsonObject>
#include <QString>

class HistoryAnswers {
public:
    /// Most messages or conversations in one answer; larger pages are cut.
    static constexpr int kMaxPage = 200;
    /// Pages are numbered from 0 up to this one.
    static constexpr int kMaxPageNumber = 1000000;

    /// `store` is borrowed.
    explicit HistoryAnswers(DevStore *store) : m_store(store) { }

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
    /// `byAnchor`: stop at the byte bound (see above); otherwise withhold.
    QJsonObject messagePage(const QString &user, const DevStore::Scope &scope, DevStore::Direction direction, int skip,
        int count, const QString &anchor, int level, bool byAnchor);

    DevStore *m_store;
};

#endif // PUSHCHAT_DEVSERVER_HISTORYANSWERS_H
