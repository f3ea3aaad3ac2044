#ifndef GROUPEVENT_H
#define GROUPEVENT_H

// A room event as the server sends it to a user: the group-information
// topic "s/g/i/<user>/r/<letter>" and the enciphered envelope carrying the
// body, from the server's JID. Used by the stand-in server, and by tests and
// benchmarks that feed the engine directly or through a broker
// (header-only; needs pushchat).

#include "mqttmessage.h"

#include <QString>

#include <string>

struct GroupEvent {
    std::string topic;
    std::string payload;
};

inline GroupEvent makeGroupEvent(const std::string &userJid, GroupSubCmd cmd, const QString &body,
                                 const QString &serverJid)
{
    MQTTMessage msg(nullptr, true);
    msg.setSysProtocol(userJid.c_str(), 3, GroupINFO, SubInfo_CMD_RESPONSE, int(cmd));
    msg.fromText(serverJid, QString::fromStdString(userJid), body, MediaInfo::MESSAGE_TYPE_SYSTEM,
                 SECURITY_LEVEL_UNRESTRICTED, BODY_TYPE_DEFAULT, QString(), QString());
    return { msg.topicText, msg.payload };
}

#endif // GROUPEVENT_H
