#ifndef PUSHCHAT_ROOM_H
#define PUSHCHAT_ROOM_H

// Group-room records and their JSON forms: the whole vocabulary of room data
// on the wire. Room commands serialise a Room as their message body; room
// events read the server's body into a fresh Room, and the room-list reply
// into a RoomList. An application is handed a Room in its room-changed
// callback and may read it or call toJson/toString.
//
// Ownership: a Room owns its Members and a RoomList its Rooms (deleted in
// map order on destruction; a key stored twice replaces and deletes the
// earlier object). Neither is copyable. Strings are UTF-8. A record is used
// by one thread at a time.

#include "groupsubcmd.h"

#include <QJsonObject>

#include <map>
#include <string>

/// The kind of a room. The library only carries the number between the
/// application and the server, which agree on its meaning.
enum ROOM_TYPE : int {
    ROOM_TYPE_DEFAULT = 0
};

/// One member of a room.
class Member {
public:
    std::string jid;       ///< the member's JID
    std::string name;      ///< the member's name
    std::string join_time; ///< as the server sends it, not interpreted
};

/// One room.
class Room {
public:
    std::string jid;                        ///< "jid": room id "@" domain
    std::string name;                       ///< "name": display name
    std::string creater;                    ///< "creater": as the server reports it
    std::map<std::string, Member *> members; ///< "members": owned, keyed by JID
    ROOM_TYPE type = ROOM_TYPE_DEFAULT;      ///< "type"
    int status = 0;                          ///< "status": the server's number
    std::string operatorBy;                  ///< "operatorBy": who made the last change
    std::string join_time;                   ///< "join_time": not interpreted

    Room() = default;
    ~Room();
    Room(const Room &) = delete;
    Room &operator=(const Room &) = delete;

    /// The room as a JSON object; "members" is an array of one-key objects,
    /// in key order.
    QJsonObject toJson();
    /// The compact JSON text of toJson() (keys in sorted order).
    std::string toString();
    /// Fills this room from `obj`; missing or mistyped values read as empty
    /// text or 0. Members are added to (not replacing) the current map.
    void fromJson(QJsonObject obj);
};

/// The server's answer to a room-list refresh.
class RoomList {
public:
    std::string jid;
    std::string name;
    std::map<std::string, Room *> rooms; ///< owned, keyed by room JID

    RoomList() = default;
    ~RoomList();
    RoomList(const RoomList &) = delete;
    RoomList &operator=(const RoomList &) = delete;

    /// Fills this list from `obj`; "rooms" is an array of objects mapping
    /// room JIDs to room objects.
    void fromJson(QJsonObject obj);
};

#endif // PUSHCHAT_ROOM_H
