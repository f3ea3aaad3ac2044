#include "historyanswers.h"

#include <QDateTime>
#include <QJsonArray>

#include <algorithm>

namespace {

constexpr int kUnrestricted = 9999;

int number(const QJsonObject &request, const char *key, int fallback = 0)
{
    return request.value(QLatin1String(key)).toInt(fallback);
}

QString text(const QJsonObject &request, const char *key)
{
    return request.value(QLatin1String(key)).toString();
}

int pageSize(int asked) { return asked < 1 ? 20 : std::min(asked, HistoryAnswers::kMaxPage); }

QJsonObject messageJson(const QString &user, const DevStore::Message &m, int level)
{
    const bool readable = m.secLevel == kUnrestricted || m.secLevel >= level;
    const QString conversation = m.msgType == 4 || m.from == user ? m.to : m.from;
    return {{QStringLiteral("uuid"), m.uuid},
            {QStringLiteral("from"), m.from},
            {QStringLiteral("to"), m.to},
            {QStringLiteral("conv_id"), conversation},
            {QStringLiteral("body"), readable ? m.body : QString()},
            {QStringLiteral("readable"), readable},
            {QStringLiteral("body_type"), m.bodyType},
            {QStringLiteral("msg_type"), m.msgType},
            {QStringLiteral("sec_level"), m.secLevel},
            {QStringLiteral("stamp"), m.stamp},
            {QStringLiteral("time"), QDateTime::fromMSecsSinceEpoch(m.at, Qt::UTC).toString(Qt::ISODateWithMs)},
            {QStringLiteral("status"), m.status},
            {QStringLiteral("modifier"), m.modifier}};
}

} // namespace

QJsonObject HistoryAnswers::messagePage(const QString &user, const DevStore::Scope &scope,
                                        DevStore::Direction direction, int skip, int count, const QString &anchor,
                                        int level)
{
    // An anchor the store does not know counts as none.
    const QString known = !anchor.isEmpty() && m_store->message(anchor) ? anchor : QString();
    // One more than asked tells whether more follow.
    std::vector<DevStore::Message> found =
        m_store->messages(scope, direction, std::max(skip, 0), count + 1, known);
    const bool more = int(found.size()) > count;
    found.resize(std::min<std::size_t>(found.size(), std::size_t(count)));
    if (direction == DevStore::Direction::Older)
        std::reverse(found.begin(), found.end()); // the oldest first
    QJsonArray messages;
    for (const DevStore::Message &m : found)
        messages.append(messageJson(user, m, level));
    return {{QStringLiteral("messages"), messages}, {QStringLiteral("more"), more}};
}

QJsonObject HistoryAnswers::conversations(const QString &user, const QJsonObject &request)
{
    const int page = std::max(number(request, "page"), 0);
    const int size = pageSize(number(request, "pagesize"));
    const int level = number(request, "my_sec_level");
    QJsonArray list;
    for (const DevStore::Conversation &c :
         m_store->conversations({user, QString(), number(request, "message_type")}, page * size, size)) {
        list.append(QJsonObject{{QStringLiteral("conv_id"), c.id},
                                {QStringLiteral("msg_type"), c.msgType},
                                {QStringLiteral("count"), c.count},
                                {QStringLiteral("last"), messageJson(user, c.last, level)}});
    }
    return {{QStringLiteral("message_type"), number(request, "message_type")},
            {QStringLiteral("page"), page},
            {QStringLiteral("pagesize"), size},
            {QStringLiteral("conversations"), list}};
}

QJsonObject HistoryAnswers::conversationDetail(const QString &user, const QJsonObject &request)
{
    const int page = std::max(number(request, "page"), 0);
    const int size = pageSize(number(request, "pagesize"));
    const QString conversation = text(request, "conv_id");
    QJsonObject answer = messagePage(user, {user, conversation, 0}, DevStore::Direction::Older, page * size, size,
                                     QString(), number(request, "my_sec_level"));
    answer.insert(QStringLiteral("conv_id"), conversation);
    answer.insert(QStringLiteral("page"), page);
    answer.insert(QStringLiteral("pagesize"), size);
    return answer;
}

QJsonObject HistoryAnswers::list(const QString &user, const QJsonObject &request)
{
    if (!request.contains(QLatin1String("pull_type")))
        return sync(user, text(request, "msg_uuid"), number(request, "my_sec_level"));
    return pull(user, number(request, "pull_type"), number(request, "start"), number(request, "count"),
                text(request, "msg_uuid"), number(request, "my_sec_level"));
}

QJsonObject HistoryAnswers::pull(const QString &user, int pullType, int start, int count, const QString &uuid,
                                 int level)
{
    const auto direction = pullType == 0 ? DevStore::Direction::Older : DevStore::Direction::Newer;
    QJsonObject answer = messagePage(user, {user, QString(), 0}, direction, start, pageSize(count), uuid, level);
    answer.insert(QStringLiteral("pull_type"), pullType);
    answer.insert(QStringLiteral("msg_uuid"), uuid);
    return answer;
}

QJsonObject HistoryAnswers::sync(const QString &user, const QString &uuid, int level)
{
    QJsonObject answer =
        messagePage(user, {user, QString(), 0}, DevStore::Direction::Newer, 0, kMaxPage, uuid, level);
    answer.insert(QStringLiteral("msg_uuid"), uuid);
    return answer;
}
