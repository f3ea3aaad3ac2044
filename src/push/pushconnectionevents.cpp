// PushConnection: libmosquitto's callbacks (inside mosquitto_loop, its locks
// held), which only record events, and the network thread's handling of
// them (acknowledgements, arrivals, the receiver's calls).

#include "pushconnection.h"
#include "pushmosquitto.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

using namespace pushmosquitto;

namespace {

constexpr int kRefusedFilter = 0x80; // a SUBACK return code: the filter is refused

} // namespace

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
