#include "compactjson.h"

#include <QJsonDocument>
#include <QString>

#include <cstring>

namespace {

char hexDigit(unsigned int v)
{
    return char(v < 10 ? '0' + v : 'a' + v - 10);
}

// Text that is already valid UTF-8: only ASCII needs escaping.
void appendEscaped(QByteArray &out, const char *s, int n)
{
    out.reserve(out.size() + n + 2);
    int run = 0; // start of the pending run of bytes copied as they are
    for (int i = 0; i < n; ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c != '"' && c != '\\')
            continue;
        out.append(s + run, i - run);
        run = i + 1;
        out.append('\\');
        switch (c) {
        case '"': out.append('"'); break;
        case '\\': out.append('\\'); break;
        case '\b': out.append('b'); break;
        case '\f': out.append('f'); break;
        case '\n': out.append('n'); break;
        case '\r': out.append('r'); break;
        case '\t': out.append('t'); break;
        default: {
            const char u[] = { 'u', '0', '0', hexDigit(c >> 4), hexDigit(c & 0xF) };
            out.append(u, int(sizeof(u)));
        }
        }
    }
    out.append(s + run, n - run);
}

} // namespace

void CompactJson::appendKey(QByteArray &out, const char *key)
{
    out.append('"');
    out.append(key);
    out.append("\":", 2);
}

void CompactJson::appendString(QByteArray &out, const char *utf8)
{
    const int n = int(std::strlen(utf8));
    out.append('"');
    if (isUtf8(utf8, n)) {
        appendEscaped(out, utf8, n);
    } else {
        const QByteArray decoded = QString::fromUtf8(utf8, n).toUtf8();
        appendEscaped(out, decoded.constData(), decoded.size());
    }
    out.append('"');
}

void CompactJson::appendInt(QByteArray &out, int value)
{
    out.append(QByteArray::number(value));
}

bool CompactJson::isUtf8(const char *data, int n)
{
    const auto *s = reinterpret_cast<const unsigned char *>(data);
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

QString CompactJson::text(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}
