// room-bot: opens a room, welcomes its members and answers every message in it.
//
//   room-bot HOST PORT USER ROOM "MEMBER1,MEMBER2" [DOMAIN]
//
// Logs in as USER@DOMAIN (DOMAIN defaults to HOST) through the MQTT broker at
// HOST:PORT, prints "room-bot: online as USER@DOMAIN" and asks the IM server
// for the room ROOM@DOMAIN with the given members (the bot is always one).
// When the server reports the room created or members invited, the bot
// welcomes each member it has not welcomed yet with a one-to-one message;
// it answers in the room every message that someone else writes there. On SIGINT or SIGTERM it logs out in
// order and exits 0 (the room stays).
//
// Threads: the library calls the bot on threads of its own, room events on
// several at once. The bot posts its work to the main thread's event loop,
// so the library is only ever called from the main thread and the bot's
// state needs no lock.

#include <pushchat/message_lib.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QSet>
#include <QUuid>

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>
#include <utility>

namespace {

constexpr int kSecurityLevel = 0; // the bot's level, for its login and its messages

class RoomBot : public QObject, public ImEventReciever, public ImMUCEventReciever {
public:
    RoomBot(const QString &user, const QString &domain, const QString &roomId, const QString &members)
        : m_jid(user + QLatin1Char('@') + domain), m_roomId(roomId), m_roomJid(roomId + QLatin1Char('@') + domain),
          m_members(members)
    { }
    Message_lib &library() { return m_library; }

    void onConnected() override // again after every reconnection
    {
        onMainThread([this] {
            std::printf("room-bot: online as %s\n", qUtf8Printable(m_jid));
            std::fflush(stdout);
            // Asked once we are online: the server's answer comes to topics
            // the library subscribes to on connection.
            if (!m_roomRequested)
                m_roomRequested = m_library.createMucRoom(m_roomId, m_roomId, m_members, ROOM_TYPE_DEFAULT) == 1;
        });
    }

    void onRoomChanged(Room &room, GroupSubCmd cmd) override
    {
        if ((cmd != GroupSub_Create && cmd != GroupSub_Invite) || QString::fromStdString(room.jid) != m_roomJid)
            return;
        // `room` lives only during this call: keep what the greeting needs.
        QStringList members;
        for (const auto &entry : room.members)
            members << QString::fromStdString(entry.first); // keyed by member JID
        onMainThread([this, members] { welcome(members); });
    }

    void onMessageReceive(QString from, QString to, QString body, int /*bodyType*/, int msgType, QString /*messageKey*/,
        QString /*stamp*/, bool readable) override
    {
        // Messages in our room only, not our own, not the room's own notes
        // (sent from the room's JID when it is created or closed), and only
        // those we may read.
        if (msgType != MediaInfo::MESSAGE_TYPE_GROUPCHAT || to != m_roomJid || from == m_jid || from == m_roomJid ||
            !readable)
            return;
        onMainThread([this, from, body] { say(QStringLiteral("%1 said: %2").arg(from, body)); });
    }

private:
    // Runs `work` on the main thread. Work still queued when the bot is
    // destroyed is dropped with it.
    template <typename Work> void onMainThread(Work work)
    {
        QMetaObject::invokeMethod(this, std::move(work), Qt::QueuedConnection);
    }

    // The welcome goes to each member directly, not into the room: a member's
    // client hears of the room when the bot does and only then subscribes to
    // it, so a room message sent now could arrive before that and be missed,
    // while a one-to-one message waits at the broker until the member reads it.
    void welcome(const QStringList &members) // main thread
    {
        for (const QString &member : members) {
            if (member != m_jid && !m_welcomed.contains(member)) {
                m_welcomed.insert(member);
                send(member, false, QStringLiteral("Welcome to room %1!").arg(m_roomJid));
            }
        }
    }

    void say(const QString &text) { send(m_roomJid, true, text); } // main thread

    void send(const QString &to, bool toRoom, const QString &text) // main thread
    {
        const QString key = QUuid::createUuid().toString(QUuid::WithoutBraces);
        const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
        m_library.sendTextMessageTo(QString(), to, kSecurityLevel, text, BODY_TYPE_DEFAULT, toRoom, key, stamp);
    }

    const QString m_jid, m_roomId, m_roomJid, m_members;
    bool m_roomRequested = false; // main thread only
    QSet<QString> m_welcomed;     // main thread only
    // A fixed device id: the library then keeps nothing in a settings store.
    // Declared last, so it is destroyed (and logs out) first.
    Message_lib m_library{ this, this, "room-bot", "" };
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
    if (args.size() < 6 || args.size() > 7 || !portOk || port <= 0 || port > 65535 ||
        args[4].contains(QLatin1Char('@'))) {
        std::fprintf(stderr,
            "usage: room-bot HOST PORT USER ROOM \"MEMBER1,MEMBER2\" [DOMAIN]\n"
            "  (ROOM and the members are ids without \"@\")\n");
        return 64;
    }
    const QString host = args[1], user = args[3], domain = args.value(6, host);

    RoomBot bot(user, domain, args[4], args[5]);
    bot.library().registerToImServer(host, port, user, QString(), kSecurityLevel, domain, QString());
    const int status = execUntil(app, stop);
    bot.library().unRegisterToImServer(); // "offline" presence, unsubscriptions, disconnection
    return status;
}
