// The pushchat program against a real broker: what listen prints for what
// send delivers, the exit statuses, and what reaches the wire.

#include "mosquittobroker.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
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
    }

    // The program with the settings store in a private directory.
    void prepare(QProcess &process, const QString &program = QStringLiteral(PUSHCHAT_CLI))
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), settings.path());
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
    ASSERT_TRUE(bob.start(common("bob") << "listen"));
    ASSERT_FALSE(bob.waitForEvent("onConnected").isEmpty()) << process.readAllStandardError().constData();

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
    ASSERT_TRUE(bob.start(common("bob") << "--level" << "5" << "--domain" << "im.test" << "listen"));
    ASSERT_FALSE(bob.waitForEvent("onConnected").isEmpty());

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
}

} // namespace
