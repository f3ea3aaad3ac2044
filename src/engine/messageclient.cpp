#include "messageclient.h"

#include <QMetaObject>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>

// Receives the library's callbacks on the library's threads, copies what
// they carry and queues the signal on the client's thread.
class MessageClientReceiver : public ImEventReciever, public ImMUCEventReciever, public ImContactEventReciever {
public:
    explicit MessageClientReceiver(MessageClient *client) : q(client) { }
    Message_lib *library = nullptr; // set once the façade exists
    // The login the callbacks belong to: a state change queued by an
    // earlier login is not applied to a later one.
    std::atomic<unsigned> session{ 0 };
    std::atomic<unsigned> storeErrors{ 0 }; // onStoreError calls so far

    // The emitters wait here (the mutex orders the hand-over between the
    // threads); one queued call per emitter takes them out in order.
    template <class Emit> void post(Emit emitter)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_queued.emplace_back(std::move(emitter));
        }
        QMetaObject::invokeMethod(q, "deliverQueued", Qt::QueuedConnection);
    }
    // A signal of three texts, from the library's UTF-8.
    using TextsSignal = void (MessageClient::*)(const QString &, const QString &, const QString &);
    void postTexts(TextsSignal signal, const char *from, const char *to, const char *body)
    {
        post([c = q, signal, f = QString::fromUtf8(from), t = QString::fromUtf8(to), b = QString::fromUtf8(body)] {
            emit(c->*signal)(f, t, b);
        });
    }
    std::function<void()> next()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_queued.empty())
            return {};
        std::function<void()> emitter = std::move(m_queued.front());
        m_queued.pop_front();
        return emitter;
    }

    void onConnected() override
    {
        post([c = q, s = session.load()] { c->setState(s, MessageClient::Connected); });
    }
    void onDisconnected() override
    {
        const PushConnectionError error = library->lastConnectionError();
        const QString text = library->lastConnectionErrorText();
        post([c = q, s = session.load(), error, text] {
            if (c->setState(s, isRetried(error) ? MessageClient::Connecting : MessageClient::Disconnected))
                emit c->connectionError(int(error), text);
        });
    }
    void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString messageKey,
        QString stamp, bool readable) override
    {
        post([c = q, from, to, body, bodyType, msgType, messageKey, stamp, readable] {
            emit c->messageReceived(from, to, body, bodyType, msgType, messageKey, stamp, readable);
        });
    }
    void onHistoryMessages(const char *json) override
    {
        post([c = q, j = QByteArray(json)] { emit c->historyMessages(j); });
    }
    void onConversations(const char *json) override
    {
        post([c = q, j = QByteArray(json)] { emit c->conversations(j); });
    }
    void onConversationDetail(const char *json) override
    {
        post([c = q, j = QByteArray(json)] { emit c->conversationDetail(j); });
    }
    void onPresence(QString from, QString body) override
    {
        post([c = q, from, body] { emit c->presence(from, body); });
    }
    void onMessageStatusModified(QString modifier, QString uuid, int status) override
    {
        post([c = q, modifier, uuid, status] { emit c->messageStatusModified(modifier, uuid, status); });
    }
    void onFriendAdded(QString from, QString to, QString body) override
    {
        post([c = q, from, to, body] { emit c->friendAdded(from, to, body); });
    }
    void onFriendAccepted(QString from, QString to, int) override
    {
        post([c = q, from, to] { emit c->friendAccepted(from, to); });
    }
    void onFriendDeleted(QString from, QString to, int) override
    {
        post([c = q, from, to] { emit c->friendDeleted(from, to); });
    }
    void onFriendList(const char *json) override
    {
        post([c = q, j = QByteArray(json)] { emit c->friendList(j); });
    }
    void onRemoteDesktopControlRequest(const char *from, const char *to, const char *body) override
    {
        postTexts(&MessageClient::remoteDesktopControlRequest, from, to, body);
    }
    void onRemoteDesktopControlResponse(const char *from, const char *to, const char *body) override
    {
        postTexts(&MessageClient::remoteDesktopControlResponse, from, to, body);
    }
    void onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body) override
    {
        postTexts(&MessageClient::remoteDesktopBeControlRequest, from, to, body);
    }
    void onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body) override
    {
        postTexts(&MessageClient::remoteDesktopBeControlResponse, from, to, body);
    }
    void onRoomListRefreshed(QString json) override
    {
        post([c = q, json] { emit c->roomListRefreshed(json); });
    }
    void onRoomChanged(Room &room, GroupSubCmd cmd) override
    {
        post([c = q, r = room.toJson(), cmd] { emit c->roomChanged(r, int(cmd)); });
    }

    void onSubscribeRequest(QString jid, QString text7, QString text8) override
    {
        post([c = q, jid, text7, text8] { emit c->subscribeRequest(jid, text7, text8); });
    }
    void onContactInfo(QString jid, QString text7, bool flag1, bool flag2, QStringList callers) override
    {
        post([c = q, jid, text7, flag1, flag2, callers] { emit c->contactInfo(jid, text7, flag1, flag2, callers); });
    }
    void onOwnerVCard(QString text) override
    {
        post([c = q, text] { emit c->ownerVCard(text); });
    }
    void onStoredMessageChanged(const StoredMessage &message) override
    {
        post([c = q, message] { emit c->storedMessageChanged(message); });
    }
    void onStoreError(QString text) override
    {
        ++storeErrors;
        post([c = q, text] { emit c->storeError(text); });
    }

private:
    MessageClient *q;
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_queued; // guarded by m_mutex
};

MessageClient::MessageClient(const QString &deviceId, const QString &deviceName, QObject *parent)
    : QObject(parent), m_receiver(std::make_unique<MessageClientReceiver>(this)),
      m_library(std::make_unique<Message_lib>(
          m_receiver.get(), m_receiver.get(), deviceId.toStdString(), deviceName.toStdString()))
{
    m_receiver->library = m_library.get();
    m_library->setContactEventReciever(m_receiver.get());
    qRegisterMetaType<StoredMessage>();
    qRegisterMetaType<StoredConversation>();
}

MessageClient::~MessageClient()
{
    // No callback runs once the façade is gone; what they queued for this
    // object goes with it.
    m_library.reset();
}

void MessageClient::deliverQueued()
{
    if (const std::function<void()> emitter = m_receiver->next())
        emitter();
}

bool MessageClient::setState(unsigned session, ConnectionState state)
{
    if (session != m_session)
        return false;
    if (state != m_state) {
        m_state = state;
        emit connectionStateChanged(state);
    }
    return true;
}

void MessageClient::setServerJid(const QString &jid)
{
    m_library->setServerJid(jid);
}
void MessageClient::setHistoryBaseAddress(const QString &base)
{
    m_library->setHistoryBaseAddress(base);
}
void MessageClient::setPushClientOptions(const PushClientOptions &options)
{
    m_library->setPushClientOptions(options);
}

int MessageClient::login(const QString &host, int port, const QString &user, int securityLevel, const QString &domain)
{
    m_receiver->session = ++m_session;
    setState(m_session, Connecting);
    return m_library->registerToImServer(host, port, user, QString(), securityLevel, domain, QString());
}

int MessageClient::logout()
{
    const int result = m_library->unRegisterToImServer();
    m_receiver->session = ++m_session;
    setState(m_session, Disconnected);
    return result;
}

int MessageClient::sendMessage(
    const QString &to, const QString &text, int secLevel, bool toRoom, const QString &messageKey, const QString &stamp)
{
    return m_library->sendTextMessageTo(QString(), to, secLevel, text, BODY_TYPE_DEFAULT, toRoom, messageKey, stamp);
}

int MessageClient::sendNotice(const QString &to, const QString &text, const QString &messageKey, const QString &stamp)
{
    return m_library->sendTextMessageTo(
        QString(), to, SECURITY_LEVEL_UNRESTRICTED, text, BODY_TYPE_NOTICE, false, messageKey, stamp);
}

int MessageClient::sendLocation(const QString &target, const QString &first, const QString &second)
{
    return m_library->sendLocation(target, first, second);
}

int MessageClient::modifyMessageStatus(const QString &uuid, int status)
{
    return m_library->modifyMessageStatus(uuid, MSG_STATUS(status));
}

int MessageClient::createRoom(const QString &roomId, const QString &name, const QString &members, int type)
{
    return m_library->createMucRoom(roomId, name, members, ROOM_TYPE(type));
}

int MessageClient::inviteToRoom(const QString &roomId, const QString &members)
{
    return m_library->inviteToRoom(roomId, members);
}

int MessageClient::kickFromRoom(const QString &roomId, const QString &members)
{
    return m_library->kickFromRoom(roomId, members);
}

int MessageClient::renameRoom(const QString &roomId, const QString &name)
{
    return m_library->setRoomHumanName(roomId, name);
}

int MessageClient::setRoomOwner(const QString &roomId, const QString &member)
{
    return m_library->setRoomCreater(roomId, member);
}

int MessageClient::setRoomType(const QString &roomId, int type)
{
    return m_library->modifyRoomType(roomId, ROOM_TYPE(type));
}

int MessageClient::destroyRoom(const QString &roomId)
{
    return m_library->destoryRoom(roomId);
}

void MessageClient::fetchConversations(int type, int page, int pageSize)
{
    m_library->fetchConversations(MediaInfo::MessageType(type), page, pageSize);
}

void MessageClient::fetchConversation(const QString &convId, int page, int pageSize)
{
    m_library->getMsgByConvid(convId, page, pageSize);
}

void MessageClient::pullHistory(int pullType, int start, int count, const QString &msgUuid)
{
    m_library->startPullMessage(pullType, start, count, msgUuid);
}

void MessageClient::syncHistory(const QString &msgUuid)
{
    m_library->startSyncMessage(msgUuid);
}
void MessageClient::syncHistoryOverHttp(const QString &msgUuid)
{
    m_library->startSyncMessageRun(msgUuid);
}

void MessageClient::pullHistoryOverHttp(int type, int count, const QString &msgUuid)
{
    m_library->startPullMessageRun(type, count, msgUuid);
}

int MessageClient::addFriend(const QString &jid, const QString &text)
{
    return m_library->addFriend(QString(), jid, text);
}

int MessageClient::acceptFriend(const QString &jid, const QString &text)
{
    return m_library->acceptFriend(QString(), jid, text);
}

int MessageClient::deleteFriend(const QString &jid)
{
    return m_library->delFriend(QString(), jid);
}

int MessageClient::setFriendProperties(const QString &jid, const QString &text)
{
    return m_library->setFriendPropoties(QString(), jid, text);
}

int MessageClient::listFriends(int type, int count, const QString &lastFriendId)
{
    return m_library->listFriends(type, count, lastFriendId);
}

int MessageClient::remoteDesktopControl(const QString &jid, const QString &text)
{
    return m_library->remoteDesktopControl(QString(), jid, text);
}

int MessageClient::remoteDesktopBeControl(const QString &jid, const QString &text)
{
    return m_library->remoteDesktopBeControl(QString(), jid, text);
}

int MessageClient::remoteDesktopControlReply(const QString &jid, const QString &text)
{
    return m_library->remoteDesktopControlReply(QString(), jid, text);
}

int MessageClient::remoteDesktopBeControlReply(const QString &jid, const QString &text)
{
    return m_library->remoteDesktopBeControlReply(QString(), jid, text);
}

bool MessageClient::openMessageStore(const QString &path, bool syncEachCommit)
{
    const unsigned told = m_receiver->storeErrors;
    if (m_library->openMessageStore(path, syncEachCommit) == 1)
        return true;
    if (m_receiver->storeErrors == told) // refused before the file was tried
        m_receiver->onStoreError(m_library->lastStoreError());
    return false;
}

QString MessageClient::lastStoreError() const
{
    return m_library->lastStoreError();
}

QList<StoredConversation> MessageClient::storedConversations() const
{
    return m_library->storedConversations();
}

QList<StoredMessage> MessageClient::storedMessages(const QString &peer, const QString &beforeKey, int limit) const
{
    return m_library->storedMessages(peer, beforeKey, limit);
}

QList<StoredMessage> MessageClient::searchStoredMessages(const QString &text, const QString &peer, int limit) const
{
    return m_library->searchStoredMessages(text, peer, limit);
}

int MessageClient::markConversationRead(const QString &peer, bool tellPeer)
{
    return m_library->markConversationRead(peer, tellPeer);
}

int MessageClient::storedPendingCount() const
{
    return m_library->storedPendingCount();
}
