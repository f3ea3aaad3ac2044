#include "devstore.h"

#include "compactjson.h"
#include "devserverlog.h"
#include "inputlimits.h"

#include <QDateTime>
#include <QVariant>

#include <sqlite3.h>

#include <cstdint>
#include <string>

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
    return QStringLiteral(
        "%1, %2, %3, (CASE WHEN body_bytes > %4 THEN NULL ELSE body END), body_type, msg_type, "
        "sec_level, %5, at, status, %6")
        .arg(bounded("uuid"), bounded("sender"), bounded("receiver"), QString::number(InputLimits::BODY_BYTES),
            bounded("stamp"), bounded("modifier"));
}

// The other end of a message for `user`: the room, or the peer.
const char *const kConversation = "(CASE WHEN msg_type = 4 OR sender = ? THEN receiver ELSE sender END)";

// One statement of the store with its values bound in order: integers, and
// texts (a null QString binds as '', as the columns are NOT NULL). A
// statement that does not compile or fails a step is logged, and has no rows.
class Query {
public:
    Query(SqliteDatabase &db, const QString &sql, const QVariantList &values = {}) : m_db(db), m_sql(sql)
    {
        const QByteArray utf8 = sql.toUtf8();
        m_statement = db.prepare(std::string_view(utf8.constData(), std::size_t(utf8.size())));
        if (!m_statement.valid()) {
            warn();
            return;
        }
        for (int i = 0; i < values.size(); ++i) {
            const QVariant &value = values.at(i);
            if (value.userType() == QMetaType::QString)
                m_statement.bind(i + 1, value.toString());
            else
                m_statement.bind(i + 1, std::int64_t(value.toLongLong()));
        }
    }

    /// Steps once: true while a row is there to read.
    bool next()
    {
        if (!m_statement.valid())
            return false;
        if (m_statement.next())
            return true;
        if (m_statement.result() != SQLITE_DONE)
            warn();
        return false;
    }
    /// Runs to the end: true when it finished without error.
    bool exec()
    {
        while (next()) { }
        return m_statement.valid() && m_statement.result() == SQLITE_DONE;
    }

    bool isNull(int column) const { return m_statement.isNull(column); }
    QString text(int column) const { return m_statement.text(column); }
    qint64 integer(int column) const { return m_statement.integer(column); }

private:
    void warn() const { qCWarning(lcDevServer) << "store:" << m_db.error() << "in" << m_sql; }

    SqliteDatabase &m_db;
    QString m_sql;
    SqliteStatement m_statement;
};

// The message of the row; none when one of its fields is over its limit.
std::optional<DevStore::Message> messageAt(const Query &query, int first = 0)
{
    for (int field : { 0, 1, 2, 7, 10 }) {
        if (query.isNull(first + field))
            return std::nullopt;
    }
    DevStore::Message m;
    m.uuid = query.text(first);
    m.from = query.text(first + 1);
    m.to = query.text(first + 2);
    m.body = query.text(first + 3);
    m.bodyType = int(query.integer(first + 4));
    m.msgType = int(query.integer(first + 5));
    m.secLevel = int(query.integer(first + 6));
    m.stamp = query.text(first + 7);
    m.at = query.integer(first + 8);
    m.status = int(query.integer(first + 9));
    m.modifier = query.text(first + 10);
    m.bodyWithheld = query.isNull(first + 3);
    return m;
}

// The messages `scope` covers, as a condition, and its values in order.
QString scopeCondition(const DevStore::Scope &scope, QVariantList *values)
{
    QString where = QStringLiteral(
        "((msg_type = 4 AND receiver IN (SELECT room FROM members WHERE member = ?)) "
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
{ }

DevStore::~DevStore() = default;

bool DevStore::open(QString *error)
{
    if (!m_db.open(m_path)) {
        *error = m_db.error();
        return false;
    }
    for (const char *statement : kSchema) {
        if (!m_db.exec(statement)) {
            *error = m_db.error();
            return false;
        }
    }
    // A database of an older version has no body sizes: they are measured
    // once here, so that reading never has to load a body to learn it is
    // over the limit, and a body over the limit is emptied (its size kept,
    // it reads as withheld), so that it is never loaded again.
    const bool sized = m_db.prepare("SELECT 1 FROM pragma_table_info('messages') WHERE name = 'body_bytes'").next();
    const std::string measure = QStringLiteral(
        "UPDATE messages SET body_bytes = length(CAST(body AS BLOB)), "
        "body = CASE WHEN length(CAST(body AS BLOB)) > %1 THEN '' ELSE body END "
        "WHERE body_bytes IS NULL")
                                    .arg(InputLimits::BODY_BYTES)
                                    .toStdString();
    if ((!sized && !m_db.exec("ALTER TABLE messages ADD COLUMN body_bytes INTEGER")) || !m_db.exec(measure)) {
        *error = m_db.error();
        return false;
    }
    return true;
}

bool DevStore::addMessage(const Message &m)
{
    return Query(m_db,
               QStringLiteral("INSERT OR IGNORE INTO messages (%1, body_bytes) "
                              "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
                   .arg(QLatin1String(kMessageColumns)),
               { m.uuid, m.from, m.to, m.body, m.bodyType, m.msgType, m.secLevel, m.stamp, m.at, m.status, m.modifier,
                   m.body.toUtf8().size() })
               .exec() &&
           m_db.changes() == 1;
}

std::optional<DevStore::Message> DevStore::message(const QString &uuid)
{
    Query query(m_db, QStringLiteral("SELECT %1 FROM messages WHERE uuid = ?").arg(readMessageColumns()), { uuid });
    if (!query.next())
        return std::nullopt;
    return messageAt(query);
}

bool DevStore::setStatus(const QString &uuid, int status, const QString &modifier)
{
    return Query(m_db, QStringLiteral("UPDATE messages SET status = ?, modifier = ? WHERE uuid = ?"),
               { status, modifier, uuid })
               .exec() &&
           m_db.changes() == 1;
}

void DevStore::messages(
    const Scope &scope, Direction direction, int skip, int limit, const QString &anchor, const Visitor<Message> &visit)
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
    Query query(m_db,
        QStringLiteral("SELECT %1 FROM messages WHERE %2 ORDER BY id %3 LIMIT ? OFFSET ?")
            .arg(readMessageColumns(), where, older ? QStringLiteral("DESC") : QStringLiteral("ASC")),
        values);
    while (query.next()) {
        std::optional<Message> m = messageAt(query);
        if (m && !visit(std::move(*m)))
            return;
    }
}

void DevStore::conversations(const Scope &scope, int skip, int limit, const Visitor<Conversation> &visit)
{
    QVariantList values{ scope.user };
    const QString where = scopeCondition(scope, &values);
    values << limit << skip;
    // The latest message of each conversation, with the conversation's size.
    const QString sql = QStringLiteral(
        "SELECT %1, n, %2 FROM messages JOIN (SELECT %3 AS conv, MAX(id) AS last, "
        "COUNT(*) AS n FROM messages WHERE %4 GROUP BY conv) ON id = last "
        "ORDER BY id DESC LIMIT ? OFFSET ?")
                            .arg(bounded("conv"), readMessageColumns(), QLatin1String(kConversation), where);
    Query query(m_db, sql, values);
    while (query.next()) {
        std::optional<Message> last = messageAt(query, 2);
        if (query.isNull(0) || !last)
            continue;
        Conversation c;
        c.id = query.text(0);
        c.count = int(query.integer(1));
        c.last = std::move(*last);
        c.msgType = c.last.msgType;
        if (!visit(std::move(c)))
            return;
    }
}

bool DevStore::isMember(const QString &user, const QString &room)
{
    return Query(m_db, QStringLiteral("SELECT 1 FROM members WHERE room = ? AND member = ?"), { room, user }).next();
}

void DevStore::setPresence(const QString &jid, bool online, const QJsonObject &presence)
{
    const QString body = CompactJson::text(presence);
    Query(m_db,
        QStringLiteral("INSERT OR REPLACE INTO presence (jid, device, online, body, at) VALUES (?, ?, ?, ?, ?)"),
        { jid, presence.value(QLatin1String("device_id")).toString(), int(online), body,
            QDateTime::currentMSecsSinceEpoch() })
        .exec();
}

void DevStore::requestFriend(const QString &from, const QString &to, const QString &text)
{
    Query(m_db,
        QStringLiteral("INSERT INTO friends (owner, friend, state, text) VALUES (?, ?, 'asked', ?) "
                       "ON CONFLICT (owner, friend) DO UPDATE SET text = excluded.text WHERE state = 'asked'"),
        { from, to, text })
        .exec();
}

bool DevStore::acceptFriend(const QString &from, const QString &requester)
{
    if (!Query(m_db,
            QStringLiteral("UPDATE friends SET state = 'friend' WHERE owner = ? AND friend = ? AND state = 'asked'"),
            { requester, from })
             .exec() ||
        m_db.changes() != 1)
        return false;
    return Query(m_db,
        QStringLiteral("INSERT INTO friends (owner, friend, state) VALUES (?, ?, 'friend') "
                       "ON CONFLICT (owner, friend) DO UPDATE SET state = 'friend'"),
        { from, requester })
        .exec();
}

void DevStore::dropFriend(const QString &a, const QString &b)
{
    Query(m_db, QStringLiteral("DELETE FROM friends WHERE (owner = ? AND friend = ?) OR (owner = ? AND friend = ?)"),
        { a, b, b, a })
        .exec();
}

bool DevStore::setFriendProperties(const QString &owner, const QString &friendJid, const QString &properties)
{
    return Query(m_db,
               QStringLiteral("UPDATE friends SET properties = ? WHERE owner = ? AND friend = ? "
                              "AND state = 'friend'"),
               { properties, owner, friendJid })
               .exec() &&
           m_db.changes() == 1;
}

void DevStore::friends(
    const QString &owner, FriendList list, const QString &cursor, int limit, const Visitor<Friend> &visit)
{
    // Requests received are the rows whose friend is the owner.
    const bool received = list == FriendList::RequestsReceived;
    const QString other = received ? QStringLiteral("owner") : QStringLiteral("friend");
    const QString sql = QStringLiteral(
        "SELECT %3, %4, %5, COALESCE(p.online, 0) FROM friends f "
        "LEFT JOIN (SELECT jid, MAX(online) AS online FROM presence GROUP BY jid) p "
        "ON p.jid = f.%1 WHERE f.%2 = ? AND f.state = ? "
        "AND f.%1 > ? ORDER BY f.%1 LIMIT ?")
                            .arg(other, received ? QStringLiteral("friend") : QStringLiteral("owner"),
                                bounded(received ? "f.owner" : "f.friend"), bounded("f.text", InputLimits::BODY_BYTES),
                                bounded("f.properties", InputLimits::BODY_BYTES));
    const QString state = list == FriendList::Friends ? QStringLiteral("friend") : QStringLiteral("asked");
    Query query(m_db, sql, { owner, state, cursor, limit });
    while (query.next()) {
        if (!query.isNull(0) && !visit({ query.text(0), query.text(1), query.text(2), query.integer(3) != 0 }))
            return;
    }
}

QStringList DevStore::friendsOf(const QString &jid)
{
    Query query(m_db,
        QStringLiteral("SELECT %1 FROM friends WHERE owner = ? AND state = 'friend' ORDER BY friend")
            .arg(bounded("friend")),
        { jid });
    QStringList found;
    while (query.next()) {
        if (!query.isNull(0))
            found << query.text(0);
    }
    return found;
}

void DevStore::saveRoom(const QString &jid, const QByteArray &json, const QStringList &members)
{
    Query(m_db, QStringLiteral("BEGIN")).exec();
    Query(m_db, QStringLiteral("INSERT OR REPLACE INTO rooms (jid, json) VALUES (?, ?)"),
        { jid, QString::fromUtf8(json) })
        .exec();
    Query(m_db, QStringLiteral("DELETE FROM members WHERE room = ?"), { jid }).exec();
    for (const QString &member : members)
        Query(m_db, QStringLiteral("INSERT OR IGNORE INTO members (room, member) VALUES (?, ?)"), { jid, member })
            .exec();
    Query(m_db, QStringLiteral("COMMIT")).exec();
}

void DevStore::dropRoom(const QString &jid)
{
    Query(m_db, QStringLiteral("DELETE FROM rooms WHERE jid = ?"), { jid }).exec();
    Query(m_db, QStringLiteral("DELETE FROM members WHERE room = ?"), { jid }).exec();
}

std::vector<QByteArray> DevStore::rooms()
{
    Query query(m_db, QStringLiteral("SELECT %1, %2 FROM rooms ORDER BY jid")
                          .arg(bounded("jid"), bounded("json", InputLimits::BODY_BYTES)));
    std::vector<QByteArray> found;
    while (query.next()) {
        if (query.isNull(1))
            qCWarning(lcDevServer).noquote() << "store: room" << query.text(0) << "not loaded: its JSON is over"
                                             << InputLimits::BODY_BYTES << "bytes";
        else
            found.push_back(query.text(1).toUtf8());
    }
    return found;
}
