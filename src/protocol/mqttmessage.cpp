// Message envelope: building, enciphering, publishing and reading payloads.

#include "mqttmessage.h"

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

// Whether `data` is well-formed UTF-8 (no overlongs, no surrogates).
bool isUtf8(const QByteArray &data)
{
    const auto *s = reinterpret_cast<const unsigned char *>(data.constData());
    const int n = data.size();
    int i = 0;
    while (i < n) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        int extra = 0;
        unsigned int cp = 0;
        if (c >= 0xC2 && c <= 0xDF) {
            extra = 1;
            cp = c & 0x1Fu;
        } else if (c >= 0xE0 && c <= 0xEF) {
            extra = 2;
            cp = c & 0x0Fu;
        } else if (c >= 0xF0 && c <= 0xF4) {
            extra = 3;
            cp = c & 0x07u;
        } else {
            return false;
        }
        if (n - i <= extra)
            return false;
        for (int k = 1; k <= extra; ++k) {
            if ((s[i + k] & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (s[i + k] & 0x3Fu);
        }
        if ((extra == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
            (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
            return false;
        i += extra + 1;
    }
    return true;
}

// The envelope's JSON text as Qt would have it after decoding it as UTF-8:
// malformed sequences become U+FFFD instead of failing the JSON parser.
QByteArray asUtf8Text(QByteArray bytes)
{
    const int nul = bytes.indexOf('\0');
    if (nul >= 0)
        bytes.truncate(nul);
    if (isUtf8(bytes))
        return bytes;
    return QString::fromUtf8(bytes).toUtf8();
}

std::string stringField(const QJsonObject &obj, QLatin1String key)
{
    return obj.value(key).toString().toStdString();
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

    // Strings go into the JSON up to their first NUL byte.
    auto str = [](const std::string &s) { return QJsonValue(QString::fromUtf8(s.c_str())); };
    QJsonObject obj;
    obj.insert(QLatin1String("k"), str(messageKey));
    obj.insert(QLatin1String("p"), str(p));
    obj.insert(QLatin1String("s"), secLevel);
    obj.insert(QLatin1String("f"), str(from));
    obj.insert(QLatin1String("t"), str(to));
    obj.insert(QLatin1String("v"), msgType);
    obj.insert(QLatin1String("b"), str(body));
    obj.insert(QLatin1String("bt"), bodyType);
    obj.insert(QLatin1String("st"), str(stamp));
    const QByteArray json = QJsonDocument(obj).toJson(QJsonDocument::Compact);

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
            crypt.decryptToByteArray(QByteArray::fromBase64(QByteArray::fromRawData(rest, int(std::strlen(rest)))));
        if (!plain.isNull())
            text = plain;
        encrypted = true;
    }

    const QJsonDocument doc = QJsonDocument::fromJson(asUtf8Text(text));
    if (!doc.isObject())
        return false;
    const QJsonObject obj = doc.object();
    messageKey = stringField(obj, QLatin1String("k"));
    p = stringField(obj, QLatin1String("p"));
    secLevel = obj.value(QLatin1String("s")).toInt(kDefaultSecLevel);
    from = stringField(obj, QLatin1String("f"));
    to = stringField(obj, QLatin1String("t"));
    msgType = obj.value(QLatin1String("v")).toInt(kDefaultMsgType);
    const QJsonValue b = obj.value(QLatin1String("b"));
    body = b.isObject() ? QJsonDocument(b.toObject()).toJson().toStdString() : b.toString().toStdString();
    bodyType = obj.value(QLatin1String("bt")).toInt(kDefaultBodyType);
    stamp = stringField(obj, QLatin1String("st"));
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
