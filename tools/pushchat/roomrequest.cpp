#include "roomrequest.h"

#include "message_lib.h"

namespace {

struct Subcommand {
    const char *name;
    RoomRequest::Action action;
    int argumentCount;
    const char *usage;
    const char *what;
};

const Subcommand kSubcommands[] = {
    {"create", RoomRequest::Action::Create, 3, "room create ROOM NAME MEMBERS [--type N]", "room creation"},
    {"invite", RoomRequest::Action::Invite, 2, "room invite ROOM MEMBERS", "invitation"},
    {"kick", RoomRequest::Action::Kick, 2, "room kick ROOM MEMBERS", "kick"},
    {"rename", RoomRequest::Action::Rename, 2, "room rename ROOM NAME", "rename"},
    {"owner", RoomRequest::Action::Owner, 2, "room owner ROOM MEMBER", "owner change"},
    {"type", RoomRequest::Action::Type, 2, "room type ROOM N", "type change"},
    {"destroy", RoomRequest::Action::Destroy, 1, "room destroy ROOM", "room destruction"},
};

const char *const kNames = "create, invite, kick, rename, owner, type or destroy";

const Subcommand &subcommandOf(RoomRequest::Action action)
{
    for (const Subcommand &subcommand : kSubcommands) {
        if (subcommand.action == action)
            return subcommand;
    }
    return kSubcommands[0];
}

bool fail(QString *error, const QString &message)
{
    *error = message;
    return false;
}

} // namespace

bool RoomRequest::parse(const QStringList &words, const std::optional<QString> &typeOption, QString *error)
{
    if (words.isEmpty())
        return fail(error, QStringLiteral("'room' needs a subcommand: %1.").arg(QLatin1String(kNames)));
    const Subcommand *found = nullptr;
    for (const Subcommand &candidate : kSubcommands) {
        if (words.first() == QLatin1String(candidate.name))
            found = &candidate;
    }
    if (!found)
        return fail(error, QStringLiteral("Unknown room subcommand '%1': use %2.")
                               .arg(words.first(), QLatin1String(kNames)));
    m_action = found->action;
    m_arguments = words.mid(1);
    if (m_arguments.size() != found->argumentCount)
        return fail(error, QStringLiteral("'room %1' takes %2 argument(s), %3 given: pushchat [options] %4.")
                               .arg(QLatin1String(found->name))
                               .arg(found->argumentCount)
                               .arg(m_arguments.size())
                               .arg(QLatin1String(found->usage)));
    if (m_arguments.first().isEmpty())
        return fail(error, QStringLiteral("ROOM must not be empty."));
    if (typeOption && m_action != Action::Create)
        return fail(error, QStringLiteral("--type applies to room create only."));

    const std::optional<QString> typeText = m_action == Action::Type ? m_arguments.at(1) : typeOption;
    bool ok = true;
    m_type = typeText ? typeText->toInt(&ok) : 0;
    if (!ok)
        return fail(error, QStringLiteral("The room type must be an integer, not '%1'.").arg(*typeText));
    return true;
}

const char *RoomRequest::what() const { return subcommandOf(m_action).what; }

int RoomRequest::sendWith(Message_lib &library) const
{
    const QString room = m_arguments.at(0);
    const auto type = static_cast<ROOM_TYPE>(m_type);
    switch (m_action) {
    case Action::Create:
        return library.createMucRoom(room, m_arguments.at(1), m_arguments.at(2), type);
    case Action::Invite:
        return library.inviteToRoom(room, m_arguments.at(1));
    case Action::Kick:
        return library.kickFromRoom(room, m_arguments.at(1));
    case Action::Rename:
        library.setRoomHumanName(room, m_arguments.at(1)); // always 0: see the header
        return 1;
    case Action::Owner:
        return library.setRoomCreater(room, m_arguments.at(1));
    case Action::Type:
        return library.modifyRoomType(room, type);
    case Action::Destroy:
        return library.destoryRoom(room);
    }
    return 0;
}
