#include "awaitedevent.h"

AwaitedEvent::AwaitedEvent(QString name) : m_name(std::move(name))
{ }

void AwaitedEvent::offer(const QJsonObject &event)
{
    if (event.value(QLatin1String("event")).toString() != m_name)
        return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_event)
            return;
        m_event = event;
    }
    m_arrived.raise();
}

std::optional<QJsonObject> AwaitedEvent::event() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_event;
}
