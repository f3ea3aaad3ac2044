// The C client's callbacks as JSON events; see capievents.h.

#include "capievents.h"

#include <QJsonDocument>

#include <utility>

CapiEvents::CapiEvents(CapiEventQueue &queue)
    : JsonEventAdapter([this](QJsonObject event) { queueCallback(std::move(event)); }), m_queue(queue)
{ }

void CapiEvents::report(const char *event, QJsonObject arguments, CapiEventQueue::Room room)
{
    arguments.insert(QStringLiteral("event"), QLatin1String(event));
    queue(arguments, room);
}

void CapiEvents::queueCallback(QJsonObject event)
{
    if (m_library != nullptr && event.value(QLatin1String("event")).toString() == QLatin1String("onDisconnected")) {
        event.insert(QStringLiteral("error"), static_cast<int>(m_library->lastConnectionError()));
        event.insert(QStringLiteral("errorText"), m_library->lastConnectionErrorText());
    }
    queue(event, CapiEventQueue::Room::Wait);
}

void CapiEvents::queue(const QJsonObject &event, CapiEventQueue::Room room)
{
    m_queue.push(QJsonDocument(event).toJson(QJsonDocument::Compact).toStdString(), room);
}
