// PushConnection: connection attempts, their refusal, and the move to the
// next broker after a failure or a loss.

#include "pushconnection.h"
#include "pushmosquitto.h"

#include <mosquitto.h>

#include <cerrno>
#include <cstring>
#include <utility>

using namespace pushmosquitto;

namespace {

// A link that stayed up this long resets the reconnection delay.
constexpr auto kStableLink = std::chrono::seconds(10);

} // namespace

void PushConnection::attemptConnection()
{
    PushBrokerAddress target;
    int keepalive = 0;
    Will will;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        target = m_brokers[m_brokerIndex];
        keepalive = m_keepalive;
        will = m_will;
        m_link = Link::Connecting;
        m_attemptStartedAt = Clock::now();
    }
    if (!m_settingsError.empty()) {
        refuse(PushConnectionError::InvalidSettings, m_settingsError);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_eventMutex);
        m_libraryErrors.clear();
    }
    // The reason of a TLS failure is only logged. libmosquitto formats a
    // line for every packet while a log callback is set, so it is set for
    // the handshake only, and taken away once online.
    if (m_options.tls.enabled)
        mosquitto_log_callback_set(m_mosq, &PushConnection::onLog);
    // Only this thread touches the handle while the link is not online.
    if (will.set)
        mosquitto_will_set(
            m_mosq, will.topic.c_str(), static_cast<int>(will.payload.size()), will.payload.data(), will.qos, false);
    else
        mosquitto_will_clear(m_mosq);
    // With TLS the handshake may finish, or fail, inside this call.
    const int rc = mosquitto_connect_async(m_mosq, target.host.c_str(), target.port, keepalive);
    const int error = errno;
    if (rc != MOSQ_ERR_SUCCESS)
        handleLinkDown(rc, rc == MOSQ_ERR_ERRNO ? std::strerror(error) : std::string(), error);
}

void PushConnection::handleConnack(int code)
{
    if (code == 0) {
        bool online = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_closing || m_link != Link::Connecting)
                return;
            online = drainOutboxLocked();
            if (online) {
                ++m_connections;
                m_link = Link::Online;
                m_connectedAt = Clock::now();
                m_refusedInTurn = 0;
                m_error = PushConnectionError::None;
                m_errorText.clear();
                mosquitto_log_callback_set(m_mosq, nullptr);
            }
        }
        if (online)
            report(true);
        return;
    }
    const PushConnectionError error = connackError(code);
    const std::string text = std::string("connection refused: ") + mosquitto_connack_string(code);
    if (isRetried(error))
        handleLinkDown(MOSQ_ERR_CONN_REFUSED, text);
    else
        refuse(error, text);
}

// A failure another attempt cannot fix: reported once, no more attempts
// until start() is called again.
void PushConnection::refuse(PushConnectionError error, std::string text)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closing || m_link != Link::Connecting)
            return;
        m_link = Link::Refused;
        m_error = error;
        m_errorText = std::move(text);
    }
    report(false);
}

void PushConnection::handleLinkDown(int rc, std::string detail, int systemError)
{
    std::string logged;
    {
        std::lock_guard<std::mutex> lock(m_eventMutex);
        logged = m_libraryErrors;
    }
    PushConnectionError error = PushConnectionError::Unreachable;
    if (rc == MOSQ_ERR_TLS || rc == MOSQ_ERR_TLS_HANDSHAKE)
        error = tlsError(logged);
    else if (rc == MOSQ_ERR_CONN_REFUSED)
        error = PushConnectionError::ServerUnavailable;
    if (detail.empty())
        detail = logged.empty() ? mosquitto_strerror(rc) : logged;
    bool online = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        online = m_link == Link::Online;
    }
    if (online) {
        error = PushConnectionError::ConnectionLost; // whatever ended a link that was up
    } else if (!isRetried(error)) {
        refuse(error, std::move(detail));
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_link != Link::Connecting && m_link != Link::Online)
            return;
        if (m_closing) {
            m_link = Link::Idle;
            return;
        }
        const auto now = Clock::now();
        if (m_link == Link::Online && now - m_connectedAt >= kStableLink)
            m_backoff.reset();
        m_outbox.forgetRequests();
        // Refused by every broker in turn: nothing listens, which the
        // application may want to tell apart from a broker out of reach.
        const bool refused = m_link == Link::Connecting && rc == MOSQ_ERR_ERRNO && systemError == ECONNREFUSED;
        m_refusedInTurn = refused ? m_refusedInTurn + 1 : 0;
        if (m_refusedInTurn >= m_brokers.size())
            error = PushConnectionError::NothingListening;
        m_error = error;
        m_errorText =
            m_brokers[m_brokerIndex].host + ":" + std::to_string(m_brokers[m_brokerIndex].port) + ": " + detail;
        m_brokerIndex = (m_brokerIndex + 1) % m_brokers.size(); // failover: the next broker, if any
        m_link = Link::Waiting;
        m_nextAttempt = now + m_backoff.next();
    }
    report(false);
}
