// The message store on real files: search in every script, pages, unread
// counts and keys across a reopening, retention, the first version's
// migration, and files it must refuse without harming them.

#include "keyfilter.h"
#include "messagestore.h"
#include "outboxjournal.h"
#include "sqlitedatabase.h"
#include "storeschema.h"

#include "eventlog.h"

#include <gtest/gtest.h>

#include <QDataStream>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtEndian>

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <mutex>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

StoredMessage message(const QString &conv, const QString &key, const QString &body, const QString &sender = "bob@x",
    StoredState state = StoredState::Received)
{
    StoredMessage m{ 0, conv, key, sender, QDateTime::currentMSecsSinceEpoch(), "st", body, 0, 1, 0, false, state };
    m.outgoing = state == StoredState::Pending || state == StoredState::Sent;
    return m;
}

QStringList keys(const QList<StoredMessage> &messages)
{
    QStringList out;
    for (const StoredMessage &m : messages)
        out << m.key;
    return out;
}

// A store in a folder of its own, reopened at will.
struct Folder {
    QTemporaryDir dir;
    QString path = dir.filePath("s.db");
    std::unique_ptr<MessageStore> store;
    MessageStore &open(std::function<void(const StoredMessage &)> changed = {})
    {
        store.reset();
        store = std::make_unique<MessageStore>(false);
        store->onChanged = std::move(changed);
        EXPECT_TRUE(store->open(path)) << store->error().toStdString();
        return *store;
    }
};

} // namespace

TEST(MessageStore, SearchFindsWordsInEveryScript)
{
    Folder folder;
    MessageStore &store = folder.open();
    const std::pair<const char *, const char *> bodies[] = {
        { "latin", "Hello there, Café society" },
        { "zh", "我们明天在北京见面" },
        { "ja", "東京の天気はいいですね" },
        { "ko", "한국어 공부를 합니다" },
        { "mixed", "meet 北京 friends" },
        { "one", "猫" },
    };
    for (const auto &[key, body] : bodies)
        ASSERT_TRUE(store.recordReceived(message("bob@x", key, QString::fromUtf8(body))));
    ASSERT_TRUE(store.flush());
    const std::pair<const char *, QStringList> searches[] = {
        { "hello", { "latin" } },
        { "CAFE", { "latin" } },
        { "北京", { "mixed", "zh" } },
        { "明天", { "zh" } },
        { "京见", { "zh" } },
        { "我们明天在北京", { "zh" } },
        { "東京", { "ja" } },
        { "天気", { "ja" } },
        { "한국", { "ko" } },
        { "공부", { "ko" } },
        { "猫", { "one" } },
        { "京", { "mixed", "ja", "zh" } },
        { "meet 北京", { "mixed" } },
        { "hello 北京", {} },
        { "北明", {} },
        { "\" OR *", {} },
        { "", {} },
    };
    for (const auto &[text, expected] : searches)
        EXPECT_EQ(keys(store.search(QString::fromUtf8(text), {}, 10)), expected) << text;
    EXPECT_EQ(keys(store.search("北京", "carol@x", 10)), QStringList());
    EXPECT_EQ(keys(store.search("北京", "bob@x", 1)), QStringList{ "mixed" });
}

TEST(MessageStore, PagesUnreadCountsAndKeysOutliveAReopening)
{
    Folder folder;
    MessageStore *store = &folder.open();
    for (int i = 0; i < 5; ++i)
        ASSERT_GT(store->recordSent(message("bob@x", QString("s%1").arg(i), "to bob", "me@x")), 0);
    EXPECT_EQ(store->recordSent(message("bob@x", "s0", "again", "me@x")), -1); // a key is sent once
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(store->recordReceived(message("room@x", QString("r%1").arg(i), "in the room")));
    EXPECT_FALSE(store->recordReceived(message("room@x", "r1", "repeated"))); // queued or stored: once
    EXPECT_TRUE(store->recordReceived(message("room@x", "r1", "other sender", "carol@x")));
    EXPECT_TRUE(store->recordReceived(message("room@x", "", "no key")));
    EXPECT_TRUE(store->recordReceived(message("room@x", "", "no key")));
    store->markSent(2);
    ASSERT_TRUE(store->flush());
    std::atomic<int> told{ 0 }; // changes to Read
    store = &folder.open([&](const StoredMessage &m) { told += m.state == StoredState::Read; });
    EXPECT_FALSE(store->recordReceived(message("room@x", "r2", "after the reopening")));
    const QList<StoredConversation> list = store->conversations();
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(std::make_tuple(list[0].conversation, list[0].unread, list[1].conversation, list[1].unread),
        std::make_tuple(QString("room@x"), 6, QString("bob@x"), 0));
    EXPECT_EQ(keys(store->messages("bob@x", {}, 2)), (QStringList{ "s3", "s4" }));
    EXPECT_EQ(keys(store->messages("bob@x", "s3", 2)), (QStringList{ "s1", "s2" }));
    EXPECT_EQ(keys(store->messages("bob@x", "s1", 5)), QStringList{ "s0" });
    EXPECT_EQ(keys(store->messages("bob@x", "nonesuch", 5)), QStringList());
    EXPECT_EQ(keys(store->pending()), (QStringList{ "s0", "s2", "s3", "s4" })); // id 2 is s1: sent
    store->markReadByPeer("s1");
    EXPECT_EQ(store->markConversationRead("room@x"), (QStringList{ "r0", "r1", "r2", "r1" }));
    EXPECT_TRUE(eventually([&] { return told == 7; }));
    EXPECT_EQ(store->conversations()[0].unread, 0);
    EXPECT_EQ(store->messages("bob@x", "s2", 1)[0].state, StoredState::Read);
    EXPECT_EQ(store->newestReceivedKey(), "r1");
    EXPECT_FALSE(store->recordReceived(message("room@x", "r0", "again, once the keys are all read")));
}

// Arrivals faster than the store's thread commits, on a machine kept busy
// (the thread runs on idle time alone): past kMaxQueued the receiving
// thread commits batches itself. All kept, in order, and told once each in
// the order of the commits.
TEST(MessageStore, ArrivalsFasterThanItsThreadAreAllKeptAndToldInOrder)
{
    Folder folder;
    std::mutex mutex;
    std::vector<qint64> told;
    MessageStore &store = folder.open([&](const StoredMessage &m) {
        std::lock_guard<std::mutex> lock(mutex);
        told.push_back(m.id);
    });
    std::atomic<bool> busy{ true };
    std::vector<std::thread> spinners;
    for (unsigned i = 0; i < std::max(2U, std::thread::hardware_concurrency()); ++i)
        spinners.emplace_back([&] {
            while (busy) { }
        });
    const int n = 2 * MessageStore::kMaxQueued + 7;
    for (int i = 0; i < n; ++i)
        EXPECT_TRUE(store.recordReceived(message("fast@x", QString("f%1").arg(i), "x")));
    busy = false;
    for (std::thread &spinner : spinners)
        spinner.join();
    ASSERT_TRUE(store.flush());
    EXPECT_EQ(store.conversations().value(0).unread, n);
    EXPECT_EQ(
        keys(store.messages("fast@x", {}, 2)), (QStringList{ QString("f%1").arg(n - 2), QString("f%1").arg(n - 1) }));
    EXPECT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return int(told.size()) >= n;
    }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(int(told.size()), n);
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
}

// An acknowledgement before its message left the outbox, after it was
// moved, and after a reopening: each told as Sent once, none left pending.
TEST(MessageStore, EveryAcknowledgementIsToldWhereverItsMessageStands)
{
    Folder folder;
    std::mutex mutex;
    QStringList sent;
    const auto tellSent = [&](const StoredMessage &m) {
        std::lock_guard<std::mutex> lock(mutex);
        if (m.state == StoredState::Sent)
            sent << m.key;
    };
    MessageStore *store = &folder.open(tellSent);
    qint64 ids[4];
    for (int i = 0; i < 4; ++i)
        ids[i] = store->recordSent(message("bob@x", QString("s%1").arg(i), "x", "me@x"));
    store->markSent(ids[0]);
    ASSERT_TRUE(store->flush());
    store->markSent(ids[1]);
    store->markSent(ids[1]);
    ASSERT_TRUE(store->flush());
    store = &folder.open(tellSent);
    store->markSent(ids[2]);
    EXPECT_EQ(keys(store->pending()), QStringList{ "s3" });
    // Told after the commit, on the store's thread: soon after the read.
    EXPECT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return sent == QStringList{ "s0", "s1", "s2" };
    })) << sent.join(' ').toStdString();
}

// Sends accepted by a run that died before its store's thread moved them:
// back as pending after the next opening, in order, once, up to a record
// the crash cut short; a journal of the earlier format too.
TEST(MessageStore, TheOutboxOutlivesACrashUpToATornRecord)
{
    Folder folder;
    folder.open().recordSent(message("bob@x", "moved", "x", "me@x"));
    EXPECT_EQ(keys(folder.store->search("x", {}, 5)), QStringList{ "moved" });
    folder.store.reset();
    {
        OutboxJournal journal(true); // synced: the files end with the records
        std::vector<StoredMessage> found;
        ASSERT_TRUE(journal.open(folder.path, &found) && journal.reset());
        EXPECT_TRUE(found.empty());
        const std::pair<const char *, qint64> sent[] = { { "a", 10 }, { "b", 9 }, { "c", 11 }, { "torn", 12 } };
        for (const auto &[key, id] : sent) {
            StoredMessage m = message("bob@x", key, "x", "me@x", StoredState::Pending);
            m.id = id;
            if (id == 11)
                journal.rotate();
            ASSERT_TRUE(journal.append(m));
        }
    }
    QFile tail(folder.path + "-outbox.1");
    ASSERT_TRUE(tail.resize(tail.size() - 3));
    { // a record of the earlier format (QDataStream), left by an update
        QByteArray payload;
        QDataStream out(&payload, QIODevice::WriteOnly);
        out.setVersion(QDataStream::Qt_5_0);
        out << qint64(8) << QString("bob@x") << QString("old") << QString("me@x") << qint64(1) << QString("st")
            << QString("x") << qint32(0) << qint32(1) << qint32(0) << qint32(0);
        QByteArray record(8, '\0');
        qToLittleEndian<quint32>(quint32(payload.size()), record.data());
        qToLittleEndian<quint32>(
            quint32(crc32(0, reinterpret_cast<const Bytef *>(payload.constData()), uInt(payload.size()))),
            record.data() + 4);
        QFile head(folder.path + "-outbox.0");
        ASSERT_TRUE(head.open(QIODevice::Append) && head.write(record + payload) == record.size() + payload.size());
    }
    { // as if a search index pass had gone past their ids before they were moved
        SqliteDatabase db;
        ASSERT_TRUE(db.open(folder.path) && db.exec("UPDATE search_mark SET upto = 100"));
    }
    MessageStore &store = folder.open();
    EXPECT_EQ(keys(store.pending()), (QStringList{ "moved", "old", "b", "a", "c" }));
    EXPECT_EQ(keys(store.search("x", {}, 9)), (QStringList{ "c", "a", "b", "old", "moved" }));
    EXPECT_EQ(store.recordSent(message("bob@x", "a", "again", "me@x")), -1);
    EXPECT_GT(store.recordSent(message("bob@x", "d", "x", "me@x")), 11);
    folder.store.reset();
    // Not synced, the journal is written through a mapping: what a send
    // accepted outlives the process's death.
    const pid_t child = ::fork();
    if (child == 0) {
        MessageStore dying(false);
        if (dying.open(folder.path) && dying.recordSent(message("bob@x", "killed", "x", "me@x")) > 0)
            ::kill(::getpid(), SIGKILL);
        ::_exit(1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(keys(folder.open().pending()), (QStringList{ "moved", "old", "b", "a", "c", "d", "killed" }));
}

TEST(MessageStore, TheKeyFilterClearsMostUnknownKeysAndNoKnownOne)
{
    KeyFilter filter(1000);
    for (int i = 0; i < 1000; ++i)
        filter.add(KeyFilter::digest("bob@x", "me@x", QString("k%1").arg(i)));
    int passed = 0;
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(filter.mayContain(KeyFilter::digest("bob@x", "me@x", QString("k%1").arg(i))));
        passed += filter.mayContain(KeyFilter::digest("bob@x", "me@x", QString("n%1").arg(i)));
    }
    EXPECT_LT(passed, 30);
    EXPECT_NE(KeyFilter::digest(QString("ab"), "c", "k"), KeyFilter::digest(QString("a"), "bc", "k"));
    EXPECT_EQ(KeyFilter::digest(QString::fromUtf8("房间@x"), "bob@x", "k"), // as the store's rows give it
        KeyFilter::digest(std::string_view("房间@x"), std::string_view("bob@x"), std::string_view("k")));
}

TEST(MessageStore, RetentionKeepsTheNewestAndThePending)
{
    Folder folder;
    MessageStore &store = folder.open();
    for (int i = 0; i < 30; ++i)
        store.recordReceived(message(i % 2 ? "odd@x" : "even@x", QString("k%1").arg(i), QString("word%1").arg(i)));
    StoredMessage old = message("old@x", "ancient", "word");
    old.time = QDateTime::currentMSecsSinceEpoch() - 3600 * 1000;
    store.recordReceived(old);
    ASSERT_GT(store.recordSent(message("even@x", "unsent", "word", "me@x")), 0);
    ASSERT_TRUE(store.flush());
    const qint64 before = store.fileBytes();
    store.setRetention(60 * 1000, 4);
    EXPECT_TRUE(eventually([&] { return store.messages("even@x", {}, 50).size() == 5; }));
    EXPECT_EQ(keys(store.messages("even@x", {}, 50)), (QStringList{ "k22", "k24", "k26", "k28", "unsent" }));
    EXPECT_EQ(keys(store.messages("odd@x", {}, 50)), (QStringList{ "k23", "k25", "k27", "k29" }));
    EXPECT_EQ(store.conversations().size(), 2); // old@x is gone with its message
    EXPECT_EQ(store.conversations()[1].unread, 4);
    EXPECT_EQ(keys(store.search("word3", {}, 5)), QStringList());
    EXPECT_GT(before, 0);
}

// Stores of earlier versions: the first, without a search index; the
// third, with a message listed as not yet indexed; the fourth, with one
// indexed. All index keys by their strings.
TEST(MessageStore, EarlierVersionsAreBroughtUp)
{
    for (const int version : { 1, 3, 4 }) {
        QTemporaryDir dir;
        const QString path = dir.filePath("old.db");
        {
            SqliteDatabase db;
            ASSERT_TRUE(db.open(path) && StoreSchema::registerFunctions(db));
            for (int to = 1; to <= version; ++to)
                ASSERT_TRUE(db.exec(StoreSchema::step(to)));
            ASSERT_TRUE(
                db.exec("PRAGMA user_version=" + std::to_string(version) +
                        ";INSERT INTO messages VALUES(1,'bob@x','k','bob@x',1,'','kept from before 北京',0,1,0,0,2);"
                        "INSERT INTO conversations VALUES('bob@x',1,1,1);" +
                        (version == 3 ? "INSERT INTO unindexed VALUES(1);" : "") +
                        (version == 4 ? "UPDATE search_mark SET upto = 1;"
                                        "INSERT INTO search(rowid, words) SELECT id, search_words(body) FROM messages;"
                                      : "")));
        }
        MessageStore store;
        ASSERT_TRUE(store.open(path)) << store.error().toStdString();
        EXPECT_EQ(keys(store.search("北京", {}, 5)), QStringList{ "k" }) << version;
        EXPECT_EQ(keys(store.search("before", {}, 5)), QStringList{ "k" }) << version;
        EXPECT_EQ(store.conversations().size(), 1);
        // Its key is found as a later one's is: a repeat is refused, and
        // a page before it holds what came earlier.
        EXPECT_FALSE(store.recordReceived(message("bob@x", "k", "again")));
        ASSERT_TRUE(store.recordReceived(message("bob@x", "k2", "later")));
        EXPECT_EQ(keys(store.messages("bob@x", "k2", 5)), QStringList{ "k" }) << version;
    }
}

// Each file is refused with a reason naming it, and left as it was.
TEST(MessageStore, FilesThatAreNotStoresAreRefusedUnharmed)
{
    QTemporaryDir dir;
    const auto file = [&](const char *name, const QByteArray &bytes) {
        QFile f(dir.filePath(name));
        f.open(QIODevice::WriteOnly);
        f.write(bytes);
        return f.fileName();
    };
    QByteArray damaged;
    {
        Folder folder;
        folder.open().recordSent(message("bob@x", "k", QString(5000, 'x'), "me@x"));
        folder.store.reset();
        QFile f(folder.path);
        f.open(QIODevice::ReadOnly);
        damaged = f.readAll();
        damaged.replace(0, 100, QByteArray(100, '\x5a')); // the header
    }
    SqliteDatabase other;
    other.open(dir.filePath("other.db"));
    other.exec("CREATE TABLE t(x)");
    other.close();
    SqliteDatabase newer;
    newer.open(dir.filePath("newer.db"));
    newer.exec("PRAGMA user_version=99");
    newer.close();
    MessageStore holder;
    ASSERT_TRUE(holder.open(dir.filePath("held.db")));
    const std::pair<QString, const char *> cases[] = {
        { file("text.db", QByteArray(8192, 'a')), "is not a message store: file is not a database" },
        { file("damaged.db", damaged), "is not a message store" },
        { dir.filePath("other.db"), "is not a message store: it is a database with other tables" },
        { dir.filePath("newer.db"), "newer pushchat (store version 99" },
        { dir.filePath("held.db"), "is in use by another process or another open store (locked)" },
        { dir.filePath("missing/s.db"), "cannot open" },
    };
    for (const auto &[path, reason] : cases) {
        const QByteArray bytes = [&] {
            QFile f(path);
            f.open(QIODevice::ReadOnly);
            return f.readAll();
        }();
        MessageStore store;
        EXPECT_FALSE(store.open(path)) << path.toStdString();
        EXPECT_TRUE(store.error().contains(path) && store.error().contains(reason)) << store.error().toStdString();
        EXPECT_EQ(store.recordSent(message("bob@x", "k", "x", "me@x")), 0);
        QFile f(path);
        f.open(QIODevice::ReadOnly);
        EXPECT_EQ(f.readAll(), bytes) << path.toStdString();
    }
    EXPECT_EQ(QFileInfo(dir.filePath("held.db")).permissions() & 0x0077, 0) << "mode 0600";
}

// A write the disk does not take fails, is reported, and costs nothing else.
TEST(MessageStore, AFullDiskRefusesTheSendAndKeepsTheRest)
{
    QTemporaryDir dir;
    MessageStore store(false);
    std::mutex mutex;
    QString told;
    store.onFailed = [&](const QString &text) {
        std::lock_guard<std::mutex> lock(mutex);
        told = text;
    };
    ASSERT_TRUE(store.open(dir.filePath("s.db")));
    ASSERT_GT(store.recordSent(message("bob@x", "before", "small", "me@x")), 0);
    ASSERT_TRUE(store.flush());
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit full{ rlim_t(store.fileBytes()), limit.rlim_max };
    setrlimit(RLIMIT_FSIZE, &full);
    const qint64 refused = store.recordSent(message("bob@x", "big", QString(1 << 20, 'x'), "me@x"));
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(refused, 0);
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_TRUE(told.contains("cannot write to " + dir.filePath("s.db"))) << told.toStdString();
    }
    EXPECT_GT(store.recordSent(message("bob@x", "after", "small", "me@x")), 0);
    EXPECT_EQ(keys(store.messages("bob@x", {}, 5)), (QStringList{ "before", "after" }));
}
