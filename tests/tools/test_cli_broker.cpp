// The pushchat program against a real broker: what listen prints for what
// send delivers, the room requests as the stand-in server receives them and
// the events it answers with, friend and remote-desktop messages between two
// users, history answered by a peer playing the server and by a real HTTP
// server, images sent and saved, the exit statuses, and what reaches the
// wire.

#include "httptestserver.h"
#include "mediainfo.h"
#include "mosquittobroker.h"
#include "mqttmessage.h"
#include "pushclient.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Finished {
    int exitCode = -1;
    bool crashed = true;
    QByteArray out;
    QByteArray err;
    qint64 elapsedMs = 0;
};

class CliBroker : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(broker.start()) << broker.log();
        ASSERT_TRUE(settings.isValid());
        ASSERT_TRUE(home.isValid());
    }

    // The program with the settings store and the home (where the documents
    // directory is) in private directories.
    void prepare(QProcess &process, const QString &program = QStringLiteral(PUSHCHAT_CLI))
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), settings.path());
        environment.insert(QStringLiteral("HOME"), home.path());
        process.setProcessEnvironment(environment);
        process.setProgram(program);
    }

    QStringList common(const QString &user, int port = 0) const
    {
        return {"--port", QString::number(port ? port : broker.port()), "--user", user, "--device", "dev-" + user,
                "--timeout", "5"};
    }

    Finished run(const QStringList &arguments, int limitMs = 15000)
    {
        QProcess process;
        prepare(process);
        process.setArguments(arguments);
        QElapsedTimer timer;
        timer.start();
        process.start();
        Finished result;
        if (!process.waitForFinished(limitMs)) {
            process.kill();
            process.waitForFinished();
            ADD_FAILURE() << "still running after " << limitMs << " ms: " << arguments.join(' ').toStdString();
            return result;
        }
        result.elapsedMs = timer.elapsed();
        result.exitCode = process.exitCode();
        result.crashed = process.exitStatus() != QProcess::NormalExit;
        result.out = process.readAllStandardOutput();
        result.err = process.readAllStandardError();
        return result;
    }

    void expectSent(const QStringList &arguments)
    {
        const Finished done = run(arguments);
        EXPECT_FALSE(done.crashed);
        EXPECT_EQ(done.exitCode, 0) << done.err.constData();
        EXPECT_TRUE(done.out.isEmpty()) << done.out.constData();
    }

    MosquittoBroker broker;
    QTemporaryDir settings;
    QTemporaryDir home;
};

// `pushchat listen` in the background; its stdout parsed as it comes.
class Listener {
public:
    explicit Listener(QProcess &process) : m_process(process) {}

    bool start(const QStringList &arguments)
    {
        m_process.setArguments(arguments);
        m_process.start();
        return m_process.waitForStarted();
    }

    // start(), then the first onConnected; what the program said on stderr
    // if it does not come.
    ::testing::AssertionResult startConnected(const QStringList &arguments)
    {
        if (!start(arguments))
            return ::testing::AssertionFailure() << "not started";
        if (waitForEvent("onConnected").isEmpty())
            return ::testing::AssertionFailure() << m_process.readAllStandardError().constData();
        return ::testing::AssertionSuccess();
    }

    // The first event from now on that matches, or an empty object.
    QJsonObject waitFor(const std::function<bool(const QJsonObject &)> &matches, int limitMs = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            while (m_next < m_events.size()) {
                const QJsonObject event = m_events[m_next++];
                if (matches(event))
                    return event;
            }
            if (timer.elapsed() > limitMs || m_process.state() == QProcess::NotRunning)
                return {};
            m_process.waitForReadyRead(100);
            readLines();
        }
    }

    QJsonObject waitForEvent(const QString &name)
    {
        return waitFor([&](const QJsonObject &event) { return event["event"].toString() == name; });
    }

    // Sends `signal` and waits for the end; the exit code, or -1.
    int stop(int signal, int limitMs = 10000)
    {
        ::kill(static_cast<pid_t>(m_process.processId()), signal);
        if (!m_process.waitForFinished(limitMs) || m_process.exitStatus() != QProcess::NormalExit)
            return -1;
        return m_process.exitCode();
    }

    int badLines() const { return m_badLines; }

private:
    void readLines()
    {
        while (m_process.canReadLine()) {
            const QByteArray line = m_process.readLine();
            QJsonParseError error{};
            const QJsonDocument document = QJsonDocument::fromJson(line, &error);
            if (error.error != QJsonParseError::NoError || !document.isObject() || !line.endsWith('\n'))
                ++m_badLines;
            else
                m_events.push_back(document.object());
        }
    }

    QProcess &m_process;
    std::vector<QJsonObject> m_events;
    size_t m_next = 0;
    int m_badLines = 0;
};

// True once process `pid` blocks SIGINT, i.e. is ready to handle it.
bool blocksSigint(qint64 pid)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 10000) {
        QFile status(QStringLiteral("/proc/%1/status").arg(pid));
        if (status.open(QIODevice::ReadOnly)) {
            for (const QByteArray &line : status.readAll().split('\n')) {
                if (line.startsWith("SigBlk:") && (line.mid(7).trimmed().toULongLong(nullptr, 16) >> (SIGINT - 1)) & 1)
                    return true;
            }
        }
        QThread::msleep(10);
    }
    return false;
}

auto message(const QString &body)
{
    return [body](const QJsonObject &event) {
        return event["event"].toString() == "onMessageReceive" && event["body"].toString() == body;
    };
}

TEST_F(CliBroker, ListenPrintsMessagesAndNoticesThatSendDelivers)
{
    QProcess process;
    prepare(process);
    Listener bob(process);
    ASSERT_TRUE(bob.startConnected(common("bob") << "listen"));

    expectSent(common("alice") << "send" << "bob" << "hello bob");
    const QJsonObject chat = bob.waitFor(message("hello bob"));
    ASSERT_FALSE(chat.isEmpty());
    EXPECT_EQ(chat["from"].toString(), "alice@127.0.0.1");
    EXPECT_EQ(chat["to"].toString(), "bob@127.0.0.1");
    EXPECT_EQ(chat["bodyType"].toInt(-1), 0);
    EXPECT_EQ(chat["msgType"].toInt(), 1);
    EXPECT_TRUE(chat["readable"].toBool(false));
    EXPECT_TRUE(QRegularExpression("^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$")
                    .match(chat["messageKey"].toString())
                    .hasMatch())
        << chat["messageKey"].toString().toStdString();
    EXPECT_TRUE(QRegularExpression("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d$")
                    .match(chat["stamp"].toString())
                    .hasMatch())
        << chat["stamp"].toString().toStdString();

    expectSent(common("alice") << "send" << "--notice" << "everyone" << "a notice");
    const QJsonObject notice = bob.waitFor(message("a notice"));
    ASSERT_FALSE(notice.isEmpty());
    EXPECT_EQ(notice["from"].toString(), "alice@127.0.0.1");
    EXPECT_EQ(notice["bodyType"].toInt(), 7);
    EXPECT_TRUE(notice["readable"].toBool(false));

    expectSent(common("alice") << "send" << "--room" << "bob" << "as a room message");
    EXPECT_EQ(bob.waitFor(message("as a room message"))["msgType"].toInt(), 4);

    EXPECT_EQ(bob.stop(SIGTERM), 0) << process.readAllStandardError().constData();
    EXPECT_EQ(bob.badLines(), 0);
    // An orderly logout: the broker saw a DISCONNECT, not a dropped link.
    EXPECT_NE(broker.log().find("Client bob@127.0.0.1@dev-bob disconnected."), std::string::npos) << broker.log();
}

TEST_F(CliBroker, SecurityLevelsDecideWhatListenMaySee)
{
    QProcess process;
    prepare(process);
    Listener bob(process);
    ASSERT_TRUE(bob.startConnected(common("bob") << "--level" << "5" << "--domain" << "im.test" << "listen"));

    const QStringList alice = common("alice") << "--domain" << "im.test";
    expectSent(QStringList(alice) << "--level" << "3" << "send" << "bob" << "secret at 3");
    expectSent(QStringList(alice) << "--level" << "5" << "send" << "bob" << "fine at 5");
    expectSent(QStringList(alice) << "--level" << "3" << "send" << "--notice" << "bob" << "notice at 3");

    const auto from = [](const QString &sender) {
        return [sender](const QJsonObject &event) {
            return event["event"].toString() == "onMessageReceive" && event["from"].toString() == sender;
        };
    };
    const QJsonObject hidden = bob.waitFor(from("alice@im.test"));
    EXPECT_FALSE(hidden["readable"].toBool(true));
    EXPECT_NE(hidden["body"].toString(), "secret at 3");
    EXPECT_FALSE(hidden["body"].toString().isEmpty());
    EXPECT_EQ(hidden["to"].toString(), "bob@im.test");

    EXPECT_TRUE(bob.waitFor(message("fine at 5"))["readable"].toBool(false));
    EXPECT_TRUE(bob.waitFor(message("notice at 3"))["readable"].toBool(false));
    EXPECT_EQ(bob.stop(SIGINT), 0);
}

// The room subcommands, each checked where the stand-in server reads it and
// where bob's listen prints the server's answer.
TEST_F(CliBroker, RoomRequestsReachTheServerAndListenShowsTheEvents)
{
    QProcess serverProcess;
    prepare(serverProcess, QStringLiteral(PUSHCHAT_DEMO_SERVER));
    Listener server(serverProcess);
    ASSERT_TRUE(server.start({"--port", QString::number(broker.port())}));
    ASSERT_EQ(server.waitForEvent("ready")["server"].toString(), "server@127.0.0.1");

    QProcess bobProcess;
    prepare(bobProcess);
    Listener bob(bobProcess);
    ASSERT_TRUE(bob.startConnected(common("bob") << "listen"));
    EXPECT_EQ(bob.waitForEvent("onRoomListRefreshed")["json"].toString(),
              R"({"jid":"bob@127.0.0.1","name":"","rooms":[]})");

    // The request as the server read it, and the room bob was told of.
    const auto request = [&](const QString &letter) {
        const QString topic = "s/g/c/server@127.0.0.1/" + letter;
        const QJsonObject received = server.waitFor([&](const QJsonObject &event) {
            return event["event"].toString() == "received" && event["topic"].toString() == topic;
        });
        EXPECT_EQ(received["from"].toString(), "alice@127.0.0.1") << topic.toStdString();
        return QJsonDocument::fromJson(received["body"].toString().toUtf8()).object();
    };
    const auto roomEvent = [&](int cmd) {
        const QJsonObject changed = bob.waitFor([&](const QJsonObject &event) {
            return event["event"].toString() == "onRoomChanged" && event["cmd"].toInt() == cmd;
        });
        EXPECT_FALSE(changed.isEmpty()) << "no onRoomChanged " << cmd;
        EXPECT_EQ(changed["room"]["jid"].toString(), "team@127.0.0.1");
        return changed["room"].toObject();
    };
    const auto memberJids = [](const QJsonObject &room) {
        QStringList jids;
        for (const QJsonValue &member : room["members"].toArray())
            jids += member.toObject().keys();
        return jids;
    };

    expectSent(common("alice") << "room" << "create" << "team" << "The team" << "bob,carol" << "--type" << "3");
    const QJsonObject created = request("c");
    EXPECT_EQ(created["jid"].toString(), "team@127.0.0.1");
    EXPECT_EQ(created["name"].toString(), "The team");
    EXPECT_EQ(created["type"].toInt(), 3);
    EXPECT_EQ(memberJids(created), QStringList({"alice@127.0.0.1", "bob@127.0.0.1", "carol@127.0.0.1"}));
    // The room event and the room's first message, in either order.
    QJsonObject room;
    bool roomMessage = false;
    bob.waitFor([&](const QJsonObject &event) {
        if (event["event"].toString() == "onRoomChanged" && event["cmd"].toInt() == 10)
            room = event["room"].toObject();
        roomMessage = roomMessage || (event["event"].toString() == "onMessageReceive" &&
                                      event["from"].toString() == "team@127.0.0.1");
        return !room.isEmpty() && roomMessage;
    });
    EXPECT_TRUE(roomMessage);
    EXPECT_EQ(room["jid"].toString(), "team@127.0.0.1");
    EXPECT_EQ(room["creater"].toString(), "alice@127.0.0.1");
    EXPECT_EQ(room["name"].toString(), "The team");
    EXPECT_EQ(room["type"].toInt(), 3);

    // The room list a later login gets holds the room.
    {
        QProcess carolProcess;
        prepare(carolProcess);
        Listener carol(carolProcess);
        ASSERT_TRUE(carol.start(common("carol") << "listen"));
        const QJsonObject list = QJsonDocument::fromJson(
            carol.waitForEvent("onRoomListRefreshed")["json"].toString().toUtf8()).object();
        EXPECT_EQ(list["jid"].toString(), "carol@127.0.0.1");
        EXPECT_EQ(list["rooms"][0]["team@127.0.0.1"]["name"].toString(), "The team");
        EXPECT_EQ(carol.stop(SIGTERM), 0);
    }

    expectSent(common("alice") << "room" << "rename" << "team" << "Renamed");
    EXPECT_EQ(request("s")["name"].toString(), "Renamed");
    EXPECT_EQ(roomEvent(14)["name"].toString(), "Renamed");

    expectSent(common("alice") << "room" << "owner" << "team" << "bob");
    const auto text = [](const QJsonObject &object) { return QJsonDocument(object).toJson(QJsonDocument::Compact); };
    EXPECT_EQ(text(request("g")), R"({"member_id":"bob@127.0.0.1","room_id":"team@127.0.0.1"})");
    EXPECT_EQ(roomEvent(19)["creater"].toString(), "bob@127.0.0.1");

    expectSent(common("alice") << "room" << "type" << "team" << "5");
    EXPECT_EQ(text(request("m")), R"({"room_id":"team@127.0.0.1","room_type":"5"})");
    EXPECT_EQ(roomEvent(20)["type"].toInt(), 5);

    expectSent(common("alice") << "room" << "invite" << "team" << "dave");
    EXPECT_EQ(memberJids(request("i")), QStringList({"dave@127.0.0.1"}));
    EXPECT_TRUE(memberJids(roomEvent(12)).contains("dave@127.0.0.1"));

    expectSent(common("alice") << "room" << "kick" << "team" << "carol");
    EXPECT_EQ(request("k")["operatorBy"].toString(), R"({"memberID":"carol","operatorBy":"alice"})");
    EXPECT_EQ(roomEvent(13)["operatorBy"].toString(), R"({"memberID":"carol","operatorBy":"alice"})");

    expectSent(common("alice") << "room" << "destroy" << "team");
    EXPECT_EQ(request("r")["name"].toString(), "team");
    EXPECT_FALSE(memberJids(roomEvent(11)).contains("carol@127.0.0.1"));

    EXPECT_EQ(bob.stop(SIGTERM), 0);
    EXPECT_EQ(bob.badLines(), 0);
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_EQ(server.badLines(), 0);
}

// A raw subscriber shows what location and status put on the wire.
TEST_F(CliBroker, LocationAndStatusReachTheWire)
{
    const QString subscriber = QStandardPaths::findExecutable(QStringLiteral("mosquitto_sub"));
    const QString unbuffered = QStandardPaths::findExecutable(QStringLiteral("stdbuf"));
    if (subscriber.isEmpty() || unbuffered.isEmpty())
        GTEST_SKIP() << "needs mosquitto_sub and stdbuf";

    // What arrives on `topic` while `command` runs.
    const auto observe = [&](const QString &topic, const QStringList &command) {
        QProcess raw;
        prepare(raw, unbuffered);
        raw.setArguments({"-oL", subscriber, "-h", "127.0.0.1", "-p", QString::number(broker.port()), "-t", topic,
                          "-v", "-d", "-C", "1", "-W", "10"});
        raw.start();
        QByteArray seen;
        while (!seen.contains("Subscribed") && raw.waitForReadyRead(5000))
            seen += raw.readAllStandardOutput();
        EXPECT_TRUE(seen.contains("Subscribed")) << seen.constData();
        expectSent(command);
        raw.waitForFinished(10000);
        return seen + raw.readAllStandardOutput();
    };

    const QByteArray location = observe("LOCATION/#", common("alice") << "location" << "bob" << "12.5" << "44.1");
    EXPECT_TRUE(location.contains("\nLOCATION/bob 12.5:44.1\n")) << location.constData();

    // The status change goes to the configured server JID, enciphered.
    const QByteArray status = observe("m/i/srv@ops.test/m", common("alice") << "--server-jid" << "srv@ops.test"
                                                                           << "status" << "0f8e-uuid" << "2");
    EXPECT_TRUE(status.contains("\nm/i/srv@ops.test/m ")) << status.constData();
}

// Without --device the library's generated id is kept in the client's own
// settings file, and reused.
TEST_F(CliBroker, DeviceIdIsKeptInTheClientsSettings)
{
    const QStringList arguments = {"--port", QString::number(broker.port()), "--user", "alice",
                                   "location", "x", "1", "2"};
    const auto storedId = [&] {
        QFile file(settings.path() + "/pushchat/pushchat-cli.conf");
        file.open(QIODevice::ReadOnly);
        return QRegularExpression("sms_uuid=([0-9a-f-]{36})\n").match(QString(file.readAll())).captured(1);
    };
    expectSent(arguments);
    const QString id = storedId();
    ASSERT_FALSE(id.isEmpty());
    EXPECT_NE(broker.log().find("as alice@127.0.0.1@" + id.toStdString()), std::string::npos) << broker.log();
    expectSent(arguments);
    EXPECT_EQ(storedId(), id);
}

// A loopback port on which a broker listened a moment ago.
int deadPort()
{
    MosquittoBroker gone;
    EXPECT_TRUE(gone.start());
    return gone.port(); // the destructor stops it
}

TEST_F(CliBroker, UnreachableBrokerFailsWithinTheTimeout)
{
    const int port = deadPort();

    for (const QString &command : {QStringLiteral("send"), QStringLiteral("listen")}) {
        QStringList arguments = common("alice", port);
        arguments << "--timeout" << "1" << command;
        if (command == "send")
            arguments << "bob" << "hi";
        const Finished done = run(arguments);
        EXPECT_FALSE(done.crashed);
        EXPECT_EQ(done.exitCode, 2) << command.toStdString();
        EXPECT_GE(done.elapsedMs, 1000);
        EXPECT_LT(done.elapsedMs, 6000);
        EXPECT_EQ(done.err, QByteArray("pushchat: no connection to 127.0.0.1:" + QByteArray::number(port) +
                                       " within 1 s.\n"));
    }
}

TEST_F(CliBroker, SignalWhileConnectingEndsPromptly)
{
    const int port = deadPort();

    const auto interrupt = [&](const QStringList &arguments) {
        QProcess process;
        prepare(process);
        Listener cli(process);
        EXPECT_TRUE(cli.start(arguments));
        EXPECT_TRUE(blocksSigint(process.processId()));
        QElapsedTimer timer;
        timer.start();
        const int code = cli.stop(SIGINT);
        EXPECT_LT(timer.elapsed(), 5000);
        return std::make_pair(code, process.readAllStandardError());
    };

    const auto listen = interrupt(common("bob", port) << "--timeout" << "60" << "listen");
    EXPECT_EQ(listen.first, 0) << listen.second.constData();
    const auto send = interrupt(common("alice", port) << "--timeout" << "60" << "send" << "bob" << "hi");
    EXPECT_EQ(send.first, 130);
    EXPECT_EQ(send.second.count('\n'), 1) << send.second.constData();
}

TEST_F(CliBroker, UsageErrorsGiveOneLineAndStatus64)
{
    const QStringList bad[] = {
        common("alice") << "--bogus" << "listen",
        common("alice") << "send" << "bob",
        {"--port", QString::number(broker.port()), "listen"},
        common("alice") << "dance",
        common("alice") << "room",
        common("alice") << "room" << "paint" << "team",
        common("alice") << "room" << "create" << "team" << "Team",
        common("alice") << "room" << "destroy" << "",
        common("alice") << "room" << "type" << "team" << "big",
        common("alice") << "room" << "invite" << "team" << "bob" << "--type" << "2",
        common("alice") << "friend" << "list" << "--count" << "0",
    };
    for (const QStringList &arguments : bad) {
        const Finished done = run(arguments);
        EXPECT_EQ(done.exitCode, 64) << arguments.join(' ').toStdString();
        EXPECT_TRUE(done.err.startsWith("pushchat: ")) << done.err.constData();
        EXPECT_EQ(done.err.count('\n'), 1) << done.err.constData();
        EXPECT_TRUE(done.out.isEmpty());
    }
    // Nothing connected to the broker for any of them.
    EXPECT_EQ(broker.log().find("New client connected"), std::string::npos) << broker.log();

    const Finished help = run({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.contains("send TO TEXT")) << help.out.constData();
    EXPECT_TRUE(help.out.contains("room create ROOM NAME MEMBERS [--type N]")) << help.out.constData();
}

// Plays the IM server for the commands the client sends it: records every
// command on "s/<family>/c/<server>/..." and answers each history request
// on the user's "s/h/i/<user>/<same sub-command>" with the body
// {"asked": sub-command, "request": the request's body}.
class ServerPeer : public PushEventReciever {
public:
    struct Command {
        std::string topic;
        std::string from;
        std::string body;
    };

    ~ServerPeer() override { client_.reset(); } // no callback runs after this

    bool connect(int port)
    {
        std::string id = "server-peer";
        client_ = std::make_unique<PushClient>(id.data());
        client_->setEventRecv(this);
        client_->start_connect("127.0.0.1", port, 60);
        return waitUntil([this] { return ready_; });
    }

    /// Waits (10 s at most) until `condition` holds; it may read
    /// commandsLocked().
    bool waitUntil(const std::function<bool()> &condition)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), condition);
    }
    const std::vector<Command> &commandsLocked() const { return commands_; }

    void connectStatus(bool connected) override
    {
        if (!connected)
            return;
        std::string commands = "s/+/c/" + std::string(kServer) + "/#";
        std::string ready = kReady;
        client_->subscribe(commands.data());
        client_->subscribe(ready.data());
        client_->publish(kReady, "", 2, false); // comes back once both are in force
    }

    void messgeRecievedMore(int, char *topic, void *payload, int, int, bool) override
    {
        const std::string text = topic;
        std::lock_guard<std::mutex> lock(mutex_);
        if (text == kReady) {
            ready_ = true;
        } else {
            MQTTMessage in(nullptr, true);
            in.fromTopic(topic, static_cast<const char *>(payload));
            commands_.push_back({text, in.from, in.body});
            const std::string history = "s/h/c/" + std::string(kServer) + "/";
            if (text.rfind(history, 0) == 0)
                answer(in.from, text.substr(history.size()), in.body);
        }
        changed_.notify_all();
    }

    static constexpr const char *kServer = "server@127.0.0.1";

private:
    static constexpr const char *kReady = "server-peer/ready";

    void answer(const std::string &user, const std::string &sub, const std::string &request)
    {
        const QJsonObject body{{"asked", QString::fromStdString(sub)}, {"request", QString::fromStdString(request)}};
        MQTTMessage out(nullptr, true);
        out.fromText(kServer, QString::fromStdString(user), QJsonDocument(body).toJson(QJsonDocument::Compact),
                     MediaInfo::MESSAGE_TYPE_SYSTEM, 9999, BODY_TYPE_DEFAULT, QString(), QString());
        client_->publish(("s/h/i/" + user + "/" + sub).c_str(), out.payload.c_str(), 2, false);
    }

    std::unique_ptr<PushClient> client_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool ready_ = false;
    std::vector<Command> commands_;
};

// The one event line a history command printed.
QJsonObject answerLine(const Finished &done)
{
    EXPECT_EQ(done.exitCode, 0) << done.err.constData();
    EXPECT_EQ(done.out.count('\n'), 1) << done.out.constData();
    return QJsonDocument::fromJson(done.out).object();
}

TEST_F(CliBroker, FriendAndRemoteDesktopMessagesReachTheListeningPeer)
{
    QProcess process;
    prepare(process);
    Listener bob(process);
    ASSERT_TRUE(bob.startConnected(common("bob") << "listen"));

    const auto event = [&](const QString &name) {
        const QJsonObject got = bob.waitForEvent(name);
        EXPECT_EQ(got["from"].toString(), "alice@127.0.0.1") << name.toStdString();
        EXPECT_EQ(got["to"].toString(), "bob@127.0.0.1") << name.toStdString();
        return got;
    };
    expectSent(common("alice") << "friend" << "add" << "bob" << "be my friend");
    EXPECT_EQ(event("onFriendAdded")["body"].toString(), "be my friend");
    expectSent(common("alice") << "friend" << "accept" << "bob@127.0.0.1");
    EXPECT_EQ(event("onFriendAccepted")["flag"].toInt(), 1);
    expectSent(common("alice") << "friend" << "del" << "bob");
    EXPECT_EQ(event("onFriendDeleted")["flag"].toInt(), 1);

    const std::pair<const char *, const char *> rdp[] = {
        {"control", "onRemoteDesktopControlRequest"},
        {"becontrol", "onRemoteDesktopBeControlRequest"},
        {"control-reply", "onRemoteDesktopControlResponse"},
        {"becontrol-reply", "onRemoteDesktopBeControlResponse"},
    };
    for (const auto &[subcommand, callback] : rdp) {
        const QString text = QStringLiteral("%1: vnc://10.0.0.1").arg(QLatin1String(subcommand));
        expectSent(common("alice") << "rdp" << subcommand << "bob" << text);
        EXPECT_EQ(event(QLatin1String(callback))["body"].toString(), text);
    }
    EXPECT_EQ(bob.stop(SIGTERM), 0);
    EXPECT_EQ(bob.badLines(), 0);
}

TEST_F(CliBroker, HistoryOverThePushChannelPrintsTheServersAnswer)
{
    ServerPeer server;
    ASSERT_TRUE(server.connect(broker.port()));

    const auto ask = [&](const QStringList &words) {
        return answerLine(run(common("alice") << "--level" << "4" << "history" << words));
    };
    const auto asked = [](const QJsonObject &line) {
        return QJsonDocument::fromJson(line["json"].toString().toUtf8()).object();
    };

    const QJsonObject conversations = ask({"conversations", "1", "0", "20"});
    EXPECT_EQ(conversations["event"].toString(), "onConversations");
    EXPECT_EQ(asked(conversations)["asked"].toString(), "c");
    EXPECT_EQ(asked(conversations)["request"].toString(),
              R"({"message_type":1,"my_sec_level":4,"page":0,"pagesize":20})");

    const QJsonObject detail = ask({"detail", "conv-7", "2", "10"});
    EXPECT_EQ(detail["event"].toString(), "onConversationDetail");
    EXPECT_EQ(asked(detail)["request"].toString(), R"({"conv_id":"conv-7","my_sec_level":4,"page":2,"pagesize":10})");

    const QJsonObject pull = ask({"pull", "2", "30", "15", "u-2"});
    EXPECT_EQ(pull["event"].toString(), "onHistoryMessages");
    EXPECT_EQ(asked(pull)["request"].toString(),
              R"({"count":15,"msg_uuid":"u-2","my_sec_level":4,"pull_type":2,"start":30})");

    const QJsonObject sync = ask({"sync", "u-1"});
    EXPECT_EQ(sync["event"].toString(), "onHistoryMessages");
    EXPECT_EQ(asked(sync)["request"].toString(), R"({"msg_uuid":"u-1","my_sec_level":4})");

    // friend list and props go to the server too (beside the room-list
    // request of every login).
    expectSent(common("alice") << "friend" << "list" << "--type" << "2" << "--count" << "5" << "--cursor" << "carol");
    expectSent(common("alice") << "friend" << "props" << "bob" << R"({"alias":"B"})");
    std::vector<ServerPeer::Command> friends;
    server.waitUntil([&] {
        friends.clear();
        for (const ServerPeer::Command &command : server.commandsLocked()) {
            if (command.topic.rfind("s/f/", 0) == 0)
                friends.push_back(command);
        }
        return friends.size() >= 2;
    });
    ASSERT_EQ(friends.size(), 2u);
    EXPECT_EQ(friends[0].topic, "s/f/c/server@127.0.0.1/l");
    EXPECT_EQ(friends[0].body, R"({"count":5,"last_friend_id":"carol","type":2})");
    EXPECT_EQ(friends[1].topic, "s/f/c/server@127.0.0.1/s");
    EXPECT_EQ(friends[1].from, "alice@127.0.0.1");
    EXPECT_EQ(friends[1].body, R"({"alias":"B"})");
}

TEST_F(CliBroker, HistoryWithoutAnAnswerTimesOut)
{
    ServerPeer server; // answers server@127.0.0.1 only
    ASSERT_TRUE(server.connect(broker.port()));
    const QStringList unanswered = common("alice") << "--server-jid" << "nobody@127.0.0.1" << "history" << "sync"
                                                   << "u-1";
    const Finished done = run(QStringList(unanswered) << "--timeout" << "1");
    EXPECT_FALSE(done.crashed);
    EXPECT_EQ(done.exitCode, 4);
    EXPECT_GE(done.elapsedMs, 1000);
    EXPECT_LT(done.elapsedMs, 8000);
    EXPECT_TRUE(done.out.isEmpty()) << done.out.constData();
    EXPECT_EQ(done.err, QByteArray("pushchat: no message history arrived within 1 s.\n"));

    // A signal while waiting ends it promptly.
    QProcess process;
    prepare(process);
    Listener waiting(process);
    ASSERT_TRUE(waiting.start(QStringList(unanswered) << "--timeout" << "60"));
    ASSERT_TRUE(blocksSigint(process.processId()));
    QThread::msleep(500); // connected and asking, most likely; either way it must end
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(waiting.stop(SIGINT), 130);
    EXPECT_LT(timer.elapsed(), 5000);
}

TEST_F(CliBroker, HistoryOverHttp)
{
    HttpTestServer http;
    ASSERT_TRUE(http.start());
    const QStringList alice = common("alice") << "--level" << "3" << "history" << "--http" << "--http-base"
                                              << QString::fromStdString(http.baseAddress());

    http.answer(200, R"([{"msg":"hi"}])");
    const QJsonObject sync = answerLine(run(QStringList(alice) << "sync" << "u-1"));
    EXPECT_EQ(sync, QJsonObject({{"event", "onHistoryMessages"}, {"json", R"([{"msg":"hi"}])"}}));
    const QJsonObject pull = answerLine(run(QStringList(alice) << "pull" << "2" << "7" << "u-2"));
    EXPECT_EQ(pull["json"].toString(), R"([{"msg":"hi"}])");
    EXPECT_EQ(http.requestLines(),
              (std::vector<std::string>{
                  "GET /vantrel_api/instance_message/sync_history_message?user_id=alice@127.0.0.1&msg_uuid=u-1"
                  "&my_sec_level=3 HTTP/1.1",
                  "GET /vantrel_api/instance_message/pull_history_message?user_id=alice@127.0.0.1&type=2&count=7"
                  "&msg_uuid=u-2&my_sec_level=3 HTTP/1.1"}));

    // An empty body and an HTTP error both leave the answer empty.
    for (const int status : {200, 404}) {
        http.answer(status, status == 200 ? "" : "gone");
        const Finished done = run(QStringList(alice) << "sync" << "u-3");
        EXPECT_EQ(done.exitCode, 4) << status;
        EXPECT_TRUE(done.out.isEmpty()) << done.out.constData();
        EXPECT_TRUE(done.err.contains("pushchat: the HTTP history service's answer is empty")) << done.err.constData();
    }
}

// A tiny picture in a format Qt reads without plugins.
QByteArray portablePixmap(int width, int height)
{
    QByteArray data = "P6\n" + QByteArray::number(width) + " " + QByteArray::number(height) + "\n255\n";
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const char rgb[] = {char(x * 5), char(y * 7), char(128)};
            data.append(rgb, sizeof rgb);
        }
    }
    return data;
}

TEST_F(CliBroker, ImagesAreSentAndSavedByListen)
{
    const QString picture = home.filePath("picture.ppm");
    {
        QFile file(picture);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(portablePixmap(40, 30));
    }
    QProcess process;
    prepare(process);
    Listener bob(process);
    ASSERT_TRUE(bob.startConnected(common("bob") << "listen" << "--save-images"));

    expectSent(common("alice") << "send" << "--image" << picture << "bob");
    const QJsonObject image = bob.waitForEvent("onMessageReceive");
    EXPECT_EQ(QJsonDocument::fromJson(image["body"].toString().toUtf8()).object()["type"].toString(), "image_encode");
    const QString saved = image["saved"].toString();
    EXPECT_TRUE(QRegularExpression("^" + QRegularExpression::escape(home.path()) +
                                   "/Documents/[0-9a-f-]{36}\\.jpg$").match(saved).hasMatch())
        << saved.toStdString();
    QFile jpeg(saved);
    ASSERT_TRUE(jpeg.open(QIODevice::ReadOnly));
    EXPECT_TRUE(jpeg.read(2) == QByteArray("\xff\xd8")); // a JPEG file

    // Text and broken image bodies: no file, "saved" absent or empty.
    expectSent(common("alice") << "send" << "bob" << "just text");
    EXPECT_FALSE(bob.waitFor(message("just text")).contains("saved"));
    const QString broken = R"({"body":"AAAA","type":"image_encode"})";
    expectSent(common("alice") << "send" << "bob" << broken);
    const QJsonObject bad = bob.waitFor(message(broken));
    EXPECT_TRUE(bad.contains("saved"));
    EXPECT_EQ(bad["saved"].toString(), "");
    EXPECT_EQ(QDir(home.filePath("Documents")).entryList(QDir::Files).size(), 1);
    EXPECT_EQ(bob.stop(SIGTERM), 0);

    // What cannot be loaded is not sent: status 66, and no connection.
    QFile notImage(home.filePath("notes.png"));
    ASSERT_TRUE(notImage.open(QIODevice::WriteOnly));
    notImage.write("plain text");
    notImage.close();
    for (const QString &path : {notImage.fileName(), home.filePath("missing.png")}) {
        const Finished done = run(common("carol") << "send" << "--image" << path << "bob");
        EXPECT_EQ(done.exitCode, 66) << path.toStdString();
        EXPECT_TRUE(done.err.endsWith("pushchat: cannot load '" + path.toUtf8() + "' as an image.\n"))
            << done.err.constData();
    }
    EXPECT_EQ(broker.log().find("carol@127.0.0.1"), std::string::npos);
}

} // namespace
