#include "clioptions.h"

#include <QCommandLineOption>
#include <QCommandLineParser>

#include <cmath>
#include <optional>

namespace {

const char *const kDescription =
    "Instant messaging from a terminal, over an MQTT broker.\n"
    "\n"
    "Commands:\n"
    "  listen                      log in and print every event as one JSON line\n"
    "                              on stdout until SIGINT or SIGTERM\n"
    "  send TO TEXT                send TEXT to user (or, with --room, room) TO\n"
    "  location TARGET FIRST SECOND  publish \"FIRST:SECOND\" for TARGET\n"
    "  status UUID STATUS          ask the server to set message UUID's status\n"
    "  room create ROOM NAME MEMBERS [--type N]\n"
    "                              ask the server for room ROOM named NAME with\n"
    "                              MEMBERS (user ids separated by commas) and you\n"
    "  room invite ROOM MEMBERS    ask the server to add MEMBERS to ROOM\n"
    "  room kick ROOM MEMBERS      ask the server to remove MEMBERS from ROOM\n"
    "  room rename ROOM NAME       ask the server to rename ROOM to NAME\n"
    "  room owner ROOM MEMBER      ask the server to make MEMBER the room's owner\n"
    "  room type ROOM N            ask the server to make ROOM of kind N\n"
    "  room destroy ROOM           ask the server to close ROOM\n"
    "\n"
    "ROOM is a room id; the room's JID is ROOM@<domain>. What the server makes\n"
    "of a room request shows in listen.\n"
    "\n"
    "send, location, status and room log in, wait for the connection, send, log\n"
    "out and exit 0 only when the request was published (room invite and room\n"
    "rename: when it was handed over while connected, as the library reports\n"
    "nothing more for them). Exit statuses: 0 done, 1 not published, 2 no\n"
    "connection within the timeout, 3 set-up failure, 64 usage error,\n"
    "130 interrupted.";

// Upper bound of --timeout, so that the milliseconds always fit.
constexpr double kMaxTimeoutSeconds = 24 * 3600;

// The options, declared once for parsing and for the help text.
struct OptionSet {
    QCommandLineOption host{QStringLiteral("host"), QStringLiteral("Broker host (default 127.0.0.1)."),
                            QStringLiteral("host"), QStringLiteral("127.0.0.1")};
    QCommandLineOption port{QStringLiteral("port"), QStringLiteral("Broker port (default 1883)."),
                            QStringLiteral("port"), QStringLiteral("1883")};
    QCommandLineOption user{QStringLiteral("user"), QStringLiteral("User id to log in as (required)."),
                            QStringLiteral("id")};
    QCommandLineOption domain{QStringLiteral("domain"),
                              QStringLiteral("JID domain (default: the host)."), QStringLiteral("domain")};
    QCommandLineOption level{QStringLiteral("level"),
                             QStringLiteral("Security level of the user, and of the message sent by send "
                                            "(default 0: reads every message of level 0 and above)."),
                             QStringLiteral("n"), QStringLiteral("0")};
    QCommandLineOption device{QStringLiteral("device"),
                              QStringLiteral("Device id (default: the id this installation keeps)."),
                              QStringLiteral("id")};
    QCommandLineOption serverJid{QStringLiteral("server-jid"),
                                 QStringLiteral("The IM server's JID (default: server@<domain>)."),
                                 QStringLiteral("jid")};
    QCommandLineOption timeout{QStringLiteral("timeout"),
                               QStringLiteral("Seconds to wait for the connection (default 10)."),
                               QStringLiteral("seconds"), QStringLiteral("10")};
    QCommandLineOption notice{QStringLiteral("notice"), QStringLiteral("send: send a notice, readable by all.")};
    QCommandLineOption room{QStringLiteral("room"), QStringLiteral("send: TO is a room.")};
    QCommandLineOption type{QStringLiteral("type"), QStringLiteral("room create: the room's kind (default 0)."),
                            QStringLiteral("n")};
    QCommandLineOption help{QStringList{QStringLiteral("h"), QStringLiteral("help")},
                            QStringLiteral("Show this help.")};

    void addTo(QCommandLineParser &parser) const
    {
        parser.setApplicationDescription(QString::fromUtf8(kDescription));
        parser.addOptions({host, port, user, domain, level, device, serverJid, timeout, notice, room, type, help});
        parser.addPositionalArgument(QStringLiteral("command"),
                                     QStringLiteral("listen, send, location, status or room."),
                                     QStringLiteral("command [arguments...]"));
    }
};

struct CommandSpec {
    const char *name;
    CliOptions::Command command;
    int argumentCount;
    const char *usage;
};

const CommandSpec kCommands[] = {
    {"listen", CliOptions::Command::Listen, 0, "listen"},
    {"send", CliOptions::Command::Send, 2, "send TO TEXT"},
    {"location", CliOptions::Command::Location, 3, "location TARGET FIRST SECOND"},
    {"status", CliOptions::Command::Status, 2, "status UUID STATUS"},
    {"room", CliOptions::Command::Room, -1, "room SUBCOMMAND ARGUMENTS..."}, // checked by RoomRequest
};

bool toInt(const QString &text, int *value)
{
    bool ok = false;
    *value = text.toInt(&ok);
    return ok;
}

} // namespace

QString CliOptions::helpText()
{
    QCommandLineParser parser;
    OptionSet options;
    options.addTo(parser);
    // Qt names the program as it was invoked (a path, often); the help
    // names it as installed.
    QString text = parser.helpText();
    const QString usage = QStringLiteral("Usage: ");
    const int end = text.indexOf(QLatin1String(" [options]"));
    if (text.startsWith(usage) && end > usage.size())
        text.replace(usage.size(), end - usage.size(), QStringLiteral("pushchat"));
    return text;
}

bool CliOptions::fail(const QString &message)
{
    m_error = message;
    return false;
}

bool CliOptions::parse(const QStringList &arguments)
{
    QCommandLineParser parser;
    OptionSet options;
    options.addTo(parser);
    if (!parser.parse(arguments))
        return fail(parser.errorText() + QStringLiteral(" See --help."));
    if (parser.isSet(options.help)) {
        m_help = true;
        return true;
    }

    m_host = parser.value(options.host);
    if (m_host.isEmpty())
        return fail(QStringLiteral("--host must not be empty."));
    if (!toInt(parser.value(options.port), &m_port) || m_port < 1 || m_port > 65535)
        return fail(QStringLiteral("--port must be a number from 1 to 65535, not '%1'.")
                        .arg(parser.value(options.port)));
    if (!toInt(parser.value(options.level), &m_level))
        return fail(QStringLiteral("--level must be an integer, not '%1'.").arg(parser.value(options.level)));
    bool ok = false;
    const double seconds = parser.value(options.timeout).toDouble(&ok);
    if (!ok || !std::isfinite(seconds) || seconds <= 0 || seconds > kMaxTimeoutSeconds)
        return fail(QStringLiteral("--timeout must be a number of seconds above 0 and at most 86400, not '%1'.")
                        .arg(parser.value(options.timeout)));
    m_timeout = std::chrono::milliseconds(static_cast<long long>(std::ceil(seconds * 1000)));
    m_domain = parser.value(options.domain);
    m_deviceId = parser.value(options.device).toStdString();
    m_serverJid = parser.value(options.serverJid);
    m_notice = parser.isSet(options.notice);
    m_room = parser.isSet(options.room);

    QStringList positional = parser.positionalArguments();
    if (positional.isEmpty())
        return fail(QStringLiteral("Missing command: listen, send, location, status or room. See --help."));
    const QString name = positional.takeFirst();
    const CommandSpec *entry = nullptr;
    for (const CommandSpec &candidate : kCommands) {
        if (name == QLatin1String(candidate.name))
            entry = &candidate;
    }
    if (!entry)
        return fail(QStringLiteral("Unknown command '%1': use listen, send, location, status or room.").arg(name));
    if (entry->argumentCount >= 0 && positional.size() != entry->argumentCount)
        return fail(QStringLiteral("'%1' takes %2 argument(s), %3 given: pushchat [options] %4.")
                        .arg(name)
                        .arg(entry->argumentCount)
                        .arg(positional.size())
                        .arg(QLatin1String(entry->usage)));
    m_command = entry->command;
    m_arguments = positional;

    if (m_command != Command::Send && (m_notice || m_room))
        return fail(QStringLiteral("--notice and --room apply to send only."));
    if (m_command == Command::Status && !toInt(m_arguments.at(1), &m_status))
        return fail(QStringLiteral("STATUS must be an integer, not '%1'.").arg(m_arguments.at(1)));
    std::optional<QString> type;
    if (parser.isSet(options.type))
        type = parser.value(options.type);
    if (m_command != Command::Room && type)
        return fail(QStringLiteral("--type applies to room create only."));
    QString roomError;
    if (m_command == Command::Room && !m_roomRequest.parse(m_arguments, type, &roomError))
        return fail(roomError);

    m_user = parser.value(options.user);
    if (m_user.isEmpty())
        return fail(QStringLiteral("Missing --user: the user id to log in as."));
    return true;
}
