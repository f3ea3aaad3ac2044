#ifndef PUSHCHAT_MQTTMESSAGE_H
#define PUSHCHAT_MQTTMESSAGE_H

// One message on the push channel, in either direction.
//
// Outgoing: construct, setSysProtocol (the command's topic), fromText (the
// envelope, enciphered), send, destroy. Incoming: construct, fromTopic
// (topic and payload parsed, body deciphered), startMatchSys (the command's
// handler called), destroy.
//
// The payload is a key letter followed by a compact JSON envelope of nine
// keys: "a" for plain JSON, "A".."K" for JSON enciphered with that entry of
// keyList and carried in base 64. Letters other than these make the payload
// unreadable (parseMessage returns false): nothing is deciphered with a key
// the table does not name.
//
// Ownership: the message borrows its PushClient (may be null) and owns its
// topic chain. A message is used by one thread and is not copied. Strings
// are UTF-8.

#include "mediainfo.h"
#include "mqttmesaageprotocol.h"
#include "mqttprotocolmatchcallback.h"

#include <QString>

#include <string>

class PushClient;

class MQTTMessage {
public:
    std::string messageKey;       ///< "k": passed through to the receiver
    std::string p;                ///< "p": always sent empty
    std::string from;             ///< "f": sender's JID
    std::string to;               ///< "t": addressee's JID
    std::string body;             ///< "b": text, or a command's JSON
    int secLevel;                 ///< "s": security level (9999: anyone may read)
    int bodyType;                 ///< "bt": MESSAGE_BODY_TYPE
    int msgType;                  ///< "v": MediaInfo::MessageType
    std::string stamp;            ///< "st": passed through to the receiver
    std::string topicText;        ///< topic as received, or as built by fromText
    std::string payload;          ///< outgoing payload built by encText
    MqttMesaageProtocol protocol; ///< topic, command chain and JID
    bool parsedOk;                ///< outcome of the last fromTopic
    bool encrypted;               ///< out: encipher the JSON; in: it was enciphered
    bool oversized = false;       ///< in: the payload or its envelope passed its limit (inputlimits.h)
    PushClient *pushClient;       ///< connection used by send; not owned

    MQTTMessage(PushClient *client, bool encrypt);
    ~MQTTMessage();
    MQTTMessage(const MQTTMessage &) = delete;
    MQTTMessage &operator=(const MQTTMessage &) = delete;

    // --- outgoing ------------------------------------------------------
    /// Gives the message the topic of a command addressed to `jid`:
    /// `count` codes follow (as int), the family then its sub-command.
    bool setSysProtocol(const char *jid, unsigned int count, ...);
    /// Fills the envelope and builds the payload; a message without a
    /// command topic goes to the plain message topic of `to`. False, and
    /// no payload, when the envelope would be longer than a receiver takes
    /// (InputLimits::ENVELOPE_BYTES).
    bool fromText(const QString &from, const QString &to, const QString &body, MediaInfo::MessageType msgType,
        int secLevel, MESSAGE_BODY_TYPE bodyType, const QString &messageKey, const QString &stamp);
    bool encText(QString from, QString to, QString body, MediaInfo::MessageType msgType, MESSAGE_BODY_TYPE bodyType,
        QString messageKey, QString stamp, int secLevel);
    /// Publishes the payload on the topic at `qos`; true when published.
    bool send(int qos);

    // --- incoming ------------------------------------------------------
    /// Parses a delivered topic and payload; true when dispatchable.
    bool fromTopic(const char *topic, const char *payload);
    /// Reads a payload (key letter + envelope) into the fields. A payload or
    /// envelope over its limit (inputlimits.h) is not read: false, and
    /// `oversized` is set; nothing longer than the limit is inflated.
    bool parseMessage(const char *payload);
    /// Whether the chain is a prefix of the `count` codes that follow.
    bool matchSysProtocol(unsigned int count, ...);
    /// Calls the one handler of the message's command; true if one was called.
    bool startMatchSys(MQTTProtocolMatchCallback *callback);

    /// The key named by a key letter: "A".."K" select keyList entries 0..10,
    /// letters below "A" entry 0, "a" gives all bits set (not enciphered).
    /// NUL draws a random letter "A".."K" and writes it back. Any other
    /// letter has no key: the result is 0 and isKeyLetter() is false for it.
    static unsigned long long getKey(char &letter);
    /// Whether `letter` names a key or the plain marker "a".
    static bool isKeyLetter(char letter);
};

#endif // PUSHCHAT_MQTTMESSAGE_H
