// The local message store, from the engine's side: the persistent outbox
// (record, then hand to the connection in order, mark sent at the broker's
// acknowledgement, hand again after a restart), the record of what arrives
// (each key once), read marks, and the catch-up at login.

#include "messageprivate.h"

#include "jsonkeycheck.h"
#include "messagestore.h"
#include "pushchatlog.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QUuid>

bool MessagePrivate::openMessageStore(const QString &path, bool syncEachCommit)
{
    if (pushClient != nullptr) {
        setStoreError(QStringLiteral("the message store is opened before login, not while logged in"));
        return false;
    }
    auto opened = std::make_unique<MessageStore>(syncEachCommit);
    if (imReciever != nullptr) {
        ImEventReciever *receiver = imReciever;
        opened->onChanged = [receiver](const StoredMessage &m) { receiver->onStoredMessageChanged(m); };
        opened->onFailed = [receiver](const QString &text) { receiver->onStoreError(text); };
    }
    if (!opened->open(path)) {
        setStoreError(opened->error());
        return false;
    }
    setStoreError(QString());
    store = std::move(opened);
    return true;
}

QString MessagePrivate::lastStoreError() const
{
    std::lock_guard<std::mutex> lock(outboxMutex);
    if (!storeError.isEmpty() || store == nullptr)
        return storeError;
    return store->error();
}

void MessagePrivate::setStoreError(const QString &error)
{
    std::lock_guard<std::mutex> lock(outboxMutex);
    storeError = error;
}

int MessagePrivate::sendStored(const QString &target, int secLevel, const QString &body, MESSAGE_BODY_TYPE bodyType,
    bool toRoom, const QString &messageKey, const QString &stamp)
{
    if (pushClient == nullptr || closing) {
        setStoreError(QStringLiteral("message not sent: not logged in"));
        return 0;
    }
    StoredMessage message;
    message.conversation = target;
    message.key = messageKey.isEmpty() ? QUuid::createUuid().toString(QUuid::WithoutBraces) : messageKey;
    message.sender = QString::fromStdString(jid);
    message.time = QDateTime::currentMSecsSinceEpoch();
    message.stamp = stamp;
    message.body = body;
    message.bodyType = bodyType;
    message.messageType = toRoom ? MediaInfo::MESSAGE_TYPE_GROUPCHAT : MediaInfo::MESSAGE_TYPE_CHAT;
    message.securityLevel = bodyType == BODY_TYPE_NOTICE ? SECURITY_LEVEL_UNRESTRICTED : secLevel;
    message.id = store->recordSent(message);
    if (message.id <= 0) {
        setStoreError(message.id < 0 ? QStringLiteral("message not sent: a message with the key %1 was already sent"
                                                      " to %2")
                                           .arg(message.key, target)
                                     : QStringLiteral("message not sent: %1").arg(store->error()));
        qCWarning(lcEngine).noquote() << lastStoreError();
        return 0;
    }
    {
        std::lock_guard<std::mutex> lock(outboxMutex);
        storeError.clear();
        // Held in memory while few wait; beyond that read back in order.
        if (!unsentInStore && unsent.size() < kUnsentHeld) {
            unsentAfter = message.id;
            unsent.push_back(std::move(message));
        } else {
            unsentInStore = true;
        }
    }
    handOverStored();
    return 1;
}

// Oldest first, as long as the connection's outbox takes them; the rest go
// when acknowledgements make room (published). At most kUnsentHeld wait in
// memory; the others are read back from the store in their order.
void MessagePrivate::handOverStored()
{
    std::lock_guard<std::mutex> lock(outboxMutex);
    for (;;) {
        if (unsent.empty() && unsentInStore && pushClient != nullptr && !closing) {
            for (StoredMessage &m : store->pending(unsentAfter, int(kUnsentHeld)))
                unsent.push_back(std::move(m));
            unsentInStore = unsent.size() == kUnsentHeld;
            if (!unsent.empty())
                unsentAfter = unsent.back().id;
        }
        if (unsent.empty() || pushClient == nullptr || closing)
            break;
        const StoredMessage &m = unsent.front();
        const bool notice = m.bodyType == BODY_TYPE_NOTICE;
        MQTTMessage msg(pushClient, true);
        msg.setSysProtocol(m.conversation.toUtf8().constData(), 2, MESSAGE_INFO, MESSAGE_NORMAL);
        if (msg.fromText(QString::fromStdString(jid), m.conversation, m.body, MediaInfo::MessageType(m.messageType),
                m.securityLevel, MESSAGE_BODY_TYPE(m.bodyType), m.key, m.stamp)) {
            const std::string &topic = notice ? std::string(NOTICE_TOPIC) : msg.protocol.topic;
            const int rc = pushClient->publish(topic.c_str(), msg.payload.c_str(), 2, false, std::uint64_t(m.id));
            if (rc == int(PushResult::OutboxFull)) {
                // From now on acknowledgements hand over; one more try in
                // case all of them came before they could see that.
                if (!unsentWaiting.exchange(true))
                    continue;
                break;
            }
            if (rc != int(PushResult::Ok))
                qCWarning(lcEngine) << "stored message" << m.key << "not handed to the connection, result" << rc;
        }
        unsent.pop_front();
    }
    unsentWaiting = !unsent.empty() || unsentInStore;
}

void MessagePrivate::published(std::uint64_t ticket)
{
    if (store == nullptr)
        return;
    store->markSent(qint64(ticket));
    // Nothing waits most of the time: the sender hands its message over
    // itself, and this thread does not wait for the sender's lock.
    if (unsentWaiting)
        handOverStored();
}

void MessagePrivate::reloadUnsent()
{
    if (store == nullptr)
        return;
    {
        std::lock_guard<std::mutex> lock(outboxMutex);
        unsent.clear();
        unsentAfter = 0;
        unsentInStore = true;
    }
    handOverStored();
}

bool MessagePrivate::recordDelivered(const MQTTMessage &msg, const QString &body)
{
    if (store == nullptr)
        return true;
    StoredMessage m;
    const bool room = msg.msgType == MediaInfo::MESSAGE_TYPE_GROUPCHAT;
    m.sender = QString::fromStdString(msg.from);
    m.outgoing = msg.from == jid;
    m.conversation = room || m.outgoing ? QString::fromStdString(msg.to) : m.sender;
    m.key = QString::fromStdString(msg.messageKey);
    m.time = QDateTime::currentMSecsSinceEpoch();
    m.stamp = QString::fromStdString(msg.stamp);
    m.body = body;
    m.bodyType = msg.bodyType;
    m.messageType = msg.msgType;
    m.securityLevel = msg.secLevel;
    m.state = m.outgoing ? StoredState::Sent : StoredState::Received;
    return store->recordReceived(m);
}

void MessagePrivate::storePeerStatus(const QString &key, int status)
{
    if (store != nullptr && status != MSG_STATUS_NONE)
        store->markReadByPeer(key);
}

int MessagePrivate::markConversationRead(const QString &peer, bool tellPeer)
{
    if (store == nullptr)
        return 0;
    const QStringList keys = store->markConversationRead(conversationJid(peer));
    if (tellPeer && pushClient != nullptr) {
        for (const QString &key : keys)
            modifyMessageStatus(key, MSG_STATUS_READ);
    }
    return 1;
}

// Asks for what arrived after the newest received message the store holds
// (everything the server keeps, for an empty store).
void MessagePrivate::catchUp()
{
    if (store == nullptr)
        return;
    const QString anchor = store->newestReceivedKey();
    {
        std::lock_guard<std::mutex> lock(outboxMutex);
        catchUpAnchor = anchor;
        catchUpPages = 0;
    }
    startSyncMessage(anchor);
}

// A history answer: its messages are recorded (each key once). An answer
// to the catch-up that says more follow asks for the next part, up to
// kMaxCatchUpPages parts a login (a server that always has more does not
// keep the client asking).
void MessagePrivate::recordHistory(const std::string &body)
{
    if (store == nullptr)
        return;
    const QJsonObject answer = JsonKeyCheck::parse(QByteArray::fromStdString(body)).object();
    const QJsonArray messages = answer.value(QLatin1String("messages")).toArray();
    QString last;
    for (const QJsonValue &value : messages) {
        const QJsonObject o = value.toObject();
        if (o.value(QLatin1String("withheld")).toBool() || o.value(QLatin1String("uuid")).toString().isEmpty())
            continue;
        StoredMessage m;
        m.key = last = o.value(QLatin1String("uuid")).toString();
        m.sender = o.value(QLatin1String("from")).toString();
        m.conversation = o.value(QLatin1String("conv_id")).toString();
        m.outgoing = m.sender == QString::fromStdString(jid);
        const QDateTime at = QDateTime::fromString(o.value(QLatin1String("time")).toString(), Qt::ISODateWithMs);
        m.time = at.isValid() ? at.toMSecsSinceEpoch() : QDateTime::currentMSecsSinceEpoch();
        m.stamp = o.value(QLatin1String("stamp")).toString();
        m.body = o.value(QLatin1String("readable")).toBool(true) ? o.value(QLatin1String("body")).toString()
                                                                 : QString::fromUtf8(UNREADABLE_TEXT);
        m.bodyType = o.value(QLatin1String("body_type")).toInt();
        m.messageType = o.value(QLatin1String("msg_type")).toInt();
        m.securityLevel = o.value(QLatin1String("sec_level")).toInt();
        m.state = m.outgoing ? StoredState::Sent : StoredState::Received;
        if (!m.conversation.isEmpty() && !m.sender.isEmpty())
            store->recordReceived(m);
    }
    bool next = false;
    {
        std::lock_guard<std::mutex> lock(outboxMutex);
        next = answer.value(QLatin1String("more")).toBool() && !last.isEmpty() &&
               answer.value(QLatin1String("msg_uuid")).toString() == catchUpAnchor && ++catchUpPages < kMaxCatchUpPages;
        if (next)
            catchUpAnchor = last;
    }
    PUSHCHAT_TRACE(lcEngine, "recordHistory") << messages.size() << " messages" << (next ? ", more to come" : "");
    if (next)
        startSyncMessage(last);
}
