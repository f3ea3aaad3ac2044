#include "historyrequest.h"

#include "message_lib.h"
#include "messageprivate.h"

#include <limits>

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
    {"conversations", HistoryRequest::Action::Conversations, 3, "history conversations TYPE PAGE SIZE", 0, nullptr,
     "onConversations", "conversation list"},
    {"detail", HistoryRequest::Action::Detail, 3, "history detail CONVID PAGE SIZE", 0, nullptr, "onConversationDetail",
     "conversation detail"},
    {"pull", HistoryRequest::Action::Pull, 4, "history pull TYPE START COUNT UUID", 3,
     "history --http pull TYPE COUNT UUID", "onHistoryMessages", "message history"},
    {"sync", HistoryRequest::Action::Sync, 1, "history sync UUID", 1, "history --http sync UUID", "onHistoryMessages",
     "message history"},
};

const char *const kNames = "conversations, detail, pull or sync";

const Subcommand &subcommandOf(HistoryRequest::Action action)
{
    for (const Subcommand &subcommand : kSubcommands) {
        if (subcommand.action == action)
            return subcommand;
    }
    return kSubcommands[0];
}

bool fail(QString *error, const QString &message)
{
    *error = message;
    return false;
}

// `text` as an integer of at least `minimum`, or false with `*error` set.
bool number(const QString &text, const char *name, int minimum, int *value, QString *error)
{
    bool ok = false;
    *value = text.toInt(&ok);
    if (ok && *value >= minimum)
        return true;
    if (minimum == 0)
        return fail(error, QStringLiteral("%1 must be a whole number of 0 or more, not '%2'.")
                               .arg(QLatin1String(name), text));
    if (minimum == 1)
        return fail(error, QStringLiteral("%1 must be a whole number of 1 or more, not '%2'.")
                               .arg(QLatin1String(name), text));
    return fail(error, QStringLiteral("%1 must be an integer, not '%2'.").arg(QLatin1String(name), text));
}

constexpr int kAnyInteger = std::numeric_limits<int>::min();

} // namespace

bool HistoryRequest::parse(const QStringList &words, bool http, QString *error)
{
    if (words.isEmpty())
        return fail(error, QStringLiteral("'history' needs a subcommand: %1.").arg(QLatin1String(kNames)));
    const Subcommand *found = nullptr;
    for (const Subcommand &candidate : kSubcommands) {
        if (words.first() == QLatin1String(candidate.name))
            found = &candidate;
    }
    if (!found)
        return fail(error, QStringLiteral("Unknown history subcommand '%1': use %2.")
                               .arg(words.first(), QLatin1String(kNames)));
    if (http && !found->httpUsage)
        return fail(error, QStringLiteral("--http applies to history pull and history sync only."));
    m_action = found->action;
    m_http = http;
    const QStringList arguments = words.mid(1);
    const QString usage = QLatin1String(http ? found->httpUsage : found->usage);
    const int wanted = http ? found->httpArgumentCount : found->argumentCount;
    if (arguments.size() != wanted)
        return fail(error, QStringLiteral("'history %1' takes %2 argument(s), %3 given: pushchat [options] %4.")
                               .arg(QLatin1String(found->name))
                               .arg(wanted)
                               .arg(arguments.size())
                               .arg(usage));

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

const char *HistoryRequest::answerEvent() const { return subcommandOf(m_action).answer; }

const char *HistoryRequest::what() const { return subcommandOf(m_action).what; }

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
        library.engine()->startPullMessageRun(m_type, m_count, m_id);
    else if (m_action == Action::Sync)
        library.engine()->startSyncMessageRun(m_id);
}
