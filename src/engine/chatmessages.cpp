// Chat: sending messages, notices, locations and status changes, and the
// handlers of incoming chat messages, presence and status notifications.

#include "messageprivate.h"

#include "compactjson.h"
#include "jsonkeycheck.h"
#include "message_lib.h"
#include "pushchatlog.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

constexpr const char *kLocationPrefix = "LOCATION/";

QString text(const std::string &utf8)
{
    return QString::fromStdString(utf8);
}

} // namespace

int MessagePrivate::sendTextMessageTo(QString ignored, QString to, int secLevel, QString body,
    MESSAGE_BODY_TYPE bodyType, bool toRoom, QString messageKey, QString stamp)
{
    Q_UNUSED(ignored) // the sender is always the logged-in user
    // A UTF-16 unit takes at most 3 bytes of UTF-8: only long bodies are measured.
    if (body.size() > Message_lib::MAX_BODY_BYTES / 3) {
        const qsizetype bytes = body.toUtf8().size();
        if (bytes > Message_lib::MAX_BODY_BYTES) {
            qCWarning(lcEngine) << "message not sent: its body has" << bytes << "bytes, more than the"
                                << Message_lib::MAX_BODY_BYTES << "allowed";
            return 0;
        }
    }
    const QString target = completeJid(to);
    if (refusedAddressee(target, "message"))
        return 0;
    if (store != nullptr)
        return sendStored(target, secLevel, body, bodyType, toRoom, messageKey, stamp);
    const bool notice = bodyType == BODY_TYPE_NOTICE;

    MQTTMessage msg(pushClient, true);
    msg.setSysProtocol(target.toUtf8().constData(), 2, MESSAGE_INFO, MESSAGE_NORMAL);
    if (!msg.fromText(text(jid), target, body,
            toRoom ? MediaInfo::MESSAGE_TYPE_GROUPCHAT : MediaInfo::MESSAGE_TYPE_CHAT,
            notice ? SECURITY_LEVEL_UNRESTRICTED : secLevel, bodyType, messageKey, stamp))
        return 0;
    if (notice) {
        msg.protocol.topic = NOTICE_TOPIC;
        msg.topicText = NOTICE_TOPIC;
        PUSHCHAT_TRACE(lcEngine, "MessagePrivate") << "sendTopic:" << NOTICE_TOPIC;
    }
    return msg.send(2) ? 1 : 0;
}

int MessagePrivate::sendLocation(QString target, QString first, QString second)
{
    if (refusedAddressee(target, "location"))
        return 0;
    const QByteArray topic = QByteArray(kLocationPrefix) + target.toUtf8();
    const QByteArray payload = (first + QLatin1Char(':') + second).toUtf8();
    if (pushClient == nullptr || closing)
        return 0;
    // Raw text, no envelope; the push client reports success with 0.
    return pushClient->publish(topic.constData(), payload.constData(), 0, false) == 0 ? 1 : 0;
}

int MessagePrivate::modifyMessageStatus(QString uuid, MSG_STATUS status)
{
    modifyMessageStatusRun(std::move(uuid), status);
    return 1;
}

void MessagePrivate::modifyMessageStatusRun(QString uuid, MSG_STATUS status)
{
    MQTTMessage msg(pushClient, true);
    const bool built = msg.setSysProtocol(serverJidText().c_str(), 2, MESSAGE_INFO, MESSAGE_MODYFY_STATUS);
    PUSHCHAT_TRACE(lcEngine, "modifyMessageStatus")
        << "uuid:" << uuid << "status:" << int(status) << "ret:" << (built ? "true" : "false")
        << "topic:" << msg.protocol.topic.c_str() << "type" << msg.protocol.code;
    const QJsonObject body{ { QStringLiteral("uuid"), uuid }, { QStringLiteral("status"), int(status) } };
    if (msg.fromText(text(jid), serverJid(), CompactJson::text(body), MediaInfo::MESSAGE_TYPE_SYSTEM,
            SECURITY_LEVEL_UNRESTRICTED, BODY_TYPE_DEFAULT, QString(), QString()))
        msg.send(2);
}

void MessagePrivate::messageReceive(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "messageReceive")
        << "MessagePrivate::messageReceive length:" << msg->body.size() << " secLevel:" << msg->secLevel;
    // 9999 is for everyone; otherwise the message's level must not be below
    // the user's own.
    const bool readable = msg->secLevel == SECURITY_LEVEL_UNRESTRICTED || msg->secLevel >= securityLevel;
    const QString body = readable ? text(msg->body) : QString::fromUtf8(UNREADABLE_TEXT);
    if (!recordDelivered(*msg, body) || imReciever == nullptr)
        return; // already stored: delivered before
    imReciever->onMessageReceive(text(msg->from), text(msg->to), body, msg->bodyType, msg->msgType,
        text(msg->messageKey), text(msg->stamp), readable);
}

void MessagePrivate::messagePresenceIn(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "messagePresenceIn") << "messagePresenceIn" << msg->from.c_str() << msg->body.c_str();
    if (imReciever != nullptr)
        imReciever->onPresence(text(msg->from), text(msg->body));
}

void MessagePrivate::messageModifyStatus(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "messageModifyStatus") << "messageModifyStatus" << msg->body.c_str();
}

void MessagePrivate::messageModifyClientStatus(MQTTMessage *msg)
{
    const QJsonObject obj = JsonKeyCheck::parse(QByteArray::fromStdString(msg->body)).object();
    if (obj.isEmpty())
        return; // not a status notification
    const QString uuid = obj.value(QLatin1String("uuid")).toString();
    const QString modifier = obj.value(QLatin1String("modifier")).toString();
    const int status = obj.value(QLatin1String("status")).toInt();
    PUSHCHAT_TRACE(lcEngine, "messageModifyClientStatus")
        << "messageModifyClientStatus uuid" << uuid << "status" << status;
    storePeerStatus(uuid, status);
    if (imReciever != nullptr)
        imReciever->onMessageStatusModified(modifier, uuid, status);
}
