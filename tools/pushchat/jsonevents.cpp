#include "jsonevents.h"

#include "awaitedevent.h"
#include "eventflag.h"
#include "imagebody.h"
#include "jsonlinewriter.h"

#include <utility>

JsonEvents::JsonEvents(JsonLineWriter *writer, EventFlag *connected, AwaitedEvent *awaited, bool saveImages)
    : JsonEventAdapter([this](QJsonObject event) { report(std::move(event)); }), m_writer(writer),
      m_connected(connected), m_awaited(awaited), m_saveImages(saveImages)
{ }

void JsonEvents::report(QJsonObject event) const
{
    if (m_saveImages && event.value(QLatin1String("event")).toString() == QLatin1String("onMessageReceive") &&
        event.value(QLatin1String("readable")).toBool()) {
        if (const std::optional<QString> saved =
                ImageBody::saveIfEncoded(event.value(QLatin1String("body")).toString()))
            event.insert(QStringLiteral("saved"), *saved);
    }
    if (m_awaited)
        m_awaited->offer(event);
    if (m_writer)
        m_writer->write(event);
}

void JsonEvents::onConnected()
{
    JsonEventAdapter::onConnected();
    if (m_connected)
        m_connected->raise();
}

void JsonEvents::onDisconnected()
{
    JsonEventAdapter::onDisconnected();
    if (m_connected)
        m_connected->raise();
}

void JsonEvents::onStoredMessageChanged(const StoredMessage &message)
{
    Q_UNUSED(message)
}

void JsonEvents::onStoreError(QString text)
{
    Q_UNUSED(text)
}
