#include "friendrequest.h"

#include "message_lib.h"

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
    {"add", FriendRequest::Action::Add, 1, 2, "friend add JID [TEXT]", "friend request"},
    {"accept", FriendRequest::Action::Accept, 1, 2, "friend accept JID [TEXT]", "friend acceptance"},
    {"del", FriendRequest::Action::Delete, 1, 1, "friend del JID", "friend deletion"},
    {"props", FriendRequest::Action::Properties, 2, 2, "friend props JID TEXT", "friend properties"},
    {"list", FriendRequest::Action::List, 0, 0, "friend list [--type N] [--count N] [--cursor ID]",
     "friend-list request"},
};

const char *const kNames = "add, accept, del, props or list";

bool fail(QString *error, const QString &message)
{
    *error = message;
    return false;
}

} // namespace

bool FriendRequest::parse(const QStringList &words, const ListOptions &listOptions, QString *error)
{
    if (words.isEmpty())
        return fail(error, QStringLiteral("'friend' needs a subcommand: %1.").arg(QLatin1String(kNames)));
    const Subcommand *found = nullptr;
    for (const Subcommand &candidate : kSubcommands) {
        if (words.first() == QLatin1String(candidate.name))
            found = &candidate;
    }
    if (!found)
        return fail(error, QStringLiteral("Unknown friend subcommand '%1': use %2.")
                               .arg(words.first(), QLatin1String(kNames)));
    m_action = found->action;
    m_arguments = words.mid(1);
    const int given = m_arguments.size();
    if (given < found->minArguments || given > found->maxArguments)
        return fail(error, QStringLiteral("'friend %1' takes %2 argument(s), %3 given: pushchat [options] %4.")
                               .arg(QLatin1String(found->name),
                                    found->minArguments == found->maxArguments
                                        ? QString::number(found->minArguments)
                                        : QStringLiteral("%1 or %2").arg(found->minArguments).arg(found->maxArguments))
                               .arg(given)
                               .arg(QLatin1String(found->usage)));
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
    bool ok = true;
    if (listOptions.type) {
        m_listType = listOptions.type->toInt(&ok);
        if (!ok)
            return fail(error, QStringLiteral("--type must be an integer, not '%1'.").arg(*listOptions.type));
    }
    if (listOptions.count) {
        m_listCount = listOptions.count->toInt(&ok);
        if (!ok || m_listCount < 1)
            return fail(error, QStringLiteral("--count must be a whole number of 1 or more, not '%1'.")
                                   .arg(*listOptions.count));
    }
    if (listOptions.cursor)
        m_listCursor = *listOptions.cursor;
    return true;
}

const char *FriendRequest::what() const
{
    for (const Subcommand &subcommand : kSubcommands) {
        if (subcommand.action == m_action)
            return subcommand.what;
    }
    return "friend request";
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
