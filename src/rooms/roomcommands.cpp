// Room commands: the seven requests the user sends the server about group
// rooms. Each builds its body, publishes it once as a system request and
// keeps nothing; the server's answer arrives as a room event.

#include "messageprivate.h"

#include "compactjson.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <memory>
#include <utility>

namespace {

// Stores a member under its JID; a JID stored again replaces the earlier one.
void putMember(Room &room, const QString &jid, const QString &name)
{
    auto member = std::make_unique<Member>();
    member->jid = jid.toStdString();
    member->name = name.toStdString();
    pushchat_room_detail::storeOwned(room.members, jid, std::move(member));
}

QStringList memberParts(const QString &memberList)
{
    return memberList.split(QLatin1Char(','), Qt::KeepEmptyParts, Qt::CaseSensitive);
}

} // namespace

QString MessagePrivate::jidWithDomain(const QString &id) const
{
    return QStringLiteral("%1@%2").arg(id, domain);
}

QString MessagePrivate::memberJidOf(const QString &roomId, const QString &memberId) const
{
    // The test is on the room id: with a full room id the member ids are
    // taken to be full JIDs as well.
    return roomId.contains(QLatin1Char('@')) ? memberId : QStringLiteral("%1@%2").arg(memberId, domain);
}

// A room whose JID fails the JID check is never asked for: its topic could
// never be subscribed.
bool MessagePrivate::sendRoomCommand(int command, Room &room)
{
    if (refusedAddressee(QString::fromStdString(room.jid), "room command"))
        return false;
    return sendSystemRequest(GroupCMD, command, QString::fromStdString(room.toString()));
}

int MessagePrivate::createMucRoom(
    const QString &roomId, const QString &roomName, const QString &memberList, ROOM_TYPE type)
{
    Room room;
    room.jid = jidWithDomain(roomId).toStdString();
    room.name = roomName.toStdString();
    room.type = type;
    QStringList parts = memberParts(memberList);
    const QString self = QString::fromStdString(userId);
    if (!parts.contains(self, Qt::CaseSensitive))
        parts.append(self); // the creator is always a member
    for (const QString &part : parts)
        putMember(room, memberJidOf(roomId, part), part);
    return sendRoomCommand(GroupSub_Create, room) ? 1 : 0;
}

int MessagePrivate::inviteToRoom(const QString &roomId, const QString &memberList)
{
    Room room;
    room.jid = jidWithDomain(roomId).toStdString();
    room.name = roomId.toStdString();
    for (const QString &part : memberParts(memberList))
        putMember(room, memberJidOf(roomId, part), part);
    sendRoomCommand(GroupSub_Invite, room);
    return 1;
}

int MessagePrivate::kickFromRoom(const QString &roomId, const QString &memberList)
{
    Room room;
    room.jid = jidWithDomain(roomId).toStdString();
    room.name = roomId.toStdString();
    // Who kicked whom, as the server hands it on to every member.
    const QJsonObject kick{ { QStringLiteral("operatorBy"), QString::fromStdString(userId) },
        { QStringLiteral("memberID"), memberList } };
    room.operatorBy = CompactJson::text(kick).toStdString();
    for (const QString &part : memberParts(memberList))
        putMember(room, memberJidOf(roomId, part), part);
    return sendRoomCommand(GroupSub_Kick, room) ? 1 : 0;
}

int MessagePrivate::destoryRoom(const QString &roomId)
{
    Room room;
    room.jid = jidWithDomain(roomId).toStdString();
    room.name = roomId.toStdString();
    return sendRoomCommand(GroupSub_Release, room) ? 1 : 0;
}

int MessagePrivate::setRoomHumanName(const QString &roomId, const QString &humanName)
{
    Room room;
    room.jid = jidWithDomain(roomId).toStdString();
    room.name = humanName.toStdString();
    sendRoomCommand(GroupSub_SetGroupName, room);
    return 0;
}

int MessagePrivate::setRoomCreater(const QString &roomId, const QString &memberId)
{
    if (refusedAddressee(jidWithDomain(roomId), "room command"))
        return 0;
    const QJsonObject body{ { QStringLiteral("room_id"), jidWithDomain(roomId) },
        { QStringLiteral("member_id"), jidWithDomain(memberId) } };
    return sendSystemRequest(GroupCMD, GroupSub_SetRoomCreater, CompactJson::text(body)) ? 1 : 0;
}

int MessagePrivate::modifyRoomType(QString roomId, ROOM_TYPE type)
{
    if (refusedAddressee(completeJid(roomId), "room command"))
        return 0;
    // Written as text, not by the JSON writer: the type stands as a JSON
    // string and the room JID is not escaped.
    const QString body =
        QStringLiteral("{\"room_type\":\"%1\",\"room_id\":\"%2\"}").arg(int(type), 0, 10).arg(completeJid(roomId));
    return sendSystemRequest(GroupCMD, GroupSub_Modify_Type, body) ? 1 : 0;
}
