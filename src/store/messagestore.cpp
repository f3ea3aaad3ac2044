#include "messagestore.h"

#include "keyfilter.h"
#include "pushchatlog.h"
#include "searchtext.h"
#include "storeschema.h"

#include <QDateTime>
#include <QFileInfo>

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr const char *kColumns =
    "m.id, m.conv, m.msg_key, m.sender, m.at, m.stamp, m.body, m.body_type, m.msg_type, m.sec_level, m.outgoing, "
    "m.state";
constexpr std::int64_t kRetentionEveryMs = 10 * 60 * 1000;
constexpr std::int64_t kGatherMs = 50;        // writes nobody waits for are committed within this
constexpr std::int64_t kIndexQuietMs = 200;   // an index pass follows this long without writes
constexpr std::int64_t kBackPressureMs = 100; // a receive waits this long for room, then commits

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
// time, stamp, body, body type, message type, level; and the key's hash
// as ?13.
void bindFields(SqliteStatement &s, const StoredMessage &m)
{
    s.reset();
    s.bind(1, m.conversation).bind(2, m.key).bind(3, m.sender).bind(4, std::int64_t(m.time)).bind(5, m.stamp);
    s.bind(6, m.body).bind(7, m.bodyType).bind(8, m.messageType).bind(9, m.securityLevel);
    s.bind(13, StoreSchema::keyHash(m.key));
}

std::uint64_t digestOf(const StoredMessage &m)
{
    return KeyFilter::digest(m.conversation, m.sender, m.key);
}

} // namespace

struct MessageStore::Job {
    Work work;
    StoredMessage received;   // a received message's job: the message (with a key: reserved in m_queuedKeys)
    std::uint64_t digest = 0; // its identity's
    qint64 id = 0;
    std::vector<StoredMessage> recorded; // told after the commit
    std::vector<qint64> touched;         // changed: read back and told after the commit
    QStringList keys;
    bool done = false;
    bool ok = false;
};

MessageStore::MessageStore(bool syncEachCommit) : m_syncEachCommit(syncEachCommit), m_journal(syncEachCommit)
{ }

MessageStore::~MessageStore()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_room.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    if (m_filterThread.joinable())
        m_filterThread.join();
}

bool MessageStore::open(const QString &path)
{
    m_path = path;
    QString why;
    if (!m_writer.open(path, true, false)) {
        fail(m_writer.error());
        return false;
    }
    if (!StoreSchema::prepare(m_writer, path, &why)) {
        m_writer.close();
        fail(why);
        return false;
    }
    m_writer.exec(m_syncEachCommit ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
    m_writer.exec("PRAGMA cache_size=-16384"); // 16 MiB: the indexes' pages of a large store stay at hand
    m_insertMessage = m_writer.prepare(
        "INSERT OR IGNORE INTO messages(id, conv, msg_key, sender, at, stamp, body, body_type, msg_type, sec_level,"
        " outgoing, state, key_hash) VALUES(?12, ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?13)");
    m_indexOne = m_writer.prepare("INSERT INTO search(rowid, words) VALUES(?1, search_words(?2))");
    SqliteStatement mark = m_writer.prepare("SELECT upto FROM search_mark");
    m_indexedUpTo = mark.next() ? mark.integer(0) : 0;
    mark.reset();
    SqliteStatement unindexed = m_writer.prepare("SELECT count(*) FROM messages WHERE id > ?1");
    m_unindexed = unindexed.bind(1, std::int64_t(m_indexedUpTo)).next() ? unindexed.integer(0) : 0;
    unindexed.reset();
    SqliteStatement newest = m_writer.prepare("SELECT coalesce(max(id), 0) FROM messages");
    m_nextId = newest.next() ? qint64(newest.integer(0)) : 0;
    newest.reset();
    m_markSent = m_writer.prepare("UPDATE messages SET state = 1 WHERE id = ?1 AND state = 0");
    m_begin = m_writer.prepare("BEGIN IMMEDIATE");
    m_commit = m_writer.prepare("COMMIT");
    m_readBack = m_writer.prepare(
        QByteArray("SELECT $COLUMNS FROM messages m WHERE m.id = ?1").replace("$COLUMNS", kColumns).toStdString());
    m_upsertConversation = m_writer.prepare(
        "INSERT INTO conversations(conv, last_id, last_at, unread) VALUES(?1, ?2, ?4, ?3) ON CONFLICT(conv) DO UPDATE"
        " SET last_id = CASE WHEN excluded.last_at >= last_at THEN excluded.last_id ELSE last_id END,"
        " last_at = max(last_at, excluded.last_at), unread = unread + excluded.unread");
    if (!m_insertMessage.valid() || !m_indexOne.valid() || !m_upsertConversation.valid() || !m_markSent.valid() ||
        !m_readBack.valid() || !m_begin.valid() || !m_commit.valid() || !m_reader.open(path, false, false) ||
        !m_reader.exec("PRAGMA query_only=1") ||
        !(m_readerKnownKey = m_reader.prepare("SELECT 1 FROM messages WHERE key_hash = ?4 AND key_hash <> 0"
                                              " AND conv = ?1 AND sender = ?2 AND msg_key = ?3"))
             .valid()) {
        fail(QStringLiteral("cannot use %1: %2").arg(path, m_reader.isOpen() ? m_writer.error() : m_reader.error()));
        m_writer.close();
        return false;
    }
    if (!recoverOutbox())
        return false;
    m_filter = KeyFilter(std::size_t(std::max<qint64>(2 * m_nextId, 1 << 18)));
    m_thread = std::thread([this] { run(); });
    m_filterThread = std::thread([this] { fillFilter(); });
    return true;
}

// What the outbox's files hold after a run that ended before its store's
// thread moved it (a crash, a power cut): into messages, as it was, then
// the files emptied. Rows moved already are there by id, and ignored.
bool MessageStore::recoverOutbox()
{
    std::vector<StoredMessage> found;
    bool ok = m_journal.open(m_path, &found);
    if (ok && !found.empty()) {
        ok = begin();
        for (const StoredMessage &m : found) {
            qint64 id = 0;
            ok = ok && insert(m, &id);
            m_nextId = std::max(m_nextId, m.id);
        }
        ok = ok ? commit() : rollback();
        qCInfo(lcStore) << "recovered" << found.size() << "messages from the outbox";
    }
    if (!(ok && m_journal.reset())) {
        fail(QStringLiteral("cannot use the outbox of %1: %2")
                 .arg(m_path, m_journal.error().isEmpty() ? m_writer.error() : m_journal.error()));
        m_writer.close();
        return false;
    }
    return true;
}

QString MessageStore::error() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_error;
}

void MessageStore::fail(const QString &what) const
{
    qCWarning(lcStore).noquote() << "message store:" << what;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_error = what;
    }
    if (onFailed)
        onFailed(what);
}

// --- the store's thread -------------------------------------------------------

std::shared_ptr<MessageStore::Job> MessageStore::queue(Work work)
{
    auto job = std::make_shared<Job>();
    job->work = std::move(work);
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_thread.joinable() || m_stopping)
            return nullptr;
        wake = enqueueLocked(job);
    }
    if (wake)
        m_wake.notify_one();
    return job;
}

// With m_mutex held, before more work is added: true, and the gathering's
// clock started, when the thread has nothing to do.
bool MessageStore::startGatheringLocked()
{
    const bool idle = m_jobs.empty() && !m_moveDue;
    if (idle)
        m_gatherSinceMs = steadyMs();
    return idle;
}

// Only what changes the thread's plan wakes it: the first write of a
// gathering (which starts its clock), a full batch (a write somebody waits
// for is committed by that caller, see waitFor). A wake-up for every write
// would cost a thread switch each.
bool MessageStore::enqueueLocked(const std::shared_ptr<Job> &job)
{
    const bool idle = startGatheringLocked();
    m_jobs.push_back(job);
    return idle || m_jobs.size() == std::size_t(kBatch);
}

// The store's thread runs on idle processor time alone, which a busy
// machine may leave it little of: a caller that waits commits the queue
// itself, on its own thread, up to its job (the changes are still told by
// the store's thread, in the order of the commits).
bool MessageStore::waitFor(const std::shared_ptr<Job> &job)
{
    if (job == nullptr)
        return false;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (job->done)
                return job->ok;
        }
        std::lock_guard<std::mutex> writer(m_writerMutex);
        if (!job->done) // else the store's thread committed it meanwhile
            commitQueued();
    }
}

// Writes are taken from the queue only with m_writerMutex held, so that
// they are committed in the order they were queued, recordSent's included.
std::deque<std::shared_ptr<MessageStore::Job>> MessageStore::takeJobs(std::size_t most)
{
    std::deque<std::shared_ptr<Job>> batch;
    std::lock_guard<std::mutex> lock(m_mutex);
    while (!m_jobs.empty() && batch.size() < most) {
        batch.push_back(std::move(m_jobs.front()));
        m_jobs.pop_front();
    }
    m_moveDue = false; // the commit moves the outbox and writes what was acknowledged
    m_gatherSinceMs = steadyMs();
    m_room.notify_all();
    return batch;
}

void MessageStore::run()
{
    // On processor time nobody else wants: what it commits, nobody waits
    // for (a send waits for the journal alone; a caller that waits commits
    // itself, see waitFor), and it never takes a core from the connection's
    // threads. Where the idle class is refused, below them (nice 10).
    sched_param none{};
    if (::pthread_setschedparam(::pthread_self(), SCHED_IDLE, &none) != 0)
        ::setpriority(PRIO_PROCESS, ::gettid(), 10);
    std::int64_t wroteMs = steadyMs(); // the last batch's commit
    for (;;) {
        deliverTells();
        enum {
            Batch,
            Retention,
            Index
        } next = Batch;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            const auto due = [&] { return m_retentionDueMs >= 0 && steadyMs() >= m_retentionDueMs; };
            const auto quiet = [&] { return m_unindexed > 0 && steadyMs() >= wroteMs + kIndexQuietMs; };
            while (!m_stopping && m_jobs.empty() && !m_moveDue && !due() && !quiet() && m_tells.empty()) {
                std::int64_t until = m_retentionDueMs;
                if (m_unindexed > 0 && (until < 0 || wroteMs + kIndexQuietMs < until))
                    until = wroteMs + kIndexQuietMs;
                if (until < 0)
                    m_wake.wait(lock);
                else
                    m_wake.wait_for(lock, std::chrono::milliseconds(until - steadyMs()));
            }
            // Writes nobody waits for gather for a while: one commit for many.
            const auto gathered = [&] {
                return m_stopping || m_jobs.size() >= std::size_t(kBatch) || steadyMs() >= m_gatherSinceMs + kGatherMs;
            };
            while ((!m_jobs.empty() || m_moveDue) && !gathered())
                m_wake.wait_for(lock, std::chrono::milliseconds(m_gatherSinceMs + kGatherMs - steadyMs()));
            if (!m_tells.empty())
                continue; // a caller committed: its changes told first
            if (m_jobs.empty() && !m_moveDue && m_stopping)
                return;
            if (m_jobs.empty() && !m_moveDue)
                next = due() ? Retention : Index;
        }
        if (next == Batch) {
            std::lock_guard<std::mutex> lock(m_writerMutex);
            commitQueued();
            // A backlog that writes without a pause would let grow is
            // indexed between batches.
            if (m_unindexed >= kIndexBacklog)
                indexPass();
            wroteMs = steadyMs();
            continue;
        }
        if (next == Index) {
            std::lock_guard<std::mutex> lock(m_writerMutex);
            if (!indexPass())
                wroteMs = steadyMs(); // tried again after the next quiet spell
            continue;
        }
        bool more = false;
        {
            std::lock_guard<std::mutex> lock(m_writerMutex);
            more = retentionPass();
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_retentionDueMs >= 0)
            m_retentionDueMs = steadyMs() + (more ? 0 : kRetentionEveryMs);
    }
}

bool MessageStore::commitBatch(std::deque<std::shared_ptr<Job>> &batch, std::vector<StoredMessage> *changed)
{
    Moving moving;
    std::vector<StoredMessage> sent; // told once committed
    bool ok = begin() && moveOutbox(&moving) && writeSent(&sent);
    for (const auto &job : batch) {
        job->ok = ok && job->work(*job);
        ok = ok && job->ok;
    }
    ok = ok ? commit() : rollback();
    if (!ok)
        fail(QStringLiteral("cannot write to %1: %2").arg(m_path, m_writer.error()));
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto &job : batch) {
            job->ok = job->ok && ok;
            job->done = true;
            if (!job->received.key.isEmpty())
                m_queuedKeys.remove(job->digest, job->received);
        }
    }
    settleOutbox(moving, ok, changed);
    m_done.notify_all();
    if (!ok || !onChanged)
        return ok;
    changed->insert(changed->end(), std::make_move_iterator(sent.begin()), std::make_move_iterator(sent.end()));
    for (const auto &job : batch) {
        changed->insert(changed->end(), std::make_move_iterator(job->recorded.begin()),
            std::make_move_iterator(job->recorded.end()));
        for (const qint64 id : job->touched) {
            m_readBack.reset();
            if (m_readBack.bind(1, std::int64_t(id)).next())
                changed->push_back(messageAt(m_readBack));
        }
    }
    m_readBack.reset();
    return ok;
}

bool MessageStore::commitQueued()
{
    std::vector<StoredMessage> changed;
    std::deque<std::shared_ptr<Job>> batch = takeJobs(kBatch);
    const bool ok = commitBatch(batch, &changed);
    if (!changed.empty()) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_tells.push_back(std::move(changed));
        }
        m_wake.notify_one(); // the store's thread tells them
    }
    return ok;
}

void MessageStore::deliverTells()
{
    std::deque<std::vector<StoredMessage>> tells;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        tells.swap(m_tells);
    }
    if (!onChanged)
        return;
    for (const std::vector<StoredMessage> &changed : tells)
        for (const StoredMessage &m : changed)
            onChanged(m);
}

bool MessageStore::insert(const StoredMessage &m, qint64 *id)
{
    SqliteStatement &s = m_insertMessage;
    bindFields(s, m);
    s.bind(10, m.outgoing ? 1 : 0).bind(11, int(m.state)).bind(12, std::int64_t(m.id));
    if (!s.run())
        return false;
    *id = 0;
    if (m_writer.changes() == 0)
        return true; // already stored
    *id = m.id;
    ConversationDue &due = m_conversationsDue[m.conversation];
    if (due.lastId == 0 || m.time >= due.lastAt) {
        due.lastId = m.id;
        due.lastAt = m.time;
    }
    due.unread += m.state == StoredState::Received;
    if (m.id > m_indexedUpTo) {
        ++m_unindexed; // for a pass
        return true;
    }
    // Below the mark (its id was given before a pass that went past it
    // was committed): indexed now.
    m_indexOne.reset();
    return m_indexOne.bind(1, std::int64_t(m.id)).bind(2, m.body).run();
}

bool MessageStore::begin()
{
    m_indexedUpToAtBegin = m_indexedUpTo;
    m_begin.reset();
    return m_begin.run();
}

// Undoes the open transaction, and what it changed in memory.
bool MessageStore::rollback()
{
    m_writer.exec("ROLLBACK");
    m_conversationsDue.clear();
    m_indexedUpTo = m_indexedUpToAtBegin;
    return false;
}

// The conversations' changes of the transaction, one row each, then the
// commit; a failure rolls it back.
bool MessageStore::commit()
{
    bool ok = true;
    for (const auto &[conversation, due] : m_conversationsDue) {
        m_upsertConversation.reset();
        ok = ok && m_upsertConversation.bind(1, conversation)
                       .bind(2, std::int64_t(due.lastId))
                       .bind(3, due.unread)
                       .bind(4, std::int64_t(due.lastAt))
                       .run();
    }
    m_conversationsDue.clear();
    m_commit.reset();
    if (ok && m_commit.run())
        return true;
    return rollback();
}

// At most `most` of the messages not yet in the full-text index, oldest
// first, into it, in the writer's open transaction; the mark follows.
bool MessageStore::indexSome(int most)
{
    SqliteStatement some =
        m_writer.prepare("SELECT count(*), max(id) FROM (SELECT id FROM messages WHERE id > ?1 ORDER BY id LIMIT ?2)");
    if (!some.bind(1, std::int64_t(m_indexedUpTo)).bind(2, most).next())
        return false;
    const qint64 count = some.integer(0), upto = some.integer(1);
    some.reset();
    if (count == 0) {
        m_unindexed = 0;
        return true;
    }
    const bool ok = m_writer
                        .prepare(
                            "INSERT INTO search(rowid, words) SELECT id, search_words(body) FROM messages"
                            " WHERE id > ?1 AND id <= ?2")
                        .bind(1, std::int64_t(m_indexedUpTo))
                        .bind(2, std::int64_t(upto))
                        .run() &&
                    m_writer.prepare("UPDATE search_mark SET upto = ?1").bind(1, std::int64_t(upto)).run();
    if (!ok)
        return false;
    m_indexedUpTo = upto;
    m_unindexed = count < most ? 0 : std::max<qint64>(0, m_unindexed - count);
    return true;
}

// One transaction of indexing.
bool MessageStore::indexPass()
{
    if (begin() && (indexSome(kIndexBatch) ? commit() : rollback()))
        return true;
    fail(QStringLiteral("cannot index %1: %2").arg(m_path, m_writer.error()));
    return false;
}

// The sent messages written to the outbox, into messages, in the store's
// transaction; the outbox's file that held them is emptied once it is
// committed (settleOutbox). Should the process die in between, they are
// moved again at the next opening, and ignored then (their ids are there
// already).
bool MessageStore::moveOutbox(Moving *moving)
{
    {
        std::lock_guard<std::mutex> lock(m_outboxMutex);
        moving->rows.swap(m_unmoved);
        m_unmoved.reserve(moving->rows.size()); // as many again, likely
        moving->file = m_journal.rotate();
    }
    for (const StoredMessage &m : moving->rows) {
        qint64 id = 0;
        if (!insert(m, &id))
            return false;
    }
    return true;
}

// The acknowledgements of moved messages, Pending to Sent, in the open
// transaction (after the outbox's rows: a message is moved before its
// acknowledgement is gathered here). The messages changed are told from
// m_movedPending, which holds the moved rows not yet acknowledged, or
// read back.
bool MessageStore::writeSent(std::vector<StoredMessage> *changed)
{
    std::vector<qint64> ids;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ids.swap(m_sentDue);
    }
    for (const qint64 id : ids) {
        m_markSent.reset();
        if (!m_markSent.bind(1, std::int64_t(id)).run())
            return false;
        if (m_writer.changes() == 0 || !onChanged)
            continue;
        const auto moved = m_movedPending.find(id);
        if (moved != m_movedPending.end()) {
            moved->second.state = StoredState::Sent;
            changed->push_back(std::move(moved->second));
            m_movedPending.erase(moved);
            continue;
        }
        m_readBack.reset();
        if (m_readBack.bind(1, std::int64_t(id)).next())
            changed->push_back(messageAt(m_readBack));
        m_readBack.reset();
    }
    return true;
}

// After the transaction: committed, the retired file is emptied and the
// rows' keys are in the table; not committed, the rows wait for the next
// one, before those sent since.
void MessageStore::settleOutbox(Moving &moving, bool committed, std::vector<StoredMessage> *changed)
{
    std::lock_guard<std::mutex> lock(m_outboxMutex);
    if (!committed) {
        m_unmoved.insert(m_unmoved.begin(), std::make_move_iterator(moving.rows.begin()),
            std::make_move_iterator(moving.rows.end()));
        return;
    }
    if (!m_journal.clear(moving.file))
        qCWarning(lcStore).noquote() << "message store:" << m_journal.error(); // moved again at the next opening
    std::lock_guard<std::mutex> guard(m_mutex);
    m_outboxRows -= int(moving.rows.size());
    // Bounded: acknowledgements that never come (a connection lost) leave
    // their messages to be read back instead.
    if (m_movedPending.size() > std::size_t(kMaxQueued))
        m_movedPending.clear();
    for (StoredMessage &m : moving.rows) {
        m_queuedKeys.remove(digestOf(m), m);
        if (m.state == StoredState::Sent) // acknowledged before it was moved
            changed->push_back(std::move(m));
        else if (onChanged)
            m_movedPending.emplace(m.id, std::move(m));
    }
}

bool MessageStore::forget(qint64 id)
{
    // A message above the mark leaves the messages alone; one below it,
    // the index too (which must be told the words it was given).
    if (id > m_indexedUpTo)
        m_unindexed = std::max<qint64>(0, m_unindexed - 1);
    else if (!m_writer
                  .prepare("INSERT INTO search(search, rowid, words)"
                           " SELECT 'delete', id, search_words(body) FROM messages WHERE id = ?1")
                  .bind(1, std::int64_t(id))
                  .run())
        return false;
    return m_writer.prepare("DELETE FROM messages WHERE id = ?1").bind(1, std::int64_t(id)).run();
}

bool MessageStore::recount(const QString &conversation)
{
    return m_writer
               .prepare(
                   "DELETE FROM conversations WHERE conv = ?1"
                   " AND NOT EXISTS (SELECT 1 FROM messages WHERE conv = ?1)")
               .bind(1, conversation)
               .run() &&
           m_writer
               .prepare(
                   "UPDATE conversations SET (last_id, last_at) = (SELECT id, at FROM messages WHERE conv = ?1"
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
        std::lock_guard<std::mutex> lock(m_mutex);
        maxAge = m_maxAgeMs;
        maxPerConversation = m_maxPerConversation;
    }
    std::map<qint64, QString> doomed; // id -> conversation
    if (maxAge > 0) {
        SqliteStatement old = m_writer.prepare("SELECT id, conv FROM messages WHERE at < ?1 AND state <> 0 LIMIT ?2");
        old.bind(1, std::int64_t(QDateTime::currentMSecsSinceEpoch() - maxAge)).bind(2, kRetentionBatch);
        while (old.next())
            doomed.emplace(old.integer(0), old.text(1));
    }
    if (maxPerConversation > 0) {
        SqliteStatement conversations = m_writer.prepare("SELECT conv FROM conversations");
        SqliteStatement surplus = m_writer.prepare(
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
    bool ok = begin();
    std::set<QString> touched;
    for (const auto &[id, conversation] : doomed) {
        ok = ok && forget(id);
        touched.insert(conversation);
    }
    for (const QString &conversation : touched)
        ok = ok && recount(conversation);
    if (!(ok ? commit() : rollback())) {
        fail(QStringLiteral("cannot apply the retention to %1: %2").arg(m_path, m_writer.error()));
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
    const std::uint64_t digest = digestOf(message);
    bool maybe = true;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_thread.joinable() || m_stopping)
            return 0;
        if (!m_queuedKeys.add(digest, message))
            return -1; // reserved while it is written
        maybe = mayBeStoredLocked(digest);
        m_filter.add(digest);
        message.id = ++m_nextId;
    }
    // Written on the caller's thread, into the outbox alone, a file of its
    // own: a send waits for one append, never for the store's thread.
    const bool known = maybe && keyStored(message);
    bool ok = false, wake = false;
    {
        std::lock_guard<std::mutex> lock(m_outboxMutex);
        ok = !known && m_journal.append(message);
        if (ok)
            m_unmoved.push_back(message);
        else if (!known)
            fail(m_journal.error());
        std::lock_guard<std::mutex> guard(m_mutex);
        if (ok) {
            ++m_outboxRows;
            wake = startGatheringLocked();
            m_moveDue = true;
        } else {
            m_queuedKeys.remove(digest, message);
        }
    }
    if (!ok)
        return known ? -1 : 0;
    if (wake)
        m_wake.notify_one();
    if (onChanged)
        onChanged(message);
    return message.id;
}

bool MessageStore::mayBeStoredLocked(std::uint64_t digest) const
{
    return !m_filterReady || m_filter.mayContain(digest);
}

// The keys already stored, into the filter, a thousand at a time, on a
// connection of its own, at the lowest priority (nobody waits for it); the
// keys recorded meanwhile are added as they come. Until it is done every
// key is looked up in the file.
void MessageStore::fillFilter()
{
    ::setpriority(PRIO_PROCESS, ::gettid(), 19);
    SqliteDatabase db;
    if (!db.open(m_path, false, false))
        return;
    SqliteStatement rows = db.prepare("SELECT conv, sender, msg_key FROM messages WHERE msg_key <> ''");
    std::vector<std::uint64_t> digests;
    for (;;) {
        const bool more = rows.next();
        if (more)
            digests.push_back(KeyFilter::digest(rows.utf8(0), rows.utf8(1), rows.utf8(2)));
        if (more && digests.size() < 1024)
            continue;
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const std::uint64_t digest : digests)
            m_filter.add(digest);
        digests.clear();
        if (m_stopping)
            return;
        if (!more) {
            m_filterReady = rows.result() == SQLITE_DONE;
            return;
        }
    }
}

bool MessageStore::keyStored(const StoredMessage &message)
{
    std::lock_guard<std::mutex> lock(m_readerMutex);
    const bool known = m_readerKnownKey.bind(1, message.conversation)
                           .bind(2, message.sender)
                           .bind(3, message.key)
                           .bind(4, StoreSchema::keyHash(message.key))
                           .next();
    m_readerKnownKey.reset(); // ends its read: the reader sees later commits
    return known;
}

bool MessageStore::recordReceived(const StoredMessage &message)
{
    const bool keyed = !message.key.isEmpty();
    const std::uint64_t digest = keyed ? digestOf(message) : 0;
    if (keyed) {
        bool maybe = true;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_queuedKeys.contains(digest, message))
                return false;
            maybe = mayBeStoredLocked(digest);
        }
        if (maybe && keyStored(message))
            return false;
    }
    auto job = std::make_shared<Job>();
    bool wake = false;
    job->received = message;
    job->work = [this](Job &job) {
        job.received.id = job.id;
        const bool ok = insert(job.received, &job.id);
        if (job.id > 0)
            job.recorded.push_back(job.received);
        return ok;
    };
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (keyed) {
            if (!m_queuedKeys.add(digest, message))
                return false;
            job->digest = digest;
            m_filter.add(digest);
        }
        if (!m_thread.joinable() || m_stopping)
            return true;
        job->id = ++m_nextId; // the order of arrival
        wake = enqueueLocked(job);
    }
    if (wake)
        m_wake.notify_one();
    // Back-pressure: arrivals faster than the disk wait here, not in
    // memory; a while for the store's thread (this one's wait frees the
    // processor for it), then they commit a batch themselves.
    bool full = false;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto room = [&] { return m_stopping || m_jobs.size() < std::size_t(kMaxQueued); };
        full = !m_room.wait_for(lock, std::chrono::milliseconds(kBackPressureMs), room);
    }
    if (full) {
        std::lock_guard<std::mutex> writer(m_writerMutex);
        commitQueued();
    }
    return true;
}

void MessageStore::markSent(qint64 id)
{
    {
        // Acknowledged before the store's thread moved it: moved as sent.
        // Acknowledgements come in the order of sending: the oldest first.
        std::lock_guard<std::mutex> lock(m_outboxMutex);
        const auto m =
            std::find_if(m_unmoved.begin(), m_unmoved.end(), [id](const StoredMessage &m) { return m.id == id; });
        if (m != m_unmoved.end()) {
            m->state = StoredState::Sent;
            return;
        }
    }
    // Moved already (or being moved): written with the next transaction,
    // after the outbox's rows, all the acknowledgements gathered at once.
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_thread.joinable() || m_stopping)
            return;
        wake = startGatheringLocked();
        m_sentDue.push_back(id);
        m_moveDue = true;
    }
    if (wake)
        m_wake.notify_one();
}

void MessageStore::markReadByPeer(const QString &key)
{
    queue([this, key](Job &job) {
        SqliteStatement marked = m_writer.prepare(
            "UPDATE messages SET state = 3 WHERE key_hash = ?2 AND key_hash <> 0 AND msg_key = ?1 AND outgoing = 1"
            " AND state = 1 RETURNING id");
        marked.bind(1, key).bind(2, StoreSchema::keyHash(key));
        while (marked.next())
            job.touched.push_back(marked.integer(0));
        return marked.result() == SQLITE_DONE;
    });
}

QStringList MessageStore::markConversationRead(const QString &conversation)
{
    auto job = queue([this, conversation](Job &job) {
        SqliteStatement unread = m_writer.prepare("SELECT id, msg_key FROM messages WHERE conv = ?1 AND state = 2");
        unread.bind(1, conversation);
        while (unread.next()) {
            job.touched.push_back(unread.integer(0));
            if (unread.bytes(1) > 0)
                job.keys << unread.text(1);
        }
        return m_writer.prepare("UPDATE messages SET state = 3 WHERE conv = ?1 AND state = 2")
                   .bind(1, conversation)
                   .run() &&
               m_writer.prepare("UPDATE conversations SET unread = 0 WHERE conv = ?1").bind(1, conversation).run();
    });
    return waitFor(job) ? job->keys : QStringList();
}

void MessageStore::setRetention(qint64 maxAgeMs, int maxPerConversation)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_maxAgeMs = std::max<qint64>(0, maxAgeMs);
        m_maxPerConversation = std::max(0, maxPerConversation);
        m_retentionDueMs = m_maxAgeMs > 0 || m_maxPerConversation > 0 ? steadyMs() : -1;
    }
    m_wake.notify_one();
}

bool MessageStore::flush()
{
    return waitFor(queue([](Job &) { return true; }));
}

// --- reads ------------------------------------------------------------------

QList<StoredMessage> MessageStore::select(const char *sql, const std::function<void(SqliteStatement &)> &bind) const
{
    QList<StoredMessage> out;
    std::lock_guard<std::mutex> lock(m_readerMutex);
    if (!m_reader.isOpen())
        return out;
    SqliteStatement statement = m_reader.prepare(QByteArray(sql).replace("$COLUMNS", kColumns).toStdString());
    bind(statement);
    while (statement.next())
        out << messageAt(statement);
    if (statement.result() != SQLITE_DONE)
        fail(QStringLiteral("cannot read %1: %2").arg(m_path, m_reader.error()));
    return out;
}

void MessageStore::settle()
{
    bool queued = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        queued = m_outboxRows > 0 || !m_jobs.empty() || !m_sentDue.empty();
    }
    if (queued)
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
    std::lock_guard<std::mutex> lock(m_readerMutex);
    SqliteStatement count = m_reader.prepare("SELECT count(*) FROM messages WHERE state = 0");
    const int stored = count.next() ? int(count.integer(0)) : 0;
    std::lock_guard<std::mutex> guard(m_mutex);
    return stored + m_outboxRows;
}

QList<StoredConversation> MessageStore::conversations()
{
    settle();
    QList<StoredConversation> out;
    std::lock_guard<std::mutex> lock(m_readerMutex);
    SqliteStatement rows =
        m_reader.prepare(QByteArray("SELECT c.unread, $COLUMNS FROM conversations c JOIN messages m ON m.id = c.last_id"
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
        std::lock_guard<std::mutex> lock(m_readerMutex);
        SqliteStatement anchor = m_reader.prepare(
            "SELECT at, id FROM messages"
            " WHERE key_hash = ?3 AND key_hash <> 0 AND conv = ?1 AND msg_key = ?2"
            " LIMIT 1");
        if (!anchor.bind(1, conversation).bind(2, beforeKey).bind(3, StoreSchema::keyHash(beforeKey)).next())
            return {};
        at = anchor.integer(0);
        id = anchor.integer(1);
    }
    return select(
        "SELECT * FROM (SELECT $COLUMNS FROM messages m WHERE m.conv = ?1 AND (m.at, m.id) < (?2, ?3)"
        " ORDER BY m.at DESC, m.id DESC LIMIT ?4) ORDER BY at, id",
        [&](SqliteStatement &s) { s.bind(1, conversation).bind(2, at).bind(3, id).bind(4, limit); });
}

QList<StoredMessage> MessageStore::search(const QString &text, const QString &conversation, int limit)
{
    settle();
    if (m_unindexed > 0)
        waitFor(queue([this](Job &) { return indexSome(INT_MAX); }));
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
    std::lock_guard<std::mutex> lock(m_readerMutex);
    SqliteStatement newest =
        m_reader.prepare("SELECT msg_key FROM messages WHERE outgoing = 0 AND msg_key <> '' ORDER BY id DESC LIMIT 1");
    return newest.next() ? newest.text(0) : QString();
}

qint64 MessageStore::fileBytes() const
{
    qint64 bytes = 0;
    for (const char *suffix : { "", "-wal", "-shm" })
        bytes += QFileInfo(m_path + QLatin1String(suffix)).size();
    std::lock_guard<std::mutex> lock(m_outboxMutex);
    return bytes + m_journal.bytes();
}
