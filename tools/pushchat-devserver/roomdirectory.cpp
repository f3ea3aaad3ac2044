#include "roomdirectory.h"

#include "answerbudget.h"
#include "compactjson.h"
#include "devserverlog.h"
#include "inputlimits.h"
#include "jidrefusal.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QString text(const std::string &utf8)
{
    return QString::fromStdString(utf8);
}

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

RoomDirectory::RoomDirectory(DevStore *store, Refusal refuse) : m_store(store), m_refuse(std::move(refuse))
{
    if (!m_store)
        return;
    for (const QByteArray &json : m_store->rooms()) {
        std::unique_ptr<Room> room = roomFrom(QJsonDocument::fromJson(json).object());
        if (validRoom(*room))
            m_rooms[room->jid] = std::move(room);
    }
}

void RoomDirectory::refuse(const QString &reason) const
{
    if (m_refuse)
        m_refuse(reason);
    else
        qCWarning(lcDevServer).noquote() << "rooms:" << reason;
}

bool RoomDirectory::valid(const std::string &jid, const char *what, bool optional) const
{
    const QString reason = JidRefusal::of(jid, what, optional);
    if (!reason.isEmpty())
        refuse(reason);
    return reason.isEmpty();
}

bool RoomDirectory::validRoom(Room &room) const
{
    if (!valid(room.jid, "room JID") || !valid(room.creater, "creator", true) ||
        !valid(room.operatorBy, "operatorBy", true))
        return false;
    int dropped = 0;
    QString first;
    for (auto it = room.members.begin(); it != room.members.end();) {
        QString reason = JidRefusal::of(it->first, "member");
        if (reason.isEmpty())
            reason = JidRefusal::of(it->second->jid, "member", true);
        if (reason.isEmpty()) {
            ++it;
            continue;
        }
        if (dropped++ == 0)
            first = reason;
        delete it->second;
        it = room.members.erase(it);
    }
    if (dropped > 0)
        refuse(QStringLiteral("room %1: %2 member(s) dropped, the first: %3")
                   .arg(JidRefusal::shown(room.jid))
                   .arg(dropped)
                   .arg(first));
    return true;
}

bool RoomDirectory::fits(Room &room) const
{
    const std::size_t size = room.toString().size();
    if (size <= std::size_t(InputLimits::BODY_BYTES))
        return true;
    refuse(QStringLiteral("room %1 would take %2 bytes of JSON, over %3")
               .arg(JidRefusal::shown(room.jid))
               .arg(size)
               .arg(InputLimits::BODY_BYTES));
    return false;
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

std::vector<RoomDirectory::Event> RoomDirectory::answer(
    GroupSubCmd cmd, const std::string &from, const QByteArray &body)
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
    case GroupSub_SetRoomCreater: {
        const std::string creator = field(request, "member_id");
        if (!valid(creator, "new creator"))
            return {};
        return change(field(request, "room_id"), cmd, [&](Room &room) { room.creater = creator; });
    }
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

std::vector<RoomDirectory::Event> RoomDirectory::change(
    const std::string &roomJid, GroupSubCmd cmd, const std::function<void(Room &)> &apply)
{
    Room *room = find(roomJid);
    if (!room)
        return {};
    const QJsonObject before = room->toJson();
    apply(*room);
    if (!fits(*room)) {
        const std::string jid = room->jid;
        m_rooms[jid] = roomFrom(before); // as it was
        return {};
    }
    keep(*room);
    return toMembers(*room, cmd);
}

Room *RoomDirectory::find(const std::string &roomJid)
{
    if (!valid(roomJid, "room JID"))
        return nullptr;
    const auto it = m_rooms.find(roomJid);
    return it == m_rooms.end() ? nullptr : it->second.get();
}

std::vector<RoomDirectory::Event> RoomDirectory::toMembers(Room &room, GroupSubCmd cmd)
{
    const QString body = text(room.toString());
    std::vector<Event> events;
    for (const auto &entry : room.members)
        events.push_back({ entry.first, cmd, body });
    return events;
}

std::vector<RoomDirectory::Event> RoomDirectory::create(const std::string &from, const QJsonObject &request)
{
    std::unique_ptr<Room> room = roomFrom(request);
    if (!validRoom(*room))
        return {};
    if (room->creater.empty())
        room->creater = from;
    if (!fits(*room))
        return {};
    Room &stored = *room;
    m_rooms[room->jid] = std::move(room);
    keep(stored);
    return toMembers(stored, GroupSub_Create);
}

std::vector<RoomDirectory::Event> RoomDirectory::invite(const QJsonObject &request)
{
    const std::unique_ptr<Room> invited = roomFrom(request);
    if (!validRoom(*invited))
        return {};
    return change(invited->jid, GroupSub_Invite, [&](Room &room) {
        for (const auto &[jid, member] : invited->members) {
            Member *&slot = room.members[jid];
            if (!slot)
                slot = new Member(*member); // owned by the room from here on
        }
    });
}

std::vector<RoomDirectory::Event> RoomDirectory::kick(const QJsonObject &request)
{
    const std::unique_ptr<Room> kicked = roomFrom(request);
    if (!validRoom(*kicked))
        return {};
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
    AnswerBudget budget;
    QJsonArray rooms;
    for (const auto &[jid, room] : m_rooms) {
        if (room->members.count(userJid) == 0)
            continue;
        const QJsonObject entry{ { text(jid), room->toJson() } };
        if (rooms.size() == InputLimits::ROOMS || !budget.take(entry)) {
            refuse(QStringLiteral("room list of %1 cut at %2 rooms").arg(JidRefusal::shown(userJid)).arg(rooms.size()));
            break;
        }
        rooms.append(entry);
    }
    const QJsonObject list{ { QStringLiteral("jid"), text(userJid) }, { QStringLiteral("name"), QString() },
        { QStringLiteral("rooms"), rooms } };
    return { { userJid, GroupSub_Refresh, CompactJson::text(list) } };
}
