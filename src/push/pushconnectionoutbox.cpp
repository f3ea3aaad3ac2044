// PushConnection: requests to the broker (publications, subscriptions),
// sent at once when online, queued in the outbox otherwise and pumped out
// when the link comes up.

#include "pushconnection.h"
#include "pushmosquitto.h"

#include <mosquitto.h>

#include <algorithm>
#include <cstring>
#include <utility>

using namespace pushmosquitto;

namespace {

// Topics per SUBSCRIBE/UNSUBSCRIBE packet.
constexpr std::size_t kFiltersPerPacket = 256;

} // namespace

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
