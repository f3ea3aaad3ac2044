#include "jidrefusal.h"

#include "jid.h"

QString JidRefusal::of(std::string_view jid, const char *what, bool optional)
{
    const Jid::Problem problem = optional && jid.empty() ? Jid::Problem::None : Jid::check(jid);
    if (problem == Jid::Problem::None)
        return QString();
    return QStringLiteral("%1 %2 %3").arg(QLatin1String(what), shown(jid), QLatin1String(Jid::describe(problem)));
}

QString JidRefusal::of(const QString &jid, const char *what, bool optional)
{
    const QByteArray utf8 = jid.toUtf8();
    return of(std::string_view(utf8.constData(), std::size_t(utf8.size())), what, optional);
}

QString JidRefusal::shown(std::string_view text)
{
    constexpr std::size_t kShown = 64;
    const std::string_view start = text.substr(0, kShown);
    return QLatin1Char('\'') + QString::fromUtf8(start.data(), int(start.size())) +
           (text.size() > kShown ? QStringLiteral("...'") : QStringLiteral("'"));
}
