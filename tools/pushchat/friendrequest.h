#ifndef PUSHCHAT_CLI_FRIENDREQUEST_H
#define PUSHCHAT_CLI_FRIENDREQUEST_H

// The friend subcommands of the client: their arguments and the one library
// call each makes.
//
//   friend add JID [TEXT]       addFriend: ask JID to become a friend
//   friend accept JID [TEXT]    acceptFriend: accept JID's request
//   friend del JID              delFriend: end the friendship with JID
//   friend props JID TEXT       setFriendPropoties: store TEXT for JID
//   friend list [--type N] [--count N] [--cursor ID]
//                               listFriends: ask the server for a page of
//                               the friend list (defaults 1, 20, "")
//
// JID without "@" is completed by the library with the login's domain. The
// answers (onFriendAdded, onFriendAccepted, onFriendDeleted, onFriendList)
// arrive in listen.

#include <QString>
#include <QStringList>

#include <optional>

class Message_lib;

class FriendRequest {
public:
    enum class Action {
        Add,
        Accept,
        Delete,
        Properties,
        List
    };

    /// The list options as given on the command line (nullopt: not given).
    struct ListOptions {
        std::optional<QString> type;
        std::optional<QString> count;
        std::optional<QString> cursor;
    };

    /// Parses the words after "friend" (the subcommand first) and the list
    /// options. False with `*error` set (one line) on any error.
    bool parse(const QStringList &words, const ListOptions &listOptions, QString *error);

    Action action() const { return m_action; }
    /// The subcommand's arguments, in order (JID first; TEXT completed with
    /// an empty text when omitted).
    QStringList arguments() const { return m_arguments; }
    int listType() const { return m_listType; }
    int listCount() const { return m_listCount; }
    QString listCursor() const { return m_listCursor; }

    /// What is sent, for messages: "friend request", ...
    const char *what() const;
    /// Makes the library call: 1 when it was published.
    int sendWith(Message_lib &library) const;

private:
    Action m_action = Action::Add;
    QStringList m_arguments;
    int m_listType = 1;
    int m_listCount = 20;
    QString m_listCursor;
};

#endif // PUSHCHAT_CLI_FRIENDREQUEST_H
