#include "rdprequest.h"

#include "message_lib.h"

namespace {

struct Subcommand {
    const char *name;
    RdpRequest::Action action;
    const char *what;
};

const Subcommand kSubcommands[] = {
    {"control", RdpRequest::Action::Control, "remote-desktop control request"},
    {"becontrol", RdpRequest::Action::BeControl, "remote-desktop be-controlled request"},
    {"control-reply", RdpRequest::Action::ControlReply, "remote-desktop control reply"},
    {"becontrol-reply", RdpRequest::Action::BeControlReply, "remote-desktop be-controlled reply"},
};

const char *const kNames = "control, becontrol, control-reply or becontrol-reply";

bool fail(QString *error, const QString &message)
{
    *error = message;
    return false;
}

} // namespace

bool RdpRequest::parse(const QStringList &words, QString *error)
{
    if (words.isEmpty())
        return fail(error, QStringLiteral("'rdp' needs a subcommand: %1.").arg(QLatin1String(kNames)));
    const Subcommand *found = nullptr;
    for (const Subcommand &candidate : kSubcommands) {
        if (words.first() == QLatin1String(candidate.name))
            found = &candidate;
    }
    if (!found)
        return fail(error,
                    QStringLiteral("Unknown rdp subcommand '%1': use %2.").arg(words.first(), QLatin1String(kNames)));
    if (words.size() != 3)
        return fail(error, QStringLiteral("'rdp %1' takes 2 argument(s), %2 given: pushchat [options] rdp %1 JID TEXT.")
                               .arg(QLatin1String(found->name))
                               .arg(words.size() - 1));
    m_action = found->action;
    m_jid = words.at(1);
    m_text = words.at(2);
    if (m_jid.isEmpty())
        return fail(error, QStringLiteral("JID must not be empty."));
    return true;
}

const char *RdpRequest::what() const
{
    for (const Subcommand &subcommand : kSubcommands) {
        if (subcommand.action == m_action)
            return subcommand.what;
    }
    return "remote-desktop message";
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
