#include "storecommands.h"

#include "clioptions.h"
#include "jsonlinewriter.h"

#include <pushchat/message_lib.h>

#include <QDateTime>
#include <QJsonObject>

#include <cstdio>

namespace {

const char *stateName(StoredState state)
{
    switch (state) {
    case StoredState::Pending:
        return "pending";
    case StoredState::Sent:
        return "sent";
    case StoredState::Received:
        return "received";
    case StoredState::Read:
        return "read";
    }
    return "unknown";
}

QJsonObject toJson(const StoredMessage &m)
{
    return QJsonObject{
        { QStringLiteral("conversation"), m.conversation },
        { QStringLiteral("key"), m.key },
        { QStringLiteral("sender"), m.sender },
        { QStringLiteral("time"), QDateTime::fromMSecsSinceEpoch(m.time, Qt::UTC).toString(Qt::ISODateWithMs) },
        { QStringLiteral("stamp"), m.stamp },
        { QStringLiteral("body"), m.body },
        { QStringLiteral("body_type"), m.bodyType },
        { QStringLiteral("msg_type"), m.messageType },
        { QStringLiteral("outgoing"), m.outgoing },
        { QStringLiteral("state"), QLatin1String(stateName(m.state)) },
    };
}

// A user or room id without "@" gets "@" + the domain (or the host).
QString peerOf(const CliOptions &options, const QString &peer)
{
    if (peer.isEmpty() || peer.contains(QLatin1Char('@')))
        return peer;
    return peer + QLatin1Char('@') + (options.domain().isEmpty() ? options.host() : options.domain());
}

} // namespace

ExitCode StoreCommands::run(const CliOptions &options, Message_lib &library, JsonLineWriter &writer)
{
    const QStringList arguments = options.commandArguments();
    QList<StoredMessage> messages;
    switch (options.command()) {
    case CliOptions::Command::Log:
        messages = library.storedMessages(peerOf(options, arguments.at(0)), options.before(), options.limit());
        break;
    case CliOptions::Command::Search:
        messages = library.searchStoredMessages(arguments.at(0), peerOf(options, options.in()), options.limit());
        break;
    case CliOptions::Command::Conversations:
        for (const StoredConversation &c : library.storedConversations())
            writer.write({ { QStringLiteral("peer"), c.conversation }, { QStringLiteral("last"), toJson(c.last) },
                { QStringLiteral("unread"), c.unread } });
        break;
    case CliOptions::Command::Read:
        library.markConversationRead(peerOf(options, arguments.at(0)), false);
        break;
    default:
        return ExitCode::Usage;
    }
    for (const StoredMessage &m : messages)
        writer.write(toJson(m));
    const QString error = library.lastStoreError();
    if (!error.isEmpty()) {
        std::fprintf(stderr, "pushchat: %s\n", error.toLocal8Bit().constData());
        return ExitCode::Failure;
    }
    return ExitCode::Ok;
}
