#ifndef PUSHCHAT_SQLITEDATABASE_H
#define PUSHCHAT_SQLITEDATABASE_H

// One SQLite connection (internal header), owned: closed by the destructor.
//
// open() makes a missing file with mode 0600 and takes an exclusive lock
// on it for the connection's life, so that a second process (or a second
// owner in this one) is told the file is in use instead of writing beside
// it. It never deletes or truncates a file: a file that is not a database
// gives an error and stays as it was. An empty path keeps the database in
// memory. The connection runs in SQLite's serialized mode unless opened
// for one thread at a time (its owner's lock around every use): then it
// takes no lock of its own at each call. Statements are prepared by the
// owner, who keeps them on one thread or under a lock.

#include "sqlitestatement.h"

#include <QString>

#include <string_view>

class SqliteDatabase {
public:
    SqliteDatabase() = default;
    ~SqliteDatabase();
    SqliteDatabase(const SqliteDatabase &) = delete;
    SqliteDatabase &operator=(const SqliteDatabase &) = delete;

    /// Opens (creating with mode 0600 when missing) and locks `path`. With
    /// `lock` false it neither creates nor locks: a second connection of the
    /// owner that holds the lock. With `serialized` false the owner uses it
    /// from one thread at a time. False, with error() set, when it cannot.
    bool open(const QString &path, bool lock = true, bool serialized = true);
    /// Closes and releases the lock; nothing happens when not open.
    void close();
    bool isOpen() const { return m_db != nullptr; }

    /// Runs one or more statements without results; false (error() set) on failure.
    bool exec(std::string_view sql);
    /// A prepared statement; invalid (error() set) when it does not compile.
    SqliteStatement prepare(std::string_view sql);
    /// The rows changed by the last INSERT, UPDATE or DELETE.
    int changes() const;
    /// The SQLite result code of the last failure (SQLITE_FULL, ...).
    int errorCode() const;
    /// Why the last operation failed, for people; "" after a success of open().
    QString error() const;

    sqlite3 *handle() const { return m_db; }

private:
    sqlite3 *m_db = nullptr;
    int m_lockFd = -1;
    QString m_error;
};

#endif // PUSHCHAT_SQLITEDATABASE_H
