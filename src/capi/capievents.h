#ifndef PUSHCHAT_CAPIEVENTS_H
#define PUSHCHAT_CAPIEVENTS_H

// CapiEvents: the C client's callback object. Every callback of the
// callback interfaces becomes one JSON event in the client's queue,
// {"event": <callback name>, <argument name>: <value>, ...}: texts stay
// texts (JSON bodies included, as the library passes them), numbers stay
// numbers; onRoomChanged carries the room as its JSON object ("room") and
// the command number ("cmd"); onStoredMessageChanged the message as an
// object ("message"); onDisconnected the connection's error ("error", a
// PushConnectionError, and "errorText").
//
// Threads: callbacks arrive on the library's threads and wait for room in
// the queue (see capieventqueue.h). The queue and the façade are borrowed;
// the façade is set once, before the login, and only read afterwards.

#include "capieventqueue.h"

#include <pushchat/message_lib.h>

#include <QJsonObject>

class CapiEvents : public ImEventReciever, public ImMUCEventReciever {
public:
    explicit CapiEvents(CapiEventQueue &queue) : m_queue(queue) { }

    /// Where onDisconnected reads the connection's error.
    void setLibrary(const Message_lib *library) { m_library = library; }
    /// Queues one event: `arguments` with "event" set to `event`.
    void report(const char *event, QJsonObject arguments, CapiEventQueue::Room room = CapiEventQueue::Room::Wait);

    void onConnected() override;
    void onDisconnected() override;
    void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString messageKey,
        QString stamp, bool readable) override;
    void onHistoryMessages(const char *json) override;
    void onConversations(const char *json) override;
    void onConversationDetail(const char *json) override;
    void onPresence(QString from, QString body) override;
    void onMessageStatusModified(QString modifier, QString uuid, int status) override;
    void onFriendAdded(QString from, QString to, QString body) override;
    void onFriendAccepted(QString from, QString to, int flag) override;
    void onFriendDeleted(QString from, QString to, int flag) override;
    void onFriendList(const char *json) override;
    void onRemoteDesktopControlRequest(const char *from, const char *to, const char *body) override;
    void onRemoteDesktopControlResponse(const char *from, const char *to, const char *body) override;
    void onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body) override;
    void onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body) override;
    void onStoredMessageChanged(const StoredMessage &message) override;
    void onStoreError(QString text) override;

    void onRoomListRefreshed(QString json) override;
    void onRoomChanged(Room &room, GroupSubCmd cmd) override;

    /// A stored message as the events and the store's results carry it.
    static QJsonObject storedMessage(const StoredMessage &message);

private:
    void reportPeers(const char *event, const char *from, const char *to, const char *body);

    CapiEventQueue &m_queue;
    const Message_lib *m_library = nullptr;
};

#endif // PUSHCHAT_CAPIEVENTS_H
