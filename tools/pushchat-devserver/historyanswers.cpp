#include "historyanswers.h"

#include "answerbudget.h"

#include <QDateTime>
#include <QJsonArray>

#include <algorithm>
#include <optional>

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

int pageSize(int asked)
{
    return asked < 1 ? 20 : std::min(asked, HistoryAnswers::kMaxPage);
}

int pageNumber(const QJsonObject &request)
{
    return std::clamp(number(request, "page"), 0, HistoryAnswers::kMaxPageNumber);
}

QJsonObject messageJson(const QString &user, const DevStore::Message &m, int level, bool withhold = false)
{
    withhold = withhold || m.bodyWithheld;
    const bool readable = !withhold && (m.secLevel == kUnrestricted || m.secLevel >= level);
    const QString conversation = m.msgType == 4 || m.from == user ? m.to : m.from;
    QJsonObject json{ { QStringLiteral("uuid"), m.uuid }, { QStringLiteral("from"), m.from },
        { QStringLiteral("to"), m.to }, { QStringLiteral("conv_id"), conversation },
        { QStringLiteral("body"), readable ? m.body : QString() }, { QStringLiteral("readable"), readable },
        { QStringLiteral("body_type"), m.bodyType }, { QStringLiteral("msg_type"), m.msgType },
        { QStringLiteral("sec_level"), m.secLevel }, { QStringLiteral("stamp"), m.stamp },
        { QStringLiteral("time"), QDateTime::fromMSecsSinceEpoch(m.at, Qt::UTC).toString(Qt::ISODateWithMs) },
        { QStringLiteral("status"), m.status }, { QStringLiteral("modifier"), m.modifier } };
    if (withhold)
        json.insert(QStringLiteral("withheld"), true);
    return json;
}

// `m` as it fits in what `budget` has left: whole or, when `withhold`
// allows, with its body withheld; nothing when neither fits.
std::optional<QJsonObject> fitted(
    AnswerBudget &budget, const QString &user, const DevStore::Message &m, int level, bool withhold)
{
    QJsonObject json = messageJson(user, m, level);
    if (budget.take(json))
        return json;
    if (!withhold)
        return std::nullopt;
    json = messageJson(user, m, level, true);
    return budget.take(json) ? std::optional<QJsonObject>(json) : std::nullopt;
}

} // namespace

QJsonObject HistoryAnswers::messagePage(const QString &user, const DevStore::Scope &scope,
    DevStore::Direction direction, int skip, int count, const QString &anchor, int level, bool byAnchor)
{
    // An anchor the store does not know counts as none.
    const QString known = !anchor.isEmpty() && m_store->message(anchor) ? anchor : QString();
    // Read one at a time, and fitted in the order read, the nearest to the
    // anchor first; one more than asked tells whether more follow.
    bool more = false;
    AnswerBudget budget;
    std::vector<QJsonObject> fit;
    m_store->messages(scope, direction, std::max(skip, 0), count + 1, known, [&](DevStore::Message &&m) {
        std::optional<QJsonObject> json;
        if (int(fit.size()) < count)
            json = fitted(budget, user, m, level, !byAnchor || fit.empty());
        if (!json) {
            more = true;
            return false;
        }
        fit.push_back(std::move(*json));
        return true;
    });
    if (direction == DevStore::Direction::Older)
        std::reverse(fit.begin(), fit.end()); // the oldest first
    QJsonArray messages;
    for (const QJsonObject &json : fit)
        messages.append(json);
    return { { QStringLiteral("messages"), messages }, { QStringLiteral("more"), more } };
}

QJsonObject HistoryAnswers::conversations(const QString &user, const QJsonObject &request)
{
    const int page = pageNumber(request);
    const int size = pageSize(number(request, "pagesize"));
    const int level = number(request, "my_sec_level");
    AnswerBudget budget;
    QJsonArray list;
    m_store->conversations(
        { user, QString(), number(request, "message_type") }, page * size, size, [&](DevStore::Conversation &&c) {
            QJsonObject entry{ { QStringLiteral("conv_id"), c.id }, { QStringLiteral("msg_type"), c.msgType },
                { QStringLiteral("count"), c.count }, { QStringLiteral("last"), messageJson(user, c.last, level) } };
            if (!budget.take(entry)) {
                entry.insert(QStringLiteral("last"), messageJson(user, c.last, level, true));
                if (!budget.take(entry))
                    return false;
            }
            list.append(entry);
            return true;
        });
    return { { QStringLiteral("message_type"), number(request, "message_type") }, { QStringLiteral("page"), page },
        { QStringLiteral("pagesize"), size }, { QStringLiteral("conversations"), list } };
}

QJsonObject HistoryAnswers::conversationDetail(const QString &user, const QJsonObject &request)
{
    const int page = pageNumber(request);
    const int size = pageSize(number(request, "pagesize"));
    const QString conversation = text(request, "conv_id");
    QJsonObject answer = messagePage(user, { user, conversation, 0 }, DevStore::Direction::Older, page * size, size,
        QString(), number(request, "my_sec_level"), false);
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

QJsonObject HistoryAnswers::pull(
    const QString &user, int pullType, int start, int count, const QString &uuid, int level)
{
    const auto direction = pullType == 0 ? DevStore::Direction::Older : DevStore::Direction::Newer;
    QJsonObject answer =
        messagePage(user, { user, QString(), 0 }, direction, start, pageSize(count), uuid, level, true);
    answer.insert(QStringLiteral("pull_type"), pullType);
    answer.insert(QStringLiteral("msg_uuid"), uuid);
    return answer;
}

QJsonObject HistoryAnswers::sync(const QString &user, const QString &uuid, int level)
{
    QJsonObject answer =
        messagePage(user, { user, QString(), 0 }, DevStore::Direction::Newer, 0, kMaxPage, uuid, level, true);
    answer.insert(QStringLiteral("msg_uuid"), uuid);
    return answer;
}
