#include "messagestore.h"

#include "searchtext.h"
#include "storelog.h"
#include "storeschema.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <map>

Q_LOGGING_CATEGORY(lcStore, "pushchat.store", QtInfoMsg)

namespace {

constexpr const char *kColumns =
    "m.id, m.conv, m.msg_key, m.sender, m.at, m.stamp, m.body, m.body_type, m.msg_type, m.sec_level, m.outgoing, "
    "m.state";
constexpr std::int64_t kRetentionEveryMs = 10 * 60 * 1000;
constexpr std::int64_t kGatherMs = 10; // writes nobody waits for are committed within this

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

// Binds a message's own fields as ?1 to ?9: conversation, key, sender,
// time, stamp, body, body type, message type, level.
void bindFields(SqliteStatement &s, const StoredMessage &m)
{
    s.reset();
    s.bind(1, m.conversation).bind(2, m.key).bind(3, m.sender).bind(4, std::int64_t(m.time)).bind(5, m.stamp);
    s.bind(6, m.body).bind(7, m.bodyType).bind(8, m.messageType).bind(9, m.securityLevel);
}

QString dedupKey(const StoredMessage &m)
{
    return m.conversation + QChar(0x1f) + m.sender + QChar(0x1f) + m.key;
}

} // namespace

struct MessageStore::Job {
    Work work;
    bool awaited = false; // a caller waits for its commit
    QString dedupKey;     // a received message's, while queued
    qint64 id = 0;
    std::vector<StoredMessage> recorded; // told after the commit
    std::vector<qint64> touched;         // changed: read back and told after the commit
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
    room_.notify_all();
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
    writer_.exec("PRAGMA cache_size=-16384"); // 16 MiB: the indexes' pages of a large store stay at hand
    insertMessage_ = writer_.prepare(
        "INSERT OR IGNORE INTO messages(id, conv, msg_key, sender, at, stamp, body, body_type, msg_type, sec_level,"
        " outgoing, state) VALUES(?12, ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)");
    insertWords_ = writer_.prepare("INSERT INTO search(rowid, words) VALUES(?1, search_words(?2))");
    if (!openOutbox())
        return false;
    insertOutbox_ = outbox_.prepare(
        "INSERT INTO outbox(id, conv, msg_key, sender, at, stamp, body, body_type, msg_type, sec_level)"
        " VALUES(?10, ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
    SqliteStatement newest = writer_.prepare("SELECT coalesce(max(id), 0) FROM messages");
    SqliteStatement newestOut = outbox_.prepare("SELECT coalesce(max(id), 0), count(*) FROM outbox");
    nextId_ = std::max(newest.next() ? qint64(newest.integer(0)) : 0,
                       newestOut.next() ? qint64(newestOut.integer(0)) : 0);
    outboxRows_ = int(newestOut.integer(1));
    newestOut.reset();
    moveDue_ = outboxRows_ > 0; // what a run that ended early did not move
    markSent_ = writer_.prepare("UPDATE messages SET state = 1 WHERE id = ?1 AND state = 0");
    upsertConversation_ = writer_.prepare(
        "INSERT INTO conversations(conv, last_id, last_at, unread) VALUES(?1, ?2, ?4, ?3) ON CONFLICT(conv) DO UPDATE"
        " SET last_id = CASE WHEN excluded.last_at >= last_at THEN excluded.last_id ELSE last_id END,"
        " last_at = max(last_at, excluded.last_at), unread = unread + excluded.unread");
    if (!insertMessage_.valid() || !insertWords_.valid() || !insertOutbox_.valid() ||
        !upsertConversation_.valid() || !markSent_.valid() ||
        !reader_.open(path, false) || !reader_.exec("PRAGMA query_only=1") ||
        !(readerKnownKey_ = reader_.prepare("SELECT 1 FROM messages WHERE conv = ?1 AND sender = ?2 AND msg_key = ?3"
                                            " AND msg_key <> ''"))
             .valid()) {
        fail(QStringLiteral("cannot use %1: %2").arg(path, reader_.isOpen() ? writer_.error() : reader_.error()));
        writer_.close();
        return false;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

// The outbox's file, created with mode 0600 beside the store and covered
// by the store's lock.
bool MessageStore::openOutbox()
{
    const QString path = path_ + QLatin1String("-outbox");
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0)
        ::close(fd);
    // One connection only: exclusive locking spares each send the file
    // locks and the shared-memory index of a file others read.
    if (fd < 0 || !outbox_.open(path, false) || !outbox_.exec("PRAGMA locking_mode=EXCLUSIVE") ||
        !outbox_.exec("PRAGMA journal_mode=WAL") ||
        !outbox_.exec(syncEachCommit_ ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL") ||
        !outbox_.exec(StoreSchema::kOutbox)) {
        fail(QStringLiteral("cannot use %1: %2").arg(path, fd < 0 ? QString::fromLocal8Bit(std::strerror(errno))
                                                                   : outbox_.error()));
        writer_.close();
        return false;
    }
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
    {
        std::lock_guard<std::mutex> lock(mutex_);
        error_ = what;
    }
    if (onFailed)
        onFailed(what);
}

// --- the store's thread -------------------------------------------------------

std::shared_ptr<MessageStore::Job> MessageStore::queue(Work work, bool awaited)
{
    auto job = std::make_shared<Job>();
    job->work = std::move(work);
    job->awaited = awaited;
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!thread_.joinable() || stopping_)
            return nullptr;
        wake = enqueueLocked(job);
    }
    if (wake)
        wake_.notify_one();
    return job;
}

// With mutex_ held, before more work is added: true, and the gathering's
// clock started, when the thread has nothing to do.
bool MessageStore::startGatheringLocked()
{
    const bool idle = jobs_.empty() && !moveDue_;
    if (idle)
        gatherSinceMs_ = steadyMs();
    return idle;
}

// Only what changes the thread's plan wakes it: the first write of a
// gathering (which starts its clock), a write somebody waits for, a full
// batch. A wake-up for every write would cost a thread switch each.
bool MessageStore::enqueueLocked(const std::shared_ptr<Job> &job)
{
    const bool idle = startGatheringLocked();
    jobs_.push_back(job);
    awaited_ += job->awaited;
    return idle || job->awaited || jobs_.size() == std::size_t(kBatch);
}

bool MessageStore::waitFor(const std::shared_ptr<Job> &job)
{
    if (job == nullptr)
        return false;
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [&] { return job->done; });
    return job->ok;
}

// Writes are taken from the queue only with writerMutex_ held, so that
// they are committed in the order they were queued, recordSent's included.
std::deque<std::shared_ptr<MessageStore::Job>> MessageStore::takeJobs(std::size_t most)
{
    std::deque<std::shared_ptr<Job>> batch;
    std::lock_guard<std::mutex> lock(mutex_);
    while (!jobs_.empty() && batch.size() < most) {
        batch.push_back(std::move(jobs_.front()));
        jobs_.pop_front();
    }
    for (const auto &job : batch)
        awaited_ -= job->awaited;
    gatherSinceMs_ = steadyMs();
    room_.notify_all();
    return batch;
}

void MessageStore::run()
{
    for (;;) {
        bool retention = false;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            const auto due = [&] { return retentionDueMs_ >= 0 && steadyMs() >= retentionDueMs_; };
            while (!stopping_ && jobs_.empty() && !moveDue_ && !due()) {
                if (retentionDueMs_ < 0)
                    wake_.wait(lock);
                else
                    wake_.wait_for(lock, std::chrono::milliseconds(retentionDueMs_ - steadyMs()));
            }
            // Writes nobody waits for gather for a while: one commit for many.
            const auto gathered = [&] {
                return stopping_ || awaited_ > 0 || jobs_.size() >= std::size_t(kBatch) ||
                       steadyMs() >= gatherSinceMs_ + kGatherMs;
            };
            while ((!jobs_.empty() || moveDue_) && !gathered())
                wake_.wait_for(lock, std::chrono::milliseconds(gatherSinceMs_ + kGatherMs - steadyMs()));
            if (jobs_.empty() && stopping_)
                return;
            retention = jobs_.empty() && !moveDue_;
            moveDue_ = false;
        }
        if (!retention) {
            std::vector<StoredMessage> changed;
            {
                std::lock_guard<std::mutex> lock(writerMutex_);
                std::deque<std::shared_ptr<Job>> batch = takeJobs(kBatch);
                commitBatch(batch, &changed);
            }
            tell(changed);
            continue;
        }
        bool more = false;
        {
            std::lock_guard<std::mutex> lock(writerMutex_);
            more = retentionPass();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (retentionDueMs_ >= 0)
            retentionDueMs_ = steadyMs() + (more ? 0 : kRetentionEveryMs);
    }
}

bool MessageStore::commitBatch(std::deque<std::shared_ptr<Job>> &batch, std::vector<StoredMessage> *changed)
{
    std::vector<QString> moving; // the keys of the outbox's rows moved
    std::vector<qint64> moved;   // and their ids
    bool ok = writer_.exec("BEGIN IMMEDIATE") && moveOutbox(&moved, &moving);
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
        if (ok) {
            outboxRows_ -= int(moved.size());
            for (const QString &key : moving)
                queuedKeys_.erase(key);
        } else {
            outboxKeys_.insert(outboxKeys_.begin(), moving.begin(), moving.end());
        }
    }
    done_.notify_all();
    if (ok && !moved.empty())
        dropFromOutbox(moved);
    if (!ok || !onChanged)
        return ok;
    SqliteStatement row = writer_.prepare(QByteArray("SELECT $COLUMNS FROM messages m WHERE m.id = ?1")
                                              .replace("$COLUMNS", kColumns)
                                              .toStdString());
    for (const auto &job : batch) {
        changed->insert(changed->end(), job->recorded.begin(), job->recorded.end());
        for (const qint64 id : job->touched) {
            row.reset();
            if (row.bind(1, std::int64_t(id)).next())
                changed->push_back(messageAt(row));
        }
    }
    return ok;
}

void MessageStore::tell(const std::vector<StoredMessage> &changed) const
{
    for (const StoredMessage &m : changed)
        onChanged(m);
}

void MessageStore::collect(const char *sql, const QString &value, std::vector<qint64> *ids)
{
    SqliteStatement rows = writer_.prepare(sql);
    rows.bind(1, value);
    while (rows.next())
        ids->push_back(rows.integer(0));
}

bool MessageStore::insert(const StoredMessage &m, qint64 *id)
{
    SqliteStatement &s = insertMessage_;
    bindFields(s, m);
    s.bind(10, m.outgoing ? 1 : 0).bind(11, int(m.state)).bind(12, std::int64_t(m.id));
    if (!s.run())
        return false;
    *id = 0;
    if (writer_.changes() == 0)
        return true; // already stored
    *id = m.id;
    insertWords_.reset();
    upsertConversation_.reset();
    return insertWords_.bind(1, std::int64_t(*id)).bind(2, m.body).run() &&
           upsertConversation_.bind(1, m.conversation).bind(2, std::int64_t(*id))
        .bind(3, m.state == StoredState::Received ? 1 : 0)
        .bind(4, std::int64_t(m.time))
        .run();
}

// The sent messages written to the outbox, into messages (Pending), in
// the store's transaction; dropFromOutbox removes them once it is
// committed. Should the process die in between, they are moved again at
// the next opening, and ignored then (their ids are there already).
bool MessageStore::moveOutbox(std::vector<qint64> *ids, std::vector<QString> *keys)
{
    std::vector<StoredMessage> rows;
    {
        std::lock_guard<std::mutex> lock(outboxMutex_);
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (outboxRows_ == 0)
                return true;
            keys->swap(outboxKeys_);
        }
        SqliteStatement row = outbox_.prepare("SELECT id, conv, msg_key, sender, at, stamp, body, body_type,"
                                              " msg_type, sec_level, 1, 0 FROM outbox ORDER BY id"); // sent, Pending
        while (row.next())
            rows.push_back(messageAt(row));
        if (row.result() != SQLITE_DONE) {
            fail(QStringLiteral("cannot read %1-outbox: %2").arg(path_, outbox_.error()));
            return false;
        }
    }
    for (const StoredMessage &m : rows) {
        qint64 id = 0;
        if (!insert(m, &id))
            return false;
        ids->push_back(m.id);
    }
    return true;
}

void MessageStore::dropFromOutbox(const std::vector<qint64> &ids)
{
    std::lock_guard<std::mutex> lock(outboxMutex_);
    SqliteStatement drop = outbox_.prepare("DELETE FROM outbox WHERE id = ?1");
    bool ok = outbox_.exec("BEGIN IMMEDIATE");
    for (const qint64 id : ids) {
        drop.reset();
        ok = ok && drop.bind(1, std::int64_t(id)).run();
    }
    if (!(ok && outbox_.exec("COMMIT"))) {
        outbox_.exec("ROLLBACK"); // moved again later, and ignored then
        fail(QStringLiteral("cannot write to %1-outbox: %2").arg(path_, outbox_.error()));
    }
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
           writer_.prepare("UPDATE conversations SET (last_id, last_at) = (SELECT id, at FROM messages WHERE conv = ?1"
                           " ORDER BY at DESC, id DESC LIMIT 1),"
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
            "SELECT id FROM messages WHERE conv = ?1 AND state <> 0 ORDER BY at DESC, id DESC LIMIT ?2 OFFSET ?3");
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
    const QString key = dedupKey(message);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!thread_.joinable() || stopping_)
            return 0;
        if (queuedKeys_.count(key) != 0)
            return -1;
        queuedKeys_.insert(key); // reserved while it is written
        message.id = ++nextId_;
    }
    // Written on the caller's thread, into the outbox alone, a file of its
    // own: a send waits for one row's commit, never for the store's thread.
    const bool known = keyStored(message);
    bool ok = false, wake = false;
    {
        std::lock_guard<std::mutex> lock(outboxMutex_);
        bindFields(insertOutbox_, message);
        ok = !known && insertOutbox_.bind(10, std::int64_t(message.id)).run();
        if (!known && !ok)
            fail(QStringLiteral("cannot write to %1-outbox: %2").arg(path_, outbox_.error()));
        std::lock_guard<std::mutex> guard(mutex_);
        if (ok) {
            outboxKeys_.push_back(key);
            ++outboxRows_;
            wake = startGatheringLocked();
            moveDue_ = true;
        } else {
            queuedKeys_.erase(key);
        }
    }
    if (!ok)
        return known ? -1 : 0;
    if (wake)
        wake_.notify_one();
    if (onChanged)
        onChanged(message);
    return message.id;
}

bool MessageStore::keyStored(const StoredMessage &message)
{
    std::lock_guard<std::mutex> lock(readerMutex_);
    const bool known =
        readerKnownKey_.bind(1, message.conversation).bind(2, message.sender).bind(3, message.key).next();
    readerKnownKey_.reset(); // ends its read: the reader sees later commits
    return known;
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
        if (keyStored(message))
            return false;
    }
    auto job = std::make_shared<Job>();
    bool wake = false;
    job->dedupKey = key;
    job->work = [this, message = message](Job &job) mutable {
        message.id = job.id;
        const bool ok = insert(message, &job.id);
        if (job.id > 0)
            job.recorded.push_back(message);
        return ok;
    };
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!key.isEmpty() && !queuedKeys_.insert(key).second)
            return false;
        if (!thread_.joinable() || stopping_)
            return true;
        job->id = ++nextId_; // the order of arrival
        wake = enqueueLocked(job);
    }
    if (wake)
        wake_.notify_one();
    // Back-pressure: arrivals faster than the disk wait here, not in memory.
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait(lock, [&] { return stopping_ || jobs_.size() < std::size_t(kMaxQueued); });
    return true;
}

void MessageStore::markSent(qint64 id)
{
    queue([this, id](Job &job) {
        markSent_.reset();
        const bool ok = markSent_.bind(1, std::int64_t(id)).run();
        if (writer_.changes() > 0)
            job.touched.push_back(id);
        return ok;
    });
}

void MessageStore::markReadByPeer(const QString &key)
{
    queue([this, key](Job &job) {
        collect("SELECT id FROM messages WHERE msg_key = ?1 AND outgoing = 1 AND state = 1", key, &job.touched);
        return writer_.prepare("UPDATE messages SET state = 3 WHERE msg_key = ?1 AND outgoing = 1 AND state = 1")
            .bind(1, key)
            .run();
    });
}

QStringList MessageStore::markConversationRead(const QString &conversation)
{
    auto job = queue(
        [this, conversation](Job &job) {
        SqliteStatement unread = writer_.prepare("SELECT id, msg_key FROM messages WHERE conv = ?1 AND state = 2");
        unread.bind(1, conversation);
        while (unread.next()) {
            job.touched.push_back(unread.integer(0));
            if (unread.bytes(1) > 0)
                job.keys << unread.text(1);
        }
        return writer_.prepare("UPDATE messages SET state = 3 WHERE conv = ?1 AND state = 2")
                   .bind(1, conversation)
                   .run() &&
               writer_.prepare("UPDATE conversations SET unread = 0 WHERE conv = ?1").bind(1, conversation).run();
        },
        true);
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
    return waitFor(queue([](Job &) { return true; }, true));
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

void MessageStore::settle()
{
    bool outbox = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        outbox = outboxRows_ > 0;
    }
    if (outbox)
        flush();
}

QList<StoredMessage> MessageStore::pending(qint64 afterId, int limit)
{
    settle();
    return select("SELECT $COLUMNS FROM messages m WHERE m.state = 0 AND m.id > ?1 ORDER BY m.id LIMIT ?2",
                  [&](SqliteStatement &s) { s.bind(1, std::int64_t(afterId)).bind(2, limit); });
}

int MessageStore::pendingCount() const
{
    std::lock_guard<std::mutex> lock(readerMutex_);
    SqliteStatement count = reader_.prepare("SELECT count(*) FROM messages WHERE state = 0");
    const int stored = count.next() ? int(count.integer(0)) : 0;
    std::lock_guard<std::mutex> guard(mutex_);
    return stored + outboxRows_;
}

QList<StoredConversation> MessageStore::conversations()
{
    settle();
    QList<StoredConversation> out;
    std::lock_guard<std::mutex> lock(readerMutex_);
    SqliteStatement rows = reader_.prepare(
        QByteArray("SELECT c.unread, $COLUMNS FROM conversations c JOIN messages m ON m.id = c.last_id"
                   " ORDER BY c.last_at DESC, c.last_id DESC")
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

QList<StoredMessage> MessageStore::messages(const QString &conversation, const QString &beforeKey, int limit)
{
    settle();
    // Keyset paging on the conversation's index (conv, at, id): the anchor
    // first, then the page below it.
    std::int64_t at = INT64_MAX, id = INT64_MAX;
    if (!beforeKey.isEmpty()) {
        std::lock_guard<std::mutex> lock(readerMutex_);
        SqliteStatement anchor =
            reader_.prepare("SELECT at, id FROM messages WHERE conv = ?1 AND msg_key = ?2 AND msg_key <> '' LIMIT 1");
        if (!anchor.bind(1, conversation).bind(2, beforeKey).next())
            return {};
        at = anchor.integer(0);
        id = anchor.integer(1);
    }
    return select("SELECT * FROM (SELECT $COLUMNS FROM messages m WHERE m.conv = ?1 AND (m.at, m.id) < (?2, ?3)"
                  " ORDER BY m.at DESC, m.id DESC LIMIT ?4) ORDER BY at, id",
                  [&](SqliteStatement &s) { s.bind(1, conversation).bind(2, at).bind(3, id).bind(4, limit); });
}

QList<StoredMessage> MessageStore::search(const QString &text, const QString &conversation, int limit)
{
    settle();
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
    for (const char *suffix : { "", "-wal", "-shm", "-outbox", "-outbox-wal", "-outbox-shm" })
        bytes += QFileInfo(path_ + QLatin1String(suffix)).size();
    return bytes;
}
