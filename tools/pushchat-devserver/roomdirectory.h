#ifndef PUSHCHAT_DEVSERVER_ROOMDIRECTORY_H
#define PUSHCHAT_DEVSERVER_ROOMDIRECTORY_H

// The rooms of the development server and its answers to room requests; no
// network. The rooms are kept in a DevStore: loaded at construction, saved
// at every change. answer() takes one request as the server receives it (the
// sub-command of its topic, the sender's JID and the deciphered body) and
// returns the group-information events to publish:
//
//   create         the room as sent, its creator the sender: a create event
//                  to every member
//   invite         the new members added: an invite event to every member
//   kick           the members removed: a kick event (with the request's
//                  operatorBy) to every member, the kicked included
//   rename         a rename event to every member
//   owner          {"member_id","room_id"}: a creator event to every member
//   type           {"room_type","room_id"}: a type event to every member
//   destroy        a release event to every member; the room is forgotten
//   refresh        a room-list reply to the sender with the rooms it is in
//
// Requests for unknown rooms and other sub-commands get no answer. Used by
// the thread that uses the store.

#include "devstore.h"
#include "room.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

class RoomDirectory {
public:
    struct Event {
        std::string userJid;
        GroupSubCmd cmd;
        QString body;
    };

    /// `store` is borrowed; null keeps the rooms in memory only.
    explicit RoomDirectory(DevStore *store);

    std::vector<Event> answer(GroupSubCmd cmd, const std::string &from, const QByteArray &body);

private:
    Room *find(const std::string &roomJid);
    std::vector<Event> toMembers(Room &room, GroupSubCmd cmd);
    /// Applies a change to a known room, keeps it and tells its members.
    std::vector<Event> change(const std::string &roomJid, GroupSubCmd cmd, const std::function<void(Room &)> &apply);
    std::vector<Event> create(const std::string &from, const QJsonObject &request);
    std::vector<Event> invite(const QJsonObject &request);
    std::vector<Event> kick(const QJsonObject &request);
    std::vector<Event> roomList(const std::string &userJid);
    void keep(Room &room);

    DevStore *m_store;

    std::map<std::string, std::unique_ptr<Room>> m_rooms; // by room JID
};

#endif // PUSHCHAT_DEVSERVER_ROOMDIRECTORY_H
