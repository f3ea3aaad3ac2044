// The C client's callbacks as JSON events; see capievents.h.

#include "capievents.h"

#include <QJsonDocument>

namespace {

// A library text argument: NUL-terminated UTF-8, possibly null.
QString utf8(const char *text)
{
    return text ? QString::fromUtf8(text) : QString();
}

QJsonObject jsonText(const char *json)
{
    return { { QStringLiteral("json"), utf8(json) } };
}

} // namespace

void CapiEvents::report(const char *event, QJsonObject arguments, CapiEventQueue::Room room)
{
    arguments.insert(QStringLiteral("event"), QLatin1String(event));
    m_queue.push(QJsonDocument(arguments).toJson(QJsonDocument::Compact).toStdString(), room);
}

void CapiEvents::onConnected()
{
    report("onConnected", {});
}

void CapiEvents::onDisconnected()
{
    QJsonObject arguments;
    if (m_library != nullptr) {
        arguments.insert(QStringLiteral("error"), static_cast<int>(m_library->lastConnectionError()));
        arguments.insert(QStringLiteral("errorText"), m_library->lastConnectionErrorText());
    }
    report("onDisconnected", arguments);
}

void CapiEvents::onMessageReceive(
    QString from, QString to, QString body, int bodyType, int msgType, QString messageKey, QString stamp, bool readable)
{
    report("onMessageReceive", { { QStringLiteral("from"), from }, { QStringLiteral("to"), to },
                                   { QStringLiteral("body"), body }, { QStringLiteral("bodyType"), bodyType },
                                   { QStringLiteral("msgType"), msgType }, { QStringLiteral("messageKey"), messageKey },
                                   { QStringLiteral("stamp"), stamp }, { QStringLiteral("readable"), readable } });
}

void CapiEvents::onHistoryMessages(const char *json)
{
    report("onHistoryMessages", jsonText(json));
}

void CapiEvents::onConversations(const char *json)
{
    report("onConversations", jsonText(json));
}

void CapiEvents::onConversationDetail(const char *json)
{
    report("onConversationDetail", jsonText(json));
}

void CapiEvents::onPresence(QString from, QString body)
{
    report("onPresence", { { QStringLiteral("from"), from }, { QStringLiteral("body"), body } });
}

void CapiEvents::onMessageStatusModified(QString modifier, QString uuid, int status)
{
    report("onMessageStatusModified", { { QStringLiteral("modifier"), modifier }, { QStringLiteral("uuid"), uuid },
                                          { QStringLiteral("status"), status } });
}

void CapiEvents::onFriendAdded(QString from, QString to, QString body)
{
    report("onFriendAdded",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("body"), body } });
}

void CapiEvents::onFriendAccepted(QString from, QString to, int flag)
{
    report("onFriendAccepted",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("flag"), flag } });
}

void CapiEvents::onFriendDeleted(QString from, QString to, int flag)
{
    report("onFriendDeleted",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("flag"), flag } });
}

void CapiEvents::onFriendList(const char *json)
{
    report("onFriendList", jsonText(json));
}

void CapiEvents::reportPeers(const char *event, const char *from, const char *to, const char *body)
{
    report(event, { { QStringLiteral("from"), utf8(from) }, { QStringLiteral("to"), utf8(to) },
                      { QStringLiteral("body"), utf8(body) } });
}

void CapiEvents::onRemoteDesktopControlRequest(const char *from, const char *to, const char *body)
{
    reportPeers("onRemoteDesktopControlRequest", from, to, body);
}

void CapiEvents::onRemoteDesktopControlResponse(const char *from, const char *to, const char *body)
{
    reportPeers("onRemoteDesktopControlResponse", from, to, body);
}

void CapiEvents::onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body)
{
    reportPeers("onRemoteDesktopBeControlRequest", from, to, body);
}

void CapiEvents::onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body)
{
    reportPeers("onRemoteDesktopBeControlResponse", from, to, body);
}

QJsonObject CapiEvents::storedMessage(const StoredMessage &message)
{
    return { { QStringLiteral("id"), message.id }, { QStringLiteral("conversation"), message.conversation },
        { QStringLiteral("key"), message.key }, { QStringLiteral("sender"), message.sender },
        { QStringLiteral("time"), message.time }, { QStringLiteral("stamp"), message.stamp },
        { QStringLiteral("body"), message.body }, { QStringLiteral("bodyType"), message.bodyType },
        { QStringLiteral("msgType"), message.messageType }, { QStringLiteral("level"), message.securityLevel },
        { QStringLiteral("outgoing"), message.outgoing },
        { QStringLiteral("state"), static_cast<int>(message.state) } };
}

void CapiEvents::onStoredMessageChanged(const StoredMessage &message)
{
    report("onStoredMessageChanged", { { QStringLiteral("message"), storedMessage(message) } });
}

void CapiEvents::onStoreError(QString text)
{
    report("onStoreError", { { QStringLiteral("text"), text } });
}

void CapiEvents::onRoomListRefreshed(QString json)
{
    report("onRoomListRefreshed", { { QStringLiteral("json"), json } });
}

void CapiEvents::onRoomChanged(Room &room, GroupSubCmd cmd)
{
    report("onRoomChanged",
        { { QStringLiteral("room"), room.toJson() }, { QStringLiteral("cmd"), static_cast<int>(cmd) } });
}
