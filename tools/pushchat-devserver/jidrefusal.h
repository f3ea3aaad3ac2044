#ifndef PUSHCHAT_DEVSERVER_JIDREFUSAL_H
#define PUSHCHAT_DEVSERVER_JIDREFUSAL_H

// The development server's words for a JID it drops: the library's check
// (Jid::check, the rules every client applies) and a reason that names the
// field and shows the start of the value, for the one log line of a drop.

#include <QString>

#include <string_view>

class JidRefusal {
public:
    /// Empty when `jid` passes Jid::check (or is empty and `optional`);
    /// otherwise e.g. "room JID '+' holds an MQTT wildcard ('+' or '#')".
    static QString of(std::string_view jid, const char *what, bool optional = false);
    static QString of(const QString &jid, const char *what, bool optional = false);
    /// The first 64 bytes of `text`, quoted, "..." marking a cut.
    static QString shown(std::string_view text);
};

#endif // PUSHCHAT_DEVSERVER_JIDREFUSAL_H
