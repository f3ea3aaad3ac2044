#include "devstore.h"

#include "compactjson.h"
#include "devserverlog.h"
#include "inputlimits.h"

#include <QDateTime>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <QVariant>

namespace {

constexpr int kGroupChat = 4; // MESSAGE_TYPE_GROUPCHAT

const char *const kSchema[] = {
    "CREATE TABLE IF NOT EXISTS messages (id INTEGER PRIMARY KEY AUTOINCREMENT, uuid TEXT NOT NULL UNIQUE, "
    "sender TEXT NOT NULL, receiver TEXT NOT NULL, body TEXT NOT NULL, body_type INTEGER NOT NULL, "
    "msg_type INTEGER NOT NULL, sec_level INTEGER NOT NULL, stamp TEXT NOT NULL, at INTEGER NOT NULL, "
    "status INTEGER NOT NULL DEFAULT 0, modifier TEXT NOT NULL DEFAULT '', body_bytes INTEGER)",
    // one row per device: a user is online while any device is
    "CREATE TABLE IF NOT EXISTS presence (jid TEXT NOT NULL, device TEXT NOT NULL, online INTEGER NOT NULL, "
    "body TEXT NOT NULL, at INTEGER NOT NULL, PRIMARY KEY (jid, device))",
    // state: 'asked' (owner asked friend) or 'friend' (one row each way)
    "CREATE TABLE IF NOT EXISTS friends (owner TEXT NOT NULL, friend TEXT NOT NULL, state TEXT NOT NULL, "
    "text TEXT NOT NULL DEFAULT '', properties TEXT NOT NULL DEFAULT '', PRIMARY KEY (owner, friend))",
    "CREATE TABLE IF NOT EXISTS rooms (jid TEXT PRIMARY KEY, json TEXT NOT NULL)",
    "CREATE TABLE IF NOT EXISTS members (room TEXT NOT NULL, member TEXT NOT NULL, PRIMARY KEY (room, member))",
};

const char *const kMessageColumns =
    "uuid, sender, receiver, body, body_type, msg_type, sec_level, stamp, at, status, modifier";

// `column` as read back: NULL when its text is over `limit` bytes. SQLite
// measures it in its own memory and never hands the text over then.
QString bounded(const char *column, int limit = DevStore::kMaxFieldBytes)
{
    return QStringLiteral("(CASE WHEN length(CAST(%1 AS BLOB)) > %2 THEN NULL ELSE %1 END)")
        .arg(QLatin1String(column))
        .arg(limit);
}

// kMessageColumns as read back.
QString readMessageColumns()
{
    return QStringLiteral("%1, %2, %3, (CASE WHEN body_bytes > %4 THEN NULL ELSE body END), body_type, msg_type, "
                          "sec_level, %5, at, status, %6")
        .arg(bounded("uuid"), bounded("sender"), bounded("receiver"), QString::number(InputLimits::BODY_BYTES),
             bounded("stamp"), bounded("modifier"));
}

// The other end of a message for `user`: the room, or the peer.
const char *const kConversation = "(CASE WHEN msg_type = 4 OR sender = ? THEN receiver ELSE sender END)";

// The message of the row; none when one of its fields is over its limit.
std::optional<DevStore::Message> messageAt(const QSqlQuery &query, int first = 0)
{
    for (int field : {0, 1, 2, 7, 10}) {
        if (query.value(first + field).isNull())
            return std::nullopt;
    }
    DevStore::Message m;
    m.uuid = query.value(first).toString();
    m.from = query.value(first + 1).toString();
    m.to = query.value(first + 2).toString();
    m.body = query.value(first + 3).toString();
    m.bodyType = query.value(first + 4).toInt();
    m.msgType = query.value(first + 5).toInt();
    m.secLevel = query.value(first + 6).toInt();
    m.stamp = query.value(first + 7).toString();
    m.at = query.value(first + 8).toLongLong();
    m.status = query.value(first + 9).toInt();
    m.modifier = query.value(first + 10).toString();
    m.bodyWithheld = query.value(first + 3).isNull();
    return m;
}

// The messages `scope` covers, as a condition, and its values in order.
QString scopeCondition(const DevStore::Scope &scope, QVariantList *values)
{
    QString where = QStringLiteral("((msg_type = 4 AND receiver IN (SELECT room FROM members WHERE member = ?)) "
                                   "OR (msg_type <> 4 AND (sender = ? OR receiver = ?)))");
    *values << scope.user << scope.user << scope.user;
    if (!scope.conversation.isEmpty()) {
        where += QStringLiteral(" AND ") + QLatin1String(kConversation) + QStringLiteral(" = ?");
        *values << scope.user << scope.conversation;
    }
    if (scope.msgType == kGroupChat)
        where += QStringLiteral(" AND msg_type = 4");
    else if (scope.msgType != 0)
        where += QStringLiteral(" AND msg_type <> 4");
    return where;
}

} // namespace

DevStore::DevStore(const QString &path) : m_path(path)
{
    // One connection per store: its name is unique to the object.
    const QString name = QStringLiteral("devstore-") + QUuid::createUuid().toString(QUuid::WithoutBraces);
    m_db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
    m_db.setDatabaseName(path.isEmpty() ? QStringLiteral(":memory:") : path);
}

DevStore::~DevStore()
{
    const QString name = m_db.connectionName();
    m_db.close();
    m_db = QSqlDatabase();
    QSqlDatabase::removeDatabase(name);
}

bool DevStore::open(QString *error)
{
    if (!m_db.open()) {
        *error = m_db.lastError().text();
        return false;
    }
    for (const char *statement : kSchema) {
        QSqlQuery query(m_db);
        if (!query.exec(QLatin1String(statement))) {
            *error = query.lastError().text();
            return false;
        }
    }
    // A database of an older version has no body sizes: they are measured
    // once here, so that reading never has to load a body to learn it is
    // over the limit, and a body over the limit is emptied (its size kept,
    // it reads as withheld), so that it is never loaded again.
    QSqlQuery query(m_db);
    const bool sized =
        query.exec(QStringLiteral("SELECT 1 FROM pragma_table_info('messages') WHERE name = 'body_bytes'")) &&
        query.next();
    if ((!sized && !query.exec(QStringLiteral("ALTER TABLE messages ADD COLUMN body_bytes INTEGER"))) ||
        !query.exec(QStringLiteral("UPDATE messages SET body_bytes = length(CAST(body AS BLOB)), body = CASE "
                                   "WHEN length(CAST(body AS BLOB)) > %1 THEN '' ELSE body END "
                                   "WHERE body_bytes IS NULL")
                        .arg(InputLimits::BODY_BYTES))) {
        *error = query.lastError().text();
        return false;
    }
    return true;
}

namespace {

bool run(QSqlQuery &query, const QString &sql, const QVariantList &values)
{
    query.prepare(sql);
    for (const QVariant &value : values) // a null QString would bind as NULL
        query.addBindValue(value.type() == QVariant::String && value.toString().isNull() ? QVariant(QLatin1String(""))
                                                                                         : value);
    if (query.exec())
        return true;
    qCWarning(lcDevServer) << "store:" << query.lastError().text() << "in" << sql;
    return false;
}

} // namespace

bool DevStore::addMessage(const Message &m)
{
    QSqlQuery query(m_db);
    return run(query,
               QStringLiteral("INSERT OR IGNORE INTO messages (%1, body_bytes) "
                              "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
                   .arg(QLatin1String(kMessageColumns)),
               {m.uuid, m.from, m.to, m.body, m.bodyType, m.msgType, m.secLevel, m.stamp, m.at, m.status,
                m.modifier, m.body.toUtf8().size()}) &&
           query.numRowsAffected() == 1;
}

std::optional<DevStore::Message> DevStore::message(const QString &uuid)
{
    QSqlQuery query(m_db);
    if (!run(query, QStringLiteral("SELECT %1 FROM messages WHERE uuid = ?").arg(readMessageColumns()), {uuid}) ||
        !query.next())
        return std::nullopt;
    return messageAt(query);
}

bool DevStore::setStatus(const QString &uuid, int status, const QString &modifier)
{
    QSqlQuery query(m_db);
    return run(query, QStringLiteral("UPDATE messages SET status = ?, modifier = ? WHERE uuid = ?"),
               {status, modifier, uuid}) &&
           query.numRowsAffected() == 1;
}

void DevStore::messages(const Scope &scope, Direction direction, int skip, int limit, const QString &anchor,
                        const Visitor<Message> &visit)
{
    const bool older = direction == Direction::Older;
    QVariantList values;
    QString where = scopeCondition(scope, &values);
    if (!anchor.isEmpty()) {
        where += older ? QStringLiteral(" AND id < (SELECT id FROM messages WHERE uuid = ?)")
                       : QStringLiteral(" AND id > (SELECT id FROM messages WHERE uuid = ?)");
        values << anchor;
    }
    values << limit << skip;
    QSqlQuery query(m_db);
    query.setForwardOnly(true);
    if (!run(query,
             QStringLiteral("SELECT %1 FROM messages WHERE %2 ORDER BY id %3 LIMIT ? OFFSET ?")
                 .arg(readMessageColumns(), where, older ? QStringLiteral("DESC") : QStringLiteral("ASC")),
             values))
        return;
    while (query.next()) {
        std::optional<Message> m = messageAt(query);
        if (m && !visit(std::move(*m)))
            return;
    }
}

void DevStore::conversations(const Scope &scope, int skip, int limit, const Visitor<Conversation> &visit)
{
    QVariantList values{scope.user};
    const QString where = scopeCondition(scope, &values);
    values << limit << skip;
    // The latest message of each conversation, with the conversation's size.
    const QString sql = QStringLiteral("SELECT %1, n, %2 FROM messages JOIN (SELECT %3 AS conv, MAX(id) AS last, "
                                       "COUNT(*) AS n FROM messages WHERE %4 GROUP BY conv) ON id = last "
                                       "ORDER BY id DESC LIMIT ? OFFSET ?")
                            .arg(bounded("conv"), readMessageColumns(), QLatin1String(kConversation), where);
    QSqlQuery query(m_db);
    query.setForwardOnly(true);
    if (!run(query, sql, values))
        return;
    while (query.next()) {
        std::optional<Message> last = messageAt(query, 2);
        if (query.value(0).isNull() || !last)
            continue;
        Conversation c;
        c.id = query.value(0).toString();
        c.count = query.value(1).toInt();
        c.last = std::move(*last);
        c.msgType = c.last.msgType;
        if (!visit(std::move(c)))
            return;
    }
}

bool DevStore::isMember(const QString &user, const QString &room)
{
    QSqlQuery query(m_db);
    return run(query, QStringLiteral("SELECT 1 FROM members WHERE room = ? AND member = ?"), {room, user}) &&
           query.next();
}

void DevStore::setPresence(const QString &jid, bool online, const QJsonObject &presence)
{
    QSqlQuery query(m_db);
    const QString body = CompactJson::text(presence);
    run(query,
        QStringLiteral("INSERT OR REPLACE INTO presence (jid, device, online, body, at) VALUES (?, ?, ?, ?, ?)"),
        {jid, presence.value(QLatin1String("device_id")).toString(), int(online), body,
         QDateTime::currentMSecsSinceEpoch()});
}

void DevStore::requestFriend(const QString &from, const QString &to, const QString &text)
{
    QSqlQuery query(m_db);
    run(query,
        QStringLiteral("INSERT INTO friends (owner, friend, state, text) VALUES (?, ?, 'asked', ?) "
                       "ON CONFLICT (owner, friend) DO UPDATE SET text = excluded.text WHERE state = 'asked'"),
        {from, to, text});
}

bool DevStore::acceptFriend(const QString &from, const QString &requester)
{
    QSqlQuery query(m_db);
    if (!run(query,
             QStringLiteral("UPDATE friends SET state = 'friend' WHERE owner = ? AND friend = ? AND state = 'asked'"),
             {requester, from}) ||
        query.numRowsAffected() != 1)
        return false;
    return run(query,
               QStringLiteral("INSERT INTO friends (owner, friend, state) VALUES (?, ?, 'friend') "
                              "ON CONFLICT (owner, friend) DO UPDATE SET state = 'friend'"),
               {from, requester});
}

void DevStore::dropFriend(const QString &a, const QString &b)
{
    QSqlQuery query(m_db);
    run(query, QStringLiteral("DELETE FROM friends WHERE (owner = ? AND friend = ?) OR (owner = ? AND friend = ?)"),
        {a, b, b, a});
}

bool DevStore::setFriendProperties(const QString &owner, const QString &friendJid, const QString &properties)
{
    QSqlQuery query(m_db);
    return run(query,
               QStringLiteral("UPDATE friends SET properties = ? WHERE owner = ? AND friend = ? AND state = 'friend'"),
               {properties, owner, friendJid}) &&
           query.numRowsAffected() == 1;
}

void DevStore::friends(const QString &owner, FriendList list, const QString &cursor, int limit,
                       const Visitor<Friend> &visit)
{
    // Requests received are the rows whose friend is the owner.
    const bool received = list == FriendList::RequestsReceived;
    const QString other = received ? QStringLiteral("owner") : QStringLiteral("friend");
    const QString sql = QStringLiteral("SELECT %3, %4, %5, COALESCE(p.online, 0) FROM friends f "
                                       "LEFT JOIN (SELECT jid, MAX(online) AS online FROM presence GROUP BY jid) p "
                                       "ON p.jid = f.%1 WHERE f.%2 = ? AND f.state = ? "
                                       "AND f.%1 > ? ORDER BY f.%1 LIMIT ?")
                            .arg(other, received ? QStringLiteral("friend") : QStringLiteral("owner"),
                                 bounded(received ? "f.owner" : "f.friend"),
                                 bounded("f.text", InputLimits::BODY_BYTES),
                                 bounded("f.properties", InputLimits::BODY_BYTES));
    const QString state = list == FriendList::Friends ? QStringLiteral("friend") : QStringLiteral("asked");
    QSqlQuery query(m_db);
    query.setForwardOnly(true);
    if (!run(query, sql, {owner, state, cursor, limit}))
        return;
    while (query.next()) {
        if (!query.value(0).isNull() &&
            !visit({query.value(0).toString(), query.value(1).toString(), query.value(2).toString(),
                    query.value(3).toInt() != 0}))
            return;
    }
}

QStringList DevStore::friendsOf(const QString &jid)
{
    QSqlQuery query(m_db);
    QStringList found;
    if (!run(query,
             QStringLiteral("SELECT %1 FROM friends WHERE owner = ? AND state = 'friend' ORDER BY friend")
                 .arg(bounded("friend")),
             {jid}))
        return found;
    while (query.next()) {
        if (!query.value(0).isNull())
            found << query.value(0).toString();
    }
    return found;
}

void DevStore::saveRoom(const QString &jid, const QByteArray &json, const QStringList &members)
{
    m_db.transaction();
    QSqlQuery query(m_db);
    run(query, QStringLiteral("INSERT OR REPLACE INTO rooms (jid, json) VALUES (?, ?)"),
        {jid, QString::fromUtf8(json)});
    run(query, QStringLiteral("DELETE FROM members WHERE room = ?"), {jid});
    for (const QString &member : members)
        run(query, QStringLiteral("INSERT OR IGNORE INTO members (room, member) VALUES (?, ?)"), {jid, member});
    m_db.commit();
}

void DevStore::dropRoom(const QString &jid)
{
    QSqlQuery query(m_db);
    run(query, QStringLiteral("DELETE FROM rooms WHERE jid = ?"), {jid});
    run(query, QStringLiteral("DELETE FROM members WHERE room = ?"), {jid});
}

std::vector<QByteArray> DevStore::rooms()
{
    QSqlQuery query(m_db);
    std::vector<QByteArray> found;
    if (!run(query,
             QStringLiteral("SELECT %1, %2 FROM rooms ORDER BY jid")
                 .arg(bounded("jid"), bounded("json", InputLimits::BODY_BYTES)),
             {}))
        return found;
    while (query.next()) {
        if (query.value(1).isNull())
            qCWarning(lcDevServer).noquote() << "store: room" << query.value(0).toString()
                                             << "not loaded: its JSON is over" << InputLimits::BODY_BYTES << "bytes";
        else
            found.push_back(query.value(1).toString().toUtf8());
    }
    return found;
}
