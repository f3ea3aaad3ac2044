#ifndef PUSHCHAT_STORESCHEMA_H
#define PUSHCHAT_STORESCHEMA_H

// The message store's tables, version by version (internal header).
//
// Version 1: the messages, by conversation in the order of their times,
// with their keys unique per conversation and sender, and the conversation
// index (newest message, unread count). Version 2 adds the full-text index,
// built from the bodies already there; version 3 the list of messages not
// yet in it, which version 4 replaces with the id up to which it holds
// them; version 5 indexes the keys by a number (keyHash) instead of the
// strings, and keeps no row sizes in the full-text index. A store is brought up to kVersion step by step when it is opened;
// the version is SQLite's user_version.

#include <QString>

#include <cstdint>
#include <string_view>

class SqliteDatabase;

namespace StoreSchema {

constexpr int kVersion = 5;

/// The statements that take a store from version `to` - 1 to `to`.
const char *step(int to);

/// What the keys' index holds for a key (column key_hash): a number that is
/// never 0, or 0 for no key. Fixed for good: stores keep it.
std::int64_t keyHash(std::string_view key);
std::int64_t keyHash(const QString &key);

/// Registers search_words(body), the index's text of a body (see
/// searchtext.h), and key_hash(key), on the connection.
bool registerFunctions(SqliteDatabase &db);

/// Checks that the open database is a message store (or empty) and brings
/// it to kVersion. False, with the reason in `error`, otherwise: the file
/// is not a database, holds other tables, or comes from a newer version.
bool prepare(SqliteDatabase &db, const QString &path, QString *error);

} // namespace StoreSchema

#endif // PUSHCHAT_STORESCHEMA_H
