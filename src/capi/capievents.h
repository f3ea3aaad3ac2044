#ifndef PUSHCHAT_CAPIEVENTS_H
#define PUSHCHAT_CAPIEVENTS_H

// CapiEvents: the C client's callback object. Every callback of the
// callback interfaces becomes one JSON event in the client's queue, as
// JsonEventAdapter maps it ({"event": <callback name>, <argument name>:
// <value>, ...}); onDisconnected also carries the connection's error
// ("error", a PushConnectionError, and "errorText"), which the C client
// adds here.
//
// Threads: callbacks arrive on the library's threads and wait for room in
// the queue (see capieventqueue.h). The queue and the façade are borrowed;
// the façade is set once, before the login, and only read afterwards.

#include "capieventqueue.h"

#include <pushchat/jsoneventadapter.h>
#include <pushchat/message_lib.h>

#include <QJsonObject>

class CapiEvents : public JsonEventAdapter {
public:
    explicit CapiEvents(CapiEventQueue &queue);

    /// Where onDisconnected reads the connection's error.
    void setLibrary(const Message_lib *library) { m_library = library; }
    /// Queues one event: `arguments` with "event" set to `event`.
    void report(const char *event, QJsonObject arguments, CapiEventQueue::Room room = CapiEventQueue::Room::Wait);

private:
    /// Queues a callback's event, waiting for room.
    void queueCallback(QJsonObject event);
    void queue(const QJsonObject &event, CapiEventQueue::Room room);

    CapiEventQueue &m_queue;
    const Message_lib *m_library = nullptr;
};

#endif // PUSHCHAT_CAPIEVENTS_H
