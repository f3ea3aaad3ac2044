#ifndef PUSHCHAT_IMEVENTRECIEVER_H
#define PUSHCHAT_IMEVENTRECIEVER_H

// The application's callback interfaces and the enumerations that cross the
// library's interface.
//
// Ownership: the application owns its callback objects and must keep them
// alive as long as the Message_lib that was given them; the library never
// deletes them. A null callback object drops its events.
//
// Threads: callbacks run on the library's delivery thread or on its room
// worker threads, not on the thread that calls the library, so a callback
// may run while an application call is in progress. One exception: the
// engine's blocking HTTP history calls (startSyncMessageRun,
// startPullMessageRun) call onHistoryMessages on the calling thread before
// they return. `const char*`
// arguments are NUL-terminated UTF-8 that lives only during the call: copy
// what you keep.
//
// Binary layout: the operations occupy fixed virtual slots (the destructor
// takes slots 0 and 1), which applications built against this interface
// rely on. Every operation has an empty default, so an application
// overrides only what it needs.

#include <pushchat/pushchat_export.h>
#include <pushchat/mediainfo.h>
#include <pushchat/room.h>

#include <QString>
#include <QStringList>

/// A message status; chosen by the application and the server, carried
/// unchanged by the library.
enum MSG_STATUS : int {
    MSG_STATUS_NONE = 0
};

/// Presence kind, the presence body's "type".
enum MESSAGE_PRESENCE_TYPE : int {
    PRESENCE_OFFLINE = 0, ///< "APP_QUIT", "NETWORK_DISCONNECTED"
    PRESENCE_ONLINE = 1   ///< "APP_STARTUP"
};

/// Connection, chat, presence, history, friends and remote desktop.
class PUSHCHAT_EXPORT ImEventReciever {
public:
    virtual ~ImEventReciever() = default;
    /// The user is online: receive topics subscribed, presence announced.
    /// Called again after every reconnection.
    virtual void onConnected() {}
    /// The link to the server was lost (the library reconnects on its own).
    virtual void onDisconnected() {}
    /// A chat message or a notice. `readable` false: the message's security
    /// level is above the user's and `body` is a fixed replacement text.
    virtual void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType,
                                  QString messageKey, QString stamp, bool readable)
    {
        Q_UNUSED(from) Q_UNUSED(to) Q_UNUSED(body) Q_UNUSED(bodyType) Q_UNUSED(msgType)
        Q_UNUSED(messageKey) Q_UNUSED(stamp) Q_UNUSED(readable)
    }
    virtual void onHistoryMessages(const char *json) { Q_UNUSED(json) }
    virtual void onConversations(const char *json) { Q_UNUSED(json) }
    virtual void onConversationDetail(const char *json) { Q_UNUSED(json) }
    /// A peer's presence; `body` is its presence JSON, unparsed.
    virtual void onPresence(QString from, QString body) { Q_UNUSED(from) Q_UNUSED(body) }
    virtual void onMessageStatusModified(QString modifier, QString uuid, int status)
    {
        Q_UNUSED(modifier) Q_UNUSED(uuid) Q_UNUSED(status)
    }
    virtual void onFriendAdded(QString from, QString to, QString body)
    {
        Q_UNUSED(from) Q_UNUSED(to) Q_UNUSED(body)
    }
    virtual void onFriendAccepted(QString from, QString to, int flag)
    {
        Q_UNUSED(from) Q_UNUSED(to) Q_UNUSED(flag)
    }
    virtual void onFriendDeleted(QString from, QString to, int flag)
    {
        Q_UNUSED(from) Q_UNUSED(to) Q_UNUSED(flag)
    }
    virtual void onFriendList(const char *json) { Q_UNUSED(json) }
    virtual void onRemoteDesktopControlRequest(const char *from, const char *to, const char *body)
    {
        Q_UNUSED(from) Q_UNUSED(to) Q_UNUSED(body)
    }
    virtual void onRemoteDesktopControlResponse(const char *from, const char *to, const char *body)
    {
        Q_UNUSED(from) Q_UNUSED(to) Q_UNUSED(body)
    }
    virtual void onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body)
    {
        Q_UNUSED(from) Q_UNUSED(to) Q_UNUSED(body)
    }
    virtual void onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body)
    {
        Q_UNUSED(from) Q_UNUSED(to) Q_UNUSED(body)
    }
};

/// Group rooms. Called from the library's room worker threads.
class PUSHCHAT_EXPORT ImMUCEventReciever {
public:
    virtual ~ImMUCEventReciever() = default;
    /// The server's room list, as JSON text.
    virtual void onRoomListRefreshed(QString json) { Q_UNUSED(json) }
    /// A room changed; `room` lives only during the call.
    virtual void onRoomChanged(Room &room, GroupSubCmd cmd) { Q_UNUSED(room) Q_UNUSED(cmd) }
};

/// Contacts. Slots 2 to 6 are reserved and never called.
class PUSHCHAT_EXPORT ImContactEventReciever {
public:
    virtual ~ImContactEventReciever() = default;
    virtual void reserved2() {}
    virtual void reserved3() {}
    virtual void reserved4() {}
    virtual void reserved5() {}
    virtual void reserved6() {}
    virtual void onSubscribeRequest(QString jid, QString text7, QString text8)
    {
        Q_UNUSED(jid) Q_UNUSED(text7) Q_UNUSED(text8)
    }
    virtual void onContactInfo(QString jid, QString text7, bool flag1, bool flag2, QStringList callers)
    {
        Q_UNUSED(jid) Q_UNUSED(text7) Q_UNUSED(flag1) Q_UNUSED(flag2) Q_UNUSED(callers)
    }
    virtual void onOwnerVCard(QString text) { Q_UNUSED(text) }
};

#endif // PUSHCHAT_IMEVENTRECIEVER_H
