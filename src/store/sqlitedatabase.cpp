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

bool SqliteDatabase::open(const QString &path, bool lock)
{
    close();
    error_.clear();
    const QByteArray file = QFile::encodeName(path); // the system's encoding; SQLite takes UTF-8
    if (!path.isEmpty() && lock) {
        lockFd_ = ::open(file.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (lockFd_ < 0) {
            error_ = QStringLiteral("cannot open %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
            error_ = QStringLiteral("%1 is in use by another process or another open store (locked)").arg(path);
            close();
            return false;
        }
    }
    const int rc = sqlite3_open_v2(path.isEmpty() ? ":memory:" : path.toUtf8().constData(), &db_,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        error_ = QStringLiteral("cannot open %1: %2").arg(path, QString::fromUtf8(sqlite3_errstr(rc)));
        close();
        return false;
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, 5000);
    return true;
}

void SqliteDatabase::close()
{
    if (db_ != nullptr)
        sqlite3_close_v2(db_);
    db_ = nullptr;
    // Closed after SQLite's own descriptors: closing any descriptor of the
    // file drops the process's POSIX locks on it.
    if (lockFd_ >= 0)
        ::close(lockFd_);
    lockFd_ = -1;
}

bool SqliteDatabase::exec(std::string_view sql)
{
    const std::string text(sql);
    if (db_ == nullptr || sqlite3_exec(db_, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        error_ = error();
        return false;
    }
    return true;
}

SqliteStatement SqliteDatabase::prepare(std::string_view sql)
{
    return SqliteStatement(db_, sql);
}

int SqliteDatabase::changes() const
{
    return db_ != nullptr ? sqlite3_changes(db_) : 0;
}

int SqliteDatabase::errorCode() const
{
    return db_ != nullptr ? sqlite3_extended_errcode(db_) : SQLITE_CANTOPEN;
}

QString SqliteDatabase::error() const
{
    if (db_ == nullptr)
        return error_.isEmpty() ? QStringLiteral("not open") : error_;
    const int code = sqlite3_extended_errcode(db_);
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE)
        return error_;
    return QString::fromUtf8(sqlite3_errmsg(db_));
}
