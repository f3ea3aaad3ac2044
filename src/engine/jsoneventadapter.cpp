// The callbacks as JSON events; see jsoneventadapter.h. The sink is a
// function, not a virtual method of this class, so that the class's virtual
// table is the two interfaces' alone: a callback appended to them later moves
// nothing that an application's subclass was compiled against.

#include "jsoneventadapter.h"

#include <utility>

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

QJsonObject peers(const char *from, const char *to, const char *body)
{
    return { { QStringLiteral("from"), utf8(from) }, { QStringLiteral("to"), utf8(to) },
        { QStringLiteral("body"), utf8(body) } };
}

} // namespace

JsonEventAdapter::JsonEventAdapter(Sink sink) : m_sink(std::move(sink))
{ }

JsonEventAdapter::~JsonEventAdapter() = default;

void JsonEventAdapter::report(const char *event, QJsonObject arguments) const
{
    if (!m_sink)
        return;
    arguments.insert(QStringLiteral("event"), QLatin1String(event));
    m_sink(std::move(arguments));
}

void JsonEventAdapter::onConnected()
{
    report("onConnected");
}

void JsonEventAdapter::onDisconnected()
{
    report("onDisconnected");
}

void JsonEventAdapter::onMessageReceive(
    QString from, QString to, QString body, int bodyType, int msgType, QString messageKey, QString stamp, bool readable)
{
    report("onMessageReceive", { { QStringLiteral("from"), from }, { QStringLiteral("to"), to },
                                   { QStringLiteral("body"), body }, { QStringLiteral("bodyType"), bodyType },
                                   { QStringLiteral("msgType"), msgType }, { QStringLiteral("messageKey"), messageKey },
                                   { QStringLiteral("stamp"), stamp }, { QStringLiteral("readable"), readable } });
}

void JsonEventAdapter::onHistoryMessages(const char *json)
{
    report("onHistoryMessages", jsonText(json));
}

void JsonEventAdapter::onConversations(const char *json)
{
    report("onConversations", jsonText(json));
}

void JsonEventAdapter::onConversationDetail(const char *json)
{
    report("onConversationDetail", jsonText(json));
}

void JsonEventAdapter::onPresence(QString from, QString body)
{
    report("onPresence", { { QStringLiteral("from"), from }, { QStringLiteral("body"), body } });
}

void JsonEventAdapter::onMessageStatusModified(QString modifier, QString uuid, int status)
{
    report("onMessageStatusModified", { { QStringLiteral("modifier"), modifier }, { QStringLiteral("uuid"), uuid },
                                          { QStringLiteral("status"), status } });
}

void JsonEventAdapter::onFriendAdded(QString from, QString to, QString body)
{
    report("onFriendAdded",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("body"), body } });
}

void JsonEventAdapter::onFriendAccepted(QString from, QString to, int flag)
{
    report("onFriendAccepted",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("flag"), flag } });
}

void JsonEventAdapter::onFriendDeleted(QString from, QString to, int flag)
{
    report("onFriendDeleted",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("flag"), flag } });
}

void JsonEventAdapter::onFriendList(const char *json)
{
    report("onFriendList", jsonText(json));
}

void JsonEventAdapter::onRemoteDesktopControlRequest(const char *from, const char *to, const char *body)
{
    report("onRemoteDesktopControlRequest", peers(from, to, body));
}

void JsonEventAdapter::onRemoteDesktopControlResponse(const char *from, const char *to, const char *body)
{
    report("onRemoteDesktopControlResponse", peers(from, to, body));
}

void JsonEventAdapter::onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body)
{
    report("onRemoteDesktopBeControlRequest", peers(from, to, body));
}

void JsonEventAdapter::onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body)
{
    report("onRemoteDesktopBeControlResponse", peers(from, to, body));
}

QJsonObject JsonEventAdapter::storedMessage(const StoredMessage &message)
{
    return { { QStringLiteral("id"), message.id }, { QStringLiteral("conversation"), message.conversation },
        { QStringLiteral("key"), message.key }, { QStringLiteral("sender"), message.sender },
        { QStringLiteral("time"), message.time }, { QStringLiteral("stamp"), message.stamp },
        { QStringLiteral("body"), message.body }, { QStringLiteral("bodyType"), message.bodyType },
        { QStringLiteral("msgType"), message.messageType }, { QStringLiteral("level"), message.securityLevel },
        { QStringLiteral("outgoing"), message.outgoing },
        { QStringLiteral("state"), static_cast<int>(message.state) } };
}

void JsonEventAdapter::onStoredMessageChanged(const StoredMessage &message)
{
    report("onStoredMessageChanged", { { QStringLiteral("message"), storedMessage(message) } });
}

void JsonEventAdapter::onStoreError(QString text)
{
    report("onStoreError", { { QStringLiteral("text"), text } });
}

void JsonEventAdapter::onRoomListRefreshed(QString json)
{
    report("onRoomListRefreshed", { { QStringLiteral("json"), json } });
}

void JsonEventAdapter::onRoomChanged(Room &room, GroupSubCmd cmd)
{
    report("onRoomChanged",
        { { QStringLiteral("room"), room.toJson() }, { QStringLiteral("cmd"), static_cast<int>(cmd) } });
}
