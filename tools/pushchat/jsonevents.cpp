#include "jsonevents.h"

#include "awaitedevent.h"
#include "eventflag.h"
#include "imagebody.h"
#include "jsonlinewriter.h"

namespace {

// A library text argument: NUL-terminated UTF-8, possibly null.
QString utf8(const char *text)
{
    return text ? QString::fromUtf8(text) : QString();
}

} // namespace

JsonEvents::JsonEvents(JsonLineWriter *writer, EventFlag *connected, AwaitedEvent *awaited, bool saveImages)
    : m_writer(writer), m_connected(connected), m_awaited(awaited), m_saveImages(saveImages)
{ }

void JsonEvents::report(const char *event, QJsonObject arguments)
{
    arguments.insert(QStringLiteral("event"), QLatin1String(event));
    if (m_awaited)
        m_awaited->offer(arguments);
    if (m_writer)
        m_writer->write(arguments);
}

void JsonEvents::onConnected()
{
    report("onConnected");
    if (m_connected)
        m_connected->raise();
}

void JsonEvents::onDisconnected()
{
    report("onDisconnected");
    if (m_connected)
        m_connected->raise();
}

void JsonEvents::onMessageReceive(
    QString from, QString to, QString body, int bodyType, int msgType, QString messageKey, QString stamp, bool readable)
{
    QJsonObject arguments{ { QStringLiteral("from"), from }, { QStringLiteral("to"), to },
        { QStringLiteral("body"), body }, { QStringLiteral("bodyType"), bodyType },
        { QStringLiteral("msgType"), msgType }, { QStringLiteral("messageKey"), messageKey },
        { QStringLiteral("stamp"), stamp }, { QStringLiteral("readable"), readable } };
    if (m_saveImages && readable) {
        if (const std::optional<QString> saved = ImageBody::saveIfEncoded(body))
            arguments.insert(QStringLiteral("saved"), *saved);
    }
    report("onMessageReceive", arguments);
}

void JsonEvents::onHistoryMessages(const char *json)
{
    report("onHistoryMessages", { { QStringLiteral("json"), utf8(json) } });
}

void JsonEvents::onConversations(const char *json)
{
    report("onConversations", { { QStringLiteral("json"), utf8(json) } });
}

void JsonEvents::onConversationDetail(const char *json)
{
    report("onConversationDetail", { { QStringLiteral("json"), utf8(json) } });
}

void JsonEvents::onPresence(QString from, QString body)
{
    report("onPresence", { { QStringLiteral("from"), from }, { QStringLiteral("body"), body } });
}

void JsonEvents::onMessageStatusModified(QString modifier, QString uuid, int status)
{
    report("onMessageStatusModified", { { QStringLiteral("modifier"), modifier }, { QStringLiteral("uuid"), uuid },
                                          { QStringLiteral("status"), status } });
}

void JsonEvents::onFriendAdded(QString from, QString to, QString body)
{
    report("onFriendAdded",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("body"), body } });
}

void JsonEvents::onFriendAccepted(QString from, QString to, int flag)
{
    report("onFriendAccepted",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("flag"), flag } });
}

void JsonEvents::onFriendDeleted(QString from, QString to, int flag)
{
    report("onFriendDeleted",
        { { QStringLiteral("from"), from }, { QStringLiteral("to"), to }, { QStringLiteral("flag"), flag } });
}

void JsonEvents::onFriendList(const char *json)
{
    report("onFriendList", { { QStringLiteral("json"), utf8(json) } });
}

void JsonEvents::reportRemoteDesktop(const char *event, const char *from, const char *to, const char *body)
{
    report(event, { { QStringLiteral("from"), utf8(from) }, { QStringLiteral("to"), utf8(to) },
                      { QStringLiteral("body"), utf8(body) } });
}

void JsonEvents::onRemoteDesktopControlRequest(const char *from, const char *to, const char *body)
{
    reportRemoteDesktop("onRemoteDesktopControlRequest", from, to, body);
}

void JsonEvents::onRemoteDesktopControlResponse(const char *from, const char *to, const char *body)
{
    reportRemoteDesktop("onRemoteDesktopControlResponse", from, to, body);
}

void JsonEvents::onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body)
{
    reportRemoteDesktop("onRemoteDesktopBeControlRequest", from, to, body);
}

void JsonEvents::onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body)
{
    reportRemoteDesktop("onRemoteDesktopBeControlResponse", from, to, body);
}

void JsonEvents::onRoomListRefreshed(QString json)
{
    report("onRoomListRefreshed", { { QStringLiteral("json"), json } });
}

void JsonEvents::onRoomChanged(Room &room, GroupSubCmd cmd)
{
    report("onRoomChanged",
        { { QStringLiteral("room"), room.toJson() }, { QStringLiteral("cmd"), static_cast<int>(cmd) } });
}
