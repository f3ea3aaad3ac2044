#ifndef PUSHCHAT_DEVSERVER_DEVSTORE_H
#define PUSHCHAT_DEVSERVER_DEVSTORE_H

// Everything the development server keeps, in one SQLite database
// (SqliteDatabase): the chat and room messages it saw cross the broker,
// with their status; who is online; friendships and friend requests; and
// the rooms (as their JSON, with a member table for the history queries).
//
// An empty path keeps the database in memory (gone with the object); a
// file path creates the file (mode 0600) or reopens it with what it holds,
// and holds it locked from open() until the object goes, so that a second
// server on the same file is refused. Every call runs on the thread that
// created the object. Failing statements are logged and reported as empty
// results or false.
//
// What is read back is bounded, whatever the database holds (an older
// version stored whatever it received): SQLite measures each text before
// handing it over, and a value over its limit is never read into memory
// here. Message bodies are measured once, when they are stored (or, for a
// database of an older version, when open() adds their size column and
// empties the bodies over the limit), so that a history query does not even
// load a body that is over the limit. A message body, a friend's text or properties, or a room's JSON over
// InputLimits::BODY_BYTES reads as withheld (the message's bodyWithheld,
// empty texts, the room not loaded); a message or friend whose uuid, JIDs,
// stamp or modifier are over kMaxFieldBytes is left out of the results.

#include "sqlitedatabase.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>
#include <vector>

class DevStore {
public:
    /// Longest uuid, stamp or JID kept or read back, in UTF-8 bytes.
    static constexpr int kMaxFieldBytes = 1024;

    struct Message {
        QString uuid;
        QString from;
        QString to; // the peer, or the room
        QString body;
        int bodyType = 0;
        int msgType = 0;
        int secLevel = 0;
        QString stamp;
        qint64 at = 0; // ms since the epoch, when the server saw it
        int status = 0;
        QString modifier;
        bool bodyWithheld = false; // the stored body is over the limit: not read
    };
    /// Which messages a history query returns: a user's, of one conversation
    /// (the peer's or the room's JID; empty: all of them), of one kind
    /// (MESSAGE_TYPE_CHAT or MESSAGE_TYPE_GROUPCHAT; 0: both).
    struct Scope {
        QString user;
        QString conversation;
        int msgType = 0;
    };
    struct Conversation {
        QString id; // the peer's or the room's JID
        int msgType = 0;
        int count = 0;
        Message last;
    };
    struct Friend {
        QString jid;
        QString text; // the request's text
        QString properties;
        bool online = false;
    };
    enum class FriendList {
        Friends = 1,
        RequestsReceived = 2,
        RequestsSent = 3
    };

    explicit DevStore(const QString &path);
    ~DevStore();
    DevStore(const DevStore &) = delete;
    DevStore &operator=(const DevStore &) = delete;

    /// Opens the database and creates the tables that are missing.
    bool open(QString *error);

    /// False when a message with this uuid is stored already.
    bool addMessage(const Message &message);
    std::optional<Message> message(const QString &uuid);
    /// Sets the status of message `uuid`; false when there is none.
    bool setStatus(const QString &uuid, int status, const QString &modifier);
    /// Older: newest first, and only those older than `anchor` (a message
    /// uuid) when there is one. Newer: oldest first, only those newer.
    enum class Direction {
        Older,
        Newer
    };
    /// Called with each result in turn; false stops the reading there, so
    /// that no more than the caller takes is ever held in memory.
    template <typename T> using Visitor = std::function<bool(T &&)>;
    /// The scope's messages in `direction`: `skip` of them left out, at
    /// most `limit` visited.
    void messages(const Scope &scope, Direction direction, int skip, int limit, const QString &anchor,
        const Visitor<Message> &visit);
    /// The scope's conversations, the most recent first.
    void conversations(const Scope &scope, int skip, int limit, const Visitor<Conversation> &visit);
    /// Whether `room` is a room `user` belongs to.
    bool isMember(const QString &user, const QString &room);

    void setPresence(const QString &jid, bool online, const QJsonObject &presence);

    /// `from` asks `to`; nothing changes between friends.
    void requestFriend(const QString &from, const QString &to, const QString &text);
    /// `from` accepts the request of `requester`: friends both ways. False
    /// when there was no such request.
    bool acceptFriend(const QString &from, const QString &requester);
    /// The friendship, or a request, between the two ends both ways.
    void dropFriend(const QString &a, const QString &b);
    /// False when `friendJid` is not `owner`'s friend.
    bool setFriendProperties(const QString &owner, const QString &friendJid, const QString &properties);
    /// One page of a list, sorted by JID, after `cursor` (a JID; empty: from
    /// the start).
    void friends(const QString &owner, FriendList list, const QString &cursor, int limit, const Visitor<Friend> &visit);
    /// The JIDs that are `jid`'s friends.
    QStringList friendsOf(const QString &jid);

    void saveRoom(const QString &jid, const QByteArray &json, const QStringList &members);
    void dropRoom(const QString &jid);
    std::vector<QByteArray> rooms();

private:
    QString m_path;
    SqliteDatabase m_db;
};

#endif // PUSHCHAT_DEVSERVER_DEVSTORE_H
