#include "clisession.h"

#include "clioptions.h"
#include "terminationsignals.h"

#include <QLoggingCategory>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <poll.h>

namespace {

using Clock = std::chrono::steady_clock;

// How often a login looks at the library's last connection error.
constexpr std::chrono::milliseconds kErrorCheckInterval{ 50 };

// The library's warnings (category pushchat.engine) are off while it
// lives; QT_LOGGING_RULES still turns them on.
struct EngineWarningsOff {
    EngineWarningsOff() { QLoggingCategory::setFilterRules(QStringLiteral("pushchat.engine.warning=false")); }
    ~EngineWarningsOff() { QLoggingCategory::setFilterRules(QString()); }
    EngineWarningsOff(const EngineWarningsOff &) = delete;
    EngineWarningsOff &operator=(const EngineWarningsOff &) = delete;
};

// Index of the first readable descriptor, or -1 once the deadline (if any)
// has passed.
int waitReadable(pollfd *fds, nfds_t count, std::optional<Clock::time_point> deadline)
{
    for (;;) {
        int timeoutMs = -1;
        if (deadline) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
            timeoutMs = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
        const int ready = ::poll(fds, count, timeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return -1;
        for (nfds_t i = 0; i < count; ++i) {
            if (fds[i].revents != 0)
                return static_cast<int>(i);
        }
    }
}

} // namespace

CliSession::CliSession(
    const CliOptions &options, TerminationSignals &termination, JsonLineWriter *writer, AwaitedEvent *awaited)
    : m_options(options), m_termination(termination), m_events(writer, &m_connected, awaited, options.saveImages()),
      m_library(&m_events, &m_events, options.deviceId(), std::string())
{ }

CliSession::~CliSession()
{
    logout();
}

CliSession::Outcome CliSession::login(const std::function<void()> &started)
{
    if (!m_options.serverJid().isEmpty())
        m_library.setServerJid(m_options.serverJid());
    m_library.setPushClientOptions(m_options.pushOptions());
    m_library.setMaxQos(m_options.maxQos());
    // The client tells why a login failed in a line of its own: the
    // library's warning about it is not printed as well.
    const EngineWarningsOff quiet;
    m_library.registerToImServer(m_options.host(), m_options.port(), m_options.user(), QString(), m_options.level(),
        m_options.domain(), QString());
    m_loggedIn = true;
    if (started)
        started();

    // Until connected, refused, interrupted or out of time: an attempt that
    // failed and will be retried just waits on, unless every broker refused
    // the connection. The library tells that without a new event when there
    // are failover brokers, so the error is looked at after each slice.
    const auto deadline = Clock::now() + m_options.connectTimeout();
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        const auto slice = std::clamp(left, std::chrono::milliseconds(0), kErrorCheckInterval);
        const Wait waited = wait(m_connected, slice);
        const PushConnectionError error = m_library.lastConnectionError();
        if (waited == Wait::Interrupted)
            return Outcome::Interrupted;
        if (waited == Wait::Raised && error == PushConnectionError::None)
            return Outcome::Connected;
        if ((!isRetried(error) && error != PushConnectionError::None) || error == PushConnectionError::NothingListening)
            return Outcome::Refused;
        if (waited == Wait::TimedOut && left <= slice)
            return Outcome::TimedOut;
    }
}

CliSession::Wait CliSession::wait(EventFlag &flag, std::chrono::milliseconds timeout)
{
    pollfd fds[] = { { m_termination.fd(), POLLIN, 0 }, { flag.fd(), POLLIN, 0 } };
    switch (waitReadable(fds, 2, Clock::now() + timeout)) {
    case 0:
        m_termination.take();
        return Wait::Interrupted;
    case 1:
        flag.clear();
        return Wait::Raised;
    default:
        return Wait::TimedOut;
    }
}

int CliSession::waitForTermination()
{
    pollfd fds[] = { { m_termination.fd(), POLLIN, 0 } };
    waitReadable(fds, 1, std::nullopt);
    return m_termination.take();
}

void CliSession::logout()
{
    if (!m_loggedIn)
        return;
    m_loggedIn = false;
    m_library.unRegisterToImServer();
}
