// Message envelope: building, enciphering, publishing and reading payloads.

#include "mqttmessage.h"

#include "base64.h"
#include "compactjson.h"
#include "envelopereader.h"
#include "inputlimits.h"
#include "pushchatlog.h"
#include "pushclient.h"
#include "vantrelcrypt.h"

#include <QDateTime>
#include <QtGlobal>

#include <cstring>
#include <utility>

namespace {

constexpr char kPlainLetter = 'a';
constexpr unsigned long long kPlainMarker = ~0ULL;
constexpr int kKeyCount = int(sizeof(keyList) / sizeof(keyList[0]));

// Seeds this thread's Qt generator from the millisecond clock, as the
// cipher does, and draws one number.
int drawKeyIndex()
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qsrand(uint(QDateTime::currentMSecsSinceEpoch() & 0xFFFF));
    return qrand() % kKeyCount;
    QT_WARNING_POP
}

} // namespace

MQTTMessage::MQTTMessage(PushClient *client, bool encrypt)
    : secLevel(0), bodyType(0), msgType(0), parsedOk(false), encrypted(encrypt), pushClient(client)
{
    PUSHCHAT_TRACE(lcProtocol, "MQTTMessage") << "client " << static_cast<const void *>(client);
}

MQTTMessage::~MQTTMessage() = default;

bool MQTTMessage::fromText(const QString &fromJid, const QString &toJid, const QString &text,
    MediaInfo::MessageType type, int level, MESSAGE_BODY_TYPE kind, const QString &key, const QString &stampText)
{
    PUSHCHAT_TRACE(lcProtocol, "fromText") << "from " << fromJid << " to " << toJid;
    if (protocol.code == 0)
        protocol.fromMessageProtocol(toJid.toUtf8().constData(), nullptr); // fails for a JID that fails the check
    topicText = protocol.topic;
    return encText(fromJid, toJid, text, type, kind, key, stampText, level);
}

bool MQTTMessage::encText(QString fromJid, QString toJid, QString text, MediaInfo::MessageType type,
    MESSAGE_BODY_TYPE kind, QString key, QString stampText, int level)
{
    from = fromJid.toStdString();
    to = toJid.toStdString();
    body = text.toStdString();
    messageKey = key.toStdString();
    stamp = stampText.toStdString();
    p.clear();
    msgType = type;
    bodyType = kind;
    secLevel = level;

    // The envelope as Qt's compact writer gives it: keys in sorted order,
    // strings up to their first NUL byte.
    QByteArray json;
    json.reserve(int(body.size() + from.size() + to.size() + messageKey.size() + stamp.size()) + 64);
    json.append("{\"b\":", 5);
    CompactJson::appendString(json, body.c_str());
    json.append(",\"bt\":", 6);
    CompactJson::appendInt(json, bodyType);
    json.append(",\"f\":", 5);
    CompactJson::appendString(json, from.c_str());
    json.append(",\"k\":", 5);
    CompactJson::appendString(json, messageKey.c_str());
    json.append(",\"p\":", 5);
    CompactJson::appendString(json, p.c_str());
    json.append(",\"s\":", 5);
    CompactJson::appendInt(json, secLevel);
    json.append(",\"st\":", 6);
    CompactJson::appendString(json, stamp.c_str());
    json.append(",\"t\":", 5);
    CompactJson::appendString(json, to.c_str());
    json.append(",\"v\":", 5);
    CompactJson::appendInt(json, msgType);
    json.append('}');
    if (json.size() > InputLimits::ENVELOPE_BYTES) {
        PUSHCHAT_TRACE(lcProtocol, "encText") << "envelope of " << json.size() << " bytes: over the limit";
        payload.clear();
        return false;
    }

    if (encrypted) {
        char letter = '\0';
        VantrelCrypt crypt(getKey(letter));
        const QByteArray cipherText = crypt.encryptToByteArray(std::move(json));
        payload.assign(1, letter);
        // The text form of encryptToString, written straight into the payload.
        Base64::encode(cipherText.constData(), cipherText.size(), payload);
    } else {
        payload.assign(1, kPlainLetter);
        payload.append(json.constData(), std::size_t(json.size()));
    }
    return true;
}

bool MQTTMessage::send(int qos)
{
    if (pushClient == nullptr || protocol.topic.empty())
        return false; // no topic: an addressee that failed the JID check
    return pushClient->publish(protocol.topic.c_str(), payload.c_str(), qos, false) == 0;
}

bool MQTTMessage::parseMessage(const char *data)
{
    if (data == nullptr || data[0] == '\0')
        return false;
    char letter = data[0];
    if (!isKeyLetter(letter))
        return false; // no key for this letter: the payload stays unread
    const char *rest = data + 1;
    const unsigned long long key = getKey(letter);

    // Measured only up to one byte past the limit.
    const std::size_t length = strnlen(rest, std::size_t(InputLimits::PAYLOAD_BYTES) + 1);
    const bool plainText = key == kPlainMarker;
    oversized = length > std::size_t(plainText ? InputLimits::ENVELOPE_BYTES : InputLimits::PAYLOAD_BYTES);
    if (oversized)
        return false;

    // The JSON text, up to its first NUL.
    const char *json = rest;
    std::size_t size = 0;
    QByteArray plain;
    if (plainText) {
        size = length;
        encrypted = false;
    } else {
        VantrelCrypt crypt(key);
        plain = crypt.decryptToByteArray(Base64::decode(rest, int(length)), InputLimits::ENVELOPE_BYTES);
        oversized = crypt.lastStatus == VantrelCrypt::StatusTooLarge;
        json = plain.constData();
        const void *nul = std::memchr(json, '\0', std::size_t(plain.size()));
        size = nul != nullptr ? std::size_t(static_cast<const char *>(nul) - json) : std::size_t(plain.size());
        encrypted = true;
    }

    EnvelopeReader::Fields fields;
    if (!EnvelopeReader::read(json, size, fields))
        return false; // not a JSON object: the fields keep their values
    messageKey = std::move(fields.messageKey);
    p = std::move(fields.p);
    from = std::move(fields.from);
    to = std::move(fields.to);
    body = std::move(fields.body);
    stamp = std::move(fields.stamp);
    secLevel = fields.secLevel;
    msgType = fields.msgType;
    bodyType = fields.bodyType;
    return true;
}

bool MQTTMessage::isKeyLetter(char letter)
{
    const auto u = static_cast<unsigned char>(letter);
    return u == static_cast<unsigned char>(kPlainLetter) || u <= 'A' + kKeyCount - 1;
}

unsigned long long MQTTMessage::getKey(char &letter)
{
    const auto u = static_cast<unsigned char>(letter);
    if (letter == kPlainLetter)
        return kPlainMarker;
    if (u == 0) {
        const int index = drawKeyIndex();
        letter = char('A' + index);
        return keyList[index];
    }
    if (u < 'A')
        return keyList[0];
    if (u < 'A' + kKeyCount)
        return keyList[u - 'A'];
    return 0; // no such key
}
