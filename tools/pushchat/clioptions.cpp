#include "clioptions.h"

#include "connectionoptions.h"

#include <pushchat/jid.h>

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QUrl>

#include <cmath>
#include <optional>
#include <vector>

namespace {

const char *const kDescription =
    "Instant messaging from a terminal, over an MQTT broker.\n"
    "\n"
    "Commands:\n"
    "  listen [--save-images]      log in and print every event as one JSON line\n"
    "                              on stdout until SIGINT or SIGTERM\n"
    "  send TO TEXT                send TEXT to user (or, with --room, room) TO;\n"
    "                              TEXT \"-\": the text on standard input\n"
    "  send --text-file PATH TO    send the text of file PATH (UTF-8, at most 2 MiB)\n"
    "  send --image PATH TO        send the image file PATH, carried in the message\n"
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
    "  friend add JID [TEXT]       ask JID to become your friend\n"
    "  friend accept JID [TEXT]    accept JID's friend request\n"
    "  friend del JID              end the friendship with JID\n"
    "  friend props JID TEXT       store TEXT on the server as JID's properties\n"
    "  friend list [--type N] [--count N] [--cursor ID]\n"
    "                              ask the server for a page of your friend list\n"
    "                              (defaults: type 1, count 20, cursor empty)\n"
    "  history conversations TYPE PAGE SIZE\n"
    "                              print the server's conversation list\n"
    "  history detail CONVID PAGE SIZE\n"
    "                              print the messages of conversation CONVID\n"
    "  history pull TYPE START COUNT UUID\n"
    "                              print the server's answer to a history pull\n"
    "  history sync UUID           print the messages since UUID\n"
    "  history --http pull TYPE COUNT UUID\n"
    "  history --http sync UUID    the same over the HTTP history service\n"
    "  rdp control JID TEXT        ask to control JID's desktop\n"
    "  rdp becontrol JID TEXT      offer JID control of your desktop\n"
    "  rdp control-reply JID TEXT  answer JID's control request\n"
    "  rdp becontrol-reply JID TEXT  answer JID's offer\n"
    "\n"
    "With --store PATH the client keeps every message it sends and receives in\n"
    "the message store PATH (created if missing). These need it:\n"
    "  flush                       log in, send what is queued, wait until the\n"
    "                              broker acknowledged all of it\n"
    "  log PEER [--before KEY] [--limit N]\n"
    "                              print the stored messages of the conversation\n"
    "                              with PEER (a user or room), oldest first\n"
    "  search TEXT [--in PEER] [--limit N]\n"
    "                              print the stored messages holding every word\n"
    "                              of TEXT, newest first\n"
    "  conversations               print each conversation: its newest message\n"
    "                              and unread count\n"
    "  read PEER                   mark the conversation with PEER read\n"
    "log, search, conversations and read need no connection and no --user.\n"
    "send with --store exits 5 when no connection is made within --timeout:\n"
    "the message is queued in the store and sent at the next login with it.\n"
    "\n"
    "ROOM is a room id; the room's JID is ROOM@<domain>. A JID without \"@\" gets\n"
    "@<domain>. What the server or a peer makes of a request shows in listen.\n"
    "\n"
    "send, location, status, room, friend and rdp log in, wait for the\n"
    "connection, send, log out and exit 0 only when the request was published\n"
    "(room invite and room rename: when it was handed over while connected, as\n"
    "the library reports nothing more for them). history logs in, asks, waits\n"
    "up to --timeout for the answer, prints it as one JSON line (the event\n"
    "onConversations, onConversationDetail or onHistoryMessages) and exits 0;\n"
    "with --http, --timeout bounds the whole request, and it exits 4 with the\n"
    "reason when the service gives no answer (unreachable, an HTTP error or a\n"
    "redirect, 10 s of silence, a reply over its bounds) or an empty one.\n"
    "listen --save-images writes every received image (an \"image_encode\" body)\n"
    "to a new .jpg file in your documents directory and adds \"saved\": its\n"
    "path (empty if it could not be written) to the message's event line.\n"
    "\n"
    "Exit statuses: 0 done, 1 not published, 2 no connection (refused, nothing\n"
    "listening, or none within the timeout), 3 set-up failure, 4 no answer within\n"
    "the timeout or an empty answer (history), 5 queued in the store (send, flush:\n"
    "sent at the next login with this store), 64 usage error (an unreadable\n"
    "--cafile, --cert, --key or --password-file too), 66 input not usable (send:\n"
    "the --image file, or a text over 2 MiB or not UTF-8), 130 interrupted.";

// Upper bound of --timeout, so that the milliseconds always fit.
constexpr double kMaxTimeoutSeconds = 24 * 3600;

} // namespace

// The options, declared once for parsing and for the help text.
struct OptionSet {
    ConnectionOptions connection;
    QCommandLineOption user{ QStringLiteral("user"), QStringLiteral("User id to log in as (required)."),
        QStringLiteral("id") };
    QCommandLineOption domain{ QStringLiteral("domain"), QStringLiteral("JID domain (default: the host)."),
        QStringLiteral("domain") };
    QCommandLineOption level{ QStringLiteral("level"),
        QStringLiteral("Security level of the user, and of the message sent by send "
                       "(default 0: reads every message of level 0 and above)."),
        QStringLiteral("n"), QStringLiteral("0") };
    QCommandLineOption device{ QStringLiteral("device"),
        QStringLiteral("Device id (default: the id this installation keeps)."), QStringLiteral("id") };
    QCommandLineOption serverJid{ QStringLiteral("server-jid"),
        QStringLiteral("The IM server's JID (default: server@<domain>)."), QStringLiteral("jid") };
    QCommandLineOption timeout{ QStringLiteral("timeout"),
        QStringLiteral("Seconds to wait for the connection, and then for the answer "
                       "of history, over --http the whole request (default 10)."),
        QStringLiteral("seconds"), QStringLiteral("10") };
    QCommandLineOption notice{ QStringLiteral("notice"), QStringLiteral("send: send a notice, readable by all.") };
    QCommandLineOption room{ QStringLiteral("room"), QStringLiteral("send: TO is a room.") };
    QCommandLineOption type{ QStringLiteral("type"),
        QStringLiteral("room create: the room's kind (default 0); friend list: the list's "
                       "kind (default 1)."),
        QStringLiteral("n") };
    QCommandLineOption count{ QStringLiteral("count"), QStringLiteral("friend list: friends per page (default 20)."),
        QStringLiteral("n") };
    QCommandLineOption cursor{ QStringLiteral("cursor"),
        QStringLiteral("friend list: the friend id the page continues after (default "
                       "empty: the first page)."),
        QStringLiteral("id") };
    QCommandLineOption image{ QStringLiteral("image"), QStringLiteral("send: send this image file instead of TEXT."),
        QStringLiteral("path") };
    QCommandLineOption textFile{ QStringLiteral("text-file"),
        QStringLiteral("send: send the text of this file (UTF-8, at most 2 MiB; one line "
                       "end at its end left out) instead of TEXT."),
        QStringLiteral("path") };
    QCommandLineOption saveImages{ QStringLiteral("save-images"),
        QStringLiteral("listen: save received images in the documents directory.") };
    QCommandLineOption http{ QStringLiteral("http"),
        QStringLiteral("history: ask the HTTP history service instead of the server.") };
    QCommandLineOption httpBase{ QStringLiteral("http-base"),
        QStringLiteral("history --http: the service's base address (default "
                       "http://<host>:5201)."),
        QStringLiteral("url") };
    QCommandLineOption store{ QStringLiteral("store"),
        QStringLiteral("The message store to keep messages in (created if missing)."), QStringLiteral("path") };
    QCommandLineOption before{ QStringLiteral("before"),
        QStringLiteral("log: the messages before the one with this key."), QStringLiteral("key") };
    QCommandLineOption limit{ QStringLiteral("limit"),
        QStringLiteral("log, search: at most this many messages (default 50)."), QStringLiteral("n"),
        QStringLiteral("50") };
    QCommandLineOption in{ QStringLiteral("in"), QStringLiteral("search: in the conversation with this peer only."),
        QStringLiteral("peer") };
    QCommandLineOption help{ QStringList{ QStringLiteral("h"), QStringLiteral("help") },
        QStringLiteral("Show this help.") };
    QCommandLineOption version{ QStringLiteral("version"), QStringLiteral("Show the version.") };

    void addTo(QCommandLineParser &parser) const
    {
        parser.setApplicationDescription(QString::fromUtf8(kDescription));
        connection.addTo(parser);
        parser.addOptions({ user, domain, level, device, serverJid, timeout, notice, room, image, textFile, saveImages,
            type, count, cursor, http, httpBase, store, before, limit, in, help, version });
        parser.addPositionalArgument(QStringLiteral("command"),
            QStringLiteral("listen, send, location, status, room, friend, history, rdp, flush, log, "
                           "search, conversations or read."),
            QStringLiteral("command [arguments...]"));
    }
};

namespace {

struct CommandSpec {
    const char *name;
    CliOptions::Command command;
    int argumentCount;
    const char *usage;
};

const CommandSpec kCommands[] = {
    { "listen", CliOptions::Command::Listen, 0, "listen" },
    { "send", CliOptions::Command::Send, 2, "send TO TEXT" },
    { "location", CliOptions::Command::Location, 3, "location TARGET FIRST SECOND" },
    { "status", CliOptions::Command::Status, 2, "status UUID STATUS" },
    // The argument counts of these are checked by their request classes.
    { "room", CliOptions::Command::Room, -1, "room SUBCOMMAND ARGUMENTS..." },
    { "friend", CliOptions::Command::Friend, -1, "friend SUBCOMMAND ARGUMENTS..." },
    { "history", CliOptions::Command::History, -1, "history SUBCOMMAND ARGUMENTS..." },
    { "rdp", CliOptions::Command::Rdp, -1, "rdp SUBCOMMAND JID TEXT" },
    { "flush", CliOptions::Command::Flush, 0, "--store PATH flush" },
    { "log", CliOptions::Command::Log, 1, "--store PATH log PEER" },
    { "search", CliOptions::Command::Search, 1, "--store PATH search TEXT" },
    { "conversations", CliOptions::Command::Conversations, 0, "--store PATH conversations" },
    { "read", CliOptions::Command::Read, 1, "--store PATH read PEER" },
};

const char *const kCommandNames =
    "listen, send, location, status, room, friend, history, rdp, flush, log, search, conversations or read";

std::optional<QString> valueIfSet(const QCommandLineParser &parser, const QCommandLineOption &option)
{
    if (!parser.isSet(option))
        return std::nullopt;
    return parser.value(option);
}

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
    if (parser.isSet(options.version)) {
        m_version = true;
        return true;
    }

    ConnectionOptions::Connection connection;
    if (!options.connection.read(parser, &connection, &m_error))
        return false;
    m_host = connection.host;
    m_port = connection.port;
    m_push = connection.push;
    m_maxQos = connection.maxQos;
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

    m_image = parser.value(options.image);
    m_textFile = parser.value(options.textFile);
    m_saveImages = parser.isSet(options.saveImages);
    m_httpBase = parser.value(options.httpBase);
    const bool imageGiven = parser.isSet(options.image);
    const bool textFileGiven = parser.isSet(options.textFile);
    const bool httpGiven = parser.isSet(options.http);
    const bool httpBaseGiven = parser.isSet(options.httpBase);

    QStringList positional = parser.positionalArguments();
    if (positional.isEmpty())
        return fail(QStringLiteral("Missing command: %1. See --help.").arg(QLatin1String(kCommandNames)));
    const QString name = positional.takeFirst();
    const CommandSpec *entry = nullptr;
    for (const CommandSpec &candidate : kCommands) {
        if (name == QLatin1String(candidate.name))
            entry = &candidate;
    }
    if (!entry)
        return fail(QStringLiteral("Unknown command '%1': use %2.").arg(name, QLatin1String(kCommandNames)));
    // send --image and send --text-file take TO only: the file replaces TEXT.
    const bool imageSend = entry->command == Command::Send && imageGiven;
    const bool fileSend = entry->command == Command::Send && textFileGiven;
    if (imageSend && fileSend)
        return fail(QStringLiteral("--image and --text-file exclude each other: send one message at a time."));
    const int argumentCount = imageSend || fileSend ? 1 : entry->argumentCount;
    const char *usage = imageSend ? "send --image PATH TO" : fileSend ? "send --text-file PATH TO" : entry->usage;
    if (argumentCount >= 0 && positional.size() != argumentCount)
        return fail(QStringLiteral("'%1' takes %2 argument(s), %3 given: pushchat [options] %4.")
                        .arg(name)
                        .arg(argumentCount)
                        .arg(positional.size())
                        .arg(QLatin1String(usage)));
    m_command = entry->command;
    m_arguments = positional;

    if (m_command != Command::Send && (m_notice || m_room || imageGiven || textFileGiven))
        return fail(QStringLiteral("--notice, --room, --image and --text-file apply to send only."));
    if (imageSend && m_image.isEmpty())
        return fail(QStringLiteral("--image must name an image file."));
    if (fileSend && m_textFile.isEmpty())
        return fail(QStringLiteral("--text-file must name a file."));
    if (m_command != Command::Listen && m_saveImages)
        return fail(QStringLiteral("--save-images applies to listen only."));
    if (m_command != Command::History && (httpGiven || httpBaseGiven))
        return fail(QStringLiteral("--http and --http-base apply to history only."));
    if (httpBaseGiven && !httpGiven)
        return fail(QStringLiteral("--http-base needs --http."));
    if (httpBaseGiven) {
        const QUrl base(m_httpBase, QUrl::StrictMode);
        if (!base.isValid() || (base.scheme() != QLatin1String("http") && base.scheme() != QLatin1String("https")) ||
            base.host().isEmpty())
            return fail(
                QStringLiteral("--http-base must be an http:// or https:// address, not '%1'.").arg(m_httpBase));
    }
    if (m_command == Command::Status && !toInt(m_arguments.at(1), &m_status))
        return fail(QStringLiteral("STATUS must be an integer, not '%1'.").arg(m_arguments.at(1)));

    const std::optional<QString> type = valueIfSet(parser, options.type);
    if (m_command != Command::Room && m_command != Command::Friend && type)
        return fail(QStringLiteral("--type applies to room create and friend list only."));
    const FriendRequest::ListOptions listOptions{ type, valueIfSet(parser, options.count),
        valueIfSet(parser, options.cursor) };
    if (m_command != Command::Friend && (listOptions.count || listOptions.cursor))
        return fail(QStringLiteral("--count and --cursor apply to friend list only."));

    QString requestError;
    bool requestOk = true;
    if (m_command == Command::Room)
        requestOk = m_roomRequest.parse(m_arguments, type, &requestError);
    else if (m_command == Command::Friend)
        requestOk = m_friendRequest.parse(m_arguments, listOptions, &requestError);
    else if (m_command == Command::History)
        requestOk = m_historyRequest.parse(m_arguments, httpGiven, &requestError);
    else if (m_command == Command::Rdp)
        requestOk = m_rdpRequest.parse(m_arguments, &requestError);
    if (!requestOk)
        return fail(requestError);
    if (!readStoreOptions(parser, options, name))
        return false;

    m_user = parser.value(options.user);
    if (m_user.isEmpty() && readsStoreOnly())
        return true;
    if (m_user.isEmpty())
        return fail(QStringLiteral("Missing --user: the user id to log in as."));
    return checkIdentifiers();
}

bool CliOptions::readsStoreOnly() const
{
    return m_command == Command::Log || m_command == Command::Search || m_command == Command::Conversations ||
           m_command == Command::Read;
}

bool CliOptions::readStoreOptions(const QCommandLineParser &parser, const OptionSet &options, const QString &name)
{
    m_storePath = parser.value(options.store);
    m_before = parser.value(options.before);
    m_in = parser.value(options.in);
    if (parser.isSet(options.store) && m_storePath.isEmpty())
        return fail(QStringLiteral("--store must name a file."));
    if ((readsStoreOnly() || m_command == Command::Flush) && m_storePath.isEmpty())
        return fail(QStringLiteral("'%1' needs --store PATH: the message store to use.").arg(name));
    if (m_command != Command::Log && parser.isSet(options.before))
        return fail(QStringLiteral("--before applies to log only."));
    if (m_command != Command::Search && parser.isSet(options.in))
        return fail(QStringLiteral("--in applies to search only."));
    if (m_command != Command::Log && m_command != Command::Search && parser.isSet(options.limit))
        return fail(QStringLiteral("--limit applies to log and search only."));
    bool ok = false;
    m_limit = parser.value(options.limit).toInt(&ok);
    if (!ok || m_limit < 1)
        return fail(
            QStringLiteral("--limit must be a whole number of 1 or more, not '%1'.").arg(parser.value(options.limit)));
    return true;
}

bool CliOptions::checkIdentifiers()
{
    struct Value {
        const char *name;
        QString text;
        bool part; // a user id or domain: no "@"
    };
    std::vector<Value> values{ { "--user", m_user, true } };
    if (!m_domain.isEmpty())
        values.push_back({ "--domain", m_domain, true });
    if (!m_serverJid.isEmpty())
        values.push_back({ "--server-jid", m_serverJid, false });
    // The argument that names a user or room and so becomes a topic.
    if (m_command == Command::Send)
        values.push_back({ "TO", m_arguments.at(0), false });
    else if (m_command == Command::Location)
        values.push_back({ "TARGET", m_arguments.at(0), false });
    else if ((m_command == Command::Room || m_command == Command::Friend || m_command == Command::Rdp) &&
             m_arguments.size() > 1)
        values.push_back({ m_command == Command::Room ? "ROOM" : "JID", m_arguments.at(1), false });
    for (const Value &value : values) {
        const Jid::Problem problem = value.part ? Jid::checkPart(value.text) : Jid::check(value.text);
        if (problem != Jid::Problem::None)
            return fail(
                QStringLiteral("%1 '%2' %3: it cannot be part of a topic.")
                    .arg(QLatin1String(value.name), value.text.left(80), QLatin1String(Jid::describe(problem))));
    }
    return true;
}
