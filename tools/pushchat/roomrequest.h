#ifndef PUSHCHAT_CLI_ROOMREQUEST_H
#define PUSHCHAT_CLI_ROOMREQUEST_H

// The room subcommands of the client: their arguments and the one library
// call each makes.
//
//   room create ROOM NAME MEMBERS [--type N]   createMucRoom
//   room invite ROOM MEMBERS                   inviteToRoom
//   room kick ROOM MEMBERS                     kickFromRoom
//   room rename ROOM NAME                      setRoomHumanName
//   room owner ROOM MEMBER                     setRoomCreater
//   room type ROOM N                           modifyRoomType
//   room destroy ROOM                          destoryRoom
//
// ROOM is the room id (the library makes the room JID ROOM@domain);
// MEMBERS is a comma-separated list of user ids. N is the room's kind, an
// integer the application and the server agree on.

#include <QString>
#include <QStringList>

#include <optional>

class Message_lib;

class RoomRequest {
public:
    enum class Action {
        Create,
        Invite,
        Kick,
        Rename,
        Owner,
        Type,
        Destroy
    };

    /// Parses the words after "room" (the subcommand first) and the value
    /// of --type, if given. False with `*error` set (one line)
    /// on any error.
    bool parse(const QStringList &words, const std::optional<QString> &typeOption, QString *error);

    Action action() const { return m_action; }
    /// The subcommand's arguments, in order (ROOM first).
    QStringList arguments() const { return m_arguments; }
    /// create's --type (default 0), or type's N.
    int type() const { return m_type; }

    /// What is sent, for messages: "room creation", ...
    const char *what() const;
    /// Makes the library call: 1 when the request counts as sent. The
    /// library reports nothing for invite and rename (invite always gives
    /// 1, rename always 0): for them, being connected is taken as success.
    int sendWith(Message_lib &library) const;

private:
    Action m_action = Action::Create;
    QStringList m_arguments;
    int m_type = 0;
};

#endif // PUSHCHAT_CLI_ROOMREQUEST_H
