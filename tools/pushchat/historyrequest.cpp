#include "historyrequest.h"

#include "subcommandtable.h"
#include <pushchat/message_lib.h>

namespace {

struct Subcommand {
    const char *name;
    HistoryRequest::Action action;
    int argumentCount;
    const char *usage; // over the push channel
    int httpArgumentCount;
    const char *httpUsage; // with --http; null: push channel only
    const char *answer;
    const char *what;
};

const Subcommand kSubcommands[] = {
    { "conversations", HistoryRequest::Action::Conversations, 3, "history conversations TYPE PAGE SIZE", 0, nullptr,
        "onConversations", "conversation list" },
    { "detail", HistoryRequest::Action::Detail, 3, "history detail CONVID PAGE SIZE", 0, nullptr,
        "onConversationDetail", "conversation detail" },
    { "pull", HistoryRequest::Action::Pull, 4, "history pull TYPE START COUNT UUID", 3,
        "history --http pull TYPE COUNT UUID", "onHistoryMessages", "message history" },
    { "sync", HistoryRequest::Action::Sync, 1, "history sync UUID", 1, "history --http sync UUID", "onHistoryMessages",
        "message history" },
};

const char *const kCommand = "history";

} // namespace

using subcommand::fail;
using subcommand::kAnyInteger;
using subcommand::number;

bool HistoryRequest::parse(const QStringList &words, bool http, QString *error)
{
    const Subcommand *found = subcommand::find(kCommand, kSubcommands, words, error);
    if (!found)
        return false;
    if (http && !found->httpUsage)
        return fail(error, QStringLiteral("--http applies to history pull and history sync only."));
    m_action = found->action;
    m_http = http;
    const QStringList arguments = words.mid(1);
    const QString usage = QLatin1String(http ? found->httpUsage : found->usage);
    const int wanted = http ? found->httpArgumentCount : found->argumentCount;
    if (!subcommand::argumentCountFits(error, kCommand, found->name, arguments.size(), wanted, wanted, usage))
        return false;

    switch (m_action) {
    case Action::Conversations:
        return number(arguments.at(0), "TYPE", kAnyInteger, &m_type, error) &&
               number(arguments.at(1), "PAGE", 0, &m_page, error) &&
               number(arguments.at(2), "SIZE", 1, &m_pageSize, error);
    case Action::Detail:
        m_id = arguments.at(0);
        return number(arguments.at(1), "PAGE", 0, &m_page, error) &&
               number(arguments.at(2), "SIZE", 1, &m_pageSize, error);
    case Action::Pull:
        m_id = arguments.last();
        if (!number(arguments.at(0), "TYPE", kAnyInteger, &m_type, error))
            return false;
        if (http)
            return number(arguments.at(1), "COUNT", 1, &m_count, error);
        return number(arguments.at(1), "START", 0, &m_start, error) &&
               number(arguments.at(2), "COUNT", 1, &m_count, error);
    case Action::Sync:
        m_id = arguments.at(0);
        return true;
    }
    return true;
}

const char *HistoryRequest::answerEvent() const
{
    return subcommand::entryOf(kSubcommands, m_action).answer;
}

const char *HistoryRequest::what() const
{
    return subcommand::entryOf(kSubcommands, m_action).what;
}

void HistoryRequest::sendWith(Message_lib &library) const
{
    switch (m_action) {
    case Action::Conversations:
        library.fetchConversations(static_cast<MediaInfo::MessageType>(m_type), m_page, m_pageSize);
        break;
    case Action::Detail:
        library.getMsgByConvid(m_id, m_page, m_pageSize);
        break;
    case Action::Pull:
        library.startPullMessage(m_type, m_start, m_count, m_id);
        break;
    case Action::Sync:
        library.startSyncMessage(m_id);
        break;
    }
}

void HistoryRequest::runOverHttp(Message_lib &library) const
{
    // The façade does not forward the HTTP operations; the engine has them.
    if (m_action == Action::Pull)
        library.startPullMessageRun(m_type, m_count, m_id);
    else if (m_action == Action::Sync)
        library.startSyncMessageRun(m_id);
}
