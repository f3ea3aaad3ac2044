#include "jsonkeycheck.h"

#include "jsonhex.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

void appendUtf16(std::u16string &out, char32_t cp)
{
    if (cp >= 0x10000) {
        cp -= 0x10000;
        out += char16_t(0xD800 + (cp >> 10));
        out += char16_t(0xDC00 + (cp & 0x3FF));
    } else {
        out += char16_t(cp);
    }
}

// Reads the string that starts at json[pos] == '"' into UTF-16 code units,
// as a JSON parser decodes it. Returns the position after the closing quote,
// or npos when the text ends first.
std::size_t readString(std::string_view json, std::size_t pos, std::u16string &out)
{
    out.clear();
    ++pos;
    while (pos < json.size()) {
        const auto c = static_cast<unsigned char>(json[pos]);
        if (c == '"')
            return pos + 1;
        if (c == '\\') {
            if (pos + 1 >= json.size())
                return std::string_view::npos;
            const char e = json[pos + 1];
            pos += 2;
            switch (e) {
            case 'b':
                out += u'\b';
                break;
            case 'f':
                out += u'\f';
                break;
            case 'n':
                out += u'\n';
                break;
            case 'r':
                out += u'\r';
                break;
            case 't':
                out += u'\t';
                break;
            case 'u': {
                unsigned int unit = 0;
                if (!JsonHex::readUnit(json.data(), json.size(), pos, unit))
                    return std::string_view::npos;
                out += char16_t(unit);
                pos += 4;
                break;
            }
            default:
                out += char16_t(static_cast<unsigned char>(e));
                break;
            }
            continue;
        }
        // A UTF-8 sequence, decoded leniently: the caller hands in
        // well-formed UTF-8.
        int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        char32_t cp = extra == 3 ? (c & 0x07u) : extra == 2 ? (c & 0x0Fu) : extra == 1 ? (c & 0x1Fu) : c;
        ++pos;
        for (; extra > 0 && pos < json.size(); --extra, ++pos)
            cp = (cp << 6) | (static_cast<unsigned char>(json[pos]) & 0x3Fu);
        appendUtf16(out, cp);
    }
    return std::string_view::npos;
}

} // namespace

bool JsonKeyCheck::isFlat(std::string_view json)
{
    if (json.find('[') != std::string_view::npos)
        return false;
    const std::size_t first = json.find('{');
    return first == std::string_view::npos || json.find('{', first + 1) == std::string_view::npos;
}

bool JsonKeyCheck::hasRepeatedKey(std::string_view json)
{
    struct Level {
        bool object;
        std::vector<std::u16string> keys;
    };
    std::vector<Level> levels;
    std::u16string text;
    bool expectKey = false; // inside an object, where a string is a key
    std::size_t pos = 0;
    while (pos < json.size()) {
        const char c = json[pos];
        switch (c) {
        case '{':
            levels.push_back({ true, {} });
            expectKey = true;
            ++pos;
            break;
        case '[':
            levels.push_back({ false, {} });
            expectKey = false;
            ++pos;
            break;
        case '}':
        case ']':
            if (!levels.empty())
                levels.pop_back();
            expectKey = false;
            ++pos;
            break;
        case ',':
            expectKey = !levels.empty() && levels.back().object;
            ++pos;
            break;
        case '"': {
            pos = readString(json, pos, text);
            if (pos == std::string_view::npos)
                return false;
            if (expectKey && !levels.empty()) {
                std::vector<std::u16string> &keys = levels.back().keys;
                if (std::find(keys.begin(), keys.end(), text) != keys.end())
                    return true;
                keys.push_back(text);
                expectKey = false;
            }
            break;
        }
        default:
            ++pos;
        }
    }
    return false;
}

QJsonDocument JsonKeyCheck::parse(const QByteArray &json, QJsonParseError *error)
{
    const std::string_view text(json.constData(), std::size_t(json.size()));
    if (!isFlat(text) && hasRepeatedKey(text)) {
        if (error != nullptr)
            *error = QJsonParseError{};
        return QJsonDocument();
    }
    return QJsonDocument::fromJson(json, error);
}
