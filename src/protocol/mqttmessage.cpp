// Message envelope: building, enciphering, publishing and reading payloads.

#include "mqttmessage.h"

#include "base64.h"
#include "compactjson.h"
#include "jsonkeycheck.h"
#include "protocollog.h"
#include "pushclient.h"
#include "vantrelcrypt.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QtGlobal>

#include <cstring>

Q_LOGGING_CATEGORY(lcProtocol, "pushchat.protocol", QtInfoMsg)

namespace {

constexpr char kPlainLetter = 'a';
constexpr unsigned long long kPlainMarker = ~0ULL;
constexpr int kDefaultSecLevel = 9999;
constexpr int kDefaultMsgType = 1;
constexpr int kDefaultBodyType = 0;
constexpr int kKeyCount = int(sizeof(keyList) / sizeof(keyList[0]));

// The envelope's JSON document. The text is read as UTF-8 up to its first
// NUL; malformed sequences become U+FFFD as QString::fromUtf8 makes them,
// instead of failing the JSON parser. Well-formed text, the common case, is
// parsed as it is.
QJsonDocument envelopeDocument(QByteArray bytes)
{
    const int nul = bytes.indexOf('\0');
    if (nul >= 0)
        bytes.truncate(nul);
    QJsonParseError error{};
    QJsonDocument doc = JsonKeyCheck::parse(bytes, &error);
    if (error.error == QJsonParseError::IllegalUTF8String && !CompactJson::isUtf8(bytes.constData(), bytes.size()))
        doc = JsonKeyCheck::parse(QString::fromUtf8(bytes).toUtf8(), &error);
    return doc;
}

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
    PUSHCHAT_PROTOCOL_TRACE("MQTTMessage") << "client " << static_cast<const void *>(client);
}

MQTTMessage::~MQTTMessage() = default;

bool MQTTMessage::fromText(const QString &fromJid, const QString &toJid, const QString &text,
                           MediaInfo::MessageType type, int level, MESSAGE_BODY_TYPE kind,
                           const QString &key, const QString &stampText)
{
    PUSHCHAT_PROTOCOL_TRACE("fromText") << "from " << fromJid << " to " << toJid;
    if (protocol.code == 0)
        protocol.fromMessageProtocol(toJid.toUtf8().constData(), nullptr);
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
    json.append('{');
    CompactJson::appendKey(json, "b");
    CompactJson::appendString(json, body.c_str());
    json.append(',');
    CompactJson::appendKey(json, "bt");
    CompactJson::appendInt(json, bodyType);
    json.append(',');
    CompactJson::appendKey(json, "f");
    CompactJson::appendString(json, from.c_str());
    json.append(',');
    CompactJson::appendKey(json, "k");
    CompactJson::appendString(json, messageKey.c_str());
    json.append(',');
    CompactJson::appendKey(json, "p");
    CompactJson::appendString(json, p.c_str());
    json.append(',');
    CompactJson::appendKey(json, "s");
    CompactJson::appendInt(json, secLevel);
    json.append(',');
    CompactJson::appendKey(json, "st");
    CompactJson::appendString(json, stamp.c_str());
    json.append(',');
    CompactJson::appendKey(json, "t");
    CompactJson::appendString(json, to.c_str());
    json.append(',');
    CompactJson::appendKey(json, "v");
    CompactJson::appendInt(json, msgType);
    json.append('}');

    if (encrypted) {
        char letter = '\0';
        VantrelCrypt crypt(getKey(letter));
        const QByteArray cipherText = crypt.encryptToByteArray(json).toBase64();
        payload.assign(1, letter);
        payload.append(cipherText.constData(), std::size_t(cipherText.size()));
    } else {
        payload.assign(1, kPlainLetter);
        payload.append(json.constData(), std::size_t(json.size()));
    }
    return true;
}

bool MQTTMessage::send(int qos)
{
    if (pushClient == nullptr)
        return false;
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

    QByteArray text;
    if (key == kPlainMarker) {
        text = QByteArray(rest);
        encrypted = false;
    } else {
        VantrelCrypt crypt(key);
        const QByteArray plain =
            crypt.decryptToByteArray(Base64::decode(rest, int(std::strlen(rest))));
        if (!plain.isNull())
            text = plain;
        encrypted = true;
    }

    const QJsonDocument doc = envelopeDocument(text);
    if (!doc.isObject())
        return false;
    // One pass over the object (Qt keeps its keys sorted and unique);
    // missing or mistyped keys read as the defaults.
    messageKey.clear();
    p.clear();
    from.clear();
    to.clear();
    body.clear();
    stamp.clear();
    secLevel = kDefaultSecLevel;
    msgType = kDefaultMsgType;
    bodyType = kDefaultBodyType;
    const QJsonObject obj = doc.object();
    for (auto it = obj.constBegin(); it != obj.constEnd(); ++it) {
        const QString key = it.key();
        const QJsonValue value = it.value();
        if (key == QLatin1String("b"))
            body = value.isObject() ? QJsonDocument(value.toObject()).toJson().toStdString()
                                    : value.toString().toStdString();
        else if (key == QLatin1String("bt"))
            bodyType = value.toInt(kDefaultBodyType);
        else if (key == QLatin1String("f"))
            from = value.toString().toStdString();
        else if (key == QLatin1String("k"))
            messageKey = value.toString().toStdString();
        else if (key == QLatin1String("p"))
            p = value.toString().toStdString();
        else if (key == QLatin1String("s"))
            secLevel = value.toInt(kDefaultSecLevel);
        else if (key == QLatin1String("st"))
            stamp = value.toString().toStdString();
        else if (key == QLatin1String("t"))
            to = value.toString().toStdString();
        else if (key == QLatin1String("v"))
            msgType = value.toInt(kDefaultMsgType);
    }
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
