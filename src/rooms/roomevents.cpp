// Room events: the handlers of the server's group-information messages and
// the notifications they hand to the room notification threads.
//
// A handler runs on the delivery thread: it changes the room subscriptions
// and makes the synthetic room message (onMessageReceive) there, and posts
// the room-changed or room-list notification, which parses its own copy of
// the body on a notification thread and calls the application.

#include "messageprivate.h"

#include "compactjson.h"
#include "jsonkeycheck.h"
#include "pushchatlog.h"
#include "roomnotifier.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <algorithm>
#include <optional>
#include <string_view>
#include <thread>

namespace {

// Notification threads: one per core, at least two (a slow callback does
// not hold up the rest), at most four (more only adds switching: parsing a
// room takes microseconds). Beyond kQueuedNotifications waiting events the
// delivery thread waits too.
constexpr std::size_t kMinNotificationThreads = 2;
constexpr std::size_t kMaxNotificationThreads = 4;
constexpr std::size_t kQueuedNotifications = 4096;

constexpr const char *kStampFormat = "yyyy-MM-dd hh:mm:ss";

// The JSON object in `json`, if it is one. Texts whose objects repeat a key
// are refused like the envelope is (see jsonkeycheck.h): the parser would
// leak what it drops.
std::optional<QJsonObject> jsonObject(const QByteArray &json)
{
    const QJsonDocument doc = JsonKeyCheck::parse(json);
    if (!doc.isObject())
        return std::nullopt;
    return doc.object();
}

// The body of an event, up to its first NUL.
QByteArray bodyOf(const MQTTMessage *msg)
{
    return QByteArray(msg->body.c_str());
}

// Fills `room` from the event's body; false when the body is no JSON object.
bool readRoom(const MQTTMessage *msg, Room &room)
{
    const std::optional<QJsonObject> object = jsonObject(bodyOf(msg));
    if (object)
        room.fromJson(*object);
    return object.has_value();
}

} // namespace

std::unique_ptr<RoomNotifier> MessagePrivate::newRoomNotifier()
{
    const std::size_t threads =
        std::clamp<std::size_t>(std::thread::hardware_concurrency(), kMinNotificationThreads, kMaxNotificationThreads);
    return std::make_unique<RoomNotifier>(threads, kQueuedNotifications);
}

std::size_t MessagePrivate::roomNotificationThreads() const
{
    return roomNotifier->threadCount();
}

std::size_t MessagePrivate::roomNotificationPeakThreads() const
{
    return roomNotifier->peakThreadCount();
}

// --- notifications ------------------------------------------------------

void MessagePrivate::refresh_room(MQTTMessage *message, GroupSubCmd cmd)
{
    const QByteArray body = bodyOf(message);
    roomNotifier->post([this, body, cmd] { refresh_roomRun(body, cmd); });
}

void MessagePrivate::refresh_roomRun(QByteArray body, GroupSubCmd cmd)
{
    const std::optional<QJsonObject> object = jsonObject(body);
    if (!object)
        return;
    Room room;
    room.fromJson(*object);
    if (mucReciever != nullptr)
        mucReciever->onRoomChanged(room, cmd);
}

void MessagePrivate::SysGroupRefreshedRun(QString json)
{
    if (mucReciever != nullptr)
        mucReciever->onRoomListRefreshed(json);
}

void MessagePrivate::deliverRoomMessage(const std::string &roomJid, MESSAGE_BODY_TYPE bodyType)
{
    if (imReciever == nullptr)
        return;
    const QString room = QString::fromStdString(roomJid);
    const QString key = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QString stamp = QDateTime::currentDateTime().toString(QLatin1String(kStampFormat));
    imReciever->onMessageReceive(room, room, QString(), bodyType, MediaInfo::MESSAGE_TYPE_GROUPCHAT, key, stamp, true);
}

// --- handlers -------------------------------------------------------------

// Each handler drops an event whose body names a room JID that fails the
// JID check (counted and logged by refusedRoomJid): such a room is neither
// subscribed nor shown. An event whose body cannot be read is handled as
// before (no subscription; the room callbacks see an empty room).

void MessagePrivate::SysGroupCreated(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "SysGroupCreated")
        << "SysGroupCreated " << msg->topicText.c_str() << " " << msg->body.c_str();
    Room room;
    const bool readable = readRoom(msg, room);
    if (readable && refusedRoomJid(room.jid))
        return;
    refresh_room(msg, GroupSub_Create);
    if (readable)
        subscribe_message_group({ room.jid });
    deliverRoomMessage(room.jid, BODY_TYPE_DEFAULT); // from and to empty for an unreadable body
}

void MessagePrivate::SysGroupReleased(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "SysGroupReleased") << "SysGroupReleased " << msg->topicText.c_str();
    Room room;
    const bool readable = readRoom(msg, room);
    if (readable && refusedRoomJid(room.jid))
        return;
    refresh_room(msg, GroupSub_Release);
    // Subscribed exactly as a creation is: the server decides what a
    // released room still carries.
    if (readable)
        subscribe_message_group({ room.jid });
    deliverRoomMessage(room.jid, BODY_TYPE_DEFAULT);
}

void MessagePrivate::SysGroupInvited(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "SysGroupInvited") << "SysGroupInvited " << msg->topicText.c_str();
    Room room;
    const bool readable = readRoom(msg, room);
    if (readable && refusedRoomJid(room.jid))
        return;
    refresh_room(msg, GroupSub_Invite);
    if (readable)
        subscribe_message_group({ room.jid });
}

void MessagePrivate::SysGroupKicked(MQTTMessage *msg)
{
    Room room;
    if (readRoom(msg, room) && refusedRoomJid(room.jid))
        return;
    refresh_room(msg, GroupSub_Kick);
    PUSHCHAT_TRACE(lcEngine, "SysGroupKicked") << "SysGroupKicked " << msg->topicText.c_str() << " "
                                               << room.operatorBy.c_str() << " account_id " << userId.c_str();

    // operatorBy holds {"memberID": the kicked ids as the kicking client
    // listed them, "operatorBy": the kicker's id}.
    const QJsonObject kick = jsonObject(QByteArray(room.operatorBy.c_str())).value_or(QJsonObject());
    const QByteArray kicker = kick.value(QLatin1String("operatorBy")).toString().toUtf8();
    const QByteArray kicked = kick.value(QLatin1String("memberID")).toString().toUtf8();
    const QByteArray self = QByteArray::fromStdString(userId);
    // A plain byte search, as the protocol defines it: an id that is part
    // of a kicked id counts as kicked too.
    const bool selfKicked = kicked.contains(self);

    if (selfKicked)
        unsubscribe_message_group({ room.jid });
    if (selfKicked && kicker != self)
        deliverRoomMessage(room.jid, BODY_TYPE_KICKED); // kicked by someone else
}

bool MessagePrivate::refusedRoomEvent(MQTTMessage *msg)
{
    Room room;
    return readRoom(msg, room) && refusedRoomJid(room.jid);
}

void MessagePrivate::SysGroupNameChanged(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "SysGroupNameChanged") << "SysGroupNameChanged " << msg->topicText.c_str();
    if (!refusedRoomEvent(msg))
        refresh_room(msg, GroupSub_SetGroupName);
}

void MessagePrivate::SysGroupSetCreater(MQTTMessage *msg)
{
    qCDebug(lcEngine).noquote() << "SysGroupSetCreater" << msg->topicText.c_str();
    // Applications are handed the refresh value (19) for a creator change,
    // not the creator-change code (18), and rely on it.
    if (!refusedRoomEvent(msg))
        refresh_room(msg, GroupSub_Refresh);
}

void MessagePrivate::SysGroupModifyType(MQTTMessage *msg)
{
    if (!refusedRoomEvent(msg))
        refresh_room(msg, GroupSub_Modify_Type);
}

void MessagePrivate::SysGroupExited(MQTTMessage *msg)
{
    qCDebug(lcEngine).noquote() << "SysGroupExited" << msg->topicText.c_str();
}

void MessagePrivate::SysGroupQueryed(MQTTMessage *msg)
{
    qCDebug(lcEngine).noquote() << "SysGroupQueryed" << msg->topicText.c_str();
}

void MessagePrivate::SysGroupJoined(MQTTMessage *msg)
{
    qCDebug(lcEngine).noquote() << "SysGroupJoined" << msg->topicText.c_str();
}

void MessagePrivate::SysGroupRefreshed(MQTTMessage *msg)
{
    qCDebug(lcEngine).noquote() << "SysGroupRefresh" << msg->topicText.c_str();
    const std::optional<QJsonObject> object = jsonObject(bodyOf(msg));
    if (!object) {
        const QString json = QString::fromUtf8(bodyOf(msg));
        roomNotifier->post([this, json] { SysGroupRefreshedRun(json); });
        return;
    }
    // The application sees the list without the rooms that fail the JID
    // check; the text is rewritten only when there is one.
    QJsonObject shown = *object;
    QJsonArray kept;
    bool dropped = false;
    for (const QJsonValue &entry : object->value(QLatin1String("rooms")).toArray()) {
        QJsonObject rooms = entry.toObject();
        for (const QString &jid : rooms.keys()) {
            if (refusedRoomJid(jid.toStdString())) {
                rooms.remove(jid);
                dropped = true;
            }
        }
        if (!entry.isObject() || !rooms.isEmpty())
            kept.append(entry.isObject() ? QJsonValue(rooms) : entry);
    }
    if (dropped)
        shown.insert(QLatin1String("rooms"), kept);
    const QString json = dropped ? CompactJson::text(shown) : QString::fromUtf8(bodyOf(msg));
    roomNotifier->post([this, json] { SysGroupRefreshedRun(json); });

    RoomList list;
    list.fromJson(shown);
    QList<std::string> jids;
    for (const auto &entry : list.rooms)
        jids.append(entry.first);
    subscribe_message_group(jids); // also when empty
}
