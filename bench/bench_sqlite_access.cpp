// The store's access layer, measured both ways on the same work: Qt SQL
// (the QSQLITE driver) against SQLite's C interface through the project's
// SqliteDatabase. Recording messages in transactions of 512, reading a page
// of 50 of one conversation, and looking up one message by key, on a table
// of the store's shape. The store and the development server use the
// faster one.

#include "mqttbench.h"
#include "sqlitedatabase.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QVariant>

namespace {

constexpr const char *kTable =
    "CREATE TABLE messages(id INTEGER PRIMARY KEY, conv TEXT NOT NULL, msg_key TEXT NOT NULL, sender TEXT NOT NULL,"
    " at INTEGER NOT NULL, body TEXT NOT NULL, state INTEGER NOT NULL);"
    "CREATE INDEX by_conv ON messages(conv, id);"
    "CREATE UNIQUE INDEX by_key ON messages(conv, sender, msg_key)";
constexpr const char *kInsert = "INSERT INTO messages(conv, msg_key, sender, at, body, state) VALUES(?, ?, ?, ?, ?, 1)";
constexpr const char *kPage =
    "SELECT id, conv, msg_key, sender, at, body, state FROM messages WHERE conv = ?"
    " AND id < ? ORDER BY id DESC LIMIT 50";
constexpr const char *kByKey = "SELECT id FROM messages WHERE conv = ? AND sender = ? AND msg_key = ?";
constexpr int kBatch = 512;
constexpr int kConversations = 100;

int rows()
{
    return benchmqtt::smoke() ? 2000 : 100000;
}
QString conv(int i)
{
    return QStringLiteral("peer%1@im.test").arg(i % kConversations);
}
QString key(int i)
{
    return QStringLiteral("key-%1").arg(i);
}
QString body(int i)
{
    return QStringLiteral("message number %1, a sentence of ordinary length to store").arg(i);
}

// --- Qt SQL -------------------------------------------------------------------

struct QtSide {
    QTemporaryDir dir;
    QSqlDatabase db;
    QtSide()
    {
        db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("bench"));
        db.setDatabaseName(dir.filePath(QStringLiteral("qt.db")));
        db.open();
        QSqlQuery q(db);
        q.exec(QStringLiteral("PRAGMA journal_mode=WAL"));
        q.exec(QStringLiteral("PRAGMA synchronous=NORMAL"));
        for (const QString &statement : QString::fromLatin1(kTable).split(QLatin1Char(';')))
            q.exec(statement);
    }
    ~QtSide()
    {
        db.close();
        db = QSqlDatabase();
        QSqlDatabase::removeDatabase(QStringLiteral("bench"));
    }
    void fill(int from, int count)
    {
        QSqlQuery insert(db);
        insert.prepare(QString::fromLatin1(kInsert));
        for (int i = from; i < from + count; i += kBatch) {
            db.transaction();
            for (int j = i; j < std::min(i + kBatch, from + count); ++j) {
                insert.addBindValue(conv(j));
                insert.addBindValue(key(j));
                insert.addBindValue(conv(j + 1));
                insert.addBindValue(qint64(j));
                insert.addBindValue(body(j));
                insert.exec();
            }
            db.commit();
        }
    }
};

// --- the C interface ------------------------------------------------------------

struct CSide {
    QTemporaryDir dir;
    SqliteDatabase db;
    CSide()
    {
        db.open(dir.filePath(QStringLiteral("c.db")));
        db.exec("PRAGMA journal_mode=WAL;PRAGMA synchronous=NORMAL");
        db.exec(kTable);
    }
    void fill(int from, int count)
    {
        SqliteStatement insert = db.prepare(kInsert);
        for (int i = from; i < from + count; i += kBatch) {
            db.exec("BEGIN");
            for (int j = i; j < std::min(i + kBatch, from + count); ++j) {
                insert.reset();
                insert.bind(1, conv(j)).bind(2, key(j)).bind(3, conv(j + 1)).bind(4, std::int64_t(j)).bind(5, body(j));
                insert.run();
            }
            db.exec("COMMIT");
        }
    }
};

template <typename Side> void record(benchmark::State &state)
{
    Side side;
    int next = 0;
    for (auto _ : state) {
        side.fill(next, rows());
        next += rows();
    }
    state.counters["messages/s"] = benchmark::Counter(double(next), benchmark::Counter::kIsRate);
}

void pageQt(benchmark::State &state)
{
    QtSide side;
    side.fill(0, rows());
    QSqlQuery page(side.db);
    page.prepare(QString::fromLatin1(kPage));
    int i = 0;
    for (auto _ : state) {
        page.addBindValue(conv(i));
        page.addBindValue(qint64(rows() - (i++ % 1000)));
        page.exec();
        int n = 0;
        while (page.next())
            n += page.value(5).toString().size() > 0;
        benchmark::DoNotOptimize(n);
    }
}

void pageC(benchmark::State &state)
{
    CSide side;
    side.fill(0, rows());
    SqliteStatement page = side.db.prepare(kPage);
    int i = 0;
    for (auto _ : state) {
        page.reset();
        page.bind(1, conv(i)).bind(2, std::int64_t(rows() - (i % 1000)));
        ++i;
        int n = 0;
        while (page.next())
            n += page.text(5).size() > 0;
        benchmark::DoNotOptimize(n);
    }
}

void byKeyQt(benchmark::State &state)
{
    QtSide side;
    side.fill(0, rows());
    QSqlQuery lookup(side.db);
    lookup.prepare(QString::fromLatin1(kByKey));
    int i = 0;
    for (auto _ : state) {
        const int j = i++ % rows();
        lookup.addBindValue(conv(j));
        lookup.addBindValue(conv(j + 1));
        lookup.addBindValue(key(j));
        lookup.exec();
        benchmark::DoNotOptimize(lookup.next());
    }
}

void byKeyC(benchmark::State &state)
{
    CSide side;
    side.fill(0, rows());
    SqliteStatement lookup = side.db.prepare(kByKey);
    int i = 0;
    for (auto _ : state) {
        const int j = i++ % rows();
        lookup.reset();
        lookup.bind(1, conv(j)).bind(2, conv(j + 1)).bind(3, key(j));
        benchmark::DoNotOptimize(lookup.next());
    }
}

} // namespace

BENCHMARK_TEMPLATE(record, QtSide)->Name("record/qtsql")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_TEMPLATE(record, CSide)->Name("record/capi")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(pageQt)->Name("page50/qtsql")->Unit(benchmark::kMicrosecond);
BENCHMARK(pageC)->Name("page50/capi")->Unit(benchmark::kMicrosecond);
BENCHMARK(byKeyQt)->Name("byKey/qtsql")->Unit(benchmark::kMicrosecond);
BENCHMARK(byKeyC)->Name("byKey/capi")->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv); // the Qt SQL driver's plugin loader needs it
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
