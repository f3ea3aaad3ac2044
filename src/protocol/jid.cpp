#include "jid.h"

#include "compactjson.h"

namespace {

Jid::Problem checkBytes(std::string_view text, bool part)
{
    if (text.empty())
        return Jid::Problem::Empty;
    if (text.size() > std::size_t(Jid::MAX_BYTES))
        return Jid::Problem::TooLong;
    if (!CompactJson::isUtf8(text.data(), int(text.size())))
        return Jid::Problem::NotUtf8;
    // Valid UTF-8: every byte below 0x80 is a character of its own, and C1
    // controls are the two-byte sequences C2 80 to C2 9F.
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F || (c == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0))
            return Jid::Problem::ControlCharacter;
        if (c == '+' || c == '#')
            return Jid::Problem::Wildcard;
        if (c == '/')
            return Jid::Problem::LevelSeparator;
        if (part && c == '@')
            return Jid::Problem::At;
    }
    return Jid::Problem::None;
}

Jid::Problem checkText(const QString &text, bool part)
{
    if (!text.isEmpty() && !text.isValidUtf16())
        return Jid::Problem::NotUtf8;
    const QByteArray utf8 = text.toUtf8();
    return checkBytes(std::string_view(utf8.constData(), std::size_t(utf8.size())), part);
}

} // namespace

Jid::Problem Jid::check(std::string_view jid)
{
    return checkBytes(jid, false);
}

Jid::Problem Jid::check(const QString &jid)
{
    return checkText(jid, false);
}

Jid::Problem Jid::checkPart(std::string_view part)
{
    return checkBytes(part, true);
}

Jid::Problem Jid::checkPart(const QString &part)
{
    return checkText(part, true);
}

const char *Jid::describe(Problem problem)
{
    switch (problem) {
    case Problem::None:
        return "";
    case Problem::Empty:
        return "is empty";
    case Problem::TooLong:
        return "is longer than 256 bytes";
    case Problem::NotUtf8:
        return "is not valid UTF-8";
    case Problem::ControlCharacter:
        return "holds a control character";
    case Problem::Wildcard:
        return "holds an MQTT wildcard ('+' or '#')";
    case Problem::LevelSeparator:
        return "holds '/'";
    case Problem::At:
        return "holds '@'";
    }
    return "is not valid";
}
