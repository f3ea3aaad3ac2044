#ifndef PUSHCHAT_MESSAGE_LIB_H
#define PUSHCHAT_MESSAGE_LIB_H

// Message_lib: the one class an application drives.
//
//   class App : public ImEventReciever { ... };
//   App app;
//   Message_lib lib(&app, nullptr, "", "");        // device id persisted
//   lib.registerToImServer("127.0.0.1", 1883, "alice", "", 5, "im.example.org", "");
//   // ... onConnected arrives on the library's thread ...
//   lib.sendTextMessageTo("", "bob", 5, "hello", BODY_TYPE_DEFAULT, false, key, stamp);
//   lib.unRegisterToImServer();
//
// Ownership: the façade owns its engine; the callback objects stay the
// application's and must outlive the façade. Destroying a connected façade
// logs out in order first.
//
// Threads: call it from the application's threads; callbacks arrive on the
// library's threads (see imeventreciever.h). It takes no lock of its own.
//
// Device settings: with an empty device id the library keeps a generated
// id in the application's default QSettings store (key "sms_uuid"), so set
// the organisation and application names on QCoreApplication as usual.

#include <pushchat/pushchat_export.h>
#include <pushchat/imeventreciever.h>
#include <pushchat/mediainfo.h>
#include <pushchat/room.h>

#include <QString>

#include <string>

class MessagePrivate;

class PUSHCHAT_EXPORT Message_lib {
public:
    Message_lib(ImEventReciever *im, ImMUCEventReciever *muc, std::string deviceId, std::string deviceName);
    ~Message_lib();
    Message_lib(const Message_lib &) = delete;
    Message_lib &operator=(const Message_lib &) = delete;

    /// The IM server's JID, addressee of every system request. Set it before
    /// logging in; by default it is "server@" + the login domain.
    void setServerJid(QString jid);
    /// Base address of the HTTP history service (startSyncMessageRun and
    /// startPullMessageRun), e.g. "http://127.0.0.1:18080"; empty, the
    /// default, means "http://" + the login host + ":5201".
    void setHistoryBaseAddress(QString base);

    /// Logs in and connects; always 1 (the outcome arrives as onConnected).
    /// A login while connected logs out first. An empty domain uses `host`.
    int registerToImServer(QString host, int port, QString userId, QString extra1, int securityLevel,
                           QString domain, QString extra2);
    /// Logs out in order; always 1.
    int unRegisterToImServer();

    /// 1 if the message was published. `to` without "@" gets the domain;
    /// BODY_TYPE_NOTICE sends a notice readable by all.
    int sendTextMessageTo(QString ignored, QString to, int secLevel, QString text, MESSAGE_BODY_TYPE bodyType,
                          bool toRoom, QString messageKey, QString stamp);
    /// 1 if "first:second" was published on "LOCATION/" + target.
    int sendLocation(QString target, QString first, QString second);
    /// Asks the server to change a message's status; always 1.
    int modifyMessageStatus(QString uuid, MSG_STATUS status);

    // Group rooms. Each sends one request to the server; what the server
    // makes of it arrives later as onRoomChanged (and, for rooms the user
    // enters or leaves, a room message). `memberList` holds member ids
    // separated by ","; ids are completed with "@" + domain unless the room
    // id already holds an "@". 1 if the request was published, 0 if not,
    // except where noted.
    int createMucRoom(QString roomId, QString roomName, QString memberList, ROOM_TYPE type);
    int modifyRoomType(QString roomId, ROOM_TYPE type);
    int destoryRoom(QString roomId);
    /// Always 1.
    int inviteToRoom(QString roomId, QString memberList);
    int kickFromRoom(QString roomId, QString memberList);
    /// Always 0.
    int setRoomHumanName(QString roomId, QString humanName);
    /// Hands the creator role of the room to `memberId`.
    int setRoomCreater(QString roomId, QString memberId);

    // History. Each asks the server; the answer arrives as onConversations,
    // onConversationDetail or onHistoryMessages. Nothing is sent without a
    // login.
    void fetchConversations(MediaInfo::MessageType type, int page, int pageSize);
    void getMsgByConvid(QString convId, int page, int pageSize);
    void startPullMessage(int pullType, int start, int count, QString msgUuid);
    void startSyncMessage(QString msgUuid);

    // History over HTTP. Blocking: each waits on the calling thread (at
    // most about 10 s of silence) and then calls onHistoryMessages on that
    // same thread with the reply body, "" when the request failed. They
    // need a QCoreApplication and a login (the JID and security level of
    // the last login are used; the push connection itself is not). Several
    // threads may call them at once.
    void startSyncMessageRun(QString msgUuid);
    void startPullMessageRun(int type, int count, QString msgUuid);

    // Remote-desktop signalling with the peer `jid` (completed with the
    // domain when it has no "@"); `text` is free for the applications. The
    // first argument is not used. 1 if published, 0 if not.
    int remoteDesktopControl(QString ignored, QString jid, QString text);
    int remoteDesktopBeControl(QString ignored, QString jid, QString text);
    int remoteDesktopControlReply(QString ignored, QString jid, QString text);
    int remoteDesktopBeControlReply(QString ignored, QString jid, QString text);

    // Friends. Each sends one command and returns 1 if it was published, 0
    // if not; the first argument is not used. `jid` without "@" is
    // completed with the domain. A request (addFriend) raises
    // onFriendAdded at the peer, whose acceptFriend raises onFriendAccepted
    // here; delFriend raises onFriendDeleted at the peer.
    int addFriend(QString ignored, QString jid, QString text);
    int acceptFriend(QString ignored, QString jid, QString text);
    /// Sends the body "nothing".
    int delFriend(QString ignored, QString jid);
    /// Asks the server to store the property text `text` for friend `jid`.
    int setFriendPropoties(QString ignored, QString jid, QString text);
    /// Asks the server for a page of the friend list (kind, page size and
    /// the cursor where the page continues); the reply arrives as
    /// onFriendList.
    int listFriends(int type, int count, QString lastFriendId);

    // Contacts, kept locally by the engine's contact manager: nothing is
    // sent. The subscription operations always return 1; the second
    // argument is not used.
    int acceptSubScribe(QString jid, bool accept);
    int subScribe(QString jid, QString extra);
    int unSubScribe(QString jid, QString extra);
    /// Accepted and dropped.
    void uploadVCardInfo(QString vcard);
    /// Where contact events go (null drops them). Borrowed: it must outlive
    /// the façade. The library raises no contact event of its own today.
    void setContactEventReciever(ImContactEventReciever *receiver);

    /// The engine behind the façade. Its class is private to the library
    /// (not installed): the pointer is opaque to applications.
    MessagePrivate *engine() const { return d; }

private:
    MessagePrivate *d;
};

#endif // PUSHCHAT_MESSAGE_LIB_H
