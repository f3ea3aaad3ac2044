#ifndef PUSHCHAT_SQLITESTATEMENT_H
#define PUSHCHAT_SQLITESTATEMENT_H

// One prepared SQLite statement (internal header). Owns its sqlite3_stmt;
// used on one thread at a time, with its connection's lock held by the
// caller where the connection is shared. Texts go in and out as UTF-8;
// binding indexes count from 1, column indexes from 0. A QString bound is
// held as UTF-8 by the statement until its next binding at that index (the
// room kept from one use to the next), and bound without a copy of
// SQLite's own.

#include <QString>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

class SqliteStatement {
public:
    SqliteStatement() = default;
    SqliteStatement(sqlite3 *db, std::string_view sql);
    ~SqliteStatement();
    SqliteStatement(SqliteStatement &&other) noexcept;
    SqliteStatement &operator=(SqliteStatement &&other) noexcept;
    SqliteStatement(const SqliteStatement &) = delete;
    SqliteStatement &operator=(const SqliteStatement &) = delete;

    /// False when the statement did not compile (the connection's error says why).
    bool valid() const { return m_stmt != nullptr; }

    SqliteStatement &bind(int index, std::int64_t value);
    SqliteStatement &bind(int index, int value) { return bind(index, std::int64_t(value)); }
    SqliteStatement &bind(int index, const QString &text);
    SqliteStatement &bind(int index, std::string_view text);
    SqliteStatement &bindNull(int index);

    /// Steps once: true while a row is there to read.
    bool next();
    /// Runs to the end; true when it finished without error.
    bool run();
    /// The result code of the last step (SQLITE_ROW, SQLITE_DONE, an error).
    int result() const { return m_rc; }
    /// Clears bindings and rewinds, for the next use; a statement kept
    /// between uses must be reset after it, or its read stays open.
    void reset();

    std::int64_t integer(int column) const;
    QString text(int column) const;
    /// A text column's UTF-8, valid until the next step or reset.
    std::string_view utf8(int column) const;
    /// Bytes of a text or blob column, without reading it.
    int bytes(int column) const;
    bool isNull(int column) const;

private:
    sqlite3_stmt *m_stmt = nullptr;
    int m_rc = 0;
    std::vector<std::string> m_held; // the texts bound, by index - 1
};

#endif // PUSHCHAT_SQLITESTATEMENT_H
