#ifndef GROUPEVENT_H
#define GROUPEVENT_H

// A message as the server sends it to a user: a command topic addressed to
// the user and the enciphered envelope carrying the body, from the server's
// JID (or, for what the server passes on, from another user). Room events
// go on the group-information topic "s/g/i/<user>/r/<letter>". Used by the
// development server, and by tests and benchmarks that feed the engine
// directly or through a broker (header-only; needs pushchat).

#include "mqttmessage.h"

#include <QString>

#include <string>

struct GroupEvent {
    std::string topic;
    std::string payload;
};
using ServerMessage = GroupEvent;

/// The command of `family` with one or two sub-commands (`sub2` 0: none),
/// addressed to `userJid`.
inline ServerMessage makeServerMessage(
    const std::string &userJid, int family, int sub1, int sub2, const QString &body, const QString &from)
{
    MQTTMessage msg(nullptr, true);
    if (sub2)
        msg.setSysProtocol(userJid.c_str(), 3, family, sub1, sub2);
    else
        msg.setSysProtocol(userJid.c_str(), 2, family, sub1);
    msg.fromText(from, QString::fromStdString(userJid), body, MediaInfo::MESSAGE_TYPE_SYSTEM,
        SECURITY_LEVEL_UNRESTRICTED, BODY_TYPE_DEFAULT, QString(), QString());
    return { msg.topicText, msg.payload };
}

inline GroupEvent makeGroupEvent(
    const std::string &userJid, GroupSubCmd cmd, const QString &body, const QString &serverJid)
{
    return makeServerMessage(userJid, GroupINFO, SubInfo_CMD_RESPONSE, int(cmd), body, serverJid);
}

#endif // GROUPEVENT_H
