#ifndef PUSHCHAT_MESSAGECLIENT_H
#define PUSHCHAT_MESSAGECLIENT_H

/// \file
/// MessageClient, the library as a QObject: signals instead of callbacks.

#include <pushchat/message_lib.h>
#include <pushchat/pushchat_export.h>
#include <pushchat/storedmessage.h>

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class MessageClientReceiver;

/// The library for Qt applications: owns a Message_lib, receives its
/// callbacks and re-emits each as a signal with value arguments, delivered
/// queued on the thread this object lives in (its GUI thread, usually), in
/// the order the library delivered them. Slots connected to these signals
/// may touch widgets, start timers and call the library again.
///
/// \code
/// MessageClient client;
/// QObject::connect(&client, &MessageClient::messageReceived, &view, &ChatView::append);
/// client.login("127.0.0.1", 1883, "alice", 5, "im.example.org");
/// \endcode
///
/// The operations are the façade's (see Message_lib for what each does
/// and returns), invokable from QML or by name; call them from the object's
/// thread. Texts handed to signals are copies made on the library's thread
/// before the signal is queued. Connection state is a property;
/// connectionError tells why the link failed or went down.
///
/// Destroying the object logs out in order first; callbacks still under
/// way finish, and signals queued for it and not yet delivered are
/// dropped. Qt Core only.
///
/// With the local message store (openMessageStore, before login) every
/// message recorded or changed arrives as storedMessageChanged, and
/// StoredConversationModel and StoredMessageModel show the store to views.
class PUSHCHAT_EXPORT MessageClient : public QObject {
    Q_OBJECT
    /// Where the login stands; connectionStateChanged tells each change.
    Q_PROPERTY(ConnectionState connectionState READ connectionState NOTIFY connectionStateChanged)
public:
    /// Where the login stands.
    enum ConnectionState {
        Disconnected, ///< no login, or the broker refused it for good (see connectionError)
        Connecting,   ///< logging in, or reconnecting after a loss
        Connected     ///< online: subscriptions and presence sent
    };
    Q_ENUM(ConnectionState)

    /// The device id and name as for Message_lib (empty: kept, composed).
    explicit MessageClient(
        const QString &deviceId = QString(), const QString &deviceName = QString(), QObject *parent = nullptr);
    /// Logs out in order when logged in.
    ~MessageClient() override;

    /// Where the login stands.
    ConnectionState connectionState() const { return m_state; }
    /// The façade itself, for what has no invokable here. Its callbacks
    /// stay this object's.
    Message_lib &library() { return *m_library; }

    /// \name Settings, before logging in
    ///@{

    /// Message_lib::setServerJid.
    Q_INVOKABLE void setServerJid(const QString &jid);
    /// Message_lib::setHistoryBaseAddress.
    Q_INVOKABLE void setHistoryBaseAddress(const QString &base);
    /// Message_lib::setPushClientOptions: TLS, broker account, failover.
    void setPushClientOptions(const PushClientOptions &options);
    ///@}

    /// \name Operations
    /// Each calls the façade operation named and returns its result.
    ///@{

    /// Message_lib::registerToImServer; the state becomes Connecting.
    Q_INVOKABLE int login(
        const QString &host, int port, const QString &user, int securityLevel, const QString &domain = QString());
    /// Message_lib::unRegisterToImServer; the state becomes Disconnected.
    Q_INVOKABLE int logout();
    /// Message_lib::sendTextMessageTo with BODY_TYPE_DEFAULT.
    Q_INVOKABLE int sendMessage(const QString &to, const QString &text, int secLevel, bool toRoom = false,
        const QString &messageKey = QString(), const QString &stamp = QString());
    /// Message_lib::sendTextMessageTo with BODY_TYPE_NOTICE: readable by all.
    Q_INVOKABLE int sendNotice(const QString &to, const QString &text, const QString &messageKey = QString(),
        const QString &stamp = QString());
    /// Message_lib::sendLocation.
    Q_INVOKABLE int sendLocation(const QString &target, const QString &first, const QString &second);
    /// Message_lib::modifyMessageStatus.
    Q_INVOKABLE int modifyMessageStatus(const QString &uuid, int status);
    /// Message_lib::createMucRoom.
    Q_INVOKABLE int createRoom(const QString &roomId, const QString &name, const QString &members, int type = 0);
    /// Message_lib::inviteToRoom.
    Q_INVOKABLE int inviteToRoom(const QString &roomId, const QString &members);
    /// Message_lib::kickFromRoom.
    Q_INVOKABLE int kickFromRoom(const QString &roomId, const QString &members);
    /// Message_lib::setRoomHumanName.
    Q_INVOKABLE int renameRoom(const QString &roomId, const QString &name);
    /// Message_lib::setRoomCreater.
    Q_INVOKABLE int setRoomOwner(const QString &roomId, const QString &member);
    /// Message_lib::modifyRoomType.
    Q_INVOKABLE int setRoomType(const QString &roomId, int type);
    /// Message_lib::destoryRoom.
    Q_INVOKABLE int destroyRoom(const QString &roomId);
    /// Message_lib::fetchConversations; the answer comes as conversations.
    Q_INVOKABLE void fetchConversations(int type, int page, int pageSize);
    /// Message_lib::getMsgByConvid; the answer comes as conversationDetail.
    Q_INVOKABLE void fetchConversation(const QString &convId, int page, int pageSize);
    /// Message_lib::startPullMessage; the answer comes as historyMessages.
    Q_INVOKABLE void pullHistory(int pullType, int start, int count, const QString &msgUuid);
    /// Message_lib::startSyncMessage; the answer comes as historyMessages.
    Q_INVOKABLE void syncHistory(const QString &msgUuid);
    /// Message_lib::startSyncMessageRun: blocks this thread until the
    /// answer; historyMessages follows, queued like every signal.
    Q_INVOKABLE void syncHistoryOverHttp(const QString &msgUuid);
    /// Message_lib::startPullMessageRun, blocking like syncHistoryOverHttp.
    Q_INVOKABLE void pullHistoryOverHttp(int type, int count, const QString &msgUuid);
    /// Message_lib::addFriend.
    Q_INVOKABLE int addFriend(const QString &jid, const QString &text);
    /// Message_lib::acceptFriend.
    Q_INVOKABLE int acceptFriend(const QString &jid, const QString &text);
    /// Message_lib::delFriend.
    Q_INVOKABLE int deleteFriend(const QString &jid);
    /// Message_lib::setFriendPropoties.
    Q_INVOKABLE int setFriendProperties(const QString &jid, const QString &text);
    /// Message_lib::listFriends; the answer comes as friendList.
    Q_INVOKABLE int listFriends(int type, int count, const QString &lastFriendId = QString());
    /// Message_lib::remoteDesktopControl.
    Q_INVOKABLE int remoteDesktopControl(const QString &jid, const QString &text);
    /// Message_lib::remoteDesktopBeControl.
    Q_INVOKABLE int remoteDesktopBeControl(const QString &jid, const QString &text);
    /// Message_lib::remoteDesktopControlReply.
    Q_INVOKABLE int remoteDesktopControlReply(const QString &jid, const QString &text);
    /// Message_lib::remoteDesktopBeControlReply.
    Q_INVOKABLE int remoteDesktopBeControlReply(const QString &jid, const QString &text);
    ///@}

    /// \name Local message store
    /// The façade's store (see Message_lib): open it before logging in.
    /// The reads work offline and return copies; what the store records
    /// or changes afterwards comes as storedMessageChanged.
    ///@{

    /// Message_lib::openMessageStore. False when it cannot be opened (or a
    /// login is under way): storeError follows with the reason, which
    /// lastStoreError() also gives.
    Q_INVOKABLE bool openMessageStore(const QString &path, bool syncEachCommit = true);
    /// Message_lib::lastStoreError.
    Q_INVOKABLE QString lastStoreError() const;
    /// Message_lib::storedConversations: the most recent first.
    QList<StoredConversation> storedConversations() const;
    /// Message_lib::storedMessages: oldest first, the newest ones or those
    /// before the message with key `beforeKey`.
    QList<StoredMessage> storedMessages(
        const QString &peer, const QString &beforeKey = QString(), int limit = 50) const;
    /// Message_lib::searchStoredMessages: newest first.
    QList<StoredMessage> searchStoredMessages(
        const QString &text, const QString &peer = QString(), int limit = 50) const;
    /// Message_lib::markConversationRead.
    Q_INVOKABLE int markConversationRead(const QString &peer, bool tellPeer = false);
    /// Message_lib::storedPendingCount.
    Q_INVOKABLE int storedPendingCount() const;
    ///@}

signals:
    /// The login's state changed.
    void connectionStateChanged(MessageClient::ConnectionState state);
    /// The link failed or went down: `error` is a PushConnectionError,
    /// `text` the reason with the broker's address.
    void connectionError(int error, const QString &text);
    /// \name The library's callbacks
    /// One signal per callback of ImEventReciever, ImMUCEventReciever and
    /// ImContactEventReciever, with the same arguments (see there); the
    /// server's JSON bodies as bytes.
    ///@{

    /// ImEventReciever::onMessageReceive.
    void messageReceived(const QString &from, const QString &to, const QString &body, int bodyType, int msgType,
        const QString &messageKey, const QString &stamp, bool readable);
    /// ImEventReciever::onPresence.
    void presence(const QString &from, const QString &body);
    /// ImEventReciever::onMessageStatusModified.
    void messageStatusModified(const QString &modifier, const QString &uuid, int status);
    /// ImEventReciever::onHistoryMessages.
    void historyMessages(const QByteArray &json);
    /// ImEventReciever::onConversations.
    void conversations(const QByteArray &json);
    /// ImEventReciever::onConversationDetail.
    void conversationDetail(const QByteArray &json);
    /// ImEventReciever::onFriendAdded.
    void friendAdded(const QString &from, const QString &to, const QString &body);
    /// ImEventReciever::onFriendAccepted.
    void friendAccepted(const QString &from, const QString &to);
    /// ImEventReciever::onFriendDeleted.
    void friendDeleted(const QString &from, const QString &to);
    /// ImEventReciever::onFriendList.
    void friendList(const QByteArray &json);
    /// ImEventReciever::onRemoteDesktopControlRequest.
    void remoteDesktopControlRequest(const QString &from, const QString &to, const QString &body);
    /// ImEventReciever::onRemoteDesktopControlResponse.
    void remoteDesktopControlResponse(const QString &from, const QString &to, const QString &body);
    /// ImEventReciever::onRemoteDesktopBeControlRequest.
    void remoteDesktopBeControlRequest(const QString &from, const QString &to, const QString &body);
    /// ImEventReciever::onRemoteDesktopBeControlResponse.
    void remoteDesktopBeControlResponse(const QString &from, const QString &to, const QString &body);
    /// ImMUCEventReciever::onRoomListRefreshed.
    void roomListRefreshed(const QString &json);
    /// ImMUCEventReciever::onRoomChanged: `room` in its JSON form (see
    /// room.h), `cmd` a GroupSubCmd.
    void roomChanged(const QJsonObject &room, int cmd);
    /// ImContactEventReciever::onSubscribeRequest.
    void subscribeRequest(const QString &jid, const QString &text7, const QString &text8);
    /// ImContactEventReciever::onContactInfo.
    void contactInfo(const QString &jid, const QString &text7, bool flag1, bool flag2, const QStringList &callers);
    /// ImContactEventReciever::onOwnerVCard.
    void ownerVCard(const QString &text);
    /// ImEventReciever::onStoredMessageChanged: a message was recorded or
    /// its state changed, as it now stands in the store.
    void storedMessageChanged(const StoredMessage &message);
    /// ImEventReciever::onStoreError, and a failed openMessageStore.
    void storeError(const QString &text);
    ///@}

private:
    friend class MessageClientReceiver;
    /// Emits what the library's threads queued, in order.
    Q_INVOKABLE void deliverQueued();
    /// Applies `state` if `session` is the current login's.
    bool setState(unsigned session, ConnectionState state);

    ConnectionState m_state = Disconnected;
    unsigned m_session = 0; ///< counts logins and logouts
    std::unique_ptr<MessageClientReceiver> m_receiver;
    std::unique_ptr<Message_lib> m_library; // after the receiver: destroyed first
};

Q_DECLARE_METATYPE(StoredMessage)
Q_DECLARE_METATYPE(StoredConversation)

#endif // PUSHCHAT_MESSAGECLIENT_H
