#ifndef PUSHCHAT_CLI_AWAITEDEVENT_H
#define PUSHCHAT_CLI_AWAITEDEVENT_H

// The one event a command waits for (the answer to a history request):
// JsonEvents offers it every event it reports, on whatever thread the
// library calls it; the first one with the awaited name is kept and raises
// an EventFlag, which the main thread polls. Later ones are ignored, so a
// command prints exactly one answer.

#include "eventflag.h"

#include <QJsonObject>
#include <QString>

#include <mutex>
#include <optional>

class AwaitedEvent {
public:
    /// `name`: the callback's name as JsonEvents reports it ("onConversations").
    explicit AwaitedEvent(QString name);
    AwaitedEvent(const AwaitedEvent &) = delete;
    AwaitedEvent &operator=(const AwaitedEvent &) = delete;

    /// Keeps `event` if it is the first with the awaited name. Thread-safe.
    void offer(const QJsonObject &event);
    /// Raised once the event has arrived.
    EventFlag &arrived() { return m_arrived; }
    /// The kept event, if any.
    std::optional<QJsonObject> event() const;

private:
    const QString m_name;
    EventFlag m_arrived;
    mutable std::mutex m_mutex;
    std::optional<QJsonObject> m_event;
};

#endif // PUSHCHAT_CLI_AWAITEDEVENT_H
