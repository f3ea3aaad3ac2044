#include "subcommandtable.h"

namespace subcommand {

bool fail(QString *error, const QString &message)
{
    *error = message;
    return false;
}

bool argumentCountFits(QString *error, const char *command, const char *subcommand, int given, int minimum, int maximum,
    const QString &usage)
{
    if (given >= minimum && given <= maximum)
        return true;
    const QString wanted =
        minimum == maximum ? QString::number(minimum) : QStringLiteral("%1 or %2").arg(minimum).arg(maximum);
    return fail(error, QStringLiteral("'%1 %2' takes %3 argument(s), %4 given: pushchat [options] %5.")
                           .arg(QLatin1String(command), QLatin1String(subcommand), wanted)
                           .arg(given)
                           .arg(usage));
}

bool number(const QString &text, const char *name, int minimum, int *value, QString *error)
{
    bool ok = false;
    *value = text.toInt(&ok);
    if (ok && *value >= minimum)
        return true;
    if (minimum == kAnyInteger)
        return fail(error, QStringLiteral("%1 must be an integer, not '%2'.").arg(QLatin1String(name), text));
    return fail(error, QStringLiteral("%1 must be a whole number of %2 or more, not '%3'.")
                           .arg(QLatin1String(name))
                           .arg(minimum)
                           .arg(text));
}

QString joinNames(const QStringList &names)
{
    if (names.size() < 2)
        return names.join(QString());
    return names.mid(0, names.size() - 1).join(QLatin1String(", ")) + QLatin1String(" or ") + names.last();
}

} // namespace subcommand
