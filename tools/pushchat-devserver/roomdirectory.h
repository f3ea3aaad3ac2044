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
//
// Every JID a request names passes Jid::check before it is kept or sent on:
// a request whose room JID, creator or operatorBy fails is dropped, and so
// is each member whose JID (its key, or its "jid") fails, the rest of the
// request going ahead; each drop is reported once per request to the
// refusal callback. So is a change that would take a room's JSON, the body
// of its events, over InputLimits::BODY_BYTES (the room stays as it was),
// and a room list cut at AnswerBudget::kMaxBytes or InputLimits::ROOMS. Rooms
// loaded from the store pass the same checks.

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

    /// Told why a request, or part of it, was dropped.
    using Refusal = std::function<void(const QString &reason)>;

    /// `store` is borrowed; null keeps the rooms in memory only.
    explicit RoomDirectory(DevStore *store, Refusal refuse = {});

    std::vector<Event> answer(GroupSubCmd cmd, const std::string &from, const QByteArray &body);

private:
    void refuse(const QString &reason) const;
    /// Whether `jid` passes (an empty one does when `optional`); refused if not.
    bool valid(const std::string &jid, const char *what, bool optional = false) const;
    /// Drops the members whose JID fails; false when the room's own JIDs fail.
    bool validRoom(Room &room) const;
    /// Whether the room's JSON is within the body limit; refused if not.
    bool fits(Room &room) const;
    /// The known room `roomJid`; null when unknown or not a valid JID.
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
    Refusal m_refuse;

    std::map<std::string, std::unique_ptr<Room>> m_rooms; // by room JID
};

#endif // PUSHCHAT_DEVSERVER_ROOMDIRECTORY_H
