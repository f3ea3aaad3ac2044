#include "storeschema.h"

#include "keyfilter.h"
#include "searchtext.h"
#include "sqlitedatabase.h"
#include "utf8view.h"

#include <sqlite3.h>

#include <algorithm>

namespace {

const char *const kSteps[] = {
    // 1: messages and conversations.
    "CREATE TABLE messages("
    " id INTEGER PRIMARY KEY, conv TEXT NOT NULL, msg_key TEXT NOT NULL, sender TEXT NOT NULL,"
    " at INTEGER NOT NULL, stamp TEXT NOT NULL, body TEXT NOT NULL, body_type INTEGER NOT NULL,"
    " msg_type INTEGER NOT NULL, sec_level INTEGER NOT NULL, outgoing INTEGER NOT NULL,"
    " state INTEGER NOT NULL);"
    "CREATE INDEX messages_by_conv ON messages(conv, at, id);"
    "CREATE UNIQUE INDEX messages_by_key ON messages(conv, msg_key, sender) WHERE msg_key <> '';"
    "CREATE INDEX messages_pending ON messages(id) WHERE state = 0;"
    "CREATE INDEX messages_sent_by_key ON messages(msg_key) WHERE outgoing = 1;"
    "CREATE TABLE conversations("
    " conv TEXT PRIMARY KEY, last_id INTEGER NOT NULL, last_at INTEGER NOT NULL, unread INTEGER NOT NULL)"
    " WITHOUT ROWID;",
    // 2: the full-text index, of the bodies already there too.
    "CREATE VIRTUAL TABLE search USING fts5(words, content='', tokenize='unicode61 remove_diacritics 2');"
    "INSERT INTO search(rowid, words) SELECT id, search_words(body) FROM messages;",
    // 3: messages recorded and not yet in the full-text index (indexed in
    // passes, between and after the writes that recorded them); one index
    // by key for both the duplicate check and the peer's read marks.
    "CREATE TABLE unindexed(id INTEGER PRIMARY KEY);"
    "DROP INDEX messages_sent_by_key;"
    "DROP INDEX messages_by_key;"
    "CREATE UNIQUE INDEX messages_by_key ON messages(msg_key, conv, sender) WHERE msg_key <> '';",
    // 4: instead of that list, a mark: the full-text index holds every
    // message up to search_mark's id (those recorded later with a smaller
    // id are indexed as they are recorded), and the passes go on from it.
    "INSERT INTO search(rowid, words) SELECT id, search_words(body) FROM messages"
    " WHERE id IN (SELECT id FROM unindexed);"
    "CREATE TABLE search_mark(upto INTEGER NOT NULL);"
    "INSERT INTO search_mark SELECT coalesce(max(id), 0) FROM messages;"
    "DROP TABLE unindexed;",
    // 5: the keys' index holds a number per key (key_hash) instead of the
    // key, its conversation and its sender: a tenth of the size, and much
    // cheaper to write as keys come in no order. The rows it finds are
    // checked against the strings. And the full-text index keeps no sizes
    // of its rows (only a ranking would read them): rebuilt without, up to
    // the mark.
    "ALTER TABLE messages ADD COLUMN key_hash INTEGER NOT NULL DEFAULT 0;"
    "UPDATE messages SET key_hash = key_hash(msg_key) WHERE msg_key <> '';"
    "DROP INDEX messages_by_key;"
    "CREATE INDEX messages_by_key ON messages(key_hash) WHERE key_hash <> 0;"
    "DROP TABLE search;"
    "CREATE VIRTUAL TABLE search USING fts5(words, content='', columnsize=0,"
    " tokenize='unicode61 remove_diacritics 2');"
    "INSERT INTO search(rowid, words) SELECT id, search_words(body) FROM messages"
    " WHERE id <= (SELECT upto FROM search_mark);",
};

void searchWords(sqlite3_context *context, int, sqlite3_value **values)
{
    const auto *utf8 = reinterpret_cast<const char *>(sqlite3_value_text(values[0]));
    const int bytes = sqlite3_value_bytes(values[0]);
    if (std::all_of(utf8, utf8 + bytes, [](char c) { return (c & 0x80) == 0; })) {
        sqlite3_result_value(context, values[0]); // no CJK: the words are the text's own
        return;
    }
    const QByteArray words = SearchText::words(QString::fromUtf8(utf8, bytes)).toUtf8();
    sqlite3_result_text(context, words.constData(), words.size(), SQLITE_TRANSIENT);
}

void keyHashOf(sqlite3_context *context, int, sqlite3_value **values)
{
    const auto *utf8 = reinterpret_cast<const char *>(sqlite3_value_text(values[0]));
    sqlite3_result_int64(
        context, StoreSchema::keyHash(std::string_view(utf8, std::size_t(sqlite3_value_bytes(values[0])))));
}

int integerOf(SqliteDatabase &db, const char *sql)
{
    SqliteStatement statement = db.prepare(sql);
    return statement.next() ? int(statement.integer(0)) : -1;
}

} // namespace

const char *StoreSchema::step(int to)
{
    return to >= 1 && to <= kVersion ? kSteps[to - 1] : nullptr;
}

std::int64_t StoreSchema::keyHash(std::string_view key)
{
    return key.empty() ? 0 : std::int64_t(KeyFilter::digest(key) >> 1) | 1;
}

std::int64_t StoreSchema::keyHash(const QString &key)
{
    return keyHash(Utf8View(key).view());
}

bool StoreSchema::registerFunctions(SqliteDatabase &db)
{
    return sqlite3_create_function(db.handle(), "search_words", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr,
               searchWords, nullptr, nullptr) == SQLITE_OK &&
           sqlite3_create_function(db.handle(), "key_hash", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr, keyHashOf,
               nullptr, nullptr) == SQLITE_OK;
}

bool StoreSchema::prepare(SqliteDatabase &db, const QString &path, QString *error)
{
    const int version = integerOf(db, "PRAGMA user_version");
    if (version < 0) { // the first read of the file failed
        *error = QStringLiteral("%1 is not a message store: %2").arg(path, db.error());
        return false;
    }
    if (version > kVersion) {
        *error = QStringLiteral("%1 was made by a newer pushchat (store version %2, this one reads up to %3)")
                     .arg(path)
                     .arg(version)
                     .arg(kVersion);
        return false;
    }
    if (version == 0 && integerOf(db, "SELECT count(*) FROM sqlite_master") > 0) {
        *error = QStringLiteral("%1 is not a message store: it is a database with other tables").arg(path);
        return false;
    }
    if (!db.exec("PRAGMA journal_mode=WAL") || !registerFunctions(db)) {
        *error = QStringLiteral("cannot use %1: %2").arg(path, db.error());
        return false;
    }
    for (int to = version + 1; to <= kVersion; ++to) {
        const std::string steps =
            std::string("BEGIN IMMEDIATE;") + step(to) + "PRAGMA user_version=" + std::to_string(to) + ";COMMIT;";
        if (!db.exec(steps)) {
            *error = QStringLiteral("cannot bring %1 to store version %2: %3").arg(path).arg(to).arg(db.error());
            db.exec("ROLLBACK");
            return false;
        }
    }
    return true;
}
