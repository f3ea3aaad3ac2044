// pushchat_demo_server: a stand-in server for the demo and the client's
// tests. It answers room commands from its own memory and nothing else; it
// is not a server to deploy. Runs until SIGINT, SIGTERM or SIGHUP, and
// reports what it receives and sends as JSON lines on stdout.
//
//   pushchat_demo_server [--host H] [--port P] [--server-jid JID]

#include "demoserver.h"
#include "terminationsignals.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>
#include <poll.h>

int main(int argc, char *argv[])
{
    TerminationSignals termination; // before the push client's thread

    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Answers room commands as the IM server would, for the demo."));
    parser.addHelpOption();
    const QCommandLineOption host(QStringLiteral("host"), QStringLiteral("Broker host (default 127.0.0.1)."),
                                  QStringLiteral("host"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption port(QStringLiteral("port"), QStringLiteral("Broker port (default 1883)."),
                                  QStringLiteral("port"), QStringLiteral("1883"));
    const QCommandLineOption serverJid(QStringLiteral("server-jid"),
                                       QStringLiteral("The JID to serve (default server@<host>)."),
                                       QStringLiteral("jid"));
    parser.addOptions({host, port, serverJid});
    parser.process(app);

    bool ok = false;
    const int portNumber = parser.value(port).toInt(&ok);
    if (!ok || portNumber < 1 || portNumber > 65535 || !termination.valid()) {
        std::fprintf(stderr, "pushchat_demo_server: bad --port or no signal handling.\n");
        return 64;
    }
    const QString jid = parser.isSet(serverJid) ? parser.value(serverJid)
                                                : QStringLiteral("server@") + parser.value(host);

    JsonLineWriter log(stdout);
    DemoServer server(jid.toStdString(), &log);
    server.start(parser.value(host).toStdString(), portNumber);
    pollfd fd{termination.fd(), POLLIN, 0};
    while (::poll(&fd, 1, -1) < 0) {
    }
    termination.take();
    return 0;
}
