#ifndef PUSHCHAT_ROOM_H
#define PUSHCHAT_ROOM_H

/// \file
/// Group-room records and their JSON forms: the whole vocabulary of room data
/// on the wire. Room commands serialise a Room as their message body; room
/// events read the server's body into a fresh Room, and the room-list reply
/// into a RoomList. An application is handed a Room in its room-changed
/// callback and may read it or call toJson/toString.
///
/// Everything is defined inline here, so the records can be used without
/// linking anything but Qt Core.
///
/// Ownership: a Room owns its Members and a RoomList its Rooms (deleted in
/// map order on destruction; a key stored twice replaces and deletes the
/// earlier object). Neither is copyable. Strings are UTF-8. A record is used
/// by one thread at a time.
///
/// JSON form of a room (Qt's compact writer sorts the keys):
/// ~~~
///   {"creater":"","jid":"","join_time":"",
///    "members":[{"<key>":{"jid":"","join_time":"","name":""}}, ...],
///    "name":"","operatorBy":"","status":0,"type":0}
/// ~~~
/// A room list:
/// ~~~
///   {"jid":"","name":"","rooms":[{"<room jid>":{room}}, ...]}
/// ~~~

#include <pushchat/groupsubcmd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <map>
#include <memory>
#include <string>
#include <utility>

/// The kind of a room. The library only carries the number between the
/// application and the server, which agree on its meaning; any int is a
/// valid value.
enum ROOM_TYPE : int {
    ROOM_TYPE_DEFAULT = 0 ///< the default kind
};

namespace pushchat_room_detail {

inline QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), int(text.size()));
}

inline std::string toUtf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

/// The string under `key` as UTF-8; empty when absent or not a string.
inline std::string textAt(const QJsonObject &obj, const char *key)
{
    return toUtf8(obj.value(QLatin1String(key)).toString());
}

/// Stores `value` under `key`; an object already stored there is deleted.
template <typename T> void storeOwned(std::map<std::string, T *> &map, const QString &key, std::unique_ptr<T> value)
{
    T *&slot = map.try_emplace(toUtf8(key), nullptr).first->second;
    delete std::exchange(slot, value.release());
}

} // namespace pushchat_room_detail

/// One member of a room. Its JSON form is written and read by Room.
class Member {
public:
    std::string jid;       ///< the member's JID
    std::string name;      ///< the member's name
    std::string join_time; ///< as the server sends it, not interpreted
};

/// One room. Its JSON form is shown in room.h.
class Room {
public:
    std::string jid;                         ///< "jid": room id "@" domain
    std::string name;                        ///< "name": display name
    std::string creater;                     ///< "creater": as the server reports it
    std::map<std::string, Member *> members; ///< "members": owned, keyed by JID
    ROOM_TYPE type = ROOM_TYPE_DEFAULT;      ///< "type"
    int status = 0;                          ///< "status": the server's number
    std::string operatorBy;                  ///< "operatorBy": who made the last change
    std::string join_time;                   ///< "join_time": not interpreted

    /// An empty room.
    Room() = default;
    /// Deletes the members.
    ~Room();
    Room(const Room &) = delete;            ///< Not copyable.
    Room &operator=(const Room &) = delete; ///< Not copyable.

    /// The room as a JSON object; "members" is an array of one-key objects,
    /// in key order.
    QJsonObject toJson();
    /// The compact JSON text of toJson() (keys in sorted order).
    std::string toString();
    /// Fills this room from `obj`; missing or mistyped values read as empty
    /// text or 0 ("type" and "status" must be whole numbers in the int
    /// range). Members are added to (not replacing) the current map: each
    /// key of each object in the "members" array makes one Member, a
    /// non-object value an empty one, and a later key replaces an earlier.
    void fromJson(QJsonObject obj);
};

/// The server's answer to a room-list refresh.
class RoomList {
public:
    std::string jid;                     ///< "jid": as the server sends it
    std::string name;                    ///< "name": as the server sends it
    std::map<std::string, Room *> rooms; ///< "rooms": owned, keyed by room JID

    /// An empty list.
    RoomList() = default;
    /// Deletes the rooms.
    ~RoomList();
    RoomList(const RoomList &) = delete;            ///< Not copyable.
    RoomList &operator=(const RoomList &) = delete; ///< Not copyable.

    /// Fills this list from `obj`; "rooms" is an array of objects mapping
    /// room JIDs to room objects. A later room JID replaces an earlier.
    void fromJson(QJsonObject obj);
};

inline Room::~Room()
{
    for (const auto &entry : members)
        delete entry.second;
    members.clear();
}

inline QJsonObject Room::toJson()
{
    using pushchat_room_detail::fromUtf8;
    QJsonObject obj;
    obj.insert(QStringLiteral("jid"), fromUtf8(jid));
    obj.insert(QStringLiteral("name"), fromUtf8(name));
    obj.insert(QStringLiteral("creater"), fromUtf8(creater));
    obj.insert(QStringLiteral("type"), int(type));
    obj.insert(QStringLiteral("status"), status);
    obj.insert(QStringLiteral("operatorBy"), fromUtf8(operatorBy));
    obj.insert(QStringLiteral("join_time"), fromUtf8(join_time));

    QJsonArray array;
    for (const auto &[key, member] : members) {
        QJsonObject fields;
        fields.insert(QStringLiteral("jid"), fromUtf8(member->jid));
        fields.insert(QStringLiteral("name"), fromUtf8(member->name));
        fields.insert(QStringLiteral("join_time"), fromUtf8(member->join_time));
        QJsonObject entry;
        entry.insert(fromUtf8(key), fields);
        array.append(entry);
    }
    obj.insert(QStringLiteral("members"), array);
    return obj;
}

inline std::string Room::toString()
{
    return QJsonDocument(toJson()).toJson(QJsonDocument::Compact).toStdString();
}

inline void Room::fromJson(QJsonObject obj)
{
    using pushchat_room_detail::textAt;
    jid = textAt(obj, "jid");
    name = textAt(obj, "name");
    creater = textAt(obj, "creater");
    type = ROOM_TYPE(obj.value(QLatin1String("type")).toInt(0));
    status = obj.value(QLatin1String("status")).toInt(0);
    operatorBy = textAt(obj, "operatorBy");
    join_time = textAt(obj, "join_time");

    // Not an array reads as an empty one; either way the map stays as it is.
    const QJsonArray array = obj.value(QLatin1String("members")).toArray();
    for (const QJsonValue &element : array) {
        // A QJsonObject iterates its keys in sorted order.
        const QJsonObject entries = element.toObject();
        for (auto it = entries.constBegin(); it != entries.constEnd(); ++it) {
            const QJsonObject fields = it.value().toObject();
            auto member = std::make_unique<Member>();
            member->jid = textAt(fields, "jid");
            member->name = textAt(fields, "name");
            member->join_time = textAt(fields, "join_time");
            pushchat_room_detail::storeOwned(members, it.key(), std::move(member));
        }
    }
}

inline RoomList::~RoomList()
{
    for (const auto &entry : rooms)
        delete entry.second;
    rooms.clear();
}

inline void RoomList::fromJson(QJsonObject obj)
{
    using pushchat_room_detail::textAt;
    jid = textAt(obj, "jid");
    name = textAt(obj, "name");

    const QJsonArray array = obj.value(QLatin1String("rooms")).toArray();
    for (const QJsonValue &element : array) {
        const QJsonObject entries = element.toObject();
        for (auto it = entries.constBegin(); it != entries.constEnd(); ++it) {
            auto room = std::make_unique<Room>();
            room->fromJson(it.value().toObject());
            pushchat_room_detail::storeOwned(rooms, it.key(), std::move(room));
        }
    }
}

#endif // PUSHCHAT_ROOM_H
