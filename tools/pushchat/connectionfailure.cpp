#include "connectionfailure.h"

#include <QRegularExpression>

namespace {

QString address(const std::string &host, int port)
{
    return QStringLiteral("%1:%2").arg(QString::fromStdString(host)).arg(port);
}

// The library's text without what the line says already or what only
// its authors read: the broker's address in front, OpenSSL's error codes,
// the full stop at the end.
QString reasonOf(QString text, const QString &broker)
{
    if (text.startsWith(broker + QLatin1String(": ")))
        text.remove(0, broker.size() + 2);
    static const QRegularExpression openSsl(QStringLiteral("OpenSSL Error\\[\\d+\\]: error:[0-9A-Fa-f]+:[^:]*::"));
    text.remove(openSsl);
    while (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    return text;
}

// The broker's own words of a refused CONNACK ("Connection Refused: not
// authorised." gives "not authorised").
QString lastPart(const QString &reason)
{
    return reason.mid(reason.lastIndexOf(QLatin1String(": ")) + 1).trimmed();
}

} // namespace

QString ConnectionFailure::describe(const QString &host, int port, const PushClientOptions &push,
    PushConnectionError error, const QString &text, std::optional<std::chrono::milliseconds> waited)
{
    const QString broker = address(host.toStdString(), port);
    const QString noConnection =
        waited ? QStringLiteral("no connection to %1 within %2 s").arg(broker).arg(double(waited->count()) / 1000.0)
               : QStringLiteral("no connection to %1").arg(broker);
    QString brokers = broker;
    for (const PushBrokerAddress &other : push.failover)
        brokers += QLatin1String(", ") + address(other.host, other.port);
    const QString reason = reasonOf(text, broker);
    const QString caFile = push.tls.caFile.empty()
                               ? QStringLiteral("the system's trust store")
                               : QStringLiteral("--cafile '%1'").arg(QString::fromStdString(push.tls.caFile));

    switch (error) {
    case PushConnectionError::NothingListening:
        return QStringLiteral(
            "no connection: nothing listens on %1 (connection refused); start the broker, or check "
            "its address (--host and --port, or --broker)")
            .arg(brokers);
    case PushConnectionError::BadCredentials:
    case PushConnectionError::NotAuthorised:
        if (push.username.empty())
            return QStringLiteral(
                "no connection: the broker at %1 refused a login without a user name (%2); give "
                "--username, and the password in PUSHCHAT_PASSWORD or --password-file")
                .arg(broker, lastPart(reason));
        return QStringLiteral(
            "no connection: the broker at %1 refused the login of '%2' (%3); check --username, "
            "and the password in PUSHCHAT_PASSWORD or --password-file")
            .arg(broker, QString::fromStdString(push.username), lastPart(reason));
    case PushConnectionError::CertificateRejected:
        return QStringLiteral(
            "no connection: the certificate of the broker at %1 does not verify against %2 (%3); "
            "--cafile must name the CA that signed the broker's certificate")
            .arg(broker, caFile, reason);
    case PushConnectionError::HostNameMismatch:
        return QStringLiteral(
            "no connection: the certificate of the broker at %1 is not for the host name '%2'; "
            "connect by a name the certificate holds (--host)")
            .arg(broker, host);
    case PushConnectionError::Refused:
        return QStringLiteral("no connection: the broker at %1 refused the connection (%2)")
            .arg(broker, lastPart(reason));
    case PushConnectionError::InvalidSettings:
        return QStringLiteral("no connection: the TLS or login settings cannot be used (%1)").arg(reason);
    case PushConnectionError::TlsFailed:
        if (reason.contains(QLatin1String("Unable to load CA certificates")))
            return QStringLiteral("%1: %2 holds no CA certificate in PEM form").arg(noConnection, caFile);
        return QStringLiteral("%1: the TLS handshake failed (%2); check that the broker takes TLS on this port")
            .arg(noConnection, reason);
    case PushConnectionError::None:
    case PushConnectionError::Unreachable:
    case PushConnectionError::ConnectionLost:
    case PushConnectionError::ServerUnavailable:
        break;
    }
    if (!reason.isEmpty() || !waited)
        return noConnection + QLatin1String(": ") + (reason.isEmpty() ? QStringLiteral("no reason given") : reason);
    return noConnection + QLatin1String(
                              ": no MQTT broker answered there, and nothing refused the connection; check "
                              "the address (--host and --port, or --broker), and --tls for a broker that "
                              "takes TLS only");
}
