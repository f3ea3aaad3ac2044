// The development server through the library, in one scenario: alice and
// bob log in over a real broker and each command family gets its answer. A
// server started again on the same file still knows the history, the rooms
// and the friends. Then what fails its checks, beside what passes them.

#include "devserverprocess.h"
#include "devstore.h"
#include "enginetestkit.h"
#include "inputlimits.h"
#include "qttestapp.h"
#include "sqlitedatabase.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <functional>

namespace {

using namespace kit;

/// The executable's one broker, started on first use; null if it did not start.
MosquittoBroker *sharedBroker()
{
    static MosquittoBroker broker;
    static const bool up = broker.start();
    return up ? &broker : nullptr;
}

/// Starts the server on `dir`'s store; its HTTP port, or 0 unless it said it is ready.
int start(QProcess &server, const MosquittoBroker &broker, const QTemporaryDir &dir)
{
    return startDevServer(server, PUSHCHAT_DEVSERVER,
        { "--port", QString::number(broker.port()), "--server-jid", "server@im.test", "--db", dir.filePath("dev.db"),
            "--http-port", "0" },
        dir.filePath("server.jsonl"));
}

/// The first line of `app` after `mark` that starts with `kind`, "time" values blanked.
std::string await(App &app, std::size_t mark, const std::string &kind)
{
    std::string found;
    eventually([&] {
        const Lines all = app.log.lines();
        for (std::size_t i = mark; i < all.size() && found.empty(); ++i)
            found = all[i].rfind(kind, 0) == 0 ? all[i] : std::string();
        return !found.empty();
    });
    return QString::fromStdString(found)
        .replace(QRegularExpression(R"("time":"[^"]*")"), "\"time\":\"T\"")
        .toStdString();
}

const std::string kFriends =
    R"(friendList|{"friends":[{"jid":"bob@im.test","online":true,"properties":"colleague","text":"hi"}],"last_friend_id":"bob@im.test","more":false,"type":1})";
const std::string kK1 =
    R"({"body":"hello","body_type":0,"conv_id":"alice@im.test","from":"alice@im.test","modifier":"bob@im.test","msg_type":1,"readable":true,"sec_level":5,"stamp":"st","status":2,"time":"T","to":"bob@im.test","uuid":"k-1"})";
const std::string kK2 =
    R"({"body":"all","body_type":0,"conv_id":"team@im.test","from":"alice@im.test","modifier":"","msg_type":4,"readable":true,"sec_level":9999,"stamp":"st","status":0,"time":"T","to":"team@im.test","uuid":"k-2"})";
const std::string kK3 =
    R"({"body":"","body_type":0,"conv_id":"alice@im.test","from":"alice@im.test","modifier":"","msg_type":1,"readable":false,"sec_level":3,"stamp":"st","status":0,"time":"T","to":"bob@im.test","uuid":"k-3"})";
const std::string kDetail =
    R"(detail|{"conv_id":"alice@im.test","messages":[)" + kK1 + "," + kK3 + R"(],"more":false,"page":0,"pagesize":20})";
const std::string kConversations = R"(conversations|{"conversations":[{"conv_id":"alice@im.test","count":2,"last":)" +
                                   kK3 + R"(,"msg_type":1},{"conv_id":"team@im.test","count":1,"last":)" + kK2 +
                                   R"(,"msg_type":4}],"message_type":0,"page":0,"pagesize":20})";

TEST(DevServer, AnswersEveryCommandFamilyAndKeepsItsStateAcrossARestart)
{
    QtTestApp<QCoreApplication> qt;
    QTemporaryDir dir;
    ASSERT_NE(sharedBroker(), nullptr);
    const MosquittoBroker &broker = *sharedBroker();
    QProcess server;
    int httpPort = start(server, broker, dir);
    ASSERT_NE(httpPort, 0);
    App aliceApp, bobApp, bob2App;
    Message_lib alice(&aliceApp, &aliceApp, "dev-a", "A"), bob(&bobApp, &bobApp, "dev-b", "B"),
        bob2(&bob2App, &bob2App, "dev-b2", "B2");
    ASSERT_TRUE(login(alice, broker, "alice", 5) && login(bob, broker, "bob", 5));
    const auto rooms = [](App &a) { return a.log.starting("roomList").size(); };
    ASSERT_TRUE(eventually([&] { return rooms(aliceApp) + rooms(bobApp) == 2; }));
    const auto send = [&](const char *to, const char *text, int level, bool room, const char *key) {
        const std::size_t mark = bobApp.log.lines().size();
        alice.sendTextMessageTo({}, to, level, text, BODY_TYPE_DEFAULT, room, key, "st");
        await(bobApp, mark, std::string("message|alice@im.test|") + (room ? to : "bob@im.test") + "|");
    };
    struct Step {
        const char *name;
        std::function<void()> act;
        App &app;
        std::string expected;
    };
    const Step steps[] = {
        { "room", [&] { alice.createMucRoom("team", "Team", "bob", ROOM_TYPE_DEFAULT); }, bobApp,
            R"(room|10|{"creater":"alice@im.test","jid":"team@im.test","join_time":"","members":[{"alice@im.test":{"jid":"alice@im.test","join_time":"","name":"alice"}},{"bob@im.test":{"jid":"bob@im.test","join_time":"","name":"bob"}}],"name":"Team","operatorBy":"","status":0,"type":0})" },
        { "friend request", [&] { alice.addFriend({}, "bob", "hi"); }, bobApp,
            "friendAdded|alice@im.test|bob@im.test|hi" },
        { "friend accepted", [&] { bob.acceptFriend({}, "alice", "ok"); }, aliceApp,
            "friendAccepted|bob@im.test|alice@im.test|1" },
        { "friend list", [&] { alice.setFriendPropoties({}, "bob", "colleague"), alice.listFriends(1, 20, {}); },
            aliceApp, kFriends },
        { "presence to friends", [&] { login(bob2, broker, "bob", 5); }, aliceApp,
            R"(presence|bob@im.test|{"device_id":"dev-b2","device_name":"B2","text":"APP_STARTUP","type":1})" },
        { "status", [&] { send("bob", "hello", 5, false, "k-1"), bob.modifyMessageStatus("k-1", MSG_STATUS(2)); },
            aliceApp, "status|bob@im.test|k-1|2" },
        { "detail",
            [&] {
                send("team@im.test", "all", 9999, true, "k-2");
                send("bob", "secret", 3, false, "k-3");
                bob.getMsgByConvid("alice@im.test", 0, 20);
            },
            bobApp, kDetail },
        { "conversations", [&] { bob.fetchConversations(MediaInfo::MessageType(0), 0, 20); }, bobApp, kConversations },
        { "sync", [&] { bob.startSyncMessage("k-1"); }, bobApp,
            R"(history|{"messages":[)" + kK2 + "," + kK3 + R"(],"more":false,"msg_uuid":"k-1"})" },
        { "pull", [&] { bob.startPullMessage(0, 0, 1, "k-3"); }, bobApp,
            R"(history|{"messages":[)" + kK2 + R"(],"more":true,"msg_uuid":"k-3","pull_type":0})" },
        { "http sync",
            [&] {
                bob.setHistoryBaseAddress(QStringLiteral("http://127.0.0.1:%1").arg(httpPort));
                bob.startSyncMessageRun("k-2");
            },
            bobApp, R"(history|{"messages":[)" + kK3 + R"(],"more":false,"msg_uuid":"k-2"})" },
        { "restart",
            [&] {
                server.terminate();
                server.waitForFinished();
                start(server, broker, dir);
                bob.fetchConversations(MediaInfo::MessageType(0), 0, 20);
            },
            bobApp, kConversations },
        { "friends kept", [&] { alice.listFriends(1, 20, {}); }, aliceApp, kFriends },
        { "rooms kept", [&] { bob2.unRegisterToImServer(), login(bob2, broker, "bob", 5); }, bob2App,
            R"(roomList|{"jid":"bob@im.test","name":"","rooms":[{"team@im.test":{"creater":"alice@im.test","jid":"team@im.test","join_time":"","members":[{"alice@im.test":{"jid":"alice@im.test","join_time":"","name":"alice"}},{"bob@im.test":{"jid":"bob@im.test","join_time":"","name":"bob"}}],"name":"Team","operatorBy":"","status":0,"type":0}}]})" },
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.name);
        const std::size_t mark = step.app.log.lines().size();
        step.act();
        EXPECT_EQ(await(step.app, mark, step.expected.substr(0, step.expected.find('|') + 1)), step.expected);
    }
}

// Each row's message is dropped with one "dropped" line, or its answer is
// capped, and the chat message sent after it is still recorded. The store
// starts as an older version left it: a body over the limit, unmeasured.
TEST(DevServer, DropsWhatFailsItsChecksAndBoundsItsAnswers)
{
    QtTestApp<QCoreApplication> qt;
    QTemporaryDir dir;
    {
        DevStore store(dir.filePath("dev.db"));
        QString error;
        ASSERT_TRUE(store.open(&error)) << error.toStdString();
        const auto add = [&](const QString &uuid, int bytes) {
            DevStore::Message m;
            m.uuid = uuid, m.from = "alice@im.test", m.to = "bob@im.test", m.body = QString(bytes, 'b');
            m.msgType = 1, m.secLevel = 9999;
            store.addMessage(m);
        };
        add("old", InputLimits::BODY_BYTES + 1);
        for (int i = 0; i < 250; ++i)
            add(QString("p-%1").arg(i), 1);
        add("big-1", 1500000), add("big-2", 1500000);
    }
    {
        // As an older version made it: no body sizes.
        SqliteDatabase older;
        ASSERT_TRUE(older.open(dir.filePath("dev.db")) && older.exec("ALTER TABLE messages DROP COLUMN body_bytes"))
            << older.error().toStdString();
    }
    ASSERT_NE(sharedBroker(), nullptr);
    QProcess server;
    Wire wire;
    ASSERT_TRUE(start(server, *sharedBroker(), dir) != 0 && wire.start(*sharedBroker()));
    const auto ask = [](int family, int sub, const QString &body, const QString &from) {
        return makeServerMessage("server@im.test", family, sub, 0, body, from);
    };
    const auto chat = [](const QString &body) {
        return makeServerMessage("bob@im.test", MESSAGE_INFO, MESSAGE_NORMAL, 0, body, "alice@im.test");
    };
    const QString room = R"({"jid":"%1","members":[{"alice@im.test":{}},{"%2":{}}]})";
    const QString pull = R"({"pull_type":0,"count":100000,"msg_uuid":"%1"})";
    const struct {
        const char *name;
        ServerMessage hostile;
        std::vector<std::pair<std::string, int>> expected; // text in the server's log since, and how often
    } rows[] = {
        { "wildcard room JID", ask(GroupCMD, GroupSub_Create, room.arg("+", "bob@im.test"), "alice@im.test"),
            { { R"x("reason":"room JID '+' holds an MQTT wildcard ('+' or '#')")x", 1 }, { R"("event":"sent")", 0 } } },
        { "member JID", ask(GroupCMD, GroupSub_Create, room.arg("team@im.test", "x/y@im.test"), "alice@im.test"),
            { { "1 member(s) dropped, the first: member 'x/y@im.test' holds '/'", 1 },
                { R"("to":"alice@im.test")", 1 } } },
        { "body over the limit", chat(QString(InputLimits::BODY_BYTES + 1, 'a')),
            { { R"("reason":"body of 2097153 bytes, over 2097152")", 1 } } },
        { "stored body over the limit", ask(HistoryCMD, HistorySub_List, pull.arg("p-0"), "bob@im.test"),
            { { R"(\"uuid\":\"old\",\"withheld\":true}],\"more\":false)", 1 } } },
        { "page over the byte bound", ask(HistoryCMD, HistorySub_List, pull.arg(""), "bob@im.test"),
            { { R"(\"uuid\":\"big-2\")", 1 }, { "big-1", 0 }, { R"(\"more\":true)", 1 } } },
        { "page over the count bound", ask(HistoryCMD, HistorySub_List, pull.arg("big-1"), "bob@im.test"),
            { { R"(\"uuid\":\"p-)", 200 }, { R"(\"uuid\":\"p-50\")", 1 }, { R"(\"more\":true)", 1 } } },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const ServerMessage legitimate = chat(row.name);
        QFile out(dir.filePath("server.jsonl"));
        ASSERT_TRUE(out.open(QIODevice::ReadOnly) && out.seek(out.size()));
        ASSERT_TRUE(
            wire.publish(row.hostile.topic, row.hostile.payload) && wire.publish(legitimate.topic, legitimate.payload));
        std::string log;
        ASSERT_TRUE(eventually(
            [&] { return (log += out.readAll().toStdString()).find(R"("event":"recorded")") != std::string::npos; }));
        for (const auto &[text, count] : row.expected) {
            int found = 0;
            for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
                ++found;
            EXPECT_EQ(found, count) << text;
        }
    }
}

} // namespace
