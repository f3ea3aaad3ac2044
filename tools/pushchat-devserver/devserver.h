#ifndef PUSHCHAT_DEVSERVER_DEVSERVER_H
#define PUSHCHAT_DEVSERVER_DEVSERVER_H

// The development server: answers every command the library sends to the
// IM server, from a DevStore.
//
// Its PushClient subscribes, as a privileged client, to the server's
// command topics and to every chat and friend topic:
//
//   s/g/c/<server>/#   room commands (RoomDirectory)
//   s/h/c/<server>/#   history: conversations, conversation detail, pull
//                      and sync (HistoryAnswers)
//   m/i/#              chat and room messages, recorded; presence and
//                      status changes addressed to the server
//   s/f/c/#, s/f/i/#   friend requests, acceptances and deletions between
//                      users, recorded; list and property commands
//   LOCATION/#         locations, reported on the log only
//
// Presence is recorded (the broker's will included) and passed on to the
// user's friends. A status change is stored and told to the message's
// sender with the client-status notification (m/i/<sender>/c), and
// acknowledged to the one who made it (m/i/<modifier>/m). The same history
// is served over HTTP (HttpService) on its three request paths.
//
// The push client's thread only copies each message into a queue and wakes
// the object's thread: all the work, the store and the HTTP service run in
// the event loop of the thread that owns the object. It reports on `log`, one JSON line each:
// {"event":"ready","server","http_port"} once it listens and its
// subscriptions are in place, "received" (topic, from, body deciphered),
// "recorded" (uuid, from, to), "location" (target, position), "sent"
// (topic, to, body) and "dropped" (topic, from, reason).
//
// What arrives is bounded before anything is kept or sent on. A topic over
// InputLimits::TOPIC_BYTES or a payload over PAYLOAD_BYTES is dropped before
// it is copied or parsed; an envelope the library refuses as oversized, a
// body over BODY_BYTES (UTF-8), a uuid or stamp over DevStore::kMaxFieldBytes,
// and a sender, topic or addressee JID that fails Jid::check are dropped
// whole. So are the JIDs named inside room commands (RoomDirectory), a
// history request's "conv_id", the HTTP service's "user_id", and every
// addressee of what the server sends, the store's included. Each drop is one
// "dropped" line, and nothing else is lost. Answers are bounded by
// HistoryAnswers and AnswerBudget.

#include "devstore.h"
#include "historyanswers.h"
#include "httpservice.h"
#include "jsonlinewriter.h"
#include "pushclient.h"
#include "roomdirectory.h"

#include <QHostAddress>
#include <QObject>

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

class MQTTMessage;

class DevServer : public QObject, public PushEventReciever {
    Q_OBJECT
public:
    struct Settings {
        std::string serverJid;
        std::string host = "127.0.0.1";
        int port = 1883;
        PushClientOptions push; ///< TLS, credentials, failover
        int maxQos = 2;         ///< the highest delivery level (1: a broker without QoS 2)
        QHostAddress httpAddress = QHostAddress::LocalHost;
        quint16 httpPort = 5201; ///< 0: a free port (see httpPort())
    };

    /// `store` (open) and `log` are borrowed and must outlive the server.
    DevServer(Settings settings, DevStore *store, JsonLineWriter *log, QObject *parent = nullptr);
    ~DevServer() override;

    /// Starts the HTTP service and the broker connection; false, with the
    /// reason, when the HTTP port cannot be had.
    bool start(QString *error);
    quint16 httpPort() const { return m_http.port(); }

    void messgeRecievedMore(int mid, char *topic, void *payload, int length, int qos, bool retain) override;
    void connectStatus(bool connected) override;

signals:
    /// The broker connection failed or went down: the push client's error
    /// and its text (isRetried(error): the client tries again on its own).
    /// Emitted on the server's thread.
    void linkFailed(PushConnectionError error, const QString &reason);

private:
    /// A delivery as queued: sizes over the limits leave topic and payload
    /// out (the topic's start is kept for the log line).
    struct Arrived {
        QByteArray topic, payload;
        qsizetype topicBytes = 0, payloadBytes = 0;
        bool oversized = false;
    };

    Q_INVOKABLE void drain();
    void handle(const Arrived &arrived);
    /// Writes the "dropped" line for the message being handled.
    void dropped(const QString &reason, const std::string &from = std::string());
    /// Why `in` may not be kept or answered; empty when it may.
    static QString refusal(const MQTTMessage &in);
    void roomCommand(MQTTMessage &in);
    void messageInfo(MQTTMessage &in, const QString &topicJid);
    void friendCommand(MQTTMessage &in, const QString &topicJid);
    void historyCommand(MQTTMessage &in);
    void presence(const QString &from, const QString &body);
    bool changeStatus(const QString &uuid, int status, const QString &modifier);
    void send(
        const std::string &to, int family, int sub1, int sub2, const QString &body, const QString &from = QString());
    HttpService::Reply answerHttp(const QString &path, const QUrlQuery &query);

    const Settings m_settings;
    const QString m_jid;
    const std::string m_readyTopic;
    DevStore *m_store;
    JsonLineWriter *m_log;
    QString m_handling; // the topic being handled, for "dropped" lines; before m_rooms, which may drop
    RoomDirectory m_rooms;
    HistoryAnswers m_history;
    HttpService m_http;
    std::mutex m_mutex;
    std::deque<Arrived> m_arrived;                                  // guarded by m_mutex
    std::deque<std::pair<PushConnectionError, QString>> m_failures; // guarded by m_mutex: for linkFailed
    std::unique_ptr<PushClient> m_client;                           // declared last: destroyed first
};

Q_DECLARE_METATYPE(PushConnectionError)

#endif // PUSHCHAT_DEVSERVER_DEVSERVER_H
