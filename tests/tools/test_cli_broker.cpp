// The programs over a real broker, in one scenario: bob listens while alice
// runs each kind of command once and the development server answers her room
// request, and each failure a user meets gives its one line. Checked: each
// command's exit status, first line of output and whole error output, and
// the events bob's listen printed.

#include "eventlog.h"
#include "httptestserver.h"
#include "mosquittobroker.h"

#include <pushchat/version.h>

#include <QDir>
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
#include <fstream>

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
    qunsetenv("PUSHCHAT_PASSWORD");
    // Beside the plain listener, where a user name needs its password, one
    // with TLS; files for the rows: a wrong password, texts of 3 MB and of
    // the 2 MiB a message may have (every row's standard input).
    const QString dir = home.filePath("files/");
    ASSERT_TRUE(QDir().mkpath(dir) && MosquittoBroker::makeTlsFiles(dir.toStdString()));
    std::ofstream((dir + "wrong").toStdString()) << "guess\n";
    std::ofstream((dir + "big").toStdString()) << std::string(3000000, 'a');
    std::ofstream((dir + "max").toStdString()) << std::string(2 * 1024 * 1024, 'b') << '\n';
    const int tlsPort = MosquittoBroker::freePort();
    int nothing = MosquittoBroker::freePort();
    while (nothing == tlsPort)
        nothing = MosquittoBroker::freePort();
    MosquittoBroker broker({ true, false,
        QStringLiteral("password_file %1passwd\nlistener %2 127.0.0.1\ncafile %1ca.crt\n"
                       "certfile %1server.crt\nkeyfile %1server.key\n")
            .arg(dir)
            .arg(tlsPort)
            .toStdString() });
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

    // Exit status, the first line on stdout, all of stderr; in both, @P is
    // the broker's port, @T its TLS port, @F one where nothing listens, @H
    // the development server's HTTP port and @D the folder of the files.
    const QString httpPort = QString::fromStdString(serverLines[0]).section('|', 1, 1);
    const auto fill = [&](QString text) {
        return text.replace("@P", QString::number(broker.port()))
            .replace("@T", QString::number(tlsPort))
            .replace("@F", QString::number(nothing))
            .replace("@H", httpPort)
            .replace("@D", dir);
    };
    const auto run = [&](const char *program, const QString &arguments) {
        QProcess process;
        process.setStandardInputFile(dir + "max");
        process.start(program, fill(arguments).split(' '));
        const bool ended =
            process.waitForFinished(int(kWaitLimit.count())) && process.exitStatus() == QProcess::NormalExit;
        const QByteArray out = process.readAllStandardOutput();
        return fields(
            ended ? process.exitCode() : -1, out.left(out.indexOf('\n')), process.readAllStandardError().trimmed());
    };
    const std::pair<QString, QString> rows[] = {
        { "--level 5 send bob hello", "0||" },
        { "--level 3 send --room bob secret", "0||" },
        { "send --notice all note", "0||" },
        { "room create team Team bob,carol --type 3", "0||" },
        { "rdp becontrol-reply bob ok", "0||" },
        { "--server-jid nobody@im --timeout 1 history sync u-1",
            "4||pushchat: no message history arrived within 1 s." },
        { "history --http --http-base " + QString::fromStdString(http.baseAddress()) + " sync u-2",
            R"(0|{"event":"onHistoryMessages","json":"[7]"}|)" },
        { "send carol -", "0||" }, // the longest text, from standard input
        { "--broker 127.0.0.1:@F --broker 127.0.0.1:@P send carol x", "0||" },
        { "--port @F send bob x",
            "2||pushchat: no connection: nothing listens on 127.0.0.1:@F (connection refused); "
            "start the broker, or check its address (--host and --port, or --broker)." },
        { "--port @F --tls send bob x",
            "2||pushchat: no connection: nothing listens on 127.0.0.1:@F (connection refused); "
            "start the broker, or check its address (--host and --port, or --broker)." },
        { "--port @H --timeout 0.5 send bob x",
            "2||pushchat: no connection to 127.0.0.1:@H within 0.5 s: no MQTT broker answered there, and nothing "
            "refused the connection; check the address (--host and --port, or --broker), and --tls for a broker that "
            "takes TLS only." },
        { "--username alice --password-file @Dwrong send bob x",
            "2||pushchat: no connection: the broker at 127.0.0.1:@P refused the login of 'alice' (not authorised); "
            "check --username, and the password in PUSHCHAT_PASSWORD or --password-file." },
        { "--username alice send bob x",
            "2||pushchat: no connection: the broker at 127.0.0.1:@P refused the login of 'alice' (not authorised); "
            "check --username, and the password in PUSHCHAT_PASSWORD or --password-file." },
        { "--cafile @Dnone.pem send bob x",
            "64||pushchat: cannot read --cafile '@Dnone.pem': No such file or directory." },
        { "--tls --timeout 0.5 send bob x",
            "2||pushchat: no connection to 127.0.0.1:@P within 0.5 s: the TLS handshake failed (unexpected eof while "
            "reading); check that the broker takes TLS on this port." },
        { "--port @T --cafile @Delsewhere.crt send bob x",
            "2||pushchat: no connection: the certificate of the broker at 127.0.0.1:@T does not verify against "
            "--cafile "
            "'@Delsewhere.crt' (certificate verify failed); --cafile must name the CA that signed the broker's "
            "certificate." },
        { "send --image @Dnone.png bob", "66||pushchat: cannot read --image '@Dnone.png': No such file or directory." },
        { "send --image @Dwrong bob",
            "66||pushchat: --image '@Dwrong' is not a picture this client can read (unsupported image format)." },
        { "history --http --http-base http://127.0.0.1:@F sync u-3",
            "4||pushchat: no message history from the HTTP history service at http://127.0.0.1:@F: connection refused; "
            "check --http-base (the address of the server's HTTP service)." },
        { "send --text-file @Dbig bob",
            "66||pushchat: the text of --text-file '@Dbig' is longer than a message may be "
            "(2097152 bytes, 2 MiB): nothing was sent." },
        { "--bogus listen", "64||pushchat: Unknown option 'bogus'. See --help." },
        { "--help", "0|Usage: pushchat [options] command [arguments...]|" },
        { "--version", "0|pushchat " PUSHCHAT_VERSION_STRING "|" },
    };
    for (const auto &[arguments, expected] : rows) {
        // --broker replaces --port.
        const QString line = (arguments.contains("--broker") ? QString() : port) +
                             "--domain im --user alice "
                             "--timeout 5 " +
                             arguments;
        EXPECT_EQ(run(PUSHCHAT_CLI, line), fill(expected).toStdString()) << arguments.toStdString();
    }
    EXPECT_EQ(run(PUSHCHAT_DEVSERVER, "--version"), "0|pushchat-devserver " PUSHCHAT_VERSION_STRING "|");
    EXPECT_EQ(run(PUSHCHAT_DEVSERVER, "--port @P --username alice --password-file @Dwrong --http-port 0"),
        fill("2||pushchat-devserver: no connection: the broker at 127.0.0.1:@P refused the login of 'alice' "
             "(not authorised); check --username, and the password in PUSHCHAT_PASSWORD or --password-file.")
            .toStdString());
    // Without --device, the library generates its id once, keeps it in the
    // client's own settings and uses it for every later run.
    const QString id =
        QSettings(home.filePath("pushchat/pushchat-cli.conf"), QSettings::IniFormat).value("sms_uuid").toString();
    const auto runs = [&](const QString &as) { return QString::fromStdString(broker.log()).count(" as alice@" + as); };
    EXPECT_TRUE(QRegularExpression("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$").match(id).hasMatch())
        << id.toStdString();
    EXPECT_EQ(fields(runs("im@"), runs("im@" + id + " (")), fields(10, 10));

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
    // then, after what it sent, its quit (9 runs: one was for nobody@im).
    std::string order;
    eventually([&] {
        order.clear();
        for (const std::string &line : (readLines(server, serverLines), serverLines))
            if (line.find("|alice@im|m/i/server@im/d") != std::string::npos)
                order += line.find("APP_QUIT") != std::string::npos ? 'q' : 's';
        return order.size() >= 18;
    });
    EXPECT_TRUE(order.size() == 18 && QString::fromStdString(order).count("sq") == 9) << order;
    EXPECT_EQ(stop(bob, SIGTERM), 0);
    EXPECT_EQ(stop(server, SIGTERM), 0);
    std::sort(bobLines.begin(), bobLines.end());
    EXPECT_EQ(bobLines, expected);
}

} // namespace
