#ifndef PUSHCHAT_IMEVENTRECIEVER_H
#define PUSHCHAT_IMEVENTRECIEVER_H

/// \file
/// The application's callback interfaces and the enumerations that cross the
/// library's interface.
///
/// Ownership: the application owns its callback objects and must keep them
/// alive as long as the Message_lib that was given them; the library never
/// deletes them. A null callback object drops its events.
///
/// Threads: callbacks run on the library's delivery thread or on its room
/// worker threads, not on the thread that calls the library, so a callback
/// may run while an application call is in progress. One exception: the
/// engine's blocking HTTP history calls (startSyncMessageRun,
/// startPullMessageRun) call onHistoryMessages on the calling thread before
/// they return. `const char*` arguments are NUL-terminated UTF-8 that lives
/// only during the call: copy what you keep.
///
/// Binary layout: the operations occupy fixed virtual slots (the destructor
/// takes slots 0 and 1), which applications built against this interface
/// rely on; new operations are added at the end. Every operation has an
/// empty default, so an application overrides only what it needs.

#include <pushchat/mediainfo.h>
#include <pushchat/pushchat_export.h>
#include <pushchat/room.h>
#include <pushchat/storedmessage.h>

#include <QString>
#include <QStringList>

/// A message status; chosen by the application and the server, carried
/// unchanged by the library.
enum MSG_STATUS : int {
    MSG_STATUS_NONE = 0, ///< no status; any other int is passed on as well
    MSG_STATUS_READ = 1  ///< read by its receiver (what the message store sends and records)
};

/// Presence kind, the presence body's "type".
enum MESSAGE_PRESENCE_TYPE : int {
    PRESENCE_OFFLINE = 0, ///< "APP_QUIT", "NETWORK_DISCONNECTED"
    PRESENCE_ONLINE = 1   ///< "APP_STARTUP"
};

/// Connection, chat, presence, history, friends and remote desktop. Called
/// from the library's delivery thread, except onHistoryMessages from the
/// blocking HTTP history calls, which runs on their calling thread.
class PUSHCHAT_EXPORT ImEventReciever {
public:
    /// Slots 0 and 1.
    virtual ~ImEventReciever() = default;
    /// The user is online: receive topics subscribed, presence announced.
    /// Called again after every reconnection.
    virtual void onConnected() { }
    /// The link to the server was lost, or a connection attempt failed. The
    /// library reconnects on its own, except after a refusal that another
    /// attempt cannot fix (wrong credentials, not authorised, a certificate
    /// that does not verify): Message_lib::lastConnectionError tells which.
    virtual void onDisconnected() { }
    /// A chat message, a notice or a room message. `bodyType` is a
    /// MESSAGE_BODY_TYPE, `msgType` a MediaInfo::MessageType; `messageKey`
    /// and `stamp` are the sender's. `readable` false: the message's
    /// security level is a lower number than the user's (and not
    /// SECURITY_LEVEL_UNRESTRICTED), so `body` is a fixed replacement text.
    /// Every user receives every notice: `to` names its addressee. A room
    /// created or closed, or the user removed from a room by someone else,
    /// arrives as a room message from and to the room's JID with an empty
    /// body (BODY_TYPE_KICKED for the removal).
    virtual void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString messageKey,
        QString stamp, bool readable)
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(body)
        Q_UNUSED(bodyType)
        Q_UNUSED(msgType)
        Q_UNUSED(messageKey)
        Q_UNUSED(stamp)
        Q_UNUSED(readable)
    }
    /// The server's answer to startPullMessage or startSyncMessage, or the
    /// HTTP service's to startPullMessageRun or startSyncMessageRun ("" when
    /// that request failed).
    virtual void onHistoryMessages(const char *json) { Q_UNUSED(json) }
    /// The server's answer to fetchConversations.
    virtual void onConversations(const char *json) { Q_UNUSED(json) }
    /// The server's answer to getMsgByConvid.
    virtual void onConversationDetail(const char *json) { Q_UNUSED(json) }
    /// A peer's presence; `body` is its presence JSON, unparsed.
    virtual void onPresence(QString from, QString body)
    {
        Q_UNUSED(from)
        Q_UNUSED(body)
    }
    /// The server's notice that `modifier` set the status of message `uuid`
    /// to `status` (a MSG_STATUS).
    virtual void onMessageStatusModified(QString modifier, QString uuid, int status)
    {
        Q_UNUSED(modifier)
        Q_UNUSED(uuid)
        Q_UNUSED(status)
    }
    /// `from` asks the user to be friends (its addFriend); `body` is its
    /// text.
    virtual void onFriendAdded(QString from, QString to, QString body)
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(body)
    }
    /// `from` accepted the user's request (its acceptFriend); `flag` is
    /// always 1.
    virtual void onFriendAccepted(QString from, QString to, int flag)
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(flag)
    }
    /// `from` ended the friendship (its delFriend); `flag` is always 1.
    virtual void onFriendDeleted(QString from, QString to, int flag)
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(flag)
    }
    /// The server's answer to listFriends, unread.
    virtual void onFriendList(const char *json) { Q_UNUSED(json) }
    /// `from` asks to control the user's desktop (its remoteDesktopControl);
    /// `body` is its text.
    virtual void onRemoteDesktopControlRequest(const char *from, const char *to, const char *body)
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(body)
    }
    /// `from` answered the user's control request
    /// (its remoteDesktopControlReply).
    virtual void onRemoteDesktopControlResponse(const char *from, const char *to, const char *body)
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(body)
    }
    /// `from` offers the user control of its desktop
    /// (its remoteDesktopBeControl).
    virtual void onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body)
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(body)
    }
    /// `from` answered the user's offer (its remoteDesktopBeControlReply).
    virtual void onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body)
    {
        Q_UNUSED(from)
        Q_UNUSED(to)
        Q_UNUSED(body)
    }
    /// With the message store (Message_lib::openMessageStore): a message
    /// was recorded, or its state changed (sent, read), as it now stands in
    /// the store. Called on the store's thread, after the write.
    virtual void onStoredMessageChanged(const StoredMessage &message) { Q_UNUSED(message) }
    /// With the message store: a write or read failed (a full disk, a
    /// damaged file); the text names the file and the reason. Called on
    /// the store's thread or the failing caller's.
    virtual void onStoreError(QString text) { Q_UNUSED(text) }
};

/// Group rooms. Called from the library's room worker threads.
class PUSHCHAT_EXPORT ImMUCEventReciever {
public:
    /// Slots 0 and 1.
    virtual ~ImMUCEventReciever() = default;
    /// The server's room list, as JSON text (the form RoomList reads). The
    /// library asks for it at every connection.
    virtual void onRoomListRefreshed(QString json) { Q_UNUSED(json) }
    /// A room changed; `room` lives only during the call. `cmd` says how:
    /// GroupSub_Create, GroupSub_Release, GroupSub_Invite, GroupSub_Kick,
    /// GroupSub_SetGroupName, GroupSub_Modify_Type, and GroupSub_Refresh
    /// for a change of creator. Several room callbacks may run at once, in
    /// any order among themselves and relative to onMessageReceive; a room
    /// callback must not wait for the delivery thread.
    virtual void onRoomChanged(Room &room, GroupSubCmd cmd)
    {
        Q_UNUSED(room)
        Q_UNUSED(cmd)
    }
};

/// Contacts. Slots 2 to 6 are reserved and never called. Set with
/// Message_lib::setContactEventReciever; the library raises no contact event
/// of its own today.
class PUSHCHAT_EXPORT ImContactEventReciever {
public:
    /// Slots 0 and 1.
    virtual ~ImContactEventReciever() = default;
    virtual void reserved2() { } ///< Slot 2, never called.
    virtual void reserved3() { } ///< Slot 3, never called.
    virtual void reserved4() { } ///< Slot 4, never called.
    virtual void reserved5() { } ///< Slot 5, never called.
    virtual void reserved6() { } ///< Slot 6, never called.
    /// `jid` asks to subscribe to the user's presence; `text7` and `text8`
    /// are the request's extra texts (see Contact).
    virtual void onSubscribeRequest(QString jid, QString text7, QString text8)
    {
        Q_UNUSED(jid)
        Q_UNUSED(text7)
        Q_UNUSED(text8)
    }
    /// A contact-info notice about `jid`: the record's text7, flag1 and
    /// flag2 (see Contact) and the list the notification carries.
    virtual void onContactInfo(QString jid, QString text7, bool flag1, bool flag2, QStringList callers)
    {
        Q_UNUSED(jid)
        Q_UNUSED(text7)
        Q_UNUSED(flag1)
        Q_UNUSED(flag2)
        Q_UNUSED(callers)
    }
    /// The user's own vCard text.
    virtual void onOwnerVCard(QString text) { Q_UNUSED(text) }
};

#endif // PUSHCHAT_IMEVENTRECIEVER_H
