#ifndef PUSHCHAT_STORESCHEMA_H
#define PUSHCHAT_STORESCHEMA_H

// The message store's tables, version by version (internal header).
//
// Version 1: the messages, by conversation in the order of their times,
// with their keys unique per conversation and sender, and the conversation
// index (newest message, unread count). Version 2 adds the full-text index,
// built from the bodies already there; version 3 the list of messages not
// yet in it, which version 4 replaces with the id up to which it holds
// them. A store is brought up to kVersion step by step when it is opened;
// the version is SQLite's user_version.

#include <QString>

class SqliteDatabase;

namespace StoreSchema {

constexpr int kVersion = 4;

/// The statements that take a store from version `to` - 1 to `to`.
const char *step(int to);

/// Registers search_words(body), the index's text of a body (see
/// searchtext.h), on the connection.
bool registerFunctions(SqliteDatabase &db);

/// Checks that the open database is a message store (or empty) and brings
/// it to kVersion. False, with the reason in `error`, otherwise: the file
/// is not a database, holds other tables, or comes from a newer version.
bool prepare(SqliteDatabase &db, const QString &path, QString *error);

} // namespace StoreSchema

#endif // PUSHCHAT_STORESCHEMA_H
