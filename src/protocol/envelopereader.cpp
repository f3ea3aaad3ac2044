#include "envelopereader.h"

#include "compactjson.h"
#include "jsonhex.h"
#include "jsonkeycheck.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <climits>
#include <cstring>

namespace {

// The keys in the order Qt writes them (sorted); the index is the key's rank.
enum Key {
    KeyB,
    KeyBt,
    KeyF,
    KeyK,
    KeyP,
    KeyS,
    KeySt,
    KeyT,
    KeyV,
    KeyNone
};

// Reads a key name at json[pos] (after its opening quote) up to the closing
// quote; only our nine plain names are known.
Key readKey(const char *s, std::size_t n, std::size_t &pos)
{
    const std::size_t start = pos;
    while (pos < n && s[pos] != '"') {
        if (s[pos] < 'a' || s[pos] > 'z' || pos - start > 1)
            return KeyNone;
        ++pos;
    }
    if (pos >= n)
        return KeyNone;
    const std::size_t len = pos - start;
    ++pos; // closing quote
    const char a = s[start], b = len == 2 ? s[start + 1] : '\0';
    if (len == 1) {
        switch (a) {
        case 'b':
            return KeyB;
        case 'f':
            return KeyF;
        case 'k':
            return KeyK;
        case 'p':
            return KeyP;
        case 's':
            return KeyS;
        case 't':
            return KeyT;
        case 'v':
            return KeyV;
        default:
            return KeyNone;
        }
    }
    if (len == 2 && a == 'b' && b == 't')
        return KeyBt;
    if (len == 2 && a == 's' && b == 't')
        return KeySt;
    return KeyNone;
}

void appendUtf8(std::string &out, unsigned int cp)
{
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

// Reads the string whose opening quote is at json[pos] into `out`, decoding
// escapes; pos ends after the closing quote. False for anything the direct
// reader leaves to Qt: raw control characters, malformed UTF-8, unknown
// escapes, lone surrogates, and a raw byte-order mark at the start of the
// string (Qt drops it).
bool readString(const char *s, std::size_t n, std::size_t &pos, std::string &out)
{
    if (pos >= n || s[pos] != '"')
        return false;
    ++pos;
    if (n - pos >= 3 && std::memcmp(s + pos, "\xef\xbb\xbf", 3) == 0)
        return false;
    out.clear();
    std::size_t run = pos; // start of the bytes not yet copied
    while (pos < n) {
        pos += std::size_t(CompactJson::plainPrefix(s + pos, int(n - pos)));
        if (pos == n)
            break;
        const auto c = static_cast<unsigned char>(s[pos]);
        if (c == '"') {
            out.append(s + run, pos - run);
            ++pos;
            return true;
        }
        if (c < 0x20)
            return false;
        if (c >= 0x80) {
            // One UTF-8 sequence, checked the strict way.
            const std::size_t len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
            if (n - pos < len || !CompactJson::isUtf8(s + pos, int(len)))
                return false;
            pos += len;
            continue;
        }
        // A backslash: plainPrefix stops at nothing else.
        out.append(s + run, pos - run);
        if (n - pos < 2)
            return false;
        const char e = s[pos + 1];
        pos += 2;
        switch (e) {
        case '"':
            out += '"';
            break;
        case '\\':
            out += '\\';
            break;
        case '/':
            out += '/';
            break;
        case 'b':
            out += '\b';
            break;
        case 'f':
            out += '\f';
            break;
        case 'n':
            out += '\n';
            break;
        case 'r':
            out += '\r';
            break;
        case 't':
            out += '\t';
            break;
        case 'u': {
            unsigned int unit = 0;
            if (!JsonHex::readUnit(s, n, pos, unit))
                return false;
            pos += 4;
            if (unit >= 0xDC00 && unit <= 0xDFFF)
                return false;
            if (unit >= 0xD800 && unit <= 0xDBFF) {
                unsigned int low = 0;
                if (n - pos < 6 || s[pos] != '\\' || s[pos + 1] != 'u' || !JsonHex::readUnit(s, n, pos + 2, low) ||
                    low < 0xDC00 || low > 0xDFFF)
                    return false;
                pos += 6;
                unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
            }
            appendUtf8(out, unit);
            break;
        }
        default:
            return false;
        }
        run = pos;
    }
    return false;
}

// A plain integer in int range: -?(0|[1-9][0-9]*), no fraction, no
// exponent, not "-0". Other numbers (and other types) go to Qt.
bool readInt(const char *s, std::size_t n, std::size_t &pos, int &value)
{
    const bool negative = pos < n && s[pos] == '-';
    if (negative)
        ++pos;
    const std::size_t start = pos;
    long long v = 0;
    while (pos < n && s[pos] >= '0' && s[pos] <= '9') {
        if (pos - start >= 10)
            return false;
        v = v * 10 + (s[pos] - '0');
        ++pos;
    }
    const std::size_t digits = pos - start;
    if (digits == 0 || (s[start] == '0' && (digits > 1 || negative)))
        return false;
    if (negative)
        v = -v;
    if (v < INT_MIN || v > INT_MAX)
        return false;
    value = int(v);
    return true;
}

} // namespace

bool EnvelopeReader::read(const char *json, std::size_t size, Fields &out)
{
    if (readCompact(json, size, out))
        return true;
    out = Fields();
    return readDocument(QByteArray::fromRawData(json, int(size)), out);
}

bool EnvelopeReader::readCompact(const char *s, std::size_t n, Fields &out)
{
    out = Fields();
    std::size_t pos = 0;
    if (n < 2 || s[pos++] != '{')
        return false;
    if (s[pos] == '}')
        return pos + 1 == n;
    int last = -1;
    for (;;) {
        if (pos >= n || s[pos] != '"')
            return false;
        ++pos;
        const Key key = readKey(s, n, pos);
        if (key == KeyNone || int(key) <= last || pos >= n || s[pos] != ':')
            return false;
        last = int(key);
        ++pos;
        bool ok = false;
        switch (key) {
        case KeyB:
            ok = readString(s, n, pos, out.body);
            break;
        case KeyF:
            ok = readString(s, n, pos, out.from);
            break;
        case KeyK:
            ok = readString(s, n, pos, out.messageKey);
            break;
        case KeyP:
            ok = readString(s, n, pos, out.p);
            break;
        case KeySt:
            ok = readString(s, n, pos, out.stamp);
            break;
        case KeyT:
            ok = readString(s, n, pos, out.to);
            break;
        case KeyBt:
            ok = readInt(s, n, pos, out.bodyType);
            break;
        case KeyS:
            ok = readInt(s, n, pos, out.secLevel);
            break;
        case KeyV:
            ok = readInt(s, n, pos, out.msgType);
            break;
        case KeyNone:
            break;
        }
        if (!ok || pos >= n)
            return false;
        if (s[pos] == '}')
            return pos + 1 == n;
        if (s[pos] != ',')
            return false;
        ++pos;
    }
}

bool EnvelopeReader::readDocument(const QByteArray &json, Fields &out)
{
    QJsonParseError error{};
    QJsonDocument doc = JsonKeyCheck::parse(json, &error);
    if (error.error == QJsonParseError::IllegalUTF8String && !CompactJson::isUtf8(json.constData(), json.size()))
        doc = JsonKeyCheck::parse(QString::fromUtf8(json).toUtf8(), &error);
    if (!doc.isObject())
        return false;
    // One pass over the object (Qt keeps its keys sorted and unique).
    const QJsonObject obj = doc.object();
    for (auto it = obj.constBegin(); it != obj.constEnd(); ++it) {
        const QString key = it.key();
        const QJsonValue value = it.value();
        if (key == QLatin1String("b"))
            out.body = value.isObject() ? QJsonDocument(value.toObject()).toJson().toStdString()
                                        : value.toString().toStdString();
        else if (key == QLatin1String("bt"))
            out.bodyType = value.toInt(Fields::defaultBodyType);
        else if (key == QLatin1String("f"))
            out.from = value.toString().toStdString();
        else if (key == QLatin1String("k"))
            out.messageKey = value.toString().toStdString();
        else if (key == QLatin1String("p"))
            out.p = value.toString().toStdString();
        else if (key == QLatin1String("s"))
            out.secLevel = value.toInt(Fields::defaultSecLevel);
        else if (key == QLatin1String("st"))
            out.stamp = value.toString().toStdString();
        else if (key == QLatin1String("t"))
            out.to = value.toString().toStdString();
        else if (key == QLatin1String("v"))
            out.msgType = value.toInt(Fields::defaultMsgType);
    }
    return true;
}
