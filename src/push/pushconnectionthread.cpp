// PushConnection: the network thread's loop, and its watch over the link
// (a broker silent for too long is judged gone).

#include "pushconnection.h"
#include "pushmosquitto.h"

#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

using namespace pushmosquitto;

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
// An attempt without CONNACK after this long is abandoned (libmosquitto gives
// up after the keepalive interval, but never when keepalive is 0).
constexpr auto kConnackTimeout = std::chrono::seconds(30);

} // namespace

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
            const int error = errno;
            processEvents();
            lock.lock();
            const bool unanswered = m_link == Link::Connecting && Clock::now() - m_attemptStartedAt > kConnackTimeout;
            if (rc != MOSQ_ERR_SUCCESS || unanswered) {
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
    const int rc = mosquitto_loop(m_mosq, 0, 1);
    // A connection that ended during the TLS handshake, before any answer,
    // is one libmosquitto would go on writing to until the CONNACK timeout:
    // the kernel tells that it is closed, and whether it ever was open.
    if (rc == MOSQ_ERR_SUCCESS && (fds[1].revents & POLLHUP) && mosquitto_socket(m_mosq) == socket) {
        tcp_info info{};
        socklen_t length = sizeof info;
        if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 && info.tcpi_state == TCP_CLOSE) {
            errno = info.tcpi_rtt == 0 ? ECONNREFUSED : ECONNRESET; // no round trip: the SYN was refused
            return MOSQ_ERR_ERRNO;
        }
    }
    return rc;
}
