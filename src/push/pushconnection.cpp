#include "pushconnection.h"

#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

// While connecting, how long one wait for network activity may last (the
// CONNACK timeout is checked between waits). Online, the thread sleeps until
// the keepalive needs it: requests and close() wake it through m_wakeFd.
constexpr int kLoopTimeoutMs = 100;
// Online without keepalive: nothing is due; wake now and then all the same.
constexpr int kIdleWaitMs = 60000;
// libmosquitto's keepalive clock counts whole seconds, so its ping may come
// up to a second after it is due: never wait less than this for it.
constexpr int kMinWaitMs = 250;
// A broker silent for this many keepalives is gone (frozen, or the path to
// it). A live one answers each ping within the keepalive, and libmosquitto
// pings at the latest one keepalive after the last packet either way; its
// own check would give up only after two.
constexpr int kSilenceLimitTenths = 14;
// Topics per SUBSCRIBE/UNSUBSCRIBE packet.
constexpr std::size_t kFiltersPerPacket = 256;
constexpr int kRefusedFilter = 0x80; // a SUBACK return code: the filter is refused
// An attempt without CONNACK after this long is abandoned (libmosquitto gives
// up after the keepalive interval, but never when keepalive is 0).
constexpr auto kConnackTimeout = std::chrono::seconds(30);
// A link that stayed up this long resets the reconnection delay.
constexpr auto kStableLink = std::chrono::seconds(10);
// Time given, after the wait for acknowledgements, to the DISCONNECT and the
// broker's closing of the connection.
constexpr auto kDisconnectFlush = std::chrono::milliseconds(250);
constexpr std::size_t kMaxTopicBytes = 65535;
constexpr std::size_t kMaxPayloadBytes = 268435455;

void initialiseLibrary()
{
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

int toResult(PushResult result)
{
    return static_cast<int>(result);
}

int fromLibrary(int rc)
{
    switch (rc) {
    case MOSQ_ERR_SUCCESS:
        return toResult(PushResult::Ok);
    case MOSQ_ERR_NO_CONN:
        return toResult(PushResult::NotConnected);
    case MOSQ_ERR_INVAL:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_QOS_NOT_SUPPORTED:
        return toResult(PushResult::InvalidArgument);
    default:
        return toResult(PushResult::Failed);
    }
}

bool validUtf8(const char *text, std::size_t length)
{
    return length <= kMaxTopicBytes && mosquitto_validate_utf8(text, static_cast<int>(length)) == MOSQ_ERR_SUCCESS;
}

bool validPublishTopic(const char *topic)
{
    return topic && *topic && validUtf8(topic, std::strlen(topic)) &&
           mosquitto_pub_topic_check(topic) == MOSQ_ERR_SUCCESS;
}

bool validSubscribeTopic(const char *topic)
{
    return topic && *topic && validUtf8(topic, std::strlen(topic)) &&
           mosquitto_sub_topic_check(topic) == MOSQ_ERR_SUCCESS;
}

// What a refused CONNACK means; 3 (server unavailable) is worth retrying,
// the others cannot be fixed by another attempt with the same settings.
PushConnectionError connackError(int code)
{
    switch (code) {
    case 3:
        return PushConnectionError::ServerUnavailable;
    case 4:
        return PushConnectionError::BadCredentials;
    case 5:
        return PushConnectionError::NotAuthorised;
    default:
        return PushConnectionError::Refused;
    }
}

// A TLS failure, told apart by the error lines libmosquitto logged during
// the handshake (it returns the same code for every TLS failure).
PushConnectionError tlsError(const std::string &logged)
{
    if (logged.find("host name verification failed") != std::string::npos)
        return PushConnectionError::HostNameMismatch;
    if (logged.find("certificate verify failed") != std::string::npos)
        return PushConnectionError::CertificateRejected;
    return PushConnectionError::TlsFailed;
}

const char *orNull(const std::string &text)
{
    return text.empty() ? nullptr : text.c_str();
}

} // namespace

PushConnection::PushConnection(const char *clientId, const PushClientOptions &options)
    : m_options(options), m_outbox(options.maxPendingMessages, options.maxPendingBytes),
      m_backoff(options.reconnectDelayMin, options.reconnectDelayMax)
{
    initialiseLibrary();
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

// Credentials and TLS, once for the handle's life. A setting libmosquitto
// refuses (an unreadable CA file, a certificate without key) is kept and
// reported by the first attempt, which then does not connect.
void PushConnection::configureSecurity()
{
    const PushTlsOptions &tls = m_options.tls;
    if (!m_options.username.empty() &&
        mosquitto_username_pw_set(m_mosq, m_options.username.c_str(), orNull(m_options.password)) != MOSQ_ERR_SUCCESS)
        m_settingsError = "unusable user name (not UTF-8?)";
    if (!tls.enabled)
        return;
    // Without CA files the system's trust store is used; that alone turns
    // TLS on (libmosquitto takes CA files only together with a client
    // certificate, so a certificate needs them).
    const bool ownCa = !tls.caFile.empty() || !tls.caPath.empty();
    if (!ownCa)
        mosquitto_int_option(m_mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
    if ((ownCa || !tls.certFile.empty() || !tls.keyFile.empty()) &&
        mosquitto_tls_set(m_mosq, orNull(tls.caFile), orNull(tls.caPath), orNull(tls.certFile), orNull(tls.keyFile),
            nullptr) != MOSQ_ERR_SUCCESS)
        m_settingsError = ownCa ? "unusable TLS files (CA file or folder, certificate, key): missing, unreadable, "
                                  "or a certificate without its key"
                                : "a client certificate needs the CA file or folder of the broker's certificate";
    // TLS 1.2 at least; verification of the chain, and of the host name
    // unless insecure.
    mosquitto_tls_opts_set(m_mosq, tls.insecure ? 0 : 1, "tlsv1.2", nullptr);
    mosquitto_tls_insecure_set(m_mosq, tls.insecure);
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

// --- operations called from any thread --------------------------------------

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

int PushConnection::publish(const char *topic, const char *payload, int qos, std::uint64_t ticket)
{
    if (!m_mosq || !validPublishTopic(topic) || qos < 0 || qos > 2)
        return toResult(PushResult::InvalidArgument);
    const std::size_t length = payload ? std::strlen(payload) : 0;
    if (length > kMaxPayloadBytes)
        return toResult(PushResult::InvalidArgument);
    qos = std::min(qos, m_maxQos.load());

    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closing)
        return toResult(PushResult::Failed);
    if (qos == 0) {
        if (m_link != Link::Online)
            return toResult(PushResult::NotConnected);
        const int rc = mosquitto_publish(m_mosq, nullptr, topic, static_cast<int>(length), payload, 0, false);
        wake();
        return fromLibrary(rc);
    }

    const std::size_t size = std::strlen(topic) + length;
    if (!m_outbox.hasRoomFor(size))
        return toResult(PushResult::OutboxFull);
    if (m_link != Link::Online) {
        m_outbox.enqueue({ PushOutbox::Request::Kind::Publish, topic, std::string(payload ? payload : "", length), qos,
            {}, ticket });
        return toResult(PushResult::Ok);
    }
    int mid = 0;
    const int rc = mosquitto_publish(m_mosq, &mid, topic, static_cast<int>(length), payload, qos, false);
    // NO_CONN here means the link dropped and we have not processed it yet:
    // libmosquitto still keeps the message and resends it after reconnecting,
    // so it is accepted, and must not be queued a second time.
    if (rc == MOSQ_ERR_SUCCESS || rc == MOSQ_ERR_NO_CONN) {
        m_outbox.trackInFlight(mid, size, ticket);
        wake();
        return toResult(PushResult::Ok);
    }
    return fromLibrary(rc);
}

int PushConnection::subscribe(const std::vector<std::string> &filters, int qos)
{
    if (qos < 0 || qos > 2)
        return toResult(PushResult::InvalidArgument);
    return requestFilters(PushOutbox::Request::Kind::Subscribe, filters, std::min(qos, m_maxQos.load()));
}

int PushConnection::unsubscribe(const std::vector<std::string> &filters)
{
    return requestFilters(PushOutbox::Request::Kind::Unsubscribe, filters, 0);
}

// Filters go out in packets of kFiltersPerPacket. When one is refused, the
// packets before it stand and the rest are not sent.
int PushConnection::requestFilters(PushOutbox::Request::Kind kind, const std::vector<std::string> &filters, int qos)
{
    if (!m_mosq || filters.empty() || !std::all_of(filters.begin(), filters.end(), [](const std::string &f) {
            return validSubscribeTopic(f.c_str());
        }))
        return toResult(PushResult::InvalidArgument);
    if (kind == PushOutbox::Request::Kind::Subscribe)
        m_topics.hold(filters);
    else
        m_topics.release(filters);
    for (std::size_t at = 0; at < filters.size(); at += kFiltersPerPacket) {
        const auto first = filters.begin() + static_cast<std::ptrdiff_t>(at);
        const auto last =
            filters.begin() + static_cast<std::ptrdiff_t>(std::min(filters.size(), at + kFiltersPerPacket));
        const int rc = request({ kind, {}, {}, qos, { first, last } });
        if (rc != toResult(PushResult::Ok))
            return rc;
    }
    return toResult(PushResult::Ok);
}

// Hands a SUBSCRIBE or UNSUBSCRIBE to libmosquitto and tracks its answer.
int PushConnection::sendLocked(const PushOutbox::Request &request)
{
    std::vector<char *> filters;
    for (const std::string &filter : request.filters)
        filters.push_back(const_cast<char *>(filter.c_str()));
    const int count = static_cast<int>(filters.size());
    int mid = 0;
    const int rc = request.kind == PushOutbox::Request::Kind::Subscribe
                       ? mosquitto_subscribe_multiple(m_mosq, &mid, count, filters.data(), request.qos, 0, nullptr)
                       : mosquitto_unsubscribe_multiple(m_mosq, &mid, count, filters.data(), nullptr);
    if (rc == MOSQ_ERR_SUCCESS)
        m_outbox.trackRequest(mid, request.kind == PushOutbox::Request::Kind::Subscribe ? request.qos : -1);
    return rc;
}

int PushConnection::request(PushOutbox::Request request)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closing)
        return toResult(PushResult::Failed);
    if (m_link == Link::Online) {
        const int rc = sendLocked(request);
        if (rc == MOSQ_ERR_SUCCESS)
            wake();
        if (rc != MOSQ_ERR_NO_CONN) // libmosquitto does not keep these: queue them
            return fromLibrary(rc);
    }
    return m_outbox.enqueue(std::move(request)) ? toResult(PushResult::Ok) : toResult(PushResult::OutboxFull);
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

// --- libmosquitto callbacks (inside mosquitto_loop, library locks held) -----

void PushConnection::onConnect(mosquitto *, void *self, int code)
{
    static_cast<PushConnection *>(self)->record({ Event::Kind::Connack, code, {}, {} });
}

void PushConnection::onDisconnect(mosquitto *, void *self, int reason)
{
    Event event{ Event::Kind::Disconnected, reason, {}, {} };
    event.systemError = errno;
    static_cast<PushConnection *>(self)->record(std::move(event));
}

void PushConnection::onPublish(mosquitto *, void *self, int mid)
{
    static_cast<PushConnection *>(self)->record({ Event::Kind::Published, mid, {}, {} });
}

void PushConnection::onSubscribe(mosquitto *, void *self, int mid, int count, const int *granted)
{
    Event event{ Event::Kind::Answered, mid, {}, {} };
    for (int i = 0; i < count; ++i) // the lowest level granted; 128 (refused) above all
        event.qos = i == 0 || granted[i] == kRefusedFilter ? granted[i] : std::min(event.qos, granted[i]);
    static_cast<PushConnection *>(self)->record(std::move(event));
}

void PushConnection::onUnsubscribe(mosquitto *, void *self, int mid)
{
    static_cast<PushConnection *>(self)->record({ Event::Kind::Answered, mid, {}, {} });
}

void PushConnection::onMessage(mosquitto *, void *self, const mosquitto_message *message)
{
    auto *connection = static_cast<PushConnection *>(self);
    Event event{ Event::Kind::Message, message->mid, message->topic ? message->topic : "", {} };
    const std::size_t limit = connection->m_incomingLimit;
    if (limit != 0 && static_cast<std::size_t>(message->payloadlen) > limit)
        event.length = static_cast<std::size_t>(message->payloadlen);
    else if (message->payload && message->payloadlen > 0)
        event.payload.assign(
            static_cast<const char *>(message->payload), static_cast<std::size_t>(message->payloadlen));
    event.qos = message->qos;
    event.retain = message->retain;
    connection->record(std::move(event));
}

// Called on any thread that calls into libmosquitto; keeps the error lines
// of the attempt under way (the TLS failure's reason is only logged).
void PushConnection::onLog(mosquitto *, void *self, int level, const char *text)
{
    if (level != MOSQ_LOG_ERR || !text)
        return;
    auto *connection = static_cast<PushConnection *>(self);
    std::lock_guard<std::mutex> lock(connection->m_eventMutex);
    std::string &errors = connection->m_libraryErrors;
    if (errors.size() < 1024)
        errors.append(errors.empty() ? "" : "; ").append(text);
}

void PushConnection::record(Event event)
{
    std::lock_guard<std::mutex> lock(m_eventMutex);
    m_events.push_back(std::move(event));
}

// --- network thread ----------------------------------------------------------

void PushConnection::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_closing) {
        switch (m_link) {
        case Link::Idle:
        case Link::Refused:
            m_wake.wait(lock);
            break;
        case Link::Waiting:
            if (Clock::now() < m_nextAttempt) {
                m_wake.wait_until(lock, m_nextAttempt);
            } else {
                lock.unlock();
                attemptConnection();
                lock.lock();
            }
            break;
        case Link::Connecting:
        case Link::Online: {
            lock.unlock();
            const int rc = serviceLink();
            processEvents();
            lock.lock();
            const bool unanswered = m_link == Link::Connecting && Clock::now() - m_attemptStartedAt > kConnackTimeout;
            if (rc != MOSQ_ERR_SUCCESS || unanswered) {
                const int error = errno;
                lock.unlock();
                // The next attempt replaces the socket.
                if (unanswered && rc == MOSQ_ERR_SUCCESS)
                    handleLinkDown(MOSQ_ERR_TIMEOUT, "no CONNACK within 30 s");
                else if (rc == MOSQ_ERR_KEEPALIVE)
                    handleLinkDown(rc, "nothing heard from the broker for " +
                                           std::to_string(m_keepalive * kSilenceLimitTenths / 10) + " s");
                else
                    handleLinkDown(rc, rc == MOSQ_ERR_ERRNO ? std::strerror(error) : std::string(), error);
                lock.lock();
            }
            break;
        }
        }
    }
    lock.unlock();
    shutdown();
}

void PushConnection::wake()
{
    const std::uint64_t one = 1;
    if (m_wakeFd >= 0) [[maybe_unused]]
        const auto written = ::write(m_wakeFd, &one, sizeof one);
}

int PushConnection::waitMilliseconds(bool &silent)
{
    int keepalive = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_link != Link::Online)
            return kLoopTimeoutMs;
        keepalive = m_keepalive * 1000;
    }
    if (keepalive == 0)
        return kIdleWaitMs;
    // The kernel knows when data last came and went on the socket.
    tcp_info info{};
    socklen_t length = sizeof info;
    if (::getsockopt(mosquitto_socket(m_mosq), IPPROTO_TCP, TCP_INFO, &info, &length) != 0)
        return kMinWaitMs;
    const long heard = static_cast<long>(info.tcpi_last_data_recv);
    const long said = static_cast<long>(info.tcpi_last_data_sent);
    const long silenceLimit = long(keepalive) * kSilenceLimitTenths / 10;
    if (heard >= silenceLimit) {
        silent = true;
        return 0;
    }
    const long pingDue = keepalive - std::max(heard, said);
    return static_cast<int>(std::max<long>(kMinWaitMs, std::min(pingDue, silenceLimit - heard)));
}

int PushConnection::serviceLink()
{
    bool silent = false;
    const int timeout = waitMilliseconds(silent);
    const int socket = mosquitto_socket(m_mosq);
    if (silent) {
        // Drop the link without DISCONNECT (the broker is to publish the
        // will); libmosquitto discards the socket at the next attempt.
        ::shutdown(socket, SHUT_RDWR);
        return MOSQ_ERR_KEEPALIVE;
    }
    pollfd fds[2] = { { m_wakeFd, POLLIN, 0 }, { socket, POLLIN, 0 } };
    if (mosquitto_want_write(m_mosq))
        fds[1].events |= POLLOUT;
    ::poll(fds, socket >= 0 ? 2 : 1, timeout);
    std::uint64_t wakes = 0;
    if (fds[0].revents & POLLIN) [[maybe_unused]]
        const auto read = ::read(m_wakeFd, &wakes, sizeof wakes);
    return mosquitto_loop(m_mosq, 0, 1);
}

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

void PushConnection::processEvents()
{
    {
        std::lock_guard<std::mutex> lock(m_eventMutex);
        m_batch.swap(m_events);
    }
    if (m_batch.empty())
        return;

    const bool anyAck = std::any_of(m_batch.begin(), m_batch.end(),
        [](const Event &e) { return e.kind == Event::Kind::Published || e.kind == Event::Kind::Answered; });
    std::pair<int, int> lowerGrant{ -1, -1 }; // asked, granted
    std::vector<std::uint64_t> tickets;       // acknowledged
    if (anyAck) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Event &event : m_batch) {
            if (event.kind == Event::Kind::Published) {
                if (const std::uint64_t ticket = m_outbox.acknowledge(event.code))
                    tickets.push_back(ticket);
            } else if (event.kind == Event::Kind::Answered) {
                const int asked = m_outbox.answered(event.code);
                if (asked >= 0 && event.qos != asked && (event.qos < asked || event.qos == kRefusedFilter))
                    lowerGrant = { asked, event.qos };
            }
        }
    }
    PushEventReciever *receiver = m_receiver.load();
    if (lowerGrant.first >= 0 && !m_lowerGrantTold && receiver && !m_closing) {
        m_lowerGrantTold = true;
        receiver->subscriptionGranted(lowerGrant.first, lowerGrant.second);
    }
    for (const std::uint64_t ticket : tickets) {
        if (receiver && !m_closing)
            receiver->published(ticket);
    }
    for (Event &event : m_batch) {
        switch (event.kind) {
        case Event::Kind::Connack:
            handleConnack(event.code);
            break;
        case Event::Kind::Disconnected:
            handleLinkDown(event.code,
                event.code == MOSQ_ERR_ERRNO && event.systemError != 0 ? std::strerror(event.systemError)
                                                                       : std::string(),
                event.systemError);
            break;
        case Event::Kind::Message:
            deliver(event);
            break;
        case Event::Kind::Published:
        case Event::Kind::Answered:
            break;
        }
    }
    m_batch.clear();
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

// Sends what waited for the link, oldest first; libmosquitto has already
// queued its own resends, which are older still. Returns false if the link
// died meanwhile: what is left stays queued, ahead of anything newer.
bool PushConnection::drainOutboxLocked()
{
    while (m_outbox.hasQueued()) {
        const PushOutbox::Request &next = m_outbox.front();
        const char *topic = next.topic.c_str();
        int mid = 0;
        int rc = MOSQ_ERR_SUCCESS;
        switch (next.kind) {
        case PushOutbox::Request::Kind::Publish:
            rc = mosquitto_publish(
                m_mosq, &mid, topic, static_cast<int>(next.payload.size()), next.payload.data(), next.qos, false);
            if (rc == MOSQ_ERR_SUCCESS || rc == MOSQ_ERR_NO_CONN) {
                const std::size_t size = PushOutbox::sizeOf(next);
                const std::uint64_t ticket = next.ticket;
                m_outbox.popFront();
                m_outbox.trackInFlight(mid, size, ticket); // libmosquitto holds it now
                if (rc == MOSQ_ERR_NO_CONN)
                    return false;
                continue;
            }
            break;
        case PushOutbox::Request::Kind::Subscribe:
        case PushOutbox::Request::Kind::Unsubscribe:
            rc = sendLocked(next);
            break;
        }
        if (rc == MOSQ_ERR_NO_CONN)
            return false;
        m_outbox.popFront(); // sent, or refused for good by libmosquitto
    }
    return true;
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
    // libmosquitto 2.0 does not set TLS up a second time with the system's
    // trust store alone: every later attempt fails before connecting, with
    // this line. The first attempt's reason stays the one reported.
    const bool repeatedTls = logged.find("MOSQ_OPT_SSL_CTX_WITH_DEFAULTS") != std::string::npos;
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
        if (!repeatedTls || m_error == PushConnectionError::None) {
            m_error = error;
            m_errorText =
                m_brokers[m_brokerIndex].host + ":" + std::to_string(m_brokers[m_brokerIndex].port) + ": " + detail;
        }
        m_brokerIndex = (m_brokerIndex + 1) % m_brokers.size(); // failover: the next broker, if any
        m_link = Link::Waiting;
        m_nextAttempt = now + m_backoff.next();
    }
    report(false);
}

// QoS 0 is delivered at most once by the transport itself: only QoS 1/2
// deliveries can be redeliveries.
void PushConnection::deliver(Event &message)
{
    if (m_closing)
        return;
    m_topics.restore(message.topic);
    if (message.qos > 0 && message.length == 0 && m_repeats.repeated(message.topic, message.payload, m_connections)) {
        ++m_repeatsDropped;
        return;
    }
    if (PushEventReciever *receiver = m_receiver.load()) {
        const std::size_t length = message.length != 0 ? message.length : message.payload.size();
        receiver->messgeRecievedMore(message.code, message.topic.data(), message.payload.data(),
            static_cast<int>(length), message.qos, message.retain);
    }
}

void PushConnection::report(bool connected)
{
    const Report now = connected ? Report::Online : Report::Offline;
    if (m_closing || m_lastReport == now)
        return;
    m_lastReport = now;
    if (PushEventReciever *receiver = m_receiver.load())
        receiver->connectStatus(connected);
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
