// The message store over a real broker and the development server, in one
// scenario: messages accepted offline outlive the application and arrive
// once, in order, after the next login; a command-line client killed after
// accepting a message sends it at the next flush; a key sent again from
// another store is delivered once; what arrived while a user was away is
// recorded at login; and a conversation read at one end shows read at the
// other.

#include "devserverprocess.h"
#include "faultkit.h"
#include "sqlitedatabase.h"

#include <QProcess>
#include <QTemporaryDir>

#include <csignal>

using namespace kit;

namespace {

/// `name` with the store at `path`, logged in at `port` from device `device`.
struct StoredUser {
    Counter side;
    Message_lib lib;
    StoredUser(const char *name, const QString &path, int port, const char *device = "d", int size = 400)
        : side(size), lib(&side, nullptr, device, name)
    {
        lib.setPushClientOptions(fast());
        EXPECT_EQ(lib.openMessageStore(path, false), 1) << lib.lastStoreError().toStdString();
        lib.registerToImServer("127.0.0.1", port, name, {}, 5, "im.test", {});
    }
    int send(const char *to, int i, const QString &key = {})
    {
        return lib.sendTextMessageTo("", to, 5, QString("n %1").arg(i), BODY_TYPE_DEFAULT, false,
            key.isEmpty() ? QString("key%1").arg(i) : key, "st");
    }
    QStringList states(const char *peer)
    {
        QStringList out;
        for (const StoredMessage &m : lib.storedMessages(peer, {}, 1000))
            out << QString("%1:%2").arg(m.body).arg(int(m.state));
        return out;
    }
};

/// The pushchat client's exit status, -1 when it did not end normally.
int cli(const QString &arguments, QProcess *process = nullptr)
{
    QProcess local;
    QProcess &p = process ? *process : local;
    p.start(PUSHCHAT_CLI, arguments.split(' '));
    if (process)
        return 0;
    return p.waitForFinished(int(kWaitLimit.count())) && p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
}

QStringList expected(int from, int to, int state)
{
    QStringList out;
    for (int i = from; i < to; ++i)
        out << QString("n %1:%2").arg(i).arg(state);
    return out;
}

} // namespace

TEST(StoredMessages, AcceptedMessagesArriveOnceAcrossRestartsKillsAndGaps)
{
    QTemporaryDir dir;
    qputenv("HOME", dir.path().toUtf8());
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start()) << broker.log();
    QProcess server;
    ASSERT_NE(startDevServer(server, PUSHCHAT_DEVSERVER,
                  { "--port", QString::number(broker.port()), "--server-jid", "server@im.test", "--http-port", "0" },
                  dir.filePath("server.jsonl")),
        0);
    const QString a = dir.filePath("alice.db"), b = dir.filePath("bob.db");
    auto bob = std::make_unique<StoredUser>("bob", b, broker.port());
    ASSERT_TRUE(eventually([&] { return bob->side.connects == 1 && bob->lib.engine()->pendingCount() == 0; }));

    // Offline: more accepted than the engine holds in memory, then the
    // application ends before any broker.
    constexpr int kOffline = 300;
    {
        StoredUser offline("alice", a, MosquittoBroker::freePort());
        for (int i = 0; i < kOffline; ++i)
            ASSERT_EQ(offline.send("bob", i), 1);
        EXPECT_EQ(offline.lib.storedPendingCount(), kOffline);
    }
    StoredUser alice("alice", a, broker.port());
    bob->side.waitFor(kOffline);
    EXPECT_EQ(bob->side.tally("offline, then restarted", kOffline), kNoneLost);
    EXPECT_TRUE(eventually([&] { return bob->states("alice") == expected(0, kOffline, int(StoredState::Received)); }))
        << bob->states("alice").join(' ').toStdString(); // in order
    EXPECT_TRUE(eventually([&] { return alice.states("bob") == expected(0, kOffline, int(StoredState::Sent)); }));

    // A client killed after accepting, before any acknowledgement: sent once at the next flush.
    const QString at = QString("--port %1 --domain im.test --user alice --level 5 --device c --store %2 ")
                           .arg(broker.port())
                           .arg(dir.filePath("cli.db"));
    QProcess killed;
    cli(QString(at).replace(QString::number(broker.port()), QString::number(MosquittoBroker::freePort())) +
            "--timeout 60 send bob n_50",
        &killed);
    SqliteDatabase peek;
    EXPECT_TRUE(eventually([&] {
        peek.open(dir.filePath("cli.db"), false);
        SqliteStatement count = peek.prepare("SELECT count(*) FROM messages");
        return count.next() && count.integer(0) == 1;
    }));
    ::kill(pid_t(killed.processId()), SIGKILL);
    killed.waitForFinished();
    EXPECT_EQ(cli(at + "flush"), 0);
    EXPECT_EQ(cli(at + "flush"), 0);
    EXPECT_TRUE(eventually([&] { return bob->states("alice").endsWith("n_50:2"); }));
    QProcess log;
    cli(at + "log bob", &log);
    log.waitForFinished();
    const QByteArray printed = log.readAll();
    EXPECT_TRUE(printed.contains(R"("body":"n_50")") && printed.contains(R"("state":"sent")")) << printed.data();

    // The same key again, enciphered anew (as a run that did not see the
    // broker's acknowledgement sends it): delivered once.
    ASSERT_EQ(alice.send("bob", kOffline + 1, "once"), 1);
    User again("alice", 0, broker.port());
    ASSERT_EQ(again.lib.sendTextMessageTo(
                  "", "bob", 5, QString("n %1").arg(kOffline + 1), BODY_TYPE_DEFAULT, false, "once", "st"),
        1);

    // Away: what arrives meanwhile is recorded at the next login (from a
    // new device, so the broker keeps nothing for it).
    bob.reset();
    for (int i = kOffline + 2; i < kOffline + 5; ++i)
        ASSERT_EQ(alice.send("bob", i), 1);
    EXPECT_TRUE(eventually([&] { return alice.lib.storedPendingCount() == 0; }));
    bob = std::make_unique<StoredUser>("bob", b, broker.port(), "new");
    QStringList all = expected(0, kOffline, int(StoredState::Received));
    all << "n_50:2" << QString("n %1:2").arg(kOffline + 1) << expected(kOffline + 2, kOffline + 5, 2);
    EXPECT_TRUE(eventually([&] { return bob->states("alice") == all; }))
        << bob->states("alice").join(' ').toStdString();
    EXPECT_EQ(bob->lib.storedConversations().value(0).unread, kOffline + 5);

    // Read at bob's end: read at alice's.
    EXPECT_EQ(bob->lib.markConversationRead("alice", true), 1);
    EXPECT_EQ(bob->lib.storedConversations().value(0).unread, 0);
    EXPECT_TRUE(eventually([&] { return alice.states("bob").count("n 3:3") == 1; }))
        << alice.states("bob").join(' ').toStdString();
    server.terminate();
    server.waitForFinished();
}
