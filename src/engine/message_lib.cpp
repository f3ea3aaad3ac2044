// The façade: every operation forwards to the engine, or for contacts to
// the engine's contact manager.

#include "message_lib.h"

#include "contactmanager.h"
#include "messageprivate.h"
#include "messagestore.h"

Message_lib::Message_lib(ImEventReciever *im, ImMUCEventReciever *muc, std::string deviceId, std::string deviceName)
    : d(new MessagePrivate(im, muc, std::move(deviceId), std::move(deviceName)))
{ }

Message_lib::~Message_lib()
{
    delete d;
}

void Message_lib::setServerJid(QString jid)
{
    d->setServerJid(jid);
}

void Message_lib::setHistoryBaseAddress(QString base)
{
    d->setHistoryBaseAddress(base);
}

void Message_lib::setPushClientOptions(const PushClientOptions &options)
{
    d->setPushClientOptions(options);
}

PushConnectionError Message_lib::lastConnectionError() const
{
    return d->lastConnectionError();
}

QString Message_lib::lastConnectionErrorText() const
{
    return d->lastConnectionErrorText();
}

void Message_lib::setMaxQos(int qos)
{
    d->setMaxQos(qos);
}

DroppedInputs Message_lib::droppedInputs() const
{
    return d->droppedInputs();
}

int Message_lib::registerToImServer(
    QString host, int port, QString userId, QString extra1, int securityLevel, QString domain, QString extra2)
{
    return d->registerToServer(host, port, userId, extra1, securityLevel, domain, extra2);
}

int Message_lib::unRegisterToImServer()
{
    return d->disconnectToIMServer();
}

int Message_lib::sendTextMessageTo(QString ignored, QString to, int secLevel, QString text, MESSAGE_BODY_TYPE bodyType,
    bool toRoom, QString messageKey, QString stamp)
{
    return d->sendTextMessageTo(ignored, to, secLevel, text, bodyType, toRoom, messageKey, stamp);
}

int Message_lib::sendLocation(QString target, QString first, QString second)
{
    return d->sendLocation(target, first, second);
}

int Message_lib::modifyMessageStatus(QString uuid, MSG_STATUS status)
{
    return d->modifyMessageStatus(uuid, status);
}

int Message_lib::createMucRoom(QString roomId, QString roomName, QString memberList, ROOM_TYPE type)
{
    return d->createMucRoom(roomId, roomName, memberList, type);
}

int Message_lib::modifyRoomType(QString roomId, ROOM_TYPE type)
{
    return d->modifyRoomType(roomId, type);
}

int Message_lib::destoryRoom(QString roomId)
{
    return d->destoryRoom(roomId);
}

int Message_lib::inviteToRoom(QString roomId, QString memberList)
{
    return d->inviteToRoom(roomId, memberList);
}

int Message_lib::kickFromRoom(QString roomId, QString memberList)
{
    return d->kickFromRoom(roomId, memberList);
}

int Message_lib::setRoomHumanName(QString roomId, QString humanName)
{
    return d->setRoomHumanName(roomId, humanName);
}

int Message_lib::setRoomCreater(QString roomId, QString memberId)
{
    return d->setRoomCreater(roomId, memberId);
}

void Message_lib::fetchConversations(MediaInfo::MessageType type, int page, int pageSize)
{
    d->fetchConversations(type, page, pageSize);
}

void Message_lib::getMsgByConvid(QString convId, int page, int pageSize)
{
    d->getMsgByConvid(convId, page, pageSize);
}

void Message_lib::startPullMessage(int pullType, int start, int count, QString msgUuid)
{
    d->startPullMessage(pullType, start, count, msgUuid);
}

void Message_lib::startSyncMessage(QString msgUuid)
{
    d->startSyncMessage(msgUuid);
}

void Message_lib::startSyncMessageRun(QString msgUuid)
{
    d->startSyncMessageRun(msgUuid);
}

void Message_lib::startPullMessageRun(int type, int count, QString msgUuid)
{
    d->startPullMessageRun(type, count, msgUuid);
}

void Message_lib::setHistoryDeadline(int milliseconds)
{
    d->setHistoryDeadline(milliseconds);
}

QString Message_lib::lastHistoryError() const
{
    return d->lastHistoryError();
}

int Message_lib::remoteDesktopControl(QString ignored, QString jid, QString text)
{
    return d->remoteDesktopControl(ignored, jid, text) ? 1 : 0;
}

int Message_lib::remoteDesktopBeControl(QString ignored, QString jid, QString text)
{
    return d->remoteDesktopBeControl(ignored, jid, text) ? 1 : 0;
}

int Message_lib::remoteDesktopControlReply(QString ignored, QString jid, QString text)
{
    return d->remoteDesktopControlReply(ignored, jid, text) ? 1 : 0;
}

int Message_lib::remoteDesktopBeControlReply(QString ignored, QString jid, QString text)
{
    return d->remoteDesktopBeControlReply(ignored, jid, text) ? 1 : 0;
}

int Message_lib::addFriend(QString ignored, QString jid, QString text)
{
    return d->addFriend(ignored, jid, text) ? 1 : 0;
}

int Message_lib::acceptFriend(QString ignored, QString jid, QString text)
{
    return d->acceptFriend(ignored, jid, text) ? 1 : 0;
}

int Message_lib::delFriend(QString ignored, QString jid)
{
    return d->delFriend(ignored, jid, QStringLiteral("nothing")) ? 1 : 0;
}

int Message_lib::setFriendPropoties(QString ignored, QString jid, QString text)
{
    return d->setFriendPropoties(ignored, jid, text) ? 1 : 0;
}

int Message_lib::listFriends(int type, int count, QString lastFriendId)
{
    return d->listFriends(type, count, lastFriendId) ? 1 : 0;
}

int Message_lib::acceptSubScribe(QString jid, bool accept)
{
    return d->getContactManager()->acceptSubScribe(jid, accept) ? 1 : 0;
}

int Message_lib::subScribe(QString jid, QString extra)
{
    return d->getContactManager()->subScribe(jid, extra) ? 1 : 0;
}

int Message_lib::unSubScribe(QString jid, QString extra)
{
    return d->getContactManager()->unSubScribe(jid, extra) ? 1 : 0;
}

void Message_lib::uploadVCardInfo(QString vcard)
{
    d->getContactManager()->uploadVCardInfo(vcard);
}

void Message_lib::setContactEventReciever(ImContactEventReciever *receiver)
{
    d->getContactManager()->setContactEventReciever(receiver);
}

int Message_lib::openMessageStore(QString path, bool syncEachCommit)
{
    return d->openMessageStore(path, syncEachCommit) ? 1 : 0;
}

QString Message_lib::lastStoreError() const
{
    return d->lastStoreError();
}

QList<StoredConversation> Message_lib::storedConversations() const
{
    return d->messageStore() != nullptr ? d->messageStore()->conversations() : QList<StoredConversation>();
}

QList<StoredMessage> Message_lib::storedMessages(QString peer, QString beforeKey, int limit) const
{
    if (d->messageStore() == nullptr)
        return {};
    return d->messageStore()->messages(d->conversationJid(peer), beforeKey, limit);
}

QList<StoredMessage> Message_lib::searchStoredMessages(QString text, QString peer, int limit) const
{
    if (d->messageStore() == nullptr)
        return {};
    return d->messageStore()->search(text, peer.isEmpty() ? peer : d->conversationJid(peer), limit);
}

int Message_lib::markConversationRead(QString peer, bool tellPeer)
{
    return d->markConversationRead(peer, tellPeer);
}

void Message_lib::setStoreRetention(qint64 maxAgeSeconds, int maxPerConversation)
{
    if (d->messageStore() != nullptr)
        d->messageStore()->setRetention(maxAgeSeconds * 1000, maxPerConversation);
}

qint64 Message_lib::storeFileBytes() const
{
    return d->messageStore() != nullptr ? d->messageStore()->fileBytes() : 0;
}

int Message_lib::storedPendingCount() const
{
    return d->messageStore() != nullptr ? d->messageStore()->pendingCount() : 0;
}
