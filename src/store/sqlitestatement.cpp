#include "sqlitestatement.h"

#include "utf8view.h"

#include <sqlite3.h>

#include <utility>

namespace {

constexpr std::size_t kKeptRoom = 64 * 1024;

} // namespace

SqliteStatement::SqliteStatement(sqlite3 *db, std::string_view sql)
{
    m_rc = sqlite3_prepare_v2(db, sql.data(), int(sql.size()), &m_stmt, nullptr);
    if (m_rc != SQLITE_OK) {
        sqlite3_finalize(m_stmt);
        m_stmt = nullptr;
        return;
    }
    // Sized once: SQLite keeps pointers into these strings, which a
    // resize would move (short ones live inside the string itself).
    m_held.resize(std::size_t(sqlite3_bind_parameter_count(m_stmt)));
}

SqliteStatement::~SqliteStatement()
{
    sqlite3_finalize(m_stmt);
}

SqliteStatement::SqliteStatement(SqliteStatement &&other) noexcept
    : m_stmt(std::exchange(other.m_stmt, nullptr)), m_rc(other.m_rc), m_held(std::move(other.m_held))
{ }

SqliteStatement &SqliteStatement::operator=(SqliteStatement &&other) noexcept
{
    if (this != &other) {
        sqlite3_finalize(m_stmt);
        m_stmt = std::exchange(other.m_stmt, nullptr);
        m_rc = other.m_rc;
        m_held = std::move(other.m_held);
    }
    return *this;
}

SqliteStatement &SqliteStatement::bind(int index, std::int64_t value)
{
    sqlite3_bind_int64(m_stmt, index, value);
    return *this;
}

SqliteStatement &SqliteStatement::bind(int index, const QString &text)
{
    if (index < 1 || std::size_t(index) > m_held.size())
        return *this; // no such parameter
    std::string &utf8 = m_held[std::size_t(index - 1)];
    Utf8View::assign(text, &utf8);
    sqlite3_bind_text(m_stmt, index, utf8.data(), int(utf8.size()), SQLITE_STATIC);
    return *this;
}

SqliteStatement &SqliteStatement::bind(int index, std::string_view text)
{
    sqlite3_bind_text(m_stmt, index, text.data(), int(text.size()), SQLITE_TRANSIENT);
    return *this;
}

SqliteStatement &SqliteStatement::bindNull(int index)
{
    sqlite3_bind_null(m_stmt, index);
    return *this;
}

bool SqliteStatement::next()
{
    if (m_stmt == nullptr)
        return false;
    m_rc = sqlite3_step(m_stmt);
    return m_rc == SQLITE_ROW;
}

bool SqliteStatement::run()
{
    while (next()) { }
    return m_rc == SQLITE_DONE;
}

void SqliteStatement::reset()
{
    sqlite3_reset(m_stmt);
    sqlite3_clear_bindings(m_stmt);
    // The texts held stay, for their room, unless a large one took much.
    for (std::string &held : m_held)
        if (held.capacity() > kKeptRoom)
            std::string().swap(held);
}

std::int64_t SqliteStatement::integer(int column) const
{
    return sqlite3_column_int64(m_stmt, column);
}

QString SqliteStatement::text(int column) const
{
    const auto *utf8 = reinterpret_cast<const char *>(sqlite3_column_text(m_stmt, column));
    return QString::fromUtf8(utf8, sqlite3_column_bytes(m_stmt, column));
}

std::string_view SqliteStatement::utf8(int column) const
{
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(m_stmt, column));
    return text == nullptr ? std::string_view()
                           : std::string_view(text, std::size_t(sqlite3_column_bytes(m_stmt, column)));
}

int SqliteStatement::bytes(int column) const
{
    return sqlite3_column_bytes(m_stmt, column);
}

bool SqliteStatement::isNull(int column) const
{
    return sqlite3_column_type(m_stmt, column) == SQLITE_NULL;
}
