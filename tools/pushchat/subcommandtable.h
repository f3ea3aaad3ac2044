#ifndef PUSHCHAT_CLI_SUBCOMMANDTABLE_H
#define PUSHCHAT_CLI_SUBCOMMANDTABLE_H

// What the parsers of the client's subcommand requests (room, friend,
// history, rdp) share. Each request keeps its subcommands in a constant
// table: an array of entries, each with at least `name` (the word on the
// command line) and `action` (the request's enum value); find() and
// entryOf() look an entry up by the word typed or by the action parsed.
//
// The other functions are the error texts the parsers share: each sets
// `*error` to one line and returns false, so that a parser can write
// `return fail(error, ...)`. Nothing here keeps state; any thread may call.

#include <QString>
#include <QStringList>

#include <cstddef>
#include <limits>

namespace subcommand {

/// Sets `*error` to `message` and returns false.
bool fail(QString *error, const QString &message);
/// Whether `given` is from `minimum` to `maximum`; if not, false with
/// "'COMMAND SUBCOMMAND' takes N [or M] argument(s), GIVEN given: pushchat
/// [options] USAGE."
bool argumentCountFits(QString *error, const char *command, const char *subcommand, int given, int minimum, int maximum,
    const QString &usage);
/// Any int, as the `minimum` of number().
constexpr int kAnyInteger = std::numeric_limits<int>::min();
/// `text` as an integer of at least `minimum` in `*value`; the message
/// calls the value `name`.
bool number(const QString &text, const char *name, int minimum, int *value, QString *error);
/// "a, b or c".
QString joinNames(const QStringList &names);

/// The names in table order, for messages: "create, invite or kick".
template <typename Entry, std::size_t Count> QString namesOf(const Entry (&entries)[Count])
{
    QStringList names;
    for (const Entry &entry : entries)
        names.append(QLatin1String(entry.name));
    return joinNames(names);
}

/// The entry named by the first of `words`, or null with `*error` set (no
/// word, or an unknown one). `command` is the word before them ("room").
template <typename Entry, std::size_t Count>
const Entry *find(const char *command, const Entry (&entries)[Count], const QStringList &words, QString *error)
{
    if (words.isEmpty()) {
        fail(error, QStringLiteral("'%1' needs a subcommand: %2.").arg(QLatin1String(command), namesOf(entries)));
        return nullptr;
    }
    for (const Entry &entry : entries) {
        if (words.first() == QLatin1String(entry.name))
            return &entry;
    }
    fail(error, QStringLiteral("Unknown %1 subcommand '%2': use %3.")
                    .arg(QLatin1String(command), words.first(), namesOf(entries)));
    return nullptr;
}

/// The entry of `action` (the first one if no entry has it).
template <typename Entry, std::size_t Count, typename Action>
const Entry &entryOf(const Entry (&entries)[Count], Action action)
{
    for (const Entry &entry : entries) {
        if (entry.action == action)
            return entry;
    }
    return entries[0];
}

} // namespace subcommand

#endif // PUSHCHAT_CLI_SUBCOMMANDTABLE_H
