#include "compactjson.h"

#include <QJsonDocument>
#include <QString>
#include <QtAlgorithms>
#include <QtEndian>

#include <charconv>
#include <cstring>

namespace {

char hexDigit(unsigned int v)
{
    return char(v < 10 ? '0' + v : 'a' + v - 10);
}

// Length of the well-formed UTF-8 sequence at s[0] (lead byte >= 0x80), or
// 0 when it is malformed (overlong, surrogate, above U+10FFFF, cut short).
int utf8SequenceLength(const unsigned char *s, int available)
{
    const unsigned char c = s[0];
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
        return 0;
    }
    if (available <= extra)
        return 0;
    for (int k = 1; k <= extra; ++k) {
        if ((s[k] & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (s[k] & 0x3Fu);
    }
    if ((extra == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
        (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
        return 0;
    return extra + 1;
}

// Appends the escaped text in one pass; false (with `out` partly written)
// when the text is not well-formed UTF-8. Only ASCII needs escaping.
bool appendEscaped(QByteArray &out, const char *s, int n)
{
    const auto *u = reinterpret_cast<const unsigned char *>(s);
    out.reserve(out.size() + n + 2);
    int run = 0; // start of the pending run of bytes copied as they are
    int i = 0;
    while (i < n) {
        i += CompactJson::plainPrefix(s + i, n - i);
        if (i == n)
            break;
        const unsigned char c = u[i];
        if (c >= 0x80) {
            const int len = utf8SequenceLength(u + i, n - i);
            if (len == 0)
                return false;
            i += len;
            continue;
        }
        if (c >= 0x20 && c != '"' && c != '\\') {
            ++i;
            continue;
        }
        out.append(s + run, i - run);
        run = ++i;
        out.append('\\');
        switch (c) {
        case '"':
            out.append('"');
            break;
        case '\\':
            out.append('\\');
            break;
        case '\b':
            out.append('b');
            break;
        case '\f':
            out.append('f');
            break;
        case '\n':
            out.append('n');
            break;
        case '\r':
            out.append('r');
            break;
        case '\t':
            out.append('t');
            break;
        default: {
            const char esc[] = { 'u', '0', '0', hexDigit(c >> 4), hexDigit(c & 0xF) };
            out.append(esc, int(sizeof(esc)));
        }
        }
    }
    out.append(s + run, n - run);
    return true;
}

} // namespace

void CompactJson::appendString(QByteArray &out, const char *utf8)
{
    const int n = int(std::strlen(utf8));
    const int start = out.size();
    out.append('"');
    if (!appendEscaped(out, utf8, n)) {
        // Malformed UTF-8: what Qt writes for the text QString::fromUtf8 makes.
        out.truncate(start + 1);
        const QByteArray decoded = QString::fromUtf8(utf8, n).toUtf8();
        appendEscaped(out, decoded.constData(), decoded.size());
    }
    out.append('"');
}

void CompactJson::appendInt(QByteArray &out, int value)
{
    char digits[16];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), value);
    out.append(digits, int(end.ptr - digits));
}

bool CompactJson::isUtf8(const char *data, int n)
{
    const auto *s = reinterpret_cast<const unsigned char *>(data);
    int i = 0;
    while (i < n) {
        if (s[i] < 0x80) {
            ++i;
            continue;
        }
        const int len = utf8SequenceLength(s + i, n - i);
        if (len == 0)
            return false;
        i += len;
    }
    return true;
}

int CompactJson::plainPrefix(const char *data, int size)
{
    constexpr quint64 ones = 0x0101010101010101ULL, highs = 0x8080808080808080ULL;
    int i = 0;
    for (; i + 8 <= size; i += 8) {
        const quint64 w = qFromLittleEndian<quint64>(data + i);
        // A byte's high bit is set in `flags` where it is 0x80 or above, below
        // 0x20, '"' or '\\'; the lowest flagged byte is always a true one
        // (the subtractions only borrow upwards from a flagged byte).
        const quint64 quote = w ^ (ones * '"'), backslash = w ^ (ones * '\\');
        const quint64 flags =
            (w | ((w - ones * 0x20) & ~w) | ((quote - ones) & ~quote) | ((backslash - ones) & ~backslash)) & highs;
        if (flags != 0)
            return i + int(qCountTrailingZeroBits(flags) / 8);
    }
    for (; i < size; ++i) {
        const auto c = static_cast<unsigned char>(data[i]);
        if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\')
            break;
    }
    return i;
}

QString CompactJson::text(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}
