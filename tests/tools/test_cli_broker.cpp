// The programs over a real broker, in one scenario: bob listens while alice
// runs each kind of command once and the development server answers her room
// request. Checked: each command's exit status, first line of output and
// error line, and the events bob's listen printed.

#include "eventlog.h"
#include "httptestserver.h"
#include "mosquittobroker.h"

#include <pushchat/version.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

namespace {

// Adds the JSON lines `process` printed since the last call to `lines`, each
// as its event and its values in key order (a room as its jid, name, creator,
// type and member count), with ids and times as <uuid> and <time>.
bool readLines(QProcess &process, Lines &lines, std::size_t until = 0)
{
    return eventually([&] {
        process.waitForReadyRead(20);
        while (process.canReadLine()) {
            QJsonObject event = QJsonDocument::fromJson(process.readLine()).object();
            QString line = event.take(QStringLiteral("event")).toString();
            for (const QJsonValue &value : event) {
                const QJsonObject r = value.toObject();
                line += '|' + (value.isObject()
                                   ? QStringLiteral("%1,%2,%3,%4,%5")
                                         .arg(r["jid"].toString(), r["name"].toString(), r["creater"].toString())
                                         .arg(r["type"].toInt())
                                         .arg(r["members"].toArray().size())
                                   : value.toVariant().toString());
            }
            line.replace(QRegularExpression("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"), QStringLiteral("<uuid>"));
            line.replace(QRegularExpression("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d"), QStringLiteral("<time>"));
            lines.push_back(line.toStdString());
        }
        return lines.size() >= until;
    });
}

// Ends `process` with `signal`: its exit status, or -1 if it crashed or hung.
int stop(QProcess &process, int signal)
{
    // An ended process has id 0, and kill(0, ...) would signal our own group: send nothing then.
    ::kill(pid_t(process.processId()), process.processId() ? signal : 0);
    const bool ended = process.waitForFinished(int(kWaitLimit.count()));
    return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

TEST(CliBroker, CommandsAndWhatListenPrints)
{
    // The programs' home (documents) and settings, private to the test.
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", home.path().toUtf8());
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start()) << broker.log();
    HttpTestServer http;
    ASSERT_TRUE(http.start());
    http.answer(200, "[7]");
    const QString port = QStringLiteral("--port %1 ").arg(broker.port());
    const QString at = port + "--domain im ";

    QProcess server, bob;
    Lines serverLines, bobLines;
    server.start(PUSHCHAT_DEVSERVER, (port + "--server-jid server@im --http-port 0").split(' '));
    ASSERT_TRUE(readLines(server, serverLines, 1)); // ready
    bob.start(PUSHCHAT_CLI, (at + "--user bob --device b --level 5 listen").split(' '));
    ASSERT_TRUE(readLines(bob, bobLines, 1)) << bob.readAllStandardError().constData();
    EXPECT_EQ(bobLines[0], "onConnected");

    // Exit status, the first line on stdout, the last on stderr.
    const std::pair<QString, const char *> rows[] = {
        {"--level 5 send bob hello", "0||"},
        {"--level 3 send --room bob secret", "0||"},
        {"send --notice all note", "0||"},
        {"room create team Team bob,carol --type 3", "0||"},
        {"rdp becontrol-reply bob ok", "0||"},
        {"--server-jid nobody@im --timeout 1 history sync u-1", "4||pushchat: no message history arrived within 1 s."},
        {"history --http --http-base " + QString::fromStdString(http.baseAddress()) + " sync u-2",
         R"(0|{"event":"onHistoryMessages","json":"[7]"}|)"},
        {"--port 1 --timeout 0.5 send bob x",
         "2||pushchat: no connection to 127.0.0.1:1 within 0.5 s (last error: 127.0.0.1:1: Connection refused)."},
        {"send --image /nonexistent.png bob", "66||pushchat: cannot load '/nonexistent.png' as an image."},
        {"--bogus listen", "64||pushchat: Unknown option 'bogus'. See --help."},
        {"--help", "0|Usage: pushchat [options] command [arguments...]|"},
        {"--version", "0|pushchat " PUSHCHAT_VERSION_STRING "|"},
    };
    for (const auto &[arguments, expected] : rows) {
        QProcess cli;
        cli.start(PUSHCHAT_CLI, (at + "--user alice --timeout 5 " + arguments).split(' '));
        const bool ended = cli.waitForFinished(int(kWaitLimit.count())) && cli.exitStatus() == QProcess::NormalExit;
        const QByteArray out = cli.readAllStandardOutput();
        const QByteArray err = cli.readAllStandardError().trimmed(); // the library may log before
        EXPECT_EQ(fields(ended ? cli.exitCode() : -1, out.left(out.indexOf('\n')), err.mid(err.lastIndexOf('\n') + 1)),
                  expected)
            << arguments.toStdString();
    }
    // Without --device, the library generates its id once, keeps it in the
    // client's own settings and uses it for every later run.
    const QString id =
        QSettings(home.filePath("pushchat/pushchat-cli.conf"), QSettings::IniFormat).value("sms_uuid").toString();
    const auto runs = [&](const QString &as) { return QString::fromStdString(broker.log()).count(" as alice@" + as); };
    EXPECT_TRUE(QRegularExpression("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$").match(id).hasMatch())
        << id.toStdString();
    EXPECT_EQ(fields(runs("im@"), runs("im@" + id + " (")), fields(7, 7));

    // A signal while history waits for its answer ends it at once.
    QProcess waiting;
    waiting.start(PUSHCHAT_CLI, (at + "--user carol --server-jid nobody@im --timeout 60 history sync u").split(' '));
    ASSERT_TRUE(eventually([&] { return broker.log().find(" as carol@im@") != std::string::npos; }));
    EXPECT_EQ(stop(waiting, SIGINT), 130);
    EXPECT_TRUE(waiting.readAllStandardError().startsWith("pushchat: interrupted "));

    // In sorted order: the room's events come from the development server, in their own time.
    const Lines expected = {
        "onConnected",
        "onMessageReceive|[此消息已加密,您无权阅读]|0|alice@im|<uuid>|4|false|<time>|bob@im",
        "onMessageReceive|hello|0|alice@im|<uuid>|1|true|<time>|bob@im",
        "onMessageReceive|note|7|alice@im|<uuid>|1|true|<time>|all@im",
        "onMessageReceive||0|team@im|<uuid>|4|true|<time>|team@im",
        "onRemoteDesktopBeControlResponse|ok|alice@im|bob@im",
        "onRoomChanged|10|team@im,Team,alice@im,3,3",
        R"(onRoomListRefreshed|{"jid":"bob@im","name":"","rooms":[]})",
    };
    readLines(bob, bobLines, expected.size());
    // Each one-shot run's presence reached the server in order: its startup,
    // then, after what it sent, its quit.
    std::string order;
    for (const std::string &line : (readLines(server, serverLines), serverLines))
        if (line.find("|alice@im|m/i/server@im/d") != std::string::npos)
            order += line.find("APP_QUIT") != std::string::npos ? 'q' : 's';
    EXPECT_TRUE(order.size() >= 10 && QString::fromStdString(order).count("sq") * 2 == int(order.size())) << order;
    EXPECT_EQ(stop(bob, SIGTERM), 0);
    EXPECT_EQ(stop(server, SIGTERM), 0);
    std::sort(bobLines.begin(), bobLines.end());
    EXPECT_EQ(bobLines, expected);
}

} // namespace
