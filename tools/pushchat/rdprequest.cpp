#include "rdprequest.h"

#include "subcommandtable.h"
#include <pushchat/message_lib.h>

namespace {

struct Subcommand {
    const char *name;
    RdpRequest::Action action;
    const char *what;
};

const Subcommand kSubcommands[] = {
    { "control", RdpRequest::Action::Control, "remote-desktop control request" },
    { "becontrol", RdpRequest::Action::BeControl, "remote-desktop be-controlled request" },
    { "control-reply", RdpRequest::Action::ControlReply, "remote-desktop control reply" },
    { "becontrol-reply", RdpRequest::Action::BeControlReply, "remote-desktop be-controlled reply" },
};

const char *const kCommand = "rdp";

} // namespace

bool RdpRequest::parse(const QStringList &words, QString *error)
{
    const Subcommand *found = subcommand::find(kCommand, kSubcommands, words, error);
    if (!found)
        return false;
    if (!subcommand::argumentCountFits(error, kCommand, found->name, words.size() - 1, 2, 2,
            QStringLiteral("rdp %1 JID TEXT").arg(QLatin1String(found->name))))
        return false;
    m_action = found->action;
    m_jid = words.at(1);
    m_text = words.at(2);
    if (m_jid.isEmpty())
        return subcommand::fail(error, QStringLiteral("JID must not be empty."));
    return true;
}

const char *RdpRequest::what() const
{
    return subcommand::entryOf(kSubcommands, m_action).what;
}

int RdpRequest::sendWith(Message_lib &library) const
{
    switch (m_action) {
    case Action::Control:
        return library.remoteDesktopControl(QString(), m_jid, m_text);
    case Action::BeControl:
        return library.remoteDesktopBeControl(QString(), m_jid, m_text);
    case Action::ControlReply:
        return library.remoteDesktopControlReply(QString(), m_jid, m_text);
    case Action::BeControlReply:
        return library.remoteDesktopBeControlReply(QString(), m_jid, m_text);
    }
    return 0;
}
