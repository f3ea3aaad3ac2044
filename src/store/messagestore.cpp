#include "messagestore.h"

#include "searchtext.h"
#include "storelog.h"
#include "storeschema.h"

#include <QDateTime>
#include <QFileInfo>

#include <sqlite3.h>

#include <chrono>
#include <map>

Q_LOGGING_CATEGORY(lcStore, "pushchat.store", QtInfoMsg)

namespace {

constexpr const char *kColumns =
    "m.id, m.conv, m.msg_key, m.sender, m.at, m.stamp, m.body, m.body_type, m.msg_type, m.sec_level, m.outgoing, "
    "m.state";
constexpr std::int64_t kRetentionEveryMs = 10 * 60 * 1000;

std::int64_t steadyMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

StoredMessage messageAt(const SqliteStatement &row, int first = 0)
{
    StoredMessage m;
    m.id = row.integer(first);
    m.conversation = row.text(first + 1);
    m.key = row.text(first + 2);
    m.sender = row.text(first + 3);
    m.time = row.integer(first + 4);
    m.stamp = row.text(first + 5);
    m.body = row.text(first + 6);
    m.bodyType = int(row.integer(first + 7));
    m.messageType = int(row.integer(first + 8));
    m.securityLevel = int(row.integer(first + 9));
    m.outgoing = row.integer(first + 10) != 0;
    m.state = StoredState(row.integer(first + 11));
    return m;
}

QString dedupKey(const StoredMessage &m)
{
    return m.conversation + QChar(0x1f) + m.sender + QChar(0x1f) + m.key;
}

} // namespace

struct MessageStore::Job {
    Work work;
    QString dedupKey; // a received message's, while queued
    qint64 id = 0;
    QStringList keys;
    bool done = false;
    bool ok = false;
};

MessageStore::MessageStore(bool syncEachCommit) : syncEachCommit_(syncEachCommit) {}

MessageStore::~MessageStore()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

bool MessageStore::open(const QString &path)
{
    path_ = path;
    QString why;
    if (!writer_.open(path)) {
        fail(writer_.error());
        return false;
    }
    if (!StoreSchema::prepare(writer_, path, &why)) {
        writer_.close();
        fail(why);
        return false;
    }
    writer_.exec(syncEachCommit_ ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
    insertMessage_ = writer_.prepare(
        "INSERT OR IGNORE INTO messages(conv, msg_key, sender, at, stamp, body, body_type, msg_type, sec_level,"
        " outgoing, state) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)");
    insertWords_ = writer_.prepare("INSERT INTO search(rowid, words) VALUES(?1, search_words(?2))");
    upsertConversation_ = writer_.prepare(
        "INSERT INTO conversations(conv, last_id, unread) VALUES(?1, ?2, ?3) ON CONFLICT(conv) DO UPDATE"
        " SET last_id = max(last_id, excluded.last_id), unread = unread + excluded.unread");
    if (!insertMessage_.valid() || !insertWords_.valid() || !upsertConversation_.valid() ||
        !reader_.open(path, false) || !reader_.exec("PRAGMA query_only=1")) {
        fail(QStringLiteral("cannot use %1: %2").arg(path, reader_.isOpen() ? writer_.error() : reader_.error()));
        writer_.close();
        return false;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

QString MessageStore::error() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return error_;
}

void MessageStore::fail(const QString &what) const
{
    qCWarning(lcStore).noquote() << "message store:" << what;
    std::lock_guard<std::mutex> lock(mutex_);
    error_ = what;
}

// --- the store's thread -------------------------------------------------------

std::shared_ptr<MessageStore::Job> MessageStore::queue(Work work)
{
    auto job = std::make_shared<Job>();
    job->work = std::move(work);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!thread_.joinable() || stopping_)
            return nullptr;
        jobs_.push_back(job);
    }
    wake_.notify_one();
    return job;
}

bool MessageStore::waitFor(const std::shared_ptr<Job> &job)
{
    if (job == nullptr)
        return false;
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [&] { return job->done; });
    return job->ok;
}

void MessageStore::run()
{
    for (;;) {
        std::deque<std::shared_ptr<Job>> batch;
        bool retention = false;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            const auto due = [&] { return retentionDueMs_ >= 0 && steadyMs() >= retentionDueMs_; };
            while (!stopping_ && jobs_.empty() && !due()) {
                if (retentionDueMs_ < 0)
                    wake_.wait(lock);
                else
                    wake_.wait_for(lock, std::chrono::milliseconds(retentionDueMs_ - steadyMs()));
            }
            if (jobs_.empty() && stopping_)
                return;
            while (!jobs_.empty() && int(batch.size()) < kBatch) {
                batch.push_back(std::move(jobs_.front()));
                jobs_.pop_front();
            }
            retention = batch.empty();
        }
        if (!retention) {
            commitBatch(batch);
            continue;
        }
        const bool more = retentionPass();
        std::lock_guard<std::mutex> lock(mutex_);
        if (retentionDueMs_ >= 0)
            retentionDueMs_ = steadyMs() + (more ? 0 : kRetentionEveryMs);
    }
}

bool MessageStore::commitBatch(std::deque<std::shared_ptr<Job>> &batch)
{
    bool ok = writer_.exec("BEGIN IMMEDIATE");
    for (const auto &job : batch) {
        job->ok = ok && job->work(*job);
        ok = ok && job->ok;
    }
    ok = ok && writer_.exec("COMMIT");
    if (!ok) {
        fail(QStringLiteral("cannot write to %1: %2").arg(path_, writer_.error()));
        writer_.exec("ROLLBACK");
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto &job : batch) {
            job->ok = job->ok && ok;
            job->done = true;
            if (!job->dedupKey.isEmpty())
                queuedKeys_.erase(job->dedupKey);
        }
    }
    done_.notify_all();
    return ok;
}

bool MessageStore::insert(const StoredMessage &m, qint64 *id)
{
    SqliteStatement &s = insertMessage_;
    s.reset();
    s.bind(1, m.conversation).bind(2, m.key).bind(3, m.sender).bind(4, std::int64_t(m.time)).bind(5, m.stamp);
    s.bind(6, m.body).bind(7, m.bodyType).bind(8, m.messageType).bind(9, m.securityLevel);
    s.bind(10, m.outgoing ? 1 : 0).bind(11, int(m.state));
    if (!s.run())
        return false;
    *id = 0;
    if (writer_.changes() == 0)
        return true; // already stored
    *id = sqlite3_int64(sqlite3_last_insert_rowid(writer_.handle()));
    insertWords_.reset();
    upsertConversation_.reset();
    return insertWords_.bind(1, std::int64_t(*id)).bind(2, m.body).run() &&
           upsertConversation_.bind(1, m.conversation).bind(2, std::int64_t(*id))
               .bind(3, m.state == StoredState::Received ? 1 : 0)
               .run();
}

bool MessageStore::forget(qint64 id)
{
    return writer_.prepare("INSERT INTO search(search, rowid, words)"
                           " SELECT 'delete', id, search_words(body) FROM messages WHERE id = ?1")
               .bind(1, std::int64_t(id))
               .run() &&
           writer_.prepare("DELETE FROM messages WHERE id = ?1").bind(1, std::int64_t(id)).run();
}

bool MessageStore::recount(const QString &conversation)
{
    return writer_.prepare("DELETE FROM conversations WHERE conv = ?1"
                           " AND NOT EXISTS (SELECT 1 FROM messages WHERE conv = ?1)")
               .bind(1, conversation)
               .run() &&
           writer_.prepare("UPDATE conversations SET last_id = (SELECT max(id) FROM messages WHERE conv = ?1),"
                           " unread = (SELECT count(*) FROM messages WHERE conv = ?1 AND state = 2)"
                           " WHERE conv = ?1")
               .bind(1, conversation)
               .run();
}

// One transaction of at most kRetentionBatch deletions; true when more may
// be due.
bool MessageStore::retentionPass()
{
    qint64 maxAge;
    int maxPerConversation;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        maxAge = maxAgeMs_;
        maxPerConversation = maxPerConversation_;
    }
    std::map<qint64, QString> doomed; // id -> conversation
    if (maxAge > 0) {
        SqliteStatement old = writer_.prepare("SELECT id, conv FROM messages WHERE at < ?1 AND state <> 0 LIMIT ?2");
        old.bind(1, std::int64_t(QDateTime::currentMSecsSinceEpoch() - maxAge)).bind(2, kRetentionBatch);
        while (old.next())
            doomed.emplace(old.integer(0), old.text(1));
    }
    if (maxPerConversation > 0) {
        SqliteStatement conversations = writer_.prepare("SELECT conv FROM conversations");
        SqliteStatement surplus = writer_.prepare(
            "SELECT id FROM messages WHERE conv = ?1 AND state <> 0 ORDER BY id DESC LIMIT ?2 OFFSET ?3");
        while (conversations.next() && int(doomed.size()) < kRetentionBatch) {
            const QString conversation = conversations.text(0);
            surplus.reset();
            surplus.bind(1, conversation).bind(2, kRetentionBatch - int(doomed.size())).bind(3, maxPerConversation);
            while (surplus.next())
                doomed.emplace(surplus.integer(0), conversation);
        }
    }
    if (doomed.empty())
        return false;
    bool ok = writer_.exec("BEGIN IMMEDIATE");
    std::set<QString> touched;
    for (const auto &[id, conversation] : doomed) {
        ok = ok && forget(id);
        touched.insert(conversation);
    }
    for (const QString &conversation : touched)
        ok = ok && recount(conversation);
    if (!(ok && writer_.exec("COMMIT"))) {
        fail(QStringLiteral("cannot apply the retention to %1: %2").arg(path_, writer_.error()));
        writer_.exec("ROLLBACK");
        return false;
    }
    qCDebug(lcStore) << "retention removed" << doomed.size() << "messages";
    return int(doomed.size()) >= kRetentionBatch;
}

// --- writes -----------------------------------------------------------------

qint64 MessageStore::recordSent(StoredMessage message)
{
    message.outgoing = true;
    message.state = StoredState::Pending;
    auto job = queue([this, message](Job &job) { return insert(message, &job.id); });
    return !waitFor(job) ? 0 : job->id == 0 ? -1 : job->id;
}

bool MessageStore::recordReceived(const StoredMessage &message)
{
    const QString key = message.key.isEmpty() ? QString() : dedupKey(message);
    if (!key.isEmpty()) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (queuedKeys_.count(key) != 0)
                return false;
        }
        std::lock_guard<std::mutex> lock(readerMutex_);
        SqliteStatement known = reader_.prepare(
            "SELECT 1 FROM messages WHERE conv = ?1 AND sender = ?2 AND msg_key = ?3 AND msg_key <> ''");
        if (known.bind(1, message.conversation).bind(2, message.sender).bind(3, message.key).next())
            return false;
    }
    auto job = std::make_shared<Job>();
    job->dedupKey = key;
    job->work = [this, message](Job &job) { return insert(message, &job.id); };
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!key.isEmpty() && !queuedKeys_.insert(key).second)
            return false;
        if (!thread_.joinable() || stopping_)
            return true;
        jobs_.push_back(job);
    }
    wake_.notify_one();
    return true;
}

void MessageStore::markSent(qint64 id)
{
    queue([this, id](Job &) {
        return writer_.prepare("UPDATE messages SET state = 1 WHERE id = ?1 AND state = 0")
            .bind(1, std::int64_t(id))
            .run();
    });
}

void MessageStore::markReadByPeer(const QString &key)
{
    queue([this, key](Job &) {
        return writer_.prepare("UPDATE messages SET state = 3 WHERE msg_key = ?1 AND outgoing = 1 AND state <> 0")
            .bind(1, key)
            .run();
    });
}

QStringList MessageStore::markConversationRead(const QString &conversation)
{
    auto job = queue([this, conversation](Job &job) {
        SqliteStatement unread =
            writer_.prepare("SELECT msg_key FROM messages WHERE conv = ?1 AND state = 2 AND msg_key <> ''");
        unread.bind(1, conversation);
        while (unread.next())
            job.keys << unread.text(0);
        return writer_.prepare("UPDATE messages SET state = 3 WHERE conv = ?1 AND state = 2")
                   .bind(1, conversation)
                   .run() &&
               writer_.prepare("UPDATE conversations SET unread = 0 WHERE conv = ?1").bind(1, conversation).run();
    });
    return waitFor(job) ? job->keys : QStringList();
}

void MessageStore::setRetention(qint64 maxAgeMs, int maxPerConversation)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        maxAgeMs_ = std::max<qint64>(0, maxAgeMs);
        maxPerConversation_ = std::max(0, maxPerConversation);
        retentionDueMs_ = maxAgeMs_ > 0 || maxPerConversation_ > 0 ? steadyMs() : -1;
    }
    wake_.notify_one();
}

bool MessageStore::flush()
{
    return waitFor(queue([](Job &) { return true; }));
}

// --- reads ------------------------------------------------------------------

QList<StoredMessage> MessageStore::select(const char *sql, const std::function<void(SqliteStatement &)> &bind) const
{
    QList<StoredMessage> out;
    std::lock_guard<std::mutex> lock(readerMutex_);
    if (!reader_.isOpen())
        return out;
    SqliteStatement statement = reader_.prepare(QByteArray(sql).replace("$COLUMNS", kColumns).toStdString());
    bind(statement);
    while (statement.next())
        out << messageAt(statement);
    if (statement.result() != SQLITE_DONE)
        fail(QStringLiteral("cannot read %1: %2").arg(path_, reader_.error()));
    return out;
}

QList<StoredMessage> MessageStore::pending() const
{
    return select("SELECT $COLUMNS FROM messages m WHERE m.state = 0 ORDER BY m.id", [](SqliteStatement &) {});
}

int MessageStore::pendingCount() const
{
    std::lock_guard<std::mutex> lock(readerMutex_);
    SqliteStatement count = reader_.prepare("SELECT count(*) FROM messages WHERE state = 0");
    return count.next() ? int(count.integer(0)) : 0;
}

QList<StoredConversation> MessageStore::conversations() const
{
    QList<StoredConversation> out;
    std::lock_guard<std::mutex> lock(readerMutex_);
    SqliteStatement rows = reader_.prepare(
        QByteArray("SELECT c.unread, $COLUMNS FROM conversations c JOIN messages m ON m.id = c.last_id"
                   " ORDER BY c.last_id DESC")
            .replace("$COLUMNS", kColumns)
            .toStdString());
    while (rows.next()) {
        StoredConversation c;
        c.unread = int(rows.integer(0));
        c.last = messageAt(rows, 1);
        c.conversation = c.last.conversation;
        out << c;
    }
    return out;
}

QList<StoredMessage> MessageStore::messages(const QString &conversation, const QString &beforeKey, int limit) const
{
    return select("SELECT * FROM (SELECT $COLUMNS FROM messages m WHERE m.conv = ?1 AND m.id < CASE WHEN ?2 = ''"
                  " THEN 9223372036854775807 ELSE (SELECT min(id) FROM messages WHERE conv = ?1 AND msg_key = ?2)"
                  " END ORDER BY m.id DESC LIMIT ?3) ORDER BY id",
                  [&](SqliteStatement &s) { s.bind(1, conversation).bind(2, beforeKey).bind(3, limit); });
}

QList<StoredMessage> MessageStore::search(const QString &text, const QString &conversation, int limit) const
{
    QStringList lone;
    const QString match = SearchText::query(text, &lone);
    if (match.isEmpty() && lone.isEmpty())
        return {};
    lone = lone.mid(0, 8);
    QByteArray sql = match.isEmpty() ? "SELECT $COLUMNS FROM messages m WHERE 1"
                                     : "SELECT $COLUMNS FROM search JOIN messages m ON m.id = search.rowid"
                                       " WHERE search MATCH ?1";
    if (!conversation.isEmpty())
        sql += " AND m.conv = ?2";
    for (int i = 0; i < lone.size(); ++i)
        sql += " AND instr(m.body, ?" + QByteArray::number(i + 4) + ") > 0";
    sql += match.isEmpty() ? " ORDER BY m.id DESC LIMIT ?3" : " ORDER BY search.rowid DESC LIMIT ?3";
    return select(sql.constData(), [&](SqliteStatement &s) {
        if (!match.isEmpty())
            s.bind(1, match);
        if (!conversation.isEmpty())
            s.bind(2, conversation);
        s.bind(3, limit);
        for (int i = 0; i < lone.size(); ++i)
            s.bind(i + 4, lone[i]);
    });
}

QString MessageStore::newestReceivedKey() const
{
    std::lock_guard<std::mutex> lock(readerMutex_);
    SqliteStatement newest =
        reader_.prepare("SELECT msg_key FROM messages WHERE outgoing = 0 AND msg_key <> '' ORDER BY id DESC LIMIT 1");
    return newest.next() ? newest.text(0) : QString();
}

qint64 MessageStore::fileBytes() const
{
    qint64 bytes = 0;
    for (const char *suffix : { "", "-wal", "-shm" })
        bytes += QFileInfo(path_ + QLatin1String(suffix)).size();
    return bytes;
}
