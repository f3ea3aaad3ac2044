#ifndef PUSHCHAT_MESSAGEPRIVATE_H
#define PUSHCHAT_MESSAGEPRIVATE_H

// MessagePrivate: the engine behind Message_lib.
//
// It owns the push connection (from login to disconnection) and the user's
// identity, turns application calls into commands on the push channel, and
// turns every delivered message into a call on the application's callbacks.
// It keeps no table of messages or rooms, only the list of room JIDs whose
// topics it has subscribed.
//
// Threads: application calls (login, disconnect, every sending operation)
// run on the caller's thread; connectStatus, messgeRecievedMore and every
// command handler run on the push client's delivery thread, and so do the
// callbacks they make. The identity fields are written by login before the
// connection starts; the subscribed-room list is guarded by a lock. Do not
// disconnect while another application thread is still sending.
//
// Room notifications: onRoomChanged and onRoomListRefreshed run on a small
// bounded pool of notification threads (several at once, in any order
// among themselves and relative to onMessageReceive). When thousands of
// room events wait for them, the delivery thread waits too, so a room
// callback must not wait for a delivery-thread callback. Logout and
// destruction wait until every room event received before them has been
// delivered and the threads have ended; so do not log out or destroy the
// façade from a thread a room callback is waiting for. Logging out from
// inside a room callback is allowed; destroying the façade there is not.
//
// Ownership: the callback objects are borrowed and never deleted; the push
// client and the contact manager are owned. Destruction disconnects first,
// then destroys the contact manager.

#include "droppedinputs.h"
#include "imeventreciever.h"
#include "mqttmessage.h"
#include "pushclient.h"
#include "storedmessage.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>

class ContactManager;
class MessageStore;
class RoomNotifier;

class MessagePrivate : public MQTTProtocolMatchCallback, public PushEventReciever {
public:
    /// The notice topic: notices are published and received on it.
    static constexpr const char *NOTICE_TOPIC = "m/ntc/";
    /// Keepalive of the push connection, in seconds.
    static constexpr int PUSH_KEEPALIVE_SECONDS = 60;
    /// Replaces the body of a message the user may not read.
    static const char *const UNREADABLE_TEXT;

    /// An empty deviceId uses the id persisted in the application's default
    /// QSettings store under "sms_uuid" (generated on first use); an empty
    /// deviceName is composed from the platform. No connection is made.
    MessagePrivate(ImEventReciever *im, ImMUCEventReciever *muc, std::string deviceId, std::string deviceName);
    virtual ~MessagePrivate();
    MessagePrivate(const MessagePrivate &) = delete;
    MessagePrivate &operator=(const MessagePrivate &) = delete;

    // --- configuration -------------------------------------------------
    /// The IM server's own JID, the addressee of every system request. Set
    /// it before login; when never set, login uses "server@" + the domain.
    void setServerJid(const QString &jid);
    QString serverJid() const;

    // --- connection lifecycle ------------------------------------------
    /// Stores the security level, then logs in. Returns 1, or 0 when the
    /// user id or domain fails the JID check (nothing sent; see
    /// lastConnectionErrorText).
    int registerToServer(
        QString host, int port, QString userId, QString extra1, int securityLevel, QString domain, QString extra2);
    /// Logs in: creates the push client (an existing connection is closed
    /// first, in order), sets the will, starts connecting. Returns 1; the
    /// outcome arrives as connectStatus. 0 for a user id or domain that
    /// fails the JID check.
    int registerToIMServer(QString host, int port, QString userId, QString extra1, QString domain, QString extra2);
    /// Orderly logout: "APP_QUIT", unsubscriptions, push client released.
    int disconnectToIMServer();

    MQTTMessage *createPresenseMsg(MESSAGE_PRESENCE_TYPE type, std::string text);
    int send_online_state(MESSAGE_PRESENCE_TYPE type, std::string text, int qos);
    int subscribe_message_group(QList<std::string> roomJids);
    int unsubscribe_message_group(QList<std::string> roomJids);
    /// Asks the server for the user's rooms; 1 if the request was published.
    int refreshGroupList();
    /// Publishes raw data on a topic after 5 seconds (blocks the caller).
    void delayedSyncMessage(std::string topic, std::string data);

    // --- chat ----------------------------------------------------------
    /// Sends a chat message (or, with BODY_TYPE_NOTICE, a notice on the
    /// notice topic). A recipient without "@" is completed with the domain.
    /// The first argument is not used: the sender is the logged-in user.
    int sendTextMessageTo(QString ignored, QString to, int secLevel, QString text, MESSAGE_BODY_TYPE bodyType,
        bool toRoom, QString messageKey, QString stamp);
    /// Publishes "first:second" as raw text on "LOCATION/" + target, QoS 0.
    /// 1 when published, 0 otherwise (not logged in, or refused).
    int sendLocation(QString target, QString first, QString second);
    /// Asks the server to change a stored message's status. Returns 1.
    int modifyMessageStatus(QString uuid, MSG_STATUS status);
    void modifyMessageStatusRun(QString uuid, MSG_STATUS status);

    // --- group rooms: commands ------------------------------------------
    // Each publishes one request to the server and changes nothing locally;
    // the server's answer comes back as a room event. Member ids are
    // completed with "@" + domain unless the room id already holds an "@";
    // the room id always is. 1 when published, 0 otherwise, except where
    // noted.
    int createMucRoom(const QString &roomId, const QString &roomName, const QString &memberList, ROOM_TYPE type);
    /// Always 1, published or not.
    int inviteToRoom(const QString &roomId, const QString &memberList);
    int kickFromRoom(const QString &roomId, const QString &memberList);
    int destoryRoom(const QString &roomId);
    /// Always 0, published or not.
    int setRoomHumanName(const QString &roomId, const QString &humanName);
    int setRoomCreater(const QString &roomId, const QString &memberId);
    int modifyRoomType(QString roomId, ROOM_TYPE type);

    // --- history over the push channel ---------------------------------
    // Each sends one request to the server (nothing without a login); the
    // answers arrive as onConversations, onConversationDetail and
    // onHistoryMessages, their bodies as the server wrote them.
    void fetchConversations(MediaInfo::MessageType type, int page, int pageSize);
    void getMsgByConvid(QString convId, int page, int pageSize);
    void startSyncMessage(QString msgUuid);
    void startPullMessage(int pullType, int start, int count, QString msgUuid);

    // --- history over HTTP -----------------------------------------------
    // Blocking fetches from the history service (see httpsynctask.h): each
    // waits on the calling thread, at most the deadline (30 s by default),
    // then calls onHistoryMessages on that same thread with the reply body,
    // "" when the request failed (network error, HTTP error, timeout, a
    // bound of the task exceeded; lastHistoryError says which). They need a
    // QCoreApplication and a login since construction (the JID and level of
    // the last login are used; the push connection itself is not): without
    // one nothing is requested and the callback gets "". Several
    // application threads may call them at once (a fresh task per call).
    void startSyncMessageRun(QString msgUuid);
    void startPullMessageRun(int type, int count, QString msgUuid);
    /// The history service's base address, e.g. "http://127.0.0.1:18080";
    /// empty (the default) means "http://" + the login host + ":5201".
    /// Set it before the history calls, from the application's thread.
    void setHistoryBaseAddress(const QString &base);
    /// The address the next request uses.
    QString historyBaseAddress() const;
    /// The overall deadline of each later request, in milliseconds; 0 or
    /// less means HttpSyncTask::DEADLINE_MS.
    void setHistoryDeadline(int milliseconds);
    /// Why the calling thread's last request gave "" (HttpSyncTask's
    /// lastError, or "not logged in"); "" after one that succeeded.
    QString lastHistoryError() const;

    // --- remote-desktop signalling --------------------------------------
    // Each sends the caller's text to the peer (completed with the domain
    // when it has no "@"); the first argument is not used. True when
    // published.
    bool remoteDesktopControl(QString ignored, QString peer, QString body);
    bool remoteDesktopBeControl(QString ignored, QString peer, QString body);
    bool remoteDesktopControlReply(QString ignored, QString peer, QString body);
    bool remoteDesktopBeControlReply(QString ignored, QString peer, QString body);

    // --- friends ----------------------------------------------------------
    // Each publishes one command and returns true when it was published; the
    // first argument is not used. A peer without "@" is completed with the
    // domain. add, accept and delete go to the peer's topic; properties and
    // the list request go to serverJid. The answers arrive as onFriendAdded,
    // onFriendAccepted, onFriendDeleted and onFriendList.
    bool addFriend(const QString &ignored, QString peer, const QString &text);
    bool acceptFriend(const QString &ignored, QString peer, const QString &text);
    bool delFriend(const QString &ignored, QString peer, const QString &text);
    /// `text` is the property text, stored by the server for `peer`.
    bool setFriendPropoties(const QString &ignored, QString peer, const QString &text);
    /// Asks for one page of the friend list: the list kind, the page size and
    /// the cursor (where the page continues), carried unchecked.
    bool listFriends(int type, int count, const QString &lastFriendId);

    // --- contacts -------------------------------------------------------
    /// The engine's contact manager; never null, lives as long as the engine.
    ContactManager *getContactManager() const { return contactManager.get(); }

    // --- local message store (storedmessages.cpp) ------------------------
    // Opt-in, before login. With it every chat, room message and notice sent
    // or received is recorded (see messagestore.h); a send returns 1 once
    // its message is written, and the connection is handed the written
    // messages in order; what the broker has not acknowledged at logout or
    // exit is handed again at the next login; a received key already stored
    // is neither recorded nor delivered again; each login asks the server
    // for what arrived since the newest received message.
    /// False, with lastStoreError() set, when the store cannot be opened or
    /// a login is under way.
    bool openMessageStore(const QString &path, bool syncEachCommit);
    /// The store, or null without one; lives as long as the engine.
    MessageStore *messageStore() const { return store.get(); }
    /// Why the last store operation failed ("" when none did).
    QString lastStoreError() const;
    /// The conversation of `peer`: completed with the domain when it has no
    /// "@" and a login gave one.
    QString conversationJid(const QString &peer) const
    {
        return peer.contains(QLatin1Char('@')) || domain.isEmpty() ? peer : completeJid(peer);
    }
    /// Marks the conversation with `peer` read, and with `tellPeer` sends a
    /// read status for each of its messages. 0 without a store.
    int markConversationRead(const QString &peer, bool tellPeer);

    // --- push client callbacks (delivery thread) -----------------------
    void messgeRecieved(char *topic, char *payload) override;
    void messgeRecievedMore(int mid, char *topic, void *payload, int length, int qos, bool retain) override;
    void connectStatus(bool connected) override;
    void subscriptionGranted(int requested, int granted) override;
    void published(std::uint64_t ticket) override;

    // --- command handlers (delivery thread) ----------------------------
    void messageReceive(MQTTMessage *msg) override;
    void messagePresenceIn(MQTTMessage *msg) override;
    void messageModifyStatus(MQTTMessage *msg) override;
    void messageModifyClientStatus(MQTTMessage *msg) override;
    // Room events. Subscription changes and the synthetic room messages
    // (onMessageReceive) happen here, on the delivery thread; onRoomChanged
    // and onRoomListRefreshed run on the room notification threads.
    void SysGroupCreated(MQTTMessage *msg) override;
    void SysGroupReleased(MQTTMessage *msg) override;
    void SysGroupInvited(MQTTMessage *msg) override;
    void SysGroupKicked(MQTTMessage *msg) override;
    void SysGroupNameChanged(MQTTMessage *msg) override;
    void SysGroupExited(MQTTMessage *msg) override;
    void SysGroupQueryed(MQTTMessage *msg) override;
    void SysGroupJoined(MQTTMessage *msg) override;
    void SysGroupRefreshed(MQTTMessage *msg) override;
    void SysGroupSetCreater(MQTTMessage *msg) override;
    void SysGroupModifyType(MQTTMessage *msg) override;
    // Remote desktop and history: straight to the application's callbacks.
    void RemoteDesktopControlRequest(MQTTMessage *msg) override;
    void RemoteDesktopControlResponse(MQTTMessage *msg) override;
    void RemoteDesktopBeControlRequest(MQTTMessage *msg) override;
    void RemoteDesktopBeControlResponse(MQTTMessage *msg) override;
    void historyMessageResponse(MQTTMessage *msg) override;
    void historyMessageConvResonse(MQTTMessage *msg) override;
    void historyMessageConvDetailResonse(MQTTMessage *msg) override;
    // Friends: straight to the application's callbacks. A friend-list
    // request and a property command addressed to this user raise nothing.
    void FriendAdded(MQTTMessage *msg) override;
    void FriendAccepted(MQTTMessage *msg) override;
    void FriendDeleted(MQTTMessage *msg) override;
    void FriendListRequest(MQTTMessage *msg) override;
    void FriendListIncoming(MQTTMessage *msg) override;
    void setFriendPropoties(MQTTMessage *msg) override;

    // --- connection settings -------------------------------------------
    /// TLS, credentials, failover brokers, delays and bounds of the push
    /// client made by the next login (the current connection keeps its
    /// own). Call it from the application's thread, not during a login.
    void setPushClientOptions(const PushClientOptions &options);
    /// The highest delivery level of the next login's connection (1 or 2).
    void setMaxQos(int qos);
    /// Why the last connection attempt failed or the link went down, and a
    /// text for people; None (and "") without a connection.
    PushConnectionError lastConnectionError() const;
    QString lastConnectionErrorText() const;
    /// What was dropped from the network so far (see droppedinputs.h).
    DroppedInputs droppedInputs() const;

    // --- state, for tests and diagnostics ------------------------------
    std::string userJid() const { return jid; }
    std::string currentDeviceId() const { return deviceId; }
    std::string currentDeviceName() const { return deviceName; }
    int currentSecurityLevel() const { return securityLevel; }
    bool isLoggedIn() const { return pushClient != nullptr; }
    /// The push connection's pending count (see pushclient.h), 0 logged out.
    std::size_t pendingCount() const { return pushClient != nullptr ? pushClient->pendingCount() : 0; }
    QList<std::string> subscribedRoomJids() const;
    /// Room notification threads running now / the most that ran at once.
    std::size_t roomNotificationThreads() const;
    std::size_t roomNotificationPeakThreads() const;

private:
    void setFreshWill();
    /// The room JIDs that may be subscribed: those that pass the JID check,
    /// as many as the room bound leaves room for; the rest are counted and
    /// logged. Takes roomsMutex.
    QList<std::string> admissibleRooms(const QList<std::string> &roomJids);
    /// True, and logged ("<what> not sent"), when `jid`, the addressee of
    /// something the application sends, fails the JID check.
    bool refusedAddressee(const QString &jid, const char *what) const;
    /// True, counted and logged, when `roomJid` fails the JID check.
    bool refusedRoomJid(const std::string &roomJid);
    /// Counts and logs a delivery over its size limits.
    void dropOversized(const char *topic, const char *what, int limit);
    /// A system request: the JSON body, enciphered, to serverJid on the
    /// command's chain at QoS 2. True when published.
    bool sendSystemRequest(int family, int command, const QString &body);
    /// The JID of `id`, completed with the domain when it has no "@".
    QString completeJid(const QString &id) const;
    std::string serverJidText() const;
    /// One command message, enciphered, at QoS 2: the chain family/command
    /// on the topic of `topicJid`, the envelope from the user to `to`
    /// (system type, level 9999). Nothing is published when the chain or
    /// the envelope cannot be built. True when published.
    bool sendCommand(const QString &topicJid, const QString &to, int family, int command, const QString &body);
    /// A command to `peer` (completed with the domain), on the peer's topic.
    bool sendToPeer(int family, int command, const QString &peer, const QString &body);

    // Room events: the work handed to the notification threads, and the
    // synthetic room message. See roomnotifier.h for the threads' bound.
    void refresh_room(MQTTMessage *message, GroupSubCmd cmd);
    void refresh_roomRun(QByteArray body, GroupSubCmd cmd);
    void SysGroupRefreshedRun(QString json);
    void deliverRoomMessage(const std::string &roomJid, MESSAGE_BODY_TYPE bodyType);
    /// True when the event's body names a room JID that fails the check.
    bool refusedRoomEvent(MQTTMessage *msg);
    // Room commands: the JID rules, and the common send of a room record.
    QString jidWithDomain(const QString &id) const; // id "@" domain, always
    QString memberJidOf(const QString &roomId, const QString &memberId) const;
    bool sendRoomCommand(int command, Room &room);
    // The store (storedmessages.cpp).
    int sendStored(const QString &target, int secLevel, const QString &body, MESSAGE_BODY_TYPE bodyType, bool toRoom,
        const QString &messageKey, const QString &stamp);
    void handOverStored();
    void reloadUnsent();
    /// False when the message's key is already stored (not to be delivered).
    bool recordDelivered(const MQTTMessage &msg, const QString &body);
    void storePeerStatus(const QString &key, int status);
    void catchUp();
    void recordHistory(const std::string &body);
    void setStoreError(const QString &error);

    ImEventReciever *imReciever;
    ImMUCEventReciever *mucReciever;
    PushClient *pushClient = nullptr;
    PushClientOptions pushOptions; // for the next login
    int maxQos = 2;                // for the next login
    bool unverifiedLink = false;   // the connection's TLS verifies nothing
    std::string jid;
    std::string userId;
    QString domain;
    QString serverHost;
    std::set<std::string> subscribedRooms;
    mutable std::mutex roomsMutex; // guards subscribedRooms
    QString loginError;            // why the last login was refused; "" otherwise
    std::atomic<quint64> droppedOversized{ 0 };
    std::atomic<quint64> droppedRoomJids{ 0 };
    std::atomic<quint64> droppedRooms{ 0 };
    std::atomic<bool> closing{ true };
    int securityLevel = 0;
    std::string deviceId;
    std::string deviceName;
    QString configuredServerJid;                 // empty: "server@" + domain
    QString effectiveServerJid;                  // fixed at login
    QString httpHistoryBase;                     // empty: "http://" + serverHost + ":5201"
    std::atomic<int> httpHistoryDeadlineMs{ 0 }; // 0: HttpSyncTask's default
    // Runs the room callbacks off the delivery thread, on a few threads at
    // most. Finished (every accepted event delivered, every thread joined)
    // by logout and by destruction, after the push client is gone, so no
    // notification thread outlives the engine.
    std::unique_ptr<RoomNotifier> roomNotifier; // never null
    static std::unique_ptr<RoomNotifier> newRoomNotifier();
    // Local contact bookkeeping, reached by the façade. Created last in the
    // constructor; destroyed after the destructor has disconnected.
    std::unique_ptr<ContactManager> contactManager; // never null
    // The message store and its outbox: the written messages not yet handed
    // to the connection, oldest first (some of them; see handOverStored).
    std::unique_ptr<MessageStore> store;
    mutable std::mutex outboxMutex; // guards unsent and what follows
    std::deque<StoredMessage> unsent;
    static constexpr std::size_t kUnsentHeld = 256;
    qint64 unsentAfter = 0;     // the newest written message taken into unsent
    bool unsentInStore = false; // written messages after unsentAfter wait in the store
    // Whether unsent or the store holds messages not handed over (as left
    // by the last handOverStored): an acknowledgement hands over only then.
    std::atomic<bool> unsentWaiting{ false };
    QString storeError;
    QString catchUpAnchor; // the last sync asked for by the catch-up
    int catchUpPages = 0;  // answers of this login's catch-up so far
    static constexpr int kMaxCatchUpPages = 1000;
};

#endif // PUSHCHAT_MESSAGEPRIVATE_H
