#include "sqlitedatabase.h"

#include <QFile>

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

SqliteDatabase::~SqliteDatabase()
{
    close();
}

bool SqliteDatabase::open(const QString &path, bool lock, bool serialized)
{
    close();
    m_error.clear();
    const QByteArray file = QFile::encodeName(path); // the system's encoding; SQLite takes UTF-8
    if (!path.isEmpty() && lock) {
        m_lockFd = ::open(file.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (m_lockFd < 0) {
            m_error = QStringLiteral("cannot open %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        if (::flock(m_lockFd, LOCK_EX | LOCK_NB) != 0) {
            m_error = QStringLiteral("%1 is in use by another process or another open store (locked)").arg(path);
            close();
            return false;
        }
    }
    const int rc = sqlite3_open_v2(path.isEmpty() ? ":memory:" : path.toUtf8().constData(), &m_db,
        SQLITE_OPEN_READWRITE | (serialized ? SQLITE_OPEN_FULLMUTEX : SQLITE_OPEN_NOMUTEX), nullptr);
    if (rc != SQLITE_OK) {
        m_error = QStringLiteral("cannot open %1: %2").arg(path, QString::fromUtf8(sqlite3_errstr(rc)));
        close();
        return false;
    }
    sqlite3_extended_result_codes(m_db, 1);
    sqlite3_busy_timeout(m_db, 5000);
    return true;
}

void SqliteDatabase::close()
{
    if (m_db != nullptr)
        sqlite3_close_v2(m_db);
    m_db = nullptr;
    // Closed after SQLite's own descriptors: closing any descriptor of the
    // file drops the process's POSIX locks on it.
    if (m_lockFd >= 0)
        ::close(m_lockFd);
    m_lockFd = -1;
}

bool SqliteDatabase::exec(std::string_view sql)
{
    const std::string text(sql);
    if (m_db == nullptr || sqlite3_exec(m_db, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        m_error = error();
        return false;
    }
    return true;
}

SqliteStatement SqliteDatabase::prepare(std::string_view sql)
{
    return SqliteStatement(m_db, sql);
}

int SqliteDatabase::changes() const
{
    return m_db != nullptr ? sqlite3_changes(m_db) : 0;
}

int SqliteDatabase::errorCode() const
{
    return m_db != nullptr ? sqlite3_extended_errcode(m_db) : SQLITE_CANTOPEN;
}

QString SqliteDatabase::error() const
{
    if (m_db == nullptr)
        return m_error.isEmpty() ? QStringLiteral("not open") : m_error;
    const int code = sqlite3_extended_errcode(m_db);
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE)
        return m_error;
    return QString::fromUtf8(sqlite3_errmsg(m_db));
}
