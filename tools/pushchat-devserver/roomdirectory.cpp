#include "roomdirectory.h"

#include "compactjson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QString text(const std::string &utf8) { return QString::fromStdString(utf8); }

std::string field(const QJsonObject &object, const char *key)
{
    return object.value(QLatin1String(key)).toString().toStdString();
}

std::unique_ptr<Room> roomFrom(const QJsonObject &object)
{
    auto room = std::make_unique<Room>();
    room->fromJson(object);
    return room;
}

} // namespace

RoomDirectory::RoomDirectory(DevStore *store) : m_store(store)
{
    if (!m_store)
        return;
    for (const QByteArray &json : m_store->rooms()) {
        std::unique_ptr<Room> room = roomFrom(QJsonDocument::fromJson(json).object());
        if (!room->jid.empty())
            m_rooms[room->jid] = std::move(room);
    }
}

void RoomDirectory::keep(Room &room)
{
    if (!m_store)
        return;
    QStringList members;
    for (const auto &entry : room.members)
        members << text(entry.first);
    m_store->saveRoom(text(room.jid), QByteArray::fromStdString(room.toString()), members);
}

std::vector<RoomDirectory::Event> RoomDirectory::answer(GroupSubCmd cmd, const std::string &from,
                                                        const QByteArray &body)
{
    const QJsonObject request = QJsonDocument::fromJson(body).object();
    if (cmd == GroupSub_Refresh)
        return roomList(from);
    if (request.isEmpty())
        return {};
    switch (cmd) {
    case GroupSub_Create:
        return create(from, request);
    case GroupSub_Invite:
        return invite(request);
    case GroupSub_Kick:
        return kick(request);
    case GroupSub_SetGroupName:
        return change(field(request, "jid"), cmd, [&](Room &room) { room.name = field(request, "name"); });
    case GroupSub_SetRoomCreater:
        return change(field(request, "room_id"), cmd,
                      [&](Room &room) { room.creater = field(request, "member_id"); });
    case GroupSub_Modify_Type:
        return change(field(request, "room_id"), cmd, [&](Room &room) {
            room.type = static_cast<ROOM_TYPE>(request.value(QLatin1String("room_type")).toString().toInt());
        });
    case GroupSub_Release:
        if (Room *room = find(field(request, "jid"))) {
            std::vector<Event> events = toMembers(*room, cmd);
            if (m_store)
                m_store->dropRoom(text(room->jid));
            m_rooms.erase(room->jid);
            return events;
        }
        return {};
    default:
        return {};
    }
}

std::vector<RoomDirectory::Event> RoomDirectory::change(const std::string &roomJid, GroupSubCmd cmd,
                                                        const std::function<void(Room &)> &apply)
{
    Room *room = find(roomJid);
    if (!room)
        return {};
    apply(*room);
    keep(*room);
    return toMembers(*room, cmd);
}

Room *RoomDirectory::find(const std::string &roomJid)
{
    const auto it = m_rooms.find(roomJid);
    return it == m_rooms.end() ? nullptr : it->second.get();
}

std::vector<RoomDirectory::Event> RoomDirectory::toMembers(Room &room, GroupSubCmd cmd)
{
    const QString body = text(room.toString());
    std::vector<Event> events;
    for (const auto &entry : room.members)
        events.push_back({entry.first, cmd, body});
    return events;
}

std::vector<RoomDirectory::Event> RoomDirectory::create(const std::string &from, const QJsonObject &request)
{
    std::unique_ptr<Room> room = roomFrom(request);
    if (room->jid.empty())
        return {};
    if (room->creater.empty())
        room->creater = from;
    Room &stored = *room;
    m_rooms[room->jid] = std::move(room);
    keep(stored);
    return toMembers(stored, GroupSub_Create);
}

std::vector<RoomDirectory::Event> RoomDirectory::invite(const QJsonObject &request)
{
    const std::unique_ptr<Room> invited = roomFrom(request);
    Room *room = find(invited->jid);
    if (!room)
        return {};
    for (const auto &[jid, member] : invited->members) {
        Member *&slot = room->members[jid];
        if (!slot)
            slot = new Member(*member); // owned by the room from here on
    }
    keep(*room);
    return toMembers(*room, GroupSub_Invite);
}

std::vector<RoomDirectory::Event> RoomDirectory::kick(const QJsonObject &request)
{
    const std::unique_ptr<Room> kicked = roomFrom(request);
    Room *room = find(kicked->jid);
    if (!room)
        return {};
    // Everyone hears of it, the kicked too: that is how they leave the room.
    room->operatorBy = kicked->operatorBy;
    std::vector<Event> events = toMembers(*room, GroupSub_Kick);
    room->operatorBy.clear(); // it describes this kick only
    for (const auto &entry : kicked->members) {
        const auto it = room->members.find(entry.first);
        if (it != room->members.end()) {
            delete it->second;
            room->members.erase(it);
        }
    }
    keep(*room);
    return events;
}

std::vector<RoomDirectory::Event> RoomDirectory::roomList(const std::string &userJid)
{
    QJsonArray rooms;
    for (const auto &[jid, room] : m_rooms) {
        if (room->members.count(userJid) != 0)
            rooms.append(QJsonObject{{text(jid), room->toJson()}});
    }
    const QJsonObject list{{QStringLiteral("jid"), text(userJid)},
                           {QStringLiteral("name"), QString()},
                           {QStringLiteral("rooms"), rooms}};
    return {{userJid, GroupSub_Refresh, CompactJson::text(list)}};
}
