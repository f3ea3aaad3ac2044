#ifndef PUSHCHAT_MESSAGE_LIB_H
#define PUSHCHAT_MESSAGE_LIB_H

/// \file
/// Message_lib, the one class an application drives.

#include <pushchat/droppedinputs.h>
#include <pushchat/imeventreciever.h>
#include <pushchat/mediainfo.h>
#include <pushchat/pushchat_export.h>
#include <pushchat/pushclientoptions.h>
#include <pushchat/room.h>
#include <pushchat/storedmessage.h>

#include <QString>

#include <string>

class MessagePrivate;

/// The one class an application drives: log in, chat, rooms, history,
/// friends and remote-desktop signalling.
///
/// \code
/// class App : public ImEventReciever { ... };
/// App app;
/// Message_lib lib(&app, nullptr, "", "");        // device id persisted
/// lib.registerToImServer("127.0.0.1", 1883, "alice", "", 5, "im.example.org", "");
/// // ... onConnected arrives on the library's thread ...
/// lib.sendTextMessageTo("", "bob", 5, "hello", BODY_TYPE_DEFAULT, false, key, stamp);
/// lib.unRegisterToImServer();
/// \endcode
///
/// Ownership: the façade owns its engine; the callback objects stay the
/// application's and must outlive the façade. Destroying a connected façade
/// logs out in order first.
///
/// Threads: call it from the application's threads; callbacks arrive on the
/// library's threads (see imeventreciever.h). It takes no lock of its own.
///
/// Device settings: with an empty device id the library keeps a generated
/// id in the application's default QSettings store (key "sms_uuid"), so set
/// the organisation and application names on QCoreApplication as usual.
class PUSHCHAT_EXPORT Message_lib {
public:
    /// Makes the engine; no connection is made. `im` receives connection,
    /// chat, history, friend and remote-desktop events, `muc` room events;
    /// either may be null (its events are dropped). An empty `deviceId`
    /// uses the id kept under "sms_uuid" (generated on first use); a given
    /// one is used as it is. An empty `deviceName` is composed from the
    /// platform (product name and CPU architecture).
    Message_lib(ImEventReciever *im, ImMUCEventReciever *muc, std::string deviceId, std::string deviceName);
    /// Logs out in order when connected, delivers the room events already
    /// received and ends the room worker threads. Not from inside a room
    /// callback.
    ~Message_lib();
    Message_lib(const Message_lib &) = delete;            ///< Not copyable.
    Message_lib &operator=(const Message_lib &) = delete; ///< Not copyable.

    /// The IM server's JID, addressee of every system request. Set it before
    /// logging in; by default it is "server@" + the login domain.
    void setServerJid(QString jid);
    /// Base address of the HTTP history service (startSyncMessageRun and
    /// startPullMessageRun), such as "http://127.0.0.1:18080"; empty, the
    /// default, means "http://" + the login host + ":5201".
    void setHistoryBaseAddress(QString base);
    /// Connection settings for the next login: TLS, user name and password,
    /// further brokers to fail over to, reconnection delays and outbox
    /// bounds (see pushclientoptions.h). Copied; the connection made by an
    /// earlier login keeps its own. Call it before registerToImServer.
    void setPushClientOptions(const PushClientOptions &options);
    /// The highest delivery level the next login's connection uses for
    /// every publication, its will and its subscriptions: 2 (the default)
    /// or 1, for a broker that offers no QoS 2 (a clustered RabbitMQ, see
    /// docs/cluster.md); other values are taken as the nearer of the two.
    /// With 1 a broker may repeat a delivery after a reconnection; the
    /// connection drops such repeats as it does at 2. Call it before
    /// registerToImServer.
    void setMaxQos(int qos);
    /// Why the last connection attempt failed or the link went down;
    /// PushConnectionError::None while connected and without a login. An
    /// application reads it when onDisconnected arrives: a refusal (wrong
    /// password, not authorised, a certificate that does not verify) is
    /// reported once and not retried until the next login.
    PushConnectionError lastConnectionError() const;
    /// The same as a text for people, with the broker's address and the
    /// TLS library's reason where there is one, or why a login was refused;
    /// empty when there is no error.
    QString lastConnectionErrorText() const;
    /// What was dropped from the network so far: deliveries over their
    /// size limits, room JIDs that failed the JID check, rooms beyond the
    /// most held. Any thread.
    DroppedInputs droppedInputs() const;

    /// Logs in and connects; 1, and the outcome arrives as onConnected. 0,
    /// and nothing is sent, when the user id or the domain fails the JID
    /// check (see jid.h: no MQTT wildcard, no '/', '@' or control character,
    /// valid UTF-8, at most 256 bytes); lastConnectionErrorText() says
    /// which and why. A login while connected logs out first. An empty
    /// domain uses `host`.
    /// The user's JID is `userId` "@" domain; `securityLevel` is the user's
    /// level (see ImEventReciever::onMessageReceive), also sent with the
    /// history requests. `extra1` and `extra2` are not used.
    int registerToImServer(
        QString host, int port, QString userId, QString extra1, int securityLevel, QString domain, QString extra2);
    /// Logs out in order ("APP_QUIT" presence, unsubscriptions, connection
    /// closed), then delivers the room events already received; always 1.
    /// No callback of the push connection runs after it returns.
    int unRegisterToImServer();

    /// The longest chat or notice body sendTextMessageTo takes: 2 MiB of
    /// UTF-8. Enciphered and encoded, such a body travels as about 5.5 MB
    /// at most (bodies of CJK text grow the most).
    static constexpr int MAX_BODY_BYTES = 2 * 1024 * 1024;

    /// Sends a chat message. `to` without "@" gets the domain; with
    /// `toRoom` it is a room's JID. `secLevel` is the message's security
    /// level; BODY_TYPE_NOTICE sends a notice readable by all. `messageKey`
    /// and `stamp` reach the receiver as they are. The first argument is
    /// not used: the sender is the logged-in user.
    ///
    /// 1: accepted; the connection delivers it, across link losses and
    /// reconnections, once. 0: nothing was sent, because no login is under
    /// way, or the body is longer than MAX_BODY_BYTES (a warning is
    /// logged), or the connection's outbox is full. The outbox holds what
    /// the broker has not acknowledged yet (PushClientOptions::
    /// maxPendingMessages, maxPendingBytes): a sender faster than the
    /// broker, or one sending while the link is down, reaches it; wait a
    /// little and send again (back-pressure; nothing accepted is dropped).
    int sendTextMessageTo(QString ignored, QString to, int secLevel, QString text, MESSAGE_BODY_TYPE bodyType,
        bool toRoom, QString messageKey, QString stamp);
    /// 1 if "first:second" was published on "LOCATION/" + target (raw
    /// text, QoS 0); 0 when not logged in or refused.
    int sendLocation(QString target, QString first, QString second);
    /// Asks the server to change a message's status; always 1.
    int modifyMessageStatus(QString uuid, MSG_STATUS status);

    /// \name Group rooms
    /// Each sends one request to the server; what the server makes of it
    /// arrives later as ImMUCEventReciever::onRoomChanged (and, for rooms
    /// the user enters or leaves, a room message). `roomId` is the room's
    /// id; its JID is `roomId` "@" domain. `memberList` holds member ids
    /// separated by ","; ids are completed with "@" + domain unless the room
    /// id already holds an "@". 1 if the request was published, 0 if not,
    /// except where noted.
    ///@{

    /// Asks for a new room named `roomName` of kind `type` with the members
    /// of `memberList`.
    int createMucRoom(QString roomId, QString roomName, QString memberList, ROOM_TYPE type);
    /// Asks to change the room's kind to `type`.
    int modifyRoomType(QString roomId, ROOM_TYPE type);
    /// Asks to close the room.
    int destoryRoom(QString roomId);
    /// Asks to add the members of `memberList`. Always 1, published or not.
    int inviteToRoom(QString roomId, QString memberList);
    /// Asks to remove the members of `memberList`.
    int kickFromRoom(QString roomId, QString memberList);
    /// Asks to rename the room to `humanName`. Always 0, published or not.
    int setRoomHumanName(QString roomId, QString humanName);
    /// Hands the creator role of the room to `memberId`.
    int setRoomCreater(QString roomId, QString memberId);
    ///@}

    /// \name History
    /// Each asks the server; the answer arrives as
    /// ImEventReciever::onConversations, onConversationDetail or
    /// onHistoryMessages, its body as the server wrote it. Nothing is sent
    /// without a login. The user's security level goes with every request.
    ///@{

    /// Asks for a page of the user's conversations of kind `type`; the
    /// answer arrives as onConversations.
    void fetchConversations(MediaInfo::MessageType type, int page, int pageSize);
    /// Asks for a page of the messages of conversation `convId`; the answer
    /// arrives as onConversationDetail.
    void getMsgByConvid(QString convId, int page, int pageSize);
    /// A history pull: `pullType`, `start`, `count` and `msgUuid` go to the
    /// server as they are; the answer arrives as onHistoryMessages.
    void startPullMessage(int pullType, int start, int count, QString msgUuid);
    /// Asks for the messages since message `msgUuid`; the answer arrives as
    /// onHistoryMessages.
    void startSyncMessage(QString msgUuid);
    ///@}

    /// \name History over HTTP
    /// Blocking: each waits on the calling thread (at most the deadline, 30 s
    /// by default, and less after 10 s of silence) and then calls
    /// ImEventReciever::onHistoryMessages on that same thread with the reply
    /// body, "" when the request failed; lastHistoryError() tells why. The
    /// reply is bounded: a 2xx status, a head of at most 64 KiB and 100
    /// header fields, no redirect followed, no compression, a body of at
    /// most 16 MiB without a NUL byte. They need a QCoreApplication and a login (the JID and
    /// security level of the last login are used; the push connection
    /// itself is not). Several threads may call them at once. The service's
    /// address is set with setHistoryBaseAddress. A wait ends early, failed,
    /// when the thread's event loops are told to exit
    /// (QCoreApplication::exit).
    ///@{

    /// The overall deadline of each later request, in milliseconds; 0 or
    /// less restores the default of 30 000. Set it before the requests.
    void setHistoryDeadline(int milliseconds);
    /// Why the calling thread's last request gave "", as one line for
    /// people ("HTTP 404 Not Found", "connection refused", "timed out after
    /// 30 s (deadline)", "body over 16777216 bytes", ...); "" after one that
    /// succeeded.
    QString lastHistoryError() const;

    /// The messages since message `msgUuid`.
    void startSyncMessageRun(QString msgUuid);
    /// A history pull: `type`, `count` and `msgUuid` go to the service as
    /// they are.
    void startPullMessageRun(int type, int count, QString msgUuid);
    ///@}

    /// \name Remote-desktop signalling
    /// Signalling with the peer `jid` (completed with the domain when it has
    /// no "@"); `text` is free for the applications. The first argument is
    /// not used. 1 if published, 0 if not. Each raises the matching
    /// ImEventReciever::onRemoteDesktopControlRequest (and so on) at the
    /// peer.
    ///@{

    /// Asks to control the peer's desktop.
    int remoteDesktopControl(QString ignored, QString jid, QString text);
    /// Offers the peer control of this desktop.
    int remoteDesktopBeControl(QString ignored, QString jid, QString text);
    /// Answers the peer's control request.
    int remoteDesktopControlReply(QString ignored, QString jid, QString text);
    /// Answers the peer's offer.
    int remoteDesktopBeControlReply(QString ignored, QString jid, QString text);
    ///@}

    /// \name Friends
    /// Each sends one command and returns 1 if it was published, 0 if not;
    /// the first argument is not used. `jid` without "@" is completed with
    /// the domain. A request (addFriend) raises onFriendAdded at the peer,
    /// whose acceptFriend raises onFriendAccepted here; delFriend raises
    /// onFriendDeleted at the peer. The library keeps no friend list.
    ///@{

    /// Asks `jid` to become the user's friend; `text` goes with it.
    int addFriend(QString ignored, QString jid, QString text);
    /// Accepts the friend request of `jid`; `text` goes with it.
    int acceptFriend(QString ignored, QString jid, QString text);
    /// Ends the friendship with `jid`. Sends the body "nothing".
    int delFriend(QString ignored, QString jid);
    /// Asks the server to store the property text `text` for friend `jid`.
    int setFriendPropoties(QString ignored, QString jid, QString text);
    /// Asks the server for a page of the friend list (kind, page size and
    /// the cursor where the page continues); the reply arrives as
    /// onFriendList.
    int listFriends(int type, int count, QString lastFriendId);
    ///@}

    /// \name Contacts
    /// Kept locally by the engine's contact manager: nothing is sent. The
    /// subscription operations always return 1; the second argument is not
    /// used.
    ///@{

    /// Accepts or declines a subscription request; nothing is recorded.
    int acceptSubScribe(QString jid, bool accept);
    /// Subscribes to the presence of `jid` (logged only).
    int subScribe(QString jid, QString extra);
    /// Ends the subscription to `jid` (logged only).
    int unSubScribe(QString jid, QString extra);
    /// Accepted and dropped.
    void uploadVCardInfo(QString vcard);
    /// Where contact events go (null drops them). Borrowed: it must outlive
    /// the façade. The library raises no contact event of its own today.
    void setContactEventReciever(ImContactEventReciever *receiver);
    ///@}

    /// \name Local message store
    /// Opt-in, with openMessageStore before login; without it nothing is
    /// kept and nothing on the wire changes. With it every chat, room
    /// message and notice sent or received by this user is recorded in one
    /// SQLite file, and:
    /// - sendTextMessageTo returns 1 once the message is written to the
    ///   file (a message without a key gets a fresh one; a key already sent
    ///   in the conversation is refused), and the outbox bounds no longer
    ///   apply: written messages reach the connection in order as it takes
    ///   them. One the broker has not acknowledged when the application
    ///   logs out, exits or dies is sent again, with the same key, after
    ///   the next login with the same store;
    /// - a received message whose key is already stored (for the same
    ///   conversation and sender) is neither recorded nor delivered again:
    ///   this also drops the echo of the user's own room messages;
    /// - each login asks the server for the messages after the newest one
    ///   received (startSyncMessage; its answers also reach
    ///   onHistoryMessages), and every history answer's messages are
    ///   recorded;
    /// - a status change from the peer (onMessageStatusModified, any status
    ///   but MSG_STATUS_NONE) marks the sent message read.
    /// The read operations work without a connection, from any thread. A
    /// peer without "@" is completed with the login's domain once there is
    /// one. One store per user: the file does not tell whose it is. Its
    /// text is not enciphered: it is as private as the file (mode 0600).
    /// See docs/store.md.
    ///@{

    /// Opens the store at `path`, creating it (mode 0600) when missing. 1,
    /// or 0 and lastStoreError() says why: the file is in use by another
    /// process, is not a store, is damaged, or cannot be created; a login
    /// is under way. With `syncEachCommit` (the default) a written message
    /// survives a power cut; without it, the application's death only, at
    /// a lower cost per send.
    int openMessageStore(QString path, bool syncEachCommit = true);
    /// Why the last store operation failed (a send not written, a full
    /// disk, ...); "" when none did.
    QString lastStoreError() const;
    /// Every conversation with its newest message and unread count, the
    /// most recent first. Empty without a store.
    QList<StoredConversation> storedConversations() const;
    /// At most `limit` messages of the conversation with `peer` (a user's
    /// or a room's JID), oldest first: the newest ones, or those before the
    /// message with key `beforeKey`.
    QList<StoredMessage> storedMessages(QString peer, QString beforeKey = QString(), int limit = 50) const;
    /// At most `limit` messages, newest first, holding every word of `text`
    /// (alphabetic words, and words of Chinese, Japanese or Korean text of
    /// any length), in the conversation with `peer` or (empty) in all.
    QList<StoredMessage> searchStoredMessages(QString text, QString peer = QString(), int limit = 50) const;
    /// Marks the conversation's received messages read; with `tellPeer`
    /// (and a login) also sends MSG_STATUS_READ for each of them. 1, or 0
    /// without a store.
    int markConversationRead(QString peer, bool tellPeer = false);
    /// Keeps messages at most `maxAgeSeconds` old (0: any age) and at most
    /// `maxPerConversation` per conversation (0: any number), applied in
    /// the background, now and every ten minutes. Unsent messages are kept.
    void setStoreRetention(qint64 maxAgeSeconds, int maxPerConversation);
    /// The store's size on disk in bytes (0 without one).
    qint64 storeFileBytes() const;
    /// Messages written and not yet acknowledged by the broker.
    int storedPendingCount() const;
    ///@}

    /// The engine behind the façade. Its class is private to the library
    /// (not installed): the pointer is opaque to applications.
    MessagePrivate *engine() const { return d; }

private:
    MessagePrivate *d;
};

#endif // PUSHCHAT_MESSAGE_LIB_H
