#ifndef PUSHCHAT_CLI_HISTORYREQUEST_H
#define PUSHCHAT_CLI_HISTORYREQUEST_H

// The history subcommands of the client, with the callback that answers
// each.
//
// Over the push channel (the server answers with a message):
//   history conversations TYPE PAGE SIZE   fetchConversations     -> onConversations
//   history detail CONVID PAGE SIZE        getMsgByConvid         -> onConversationDetail
//   history pull TYPE START COUNT UUID     startPullMessage       -> onHistoryMessages
//   history sync UUID                      startSyncMessage       -> onHistoryMessages
// Over HTTP (--http; the engine's blocking calls on the login's host):
//   history pull TYPE COUNT UUID           startPullMessageRun    -> onHistoryMessages
//   history sync UUID                      startSyncMessageRun    -> onHistoryMessages
//
// TYPE is an integer the server defines; PAGE and START are 0 or more, SIZE
// and COUNT 1 or more.

#include <QString>
#include <QStringList>

class Message_lib;

class HistoryRequest {
public:
    enum class Action {
        Conversations,
        Detail,
        Pull,
        Sync
    };

    /// Parses the words after "history" (the subcommand first); `http` is
    /// --http. False with `*error` set (one line) on any error.
    bool parse(const QStringList &words, bool http, QString *error);

    Action action() const { return m_action; }
    bool overHttp() const { return m_http; }
    int type() const { return m_type; }
    int page() const { return m_page; }
    int pageSize() const { return m_pageSize; }
    int start() const { return m_start; }
    int count() const { return m_count; }
    /// CONVID of detail, UUID of pull and sync.
    QString id() const { return m_id; }

    /// The callback that carries the answer: "onConversations", ...
    const char *answerEvent() const;
    /// What is asked for, for messages: "conversation list", ...
    const char *what() const;
    /// Publishes the request over the push channel; the library reports
    /// nothing, the answer arrives as answerEvent().
    void sendWith(Message_lib &library) const;
    /// Runs the HTTP request on the calling thread (which needs a Qt event
    /// loop to be possible: a QCoreApplication's thread); answerEvent() has
    /// been delivered, with an empty text on failure (the library's
    /// lastHistoryError() tells why), when it returns.
    void runOverHttp(Message_lib &library) const;

private:
    Action m_action = Action::Sync;
    bool m_http = false;
    int m_type = 0;
    int m_page = 0;
    int m_pageSize = 0;
    int m_start = 0;
    int m_count = 0;
    QString m_id;
};

#endif // PUSHCHAT_CLI_HISTORYREQUEST_H
