// A C client: requests checked and run, callbacks queued as events; see
// capiclient.h.

#include "capiclient.h"

#include "capiarguments.h"
#include "capioperation.h"
#include "pushchatlog.h"

#include <mutex>
#include <optional>

namespace {

// While the library's threads are waited for, the queue takes every event.
class Overflow {
public:
    explicit Overflow(CapiEventQueue &queue) : m_queue(queue) { m_queue.overflow(true); }
    ~Overflow() { m_queue.overflow(false); }
    Overflow(const Overflow &) = delete;
    Overflow &operator=(const Overflow &) = delete;

private:
    CapiEventQueue &m_queue;
};

} // namespace

std::unique_ptr<CapiClient> CapiClient::create(const char *text, QString &error)
{
    CapiConfig config;
    error = text != nullptr ? config.read(text) : QStringLiteral("configuration: none given");
    if (!error.isEmpty())
        return nullptr;
    std::unique_ptr<CapiClient> client(new CapiClient(config));
    if (!config.store.isEmpty() && client->m_library.openMessageStore(config.store, config.storeSync) != 1) {
        error = QStringLiteral("store: ") + client->m_library.lastStoreError();
        return nullptr;
    }
    return client;
}

CapiClient::CapiClient(const CapiConfig &config)
    : m_config(config), m_queue(config.queueSize), m_events(m_queue),
      m_library(&m_events, &m_events, config.device, config.deviceName)
{
    m_events.setLibrary(&m_library);
    m_library.setPushClientOptions(config.options);
    m_library.setMaxQos(config.maxQos);
    if (!config.serverJid.isEmpty())
        m_library.setServerJid(config.serverJid);
    m_library.setHistoryBaseAddress(config.historyBase);
    m_library.setHistoryDeadline(config.historyDeadlineMs);
}

CapiClient::~CapiClient()
{
    close();
}

void CapiClient::close()
{
    std::call_once(m_closing, [this] {
        m_closed = true;
        const Overflow overflow(m_queue);
        m_worker.stop();
        const std::unique_lock<std::shared_mutex> noSends(m_sends);
        {
            const std::unique_lock<std::shared_mutex> alone(m_calls);
            m_library.unRegisterToImServer();
        }
        m_queue.close();
    });
}

int CapiClient::send(const char *request)
{
    if (request == nullptr)
        return -4; // PUSHCHAT_ERROR_ARGUMENT
    const std::shared_lock<std::shared_mutex> sending(m_sends);
    if (m_closed)
        return -2; // PUSHCHAT_ERROR_CLOSED
    if (m_queue.full())
        return -3; // PUSHCHAT_ERROR_FULL
    CapiArguments arguments;
    QString error;
    if (!CapiArguments::parse(request, arguments, error)) {
        reportError(QJsonValue(), QString(), QStringLiteral("request ") + error);
        return -1;
    }
    const QJsonValue id = arguments.value("id");
    const QJsonValue op = arguments.value("op");
    if (!id.isUndefined() && !id.isString() && !id.isDouble()) {
        reportError(QJsonValue(), op.toString(), QStringLiteral("request: \"id\" must be a string or a number"));
        return -1;
    }
    if (!op.isString()) {
        reportError(id, QString(),
            op.isUndefined() ? QStringLiteral("request: \"op\" is missing")
                             : QStringLiteral("request: \"op\" must be a string"));
        return -1;
    }
    const CapiOperation *operation = CapiOperation::find(op.toString());
    if (operation == nullptr) {
        reportError(id, op.toString(), QStringLiteral("unknown operation \"%1\"").arg(op.toString()));
        return -1;
    }
    error = arguments.check(op.toString(), operation->fields, { "op", "id" });
    if (!error.isEmpty()) {
        reportError(id, op.toString(), error);
        return -1;
    }
    if (operation->mode == CapiOperation::Mode::Blocking)
        m_worker.post([this, operation, arguments, id] { run(*operation, arguments, id); });
    else
        run(*operation, arguments, id);
    return 0;
}

void CapiClient::run(const CapiOperation &operation, const CapiArguments &arguments, const QJsonValue &id)
{
    std::unique_lock<std::shared_mutex> alone(m_calls, std::defer_lock);
    std::shared_lock<std::shared_mutex> beside(m_calls, std::defer_lock);
    std::optional<Overflow> overflow;
    if (operation.mode == CapiOperation::Mode::Exclusive) {
        overflow.emplace(m_queue);
        alone.lock();
    } else {
        beside.lock();
    }
    QJsonObject fields = operation.run(m_library, m_config, arguments);
    fields.insert(QStringLiteral("id"), id.isUndefined() ? QJsonValue() : id);
    fields.insert(QStringLiteral("op"), QLatin1String(operation.name));
    // A blocking request's result waits for room like the callback it
    // follows; the others are the caller's own and never wait.
    m_events.report("result", fields,
        operation.mode == CapiOperation::Mode::Blocking ? CapiEventQueue::Room::Wait : CapiEventQueue::Room::Never);
}

void CapiClient::reportError(const QJsonValue &id, const QString &op, const QString &error)
{
    qCDebug(lcCapi).noquote() << "request refused:" << error;
    m_events.report("error",
        { { QStringLiteral("id"), id.isUndefined() ? QJsonValue() : id },
            { QStringLiteral("op"), op.isEmpty() ? QJsonValue() : QJsonValue(op) },
            { QStringLiteral("error"), error } },
        CapiEventQueue::Room::Never);
}
