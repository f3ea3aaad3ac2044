#include "commandrunner.h"

#include "awaitedevent.h"
#include "clioptions.h"
#include "clisession.h"
#include "connectionfailure.h"
#include "imagebody.h"
#include "jsonlinewriter.h"
#include "messagetext.h"
#include "storecommands.h"

#include "terminationsignals.h"
#include <pushchat/message_lib.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QSocketNotifier>
#include <QUuid>

#include <optional>
#include <thread>

namespace {

// Runs `call`, which waits in an event loop of this thread, and ends that
// wait if a termination signal arrives meanwhile: the signal is consumed
// and every event loop of the thread told to exit. True if one arrived.
bool runInterruptibly(TerminationSignals &termination, const std::function<void()> &call)
{
    QSocketNotifier notifier(termination.fd(), QSocketNotifier::Read);
    bool interrupted = false;
    QObject::connect(&notifier, &QSocketNotifier::activated, [&] {
        if (termination.take() == 0)
            return;
        interrupted = true;
        notifier.setEnabled(false);
        QCoreApplication::exit(toInt(ExitCode::Interrupted));
    });
    call();
    return interrupted;
}

} // namespace

CommandRunner::CommandRunner(const CliOptions &options, TerminationSignals &termination, std::FILE *out)
    : m_options(options), m_termination(termination), m_out(out)
{ }

void CommandRunner::fail(const QString &message) const
{
    std::fprintf(stderr, "pushchat: %s\n", message.toLocal8Bit().constData());
}

template <typename Request> ExitCode CommandRunner::sendRequest(const Request &request)
{
    return sendOnce(request.what(), [&](Message_lib &library) { return request.sendWith(library); });
}

ExitCode CommandRunner::run()
{
    switch (m_options.command()) {
    case CliOptions::Command::Listen:
        return listen();
    case CliOptions::Command::Send:
        return send();
    case CliOptions::Command::Location:
        return location();
    case CliOptions::Command::Status:
        return status();
    case CliOptions::Command::Room:
        return sendRequest(m_options.roomRequest());
    case CliOptions::Command::Friend:
        return sendRequest(m_options.friendRequest());
    case CliOptions::Command::History:
        return history();
    case CliOptions::Command::Rdp:
        return sendRequest(m_options.rdpRequest());
    case CliOptions::Command::Flush:
        return flush();
    case CliOptions::Command::Log:
    case CliOptions::Command::Search:
    case CliOptions::Command::Conversations:
    case CliOptions::Command::Read:
        return readStore();
    case CliOptions::Command::None:
        break;
    }
    fail(QStringLiteral("no command given."));
    return ExitCode::Usage;
}

ExitCode CommandRunner::connect(CliSession &session, const std::function<void()> &started)
{
    if (!session.valid()) {
        fail(QStringLiteral("cannot create an event descriptor."));
        return ExitCode::Failure;
    }
    if (!openStore(session.library()))
        return ExitCode::Failure;
    const CliSession::Outcome outcome = session.login(started);
    switch (outcome) {
    case CliSession::Outcome::Connected:
        if (m_options.pushOptions().tls.insecure)
            fail(
                QStringLiteral("warning: connected without verifying the broker's certificate or host name "
                               "(--insecure)."));
        return ExitCode::Ok;
    case CliSession::Outcome::Interrupted:
        fail(QStringLiteral("interrupted before the connection was made."));
        return ExitCode::Interrupted;
    case CliSession::Outcome::Refused:
    case CliSession::Outcome::TimedOut:
        break;
    }
    const Message_lib &library = session.library();
    fail(ConnectionFailure::describe(m_options.host(), m_options.port(), m_options.pushOptions(),
             library.lastConnectionError(), library.lastConnectionErrorText(),
             outcome == CliSession::Outcome::TimedOut ? std::optional(m_options.connectTimeout()) : std::nullopt) +
         QLatin1Char('.'));
    return ExitCode::NotConnected;
}

bool CommandRunner::openStore(Message_lib &library) const
{
    if (m_options.storePath().isEmpty() || library.openMessageStore(m_options.storePath()) == 1)
        return true;
    fail(library.lastStoreError() + QLatin1Char('.'));
    return false;
}

ExitCode CommandRunner::readStore()
{
    JsonLineWriter writer(m_out);
    CliSession session(m_options, m_termination, nullptr);
    if (!openStore(session.library()))
        return ExitCode::Failure;
    return StoreCommands::run(m_options, session.library(), writer);
}

// Until the broker acknowledged every stored message, within the timeout.
ExitCode CommandRunner::awaitStored(Message_lib &library) const
{
    const auto deadline = std::chrono::steady_clock::now() + m_options.connectTimeout();
    while (library.storedPendingCount() > 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const int left = library.storedPendingCount();
    if (left == 0)
        return ExitCode::Ok;
    fail(
        QStringLiteral("queued: %1 message(s) not acknowledged yet; they will be sent at the next login with this "
                       "store.")
            .arg(left));
    return ExitCode::Queued;
}

ExitCode CommandRunner::flush()
{
    CliSession session(m_options, m_termination, nullptr);
    const ExitCode connected = connect(session);
    if (connected != ExitCode::Ok)
        return connected;
    const ExitCode done = awaitStored(session.library());
    session.logout();
    return done;
}

ExitCode CommandRunner::listen()
{
    if (m_options.saveImages() && ImageBody::prepareDocumentsDirectory().isEmpty()) {
        fail(
            QStringLiteral("--save-images: there is no documents directory to save images in, and none can be "
                           "made."));
        return ExitCode::Failure;
    }
    JsonLineWriter writer(m_out);
    CliSession session(m_options, m_termination, &writer);
    const ExitCode connected = connect(session);
    // A signal while connecting ends listen as any other time would.
    if (connected == ExitCode::Interrupted)
        return ExitCode::Ok;
    if (connected != ExitCode::Ok)
        return connected;
    session.waitForTermination();
    session.logout();
    return ExitCode::Ok;
}

ExitCode CommandRunner::sendOnce(const char *what, const std::function<int(Message_lib &)> &call, bool stored)
{
    CliSession session(m_options, m_termination, nullptr);
    // With the store a message is written first and kept for the next
    // login, whether a connection comes or not.
    int result = 0;
    const ExitCode connected = connect(session, [&] {
        if (stored)
            result = call(session.library());
    });
    if (connected != ExitCode::Ok && !(stored && connected == ExitCode::NotConnected))
        return connected;
    if (!stored)
        result = call(session.library());
    if (result != 1) {
        session.logout();
        fail(stored ? QStringLiteral("the %1 was not stored: %2.")
                          .arg(QLatin1String(what), session.library().lastStoreError())
                    : QStringLiteral("the %1 was not published.").arg(QLatin1String(what)));
        return ExitCode::NotPublished;
    }
    if (connected != ExitCode::Ok) {
        session.logout();
        fail(QStringLiteral("queued: it will be sent at the next login with this store."));
        return ExitCode::Queued;
    }
    const ExitCode done = stored ? awaitStored(session.library()) : ExitCode::Ok;
    session.logout();
    return done;
}

ExitCode CommandRunner::send()
{
    const QString to = m_options.commandArguments().at(0);
    // Read before connecting: a bad file costs no connection.
    QString error;
    std::optional<QString> text;
    if (!m_options.image().isEmpty()) {
        text = ImageBody::encodeFile(m_options.image(), &error);
        if (text->isEmpty())
            text.reset();
    } else if (!m_options.textFile().isEmpty()) {
        text = MessageText::fromFile(m_options.textFile(), &error);
    } else if (m_options.commandArguments().at(1) == QLatin1String("-")) {
        text = MessageText::fromStream(stdin, &error);
    } else {
        text = m_options.commandArguments().at(1);
        if (text->toUtf8().size() > Message_lib::MAX_BODY_BYTES)
            error = QStringLiteral("TEXT is longer than a message may be (2 MiB): nothing was sent.");
    }
    if (!error.isEmpty()) {
        fail(error);
        return ExitCode::NoInput;
    }
    const MESSAGE_BODY_TYPE bodyType = m_options.notice() ? BODY_TYPE_NOTICE : BODY_TYPE_DEFAULT;
    const QString messageKey = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    return sendOnce(
        m_options.notice() ? "notice" : "message",
        [&](Message_lib &library) {
            return library.sendTextMessageTo(
                QString(), to, m_options.level(), *text, bodyType, m_options.room(), messageKey, stamp);
        },
        !m_options.storePath().isEmpty());
}

ExitCode CommandRunner::location()
{
    const QStringList arguments = m_options.commandArguments();
    return sendOnce("location",
        [&](Message_lib &library) { return library.sendLocation(arguments.at(0), arguments.at(1), arguments.at(2)); });
}

ExitCode CommandRunner::status()
{
    const QString uuid = m_options.commandArguments().at(0);
    const auto status = static_cast<MSG_STATUS>(m_options.status());
    return sendOnce("status change", [&](Message_lib &library) { return library.modifyMessageStatus(uuid, status); });
}

ExitCode CommandRunner::history()
{
    const HistoryRequest &request = m_options.historyRequest();
    AwaitedEvent answer(QLatin1String(request.answerEvent()));
    CliSession session(m_options, m_termination, nullptr, &answer);
    const ExitCode connected = connect(session);
    if (connected != ExitCode::Ok)
        return connected;

    if (request.overHttp()) {
        Message_lib &library = session.library();
        if (!m_options.httpBase().isEmpty())
            library.setHistoryBaseAddress(m_options.httpBase());
        library.setHistoryDeadline(static_cast<int>(m_options.connectTimeout().count()));
        // Blocks in a nested event loop of this, the application's, thread
        // until the reply, the deadline or a termination signal.
        const bool interrupted = runInterruptibly(m_termination, [&] { request.runOverHttp(library); });
        session.logout();
        if (interrupted) {
            fail(QStringLiteral("interrupted while waiting for the %1.").arg(QLatin1String(request.what())));
            return ExitCode::Interrupted;
        }
        QString reason = library.lastHistoryError();
        while (reason.endsWith(QLatin1Char('.')))
            reason.chop(1);
        const std::optional<QJsonObject> event = answer.event();
        if (!reason.isEmpty()) {
            const QString base = m_options.httpBase().isEmpty() ? QStringLiteral("http://%1:5201").arg(m_options.host())
                                                                : m_options.httpBase();
            fail(
                QStringLiteral("no %1 from the HTTP history service at %2: %3; check --http-base (the address of "
                               "the server's HTTP service).")
                    .arg(QLatin1String(request.what()), base, reason));
            return ExitCode::NoAnswer;
        }
        if (!event || event->value(QLatin1String("json")).toString().isEmpty()) {
            fail(QStringLiteral("the HTTP history service's answer is empty (no %1).")
                     .arg(QLatin1String(request.what())));
            return ExitCode::NoAnswer;
        }
        JsonLineWriter(m_out).write(*event);
        return ExitCode::Ok;
    }

    request.sendWith(session.library());
    const CliSession::Wait waited = session.wait(answer.arrived(), m_options.connectTimeout());
    session.logout();
    switch (waited) {
    case CliSession::Wait::Raised:
        break;
    case CliSession::Wait::Interrupted:
        fail(QStringLiteral("interrupted while waiting for the %1.").arg(QLatin1String(request.what())));
        return ExitCode::Interrupted;
    case CliSession::Wait::TimedOut:
        fail(QStringLiteral("no %1 arrived within %2 s.")
                 .arg(QLatin1String(request.what()))
                 .arg(static_cast<double>(m_options.connectTimeout().count()) / 1000.0));
        return ExitCode::NoAnswer;
    }
    if (const std::optional<QJsonObject> event = answer.event())
        JsonLineWriter(m_out).write(*event);
    return ExitCode::Ok;
}
