#include "roomrequest.h"

#include "subcommandtable.h"
#include <pushchat/message_lib.h>

namespace {

struct Subcommand {
    const char *name;
    RoomRequest::Action action;
    int argumentCount;
    const char *usage;
    const char *what;
};

const Subcommand kSubcommands[] = {
    { "create", RoomRequest::Action::Create, 3, "room create ROOM NAME MEMBERS [--type N]", "room creation" },
    { "invite", RoomRequest::Action::Invite, 2, "room invite ROOM MEMBERS", "invitation" },
    { "kick", RoomRequest::Action::Kick, 2, "room kick ROOM MEMBERS", "kick" },
    { "rename", RoomRequest::Action::Rename, 2, "room rename ROOM NAME", "rename" },
    { "owner", RoomRequest::Action::Owner, 2, "room owner ROOM MEMBER", "owner change" },
    { "type", RoomRequest::Action::Type, 2, "room type ROOM N", "type change" },
    { "destroy", RoomRequest::Action::Destroy, 1, "room destroy ROOM", "room destruction" },
};

const char *const kCommand = "room";

} // namespace

using subcommand::fail;

bool RoomRequest::parse(const QStringList &words, const std::optional<QString> &typeOption, QString *error)
{
    const Subcommand *found = subcommand::find(kCommand, kSubcommands, words, error);
    if (!found)
        return false;
    m_action = found->action;
    m_arguments = words.mid(1);
    if (!subcommand::argumentCountFits(error, kCommand, found->name, m_arguments.size(), found->argumentCount,
            found->argumentCount, QLatin1String(found->usage)))
        return false;
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

const char *RoomRequest::what() const
{
    return subcommand::entryOf(kSubcommands, m_action).what;
}

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
