#include "sqlitestatement.h"

#include <sqlite3.h>

#include <utility>

SqliteStatement::SqliteStatement(sqlite3 *db, std::string_view sql)
{
    rc_ = sqlite3_prepare_v2(db, sql.data(), int(sql.size()), &stmt_, nullptr);
    if (rc_ != SQLITE_OK) {
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
    }
}

SqliteStatement::~SqliteStatement()
{
    sqlite3_finalize(stmt_);
}

SqliteStatement::SqliteStatement(SqliteStatement &&other) noexcept
    : stmt_(std::exchange(other.stmt_, nullptr)), rc_(other.rc_)
{ }

SqliteStatement &SqliteStatement::operator=(SqliteStatement &&other) noexcept
{
    if (this != &other) {
        sqlite3_finalize(stmt_);
        stmt_ = std::exchange(other.stmt_, nullptr);
        rc_ = other.rc_;
    }
    return *this;
}

SqliteStatement &SqliteStatement::bind(int index, std::int64_t value)
{
    sqlite3_bind_int64(stmt_, index, value);
    return *this;
}

SqliteStatement &SqliteStatement::bind(int index, const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    sqlite3_bind_text(stmt_, index, utf8.constData(), utf8.size(), SQLITE_TRANSIENT);
    return *this;
}

SqliteStatement &SqliteStatement::bind(int index, std::string_view text)
{
    sqlite3_bind_text(stmt_, index, text.data(), int(text.size()), SQLITE_TRANSIENT);
    return *this;
}

SqliteStatement &SqliteStatement::bindNull(int index)
{
    sqlite3_bind_null(stmt_, index);
    return *this;
}

bool SqliteStatement::next()
{
    if (stmt_ == nullptr)
        return false;
    rc_ = sqlite3_step(stmt_);
    return rc_ == SQLITE_ROW;
}

bool SqliteStatement::run()
{
    while (next()) { }
    return rc_ == SQLITE_DONE;
}

void SqliteStatement::reset()
{
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

std::int64_t SqliteStatement::integer(int column) const
{
    return sqlite3_column_int64(stmt_, column);
}

QString SqliteStatement::text(int column) const
{
    const auto *utf8 = reinterpret_cast<const char *>(sqlite3_column_text(stmt_, column));
    return QString::fromUtf8(utf8, sqlite3_column_bytes(stmt_, column));
}

std::string_view SqliteStatement::utf8(int column) const
{
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(stmt_, column));
    return text == nullptr ? std::string_view()
                           : std::string_view(text, std::size_t(sqlite3_column_bytes(stmt_, column)));
}

int SqliteStatement::bytes(int column) const
{
    return sqlite3_column_bytes(stmt_, column);
}

bool SqliteStatement::isNull(int column) const
{
    return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}
