#ifndef PUSHCHAT_CLI_RDPREQUEST_H
#define PUSHCHAT_CLI_RDPREQUEST_H

// The remote-desktop subcommands of the client: one signalling message to a
// peer each, with free text for the peer's application.
//
//   rdp control JID TEXT           remoteDesktopControl: ask to control JID's desktop
//   rdp becontrol JID TEXT         remoteDesktopBeControl: offer JID control of ours
//   rdp control-reply JID TEXT     remoteDesktopControlReply
//   rdp becontrol-reply JID TEXT   remoteDesktopBeControlReply
//
// JID without "@" is completed by the library with the login's domain. The
// peer's messages arrive in listen as onRemoteDesktop... events.

#include <QString>
#include <QStringList>

class Message_lib;

class RdpRequest {
public:
    enum class Action {
        Control,
        BeControl,
        ControlReply,
        BeControlReply
    };

    /// Parses the words after "rdp" (the subcommand first). False with
    /// `*error` set (one line) on any error.
    bool parse(const QStringList &words, QString *error);

    Action action() const { return m_action; }
    QString jid() const { return m_jid; }
    QString text() const { return m_text; }

    /// What is sent, for messages: "remote-desktop control request", ...
    const char *what() const;
    /// Makes the library call: 1 when it was published.
    int sendWith(Message_lib &library) const;

private:
    Action m_action = Action::Control;
    QString m_jid;
    QString m_text;
};

#endif // PUSHCHAT_CLI_RDPREQUEST_H
