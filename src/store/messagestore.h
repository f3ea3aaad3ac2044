#ifndef PUSHCHAT_MESSAGESTORE_H
#define PUSHCHAT_MESSAGESTORE_H

// MessageStore: the user's messages in one SQLite file (internal header).
//
// What it keeps is described in storedmessage.h; it knows nothing of the
// protocol. recordSent appends its message to the outbox's journal (see
// outboxjournal.h) on the caller's thread and returns once it is written.
// Every other write is queued; the store's own thread, on idle processor
// time, commits what has queued up, and the outbox's new rows, in one
// transaction (at most kBatch writes) within kGatherMs, in the order made.
// A caller that waits for a commit (a read, flush, a receive when
// kMaxQueued wait) makes it itself, on its own thread; the changes are
// told by the store's thread in the order of the commits. The full-text index follows in passes of its own: after a quiet
// spell, between commits when kIndexBacklog messages wait, and before a
// search. Reads run on any thread, on a second connection (WAL: they see
// the last commit and never wait for the writer), after the writes made
// before them are committed. Duplicate keys are caught by m_queuedKeys, a
// Bloom filter of every key, and a lookup for the keys the filter cannot
// clear.
//
// Durability: with `syncEachCommit` (the default) each append and commit
// reaches the disk before it is reported, so what recordSent accepted
// survives a power cut; without it they survive the process's death
// (SIGKILL included) but the last ones before a power cut may be lost.
//
// Failures (a full disk, a damaged file) are reported by error() and make
// the writes concerned fail; the file is never deleted or truncated.

#include "keyfilter.h"
#include "outboxjournal.h"
#include "queuedkeys.h"
#include "sqlitedatabase.h"
#include "storedmessage.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

class MessageStore {
public:
    /// Most writes in one transaction.
    static constexpr int kBatch = 512;
    /// Most writes queued: a caller recording more waits for the commits.
    static constexpr int kMaxQueued = 8 * kBatch;
    /// Most rows one retention pass deletes in one transaction.
    static constexpr int kRetentionBatch = 1000;
    /// Most messages one pass adds to the full-text index, in one
    /// transaction; and the backlog that has passes run between writes.
    static constexpr int kIndexBatch = 2000;
    static constexpr int kIndexBacklog = 10000;

    explicit MessageStore(bool syncEachCommit = true);
    /// Commits what is queued, stops the thread, closes the file.
    ~MessageStore();
    MessageStore(const MessageStore &) = delete;
    MessageStore &operator=(const MessageStore &) = delete;

    /// Told of every message recorded or changed (its new state), after
    /// the commit, and of every failure, on the store's thread (or the
    /// failing caller's). Set them before open().
    std::function<void(const StoredMessage &)> onChanged;
    std::function<void(const QString &)> onFailed;

    /// Opens or creates the store at `path` (see sqlitedatabase.h for the
    /// lock and the file's mode) and brings it to the current version.
    /// False, with error() set, when it cannot; then nothing else works.
    bool open(const QString &path);
    /// The last failure, for people; "" when there was none.
    QString error() const;

    // --- writes ---------------------------------------------------------
    /// Records a message this user sends, as Pending, and waits until it is
    /// committed. Its id; 0 when it could not be written (error() says
    /// why); -1 when its key is already stored for the same conversation
    /// and sender.
    qint64 recordSent(StoredMessage message);
    /// Records a message that arrived (live or in a history answer, with
    /// its direction and state as given) unless its key is already stored
    /// or queued for the same conversation and sender: false then, and
    /// nothing is written. A message without a key is always recorded.
    /// Waits while kMaxQueued writes are queued.
    bool recordReceived(const StoredMessage &message);
    /// A sent message the broker acknowledged: Pending becomes Sent.
    void markSent(qint64 id);
    /// The peer read the message with this key, sent by this user.
    void markReadByPeer(const QString &key);
    /// Marks the conversation's received messages read and waits for the
    /// commit; their keys (for telling the peer).
    QStringList markConversationRead(const QString &conversation);
    /// Keeps at most `maxAgeMs` of messages (0: any age) and at most
    /// `maxPerConversation` per conversation (0: any number); pending ones
    /// are kept whatever their age. Applied on the store's thread, a batch
    /// at a time between other writes, now and every ten minutes.
    void setRetention(qint64 maxAgeMs, int maxPerConversation);
    /// Waits until everything written before it is committed; false when
    /// some of it could not be.
    bool flush();

    // --- reads, any thread --------------------------------------------------
    /// At most `limit` Pending messages after the one with id `afterId`,
    /// oldest first.
    QList<StoredMessage> pending(qint64 afterId = 0, int limit = INT_MAX);
    int pendingCount() const;
    /// Every conversation, the one with the newest message first.
    QList<StoredConversation> conversations();
    /// At most `limit` messages of the conversation in the order of their
    /// times (then of recording), oldest first: the newest ones, or with
    /// `beforeKey` those before the message with that key.
    QList<StoredMessage> messages(const QString &conversation, const QString &beforeKey, int limit);
    /// At most `limit` messages whose bodies hold every word of `text`
    /// (see searchtext.h), in one conversation or (empty) all, the most
    /// recently recorded first. Messages written and not yet indexed are
    /// indexed first.
    QList<StoredMessage> search(const QString &text, const QString &conversation, int limit);
    /// The key of the newest received message with a key ("" when none).
    QString newestReceivedKey() const;
    /// The store's size on disk (the file, its write-ahead log and index).
    qint64 fileBytes() const;

private:
    struct Job;
    using Work = std::function<bool(Job &)>;
    /// Queues a write (a caller that waits for it: waitFor).
    std::shared_ptr<Job> queue(Work work);
    /// With m_mutex held: queues `job`; true when the thread must be woken.
    bool enqueueLocked(const std::shared_ptr<Job> &job);
    bool startGatheringLocked();
    /// With m_mutex held: false when the filter knows the key is not stored.
    bool mayBeStoredLocked(std::uint64_t digest) const;
    void fillFilter();
    /// Whether the message's key is stored for its conversation and sender
    /// (m_queuedKeys and the filter consulted first, by the caller).
    bool keyStored(const StoredMessage &message);
    bool waitFor(const std::shared_ptr<Job> &job);
    void run();
    std::deque<std::shared_ptr<Job>> takeJobs(std::size_t most);
    /// With m_writerMutex held: moves the outbox into messages, runs the
    /// batch, commits; what changed goes to `changed` (for tell).
    bool commitBatch(std::deque<std::shared_ptr<Job>> &batch, std::vector<StoredMessage> *changed);
    /// The outbox's rows one transaction moves, and the file they were in.
    struct Moving {
        std::vector<StoredMessage> rows;
        int file = 0;
    };
    bool recoverOutbox();
    bool moveOutbox(Moving *moving);
    void settleOutbox(Moving &moving, bool committed, std::vector<StoredMessage> *changed);
    bool writeSent(std::vector<StoredMessage> *changed);
    /// Before a read: what was written before it is committed first.
    void settle();
    bool retentionPass();
    void fail(const QString &what) const;
    bool insert(const StoredMessage &message, qint64 *id);
    /// BEGIN IMMEDIATE, and its end (see commit()), prepared once.
    bool begin();
    bool commit();
    /// Always false.
    bool rollback();
    bool indexSome(int most);
    bool indexPass();
    /// With m_writerMutex held: commits a batch of what is queued, its
    /// changes queued for deliverTells.
    bool commitQueued();
    /// On the store's thread: tells onChanged what the commits changed, in
    /// their order, with no lock held.
    void deliverTells();
    bool forget(qint64 id);
    bool recount(const QString &conversation);
    QList<StoredMessage> select(const char *sql, const std::function<void(SqliteStatement &)> &bind) const;

    const bool m_syncEachCommit;
    QString m_path;
    std::mutex m_writerMutex; // guards m_writer and its statements; taken before m_mutex
    SqliteDatabase m_writer;
    SqliteStatement m_insertMessage, m_indexOne, m_upsertConversation, m_markSent, m_readBack;
    SqliteStatement m_begin, m_commit;
    // What the open transaction changes in each conversation, written
    // once at its commit.
    struct ConversationDue {
        qint64 lastId = 0, lastAt = 0;
        int unread = 0;
    };
    std::map<QString, ConversationDue> m_conversationsDue;
    std::atomic<qint64> m_unindexed{ 0 }; // about how many messages the full-text index lacks
    // The full-text index holds every message up to this id (search_mark),
    // and its value when the open transaction began.
    qint64 m_indexedUpTo = 0, m_indexedUpToAtBegin = 0;
    mutable std::mutex m_outboxMutex; // guards m_journal and m_unmoved; taken before m_mutex
    OutboxJournal m_journal;
    std::vector<StoredMessage> m_unmoved; // in the journal, not yet moved into messages
    // Moved and not yet acknowledged, by id (the store's thread's alone):
    // what an acknowledgement tells without reading the row back.
    std::unordered_map<qint64, StoredMessage> m_movedPending;
    SqliteStatement m_readerKnownKey; // under m_readerMutex
    mutable SqliteDatabase m_reader;
    mutable std::mutex m_readerMutex;

    mutable std::mutex m_mutex; // guards what follows
    std::condition_variable m_wake;
    std::condition_variable m_done;
    std::condition_variable m_room; // the queue took a batch
    std::deque<std::shared_ptr<Job>> m_jobs;
    std::deque<std::vector<StoredMessage>> m_tells; // committed, to be told by the store's thread
    QueuedKeys m_queuedKeys;                        // messages queued or in the outbox, not yet in messages
    KeyFilter m_filter;                             // every key stored or reserved, once m_filterReady
    bool m_filterReady = false;
    mutable QString m_error;
    qint64 m_maxAgeMs = 0;
    int m_maxPerConversation = 0;
    std::int64_t m_retentionDueMs = -1; // steady ms; -1: none set
    bool m_stopping = false;
    qint64 m_nextId = 0;              // the last id given: ids follow the order of the calls
    int m_outboxRows = 0;             // rows in the outbox
    std::vector<qint64> m_sentDue;    // acknowledgements of moved messages, to be written
    bool m_moveDue = false;           // the outbox waits to be moved, or m_sentDue to be written
    std::int64_t m_gatherSinceMs = 0; // steady ms: since when queued writes wait
    std::thread m_thread;
    std::thread m_filterThread;
};

#endif // PUSHCHAT_MESSAGESTORE_H
