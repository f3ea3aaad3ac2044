// history-fetcher: asks for message history and prints the answer.
//
//   history-fetcher [options] HOST PORT USER conversations TYPE PAGE SIZE
//   history-fetcher [options] HOST PORT USER detail CONVID PAGE SIZE
//   history-fetcher [options] HOST PORT USER sync UUID
//   history-fetcher [options] HOST PORT USER --http sync UUID
//   history-fetcher [options] HOST PORT USER --http pull TYPE COUNT UUID
//
// Logs in as USER@DOMAIN through the MQTT broker at HOST:PORT and sends one
// request: to the IM server over the broker, or with --http to the HTTP
// history service. It prints the answer (the JSON text the library hands
// over) as one line, logs out and exits 0; it exits 1 with a message on
// stderr when no answer arrives in time (or the HTTP service gave none).
//
// Threads: the library calls the callbacks on its own threads (the HTTP
// answer on the calling thread), so the fetcher hands over what it waits
// for through std::promise: the main thread simply waits on the futures.

#include <pushchat/message_lib.h>

#include <QCommandLineParser>
#include <QCoreApplication>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>

namespace {

using Request = std::function<void(Message_lib &)>;

// The request that `words` (mode first) describe; empty when they describe
// none.
Request requestFrom(const QStringList &words, bool http)
{
    bool numbersOk = true;
    const auto number = [&](int i) {
        bool ok = false;
        const int value = words.value(i).toInt(&ok);
        numbersOk = numbersOk && ok;
        return value;
    };
    const QString mode = words.value(0);
    Request request;
    if (!http && mode == QLatin1String("conversations") && words.size() == 4) {
        const auto type = MediaInfo::MessageType(number(1));
        const int page = number(2), size = number(3);
        request = [=](Message_lib &lib) { lib.fetchConversations(type, page, size); };
    } else if (!http && mode == QLatin1String("detail") && words.size() == 4) {
        const QString convId = words[1];
        const int page = number(2), size = number(3);
        request = [=](Message_lib &lib) { lib.getMsgByConvid(convId, page, size); };
    } else if (!http && mode == QLatin1String("sync") && words.size() == 2) {
        const QString uuid = words[1];
        request = [=](Message_lib &lib) { lib.startSyncMessage(uuid); };
    } else if (http && mode == QLatin1String("sync") && words.size() == 2) {
        const QString uuid = words[1];
        request = [=](Message_lib &lib) { lib.startSyncMessageRun(uuid); }; // blocks until answered
    } else if (http && mode == QLatin1String("pull") && words.size() == 4) {
        const int type = number(1), count = number(2);
        const QString uuid = words[3];
        request = [=](Message_lib &lib) { lib.startPullMessageRun(type, count, uuid); }; // blocks until answered
    }
    return numbersOk ? request : Request();
}

// Hands the first connection and the first answer to the main thread.
class HistoryFetcher : public ImEventReciever {
public:
    std::future<void> connected() { return m_connected.get_future(); }
    std::future<QString> answer() { return m_answer.get_future(); }

    void onConnected() override // again after every reconnection
    {
        if (!m_wasConnected.exchange(true))
            m_connected.set_value();
    }
    void onHistoryMessages(const char *json) override { answered(json); }
    void onConversations(const char *json) override { answered(json); }
    void onConversationDetail(const char *json) override { answered(json); }

private:
    void answered(const char *json)
    {
        if (!m_wasAnswered.exchange(true))
            m_answer.set_value(QString::fromUtf8(json)); // `json` lives only during the call: copy it
    }

    std::promise<void> m_connected;
    std::promise<QString> m_answer;
    std::atomic<bool> m_wasConnected{ false }, m_wasAnswered{ false };
};

int fail(const QString &message)
{
    std::fprintf(stderr, "history-fetcher: %s\n", qUtf8Printable(message));
    return 1;
}

} // namespace

int main(int argc, char *argv[])
{
    // Needed for the HTTP requests; no event loop runs.
    QCoreApplication app(argc, argv);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Asks for message history and prints the answer."));
    parser.addHelpOption();
    const QCommandLineOption http(QStringLiteral("http"), QStringLiteral("Ask the HTTP history service."));
    const QCommandLineOption domain(
        QStringLiteral("domain"), QStringLiteral("Login domain (HOST)."), QStringLiteral("domain"));
    const QCommandLineOption level(
        QStringLiteral("level"), QStringLiteral("Security level (0)."), QStringLiteral("n"), QStringLiteral("0"));
    const QCommandLineOption timeout(QStringLiteral("timeout"),
        QStringLiteral("Seconds to wait for the connection, then for the answer (10)."), QStringLiteral("s"),
        QStringLiteral("10"));
    const QCommandLineOption httpBase(
        QStringLiteral("http-base"), QStringLiteral("HTTP history service (http://HOST:5201)."), QStringLiteral("url"));
    parser.addOptions({ http, domain, level, timeout, httpBase });
    parser.addPositionalArgument(QStringLiteral("HOST PORT USER"), QStringLiteral("The broker and the user."));
    parser.addPositionalArgument(
        QStringLiteral("MODE"), QStringLiteral("conversations TYPE PAGE SIZE | detail CONVID PAGE SIZE | "
                                               "sync UUID | --http sync UUID | --http pull TYPE COUNT UUID"));
    parser.process(app); // --help, unknown options: prints and exits

    const QStringList args = parser.positionalArguments();
    const Request request = requestFrom(args.mid(3), parser.isSet(http));
    bool portOk = false, levelOk = false, timeoutOk = false;
    const int port = args.value(1).toInt(&portOk);
    const int securityLevel = parser.value(level).toInt(&levelOk);
    const std::chrono::seconds wait(parser.value(timeout).toInt(&timeoutOk));
    if (!request || !portOk || !levelOk || !timeoutOk || wait.count() <= 0) {
        std::fputs(qUtf8Printable(parser.helpText()), stderr);
        return 64;
    }
    const QString host = args[0], user = args[2];

    HistoryFetcher fetcher;
    std::future<void> connected = fetcher.connected();
    std::future<QString> answer = fetcher.answer();
    // A fixed device id: the library then keeps nothing in a settings store.
    // Destroyed before `fetcher`; on every return below it logs out in order.
    Message_lib library(&fetcher, nullptr, "history-fetcher", "");
    if (parser.isSet(httpBase))
        library.setHistoryBaseAddress(parser.value(httpBase));
    library.registerToImServer(host, port, user, QString(), securityLevel, parser.value(domain), QString());

    // The HTTP requests need the login, not the connection: no wait for it.
    if (!parser.isSet(http) && connected.wait_for(wait) != std::future_status::ready)
        return fail(QStringLiteral("no connection to %1:%2 within %3 s").arg(host).arg(port).arg(wait.count()));
    request(library);
    if (answer.wait_for(wait) != std::future_status::ready)
        return fail(QStringLiteral("no answer within %1 s").arg(wait.count()));
    QString text = answer.get();
    if (text.isEmpty())
        return fail(QStringLiteral("empty answer (over HTTP: service unreachable, HTTP error or timeout)"));

    // JSON allows line breaks only between tokens: as spaces they keep the
    // meaning and make the answer one line.
    text.replace(QLatin1Char('\r'), QLatin1Char(' ')).replace(QLatin1Char('\n'), QLatin1Char(' '));
    std::printf("%s\n", text.toUtf8().constData());
    return 0;
}
