// pushchat-devserver: a server for development and demos that answers
// every command the pushchat library sends to the IM server, keeping its
// state in SQLite. Not a server to deploy: it trusts what clients say they
// are and keeps everything in one table per kind. It does bound what it
// takes, keeps and answers (devserver.h): what fails a check is dropped with
// one "dropped" line. Runs until SIGINT, SIGTERM or SIGHUP, and reports what
// it receives, records and sends as JSON lines on stdout.
//
//   pushchat-devserver [--host H] [--port P] [--broker H:P]... [--server-jid JID]
//                      [--db PATH] [--http-port N] [--http-address A]
//                      [--tls] [--cafile F] [--cert F --key F] [--insecure]
//                      [--username U [--password-file F]]
//   pushchat-devserver --help | --version
//
// See also its manual page, pushchat-devserver.1 beside this file.

#include "connectionfailure.h"
#include "connectionoptions.h"
#include "devserver.h"
#include "devstore.h"
#include "terminationsignals.h"

#include <pushchat/version.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>

#include <cstdio>

namespace {

// Exit statuses, as in the manual page.
constexpr int kNoConnection = 2;
constexpr int kSetUpFailure = 3;
constexpr int kUsage = 64;

int usage(const QString &message)
{
    std::fprintf(stderr, "pushchat-devserver: %s\n", qPrintable(message));
    return kUsage;
}

} // namespace

int main(int argc, char *argv[])
{
    TerminationSignals termination; // before the push client's thread

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("pushchat-devserver"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PUSHCHAT_VERSION_STRING));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Answers every command of the pushchat library as the IM server would, for development and demos."));
    parser.addHelpOption();
    parser.addVersionOption();
    ConnectionOptions connection;
    connection.addTo(parser);
    const QCommandLineOption serverJid(QStringLiteral("server-jid"),
        QStringLiteral("The JID to serve (default server@<host>)."), QStringLiteral("jid"));
    const QCommandLineOption db(QStringLiteral("db"),
        QStringLiteral("SQLite file to keep the state in (default: in memory)."), QStringLiteral("path"));
    const QCommandLineOption httpPort(QStringLiteral("http-port"),
        QStringLiteral("Port of the HTTP history service (default 5201; 0: any)."), QStringLiteral("port"),
        QStringLiteral("5201"));
    const QCommandLineOption httpAddress(QStringLiteral("http-address"),
        QStringLiteral("Address the HTTP service listens on (default 127.0.0.1)."), QStringLiteral("address"),
        QStringLiteral("127.0.0.1"));
    parser.addOptions({ serverJid, db, httpPort, httpAddress });
    if (!parser.parse(QCoreApplication::arguments()))
        return usage(parser.errorText() + QStringLiteral(" See --help."));
    parser.process(app); // --help, --help-all, --version: shown, and the program ends

    ConnectionOptions::Connection reach;
    QString error;
    if (!connection.read(parser, &reach, &error))
        return usage(error);
    bool ok = false;
    const uint port = parser.value(httpPort).toUInt(&ok);
    if (!ok || port > 65535)
        return usage(QStringLiteral("--http-port must be a number from 0 to 65535."));
    DevServer::Settings settings;
    settings.httpPort = quint16(port);
    if (!settings.httpAddress.setAddress(parser.value(httpAddress)))
        return usage(QStringLiteral("--http-address must be an IP address."));
    if (!termination.valid())
        return usage(QStringLiteral("cannot handle termination signals."));
    settings.serverJid =
        (parser.isSet(serverJid) ? parser.value(serverJid) : QStringLiteral("server@") + reach.host).toStdString();
    settings.host = reach.host.toStdString();
    settings.port = reach.port;
    settings.push = reach.push;
    settings.maxQos = reach.maxQos;

    DevStore store(parser.value(db));
    if (!store.open(&error)) {
        std::fprintf(stderr, "pushchat-devserver: cannot open the store: %s\n", qPrintable(error));
        return kSetUpFailure;
    }
    JsonLineWriter log(stdout);
    DevServer server(settings, &store, &log);
    // One line per failure; a refusal that retrying cannot fix (credentials,
    // certificates) ends the server. Connected before the start: the first
    // attempt may fail at once.
    QObject::connect(&server, &DevServer::linkFailed, &app, [&](PushConnectionError error, const QString &reason) {
        const QString line =
            ConnectionFailure::describe(reach.host, reach.port, reach.push, error, reason, std::nullopt);
        std::fprintf(stderr, "pushchat-devserver: %s%s.\n", qPrintable(line), isRetried(error) ? "; trying again" : "");
        if (!isRetried(error))
            app.exit(kNoConnection);
    });
    if (!server.start(&error)) {
        std::fprintf(stderr, "pushchat-devserver: %s\n", qPrintable(error));
        return kSetUpFailure;
    }
    QSocketNotifier stop(termination.fd(), QSocketNotifier::Read);
    QObject::connect(&stop, &QSocketNotifier::activated, &app, [&] {
        termination.take();
        app.quit();
    });
    return app.exec();
}
