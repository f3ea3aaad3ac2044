#ifndef PUSHCHAT_CLI_CONNECTIONOPTIONS_H
#define PUSHCHAT_CLI_CONNECTIONOPTIONS_H

// The command-line options that say how a tool reaches its broker, shared
// by the client and the development server: --host and --port, or one or
// more --broker HOST:PORT (the first is used, the others are failed over
// to); TLS (--tls, --cafile, --cert, --key, --insecure); and credentials
// (--username, with the password from --password-file or the environment
// variable PUSHCHAT_PASSWORD).

#include <pushchat/pushclientoptions.h>

#include <QCommandLineOption>
#include <QString>

class QCommandLineParser;

struct ConnectionOptions {
    struct Connection {
        QString host;
        int port = 0;
        PushClientOptions push; ///< TLS, credentials and the further brokers
        int maxQos = 2;         ///< the highest delivery level (--max-qos)
    };

    QCommandLineOption host{ QStringLiteral("host"), QStringLiteral("Broker host (default 127.0.0.1)."),
        QStringLiteral("host"), QStringLiteral("127.0.0.1") };
    QCommandLineOption port{ QStringLiteral("port"), QStringLiteral("Broker port (default 1883)."),
        QStringLiteral("port"), QStringLiteral("1883") };
    QCommandLineOption broker{ QStringLiteral("broker"),
        QStringLiteral("A broker to use, instead of --host and --port; repeat it for "
                       "brokers to fail over to, in turn."),
        QStringLiteral("host:port") };
    QCommandLineOption tls{ QStringLiteral("tls"),
        QStringLiteral("Connect with TLS, verifying the broker's certificate and host name "
                       "against --cafile or the system's trust store.") };
    QCommandLineOption cafile{ QStringLiteral("cafile"),
        QStringLiteral("PEM file of the certificate authorities to trust (implies --tls)."), QStringLiteral("path") };
    QCommandLineOption cert{ QStringLiteral("cert"),
        QStringLiteral("Client certificate, PEM (implies --tls; needs --key and --cafile)."), QStringLiteral("path") };
    QCommandLineOption key{ QStringLiteral("key"), QStringLiteral("The client certificate's private key, PEM."),
        QStringLiteral("path") };
    QCommandLineOption insecure{ QStringLiteral("insecure"),
        QStringLiteral("TLS without verifying the broker's certificate or host name "
                       "(implies --tls; for tests only).") };
    QCommandLineOption username{ QStringLiteral("username"),
        QStringLiteral("User name for the broker; the password comes from "
                       "PUSHCHAT_PASSWORD or --password-file."),
        QStringLiteral("name") };
    QCommandLineOption passwordFile{ QStringLiteral("password-file"),
        QStringLiteral("File whose first line is the broker password."), QStringLiteral("path") };
    QCommandLineOption maxQos{ QStringLiteral("max-qos"),
        QStringLiteral("The highest delivery level, 1 or 2 (default 2); 1 for a broker "
                       "without QoS 2, such as a clustered RabbitMQ."),
        QStringLiteral("level"), QStringLiteral("2") };

    void addTo(QCommandLineParser &parser) const;
    /// Reads the options from a parser that has parsed; false, with one
    /// line in `error`, when a value is wrong or a file it names (password,
    /// CA, certificate, key) cannot be read: the line names the file and
    /// the reason.
    bool read(const QCommandLineParser &parser, Connection *connection, QString *error) const;
};

#endif // PUSHCHAT_CLI_CONNECTIONOPTIONS_H
