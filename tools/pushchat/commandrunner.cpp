#include "commandrunner.h"

#include "clioptions.h"
#include "clisession.h"
#include "jsonlinewriter.h"
#include "message_lib.h"
#include "terminationsignals.h"

#include <QDateTime>
#include <QUuid>

CommandRunner::CommandRunner(const CliOptions &options, TerminationSignals &termination, std::FILE *out)
    : m_options(options), m_termination(termination), m_out(out)
{
}

void CommandRunner::fail(const QString &message) const
{
    std::fprintf(stderr, "pushchat: %s\n", message.toLocal8Bit().constData());
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
        return room();
    case CliOptions::Command::None:
        break;
    }
    fail(QStringLiteral("no command given."));
    return ExitCode::Usage;
}

ExitCode CommandRunner::connect(CliSession &session)
{
    if (!session.valid()) {
        fail(QStringLiteral("cannot create an event descriptor."));
        return ExitCode::Failure;
    }
    switch (session.login()) {
    case CliSession::Outcome::Connected:
        return ExitCode::Ok;
    case CliSession::Outcome::Interrupted:
        fail(QStringLiteral("interrupted before the connection was made."));
        return ExitCode::Interrupted;
    case CliSession::Outcome::TimedOut:
        break;
    }
    fail(QStringLiteral("no connection to %1:%2 within %3 s.")
             .arg(m_options.host())
             .arg(m_options.port())
             .arg(static_cast<double>(m_options.connectTimeout().count()) / 1000.0));
    return ExitCode::NotConnected;
}

ExitCode CommandRunner::listen()
{
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

ExitCode CommandRunner::sendOnce(const char *what, const std::function<int(Message_lib &)> &call)
{
    CliSession session(m_options, m_termination, nullptr);
    const ExitCode connected = connect(session);
    if (connected != ExitCode::Ok)
        return connected;
    const int result = call(session.library());
    session.logout();
    if (result != 1) {
        fail(QStringLiteral("the %1 was not published.").arg(QLatin1String(what)));
        return ExitCode::NotPublished;
    }
    return ExitCode::Ok;
}

ExitCode CommandRunner::send()
{
    const QString to = m_options.commandArguments().at(0);
    const QString text = m_options.commandArguments().at(1);
    const MESSAGE_BODY_TYPE bodyType = m_options.notice() ? BODY_TYPE_NOTICE : BODY_TYPE_DEFAULT;
    const QString messageKey = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    return sendOnce(m_options.notice() ? "notice" : "message", [&](Message_lib &library) {
        return library.sendTextMessageTo(QString(), to, m_options.level(), text, bodyType, m_options.room(),
                                         messageKey, stamp);
    });
}

ExitCode CommandRunner::location()
{
    const QStringList arguments = m_options.commandArguments();
    return sendOnce("location", [&](Message_lib &library) {
        return library.sendLocation(arguments.at(0), arguments.at(1), arguments.at(2));
    });
}

ExitCode CommandRunner::status()
{
    const QString uuid = m_options.commandArguments().at(0);
    const auto status = static_cast<MSG_STATUS>(m_options.status());
    return sendOnce("status change",
                    [&](Message_lib &library) { return library.modifyMessageStatus(uuid, status); });
}

ExitCode CommandRunner::room()
{
    const RoomRequest &request = m_options.roomRequest();
    return sendOnce(request.what(), [&](Message_lib &library) { return request.sendWith(library); });
}
