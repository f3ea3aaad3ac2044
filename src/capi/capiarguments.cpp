// Named JSON arguments of the C interface, checked; see capiarguments.h.

#include "capiarguments.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

bool isInteger(const QJsonValue &value)
{
    if (!value.isDouble())
        return false;
    const double number = value.toDouble();
    return std::floor(number) == number && number >= std::numeric_limits<int>::min() &&
           number <= std::numeric_limits<int>::max();
}

bool isNames(const QJsonValue &value)
{
    if (value.isString())
        return true;
    if (!value.isArray())
        return false;
    for (const QJsonValue &name : value.toArray())
        if (!name.isString())
            return false;
    return true;
}

const char *expected(CapiArguments::Type type)
{
    switch (type) {
    case CapiArguments::Type::Text:
        return "a string";
    case CapiArguments::Type::Integer:
        return "an integer";
    case CapiArguments::Type::Flag:
        return "true or false";
    case CapiArguments::Type::Names:
        return "a string or an array of strings";
    case CapiArguments::Type::Any:
        break;
    }
    return "anything";
}

bool fits(CapiArguments::Type type, const QJsonValue &value)
{
    switch (type) {
    case CapiArguments::Type::Text:
        return value.isString();
    case CapiArguments::Type::Integer:
        return isInteger(value);
    case CapiArguments::Type::Flag:
        return value.isBool();
    case CapiArguments::Type::Names:
        return isNames(value);
    case CapiArguments::Type::Any:
        break;
    }
    return true;
}

} // namespace

bool CapiArguments::parse(const char *text, CapiArguments &arguments, QString &error)
{
    // strnlen: a text without its NUL within the limit is not read past it.
    const std::size_t length = strnlen(text, MAX_TEXT_BYTES + 1);
    if (length > MAX_TEXT_BYTES) {
        error = QStringLiteral("longer than %1 bytes").arg(MAX_TEXT_BYTES);
        return false;
    }
    QJsonParseError parseError{};
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray::fromRawData(text, static_cast<int>(length)), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        error = QStringLiteral("not JSON: %1 at offset %2").arg(parseError.errorString()).arg(parseError.offset);
        return false;
    }
    if (!document.isObject()) {
        error = QStringLiteral("not a JSON object");
        return false;
    }
    arguments = CapiArguments(document.object());
    return true;
}

QString CapiArguments::check(
    const QString &context, const std::vector<Field> &fields, const std::vector<const char *> &also) const
{
    for (const Field &field : fields) {
        const QJsonValue value = this->value(field.name);
        if (value.isUndefined()) {
            if (field.required)
                return QStringLiteral("%1: \"%2\" is missing").arg(context, QLatin1String(field.name));
        } else if (!fits(field.type, value)) {
            return QStringLiteral("%1: \"%2\" must be %3")
                .arg(context, QLatin1String(field.name), QLatin1String(expected(field.type)));
        }
    }
    for (auto it = m_object.begin(); it != m_object.end(); ++it) {
        bool known = false;
        for (const Field &field : fields)
            known = known || it.key() == QLatin1String(field.name);
        for (const char *name : also)
            known = known || it.key() == QLatin1String(name);
        if (!known)
            return QStringLiteral("%1: unknown field \"%2\"").arg(context, it.key());
    }
    return QString();
}

QString CapiArguments::text(const char *name, const QString &fallback) const
{
    const QJsonValue value = this->value(name);
    return value.isString() ? value.toString() : fallback;
}

int CapiArguments::integer(const char *name, int fallback) const
{
    const QJsonValue value = this->value(name);
    return isInteger(value) ? static_cast<int>(value.toDouble()) : fallback;
}

bool CapiArguments::flag(const char *name, bool fallback) const
{
    const QJsonValue value = this->value(name);
    return value.isBool() ? value.toBool() : fallback;
}

QString CapiArguments::names(const char *name) const
{
    const QJsonValue value = this->value(name);
    if (!value.isArray())
        return value.toString();
    QStringList list;
    for (const QJsonValue &item : value.toArray())
        list << item.toString();
    return list.join(QLatin1Char(','));
}
