// PushConnection: its life, its state, and the operations called from any
// thread that are not requests to the broker.

#include "pushconnection.h"
#include "pushmosquitto.h"

#include <mosquitto.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

using namespace pushmosquitto;

namespace {

// Time given, after the wait for acknowledgements, to the DISCONNECT and the
// broker's closing of the connection.
constexpr auto kDisconnectFlush = std::chrono::milliseconds(250);

} // namespace

PushConnection::PushConnection(const char *clientId, const PushClientOptions &options)
    : m_options(options), m_outbox(options.maxPendingMessages, options.maxPendingBytes),
      m_backoff(options.reconnectDelayMin, options.reconnectDelayMax)
{
    initialise();
    if (!clientId || !*clientId || !validUtf8(clientId, std::strlen(clientId)))
        return;
    // Clean session off: the broker keeps our subscriptions and queues QoS 1/2
    // messages for this client id while it is away.
    m_mosq = mosquitto_new(clientId, false, this);
    if (!m_mosq)
        return;
    mosquitto_threaded_set(m_mosq, true);
    mosquitto_int_option(m_mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(m_mosq, &PushConnection::onConnect);
    mosquitto_disconnect_callback_set(m_mosq, &PushConnection::onDisconnect);
    mosquitto_publish_callback_set(m_mosq, &PushConnection::onPublish);
    mosquitto_subscribe_callback_set(m_mosq, &PushConnection::onSubscribe);
    mosquitto_unsubscribe_callback_set(m_mosq, &PushConnection::onUnsubscribe);
    mosquitto_message_callback_set(m_mosq, &PushConnection::onMessage);
    m_wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_wakeFd < 0)
        m_settingsError = std::string("no wake-up descriptor: ") + std::strerror(errno);
    configureSecurity();
}

PushConnection::~PushConnection()
{
    if (m_thread.joinable())
        m_thread.detach(); // only when the last owner is the network thread itself
    if (m_mosq)
        mosquitto_destroy(m_mosq);
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
}

void PushConnection::setReceiver(PushEventReciever *receiver)
{
    if (!m_closing)
        m_receiver.store(receiver);
}

int PushConnection::setWill(const char *topic, const char *payload, int qos)
{
    if (!m_mosq)
        return toResult(PushResult::InvalidArgument);
    Will will;
    if (topic) {
        if (!validPublishTopic(topic) || qos < 0 || qos > 2)
            return toResult(PushResult::InvalidArgument);
        will.set = true;
        will.topic = topic;
        will.payload = payload ? payload : "";
        will.qos = std::min(qos, m_maxQos.load());
        if (will.payload.size() > kMaxPayloadBytes)
            return toResult(PushResult::InvalidArgument);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_will = std::move(will);
    return toResult(PushResult::Ok);
}

int PushConnection::start(const char *host, int port, int keepalive)
{
    if (!m_mosq || !host || !*host || port <= 0 || port > 65535 || keepalive < 0 || keepalive > 65535)
        return toResult(PushResult::InvalidArgument);
    if (keepalive > 0 && keepalive < 5)
        keepalive = 5;

    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closing)
        return toResult(PushResult::Failed);
    m_keepalive = keepalive;
    m_brokers.assign(1, PushBrokerAddress{ host, port });
    for (const PushBrokerAddress &broker : m_options.failover) {
        if (!broker.host.empty() && broker.port > 0 && broker.port <= 65535)
            m_brokers.push_back(broker);
    }
    m_brokerIndex = 0;
    m_refusedInTurn = 0;
    if (m_link == Link::Idle || m_link == Link::Refused) {
        m_backoff.reset();
        m_link = Link::Waiting;
    }
    if (m_link == Link::Waiting)
        m_nextAttempt = Clock::now();
    if (!m_thread.joinable()) {
        m_thread = std::thread([self = shared_from_this()]() mutable {
            self->run();
            self.reset(); // may destroy this object, on this thread
        });
    }
    m_wake.notify_all();
    return toResult(PushResult::Ok);
}

PushClient::State PushConnection::state() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    switch (m_link) {
    case Link::Idle:
        return PushClient::State::Idle;
    case Link::Online:
        return PushClient::State::Online;
    case Link::Refused:
        return PushClient::State::Refused;
    case Link::Waiting:
    case Link::Connecting:
        break;
    }
    return PushClient::State::Connecting;
}

std::size_t PushConnection::pendingCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_outbox.count();
}

std::pair<PushConnectionError, std::string> PushConnection::lastError() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return { m_error, m_errorText };
}

void PushConnection::close()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closing = true;
        m_receiver.store(nullptr);
    }
    m_wake.notify_all();
    wake();
    if (!m_thread.joinable())
        return;
    if (m_thread.get_id() == std::this_thread::get_id())
        m_thread.detach();
    else
        m_thread.join();
}

// Runs on the network thread once close() was called: lets pending QoS 1/2
// publications be acknowledged (bounded by closeTimeout), then disconnects
// cleanly so the broker drops the will.
void PushConnection::shutdown()
{
    const auto deadline = Clock::now() + m_options.closeTimeout;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_link != Link::Online || !m_outbox.hasInFlight())
                break;
        }
        if (Clock::now() >= deadline)
            break;
        const int rc = mosquitto_loop(m_mosq, 20, 1);
        processEvents();
        if (rc != MOSQ_ERR_SUCCESS) {
            handleLinkDown(rc);
            break;
        }
    }

    bool linked = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        linked = m_link == Link::Online || m_link == Link::Connecting;
        m_link = Link::Idle;
    }
    if (linked)
        disconnectCleanly(Clock::now() + kDisconnectFlush);
    std::lock_guard<std::mutex> lock(m_eventMutex);
    m_events.clear();
}

// Sends DISCONNECT so that the broker drops the will, without letting a
// message still arriving spoil it:
//  - once disconnecting, libmosquitto takes any packet it reads as a protocol
//    error and drops the socket without sending DISCONNECT: so only write;
//  - libmosquitto closes its socket right after writing DISCONNECT, and the
//    broker, still writing to us, would then get a reset and may drop the
//    connection (and publish the will) before reading the DISCONNECT: so keep
//    a duplicate of the socket open, half-close it after the DISCONNECT, and
//    read until the broker closes its side.
void PushConnection::disconnectCleanly(Clock::time_point limit)
{
    while (Clock::now() < limit && mosquitto_want_write(m_mosq)) {
        if (mosquitto_loop(m_mosq, 20, 1) != MOSQ_ERR_SUCCESS)
            return;
    }
    const int socket = mosquitto_socket(m_mosq);
    if (socket < 0)
        return;
    const int held = ::dup(socket);
    if (mosquitto_disconnect(m_mosq) == MOSQ_ERR_SUCCESS) {
        while (Clock::now() < limit && mosquitto_loop_write(m_mosq, 1) == MOSQ_ERR_SUCCESS) {
            pollfd writable{ mosquitto_socket(m_mosq), POLLOUT, 0 };
            if (writable.fd < 0)
                break; // DISCONNECT written, libmosquitto closed its descriptor
            ::poll(&writable, 1, 20);
        }
    }
    if (held < 0)
        return;
    ::shutdown(held, SHUT_WR);
    char scratch[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
        pollfd readable{ held, POLLIN, 0 };
        if (left <= 0 || ::poll(&readable, 1, static_cast<int>(left)) <= 0)
            break;
        if (::recv(held, scratch, sizeof scratch, 0) <= 0)
            break; // the broker closed its side
    }
    ::close(held);
}
