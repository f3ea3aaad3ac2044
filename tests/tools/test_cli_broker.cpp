// The pushchat program against a real broker: what listen prints for what
// send delivers, room requests answered by the demo server, friend,
// remote-desktop, location and status messages, history over the push
// channel and over HTTP, images, and the exit statuses.

#include "httptestserver.h"
#include "mediainfo.h"
#include "mosquittobroker.h"
#include "mqttmessage.h"
#include "pushclient.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
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

// What listen prints for each kind of message sent. --level and --domain
// reach both ends: below the listener's level a body is hidden, a notice is
// not.
TEST_F(CliBroker, ListenPrintsWhatIsSent)
{
    QProcess process;
    prepare(process);
    Listener bob(process);
    ASSERT_TRUE(bob.startConnected(common("bob") << "--level" << "5" << "--domain" << "im.test" << "listen"
                                                << "--save-images"));
    const QStringList alice = common("alice") << "--domain" << "im.test";

    expectSent(QStringList(alice) << "--level" << "5" << "send" << "bob" << "hello bob");
    const QJsonObject chat = bob.waitFor(message("hello bob"));
    ASSERT_FALSE(chat.isEmpty());
    EXPECT_EQ(chat["from"].toString(), "alice@im.test");
    EXPECT_EQ(chat["to"].toString(), "bob@im.test");
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

    expectSent(QStringList(alice) << "--level" << "3" << "send" << "bob" << "secret at 3");
    const QJsonObject hidden = bob.waitForEvent("onMessageReceive");
    EXPECT_FALSE(hidden["readable"].toBool(true));
    EXPECT_NE(hidden["body"].toString(), "secret at 3");

    expectSent(QStringList(alice) << "--level" << "3" << "send" << "--notice" << "everyone" << "a notice");
    const QJsonObject notice = bob.waitFor(message("a notice"));
    EXPECT_EQ(notice["bodyType"].toInt(), 7);
    EXPECT_TRUE(notice["readable"].toBool(false));

    expectSent(QStringList(alice) << "--level" << "5" << "send" << "--room" << "bob" << "as a room message");
    const QJsonObject roomMessage = bob.waitFor(message("as a room message"));
    EXPECT_EQ(roomMessage["msgType"].toInt(), 4);
    EXPECT_FALSE(roomMessage.contains("saved")); // text: nothing to save

    // Friend and remote-desktop subcommands, each to its callback.
    const auto event = [&](const QString &name) {
        const QJsonObject got = bob.waitForEvent(name);
        EXPECT_EQ(got["from"].toString(), "alice@im.test") << name.toStdString();
        EXPECT_EQ(got["to"].toString(), "bob@im.test") << name.toStdString();
        return got;
    };
    expectSent(QStringList(alice) << "friend" << "add" << "bob" << "be my friend");
    EXPECT_EQ(event("onFriendAdded")["body"].toString(), "be my friend");
    expectSent(QStringList(alice) << "friend" << "accept" << "bob@im.test");
    EXPECT_EQ(event("onFriendAccepted")["flag"].toInt(), 1);
    expectSent(QStringList(alice) << "friend" << "del" << "bob");
    EXPECT_EQ(event("onFriendDeleted")["flag"].toInt(), 1);
    const std::pair<const char *, const char *> rdp[] = {
        {"control", "onRemoteDesktopControlRequest"},
        {"becontrol", "onRemoteDesktopBeControlRequest"},
        {"control-reply", "onRemoteDesktopControlResponse"},
        {"becontrol-reply", "onRemoteDesktopBeControlResponse"},
    };
    for (const auto &[subcommand, callback] : rdp) {
        const QString text = QStringLiteral("%1: vnc://10.0.0.1").arg(QLatin1String(subcommand));
        expectSent(QStringList(alice) << "rdp" << subcommand << "bob" << text);
        EXPECT_EQ(event(QLatin1String(callback))["body"].toString(), text);
    }

    // An image is sent as one and saved as a JPEG file; a broken one is not.
    const QString picture = home.filePath("picture.ppm"); // a format Qt reads without plugins
    QImage pixels(40, 30, QImage::Format_RGB32);
    pixels.fill(Qt::darkCyan);
    ASSERT_TRUE(pixels.save(picture, "PPM"));
    expectSent(QStringList(alice) << "--level" << "5" << "send" << "--image" << picture << "bob");
    const QJsonObject image = bob.waitForEvent("onMessageReceive");
    EXPECT_EQ(QJsonDocument::fromJson(image["body"].toString().toUtf8())["type"].toString(), "image_encode");
    const QString saved = image["saved"].toString();
    EXPECT_TRUE(QRegularExpression("^" + QRegularExpression::escape(home.path()) +
                                   "/Documents/[0-9a-f-]{36}\\.jpg$").match(saved).hasMatch())
        << saved.toStdString();
    QFile jpeg(saved);
    ASSERT_TRUE(jpeg.open(QIODevice::ReadOnly));
    EXPECT_TRUE(jpeg.read(2) == QByteArray("\xff\xd8"));
    const QString broken = R"({"body":"AAAA","type":"image_encode"})";
    expectSent(QStringList(alice) << "--level" << "5" << "send" << "bob" << broken);
    const QJsonObject bad = bob.waitFor(message(broken));
    EXPECT_TRUE(bad.contains("saved"));
    EXPECT_EQ(bad["saved"].toString(), "");
    EXPECT_EQ(QDir(home.filePath("Documents")).entryList(QDir::Files).size(), 1);

    EXPECT_EQ(bob.stop(SIGTERM), 0) << process.readAllStandardError().constData();
    EXPECT_EQ(bob.badLines(), 0);
    // An orderly logout: the broker saw a DISCONNECT, not a dropped link.
    EXPECT_NE(broker.log().find("Client bob@im.test@dev-bob disconnected."), std::string::npos) << broker.log();
}

// The room subcommands, each checked in the event the demo server answers
// with, built from the request it read.
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
    QStringList members = memberJids(room);
    members.sort();
    EXPECT_EQ(members, QStringList({"alice@127.0.0.1", "bob@127.0.0.1", "carol@127.0.0.1"}));

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
    EXPECT_EQ(roomEvent(14)["name"].toString(), "Renamed");
    expectSent(common("alice") << "room" << "owner" << "team" << "bob");
    EXPECT_EQ(roomEvent(19)["creater"].toString(), "bob@127.0.0.1");
    expectSent(common("alice") << "room" << "type" << "team" << "5");
    EXPECT_EQ(roomEvent(20)["type"].toInt(), 5);
    expectSent(common("alice") << "room" << "invite" << "team" << "dave");
    EXPECT_TRUE(memberJids(roomEvent(12)).contains("dave@127.0.0.1"));
    expectSent(common("alice") << "room" << "kick" << "team" << "carol");
    EXPECT_EQ(roomEvent(13)["operatorBy"].toString(), R"({"memberID":"carol","operatorBy":"alice"})");
    expectSent(common("alice") << "room" << "destroy" << "team");
    EXPECT_FALSE(memberJids(roomEvent(11)).contains("carol@127.0.0.1"));

    EXPECT_EQ(bob.stop(SIGTERM), 0);
    EXPECT_EQ(bob.badLines(), 0);
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_EQ(server.badLines(), 0);
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

// No broker: the connect timeout ends send and listen with status 2; a
// signal while connecting ends them at once (listen normally, send with 130).
TEST_F(CliBroker, UnreachableBrokerFailsWithinTheTimeoutOrOnASignal)
{
    const int port = deadPort();
    for (const QString &command : {QStringLiteral("send"), QStringLiteral("listen")}) {
        QStringList arguments = common("alice", port) << "--timeout" << "1" << command;
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

// Parsing is checked on its own; here: status 64 (66 for an image that
// cannot be loaded), one line on stderr, no connection, --help on stdout.
TEST_F(CliBroker, UsageErrorsEndBeforeConnecting)
{
    const QStringList bad[] = {
        common("alice") << "--bogus" << "listen",
        {"--port", QString::number(broker.port()), "listen"},
        common("alice") << "room" << "create" << "team" << "Team",
        common("alice") << "friend" << "list" << "--count" << "0",
    };
    for (const QStringList &arguments : bad) {
        const Finished done = run(arguments);
        EXPECT_EQ(done.exitCode, 64) << arguments.join(' ').toStdString();
        EXPECT_TRUE(done.err.startsWith("pushchat: ")) << done.err.constData();
        EXPECT_EQ(done.err.count('\n'), 1) << done.err.constData();
        EXPECT_TRUE(done.out.isEmpty());
    }
    // What cannot be loaded as an image is not sent: status 66.
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

    EXPECT_EQ(broker.log().find("New client connected"), std::string::npos) << broker.log();

    const Finished help = run({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.contains("room create ROOM NAME MEMBERS [--type N]")) << help.out.constData();
}

// Plays the IM server: records everything published (subscribed to "#")
// and answers each history request on "s/h/c/<server>/<sub>" on the user's
// "s/h/i/<user>/<sub>" with {"asked": sub, "request": the request's body}.
class ServerPeer : public PushEventReciever {
public:
    struct Published {
        std::string topic, payload; // payload as published
        std::string from, body;     // its envelope, when it has one
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

    /// What was published on `topic`, once there are `count` (10 s at most).
    std::vector<Published> on(const std::string &topic, std::size_t count = 1)
    {
        std::vector<Published> found;
        waitUntil([&] {
            found.clear();
            for (const Published &p : published_)
                if (p.topic == topic)
                    found.push_back(p);
            return found.size() >= count;
        });
        return found;
    }

    void connectStatus(bool connected) override
    {
        if (!connected)
            return;
        char all[] = "#";
        client_->subscribe(all);
        client_->publish(kReady, "", 2, false); // comes back once the subscription is in force
    }

    void messgeRecievedMore(int, char *topic, void *payload, int length, int, bool) override
    {
        const std::string text = topic;
        std::lock_guard<std::mutex> lock(mutex_);
        if (text == kReady) {
            ready_ = true;
        } else {
            MQTTMessage in(nullptr, true);
            in.fromTopic(topic, static_cast<const char *>(payload));
            published_.push_back({text, std::string(static_cast<const char *>(payload), std::size_t(length)),
                                  in.from, in.body});
            const std::string history = "s/h/c/" + std::string(kServer) + "/";
            if (text.rfind(history, 0) == 0)
                answer(in.from, text.substr(history.size()), in.body);
        }
        changed_.notify_all();
    }

    static constexpr const char *kServer = "server@127.0.0.1";

private:
    static constexpr const char *kReady = "server-peer/ready";

    bool waitUntil(const std::function<bool()> &condition)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), condition);
    }

    void answer(const std::string &user, const std::string &sub, const std::string &request)
    {
        const QJsonObject body{{"asked", QString::fromStdString(sub)}, {"request", QString::fromStdString(request)}};
        MQTTMessage out(nullptr, true);
        out.fromText(kServer, QString::fromStdString(user), QJsonDocument(body).toJson(QJsonDocument::Compact),
                     MediaInfo::MESSAGE_TYPE_SYSTEM, 9999, BODY_TYPE_DEFAULT, QString(), QString());
        client_->publish(("s/h/i/" + user + "/" + sub).c_str(), out.payload.c_str(), 2, false);
    }

    std::unique_ptr<PushClient> client_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ready_ = false;
    std::vector<Published> published_;
};

// The one event line a history command printed.
QJsonObject answerLine(const Finished &done)
{
    EXPECT_EQ(done.exitCode, 0) << done.err.constData();
    EXPECT_EQ(done.out.count('\n'), 1) << done.out.constData();
    return QJsonDocument::fromJson(done.out).object();
}

// Each history form asks with its arguments in place and prints the answer
// under its own event; friend list and props, location and status reach
// their topics with their arguments.
TEST_F(CliBroker, ServerRequestsAndHistoryOverThePushChannel)
{
    ServerPeer server;
    ASSERT_TRUE(server.connect(broker.port()));

    struct Form {
        QStringList words;
        const char *event, *request;
    };
    const Form forms[] = {
        {{"conversations", "1", "0", "20"}, "onConversations",
         R"({"message_type":1,"my_sec_level":4,"page":0,"pagesize":20})"},
        {{"detail", "conv-7", "2", "10"}, "onConversationDetail",
         R"({"conv_id":"conv-7","my_sec_level":4,"page":2,"pagesize":10})"},
        {{"pull", "2", "30", "15", "u-2"}, "onHistoryMessages",
         R"({"count":15,"msg_uuid":"u-2","my_sec_level":4,"pull_type":2,"start":30})"},
        {{"sync", "u-1"}, "onHistoryMessages", R"({"msg_uuid":"u-1","my_sec_level":4})"},
    };
    for (const Form &form : forms) {
        const QJsonObject line = answerLine(run(common("alice") << "--level" << "4" << "history" << form.words));
        EXPECT_EQ(line["event"].toString(), form.event);
        EXPECT_EQ(QJsonDocument::fromJson(line["json"].toString().toUtf8())["request"].toString(), form.request);
    }

    expectSent(common("alice") << "friend" << "list" << "--type" << "2" << "--count" << "5" << "--cursor" << "carol");
    const auto list = server.on("s/f/c/server@127.0.0.1/l");
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].body, R"({"count":5,"last_friend_id":"carol","type":2})");
    expectSent(common("alice") << "friend" << "props" << "bob" << R"({"alias":"B"})");
    const auto props = server.on("s/f/c/server@127.0.0.1/s");
    ASSERT_EQ(props.size(), 1u);
    EXPECT_EQ(props[0].from, "alice@127.0.0.1");
    EXPECT_EQ(props[0].body, R"({"alias":"B"})");

    expectSent(common("alice") << "location" << "bob" << "12.5" << "44.1");
    const auto location = server.on("LOCATION/bob");
    ASSERT_EQ(location.size(), 1u);
    EXPECT_EQ(location[0].payload, "12.5:44.1");
    // The status change goes to the configured server JID.
    expectSent(common("alice") << "--server-jid" << "srv@ops.test" << "status" << "0f8e-uuid" << "2");
    const auto status = server.on("m/i/srv@ops.test/m");
    ASSERT_EQ(status.size(), 1u);
    EXPECT_EQ(status[0].body, R"({"status":2,"uuid":"0f8e-uuid"})");
}

TEST_F(CliBroker, HistoryWithoutAnAnswerTimesOut)
{
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

    // An empty answer (here an HTTP error) is no answer.
    http.answer(404, "gone");
    const Finished done = run(QStringList(alice) << "sync" << "u-3");
    EXPECT_EQ(done.exitCode, 4);
    EXPECT_TRUE(done.out.isEmpty()) << done.out.constData();
    EXPECT_TRUE(done.err.contains("pushchat: the HTTP history service's answer is empty")) << done.err.constData();
}

} // namespace
