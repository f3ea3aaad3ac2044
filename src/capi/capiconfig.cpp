// A C client's configuration from JSON; see capiconfig.h.

#include "capiconfig.h"

#include "capiarguments.h"

#include <QJsonArray>
#include <QJsonObject>

namespace {

using Type = CapiArguments::Type;

// "host:port" (the port last, so an IPv6 address keeps its colons).
bool readBroker(const QString &text, PushBrokerAddress &address)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    bool ok = false;
    const int port = text.mid(colon + 1).toInt(&ok);
    if (colon <= 0 || !ok || port < 1 || port > 65535)
        return false;
    QString host = text.left(colon);
    if (host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']')))
        host = host.mid(1, host.size() - 2);
    address = { host.toStdString(), port };
    return true;
}

QString readTls(const QJsonValue &value, PushTlsOptions &tls)
{
    if (value.isUndefined() || value.isBool()) {
        tls.enabled = value.toBool();
        return QString();
    }
    const CapiArguments fields(value.toObject());
    if (!value.isObject())
        return QStringLiteral("configuration: \"tls\" must be true, false or an object");
    const QString error = fields.check(QStringLiteral("configuration: tls"),
        { { "ca_file", Type::Text, false }, { "ca_path", Type::Text, false }, { "cert_file", Type::Text, false },
            { "key_file", Type::Text, false }, { "insecure", Type::Flag, false } });
    tls.enabled = true;
    tls.caFile = fields.text("ca_file").toStdString();
    tls.caPath = fields.text("ca_path").toStdString();
    tls.certFile = fields.text("cert_file").toStdString();
    tls.keyFile = fields.text("key_file").toStdString();
    tls.insecure = fields.flag("insecure");
    return error;
}

} // namespace

QString CapiConfig::read(const char *text)
{
    CapiArguments fields;
    QString error;
    if (!CapiArguments::parse(text, fields, error))
        return QStringLiteral("configuration: ") + error;
    error = fields.check(QStringLiteral("configuration"),
        { { "user", Type::Text, true }, { "domain", Type::Text, false }, { "level", Type::Integer, false },
            { "device", Type::Text, false }, { "device_name", Type::Text, false }, { "brokers", Type::Names, false },
            { "tls", Type::Any, false }, { "username", Type::Text, false }, { "password", Type::Text, false },
            { "max_qos", Type::Integer, false }, { "server_jid", Type::Text, false },
            { "history_base", Type::Text, false }, { "history_deadline_ms", Type::Integer, false },
            { "store", Type::Text, false }, { "store_sync", Type::Flag, false }, { "queue_size", Type::Integer, false },
            { "max_pending_messages", Type::Integer, false }, { "max_pending_bytes", Type::Integer, false } });
    if (!error.isEmpty())
        return error;
    user = fields.text("user");
    level = fields.integer("level");
    device = fields.text("device").toStdString();
    deviceName = fields.text("device_name").toStdString();
    const QJsonValue brokers = fields.value("brokers");
    const QJsonArray list = brokers.isString() ? QJsonArray{ brokers } : brokers.toArray();
    for (int i = 0; i < list.size(); ++i) {
        PushBrokerAddress address;
        if (!readBroker(list.at(i).toString(), address))
            return QStringLiteral("configuration: broker \"%1\" is not host:port").arg(list.at(i).toString());
        if (i == 0) {
            host = QString::fromStdString(address.host);
            port = address.port;
        } else {
            options.failover.push_back(address);
        }
    }
    if (brokers.isArray() && list.isEmpty())
        return QStringLiteral("configuration: \"brokers\" is empty");
    domain = fields.text("domain", host);
    error = readTls(fields.value("tls"), options.tls);
    if (!error.isEmpty())
        return error;
    options.username = fields.text("username").toStdString();
    options.password = fields.text("password").toStdString();
    maxQos = fields.integer("max_qos", 2);
    serverJid = fields.text("server_jid");
    historyBase = fields.text("history_base");
    historyDeadlineMs = fields.integer("history_deadline_ms");
    store = fields.text("store");
    storeSync = fields.flag("store_sync", true);
    if (fields.integer("max_pending_messages") < 0 || fields.integer("max_pending_bytes") < 0)
        return QStringLiteral("configuration: the outbox's bounds must be 0 or more");
    if (fields.has("max_pending_messages"))
        options.maxPendingMessages = static_cast<std::size_t>(fields.integer("max_pending_messages"));
    if (fields.has("max_pending_bytes"))
        options.maxPendingBytes = static_cast<std::size_t>(fields.integer("max_pending_bytes"));
    const int size = fields.integer("queue_size", DEFAULT_QUEUE_SIZE);
    if (size < 1)
        return QStringLiteral("configuration: \"queue_size\" must be 1 or more");
    queueSize = static_cast<std::size_t>(size);
    return QString();
}
