#include "connectionoptions.h"

#include <QCommandLineParser>
#include <QFile>

#include <optional>
#include <utility>

namespace {

bool fail(QString *error, const QString &message)
{
    *error = message;
    return false;
}

bool toInt(const QString &text, int *value)
{
    bool ok = false;
    *value = text.toInt(&ok);
    return ok;
}

// "host:port", "[v6 address]:port" or "v6:address:port" (the last colon
// ends the host).
std::optional<PushBrokerAddress> brokerAddress(const QString &text)
{
    const int colon = text.lastIndexOf(':');
    QString host = text.left(colon);
    if (host.startsWith('[') && host.endsWith(']'))
        host = host.mid(1, host.size() - 2);
    int port = 0;
    if (colon <= 0 || host.isEmpty() || !toInt(text.mid(colon + 1), &port) || port < 1 || port > 65535)
        return std::nullopt;
    return PushBrokerAddress{ host.toStdString(), port };
}

// Opens the file `option` names; false, with the file and the system's
// reason in `error`, when it cannot be read.
bool openNamed(QFile &file, const char *option, QString *error)
{
    if (file.open(QIODevice::ReadOnly))
        return true;
    return fail(error,
        QStringLiteral("cannot read %1 '%2': %3.").arg(QLatin1String(option), file.fileName(), file.errorString()));
}

} // namespace

void ConnectionOptions::addTo(QCommandLineParser &parser) const
{
    parser.addOptions({ host, port, broker, tls, cafile, cert, key, insecure, username, passwordFile, maxQos });
}

bool ConnectionOptions::read(const QCommandLineParser &parser, Connection *connection, QString *error) const
{
    connection->host = parser.value(host);
    if (connection->host.isEmpty())
        return fail(error, QStringLiteral("--host must not be empty."));
    if (!toInt(parser.value(port), &connection->port) || connection->port < 1 || connection->port > 65535)
        return fail(
            error, QStringLiteral("--port must be a number from 1 to 65535, not '%1'.").arg(parser.value(port)));
    PushClientOptions &push = connection->push;
    const QStringList brokers = parser.values(broker);
    if (!brokers.isEmpty() && (parser.isSet(host) || parser.isSet(port)))
        return fail(error, QStringLiteral("--broker replaces --host and --port: give one or the other."));
    for (const QString &text : brokers) {
        const std::optional<PushBrokerAddress> address = brokerAddress(text);
        if (!address)
            return fail(
                error, QStringLiteral("--broker must be HOST:PORT with a port from 1 to 65535, not '%1'.").arg(text));
        push.failover.push_back(*address);
    }
    if (!push.failover.empty()) { // the first is the login's broker, the others its failover
        connection->host = QString::fromStdString(push.failover.front().host);
        connection->port = push.failover.front().port;
        push.failover.erase(push.failover.begin());
    }

    if (!toInt(parser.value(maxQos), &connection->maxQos) || connection->maxQos < 1 || connection->maxQos > 2)
        return fail(error, QStringLiteral("--max-qos must be 1 or 2, not '%1'.").arg(parser.value(maxQos)));

    PushTlsOptions &options = push.tls;
    options.caFile = parser.value(cafile).toStdString();
    options.certFile = parser.value(cert).toStdString();
    options.keyFile = parser.value(key).toStdString();
    options.insecure = parser.isSet(insecure);
    options.enabled = parser.isSet(tls) || !options.caFile.empty() || !options.certFile.empty() || options.insecure;
    if (options.certFile.empty() != options.keyFile.empty())
        return fail(error, QStringLiteral("--cert and --key go together."));
    // Checked here, so that the file and the reason can be named.
    const std::pair<const QCommandLineOption *, const char *> files[] = { { &cafile, "--cafile" }, { &cert, "--cert" },
        { &key, "--key" } };
    for (const auto &[option, name] : files) {
        QFile file(parser.value(*option));
        if (parser.isSet(*option) && !openNamed(file, name, error))
            return false;
    }

    push.username = parser.value(username).toStdString();
    if (parser.isSet(passwordFile)) {
        QFile file(parser.value(passwordFile));
        if (!openNamed(file, "--password-file", error))
            return false;
        QByteArray line = file.readLine();
        while (line.endsWith('\n') || line.endsWith('\r'))
            line.chop(1);
        push.password = line.toStdString();
        if (push.username.empty())
            return fail(error, QStringLiteral("--password-file needs --username."));
    } else if (!push.username.empty()) {
        push.password = qEnvironmentVariable("PUSHCHAT_PASSWORD").toStdString();
    }
    return true;
}
