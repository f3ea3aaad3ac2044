#include "friendrequest.h"

#include "subcommandtable.h"
#include <pushchat/message_lib.h>

namespace {

struct Subcommand {
    const char *name;
    FriendRequest::Action action;
    int minArguments;
    int maxArguments;
    const char *usage;
    const char *what;
};

const Subcommand kSubcommands[] = {
    { "add", FriendRequest::Action::Add, 1, 2, "friend add JID [TEXT]", "friend request" },
    { "accept", FriendRequest::Action::Accept, 1, 2, "friend accept JID [TEXT]", "friend acceptance" },
    { "del", FriendRequest::Action::Delete, 1, 1, "friend del JID", "friend deletion" },
    { "props", FriendRequest::Action::Properties, 2, 2, "friend props JID TEXT", "friend properties" },
    { "list", FriendRequest::Action::List, 0, 0, "friend list [--type N] [--count N] [--cursor ID]",
        "friend-list request" },
};

const char *const kCommand = "friend";

} // namespace

using subcommand::fail;
using subcommand::kAnyInteger;
using subcommand::number;

bool FriendRequest::parse(const QStringList &words, const ListOptions &listOptions, QString *error)
{
    const Subcommand *found = subcommand::find(kCommand, kSubcommands, words, error);
    if (!found)
        return false;
    m_action = found->action;
    m_arguments = words.mid(1);
    if (!subcommand::argumentCountFits(error, kCommand, found->name, m_arguments.size(), found->minArguments,
            found->maxArguments, QLatin1String(found->usage)))
        return false;
    while (m_arguments.size() < found->maxArguments)
        m_arguments.append(QString()); // an omitted TEXT is sent empty
    if (m_action != Action::List && m_arguments.first().isEmpty())
        return fail(error, QStringLiteral("JID must not be empty."));

    if (m_action != Action::List) {
        if (listOptions.count || listOptions.cursor)
            return fail(error, QStringLiteral("--count and --cursor apply to friend list only."));
        if (listOptions.type)
            return fail(error, QStringLiteral("--type applies to room create and friend list only."));
        return true;
    }
    if (listOptions.type && !number(*listOptions.type, "--type", kAnyInteger, &m_listType, error))
        return false;
    if (listOptions.count && !number(*listOptions.count, "--count", 1, &m_listCount, error))
        return false;
    if (listOptions.cursor)
        m_listCursor = *listOptions.cursor;
    return true;
}

const char *FriendRequest::what() const
{
    return subcommand::entryOf(kSubcommands, m_action).what;
}

int FriendRequest::sendWith(Message_lib &library) const
{
    switch (m_action) {
    case Action::Add:
        return library.addFriend(QString(), m_arguments.at(0), m_arguments.at(1));
    case Action::Accept:
        return library.acceptFriend(QString(), m_arguments.at(0), m_arguments.at(1));
    case Action::Delete:
        return library.delFriend(QString(), m_arguments.at(0));
    case Action::Properties:
        return library.setFriendPropoties(QString(), m_arguments.at(0), m_arguments.at(1));
    case Action::List:
        return library.listFriends(m_listType, m_listCount, m_listCursor);
    }
    return 0;
}
