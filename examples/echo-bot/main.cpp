// echo-bot: answers every chat message with the same text.
//
//   echo-bot HOST PORT USER [DOMAIN]
//
// Logs in as USER@DOMAIN (DOMAIN defaults to HOST) through the MQTT broker at
// HOST:PORT, prints "echo-bot: online as USER@DOMAIN" once connected, and
// sends the body of every chat message it receives back to its sender. On
// SIGINT or SIGTERM it logs out in order and exits 0.
//
// Threads: the library calls the bot on threads of its own. The bot posts
// its work to the main thread's event loop, so the library is only ever
// called from the main thread and the bot needs no lock.

#include <pushchat/message_lib.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QUuid>

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>
#include <utility>

namespace {

constexpr int kSecurityLevel = 0; // the bot's level, for its login and its answers

class EchoBot : public QObject, public ImEventReciever {
public:
    explicit EchoBot(QString jid) : m_jid(std::move(jid)) { }
    Message_lib &library() { return m_library; }

    void onConnected() override // again after every reconnection
    {
        onMainThread([this] {
            std::printf("echo-bot: online as %s\n", qUtf8Printable(m_jid));
            std::fflush(stdout); // a script may be waiting for this line
        });
    }

    void onMessageReceive(QString from, QString to, QString body, int /*bodyType*/, int msgType, QString /*messageKey*/,
        QString /*stamp*/, bool readable) override
    {
        // Chat messages only (no room messages), addressed to us (every user
        // receives every notice), never our own, and only those we may read
        // (otherwise `body` is a placeholder text).
        if (msgType != MediaInfo::MESSAGE_TYPE_CHAT || to != m_jid || from == m_jid || !readable)
            return;
        onMainThread([this, from, body] {
            const QString key = QUuid::createUuid().toString(QUuid::WithoutBraces); // a new message, a new key
            const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
            m_library.sendTextMessageTo(QString(), from, kSecurityLevel, body, BODY_TYPE_DEFAULT, false, key, stamp);
        });
    }

private:
    // Runs `work` on the main thread. Work still queued when the bot is
    // destroyed is dropped with it.
    template <typename Work> void onMainThread(Work work)
    {
        QMetaObject::invokeMethod(this, std::move(work), Qt::QueuedConnection);
    }

    const QString m_jid;
    // A fixed device id: the library then keeps nothing in a settings store.
    // Declared last, so it is destroyed (and logs out) first.
    Message_lib m_library{ this, nullptr, "echo-bot", "" };
};

// Blocks SIGINT and SIGTERM in the calling thread and, since threads inherit
// the mask, in every thread started after it: call it first thing in main().
// The signals then wait for sigwait() instead of killing the process.
sigset_t blockStopSignals()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    return stop;
}

// Runs the event loop until one of the `stop` signals arrives.
int execUntil(QCoreApplication &app, const sigset_t &stop)
{
    std::thread waiter([&app, &stop] {
        int signal = 0;
        sigwait(&stop, &signal);
        QMetaObject::invokeMethod(
            &app, [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
    });
    const int status = app.exec(); // returns only through the waiter's quit()
    waiter.join();
    return status;
}

} // namespace

int main(int argc, char *argv[])
{
    const sigset_t stop = blockStopSignals();
    QCoreApplication app(argc, argv);

    const QStringList args = QCoreApplication::arguments();
    bool portOk = false;
    const int port = args.value(2).toInt(&portOk);
    if (args.size() < 4 || args.size() > 5 || !portOk || port <= 0 || port > 65535) {
        std::fprintf(stderr, "usage: echo-bot HOST PORT USER [DOMAIN]\n");
        return 64;
    }
    const QString host = args[1], user = args[3], domain = args.value(4, host);

    EchoBot bot(user + QLatin1Char('@') + domain);
    bot.library().registerToImServer(host, port, user, QString(), kSecurityLevel, domain, QString());
    const int status = execUntil(app, stop);
    bot.library().unRegisterToImServer(); // "offline" presence, unsubscriptions, disconnection
    return status;
}
